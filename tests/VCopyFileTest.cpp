// VFile::VCopyFile beside a plain loop on the platform's streams: whatever fails, and wherever, both give the
// same result, log the same lines and leave the same bytes.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <ostream>
#include <string>
#include <vector>

#include "LogRecorder.h"
#include "Process.h"
#include "ResourceLimit.h"
#include "Resources.h"
#include "ScratchDirectory.h"
#include "TrappedCalls.h"
#include "VFile.h"

namespace {

namespace fs = std::filesystem;

struct CopyOutcome {
    int status;
    std::vector<std::string> lines;  // as "level function text"
    std::string content;
};

bool operator==(const CopyOutcome& left, const CopyOutcome& right) {
    return left.status == right.status && left.lines == right.lines && left.content == right.content;
}

std::ostream& operator<<(std::ostream& out, const CopyOutcome& outcome) {
    return out << outcome.status << ' ' << testing::PrintToString(outcome.lines) << ", "
               << outcome.content.size() << " bytes";
}

// `size` bytes of all values, whose period divides no block size.
std::string Bytes(std::size_t size) {
    std::string bytes(size, '\0');
    for (std::size_t i = 0; i < size; ++i) bytes[i] = static_cast<char>(i % 257 % 256);
    return bytes;
}

// What is a device has no content to compare.
std::string ContentOf(const std::string& path) {
    return fs::is_regular_file(path) ? ReadWholeFile(path) : "";
}

CopyOutcome ByPlainLoop(const std::string& source, const std::string& destination) {
    CopyOutcome outcome = {};
    char block[2048] = {};
    FILE* const in = fopen(source.c_str(), "rb");
    FILE* const out = fopen(destination.c_str(), "wb");
    for (;;) {
        const std::size_t length = fread(block, 1, sizeof(block), in);
        if (length == 0) break;
        const std::size_t written = fwrite(block, 1, length, out);
        if (written != length) {
            outcome.lines = {"1 VCopyFile ret=" + std::to_string(written) + ",len=" + std::to_string(length)};
            outcome.status = -10000;
            break;
        }
    }
    (void)fflush(in);
    (void)fflush(out);
    (void)fclose(in);
    (void)fclose(out);
    return outcome;
}

CopyOutcome ByLibrary(const std::string& source, const std::string& destination) {
    CopyOutcome outcome = {};
    LogRecorder::Clear();
    outcome.status = VFile::VCopyFile(source.c_str(), destination.c_str());
    for (const LogLine& line : LogRecorder::Lines()) {
        outcome.lines.push_back(std::to_string(line.level) + " " + line.function + " " + line.text);
    }
    return outcome;
}

using CopyFunction = CopyOutcome (*)(const std::string& source, const std::string& destination);

// With what it left.
CopyOutcome Copy(CopyFunction copy, const std::string& source, const std::string& destination) {
    CopyOutcome outcome = copy(source, destination);
    outcome.content = ContentOf(destination);
    return outcome;
}

// From the size on at which the kernel moves most of a copy; around borders of its tail; and far beyond.
const std::size_t kLargeSizes[] = {131071, 131072, 131073, 135168, 139263, 139264,
                                   139265, 147456, 200000, 262145, 300000};

class VCopyFileTest : public ResourceTest {
protected:
    // The first bytes of the same content, and nothing is written anew where they are in place.
    std::string Source(std::size_t size) const {
        const std::string path = scratch_.Path("source");
        if (!fs::exists(path) || fs::file_size(path) < size) return scratch_.Write("source", Bytes(size));
        fs::resize_file(path, size);
        return path;
    }

    const ScratchDirectory scratch_;
};

TEST_F(VCopyFileTest, CopiesToAFullDevice) {
    (void)Source(300000);
    long cells = 0;
    for (std::size_t size = 300000; size<300001; size -= size> 150000 ? 4999 : 997) {
        for (const std::size_t near : {size, size / 4096 * 4096 + 1, size / 4096 * 4096}) {
            SCOPED_TRACE(near);
            const std::string source = Source(near);
            EXPECT_EQ(Copy(ByLibrary, source, "/dev/full"), Copy(ByPlainLoop, source, "/dev/full"));
            ++cells;
        }
    }
    std::printf("%ld copies compared\n", cells);
}

TEST_F(VCopyFileTest, CopiesUpToTheLimitOfAFilesSize) {
    long cells = 0;
    for (const std::size_t size : kLargeSizes) {
        const std::string source = scratch_.Write("source", Bytes(size));
        std::vector<std::size_t> limits = {0, 1, 4096, 5000, 65535, 65536, 65537, 100000};
        for (std::size_t left = 0; left < 40000; left += 1021) limits.push_back(size - left);
        for (std::size_t left = 0; left < 32768; left += 2048) limits.push_back((size - left) / 4096 * 4096);
        for (const std::size_t limit : limits) {
            SCOPED_TRACE(testing::Message() << size << " bytes, limit " << limit);
            const FileSizeLimit fileSizeLimit(limit);

            EXPECT_EQ(Copy(ByLibrary, source, scratch_.Path("copy")),
                      Copy(ByPlainLoop, source, scratch_.Path("plain")));
            ++cells;
        }
    }
    std::printf("%ld copies compared\n", cells);
}

TEST_F(VCopyFileTest, CopiesToAFullDisk) {
    CONTINUE_IN_PRIVATE_NAMESPACE((std::vector<std::string>{"--size", "320000", "--tmpfs", "/mnt"}));
    long cells = 0;
    for (const std::size_t size : kLargeSizes) {
        const std::string source = scratch_.Write("source", Bytes(size));
        std::ofstream("/mnt/filler").close();
        for (std::size_t used = 0; used <= 320000;
             used += used < 4 * 4096 || size > 200000 ? 4096 : 3 * 4096) {
            SCOPED_TRACE(testing::Message() << size << " bytes, " << used << " used");
            std::ofstream("/mnt/filler") << Bytes(used);

            const CopyOutcome expected = Copy(ByPlainLoop, source, "/mnt/copy");
            EXPECT_EQ(unlink("/mnt/copy"), 0);
            EXPECT_EQ(Copy(ByLibrary, source, "/mnt/copy"), expected);
            EXPECT_EQ(unlink("/mnt/copy"), 0);
            ++cells;
        }
    }
    std::printf("%ld copies compared\n", cells);
}

// Of a process that copies with that limit of a file's size; 0 when it ends by itself.
int SignalThatEnds(CopyFunction copy, const std::string& source, const std::string& destination,
                   rlim_t limit) {
    const pid_t child = fork();
    if (child == 0) {
        const rlimit limits = {limit, limit};
        const rlimit noCore = {0, 0};
        (void)setrlimit(RLIMIT_FSIZE, &limits);
        (void)setrlimit(RLIMIT_CORE, &noCore);
        (void)signal(SIGXFSZ, SIG_DFL);
        (void)copy(source, destination);
        _exit(0);
    }
    int status = 0;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    return WIFSIGNALED(status) ? WTERMSIG(status) : 0;
}

TEST_F(VCopyFileTest, IsKilledAtTheLimitOfAFilesSizeWithTheSameBytesWritten) {
    const std::string source = scratch_.Write("source", Bytes(200000));
    for (const rlim_t limit : {0U, 5000U, 100000U, 180224U, 180225U, 199999U}) {
        SCOPED_TRACE(limit);
        EXPECT_EQ(SignalThatEnds(ByLibrary, source, scratch_.Path("copy"), limit), SIGXFSZ);
        EXPECT_EQ(SignalThatEnds(ByPlainLoop, source, scratch_.Path("plain"), limit), SIGXFSZ);

        EXPECT_TRUE(scratch_.Read("copy") == scratch_.Read("plain"));
    }
}

// Every call may fail

enum class Side { kSource, kDestination, kMove };

// Bytes from `place` on can't be read, or written, or moved by the kernel: a call that begins there fails,
// one that leads there is cut. The first call alone, or all.
struct Fault {
    Side side;
    off_t place;
    bool isOnwards;
    int error;
};

std::ostream& operator<<(std::ostream& out, const Fault& fault) {
    const char* const sides[] = {"source", "destination", "move"};
    return out << sides[static_cast<int>(fault.side)] << " at " << fault.place
               << (fault.isOnwards ? " onwards, " : " once, ") << fault.error;
}

// For the answers, which have no memory but this.
Fault theFault;
long failures;
bool hasMoveFailed;

// The descriptor whose position is looked at, or -1 when the fault is not for such a call.
int WatchedDescriptor(const TrappedCall& call) {
    const bool isMove = call.number == SYS_sendfile;
    if (isMove) return static_cast<int>(call.arguments[theFault.side == Side::kSource ? 1 : 0]);
    const bool isWatched = theFault.side == (call.number == SYS_read ? Side::kSource : Side::kDestination);
    return isWatched ? static_cast<int>(call.arguments[0]) : -1;
}

long AnswerWithFault(const TrappedCall& call) {
    const int watched = WatchedDescriptor(call);
    if (watched < 0 || (failures > 0 && !theFault.isOnwards)) return PassOn(call);
    const off_t left = theFault.place - lseek(watched, 0, SEEK_CUR);
    if (left <= 0) {
        ++failures;
        hasMoveFailed = hasMoveFailed || call.number == SYS_sendfile;
        return -theFault.error;
    }
    TrappedCall cut = call;
    long& count = cut.arguments[call.number == SYS_sendfile ? 3 : 2];
    count = std::min<long>(count, left);
    return PassOn(cut);
}

CopyOutcome CopyWithFault(const Fault& fault, CopyFunction copy, const std::string& source,
                          const std::string& destination) {
    // Over old content a disk file system writes new content out at once.
    (void)unlink(destination.c_str());
    theFault = fault;
    failures = 0;
    hasMoveFailed = false;
    SetCallAnswer(AnswerWithFault);
    CopyOutcome outcome = copy(source, destination);
    SetCallAnswer(nullptr);
    outcome.content = ContentOf(destination);
    return outcome;
}

// Each buffer of the streams up to the 40th, some in the middle, the last ones; and places within a buffer.
std::vector<off_t> PlacesIn(off_t size) {
    constexpr off_t buffer = 4096;
    std::vector<off_t> places = {1, 5000, size - 5000, size - 1};
    const off_t buffers = (size + buffer - 1) / buffer;
    for (off_t n = 0; n < buffers; ++n) {
        if (n < 40 || n >= buffers - 10 || n % 64 == 0) places.push_back(n * buffer);
    }
    places.erase(std::remove_if(places.begin(), places.end(),
                                [size](off_t place) { return place < 0 || place >= size; }),
                 places.end());
    return places;
}

// At each place; of a copy that takes its time, with one of the errors there.
std::vector<Fault> FaultsIn(off_t size) {
    constexpr int errors[] = {ENOSPC, EIO, EINTR, EDQUOT};
    std::vector<Fault> faults;
    std::size_t n = 0;
    for (const off_t place : PlacesIn(size)) {
        ++n;
        for (const Side side : {Side::kSource, Side::kDestination, Side::kMove}) {
            for (const int error : errors) {
                if (size > (1 << 20) && error != errors[n % 4]) continue;
                for (const bool isOnwards : {false, true}) faults.push_back({side, place, isOnwards, error});
            }
        }
    }
    return faults;
}

TEST_F(VCopyFileTest, MeetsEveryFailingCallAsAPlainLoopDoes) {
    std::string why;
    if (!CanTrapCalls(why)) GTEST_SKIP() << "no system calls can be trapped: " << why;
    long cells = 0;
    long failedMoves = 0;
    RunTrapped([&] {
        for (const std::size_t size : {1024U, 60000U, 200000U, 3U << 20}) {
            const std::string bytes = Bytes(size);
            const std::string source = scratch_.Write("source", bytes);
            for (const Fault& fault : FaultsIn(static_cast<off_t>(size))) {
                SCOPED_TRACE(testing::Message() << size << " bytes, " << fault);
                const CopyOutcome ours = CopyWithFault(fault, ByLibrary, source, scratch_.Path("copy"));
                ++cells;
                failedMoves += hasMoveFailed;
                // What fails once in the kernel's move does not fail again for the streams.
                if (fault.side == Side::kMove || (hasMoveFailed && !fault.isOnwards)) {
                    EXPECT_EQ(ours, (CopyOutcome{0, {}, bytes}));
                    continue;
                }
                EXPECT_EQ(ours, CopyWithFault(fault, ByPlainLoop, source, scratch_.Path("copy")));
                EXPECT_GT(failures, 0);
            }
        }
    });
    EXPECT_GT(failedMoves, 0);
    std::printf("%ld copies with a failing call compared; in %ld of them the kernel's move failed\n", cells,
                failedMoves);
}

}  // namespace
