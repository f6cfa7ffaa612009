#include "TargetFacts.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <filesystem>
#include <string>
#include <vector>

#include "FileSystem.h"
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
        return ::Examine(list, targets.at(0));
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
    EXPECT_EQ(facts.detail, "a dangling symlink, NAME.bak is a dangling symlink; -clean skips it");
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
    EXPECT_EQ(Examine().backupDoubt, BackupDoubt::kSameFile);
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

// Lets `path` have been changed a little before everything else.
auto WithEarlierChange(const std::string& path, const timespec& changed) {
    return [path, changed](const char* file, struct stat* status) {
        const int result = calls::real::lstat(file, status);
        if (file == path) status->st_ctim = changed;
        return result;
    };
}

TEST_F(TargetFactsTest, DoubtsABackupThatIsOlderThanThePackagesFile) {
    const timespec changed = StatusOf(package_.Bring("tool", "new")).st_ctim;
    package_.Install("tool.bak", "older");
    package_.WriteEntries("tool");
    const struct {
        timespec backup;
        BackupDoubt doubt;
    } cases[] = {{{changed.tv_sec, changed.tv_nsec - 1}, BackupDoubt::kEarlier},
                 {{changed.tv_sec - 1, changed.tv_nsec + 1}, BackupDoubt::kEarlier},
                 {changed, BackupDoubt::kNone},
                 {{changed.tv_sec, changed.tv_nsec + 1}, BackupDoubt::kNone},
                 {{changed.tv_sec + 1, changed.tv_nsec - 1}, BackupDoubt::kNone}};
    for (const auto& row : cases) {
        const Replaced replaced(calls::lstat,
                                WithEarlierChange(package_.InstalledPath("tool.bak"), row.backup));
        const TargetFacts facts = Examine();
        EXPECT_EQ(facts.backupDoubt, row.doubt);
        EXPECT_TRUE(facts.hasBackup);
        EXPECT_EQ(facts.detail, row.doubt == BackupDoubt::kNone ? "" : "NAME.bak is older than the package");
    }
}

TEST_F(TargetFactsTest, ComparesABackupWithTheFileListWhereThePackageLacksTheFile) {
    package_.Install("tool.bak", "old");
    const timespec changed = StatusOf(package_.WriteEntries("tool")).st_ctim;
    const std::string backup = package_.InstalledPath("tool.bak");
    {
        const Replaced replaced(calls::lstat, WithEarlierChange(backup, changed));
        EXPECT_EQ(Examine().backupDoubt, BackupDoubt::kNone);
    }
    const Replaced replaced(calls::lstat, WithEarlierChange(backup, {changed.tv_sec - 1, changed.tv_nsec}));
    EXPECT_EQ(Examine().backupDoubt, BackupDoubt::kEarlier);
    EXPECT_EQ(Examine().packageSize, -1);
}

TEST_F(TargetFactsTest, KnowsWhatRenameMovedForABackup) {
    package_.Install("tool", "old");
    package_.Bring("tool", "new");
    package_.WriteEntries("tool");
    ASSERT_EQ(package_.RunPass("-rename"), 0);

    EXPECT_EQ(Examine().backupDoubt, BackupDoubt::kNone) << "though the file itself is older";
}

TEST_F(TargetFactsTest, SaysThatThePackageLacksWhatWouldStandBelowAFile) {
    package_.Bring("file", "");
    package_.Install("tool", "old");
    package_.WriteEntries("file/tool");

    EXPECT_EQ(Examine().detail, "the package lacks file/tool");
}

}  // namespace
