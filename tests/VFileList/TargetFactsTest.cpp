#include "TargetFacts.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <filesystem>
#include <string>
#include <vector>

#include "Package.h"
#include "SystemCalls.h"

namespace {

namespace fs = std::filesystem;

class TargetFactsTest : public testing::Test {
protected:
    TargetFacts Examine() const {
        const FileList list(package_.ListPath());
        const std::vector<Target> targets = list.Targets();
        EXPECT_EQ(targets.size(), 1u);
        return TargetExaminer(list).Examine(targets.at(0));
    }

    const Package package_;
};

TEST_F(TargetFactsTest, KnowsAFileItsBackupAndThePackagesFile) {
    package_.Bring("tool", "new");
    package_.Install("tool", "new");
    package_.Install("tool.bak", "older");
    ASSERT_EQ(chmod(package_.InstalledPath("tool").c_str(), 0644), 0);
    ASSERT_EQ(chmod(package_.InstalledPath("tool.bak").c_str(), 0755), 0);
    package_.WriteEntries("tool");

    const TargetFacts facts = Examine();

    EXPECT_EQ(facts.state, TargetState::kNew);
    EXPECT_TRUE(facts.hasBackup);
    EXPECT_TRUE(facts.isOccupied);
    EXPECT_EQ(facts.packageSize, 3);
    EXPECT_EQ(facts.backup.st_size, 5);
    EXPECT_TRUE(facts.IsModeDifferent());
    EXPECT_FALSE(facts.IsOwnerDifferent());
}

TEST_F(TargetFactsTest, KnowsADanglingLinkAndADanglingBackup) {
    package_.Bring("tool", "new");
    package_.Install("other", "");
    fs::create_symlink("nowhere", package_.InstalledPath("tool"));
    fs::create_symlink("nowhere", package_.InstalledPath("tool.bak"));
    package_.WriteEntries("tool");

    const TargetFacts facts = Examine();

    EXPECT_EQ(facts.state, TargetState::kMissing);
    EXPECT_TRUE(facts.isOccupied);
    EXPECT_TRUE(facts.hasBackup);
    EXPECT_FALSE(facts.hasReference);
    EXPECT_TRUE(facts.isBackupDangling);
    EXPECT_EQ(facts.detail,
              "a link that points nowhere, NAME.bak is a link that points nowhere; -clean passes over it");
}

TEST_F(TargetFactsTest, TakesASecondNameOfTheSameFileForNoBackup) {
    package_.Bring("tool", "new");
    package_.Install("tool", "old");
    fs::create_hard_link(package_.InstalledPath("tool"), package_.InstalledPath("tool.bak"));
    package_.WriteEntries("tool");

    const TargetFacts facts = Examine();

    EXPECT_FALSE(facts.hasBackup);
    EXPECT_EQ(facts.detail, "NAME.bak is the same file, and no backup");
}

TEST_F(TargetFactsTest, TakesALinkBetweenTheTwoNamesForNoBackup) {
    package_.Bring("tool", "new");
    package_.WriteEntries("tool");
    package_.Install("tool", "old");
    fs::create_symlink("tool", package_.InstalledPath("tool.bak"));
    EXPECT_FALSE(Examine().hasBackup);

    fs::remove(package_.InstalledPath("tool.bak"));
    fs::rename(package_.InstalledPath("tool"), package_.InstalledPath("tool.bak"));
    fs::create_symlink("tool.bak", package_.InstalledPath("tool"));
    EXPECT_FALSE(Examine().hasBackup);
    EXPECT_TRUE(Examine().Observation().isBackupDoubtful);
}

TEST_F(TargetFactsTest, TakesALinkToASecondNameOfTheNewFileForABackup) {
    package_.Bring("tool", "new");
    package_.WriteEntries("tool");
    package_.Install("tool", "new");
    fs::create_hard_link(package_.InstalledPath("tool"), package_.InstalledPath("tool-1.0"));
    fs::create_symlink("tool-1.0", package_.InstalledPath("tool.bak"));

    EXPECT_TRUE(Examine().hasBackup);
    EXPECT_FALSE(Examine().isBackupDangling);
}

TEST_F(TargetFactsTest, HasNoReferenceInADirectory) {
    package_.Bring("tool", "new");
    package_.WriteEntries("tool");
    package_.Install("tool", "new");
    fs::create_directory(package_.InstalledPath("tool.bak"));

    EXPECT_TRUE(Examine().hasBackup);
    EXPECT_FALSE(Examine().hasReference);
}

TEST_F(TargetFactsTest, SaysWhyThePackagesFileCannotBeRead) {
    package_.Install("tool", "old");
    package_.WriteEntries("tool");
    EXPECT_EQ(Examine().detail, "the package lacks tool");

    fs::create_symlink("tool", package_.SourcePath("tool"));
    EXPECT_EQ(Examine().detail, "the package's tool: Too many levels of symbolic links");
}

TEST_F(TargetFactsTest, ComparesWithTheLastOfSeveralEntriesFirst) {
    package_.Bring("a/tool", "from a");
    package_.Bring("b/tool", "from b");
    package_.WriteEntries("a/tool,b/tool");
    const struct {
        const char* content;
        TargetState state;
    } cases[] = {{"from b", TargetState::kNew},
                 {"from a", TargetState::kPartial},
                 {"from", TargetState::kPartial},
                 {"else", TargetState::kOld}};
    for (const auto& row : cases) {
        package_.Install("tool", row.content);
        EXPECT_EQ(Examine().state, row.state) << row.content;
    }
}

TEST_F(TargetFactsTest, TakesAFileBelowAFileForMissing) {
    package_.Bring("tool", "new");
    package_.Install("file", "");
    package_.WriteList("[Server]\nBin=@/file\n[Bin]\nf=tool\n");

    const TargetFacts facts = Examine();

    EXPECT_EQ(facts.state, TargetState::kMissing);
    EXPECT_FALSE(facts.isOccupied);
    EXPECT_EQ(facts.detail, "");
}

TEST_F(TargetFactsTest, KnowsNothingOfWhatItMayNotLookAt) {
    package_.Bring("tool", "new");
    package_.Install("tool", "old");
    package_.WriteEntries("tool");
    const Replaced replaced(calls::lstat, [](const char*, struct stat*) {
        errno = EACCES;
        return -1;
    });

    const TargetFacts facts = Examine();

    EXPECT_EQ(facts.state, TargetState::kUnknown);
    EXPECT_FALSE(facts.isOccupied);
    EXPECT_EQ(facts.detail, "Permission denied, NAME.bak can't be looked at: Permission denied");
}

TEST_F(TargetFactsTest, KnowsNothingOfALinkThatLeadsInACircle) {
    package_.Bring("tool", "new");
    fs::create_symlink("tool", package_.InstalledPath("tool"));
    package_.WriteEntries("tool");

    const TargetFacts facts = Examine();

    EXPECT_EQ(facts.state, TargetState::kUnknown);
    EXPECT_TRUE(facts.isOccupied);
    EXPECT_EQ(facts.detail, "Too many levels of symbolic links");
}

TEST_F(TargetFactsTest, SaysWhyALinksFileCannotBeComparedRatherThanThatItIsALink) {
    package_.Install("tool-1.0", "old");
    fs::create_symlink("tool-1.0", package_.InstalledPath("tool"));
    package_.WriteEntries("tool");

    const TargetFacts facts = Examine();

    EXPECT_EQ(facts.state, TargetState::kUnknown);
    EXPECT_EQ(facts.packageSize, -1);
    EXPECT_EQ(facts.detail, package_.SourcePath("tool") + ": No such file or directory");
}

TEST_F(TargetFactsTest, SaysThatATargetIsALink) {
    package_.Bring("tool", "new");
    package_.Install("tool-1.0", "old");
    fs::create_symlink("tool-1.0", package_.InstalledPath("tool"));
    package_.WriteEntries("tool");

    EXPECT_EQ(Examine().detail, "a link");
}

TEST_F(TargetFactsTest, SaysThatADirectoryIsOneThoughThePackageLacksTheFile) {
    fs::create_directory(package_.InstalledPath("tool"));
    package_.WriteEntries("tool");

    EXPECT_EQ(Examine().detail, "a directory");
}

TEST_F(TargetFactsTest, StaysPartialBesideAnEntryThatCannotBeCompared) {
    package_.Bring("b/tool", "from b");
    package_.Install("tool", "from");
    package_.WriteEntries("a/tool,b/tool");

    EXPECT_EQ(Examine().state, TargetState::kPartial);
}

TEST_F(TargetFactsTest, TellsAnotherUserAndAnotherGroup) {
    TargetFacts facts;
    facts.state = TargetState::kNew;
    facts.hasReference = true;
    EXPECT_FALSE(facts.IsOwnerDifferent());
    facts.reference.st_gid = 1;
    EXPECT_TRUE(facts.IsOwnerDifferent());
    facts.reference.st_gid = 0;
    facts.reference.st_uid = 1;
    EXPECT_TRUE(facts.IsOwnerDifferent());
    facts.state = TargetState::kOld;
    EXPECT_FALSE(facts.IsOwnerDifferent());
}

TEST_F(TargetFactsTest, TakesTheBackupOfADanglingLinkForABackup) {
    package_.Bring("tool", "new");
    fs::create_symlink("nowhere", package_.InstalledPath("tool"));
    package_.Install("tool.bak", "old");
    package_.WriteEntries("tool");

    const TargetFacts facts = Examine();

    EXPECT_TRUE(facts.hasBackup);
    EXPECT_EQ(facts.backupDoubt, BackupDoubt::kNone);
}

TEST_F(TargetFactsTest, SaysThatThePackageLacksWhatWouldStandBelowAFile) {
    package_.Bring("file", "");
    package_.Install("tool", "old");
    package_.WriteEntries("file/tool");

    EXPECT_EQ(Examine().detail, "the package lacks file/tool");
}

}  // namespace
