// The comparison that the tests of upgrades rely on sees each kind of difference.

#include "TreeSnapshot.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <array>
#include <filesystem>

#include "ScratchDirectory.h"

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

namespace {

class TreeSnapshotTest : public testing::Test {
protected:
    TreeSnapshotTest() {
        (void)scratch_.Write("directory/file", "content");
        (void)scratch_.Link("link", "directory/file");
        before_ = TakeSnapshot(scratch_.Path());
    }

    std::vector<std::string> Differences() const {
        return DifferencesBetween(before_, TakeSnapshot(scratch_.Path()));
    }
    std::string File() const { return scratch_.Path("directory/file"); }

    // Writing changes the time, too; only the difference in question shall be seen.
    void KeepTimes() {
        for (auto& [path, node] : before_) node.modified.reset();
    }

    const ScratchDirectory scratch_;
    TreeSnapshot before_;
};

TEST_F(TreeSnapshotTest, SeesNoDifferenceWhereThereIsNone) {
    EXPECT_THAT(Differences(), IsEmpty());
}

TEST_F(TreeSnapshotTest, SeesAnotherContentOfTheSameLength) {
    KeepTimes();
    (void)scratch_.Write("directory/file", "Content");

    EXPECT_THAT(Differences(), ElementsAre(StartsWith("directory/file has ")));
}

TEST_F(TreeSnapshotTest, SeesAnotherTime) {
    const std::array<timespec, 2> times = {timespec{1, 0}, timespec{1, 1}};
    ASSERT_EQ(utimensat(AT_FDCWD, File().c_str(), times.data(), 0), 0);

    EXPECT_THAT(Differences(), ElementsAre(StartsWith("directory/file has ")));
}

TEST_F(TreeSnapshotTest, SeesAnotherMode) {
    ASSERT_EQ(chmod(File().c_str(), 0640), 0);

    EXPECT_THAT(Differences(), ElementsAre(StartsWith("directory/file has mode 100640")));
}

TEST_F(TreeSnapshotTest, SeesAnotherModeOfTheDirectoryItself) {
    ASSERT_EQ(chmod(scratch_.Path().c_str(), 0711), 0);

    EXPECT_THAT(Differences(), ElementsAre(StartsWith(". has mode 40711")));
}

TEST_F(TreeSnapshotTest, SeesAnotherOwner) {
    if (geteuid() != 0) GTEST_SKIP() << "only root gives files away";
    ASSERT_EQ(chown(File().c_str(), 7, 8), 0);

    EXPECT_THAT(Differences(), ElementsAre(StartsWith("directory/file has ")));
}

TEST_F(TreeSnapshotTest, SeesAnAttribute) {
    if (setxattr(File().c_str(), "user.note", "1", 1, 0) != 0) GTEST_SKIP() << "no attributes here";
    EXPECT_THAT(Differences(), ElementsAre(StartsWith("directory/file has ")));

    before_ = TakeSnapshot(scratch_.Path());
    ASSERT_EQ(setxattr(File().c_str(), "user.note", "2", 1, 0), 0);
    EXPECT_THAT(Differences(), ElementsAre(StartsWith("directory/file has ")));
}

TEST_F(TreeSnapshotTest, SeesWhereALinkLeads) {
    KeepTimes();
    fs::remove(scratch_.Path("link"));
    (void)scratch_.Link("link", "directory/fil");

    EXPECT_THAT(Differences(), ElementsAre(StartsWith("link has ")));
}

TEST_F(TreeSnapshotTest, SeesAFileInThePlaceOfALink) {
    KeepTimes();
    fs::remove(scratch_.Path("link"));
    (void)scratch_.Write("link", "directory/file");

    EXPECT_THAT(Differences(), ElementsAre(StartsWith("link has ")));
}

TEST_F(TreeSnapshotTest, SeesWhatIsMissing) {
    fs::remove_all(scratch_.Path("directory"));

    EXPECT_THAT(Differences(), ElementsAre("directory is missing", "directory/file is missing"));
}

TEST_F(TreeSnapshotTest, SeesWhatIsThereInAddition) {
    (void)scratch_.MakeDirectory("empty");
    (void)scratch_.Write("directory/file.bak", "");

    EXPECT_THAT(Differences(),
                ElementsAre("directory/file.bak has come from nowhere", "empty has come from nowhere"));
}

}  // namespace
