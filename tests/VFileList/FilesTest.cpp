#include "Files.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <string>

#include "RecordedOpens.h"
#include "ScratchDirectory.h"
#include "SystemCalls.h"

namespace {

namespace fs = std::filesystem;

class FilesTest : public testing::Test {
protected:
    Content Compare(const std::string& content, const std::string& packaged) {
        return ::Compare(scratch_.Write("file", content), scratch_.Write("packaged", packaged), trouble_);
    }

    static std::size_t OpenDescriptors() {
        const fs::directory_iterator descriptors("/proc/self/fd");
        return static_cast<std::size_t>(std::distance(begin(descriptors), end(descriptors)));
    }

    // What bears the name of the installed file's descriptor.
    static bool IsInstalled(int fd) {
        return fs::read_symlink("/proc/self/fd/" + std::to_string(fd)).filename() == "file";
    }

    ScratchDirectory scratch_;
    std::string trouble_;
};

TEST_F(FilesTest, ComparesContents) {
    EXPECT_EQ(Compare("", ""), Content::kSame);
    EXPECT_EQ(Compare("abc", "abc"), Content::kSame);
    EXPECT_EQ(Compare("", "abc"), Content::kPart);
    EXPECT_EQ(Compare("ab", "abc"), Content::kPart);
    EXPECT_EQ(Compare(std::string("a\0\0", 3), "abc"), Content::kPart);
    EXPECT_EQ(Compare(std::string("a\0", 2), "abc"), Content::kPart);
    EXPECT_EQ(Compare(std::string("\0\0\0", 3), "abc"), Content::kPart);
    EXPECT_EQ(Compare(std::string("a\0\0\0", 4), "abc"), Content::kOther) << "longer than what it copies";
    EXPECT_EQ(Compare(std::string("a\0c", 3), "abc"), Content::kOther);
    EXPECT_EQ(Compare("abd", "abc"), Content::kOther);
    EXPECT_EQ(Compare("abcd", "abc"), Content::kOther);
    EXPECT_EQ(Compare("abc", ""), Content::kOther);
}

TEST_F(FilesTest, LooksForZeroBytesBeyondTheBlockOfTheDifference) {
    constexpr std::size_t kBlock = 256 * 1024;
    const std::string packaged(3 * kBlock, 'x');
    std::string unfinished = packaged;
    unfinished.replace(100, unfinished.size() - 100, unfinished.size() - 100, '\0');

    EXPECT_EQ(Compare(unfinished, packaged), Content::kPart);
    for (const std::size_t at : {kBlock, 3 * kBlock - 1}) {
        unfinished[at] = 'x';
        EXPECT_EQ(Compare(unfinished, packaged), Content::kOther) << at;
        unfinished[at] = '\0';
    }
}

TEST_F(FilesTest, NoticesADifferenceOnEitherSideOfTheEndOfABlock) {
    constexpr std::size_t kBlock = 256 * 1024;
    for (const std::size_t size : {kBlock, kBlock + 1, 2 * kBlock}) {
        const std::string packaged(size, 'x');
        EXPECT_EQ(Compare(packaged, packaged), Content::kSame) << size;
        for (const std::size_t at : {kBlock - 1, kBlock, size - 1}) {
            if (at >= size) continue;
            std::string different = packaged;
            different[at] = 'y';
            EXPECT_EQ(Compare(different, packaged), Content::kOther) << size << " " << at;
        }
    }
}

TEST_F(FilesTest, SaysWhichFileCannotBeCompared) {
    const std::string file = scratch_.Write("file", "x");
    const std::string missing = scratch_.Path("missing");
    EXPECT_EQ(::Compare(file, missing, trouble_), Content::kUnreadable);
    EXPECT_EQ(trouble_, missing + ": No such file or directory");
    EXPECT_EQ(::Compare(scratch_.Path(), file, trouble_), Content::kUnreadable);
    EXPECT_EQ(trouble_, scratch_.Path() + ": not a regular file");
}

TEST_F(FilesTest, SaysWhichOfTheTwoCannotBeReadAndWhereverThatIs) {
    constexpr std::size_t kBlock = 256 * 1024;
    const std::string packaged = scratch_.Write("packaged", std::string(2 * kBlock, 'x'));
    const std::string file = scratch_.Write("file", "x" + std::string(2 * kBlock - 1, '\0'));
    const auto failing = [](const std::string& path, int goodReads) {
        return [=](int fd, void* data, size_t size) mutable -> ssize_t {
            const bool isPath = fs::read_symlink("/proc/self/fd/" + std::to_string(fd)) == path;
            if (!isPath || goodReads-- > 0) return calls::real::read(fd, data, size);
            errno = EIO;
            return -1;
        };
    };
    const std::string reason = ": Input/output error";
    for (const int goodReads : {0, 1}) {
        const Replaced replaced(calls::read, failing(file, goodReads));
        EXPECT_EQ(::Compare(file, packaged, trouble_), Content::kUnreadable) << goodReads;
        EXPECT_EQ(trouble_, file + reason);
    }
    const Replaced replaced(calls::read, failing(packaged, 0));
    EXPECT_EQ(::Compare(file, packaged, trouble_), Content::kUnreadable);
    EXPECT_EQ(trouble_, packaged + reason);
}

TEST_F(FilesTest, DoesNotWaitForThoseWhoWriteToAPipe) {
    const std::string pipe = scratch_.Path("pipe");
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);

    EXPECT_EQ(::Compare(pipe, scratch_.Write("file", "x"), trouble_), Content::kUnreadable);
}

TEST_F(FilesTest, WaitsForNoPipeAndGivesNoDescriptorToAProgramThatIsStarted) {
    const RecordedOpens opens;

    EXPECT_EQ(Compare("abc", "abc"), Content::kSame);

    for (const char* const name : {"file", "packaged"}) {
        EXPECT_EQ(opens.FlagsOf(scratch_.Path(name)), O_RDONLY | O_CLOEXEC | O_NONBLOCK) << name;
    }
}

TEST_F(FilesTest, ReadsNothingThatTurnsIntoAPipeMeanwhile) {
    const std::string file = scratch_.Write("file", "abc");
    const std::string packaged = scratch_.Write("packaged", "abc");
    const Replaced replaced(calls::open, [&file](const char* path, int flags, mode_t mode) {
        if (path == file) {
            fs::remove(file);
            EXPECT_EQ(mkfifo(path, 0600), 0);
        }
        return calls::real::open(path, flags | O_NONBLOCK, mode);
    });
    const std::size_t before = OpenDescriptors();

    EXPECT_EQ(::Compare(file, packaged, trouble_), Content::kUnreadable);

    EXPECT_EQ(trouble_, file + ": not a regular file");
    EXPECT_EQ(OpenDescriptors(), before);
}

TEST_F(FilesTest, LeavesNoDescriptorOpen) {
    const std::size_t before = OpenDescriptors();
    (void)Compare("abc", "abc");
    (void)Compare("abc", "ab");
    (void)::Compare(scratch_.Path("missing"), scratch_.Path("file"), trouble_);
    (void)::Compare(scratch_.Path(), scratch_.Path("file"), trouble_);
    EXPECT_EQ(OpenDescriptors(), before);
}

TEST_F(FilesTest, OpensAndClosesTheDescriptorThatClosedStandardInputLeavesFree) {
    const std::string file = scratch_.Write("file", "abc");
    const std::string packaged = scratch_.Write("packaged", "abc");
    const int input = fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 3);  // -1 when it is closed already
    (void)close(STDIN_FILENO);
    const Content content = ::Compare(file, packaged, trouble_);
    const bool isFree = fcntl(STDIN_FILENO, F_GETFD) == -1;
    const Replaced replaced(calls::fstat, [](int, struct stat*) {
        errno = EIO;
        return -1;
    });
    const Content failed = ::Compare(file, packaged, trouble_);
    const bool isFreeAfterFailure = fcntl(STDIN_FILENO, F_GETFD) == -1;
    if (input >= 0) {
        ASSERT_EQ(dup2(input, STDIN_FILENO), STDIN_FILENO);
        ASSERT_EQ(close(input), 0);
    }

    EXPECT_EQ(content, Content::kSame);
    EXPECT_TRUE(isFree);
    EXPECT_EQ(failed, Content::kUnreadable);
    EXPECT_TRUE(isFreeAfterFailure);
}

TEST_F(FilesTest, KnowsWhetherAPathStaysBelow) {
    for (const char* const path : {"a", "a/b", "a/../b", "./a", "a/..", "", "...", "..a"}) {
        EXPECT_TRUE(StaysBelow(path)) << path;
    }
    for (const char* const path : {"..", "../a", "a/../..", "a/../../b", "/a"})
        EXPECT_FALSE(StaysBelow(path)) << path;
}

TEST_F(FilesTest, TakesSlashesOffTheEndOfAllButTheRootDirectory) {
    EXPECT_EQ(WithoutTrailingSlashes("a/b//"), "a/b");
    EXPECT_EQ(WithoutTrailingSlashes("a"), "a");
    EXPECT_EQ(WithoutTrailingSlashes("/"), "/");
    EXPECT_EQ(WithoutTrailingSlashes("//"), "/");
    EXPECT_EQ(WithoutTrailingSlashes(""), "");
}

TEST_F(FilesTest, NoticesThatAFileWasTouched) {
    struct stat before {};
    struct stat now {};
    const std::string file = scratch_.Write("file", "x");
    ASSERT_EQ(stat(file.c_str(), &before), 0);
    EXPECT_TRUE(IsUnchanged(before, before));
    ASSERT_EQ(chmod(file.c_str(), 0400), 0);
    ASSERT_EQ(stat(file.c_str(), &now), 0);
    EXPECT_FALSE(IsUnchanged(before, now));
    EXPECT_TRUE(IsSameFile(before, now));
    ASSERT_EQ(stat(scratch_.Write("other", "x").c_str(), &now), 0);
    EXPECT_FALSE(IsSameFile(before, now));
}

TEST_F(FilesTest, TakesTheSameInodeNumberOnTwoFileSystemsForTwoFiles) {
    struct stat file {};
    ASSERT_EQ(stat(scratch_.Write("file", "x").c_str(), &file), 0);
    struct stat other = file;
    ++other.st_dev;

    EXPECT_TRUE(IsSameFile(file, file));
    EXPECT_FALSE(IsSameFile(file, other));
}

TEST_F(FilesTest, SaysThatAFileCannotBeRead) {
    // No signal has a handler here, so that an interruption is an error like any other.
    for (const int error : {EIO, EINTR}) {
        for (const bool isInstalledBad : {true, false}) {
            const Replaced replaced(calls::read, [&](int fd, void* data, size_t size) -> ssize_t {
                if (IsInstalled(fd) != isInstalledBad) return calls::real::read(fd, data, size);
                errno = error;
                return -1;
            });

            EXPECT_EQ(Compare("abc", "abc"), Content::kUnreadable) << isInstalledBad;
            EXPECT_EQ(trouble_,
                      scratch_.Path(isInstalledBad ? "file" : "packaged") + ": " + std::strerror(error));
        }
    }
}

TEST_F(FilesTest, SaysThatTheZeroFilledRestOfAFileCannotBeRead) {
    constexpr std::size_t kBlock = 256 * 1024;
    const std::string packaged(2 * kBlock, 'x');
    const Replaced replaced(calls::read, [](int fd, void* data, size_t size) -> ssize_t {
        if (!IsInstalled(fd) || lseek(fd, 0, SEEK_CUR) < static_cast<off_t>(kBlock)) {
            return calls::real::read(fd, data, size);
        }
        errno = EIO;
        return -1;
    });

    EXPECT_EQ(Compare(std::string(2 * kBlock, '\0'), packaged), Content::kUnreadable);
    EXPECT_EQ(trouble_, scratch_.Path("file") + ": Input/output error");
}

TEST_F(FilesTest, SaysThatTheStatusOfAFileCannotBeTold) {
    const std::string file = scratch_.Write("file", "x");
    const std::size_t before = OpenDescriptors();
    const Replaced replaced(calls::fstat, [](int, struct stat*) {
        errno = EIO;
        return -1;
    });

    EXPECT_EQ(::Compare(file, file, trouble_), Content::kUnreadable);
    EXPECT_EQ(trouble_, file + ": Input/output error");
    EXPECT_EQ(OpenDescriptors(), before);
}

TEST_F(FilesTest, TakesAFileForForeignThatGrowsBeyondThePackagesWhileItIsRead) {
    const std::string file = scratch_.Path("file");
    bool hasGrown = false;
    const Replaced replaced(calls::read, [&](int fd, void* data, size_t size) {
        if (!hasGrown) std::ofstream(file, std::ios::app) << "d";
        hasGrown = true;
        return calls::real::read(fd, data, size);
    });

    EXPECT_EQ(Compare("abc", "abc"), Content::kOther);
}

TEST_F(FilesTest, NoticesEveryKindOfChange) {
    struct stat before {};
    ASSERT_EQ(stat(scratch_.Write("file", "x").c_str(), &before), 0);
    const auto isNoticed = [&before](auto change) {
        struct stat now = before;
        change(now);
        return !IsUnchanged(before, now);
    };

    EXPECT_TRUE(isNoticed([](struct stat& now) { ++now.st_dev; }));
    EXPECT_TRUE(isNoticed([](struct stat& now) { ++now.st_ino; }));
    EXPECT_TRUE(isNoticed([](struct stat& now) { ++now.st_size; }));
    EXPECT_TRUE(isNoticed([](struct stat& now) { ++now.st_mode; }));
    EXPECT_TRUE(isNoticed([](struct stat& now) { ++now.st_mtim.tv_sec; }));
    EXPECT_TRUE(isNoticed([](struct stat& now) { ++now.st_mtim.tv_nsec; }));
    EXPECT_TRUE(isNoticed([](struct stat& now) { ++now.st_ctim.tv_sec; }));
    EXPECT_TRUE(isNoticed([](struct stat& now) { ++now.st_ctim.tv_nsec; }));
    EXPECT_FALSE(isNoticed([](struct stat& now) { ++now.st_atim.tv_sec; })) << "somebody has read it";
}

TEST_F(FilesTest, ReadsNothingThatTurnsIntoADirectoryMeanwhile) {
    const std::string file = scratch_.Write("file", "abc");
    const std::string packaged = scratch_.Write("packaged", "abc");
    const Replaced replaced(calls::open, [&file](const char* path, int flags, mode_t mode) {
        if (path == file) {
            fs::remove(file);
            fs::create_directory(file);
        }
        return calls::real::open(path, flags, mode);
    });
    const std::size_t before = OpenDescriptors();

    EXPECT_EQ(::Compare(file, packaged, trouble_), Content::kUnreadable);

    EXPECT_EQ(trouble_, file + ": not a regular file");
    EXPECT_EQ(OpenDescriptors(), before);
}

TEST_F(FilesTest, ReadsAWholeFileHoweverLong) {
    const std::string content(3 * 256 * 1024 + 1, 'x');
    std::string read;
    EXPECT_EQ(ReadWhole(scratch_.Write("file", content), read), 0);
    EXPECT_EQ(read, content);
    read.clear();
    EXPECT_EQ(ReadWhole(scratch_.Write("empty", ""), read), 0);
    EXPECT_EQ(read, "");
}

TEST_F(FilesTest, SaysWhyAFileCannotBeReadWhole) {
    const std::string file = scratch_.Write("file", "abc");
    std::string content;
    EXPECT_EQ(ReadWhole(scratch_.Path("missing"), content), ENOENT);
    EXPECT_EQ(ReadWhole(scratch_.Link("link", file), content), ELOOP) << "a link is not followed";
    EXPECT_EQ(ReadWhole("/dev/null", content), ENOTSUP) << "another device may never end";
    {
        // Which only root could make.
        const Replaced replaced(calls::lstat, [](const char*, struct stat* status) {
            status->st_mode = S_IFBLK;
            return 0;
        });
        EXPECT_EQ(ReadWhole(file, content), ENOTSUP);
    }
    for (const int error : {EIO, EINTR}) {
        const Replaced replaced(calls::read, [error](int, void*, size_t) -> ssize_t {
            errno = error;
            return -1;
        });
        EXPECT_EQ(ReadWhole(file, content), error);
    }
}

TEST_F(FilesTest, SyncsFilesAndDirectories) {
    const std::string file = scratch_.Write("file", "");
    EXPECT_EQ(Sync(file), std::nullopt);
    EXPECT_EQ(Sync(scratch_.Path()), std::nullopt);
    EXPECT_EQ(Sync(scratch_.Path("missing")), scratch_.Path("missing") + ": No such file or directory");
    const Replaced replaced(calls::fsync, [](int) {
        errno = EIO;
        return -1;
    });
    EXPECT_EQ(Sync(file), file + ": Input/output error");
}

TEST_F(FilesTest, KnowsAnUnfinishedCopyByItsBytesAndZeros) {
    const auto isUnfinished = [this](const std::string& content, const std::string& packaged) {
        return IsUnfinishedCopy(scratch_.Write("file", content), scratch_.Write("packaged", packaged),
                                trouble_);
    };
    for (const std::string& content : {std::string(), std::string("ab"), std::string("abc"),
                                       std::string("\0bc", 3), std::string("\0\0", 2)}) {
        EXPECT_EQ(isUnfinished(content, "abc"), true) << content;
    }
    for (const char* const content : {"abd", "x", "abcd"})
        EXPECT_EQ(isUnfinished(content, "abc"), false) << content;

    constexpr std::size_t kBlock = 256 * 1024;
    const std::string packaged(2 * kBlock + 5, 'x');
    EXPECT_EQ(isUnfinished(packaged, packaged), true);
    EXPECT_EQ(isUnfinished(packaged.substr(0, kBlock), packaged), true);
    EXPECT_EQ(isUnfinished(packaged + "x", packaged), false);
    EXPECT_EQ(isUnfinished(packaged.substr(0, 2 * kBlock) + "y", packaged), false);
}

TEST_F(FilesTest, KnowsNoCopyOfWhatIsGoneAndSaysWhatCannotBeRead) {
    const std::string file = scratch_.Write("file", "ab");
    const std::string packaged = scratch_.Write("packaged", "abc");
    EXPECT_EQ(IsUnfinishedCopy(file, scratch_.Path("gone"), trouble_), false);
    EXPECT_EQ(IsUnfinishedCopy(file, packaged + "/gone", trouble_), false);
    EXPECT_EQ(trouble_, "");
    EXPECT_EQ(IsUnfinishedCopy(scratch_.Path("gone"), packaged, trouble_), std::nullopt);
    EXPECT_EQ(trouble_, scratch_.Path("gone") + ": No such file or directory");
    EXPECT_EQ(IsUnfinishedCopy(file, scratch_.Path(), trouble_), std::nullopt);
    EXPECT_EQ(trouble_, scratch_.Path() + ": not a regular file");
    {
        const Replaced replaced(calls::stat, [](const char*, struct stat*) {
            errno = EIO;
            return -1;
        });
        EXPECT_EQ(IsUnfinishedCopy(file, packaged, trouble_), true) << "it opens all the same";
    }
    for (const bool isInstalledBad : {true, false}) {
        const Replaced replaced(calls::read, [isInstalledBad](int fd, void* data, size_t size) -> ssize_t {
            if (IsInstalled(fd) != isInstalledBad) return calls::real::read(fd, data, size);
            errno = EIO;
            return -1;
        });
        EXPECT_EQ(IsUnfinishedCopy(file, packaged, trouble_), std::nullopt);
        EXPECT_EQ(trouble_, file + " or " + packaged + ": Input/output error");
    }
}

}  // namespace
