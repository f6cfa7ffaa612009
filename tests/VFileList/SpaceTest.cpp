#include "Space.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <string>

#include "ScratchDirectory.h"
#include "SystemCalls.h"

namespace {

// Every file system has blocks of 4 KiB, 10 of which are free, 8 for ordinary users, and room for 3 files.
int TellSmallSystem(const char* /*path*/, struct statvfs* system) {
    *system = {};
    system->f_frsize = 4096;
    system->f_bfree = 10;
    system->f_bavail = 8;
    system->f_files = 100;
    system->f_favail = 3;
    return 0;
}

class SpaceTest : public testing::Test {
protected:
    std::string ShortageOf(const SpaceNeed& need) const {
        const std::vector<Shortage> shortages = need.Shortages();
        EXPECT_LE(shortages.size(), 1u);
        if (shortages.empty()) return "";
        EXPECT_EQ(shortages[0].directory, scratch_.Path());
        return shortages[0].detail;
    }
    std::string ShortageOf(off_t size) const {
        SpaceNeed need;
        need.AddFile(scratch_.Path("new/directory"), size);
        return ShortageOf(need);
    }

    const ScratchDirectory scratch_;
    const Replaced<calls::Hook<int(const char*, struct statvfs*)>> system_{calls::statvfs, TellSmallSystem};
    const Replaced<calls::Hook<uid_t()>> user_{calls::geteuid, [] { return 1000; }};
};

TEST_F(SpaceTest, IsEnoughUpToTheLastBlock) {
    EXPECT_EQ(ShortageOf(8 * 4096), "");
    EXPECT_EQ(ShortageOf(8 * 4096 + 1), "36.0 KiB are needed, 32.0 KiB are free");
    EXPECT_EQ(ShortageOf(0), "");
}

TEST_F(SpaceTest, OfTheReserveIsForRoot) {
    const Replaced root(calls::geteuid, [] { return 0; });

    EXPECT_EQ(ShortageOf(10 * 4096), "");
    EXPECT_EQ(ShortageOf(10 * 4096 + 1), "44.0 KiB are needed, 40.0 KiB are free");
}

TEST_F(SpaceTest, OfAllFilesOfAFileSystemIsAddedUpInWholeBlocks) {
    SpaceNeed need;
    need.AddFile(scratch_.MakeDirectory("one"), 1);
    need.AddFile(scratch_.MakeDirectory("two"), 7 * 4096);
    EXPECT_TRUE(need.Shortages().empty());
    need.AddFile(scratch_.Path(), 1);

    EXPECT_EQ(ShortageOf(need), "36.0 KiB are needed, 32.0 KiB are free");
}

TEST_F(SpaceTest, IsWantedForTheNumberOfFilesToo) {
    SpaceNeed need;
    for (int i = 0; i < 3; ++i) need.AddFile(scratch_.Path(), 0);
    EXPECT_EQ(ShortageOf(need), "");
    need.AddFile(scratch_.Path(), 0);
    EXPECT_EQ(ShortageOf(need), "4 files are to be made, 3 are possible");

    const Replaced unlimited(calls::statvfs, [](const char* path, struct statvfs* system) {
        (void)TellSmallSystem(path, system);
        system->f_files = 0;
        return 0;
    });
    EXPECT_EQ(ShortageOf(need), "") << "a file system that does not count files";
}

TEST_F(SpaceTest, IsCountedForEachFileSystemByItself) {
    const Replaced devices(calls::stat, [this](const char* path, struct stat* status) {
        const int result = calls::real::stat(path, status);
        if (path == scratch_.Path("other")) ++status->st_dev;
        return result;
    });
    SpaceNeed need;
    need.AddFile(scratch_.Path(), 5 * 4096);
    need.AddFile(scratch_.MakeDirectory("other"), 5 * 4096);
    EXPECT_TRUE(need.Shortages().empty());
    need.AddFile(scratch_.Path("other"), 4 * 4096);

    ASSERT_EQ(need.Shortages().size(), 1u);
    EXPECT_EQ(need.Shortages()[0].directory, scratch_.Path("other"));
}

TEST_F(SpaceTest, ThatCannotBeToldIsTakenForEnough) {
    const auto fails = [](auto...) {
        errno = EIO;
        return -1;
    };
    {
        const Replaced replaced(calls::stat, fails);
        EXPECT_EQ(ShortageOf(1 << 30), "");
    }
    SpaceNeed need;
    need.AddFile(scratch_.Path(), 1 << 30);
    const Replaced replaced(calls::statvfs, fails);
    EXPECT_EQ(ShortageOf(need), "");
    EXPECT_EQ(ShortageOf(1 << 30), "");
}

}  // namespace
