#include "VMonitorFiles.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <fstream>
#include <functional>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include "Resources.h"
#include "ScratchDirectory.h"
#include "SystemCalls.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

static_assert(std::is_same_v<decltype(&VMonitorFiles::InotifyInit), int (*)(const char*)>);
static_assert(std::is_same_v<decltype(&VMonitorFiles::InotifyFileChange), bool (*)(int, const char*, int)>);
static_assert(std::is_same_v<decltype(&VMonitorFiles::Inotifyclose), void (*)(int)>);
static_assert(!std::is_default_constructible_v<VMonitorFiles> && !std::is_aggregate_v<VMonitorFiles>);

constexpr int kModify = 1;
constexpr int kCreate = 8;

LogLine Line(const std::string& function, const std::string& format, const std::string& text) {
    return {"BaseAPI/VFileSys/src/unix/VMonitorFiles", function, 1, format, text};
}

void Append(const std::string& path, const std::string& text) {
    std::ofstream(path, std::ios::app) << text;
}

bool HasEvents(int fd) {
    pollfd source = {fd, POLLIN, 0};
    return poll(&source, 1, 0) == 1;
}

class VMonitorFilesTest : public ResourceTest {
protected:
    VMonitorFilesTest() : fd_(VMonitorFiles::InotifyInit(nullptr)) {}
    ~VMonitorFilesTest() override {
        if (fd_ >= 0) close(fd_);
    }

    // Waits for `kind` on `path`, and lets `happening` happen when the watch stands and the wait begins.
    bool WaitWhile(const std::string& path, int kind, const std::function<void()>& happening) const {
        const Replaced replaced(calls::read, [&](int fd, void* data, size_t size) {
            if (fd == fd_) {
                EXPECT_FALSE(HasEvents(fd)) << "before anything happened";
                happening();
                if (!HasEvents(fd)) {
                    ADD_FAILURE() << "the call would wait for ever";
                    errno = EIO;
                    return ssize_t{-1};
                }
            }
            return calls::real::read(fd, data, size);
        });
        return VMonitorFiles::InotifyFileChange(fd_, path.c_str(), kind);
    }

    ScratchDirectory scratch_;
    const int fd_;
};

TEST_F(VMonitorFilesTest, InitGivesABlockingDescriptorAndIgnoresItsPath) {
    const Replaced replaced(calls::inotify_add_watch, [](int, const char*, uint32_t) -> int {
        ADD_FAILURE() << "watched the path";
        return -1;
    });
    const int other = VMonitorFiles::InotifyInit("/");

    EXPECT_GE(fd_, 0);
    EXPECT_GE(other, 0);
    EXPECT_NE(other, fd_);
    EXPECT_EQ(fcntl(fd_, F_GETFL) & O_NONBLOCK, 0);
    EXPECT_EQ(fcntl(fd_, F_GETFD) & FD_CLOEXEC, 0) << "children inherit it, as the header warns";
    EXPECT_THAT(LogRecorder::Lines(), IsEmpty());
    close(other);
}

TEST_F(VMonitorFilesTest, InitLogsItsFailure) {
    for (const int result : {-1, -7}) {
        LogRecorder::Clear();
        const Replaced replaced(calls::inotify_init, [result] {
            errno = EMFILE;
            return result;
        });

        EXPECT_EQ(VMonitorFiles::InotifyInit(""), -1);

        EXPECT_THAT(LogRecorder::Lines(), ElementsAre(Line("InotifyInit", "inotify_init failed, error = %d",
                                                           "inotify_init failed, error = 24")));
    }
}

TEST_F(VMonitorFilesTest, InitTakesDescriptor0) {
    const Replaced replaced(calls::inotify_init, [] { return 0; });

    EXPECT_EQ(VMonitorFiles::InotifyInit(nullptr), 0);
    EXPECT_THAT(LogRecorder::Lines(), IsEmpty());
}

TEST_F(VMonitorFilesTest, RefusesBadArgumentsSilently) {
    const std::string file = scratch_.Write("file", "");
    const Replaced replaced(calls::inotify_add_watch, [](int, const char*, uint32_t) -> int {
        ADD_FAILURE() << "watched";
        return -1;
    });

    for (const int kind : {12, 13, -1, 1000000, INT_MIN, INT_MAX}) {
        SCOPED_TRACE(kind);
        EXPECT_FALSE(VMonitorFiles::InotifyFileChange(fd_, file.c_str(), kind));
    }
    EXPECT_FALSE(VMonitorFiles::InotifyFileChange(fd_, nullptr, kModify));
    EXPECT_FALSE(VMonitorFiles::InotifyFileChange(-1, file.c_str(), kModify));
    EXPECT_FALSE(VMonitorFiles::InotifyFileChange(INT_MIN, file.c_str(), kModify));
    EXPECT_THAT(LogRecorder::Lines(), IsEmpty());
}

TEST_F(VMonitorFilesTest, WatchesForExactlyOneEvent) {
    for (int kind = 0; kind < 12; ++kind) {
        SCOPED_TRACE(kind);
        uint32_t mask = 0;
        const Replaced watch(calls::inotify_add_watch, [&](int fd, const char* path, uint32_t wanted) {
            EXPECT_EQ(fd, 77);
            EXPECT_STREQ(path, "the name");
            mask = wanted;
            return 1;
        });
        const Replaced event(calls::read, [](int, void*, size_t) -> ssize_t { return 16; });

        EXPECT_TRUE(VMonitorFiles::InotifyFileChange(77, "the name", kind));

        EXPECT_EQ(mask, 1U << kind);
    }
}

TEST_F(VMonitorFilesTest, TakesDescriptor0AndWatch0) {
    const Replaced watch(calls::inotify_add_watch, [](int fd, const char*, uint32_t) { return fd; });
    const Replaced event(calls::read, [](int, void*, size_t) -> ssize_t { return 16; });

    EXPECT_TRUE(VMonitorFiles::InotifyFileChange(0, "the name", kModify));
}

TEST_F(VMonitorFilesTest, ReturnsWhenTheAwaitedThingHappens) {
    const std::string directory = scratch_.MakeDirectory("dir");
    const std::string file = scratch_.Write("dir/file", "content");
    const std::string other = scratch_.Path("other");
    const int reader = open(file.c_str(), O_RDONLY | O_CLOEXEC);
    const int idle = open(file.c_str(), O_RDONLY | O_CLOEXEC);
    const int writer = open(file.c_str(), O_WRONLY | O_CLOEXEC);
    char byte = 0;

    EXPECT_TRUE(WaitWhile(file, 0, [&] { EXPECT_EQ(pread(reader, &byte, 1, 0), 1); })) << "IN_ACCESS";
    EXPECT_TRUE(WaitWhile(file, 1, [&] { EXPECT_EQ(pwrite(writer, "x", 1, 0), 1); })) << "IN_MODIFY";
    EXPECT_TRUE(WaitWhile(file, 2, [&] { EXPECT_EQ(chmod(file.c_str(), 0600), 0); })) << "IN_ATTRIB";
    EXPECT_TRUE(WaitWhile(file, 3, [&] { close(writer); })) << "IN_CLOSE_WRITE";
    EXPECT_TRUE(WaitWhile(file, 4, [&] { close(idle); })) << "IN_CLOSE_NOWRITE";
    int opened = -1;
    EXPECT_TRUE(WaitWhile(file, 5, [&] { opened = open(file.c_str(), O_RDONLY | O_CLOEXEC); })) << "IN_OPEN";
    close(opened);
    close(reader);
    EXPECT_TRUE(WaitWhile(directory, 6, [&] { EXPECT_EQ(rename(file.c_str(), other.c_str()), 0); }))
        << "IN_MOVED_FROM";
    EXPECT_TRUE(WaitWhile(directory, 7, [&] { EXPECT_EQ(rename(other.c_str(), file.c_str()), 0); }))
        << "IN_MOVED_TO";
    EXPECT_TRUE(WaitWhile(directory, 8, [&] { scratch_.Write("dir/new", ""); })) << "IN_CREATE";
    EXPECT_TRUE(WaitWhile(directory, 9, [&] { EXPECT_EQ(unlink((directory + "/new").c_str()), 0); }))
        << "IN_DELETE";
    EXPECT_TRUE(WaitWhile(file, 11, [&] { EXPECT_EQ(rename(file.c_str(), other.c_str()), 0); }))
        << "IN_MOVE_SELF";
    EXPECT_TRUE(WaitWhile(other, 10, [&] { EXPECT_EQ(unlink(other.c_str()), 0); })) << "IN_DELETE_SELF";
    EXPECT_THAT(LogRecorder::Lines(), IsEmpty());
}

TEST_F(VMonitorFilesTest, IsBlindForOtherKindsOfEvents) {
    const std::string file = scratch_.Write("file", "");

    EXPECT_TRUE(WaitWhile(file, kModify, [&] {
        ASSERT_EQ(chmod(file.c_str(), 0600), 0);
        EXPECT_FALSE(HasEvents(fd_)) << "a change of the mode is no change of the content";
        Append(file, "x");
    }));
}

TEST_F(VMonitorFilesTest, WakesAWaitingThread) {
    const std::string file = scratch_.Write("file", "");
    bool result = false;
    std::atomic<bool> isOver{false};
    std::thread waiter([&] {
        result = VMonitorFiles::InotifyFileChange(fd_, file.c_str(), kModify);
        isOver = true;
    });
    const std::string watches = "/proc/self/fdinfo/" + std::to_string(fd_);
    while (!isOver && ReadWholeFile(watches).find("inotify wd:") == std::string::npos) {
        std::this_thread::yield();
    }

    Append(file, "x");

    waiter.join();
    EXPECT_TRUE(result);
}

TEST_F(VMonitorFilesTest, LogsAPathThatCannotBeWatched) {
    const std::string missing = scratch_.Path("missing");

    EXPECT_FALSE(VMonitorFiles::InotifyFileChange(fd_, missing.c_str(), kModify));
    EXPECT_FALSE(VMonitorFiles::InotifyFileChange(fd_, "", kModify));

    EXPECT_THAT(LogRecorder::Lines(),
                ElementsAre(Line("InotifyFileChange", "could not add watch %s, error = %d",
                                 "could not add watch " + missing + ", error = " + std::to_string(ENOENT)),
                            Line("InotifyFileChange", "could not add watch %s, error = %d",
                                 "could not add watch , error = " + std::to_string(ENOENT))));
}

TEST_F(VMonitorFilesTest, LogsADescriptorThatCannotWatch) {
    const std::string file = scratch_.Write("file", "");
    const int plainFile = open(file.c_str(), O_RDONLY | O_CLOEXEC);

    EXPECT_FALSE(VMonitorFiles::InotifyFileChange(plainFile, file.c_str(), kModify));
    close(plainFile);
    EXPECT_FALSE(VMonitorFiles::InotifyFileChange(plainFile, file.c_str(), kModify));

    EXPECT_THAT(LogRecorder::Texts(),
                ElementsAre("could not add watch " + file + ", error = " + std::to_string(EINVAL),
                            "could not add watch " + file + ", error = " + std::to_string(EBADF)));
}

TEST_F(VMonitorFilesTest, LogsAReadThatFails) {
    const std::string file = scratch_.Write("file", "");
    const Replaced replaced(calls::read, [](int, void*, size_t) -> ssize_t {
        errno = EINTR;
        return -1;
    });

    EXPECT_FALSE(VMonitorFiles::InotifyFileChange(fd_, file.c_str(), kModify));

    EXPECT_THAT(LogRecorder::Lines(), ElementsAre(Line("InotifyFileChange", "could not get event error",
                                                       "could not get event error")));
}

TEST_F(VMonitorFilesTest, TakesAnyOtherResultOfReadForAnEvent) {
    const std::string file = scratch_.Write("file", "");
    const Replaced replaced(calls::read, [](int, void*, size_t) -> ssize_t { return 0; });

    EXPECT_TRUE(VMonitorFiles::InotifyFileChange(fd_, file.c_str(), kModify));
}

TEST_F(VMonitorFilesTest, ReadsOnceInto512ClearedBytes) {
    const std::string file = scratch_.Write("file", "");
    std::vector<std::string> sequence;
    const Replaced clear(calls::memset_s, [&](void* dest, size_t destMax, int value, size_t count) {
        sequence.push_back("memset_s " + std::to_string(destMax) + " " + std::to_string(value) + " " +
                           std::to_string(count));
        return calls::real::memset_s(dest, destMax, value, count);
    });
    const Replaced event(calls::read, [&](int fd, void* data, size_t size) -> ssize_t {
        sequence.push_back("read " + std::to_string(size));
        EXPECT_EQ(fd, fd_);
        EXPECT_EQ(std::string(static_cast<const char*>(data), size), std::string(512, '\0'));
        return 16;
    });

    EXPECT_TRUE(VMonitorFiles::InotifyFileChange(fd_, file.c_str(), kModify));

    EXPECT_THAT(sequence, ElementsAre("memset_s 512 0 512", "read 512"));
}

TEST_F(VMonitorFilesTest, ReturnsAtOnceForAnEventThatWasQueuedBefore) {
    const std::string watched = scratch_.Write("watched", "");
    const std::string other = scratch_.Write("other", "");
    ASSERT_GE(inotify_add_watch(fd_, watched.c_str(), IN_MODIFY), 0);
    Append(watched, "x");
    ASSERT_TRUE(HasEvents(fd_));

    // Nothing ever happens to the file that the call names.
    EXPECT_TRUE(VMonitorFiles::InotifyFileChange(fd_, other.c_str(), kModify));

    EXPECT_FALSE(HasEvents(fd_));
}

TEST_F(VMonitorFilesTest, LeavesWhatIsBeyond512BytesOfEventsToTheNextCall) {
    const std::string directory = scratch_.MakeDirectory("dir");
    ASSERT_GE(inotify_add_watch(fd_, directory.c_str(), IN_CREATE), 0);
    // Each event takes 16 bytes and 16 more for its name: 20 of them are 640.
    for (int i = 10; i < 30; ++i) scratch_.Write("dir/file" + std::to_string(i), "");

    EXPECT_TRUE(VMonitorFiles::InotifyFileChange(fd_, directory.c_str(), kCreate));
    ASSERT_TRUE(HasEvents(fd_));
    EXPECT_TRUE(VMonitorFiles::InotifyFileChange(fd_, directory.c_str(), kCreate));
    EXPECT_FALSE(HasEvents(fd_));
}

TEST_F(VMonitorFilesTest, TakesTheLongestEventThereIs) {
    const std::string directory = scratch_.MakeDirectory("dir");

    EXPECT_TRUE(WaitWhile(directory, kCreate, [&] { scratch_.Write("dir/" + std::string(255, 'n'), ""); }));
}

TEST_F(VMonitorFilesTest, ReplacesTheMaskOfAFileThatIsWatchedAlready) {
    const std::string file = scratch_.Write("file", "");
    EXPECT_TRUE(WaitWhile(file, kModify, [&] { Append(file, "x"); }));

    EXPECT_TRUE(WaitWhile(file, 2, [&] {
        Append(file, "x");
        EXPECT_FALSE(HasEvents(fd_)) << "the earlier kind is not reported any more";
        ASSERT_EQ(chmod(file.c_str(), 0600), 0);
    }));
}

TEST_F(VMonitorFilesTest, ReturnsWhenTheWatchedFileIsGone) {
    const std::string file = scratch_.Write("file", "");

    EXPECT_TRUE(WaitWhile(file, kModify, [&] { EXPECT_EQ(unlink(file.c_str()), 0); }));
}

TEST_F(VMonitorFilesTest, KeepsItsWatchesAfterTheCall) {
    const std::string file = scratch_.Write("file", "");
    EXPECT_TRUE(WaitWhile(file, kModify, [&] { Append(file, "x"); }));

    Append(file, "x");

    EXPECT_TRUE(HasEvents(fd_));
}

TEST_F(VMonitorFilesTest, DeliberatelyLogsASuccessfulCloseAsFailed) {
    const int fd = VMonitorFiles::InotifyInit(nullptr);
    errno = 123;

    VMonitorFiles::Inotifyclose(fd);

    EXPECT_EQ(fcntl(fd, F_GETFD), -1);
    EXPECT_THAT(LogRecorder::Lines(),
                ElementsAre(Line("Inotifyclose", "close failed error = %d", "close failed error = 123")));
}

TEST_F(VMonitorFilesTest, DeliberatelyLogsNothingWhenTheCloseFails) {
    VMonitorFiles::Inotifyclose(-1);

    std::vector<int> closed;
    const Replaced replaced(calls::close, [&closed](int fd) {
        closed.push_back(fd);
        return -1;
    });
    VMonitorFiles::Inotifyclose(-1);
    VMonitorFiles::Inotifyclose(fd_);

    EXPECT_THAT(closed, ElementsAre(-1, fd_));
    EXPECT_THAT(LogRecorder::Lines(), IsEmpty());
}

TEST_F(VMonitorFilesTest, LeavesNothingBehindWhenItFails) {
    ExpectNoLeak([this] { EXPECT_FALSE(VMonitorFiles::InotifyFileChange(fd_, "/no/such/file", kModify)); });
}

}  // namespace
