// Work on whole files, the switch of the file protection, and listings of directory trees.
#include "VFile.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/inotify.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <ostream>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include "FileSystem.h"
#include "LogRecorder.h"
#include "OrdinaryUser.h"
#include "Process.h"
#include "ResourceLimit.h"
#include "Resources.h"
#include "ScratchDirectory.h"
#include "SystemCalls.h"

namespace fs = std::filesystem;

namespace {

using testing::Each;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::UnorderedElementsAre;
using testing::UnorderedElementsAreArray;
using Texts = std::vector<std::string>;
using Sizes = std::vector<std::size_t>;

static_assert(std::is_same_v<decltype(&VFile::FileProtect), void (*)(bool)>);
static_assert(std::is_same_v<decltype(&VFile::RemoveFile), long (*)(const char*)>);
static_assert(std::is_same_v<decltype(&VFile::FileSize), long (*)(const char*)>);
static_assert(std::is_same_v<decltype(&VFile::ReadBinFile), long (*)(const char*, char*, long)>);
static_assert(std::is_same_v<decltype(&VFile::WriteBinFile), long (*)(const char*, const char*, long)>);
static_assert(std::is_same_v<decltype(&VFile::AppendWriteFile), int (*)(const char*, const char*, long)>);
static_assert(std::is_same_v<decltype(&VFile::VCopyFile), int (*)(const char*, const char*)>);
static_assert(std::is_same_v<decltype(&VFile::GetFileLastModifiedTime), time_t (*)(const std::string&)>);
static_assert(std::is_same_v<decltype(&VFile::ListSubDirectories), void (*)(const std::string&, Texts&)>);
static_assert(std::is_same_v<decltype(&VFile::ScanDirectoriesFiles), void (*)(std::string, Texts&)>);
static_assert(!std::is_default_constructible_v<VFile>);
static_assert(!std::is_aggregate_v<VFile>);

// Notices whoever opens the file.
class OpenWatch {
public:
    explicit OpenWatch(const std::string& path) : events_(inotify_init1(IN_NONBLOCK | IN_CLOEXEC)) {
        EXPECT_GE(inotify_add_watch(events_, path.c_str(), IN_OPEN), 0) << path;
    }
    ~OpenWatch() { close(events_); }
    OpenWatch(const OpenWatch&) = delete;
    OpenWatch& operator=(const OpenWatch&) = delete;

    bool WasOpened() const {
        char event[sizeof(inotify_event) + NAME_MAX + 1];
        return read(events_, event, sizeof(event)) > 0;
    }

private:
    const int events_;
};

// Writes down which calls are made for a copy, by the last part of each file's name, and passes them on.
class RecordedStreams {
public:
    Texts calls;
    // How many lines were logged when the first stream was closed.
    std::size_t linesAtFirstClose = 0;

private:
    FILE* Open(const char* path, const char* mode) {
        const std::string name = fs::path(path).filename();
        calls.push_back("fopen " + name + " " + mode);
        FILE* const file = calls::real::fopen(path, mode);
        if (file != nullptr) open_.emplace_back(file, name);
        return file;
    }
    int Flush(FILE* file) {
        calls.push_back("fflush " + NameOf(file));
        return calls::real::fflush(file);
    }
    int Close(FILE* file) {
        if (linesAtFirstClose == 0) linesAtFirstClose = LogRecorder::Lines().size();
        calls.push_back("fclose " + NameOf(file));
        return calls::real::fclose(file);
    }
    std::string NameOf(FILE* file) const {
        for (const auto& [stream, name] : open_) {
            if (stream == file) return name;
        }
        return "?";
    }

    std::vector<std::pair<FILE*, std::string>> open_;
    const Replaced<decltype(calls::fopen)> fopen_{calls::fopen,
                                                  [this](auto... given) { return Open(given...); }};
    const Replaced<decltype(calls::fflush)> fflush_{calls::fflush,
                                                    [this](FILE* file) { return Flush(file); }};
    const Replaced<decltype(calls::fclose)> fclose_{calls::fclose,
                                                    [this](FILE* file) { return Close(file); }};
};

void SetModifiedTime(const std::string& path, time_t seconds, long nanoseconds = 0) {
    const timespec times[2] = {{0, 0}, {seconds, nanoseconds}};
    EXPECT_EQ(utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW), 0) << path;
}

// `size` bytes of all values, NUL among them, whose period divides no block size.
std::string Bytes(std::size_t size) {
    std::string bytes(size, '\0');
    for (std::size_t i = 0; i < size; ++i) bytes[i] = static_cast<char>(i % 257 % 256);
    return bytes;
}

// The size that an input stream tells of `path`, or -10000.
long SizeByStream(const std::string& path) {
    std::ifstream stream(path, std::ios::in | std::ios::binary | std::ios::ate);
    return stream.is_open() ? static_cast<long>(stream.tellg()) : -10000;
}

long WriteText(const std::string& path, const std::string& data) {
    return VFile::WriteBinFile(path.c_str(), data.data(), static_cast<long>(data.size()));
}

int AppendText(const std::string& path, const std::string& data) {
    return VFile::AppendWriteFile(path.c_str(), data.data(), static_cast<long>(data.size()));
}

int Copy(const std::string& source, const std::string& destination) {
    return VFile::VCopyFile(source.c_str(), destination.c_str());
}

Texts SubDirectories(const std::string& path) {
    Texts subDirs;
    VFile::ListSubDirectories(path, subDirs);
    return subDirs;
}

Texts FilesBelow(const std::string& path) {
    Texts files;
    VFile::ScanDirectoriesFiles(path, files);
    return files;
}

LogLine Line(const std::string& function, int level, const std::string& format, const std::string& text) {
    return {"BaseAPI/VFileSys/src/VFile", function, level, format, text};
}

LogLine OpenLine(const std::string& path, int error) {
    return Line("fopen_s", 3, "open file %s errno %d",
                "open file " + path + " errno " + std::to_string(error));
}

LogLine NoSourceLine(const std::string& path) {
    return Line("VCopyFile", 3, "Not Exist:srcFilename=%s", "Not Exist:srcFilename=" + path);
}

LogLine NoDestinationLine(const std::string& path) {
    return Line("VCopyFile", 3, "Not fopen_s:dstFilename=%s", "Not fopen_s:dstFilename=" + path);
}

LogLine ShortWriteLine(std::size_t written, std::size_t length) {
    return Line("VCopyFile", 1, "ret=%d,len=%d",
                "ret=" + std::to_string(written) + ",len=" + std::to_string(length));
}

struct CopyResult {
    int status;
    std::vector<LogLine> lines;
};

bool operator==(const CopyResult& left, const CopyResult& right) {
    return left.status == right.status && left.lines == right.lines;
}

std::ostream& operator<<(std::ostream& out, const CopyResult& result) {
    return out << result.status << ' ' << testing::PrintToString(result.lines);
}

// The regular files below `path`, those of a subdirectory at the place where the stream gave that.
Texts TreeInStreamOrder(const std::string& path) {
    Texts files;
    for (const std::string& name : NamesInStreamOrder(path)) {
        const std::string entry = path + "/" + name;
        if (fs::is_regular_file(entry)) files.push_back(entry);
        if (!fs::is_directory(entry)) continue;
        const Texts below = TreeInStreamOrder(entry);
        files.insert(files.end(), below.begin(), below.end());
    }
    return files;
}

// Puts `mode` in the place of what stat tells of the entries named `name`.
Replaced<decltype(calls::stat)> PretendMode(const std::string& name, mode_t mode) {
    return {calls::stat, [name, mode](const char* path, struct stat* status) {
                const int result = calls::real::stat(path, status);
                if (fs::path(path).filename() == name) status->st_mode = mode;
                return result;
            }};
}

// Makes stat fail for the entries named `name`, with the caller's record left as it was.
Replaced<decltype(calls::stat)> FailStat(const std::string& name) {
    return {calls::stat, [name](const char* path, struct stat* status) {
                if (fs::path(path).filename() != name) return calls::real::stat(path, status);
                errno = EIO;
                return -1;
            }};
}

// Log lines that a test has not taken are a failure, so every other operation is proved to be quiet.
class VFileTest : public ResourceTest {
protected:
    ~VFileTest() override { EXPECT_THAT(LogRecorder::Lines(), IsEmpty()); }

    static std::vector<LogLine> TakeLogLines() {
        const std::vector<LogLine> lines = LogRecorder::Lines();
        LogRecorder::Clear();
        return lines;
    }

    static CopyResult CopyAndTakeLogLines(const std::string& source, const std::string& destination) {
        const int status = Copy(source, destination);
        return {status, TakeLogLines()};
    }

    const ScratchDirectory scratch_;
};

// FileProtect

std::vector<LogLine> ProtectLines(int flag, int waitStatus) {
    return {Line("FileProtect", 3, "enableFlag=%d", "enableFlag=" + std::to_string(flag)),
            Line("FileProtect", 3, "Done return: %d", "Done return: " + std::to_string(waitStatus))};
}

TEST_F(VFileTest, FileProtectRunsTheHelperForEachFlagByItsExactCommand) {
    Texts commands;
    const Replaced recording(calls::system, [&](const char* command) {
        commands.push_back(command);
        EXPECT_EQ(LogRecorder::Lines().size(), 1u) << "the flag is logged before the run";
        return 0;
    });

    VFile::FileProtect(true);
    EXPECT_EQ(TakeLogLines(), ProtectLines(1, 0));
    VFile::FileProtect(false);
    EXPECT_EQ(TakeLogLines(), ProtectLines(0, 0));

    EXPECT_THAT(commands,
                ElementsAre("/usr/local/tarnserver/bin/tarnfileprotect 1 > /tmp/tmphfpenable.log",
                            "/usr/local/tarnserver/bin/tarnfileprotect 0 > /tmp/tmphfpdisable.log"));
}

TEST_F(VFileTest, FileProtectLogsTheRawStatusOfTheRun) {
    for (const int status : {0, 768, 9, -1, 32512}) {
        const Replaced giving(calls::system, [status](const char*) { return status; });

        VFile::FileProtect(true);

        EXPECT_EQ(TakeLogLines(), ProtectLines(1, status));
    }
}

TEST_F(VFileTest, FileProtectReplacesTheHelpersLogOnEachCall) {
    CONTINUE_IN_PRIVATE_NAMESPACE(WithHelperTool(scratch_, "echo \"told $*\"; echo trouble >&2; exit 3\n"));

    for (int round = 0; round < 2; ++round) {
        VFile::FileProtect(true);
        EXPECT_EQ(TakeLogLines(), ProtectLines(1, 768));
        EXPECT_EQ(ReadWholeFile("/tmp/tmphfpenable.log"), "told 1\n");

        VFile::FileProtect(false);
        EXPECT_EQ(TakeLogLines(), ProtectLines(0, 768));
        EXPECT_EQ(ReadWholeFile("/tmp/tmphfpdisable.log"), "told 0\n");
    }
}

TEST_F(VFileTest, FileProtectLogsTheStatusOfAShellThatFindsNoHelper) {
    CONTINUE_IN_PRIVATE_NAMESPACE(WithoutHelperTool());
    std::ofstream("/tmp/tmphfpenable.log") << "from an earlier call";

    VFile::FileProtect(true);

    EXPECT_EQ(TakeLogLines(), ProtectLines(1, 32512));
    EXPECT_EQ(ReadWholeFile("/tmp/tmphfpenable.log"), "");
}

TEST_F(VFileTest, FileProtectLogsTheShellsStatusForAHelperThatWasKilled) {
    // Any shell stays for this command, since it redirects the output.
    CONTINUE_IN_PRIVATE_NAMESPACE(WithHelperTool(scratch_, "kill -9 $$\n"));

    VFile::FileProtect(true);

    EXPECT_EQ(TakeLogLines(), ProtectLines(1, 137 * 256));
}

TEST_F(VFileTest, FileProtectLogsMinus1WhereTheProcessIgnoresItsChildren) {
    CONTINUE_IN_PRIVATE_NAMESPACE(WithHelperTool(scratch_, "echo \"told $*\"\n"));
    signal(SIGCHLD, SIG_IGN);

    VFile::FileProtect(true);

    EXPECT_EQ(TakeLogLines(), ProtectLines(1, -1));
    EXPECT_EQ(ReadWholeFile("/tmp/tmphfpenable.log"), "told 1\n");
}

// RemoveFile

TEST_F(VFileTest, RemoveFileRemovesAFileOrAnEmptyDirectory) {
    EXPECT_EQ(VFile::RemoveFile(scratch_.Write("file", "x").c_str()), 0);
    EXPECT_EQ(VFile::RemoveFile(scratch_.MakeDirectory("dir").c_str()), 0);

    EXPECT_THAT(scratch_.List(), IsEmpty());
}

TEST_F(VFileTest, RemoveFileOfNullIsMinus1) {
    EXPECT_EQ(VFile::RemoveFile(nullptr), -1);
}

TEST_F(VFileTest, RemoveFileFailsWithTheErrnoOfRemove) {
    scratch_.Write("full/file", "kept");
    const struct {
        std::string path;
        int error;
    } rows[] = {{scratch_.Path("missing"), ENOENT},
                {scratch_.Path("full"), ENOTEMPTY},
                {scratch_.Path("full/file/below"), ENOTDIR},
                {"", ENOENT}};

    for (const auto& row : rows) {
        SCOPED_TRACE(row.path);
        EXPECT_EQ(VFile::RemoveFile(row.path.c_str()), -10000);
        EXPECT_EQ(errno, row.error);
    }
    EXPECT_EQ(scratch_.Read("full/file"), "kept");
}

TEST_F(VFileTest, RemoveFileRemovesALinkAndKeepsItsTarget) {
    scratch_.Write("file", "kept");
    scratch_.MakeDirectory("dir");

    for (const char* const target : {"file", "dir", "missing"}) {
        EXPECT_EQ(VFile::RemoveFile(scratch_.Link("link", target).c_str()), 0) << target;
    }
    EXPECT_THAT(scratch_.List(), ElementsAre("dir", "file"));
}

TEST_F(VFileTest, RemoveFileTurnsEveryFailureOfRemoveIntoMinus10000) {
    for (const int result : {-1, 1}) {
        Texts removed;
        const Replaced failing(calls::remove, [&](const char* path) {
            removed.push_back(path);
            return result;
        });
        EXPECT_EQ(VFile::RemoveFile("./a//b"), -10000);
        EXPECT_THAT(removed, ElementsAre("./a//b"));
    }
}

// FileSize

TEST_F(VFileTest, FileSizeIsTheNumberOfBytes) {
    for (const std::size_t size : Sizes{0, 1, 4096, 100000}) {
        EXPECT_EQ(VFile::FileSize(scratch_.Write("file", Bytes(size)).c_str()), static_cast<long>(size));
    }
}

TEST_F(VFileTest, FileSizeOfAFileBeyond4GiBIsExact) {
    const std::string path = scratch_.Write("sparse", "");
    ASSERT_EQ(truncate(path.c_str(), 5368709121), 0);
    char buf[16] = {'o', 'l', 'd'};

    EXPECT_EQ(VFile::FileSize(path.c_str()), 5368709121);
    EXPECT_EQ(VFile::ReadBinFile(path.c_str(), buf, sizeof(buf)), -10000);

    EXPECT_STREQ(buf, "old");
}

TEST_F(VFileTest, FileSizeFollowsLinks) {
    scratch_.Write("file", "12345");

    EXPECT_EQ(VFile::FileSize(scratch_.Link("link", "file").c_str()), 5);
    EXPECT_EQ(VFile::FileSize(scratch_.Link("dangling", "missing").c_str()), -10000);
}

TEST_F(VFileTest, FileSizeFailsForWhatDoesNotOpen) {
    scratch_.Write("file", "");

    EXPECT_EQ(VFile::FileSize(nullptr), -10000);
    EXPECT_EQ(VFile::FileSize(""), -10000);
    EXPECT_EQ(VFile::FileSize(scratch_.Path("missing").c_str()), -10000);
    EXPECT_EQ(VFile::FileSize(scratch_.Path("file/below").c_str()), -10000);
    EXPECT_FALSE(scratch_.Has("missing"));
}

TEST_F(VFileTest, FileSizeFailsWhereTheStreamCannotGoToTheEnd) {
    const std::string fifo = scratch_.Path("fifo");
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    // The pipe has a writer, so that it opens at once.
    const int writer = open(fifo.c_str(), O_RDWR | O_CLOEXEC);

    EXPECT_EQ(VFile::FileSize("/proc/self/status"), -10000);
    EXPECT_EQ(VFile::FileSize(fifo.c_str()), -10000);

    close(writer);
}

TEST_F(VFileTest, FileSizeOfADirectoryIsWhatTheFileSystemMakesOfItsEnd) {
    for (const std::string& path :
         {scratch_.Path(), std::string("/"), std::string("/dev"), std::string("/proc")}) {
        SCOPED_TRACE(path);
        EXPECT_EQ(VFile::FileSize(path.c_str()), SizeByStream(path));
    }
}

TEST_F(VFileTest, FileSizeOfAnUnreadableFileFails) {
    const std::string path = scratch_.Write("closed", "12345");
    ASSERT_EQ(chmod(path.c_str(), 0222), 0);
    const OrdinaryUser ordinaryUser(scratch_.Path());

    EXPECT_EQ(VFile::FileSize(path.c_str()), -10000);
}

// ReadBinFile

TEST_F(VFileTest, ReadBinFileReadsAFileThatFitsAndLeavesTheBytesBehindItAlone) {
    const std::string path = scratch_.Write("data.bin", std::string("1\0\n4\xff", 5));

    for (const long room : {5, 6, 8}) {
        char buf[8] = {'x', 'x', 'x', 'x', 'x', 'x', 'x', 'x'};
        EXPECT_EQ(VFile::ReadBinFile(path.c_str(), buf, room), 5);
        EXPECT_EQ(std::string(buf, sizeof(buf)), std::string("1\0\n4\xffxxx", 8));
    }
}

TEST_F(VFileTest, ReadBinFileLeavesBufferAloneWhenFileIsOneByteTooLong) {
    const std::string path = scratch_.Write("data.bin", "12345");
    char buf[4] = {'x', 'x', 'x', 'x'};

    EXPECT_EQ(VFile::ReadBinFile(path.c_str(), buf, sizeof(buf)), -10000);

    EXPECT_EQ(std::string(buf, sizeof(buf)), "xxxx");
}

TEST_F(VFileTest, ReadBinFileReadsBigFilesWhole) {
    const std::string content = Bytes(1000000);
    const std::string path = scratch_.Write("data.bin", content);
    std::string buf(content.size() + 1, 'x');

    EXPECT_EQ(VFile::ReadBinFile(path.c_str(), buf.data(), static_cast<long>(buf.size())), 1000000);

    EXPECT_TRUE(buf == content + "x");
}

TEST_F(VFileTest, ReadBinFileOfAnEmptyFileReturns0AndReadsNothing) {
    const std::string path = scratch_.Write("empty", "");
    char buf = 'x';

    EXPECT_EQ(VFile::ReadBinFile(path.c_str(), &buf, 1), 0);
    EXPECT_EQ(VFile::ReadBinFile("/dev/null", &buf, 1), 0);

    EXPECT_EQ(buf, 'x');
}

TEST_F(VFileTest, ReadBinFileFailsForWhatDoesNotOpenOrHasNoEnd) {
    char buf[4] = {'x', 'x', 'x', 'x'};

    for (const std::string& path :
         {scratch_.Path("missing"), scratch_.Path(), std::string("/proc/self/status"), std::string("")}) {
        SCOPED_TRACE(path);
        EXPECT_EQ(VFile::ReadBinFile(path.c_str(), buf, sizeof(buf)), -10000);
        EXPECT_EQ(std::string(buf, sizeof(buf)), "xxxx");
    }
}

TEST_F(VFileTest, ReadBinFileDoesNotOpenTheFileForUnusableArguments) {
    const std::string path = scratch_.Write("empty", "");
    char buf = 'x';
    const OpenWatch watch(path);

    EXPECT_EQ(VFile::ReadBinFile(path.c_str(), nullptr, 1), -10000);
    EXPECT_EQ(VFile::ReadBinFile(path.c_str(), &buf, 0), -10000);
    EXPECT_EQ(VFile::ReadBinFile(path.c_str(), &buf, -1), -10000);
    EXPECT_EQ(VFile::ReadBinFile(path.c_str(), &buf, LONG_MIN), -10000);
    EXPECT_EQ(VFile::ReadBinFile(nullptr, &buf, 1), -10000);
    EXPECT_FALSE(watch.WasOpened());

    EXPECT_EQ(VFile::ReadBinFile(path.c_str(), &buf, 1), 0);
    EXPECT_TRUE(watch.WasOpened());
}

TEST_F(VFileTest, ANullPathIsRefusedWithoutASystemCallThatSetsErrno) {
    char buf = 'x';
    errno = 0;

    EXPECT_EQ(VFile::FileSize(nullptr), -10000);
    EXPECT_EQ(VFile::ReadBinFile(nullptr, &buf, 1), -10000);
    EXPECT_EQ(VFile::WriteBinFile(nullptr, &buf, 1), -10000);
    EXPECT_EQ(VFile::AppendWriteFile(nullptr, &buf, 1), -10000);
    EXPECT_EQ(VFile::RemoveFile(nullptr), -1);

    EXPECT_EQ(errno, 0);
}

// WriteBinFile and AppendWriteFile

TEST_F(VFileTest, WriteBinFileCreatesAFileOfTheGivenBytes) {
    const Umask umask(027);

    for (const std::size_t size : Sizes{1, 4096, 1000000}) {
        const std::string name = "file" + std::to_string(size);
        EXPECT_EQ(WriteText(scratch_.Path(name), Bytes(size)), static_cast<long>(size));
        EXPECT_TRUE(scratch_.Read(name) == Bytes(size));
        EXPECT_EQ(PermissionsOf(scratch_.Path(name)), 0640);
    }
}

TEST_F(VFileTest, WriteBinFileTruncatesALongerFile) {
    const std::string path = scratch_.Write("file", "much longer than this");

    EXPECT_EQ(WriteText(path, "new"), 3);

    EXPECT_EQ(scratch_.Read("file"), "new");
}

TEST_F(VFileTest, WriteBinFileWritesThroughALink) {
    scratch_.Write("file", "old");

    EXPECT_EQ(WriteText(scratch_.Link("link", "file"), "newer"), 5);
    EXPECT_EQ(WriteText(scratch_.Link("dangling", "made"), "x"), 1);

    EXPECT_EQ(scratch_.Read("file"), "newer");
    EXPECT_EQ(scratch_.Read("made"), "x");
    EXPECT_TRUE(S_ISLNK(StatusOf(scratch_.Path("link")).st_mode));
}

TEST_F(VFileTest, WriteBinFileMeasuresTheFileAndSoFailsOnDevices) {
    EXPECT_EQ(WriteText("/dev/full", "x"), -10000);
    EXPECT_EQ(WriteText("/dev/null", "x"), -10000);
}

TEST_F(VFileTest, WriteBinFileNoticesAShortWriteAndLeavesWhatWasWritten) {
    const std::string path = scratch_.Path("file");
    {
        const FileSizeLimit limit(1000);
        EXPECT_EQ(WriteText(path, Bytes(1001)), -10000);
        EXPECT_EQ(VFile::FileSize(path.c_str()), 1000);
        EXPECT_EQ(WriteText(path, Bytes(1000)), 1000);
    }
    EXPECT_EQ(scratch_.Read("file"), Bytes(1000));
}

TEST_F(VFileTest, WriteBinFileFailsForAFileItMayWriteButNotMeasure) {
    const std::string path = scratch_.Write("writeOnly", "old");
    ASSERT_EQ(chmod(path.c_str(), 0222), 0);
    const OrdinaryUser ordinaryUser(scratch_.Path());

    EXPECT_EQ(WriteText(path, "newer"), -10000);

    EXPECT_EQ(StatusOf(path).st_size, 5);
}

TEST_F(VFileTest, AppendWriteFilePutsBytesBehindTheOldOnes) {
    const std::string path = scratch_.Write("file", "old ");

    EXPECT_EQ(AppendText(path, std::string("a\0\n", 3)), 0);
    EXPECT_EQ(AppendText(path, Bytes(100000)), 0);

    EXPECT_TRUE(scratch_.Read("file") == std::string("old a\0\n", 7) + Bytes(100000));
}

TEST_F(VFileTest, AppendWriteFileCreatesAMissingFile) {
    const Umask umask(027);

    EXPECT_EQ(AppendText(scratch_.Path("file"), "x"), 0);

    EXPECT_EQ(scratch_.Read("file"), "x");
    EXPECT_EQ(PermissionsOf(scratch_.Path("file")), 0640);
}

TEST_F(VFileTest, AppendWriteFileReturns0AlsoWhenTheWriteFailed) {
    EXPECT_EQ(AppendText("/dev/full", "x"), 0);
    EXPECT_EQ(AppendText("/dev/full", Bytes(1000000)), 0);

    const std::string path = scratch_.Write("file", "old");
    {
        const FileSizeLimit limit(5);
        EXPECT_EQ(AppendText(path, "12345"), 0);
    }
    EXPECT_EQ(scratch_.Read("file"), "old12");
}

TEST_F(VFileTest, ReadersAndWritersDoNotNeedTheHeapForTheirStreamBuffers) {
    if (!heap::IsCounted()) GTEST_SKIP() << "a sanitizer owns the heap";
    const std::string path = scratch_.Path("file");
    const std::string data = Bytes(100000);
    std::string buf(100001, 'x');
    const Replaced failing(calls::failingMallocSize, static_cast<std::size_t>(BUFSIZ));

    EXPECT_EQ(WriteText(path, data), 100000);
    EXPECT_EQ(AppendText(path, "x"), 0);
    EXPECT_EQ(VFile::FileSize(path.c_str()), 100001);
    EXPECT_EQ(VFile::ReadBinFile(path.c_str(), buf.data(), 100001), 100001);

    EXPECT_TRUE(buf == data + "x");
}

// So that a full disk cuts what is written where it always has.
TEST_F(VFileTest, WritersWriteAllTheDataInOneCall) {
    Sizes written;
    const Replaced one(calls::write, [&](int fd, const void* data, std::size_t size) {
        written.push_back(size);
        return calls::real::write(fd, data, size);
    });
    const Replaced several(calls::writev, [&](int fd, const iovec* blocks, int count) {
        written.push_back(0);
        for (int i = 0; i < count; ++i) written.back() += blocks[i].iov_len;
        return calls::real::writev(fd, blocks, count);
    });

    for (const std::size_t size : Sizes{1, 1023, 1024, 2047, 2048, 8191, 8192, 100000}) {
        written.clear();
        EXPECT_EQ(WriteText(scratch_.Path("file"), Bytes(size)), static_cast<long>(size));
        EXPECT_EQ(AppendText(scratch_.Path("file"), Bytes(size)), 0);
        EXPECT_THAT(written, ElementsAre(size, size));
    }
}

TEST_F(VFileTest, WritersFailForWhatDoesNotOpen) {
    scratch_.Write("file", "kept");

    for (const std::string& path :
         {scratch_.Path(), scratch_.Path("missing/file"), scratch_.Path("file/below"), std::string("")}) {
        SCOPED_TRACE(path);
        EXPECT_EQ(WriteText(path, "x"), -10000);
        EXPECT_EQ(AppendText(path, "x"), -10000);
    }
    EXPECT_THAT(scratch_.List(), ElementsAre("file"));
    EXPECT_EQ(scratch_.Read("file"), "kept");
}

TEST_F(VFileTest, WritersDoNotOpenTheFileForUnusableArguments) {
    const std::string missing = scratch_.Path("missing");
    const std::string existing = scratch_.Write("file", "kept");
    const OpenWatch watch(existing);

    for (const std::string& path : {missing, existing}) {
        for (const auto& write : {+[](const char*name, const char*data, long len) {
                                      return static_cast<int>(VFile::WriteBinFile(name, data, len));
                                  },
                                  &VFile::AppendWriteFile}) {
            EXPECT_EQ(write(path.c_str(), nullptr, 1), -10000);
            EXPECT_EQ(write(path.c_str(), "x", 0), -10000);
            EXPECT_EQ(write(path.c_str(), "x", -1), -10000);
            EXPECT_EQ(write(path.c_str(), "x", LONG_MIN), -10000);
            EXPECT_EQ(write(nullptr, "x", 1), -10000);
        }
    }

    EXPECT_FALSE(watch.WasOpened());
    EXPECT_THAT(scratch_.List(), ElementsAre("file"));
    EXPECT_EQ(scratch_.Read("file"), "kept");
}

// VCopyFile

TEST_F(VFileTest, VCopyFileCopiesEveryByte) {
    for (const std::size_t size : Sizes{0, 1, 2047, 2048, 2049, 4096, 6144, 100000}) {
        SCOPED_TRACE(size);
        EXPECT_EQ(Copy(scratch_.Write("source", Bytes(size)), scratch_.Path("destination")), 0);
        EXPECT_TRUE(scratch_.Read("destination") == Bytes(size));
        EXPECT_TRUE(scratch_.Read("source") == Bytes(size));
    }
}

TEST_F(VFileTest, VCopyFileTruncatesALongerDestination) {
    EXPECT_EQ(Copy(scratch_.Write("source", "new"), scratch_.Write("destination", "much longer")), 0);
    EXPECT_EQ(scratch_.Read("destination"), "new");

    EXPECT_EQ(Copy(scratch_.Write("empty", ""), scratch_.Path("destination")), 0);
    EXPECT_EQ(scratch_.Read("destination"), "");
}

TEST_F(VFileTest, VCopyFileGivesANewFileTheModeOfTheUmaskAndNotTheSources) {
    const Umask umask(027);
    const std::string source = scratch_.Write("source", "x");
    ASSERT_EQ(chmod(source.c_str(), 0700), 0);

    EXPECT_EQ(Copy(source, scratch_.Path("destination")), 0);

    EXPECT_EQ(PermissionsOf(scratch_.Path("destination")), 0640);
}

TEST_F(VFileTest, VCopyFileKeepsTheModeOfAnExistingDestination) {
    const std::string destination = scratch_.Write("destination", "");
    ASSERT_EQ(chmod(destination.c_str(), 0711), 0);

    EXPECT_EQ(Copy(scratch_.Write("source", "x"), destination), 0);

    EXPECT_EQ(PermissionsOf(destination), 0711);
}

TEST_F(VFileTest, VCopyFileOntoItselfEmptiesTheFileAndReturns0) {
    const std::string path = scratch_.Write("file", "lost");

    EXPECT_EQ(Copy(path, path), 0);
    EXPECT_EQ(scratch_.Read("file"), "");

    scratch_.Write("file", "lost again");
    EXPECT_EQ(Copy(path, scratch_.Link("link", "file")), 0);
    EXPECT_EQ(scratch_.Read("file"), "");
}

TEST_F(VFileTest, VCopyFileFollowsLinksOnBothSides) {
    scratch_.Write("source", "content");
    scratch_.Write("target", "old");

    EXPECT_EQ(Copy(scratch_.Link("from", "source"), scratch_.Link("to", "target")), 0);
    EXPECT_EQ(Copy(scratch_.Path("from"), scratch_.Link("dangling", "made")), 0);

    EXPECT_EQ(scratch_.Read("target"), "content");
    EXPECT_EQ(scratch_.Read("made"), "content");
    for (const std::string link : {"from", "to", "dangling"}) {
        EXPECT_TRUE(S_ISLNK(StatusOf(scratch_.Path(link)).st_mode)) << link;
    }
}

TEST_F(VFileTest, VCopyFileFlushesBothStreamsThenClosesBothSourceFirst) {
    const std::string source = scratch_.Write("source", Bytes(5000));
    const RecordedStreams recorded;

    EXPECT_EQ(Copy(source, scratch_.Path("destination")), 0);

    EXPECT_THAT(recorded.calls, ElementsAre("fopen source rb", "fopen destination wb", "fflush source",
                                            "fflush destination", "fclose source", "fclose destination"));
}

TEST_F(VFileTest, VCopyFileFlushesAndClosesAfterAFailedWriteAsAfterAGoodOne) {
    const std::string source = scratch_.Write("source", Bytes(100000));
    const RecordedStreams recorded;

    EXPECT_EQ(Copy(source, "/dev/full"), -10000);

    EXPECT_THAT(recorded.calls, ElementsAre("fopen source rb", "fopen full wb", "fflush source",
                                            "fflush full", "fclose source", "fclose full"));
    EXPECT_EQ(TakeLogLines().size(), 1u);
}

TEST_F(VFileTest, VCopyFileDoesNotCheckFlushAndClose) {
    const std::string source = scratch_.Write("source", "content");
    const auto failing = [](int (*passOn)(FILE*)) {
        return [passOn](FILE* file) {
            (void)passOn(file);
            errno = EIO;
            return EOF;
        };
    };
    const Replaced flush(calls::fflush, failing(calls::real::fflush));
    const Replaced closing(calls::fclose, failing(calls::real::fclose));

    EXPECT_EQ(Copy(source, scratch_.Path("destination")), 0);
}

TEST_F(VFileTest, VCopyFileReadsBlocksOf2048BytesIntoAZeroedBuffer) {
    const std::string source = scratch_.Write("source", Bytes(3000));
    std::vector<std::pair<std::size_t, std::size_t>> reads;
    std::vector<std::pair<std::size_t, std::size_t>> writes;
    const Replaced reading(calls::fread, [&](void* data, std::size_t size, std::size_t count, FILE* file) {
        if (reads.empty()) {
            const char* const bytes = static_cast<const char*>(data);
            EXPECT_EQ(std::count(bytes, bytes + 2048, '\0'), 2048);
        }
        reads.emplace_back(size, count);
        return calls::real::fread(data, size, count, file);
    });
    const Replaced writing(calls::fwrite,
                           [&](const void* data, std::size_t size, std::size_t count, FILE* file) {
                               writes.emplace_back(size, count);
                               return calls::real::fwrite(data, size, count, file);
                           });

    EXPECT_EQ(Copy(source, scratch_.Path("destination")), 0);

    EXPECT_THAT(reads, ElementsAre(std::pair(1, 2048), std::pair(1, 2048), std::pair(1, 2048)));
    EXPECT_THAT(writes, ElementsAre(std::pair(1, 2048), std::pair(1, 952)));
}

TEST_F(VFileTest, VCopyFileGoesOnAfterAShortRead) {
    const std::string source = scratch_.Write("source", Bytes(5000));
    const Replaced tricklingIn(calls::fread, [](void* data, std::size_t size, std::size_t count, FILE* file) {
        return calls::real::fread(data, size, std::min<std::size_t>(count, 100), file);
    });

    EXPECT_EQ(Copy(source, scratch_.Path("destination")), 0);

    EXPECT_EQ(scratch_.Read("destination"), Bytes(5000));
}

TEST_F(VFileTest, VCopyFileTakesAReadErrorForTheEndOfTheSource) {
    EXPECT_EQ(Copy(scratch_.MakeDirectory("dir"), scratch_.Path("fromDirectory")), 0);
    EXPECT_EQ(scratch_.Read("fromDirectory"), "");

    int reads = 0;
    const Replaced failing(calls::fread, [&](void* data, std::size_t size, std::size_t count, FILE* file) {
        return ++reads == 1 ? calls::real::fread(data, size, count, file) : 0;
    });
    EXPECT_EQ(Copy(scratch_.Write("source", Bytes(5000)), scratch_.Path("destination")), 0);
    EXPECT_EQ(VFile::FileSize(scratch_.Path("destination").c_str()), 2048);
}

TEST_F(VFileTest, VCopyFileOfAMissingSourceLogsTwiceAndMakesNoDestination) {
    const std::string missing = scratch_.Path("mis%sing");

    EXPECT_EQ(Copy(missing, scratch_.Path("destination")), -10000);

    EXPECT_THAT(TakeLogLines(), ElementsAre(OpenLine(missing, ENOENT), NoSourceLine(missing)));
    EXPECT_THAT(scratch_.List(), IsEmpty());
}

TEST_F(VFileTest, VCopyFileOfASourceThatDoesNotOpenLeavesTheDestinationUntouched) {
    const std::string belowFile = scratch_.Write("file", "") + "/below";

    EXPECT_EQ(Copy(belowFile, scratch_.Write("destination", "kept")), -10000);

    EXPECT_THAT(TakeLogLines(), ElementsAre(OpenLine(belowFile, ENOTDIR), NoSourceLine(belowFile)));
    EXPECT_EQ(scratch_.Read("destination"), "kept");
}

TEST_F(VFileTest, VCopyFileSaysNotExistForEveryReasonNotToOpen) {
    const std::string source = scratch_.Write("source", "x");
    for (const int error : {EACCES, EMFILE, EIO}) {
        const Replaced failing(calls::fopen, [error](const char*, const char*) -> FILE* {
            errno = error;
            return nullptr;
        });

        EXPECT_EQ(Copy(source, scratch_.Path("destination")), -10000);

        EXPECT_THAT(TakeLogLines(), ElementsAre(OpenLine(source, error), NoSourceLine(source)));
    }
}

TEST_F(VFileTest, VCopyFileToWhatDoesNotOpenLogsTwice) {
    const std::string source = scratch_.Write("source", "kept");
    const struct {
        std::string path;
        int error;
    } rows[] = {{scratch_.Path("missing/destination"), ENOENT},
                {scratch_.Path("source/below"), ENOTDIR},
                {scratch_.MakeDirectory("dir"), EISDIR}};

    for (const auto& row : rows) {
        SCOPED_TRACE(row.path);
        EXPECT_EQ(Copy(source, row.path), -10000);
        EXPECT_THAT(TakeLogLines(), ElementsAre(OpenLine(row.path, row.error), NoDestinationLine(row.path)));
    }
    EXPECT_EQ(scratch_.Read("source"), "kept");
    EXPECT_THAT(scratch_.List(), ElementsAre("dir", "source"));
}

TEST_F(VFileTest, VCopyFileClosesTheSourceBeforeItLogsThatTheDestinationDoesNotOpen) {
    const std::string source = scratch_.Write("source", "x");
    const RecordedStreams recorded;

    EXPECT_EQ(Copy(source, scratch_.Path()), -10000);

    EXPECT_THAT(recorded.calls, ElementsAre("fopen source rb",
                                            "fopen " + fs::path(scratch_.Path()).filename().string() + " wb",
                                            "fclose source"));
    EXPECT_EQ(recorded.linesAtFirstClose, 1u);
    EXPECT_EQ(TakeLogLines().size(), 2u);
}

TEST_F(VFileTest, VCopyFileTakesANullPathForTheEmptyText) {
    const std::string source = scratch_.Write("source", "x");

    EXPECT_EQ(VFile::VCopyFile(nullptr, scratch_.Path("destination").c_str()), -10000);
    EXPECT_THAT(TakeLogLines(), ElementsAre(OpenLine("", ENOENT), NoSourceLine("")));
    EXPECT_EQ(VFile::VCopyFile(source.c_str(), nullptr), -10000);
    EXPECT_THAT(TakeLogLines(), ElementsAre(OpenLine("", ENOENT), NoDestinationLine("")));
    EXPECT_EQ(VFile::VCopyFile(nullptr, nullptr), -10000);
    EXPECT_THAT(TakeLogLines(), ElementsAre(OpenLine("", ENOENT), NoSourceLine("")));

    EXPECT_THAT(scratch_.List(), ElementsAre("source"));
}

// Writes down how many bytes the kernel is asked to move, and passes the calls on.
class RecordedMoves {
public:
    std::vector<std::size_t> counts;

private:
    const Replaced<decltype(calls::sendfile)> sendfile_{
        calls::sendfile, [this](int to, int from, off_t* offset, std::size_t count) {
            EXPECT_EQ(offset, nullptr) << "the descriptors' own positions";
            counts.push_back(count);
            return calls::real::sendfile(to, from, offset, count);
        }};
};

TEST_F(VFileTest, VCopyFileLetsTheKernelMoveAllButTheTailOfALargeFile) {
    const struct {
        std::size_t size;
        Sizes moved;
    } rows[] = {{0, {}},
                {131071, {}},
                {131072, {114688}},
                {131073, {114688}},
                {139263, {114688}},
                {139264, {122880}},
                {200000, {180224}},
                {1048576, {1032192}}};

    for (const auto& row : rows) {
        SCOPED_TRACE(row.size);
        const std::string source = scratch_.Write("source", Bytes(row.size));
        const RecordedMoves recorded;

        EXPECT_EQ(Copy(source, scratch_.Path("copy")), 0);

        EXPECT_EQ(recorded.counts, row.moved);
        EXPECT_TRUE(scratch_.Read("copy") == Bytes(row.size));
    }
}

TEST_F(VFileTest, VCopyFileLeavesWhatIsNoRegularFileToTheStreams) {
    const std::string source = scratch_.Write("source", Bytes(200000));
    const std::string fifo = scratch_.Path("fifo");
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    const RecordedMoves recorded;

    EXPECT_EQ(Copy(source, "/dev/null"), 0);
    EXPECT_EQ(Copy("/dev/null", scratch_.Path("copy")), 0);
    std::thread writer([&] { std::ofstream(fifo) << Bytes(200000); });
    EXPECT_EQ(Copy(fifo, scratch_.Path("copy")), 0);
    writer.join();
    EXPECT_TRUE(scratch_.Read("copy") == Bytes(200000));
    // A device that tells a size.
    bool isAsked = false;
    const Replaced pretending(calls::fstat, [&isAsked](int fd, struct stat* status) {
        const int result = calls::real::fstat(fd, status);
        if (!isAsked) status->st_mode = S_IFBLK;
        isAsked = true;
        return result;
    });
    EXPECT_EQ(Copy(source, scratch_.Path("other")), 0);

    EXPECT_THAT(recorded.counts, IsEmpty());
    EXPECT_TRUE(scratch_.Read("other") == Bytes(200000));
}

TEST_F(VFileTest, VCopyFileCopiesALargeFileWhoseStatusCannotBeTold) {
    const std::string source = scratch_.Write("source", Bytes(200000));
    for (const int answers : {0, 1}) {
        const RecordedMoves recorded;
        int questions = 0;
        const Replaced replaced(calls::fstat, [&](int fd, struct stat* status) {
            if (questions++ != answers) return calls::real::fstat(fd, status);
            errno = EIO;
            return -1;
        });

        EXPECT_EQ(Copy(source, scratch_.Path("copy")), 0);

        EXPECT_TRUE(scratch_.Read("copy") == Bytes(200000)) << answers;
        EXPECT_GT(questions, answers);
        EXPECT_THAT(recorded.counts, IsEmpty());
        fs::remove(scratch_.Path("copy"));
    }
}

// Their streams write the first block in another way than the others, which a full disk shows.
TEST_F(VFileTest, VCopyFileLeavesAFileSystemOfSmallBlocksToTheStreams) {
    const std::string source = scratch_.Write("source", Bytes(200000));
    const struct {
        blksize_t blockSize;
        Sizes moved;
    } rows[] = {{512, {}}, {1024, {}}, {2048, {}}, {4096, {180224}}, {65536, {180224}}};

    for (const auto& row : rows) {
        SCOPED_TRACE(row.blockSize);
        const Replaced pretending(calls::fstat, [&row](int fd, struct stat* status) {
            const int result = calls::real::fstat(fd, status);
            status->st_blksize = row.blockSize;
            return result;
        });
        const RecordedMoves recorded;

        EXPECT_EQ(Copy(source, scratch_.Path("copy")), 0);

        EXPECT_EQ(recorded.counts, row.moved);
        EXPECT_TRUE(scratch_.Read("copy") == Bytes(200000));
    }
}

TEST_F(VFileTest, VCopyFileReadsAndWritesTheTailOfALargeFileInBlocksOf2048Bytes) {
    const std::string source = scratch_.Write("source", Bytes(200000));
    Sizes reads;
    Sizes writes;
    const Replaced reading(calls::fread, [&](void* data, std::size_t size, std::size_t count, FILE* file) {
        reads.push_back(size * count);
        return calls::real::fread(data, size, count, file);
    });
    const Replaced writing(calls::fwrite,
                           [&](const void* data, std::size_t size, std::size_t count, FILE* file) {
                               writes.push_back(size * count);
                               return calls::real::fwrite(data, size, count, file);
                           });

    EXPECT_EQ(Copy(source, scratch_.Path("copy")), 0);

    EXPECT_TRUE(scratch_.Read("copy") == Bytes(200000));
    // 180,224 bytes have been moved before.
    EXPECT_EQ(reads, Sizes(11, 2048));
    EXPECT_THAT(writes, ElementsAre(2048, 2048, 2048, 2048, 2048, 2048, 2048, 2048, 2048, 1344));
}

TEST_F(VFileTest, VCopyFileOpensEachNameOnceAlsoWhenALargeCopyFails) {
    const std::string source = scratch_.Write("source", Bytes(200000));
    const FileSizeLimit limit(150000);
    const RecordedStreams recorded;

    EXPECT_EQ(Copy(source, scratch_.Path("copy")), -10000);

    EXPECT_THAT(recorded.calls, ElementsAre("fopen source rb", "fopen copy wb", "fflush source",
                                            "fflush copy", "fclose source", "fclose copy"));
    EXPECT_THAT(TakeLogLines(), ElementsAre(ShortWriteLine(0, 2048)));
    EXPECT_TRUE(scratch_.Read("copy") == Bytes(150000));
}

TEST_F(VFileTest, VCopyFileLeavesAFileAloneThatTakesTheDestinationsNameMeanwhile) {
    const std::string source = scratch_.Write("source", Bytes(200000));
    const std::string copy = scratch_.Path("copy");
    const FileSizeLimit limit(150000);
    const Replaced moving(calls::sendfile, [&](int to, int from, off_t* offset, std::size_t count) {
        if (!scratch_.Has("aside")) {
            fs::rename(copy, scratch_.Path("aside"));
            scratch_.Write("copy", "another file");
        }
        return calls::real::sendfile(to, from, offset, count);
    });

    EXPECT_EQ(Copy(source, copy), -10000);

    EXPECT_THAT(TakeLogLines(), ElementsAre(ShortWriteLine(0, 2048)));
    EXPECT_EQ(scratch_.Read("copy"), "another file");
    EXPECT_TRUE(scratch_.Read("aside") == Bytes(150000));
}

TEST_F(VFileTest, VCopyFileMakesNoNewDestinationWhenItIsRemovedMeanwhile) {
    const std::string source = scratch_.Write("source", Bytes(200000));
    const FileSizeLimit limit(150000);
    const Replaced moving(calls::sendfile, [&](int to, int from, off_t* offset, std::size_t count) {
        fs::remove(scratch_.Path("copy"));
        return calls::real::sendfile(to, from, offset, count);
    });

    EXPECT_EQ(Copy(source, scratch_.Path("copy")), -10000);

    EXPECT_THAT(TakeLogLines(), ElementsAre(ShortWriteLine(0, 2048)));
    EXPECT_THAT(scratch_.List(), ElementsAre("source"));
}

TEST_F(VFileTest, VCopyFileMovesOnAfterAPartlyDoneMove) {
    const std::string source = scratch_.Write("source", Bytes(200000));
    std::vector<std::size_t> counts;
    const Replaced moving(calls::sendfile, [&](int to, int from, off_t* offset, std::size_t count) {
        counts.push_back(count);
        return calls::real::sendfile(to, from, offset, std::min<std::size_t>(count, 50001));
    });

    EXPECT_EQ(Copy(source, scratch_.Path("copy")), 0);

    EXPECT_THAT(counts, ElementsAre(180224, 130223, 80222, 30221));
    EXPECT_TRUE(scratch_.Read("copy") == Bytes(200000));
}

TEST_F(VFileTest, VCopyFileLeavesTheRestToTheStreamsWhenAMoveFails) {
    const std::string source = scratch_.Write("source", Bytes(200000));
    for (const std::size_t moves : Sizes{0, 1, 2}) {
        for (const int error : {EINVAL, ENOSYS, EINTR, EIO}) {
            SCOPED_TRACE(testing::Message() << moves << " moves, then " << error);
            std::size_t count = 0;
            const Replaced moving(calls::sendfile, [&](int to, int from, off_t* offset, std::size_t) {
                if (count++ < moves) return calls::real::sendfile(to, from, offset, 30001);
                errno = error;
                return ssize_t{-1};
            });

            EXPECT_EQ(Copy(source, scratch_.Path("copy")), 0);

            EXPECT_EQ(count, moves + 1) << "a failed move is not tried again";
            EXPECT_TRUE(scratch_.Read("copy") == Bytes(200000));
        }
    }
}

TEST_F(VFileTest, VCopyFileCopiesWhatALargeFileThatShrinksMeanwhileStillHas) {
    const struct {
        off_t size;
        off_t expected;
    } rows[] = {{0, 100001}, {100000, 100001}, {150000, 150000}, {190000, 190000}};

    for (const auto& row : rows) {
        SCOPED_TRACE(row.size);
        const std::string source = scratch_.Write("source", Bytes(200000));
        int moves = 0;
        const Replaced moving(calls::sendfile, [&](int to, int from, off_t* offset, std::size_t count) {
            if (++moves == 1) return calls::real::sendfile(to, from, offset, 100001);
            EXPECT_EQ(truncate(source.c_str(), row.size), 0);
            return calls::real::sendfile(to, from, offset, count);
        });

        EXPECT_EQ(Copy(source, scratch_.Path("copy")), 0);

        EXPECT_TRUE(scratch_.Read("copy") == Bytes(static_cast<std::size_t>(row.expected)));
    }
}

TEST_F(VFileTest, VCopyFileCopiesALargeFileThatGrowsMeanwhileToItsEnd) {
    const auto grow = [this](std::size_t size) { scratch_.Write("source", Bytes(size)); };
    for (const bool isAtTheTail : {false, true}) {
        grow(200000);
        const Replaced moving(calls::sendfile, [&](int to, int from, off_t* offset, std::size_t count) {
            grow(300000);
            return calls::real::sendfile(to, from, offset, count);
        });
        int reads = 0;
        const Replaced reading(calls::fread,
                               [&](void* data, std::size_t size, std::size_t count, FILE* file) {
                                   if (isAtTheTail && ++reads == 4) grow(400000);
                                   return calls::real::fread(data, size, count, file);
                               });

        EXPECT_EQ(Copy(scratch_.Path("source"), scratch_.Path("copy")), 0);

        EXPECT_TRUE(scratch_.Read("copy") == Bytes(isAtTheTail ? 400000 : 300000));
    }
}

TEST_F(VFileTest, VCopyFileOntoItselfEmptiesALargeFileByWhicheverName) {
    const std::string path = scratch_.Path("file");
    const std::string hardLink = scratch_.Path("hardLink");
    for (const std::string& other : {path, hardLink, scratch_.Link("link", "file")}) {
        SCOPED_TRACE(other);
        scratch_.Write("file", Bytes(200000));
        if (!fs::exists(hardLink)) fs::create_hard_link(path, hardLink);
        const RecordedMoves recorded;

        EXPECT_EQ(Copy(path, other), 0);

        EXPECT_EQ(scratch_.Read("file"), "");
        EXPECT_THAT(recorded.counts, IsEmpty());
    }
}

// Larger than what the kernel moves at once, and than what 32 bits hold.
TEST_F(VFileTest, VCopyFileCopiesAFileOf5GiB) {
    constexpr off_t holeEnd = off_t{5} << 30;
    const std::string tail = Bytes(20000);
    const std::string source = scratch_.Write("source", "head");
    ASSERT_EQ(truncate(source.c_str(), holeEnd), 0);
    std::ofstream(source, std::ios::app) << tail;
    std::vector<std::size_t> counts;
    // The bulk is a hole: its zeros are not written.
    const Replaced moving(calls::sendfile, [&](int to, int from, off_t* offset, std::size_t count) {
        counts.push_back(count);
        if (counts.size() == 1) return calls::real::sendfile(to, from, offset, 4096);
        const off_t moved = std::min<off_t>(static_cast<off_t>(count), 0x7ffff000);
        EXPECT_GE(lseek(from, moved, SEEK_CUR), 0);
        EXPECT_GE(lseek(to, moved, SEEK_CUR), 0);
        return static_cast<ssize_t>(moved);
    });
    // A copy that leaves more to the streams is wrong, and must not fill the disk.
    int reads = 0;
    const Replaced reading(calls::fread, [&](void* data, std::size_t size, std::size_t count, FILE* file) {
        return ++reads < 100 ? calls::real::fread(data, size, count, file) : 0;
    });

    EXPECT_EQ(Copy(source, scratch_.Path("copy")), 0);

    EXPECT_THAT(counts, ElementsAre(5368709120, 5368705024, 3221225472, 1073745920));
    EXPECT_EQ(StatusOf(scratch_.Path("copy")).st_size, holeEnd + 20000);
    std::ifstream copy(scratch_.Path("copy"));
    std::string text(5, 'x');
    copy.read(text.data(), 5);
    EXPECT_EQ(text, std::string("head\0", 5));
    text.resize(20001);
    copy.seekg(-20001, std::ios::end);
    copy.read(text.data(), 20001);
    EXPECT_TRUE(text == '\0' + tail);
}

TEST_F(VFileTest, VCopyFileCopiesTheHolesOfASparseFileAsZeros) {
    const std::string source = scratch_.Write("source", Bytes(10000));
    ASSERT_EQ(truncate(source.c_str(), 500000), 0);
    std::ofstream(source, std::ios::app) << Bytes(300000);
    ASSERT_EQ(truncate(source.c_str(), 1000000), 0);

    EXPECT_EQ(Copy(source, scratch_.Path("copy")), 0);

    EXPECT_TRUE(scratch_.Read("copy") == scratch_.Read("source"));
    EXPECT_EQ(StatusOf(scratch_.Path("copy")).st_size, 1000000);
}

TEST_F(VFileTest, VCopyFileOfALargeFileStopsAtAShortWriteThatIsNoErrorOfTheDisk) {
    const std::string source = scratch_.Write("source", Bytes(200000));
    int writes = 0;
    const Replaced cutting(calls::fwrite,
                           [&](const void* data, std::size_t size, std::size_t count, FILE* file) {
                               return calls::real::fwrite(data, size, ++writes == 4 ? 7 : count, file);
                           });

    EXPECT_EQ(CopyAndTakeLogLines(source, scratch_.Path("copy")),
              (CopyResult{-10000, {ShortWriteLine(7, 2048)}}));

    EXPECT_EQ(writes, 4);
    EXPECT_TRUE(scratch_.Read("copy") == Bytes(180224 + 3 * 2048 + 7));
}

TEST_F(VFileTest, VCopyFileLosesUpToABufferOfDataOnAFullDeviceWithResult0) {
    if (StatusOf("/dev/full").st_blksize != 4096) GTEST_SKIP() << "streams to it have another buffer here";
    const struct {
        std::size_t size;
        CopyResult expected;
    } rows[] = {{1, {0, {}}},
                {2048, {0, {}}},
                {4096, {0, {}}},
                {4097, {-10000, {ShortWriteLine(0, 1)}}},
                {6144, {-10000, {ShortWriteLine(0, 2048)}}},
                {100000, {-10000, {ShortWriteLine(0, 2048)}}}};

    for (const auto& row : rows) {
        SCOPED_TRACE(row.size);
        EXPECT_EQ(CopyAndTakeLogLines(scratch_.Write("source", Bytes(row.size)), "/dev/full"), row.expected);
    }
}

TEST_F(VFileTest, VCopyFileStopsAtAShortWriteAndSaysHowMuchOfHowMuch) {
    const std::string source = scratch_.Write("source", Bytes(5000));
    int writes = 0;
    const Replaced cutting(calls::fwrite,
                           [&](const void* data, std::size_t size, std::size_t count, FILE* file) {
                               return calls::real::fwrite(data, size, ++writes == 2 ? 7 : count, file);
                           });

    EXPECT_EQ(CopyAndTakeLogLines(source, scratch_.Path("destination")),
              (CopyResult{-10000, {ShortWriteLine(7, 2048)}}));

    EXPECT_EQ(writes, 2);
    EXPECT_EQ(scratch_.Read("destination"), Bytes(5000).substr(0, 2055));
}

TEST_F(VFileTest, VCopyFileLeavesAPartlyWrittenDestinationInPlace) {
    const std::string source = scratch_.Write("source", Bytes(100000));
    const FileSizeLimit limit(10000);

    EXPECT_EQ(CopyAndTakeLogLines(source, scratch_.Path("destination")),
              (CopyResult{-10000, {ShortWriteLine(0, 2048)}}));

    EXPECT_EQ(scratch_.Read("destination"), Bytes(10000));
}

TEST_F(VFileTest, FailuresLeaveNothingOpenOrAllocated) {
    const std::string source = scratch_.Write("source", Bytes(10000));
    const std::string missing = scratch_.Path("missing");
    const std::string noParent = scratch_.Path("missing/file");
    char buf[10] = {};

    ExpectNoLeak([&] {
        VFile::VCopyFile(missing.c_str(), source.c_str());
        VFile::VCopyFile(source.c_str(), noParent.c_str());
        VFile::VCopyFile(source.c_str(), "/dev/full");
        VFile::VCopyFile(nullptr, nullptr);
        VFile::FileSize(missing.c_str());
        VFile::FileSize("/proc/self/status");
        VFile::ReadBinFile(source.c_str(), buf, sizeof(buf));
        VFile::WriteBinFile(noParent.c_str(), buf, sizeof(buf));
        VFile::WriteBinFile("/dev/full", buf, sizeof(buf));
        VFile::AppendWriteFile(noParent.c_str(), buf, sizeof(buf));
        VFile::AppendWriteFile("/dev/full", buf, sizeof(buf));
        VFile::RemoveFile(missing.c_str());
        VFile::GetFileLastModifiedTime(missing);
    });
}

// GetFileLastModifiedTime

TEST_F(VFileTest, GetFileLastModifiedTimeGivesWholeSeconds) {
    const std::string path = scratch_.Write("file", "");
    const struct {
        time_t seconds;
        long nanoseconds;
    } rows[] = {{1234567890, 0}, {1234567890, 999999999}, {0, 0}, {1, 500000000}, {4102444800, 0},
                {-86400, 0},     {-2, 999999999}};

    for (const auto& row : rows) {
        SetModifiedTime(path, row.seconds, row.nanoseconds);
        EXPECT_EQ(VFile::GetFileLastModifiedTime(path), row.seconds);
    }
}

TEST_F(VFileTest, GetFileLastModifiedTimeFollowsLinks) {
    SetModifiedTime(scratch_.Write("file", ""), 1000000000);
    SetModifiedTime(scratch_.Link("link", "file"), 2000000000);

    EXPECT_EQ(VFile::GetFileLastModifiedTime(scratch_.Path("link")), 1000000000);
}

TEST_F(VFileTest, GetFileLastModifiedTimeWorksForDirectoriesAndUnreadableFiles) {
    const std::string dir = scratch_.MakeDirectory("dir");
    const std::string closed = scratch_.Write("closed", "");
    ASSERT_EQ(chmod(closed.c_str(), 0), 0);
    SetModifiedTime(dir, 1000000000);
    SetModifiedTime(closed, 1000000001);

    EXPECT_EQ(VFile::GetFileLastModifiedTime(dir), 1000000000);
    EXPECT_EQ(VFile::GetFileLastModifiedTime(closed), 1000000001);
}

TEST_F(VFileTest, GetFileLastModifiedTimeOfWhatIsMissingIsMinus1WithTheErrnoOfStat) {
    const std::string file = scratch_.Write("file", "");
    const struct {
        std::string path;
        int error;
    } rows[] = {{scratch_.Path("missing"), ENOENT},
                {scratch_.Link("dangling", "missing"), ENOENT},
                {file + "/below", ENOTDIR},
                {"", ENOENT}};

    for (const auto& row : rows) {
        SCOPED_TRACE(row.path);
        EXPECT_EQ(VFile::GetFileLastModifiedTime(row.path), -1);
        EXPECT_EQ(errno, row.error);
    }
}

// ListSubDirectories and ScanDirectoriesFiles

TEST_F(VFileTest, ListingsTakeThePathUpToItsFirstNul) {
    scratch_.Write("dir/sub/file", "");
    const std::string path = scratch_.Path("dir") + std::string("\0rest", 5);
    Texts subDirs;
    Texts files;

    VFile::ListSubDirectories(path, subDirs);
    VFile::ScanDirectoriesFiles(path, files);

    EXPECT_EQ(subDirs, Texts{scratch_.Path("dir/sub")});
    EXPECT_EQ(files, Texts{scratch_.Path("dir/sub/file")});
}

TEST_F(VFileTest, ListSubDirectoriesGivesDirectoriesAndLinksToThemOneLevelDeep) {
    scratch_.Write("dir/file", "");
    scratch_.MakeDirectory("dir/a/inner");
    scratch_.MakeDirectory("dir/.hidden");
    scratch_.Link("dir/linkToDir", "a");
    scratch_.Link("dir/linkToFile", "file");
    scratch_.Link("dir/dangling", "missing");
    const std::string dir = scratch_.Path("dir");

    EXPECT_THAT(SubDirectories(dir), UnorderedElementsAre(dir + "/a", dir + "/.hidden", dir + "/linkToDir"));
}

TEST_F(VFileTest, ScanDirectoriesFilesGivesRegularFilesAndLinksToThemOfTheWholeTree) {
    scratch_.Write("dir/file", "");
    scratch_.Write("dir/a/b/c/deep", "");
    scratch_.Write("dir/.hidden/.file", "");
    scratch_.MakeDirectory("dir/empty");
    scratch_.Write("outside/inner", "");
    scratch_.Link("dir/linkToDir", "../outside");
    scratch_.Link("dir/linkToFile", "file");
    scratch_.Link("dir/dangling", "missing");
    const std::string dir = scratch_.Path("dir");

    EXPECT_THAT(FilesBelow(dir),
                UnorderedElementsAre(dir + "/file", dir + "/a/b/c/deep", dir + "/.hidden/.file",
                                     dir + "/linkToDir/inner", dir + "/linkToFile"));
}

TEST_F(VFileTest, ListingsKeepTheOrderOfTheDirectoryStream) {
    for (int count = 0; count < 30; ++count) {
        const std::string name = std::to_string(count * 7919);
        scratch_.Write(count % 3 == 0 ? "tree/" + name : "tree/d" + name + "/file", "");
        scratch_.Write("tree/d7919/" + name, "");
    }
    const std::string tree = scratch_.Path("tree");
    Texts directories;
    for (const std::string& name : NamesInStreamOrder(tree)) {
        if (name[0] == 'd') directories.push_back(tree + "/" + name);
    }

    EXPECT_EQ(directories.size(), 20u);
    EXPECT_EQ(SubDirectories(tree), directories);
    EXPECT_EQ(FilesBelow(tree), TreeInStreamOrder(tree));
}

TEST_F(VFileTest, ScanDirectoriesFilesGivesASubdirectorysFilesWhereTheStreamGivesTheSubdirectory) {
    const std::string a = scratch_.MakeDirectory("a");
    scratch_.Write("a/b/c.txt", "");
    scratch_.Write("a/x.txt", "");
    Texts expected = {a + "/b/c.txt", a + "/x.txt"};
    if (NamesInStreamOrder(a)[0] == "x.txt") std::swap(expected[0], expected[1]);

    EXPECT_EQ(FilesBelow(a), expected);
}

TEST_F(VFileTest, ListingsOfWhatDoesNotOpenAddNothing) {
    scratch_.Write("file", "");
    scratch_.MakeDirectory("empty");

    for (const std::string& path :
         {scratch_.Path("missing"), scratch_.Path("file"), scratch_.Path("empty"), std::string("")}) {
        SCOPED_TRACE(path);
        Texts paths = {"old"};
        VFile::ListSubDirectories(path, paths);
        VFile::ScanDirectoriesFiles(path, paths);
        EXPECT_THAT(paths, ElementsAre("old"));
    }
}

TEST_F(VFileTest, ListingsAppendBehindWhatTheListHolds) {
    scratch_.Write("dir/file", "");
    const std::string dir = scratch_.Path("dir");
    const std::string file = scratch_.Path("dir/file");
    Texts paths = {"old"};

    for (int round = 0; round < 2; ++round) {
        VFile::ListSubDirectories(scratch_.Path(), paths);
        VFile::ScanDirectoriesFiles(scratch_.Path(), paths);
    }

    EXPECT_THAT(paths, ElementsAre("old", dir, file, dir, file));
}

TEST_F(VFileTest, ListingsTakeAPathThatIsAnElementOfTheListTheyAppendTo) {
    Texts expected = {scratch_.Path()};
    for (const std::string name : {"1", "2", "3", "4", "5"}) {
        scratch_.Write(name + "/file", "");
        expected.push_back(scratch_.Path(name));
        expected.push_back(scratch_.Path(name + "/file"));
    }
    Texts paths = {scratch_.Path()};
    paths.shrink_to_fit();

    VFile::ListSubDirectories(paths[0], paths);
    VFile::ScanDirectoriesFiles(paths[0], paths);

    EXPECT_THAT(paths, UnorderedElementsAreArray(expected));
}

TEST_F(VFileTest, ListingsPutTheNameBehindThePathAsGiven) {
    scratch_.Write("dir/sub/file", "");
    const WorkingDirectory work(scratch_.Path());

    for (const std::string path : {"dir", "dir/", "./dir", "dir/sub/..//", "."}) {
        SCOPED_TRACE(path);
        const std::string below = path == "." ? "./dir" : path;
        EXPECT_THAT(SubDirectories(below), ElementsAre(below + "/sub"));
        EXPECT_THAT(FilesBelow(path), ElementsAre(below + "/sub/file"));
    }
    EXPECT_THAT(SubDirectories("/"), testing::Contains("//proc"));
    EXPECT_THAT(SubDirectories("/"), Each(testing::StartsWith("//")));
}

TEST_F(VFileTest, ListingsTakeNamesOfAnyBytes) {
    const Texts names = {"\x01\x7f",           " blank ", "-rf", "...", "..x", "line\nfeed", "\xff\xfe", "%s",
                         std::string(255, 'n')};
    Texts directories;
    Texts files;
    for (const std::string& name : names) {
        directories.push_back(scratch_.MakeDirectory(name));
        files.push_back(scratch_.Write(name + "/" + name, ""));
    }

    EXPECT_THAT(SubDirectories(scratch_.Path()), UnorderedElementsAreArray(directories));
    EXPECT_THAT(FilesBelow(scratch_.Path()), UnorderedElementsAreArray(files));
}

TEST_F(VFileTest, ListingsPassOverEntriesWhosePathIsLongerThan4095Bytes) {
    const std::string dir = PathOfLength(scratch_.Path(), 4093);
    fs::create_directories(dir);
    const WorkingDirectory work(dir);
    for (const char* const file : {"f", "ff"}) EXPECT_EQ(close(creat(file, 0600)), 0);

    EXPECT_THAT(FilesBelow(scratch_.Path()), ElementsAre(dir + "/f"));
    EXPECT_THAT(FilesBelow("."), UnorderedElementsAre("./f", "./ff"));

    for (const char* const file : {"f", "ff"}) {
        EXPECT_EQ(unlink(file), 0);
        EXPECT_EQ(mkdir(file, 0700), 0);
    }
    EXPECT_THAT(SubDirectories(dir), ElementsAre(dir + "/f"));
}

TEST_F(VFileTest, ListingsPassOverSocketsAndPipes) {
    const WorkingDirectory work(scratch_.Path());
    ASSERT_EQ(mkfifo("fifo", 0600), 0);
    sockaddr_un address = {AF_UNIX, "socket"};
    const int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ASSERT_EQ(bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
    close(listener);

    EXPECT_THAT(SubDirectories("."), IsEmpty());
    EXPECT_THAT(FilesBelow("."), IsEmpty());
    EXPECT_THAT(scratch_.List(), ElementsAre("fifo", "socket"));
}

TEST_F(VFileTest, ListingsTellKindsApartByTheWholeFileTypeField) {
    scratch_.Write("file/entry", "");
    scratch_.Write("dir/entry/inner", "");

    // The bits of S_IFDIR are part of S_IFBLK, those of S_IFREG part of S_IFSOCK.
    for (const mode_t kind : std::vector<mode_t>{S_IFBLK, S_IFCHR, S_IFIFO, S_IFSOCK}) {
        SCOPED_TRACE(kind);
        const auto pretended = PretendMode("entry", kind | 0755);

        EXPECT_THAT(SubDirectories(scratch_.Path("dir")), IsEmpty());
        EXPECT_THAT(FilesBelow(scratch_.Path()), IsEmpty());
    }
}

TEST_F(VFileTest, ScanDirectoriesFilesAllocatesLittleMoreThanWhatItReturns) {
    if (!heap::IsCounted()) GTEST_SKIP() << "the heap is the sanitizer's";
    for (int i = 0; i < 10; ++i) {
        const std::string directory = "a-directory-with-a-long-name/number" + std::to_string(i) + "/file";
        for (int j = 0; j < 100; ++j) scratch_.Write(directory + std::to_string(j), "");
    }
    Texts files;
    const long before = heap::Allocations();

    VFile::ScanDirectoriesFiles(scratch_.Path(), files);

    const long allocations = heap::Allocations() - before;
    EXPECT_EQ(files.size(), 1000u);
    EXPECT_GE(allocations, 1000) << "one for each path";
    EXPECT_LE(allocations, 1050) << "and a few for the directories and the list";
}

TEST_F(VFileTest, ScanDirectoriesFilesPassesOverAnEntryWhoseStatFailsAfterARegularFile) {
    for (const char* const name : {"1", "2", "3"}) scratch_.Write(name, "");
    const Texts names = NamesInStreamOrder(scratch_.Path());
    const auto failing = FailStat(names[1]);

    EXPECT_THAT(FilesBelow(scratch_.Path()), ElementsAre(scratch_.Path(names[0]), scratch_.Path(names[2])));
}

TEST_F(VFileTest, ListingsPassOverAnEntryWhoseStatFailsAfterADirectory) {
    for (const std::string name : {"1", "2", "3"}) scratch_.Write(name + "/file", "");
    const Texts names = NamesInStreamOrder(scratch_.Path());
    const auto failing = FailStat(names[1]);

    EXPECT_THAT(SubDirectories(scratch_.Path()),
                ElementsAre(scratch_.Path(names[0]), scratch_.Path(names[2])));
    EXPECT_THAT(FilesBelow(scratch_.Path()),
                ElementsAre(scratch_.Path(names[0] + "/file"), scratch_.Path(names[2] + "/file")));
}

TEST_F(VFileTest, ScanDirectoriesFilesGoesOnBesideASubdirectoryThatDoesNotOpen) {
    Texts expected;
    for (const std::string name : {"1", "2", "3"}) {
        scratch_.Write(name + "/inner/file", "");
        if (name != "2") expected.push_back(scratch_.Path(name + "/inner/file"));
    }
    const Replaced failing(calls::opendir, [&](const char* path) -> DIR* {
        if (path != scratch_.Path("2")) return calls::real::opendir(path);
        errno = EACCES;
        return nullptr;
    });

    EXPECT_THAT(FilesBelow(scratch_.Path()), UnorderedElementsAreArray(expected));
}

TEST_F(VFileTest, ScanDirectoriesFilesPassesOverADirectoryItMayNotRead) {
    scratch_.Write("closed/file", "");
    const std::string file = scratch_.Write("open/file", "");
    ASSERT_EQ(chmod(scratch_.Path("closed").c_str(), 0), 0);
    ASSERT_EQ(chmod(scratch_.Path("open").c_str(), 0755), 0);
    {
        const OrdinaryUser ordinaryUser(scratch_.Path());
        EXPECT_THAT(FilesBelow(scratch_.Path()), ElementsAre(file));
        EXPECT_THAT(SubDirectories(scratch_.Path()),
                    UnorderedElementsAre(scratch_.Path("closed"), scratch_.Path("open")));
    }
    ASSERT_EQ(chmod(scratch_.Path("closed").c_str(), 0700), 0);
}

TEST_F(VFileTest, ScanDirectoriesFilesFollowsALinkUpTheTreeUntilTheSystemRefusesThePath) {
    scratch_.Write("file", "");
    scratch_.Link("loop", ".");
    Texts expected;
    // A path may lead through 40 links.
    std::string path = scratch_.Path();
    for (int links = 0; links <= 40; ++links, path += "/loop") expected.push_back(path + "/file");

    EXPECT_THAT(FilesBelow(scratch_.Path()), UnorderedElementsAreArray(expected));
}

TEST_F(VFileTest, ScanDirectoriesFilesKeepsOneStreamOpenForEachLevel) {
    for (const std::string branch : {"a/b/c/d", "e/f", "g"}) scratch_.MakeDirectory(branch);
    int open = 0;
    int most = 0;
    int opened = 0;
    const Replaced opening(calls::opendir, [&](const char* path) {
        DIR* const dir = calls::real::opendir(path);
        opened += dir != nullptr;
        most = std::max(most, ++open);
        return dir;
    });
    const Replaced closing(calls::closedir, [&](DIR* dir) {
        --open;
        return calls::real::closedir(dir);
    });

    EXPECT_THAT(FilesBelow(scratch_.Path()), IsEmpty());

    EXPECT_EQ(opened, 8);
    EXPECT_EQ(most, 5);
    EXPECT_EQ(open, 0);
}

TEST_F(VFileTest, ScanDirectoriesFilesMissesTheLevelsForWhichNoDescriptorIsLeft) {
    Texts expected;
    std::string name = "file";
    for (int level = 1; level <= 6; ++level, name = "d/" + name) {
        const std::string path = scratch_.Write(name, "");
        if (level <= 3) expected.push_back(path);
    }
    rlim_t limit = 0;
    for (int free = 0; free < 3; ++limit) {
        if (fcntl(static_cast<int>(limit), F_GETFD) == -1) ++free;
    }
    Texts files;
    {
        const ResourceLimit threeDescriptors(RLIMIT_NOFILE, limit);
        VFile::ScanDirectoriesFiles(scratch_.Path(), files);
    }

    EXPECT_THAT(files, UnorderedElementsAreArray(expected));
}

TEST_F(VFileTest, ScanDirectoriesFilesGoesDownAsFarAsDescriptorsLast) {
    constexpr int levels = 1200;
    rlimit limit = {};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
    if (limit.rlim_max < levels + 100) GTEST_SKIP() << "this process may not open so many directories";
    const ResourceLimit manyDescriptors(RLIMIT_NOFILE, levels + 100);
    std::string directory = scratch_.Path();
    for (int level = 0; level < levels; ++level) {
        directory += "/d";
        ASSERT_EQ(mkdir(directory.c_str(), 0700), 0);
    }
    scratch_.Write(directory.substr(scratch_.Path().size() + 1) + "/deepest", "");

    EXPECT_THAT(FilesBelow(scratch_.Path()), ElementsAre(directory + "/deepest"));
    {
        const ResourceLimit fewDescriptors(RLIMIT_NOFILE, 64);
        EXPECT_THAT(FilesBelow(scratch_.Path()), IsEmpty());
    }
    // As long as there are descriptors for it.
    std::filesystem::remove_all(scratch_.Path("d"));
}

TEST_F(VFileTest, ScanDirectoriesFilesFindsNoEndInTwoLinksUpTheTree) {
    scratch_.Link("one", ".");
    scratch_.Link("two", ".");
    constexpr int enough = 20000;
    int opened = 0;
    const Replaced opening(calls::opendir, [&opened](const char* path) {
        return ++opened < enough ? calls::real::opendir(path) : nullptr;
    });

    EXPECT_THAT(FilesBelow(scratch_.Path()), IsEmpty());

    EXPECT_GT(opened, enough);
}

TEST_F(VFileTest, ListingsLeaveNothingOpenOrAllocated) {
    scratch_.Write("a/b/file", "");
    scratch_.Link("a/dangling", "missing");
    const std::string missing = scratch_.Path("missing");

    ExpectNoLeak([&] {
        for (const std::string& path : {scratch_.Path(), missing}) {
            (void)SubDirectories(path);
            (void)FilesBelow(path);
        }
    });
}

}  // namespace
