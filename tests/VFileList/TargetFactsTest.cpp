#include "TargetFacts.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <string>
#include <vector>

#include "Package.h"

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
}

TEST_F(TargetFactsTest, TakesASecondNameOfTheSameFileForNoBackup) {
    package_.Bring("tool", "new");
    package_.Install("tool", "old");
    fs::create_hard_link(package_.InstalledPath("tool"), package_.InstalledPath("tool.bak"));
    package_.WriteEntries("tool");

    EXPECT_FALSE(Examine().hasBackup);
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

}  // namespace
