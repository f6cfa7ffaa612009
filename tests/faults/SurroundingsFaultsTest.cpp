// What the process and the machine around an operation can do to it: no descriptors left, signals that
// interrupt, children that nobody may wait for, a disk that fills up.
#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/inotify.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <iostream>

#include "FaultTexts.h"
#include "LogRecorder.h"
#include "Process.h"
#include "Sanitizer.h"
#include "Sweep.h"
#include "SystemCalls.h"
#include "VCompressAndDeCompress.h"
#include "VCopyFileListIni.h"
#include "VDir.h"
#include "VFile.h"
#include "VFixFirewall.h"
#include "VMonitorFiles.h"

namespace {

namespace fs = std::filesystem;

const Fault kNoFault = {"", 0, false, 0};

struct NamedOperation {
    const char* name;
    std::function<std::string()> run;
    std::string failure;  // what `run` says when it has too few descriptors; the empty text if it needs none
    bool startsOtherPrograms = false;
    bool endsWithTheProcess = false;
};

void MakeFiles() {
    Write("file", Pattern(5000));
    Write("other", "x");
    fs::create_directories("tree/sub/deep");
    Write("tree/sub/deep/leaf", "x");
    Write("pkg/filelist.ini", "");
}

void MakePackage() {
    fs::create_directories("pkg/Common");
    MakeFiles();
    Write("pkg/Common/file", "new");
    fs::create_directories("installed");
    Write("installed/file", "old");
    Write("pkg/filelist.ini",
          "[Package_Intall_Type]\nPackageIntallType=Server\n[Server]\nBin=installed\n[Bin]\nf=file\n");
}

// What an operation without a result says in its log.
std::string LogHas(const std::string& text) {
    const calls::WithoutFaults paused;
    const std::vector<std::string> texts = LogRecorder::Texts();
    return std::find(texts.begin(), texts.end(), text) != texts.end() ? "done" : "failed";
}

const std::string& UserName() {
    static const std::string name = getpwuid(geteuid())->pw_name;
    return name;
}

// Everything that opens something, in the directory that MakePackage makes, and with a helper tool.
const NamedOperation kOpeners[] = {
    {"FileSize", [] { return Text(VFile::FileSize("file")); }, "-10000"},
    {"ReadBinFile",
     [] {
         static char buffer[8192];
         return Text(VFile::ReadBinFile("file", buffer, sizeof(buffer)));
     },
     "-10000"},
    {"WriteBinFile", [] { return Text(VFile::WriteBinFile("written", "12345", 5)); }, "-10000"},
    {"AppendWriteFile", [] { return Text(VFile::AppendWriteFile("written", "12345", 5)); }, "-10000"},
    {"VCopyFile", [] { return Text(VFile::VCopyFile("file", "copy")); }, "-10000"},
    // Directories that do not open have nothing in them.
    {"ScanDirectoriesFiles",
     [] {
         std::vector<std::string> files;
         VFile::ScanDirectoriesFiles("tree", files);
         return Text(static_cast<long>(files.size()));
     },
     "0"},
    {"ListSubDirectories",
     [] {
         std::vector<std::string> directories;
         VFile::ListSubDirectories("tree", directories);
         return Text(static_cast<long>(directories.size()));
     },
     "0"},
    {"VRealPath", [] { return Text(VDir::VRealPath("tree", 4096)); }, ""},
    {"VChownDirAndFirstDepthFiles",
     [] { return Text(VDir::VChownDirAndFirstDepthFiles("tree", UserName().c_str())); }, "-10000"},
    {"InotifyInit",
     [] {
         const int fd = VMonitorFiles::InotifyInit("ignored");
         if (fd < 0) return Text("none");
         VMonitorFiles::Inotifyclose(fd);
         return Text("one");
     },
     "none"},
    {"CompressFile", [] { return Text(VCompressAndDeCompress::CompressFile("other")); }, "-10000", true},
    {"CompressFilePath", [] { return Text(VCompressAndDeCompress::CompressFilePath("tree")); }, "-10000",
     true},
    {"CompressFileGroup",
     [] { return Text(VCompressAndDeCompress::CompressFileGroup("file other", "group")); }, "-10000", true},
    {"FileProtect",
     [] {
         VFile::FileProtect(true);
         return LogHas("Done return: 0");
     },
     "failed", true},
    {"FixFirewall",
     [] {
         VFixFirewall::FixFirewallStart();
         const calls::WithoutFaults paused;
         EXPECT_TRUE(LogRecorder::WaitFor("FixFirewallThread exit"));
         return LogHas("ProcessCmd in VFileSys, rs = 0");
     },
     "failed", true, true},
    {"RenameOperator", [] { return Text(RenameOperator("pkg/filelist.ini")); }, "-10000"},
    {"CopyOperator", [] { return Text(CopyOperator("pkg/filelist.ini")); }, "-10000"},
    {"CleanOperator", [] { return Text(CleanOperator("pkg/filelist.ini")); }, "-10000"},
};

Operation InPackage(const NamedOperation& opener, const std::function<std::string()>& run) {
    Operation operation = {MakePackage, run};
    operation.endsWithTheProcess = opener.endsWithTheProcess;
    return operation;
}

void LimitDescriptors(rlim_t limit) {
    rlimit limits;
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limits), 0);
    limits.rlim_cur = limit;
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limits), 0);
}

// The lowest descriptor that is free.
rlim_t FirstFreeDescriptor() {
    const int fd = dup(STDIN_FILENO);
    ::close(fd);
    return static_cast<rlim_t>(fd);
}

// Runs the operation with so many descriptors left.
std::string RunWithDescriptors(const NamedOperation& opener, rlim_t free) {
    const calls::WithoutFaults paused;
    rlimit before;
    EXPECT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
    LimitDescriptors(FirstFreeDescriptor() + free);
    std::string result = opener.run();
    EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);
    return result;
}

TEST(SurroundingsFaultsTest, WithoutDescriptorsAnOperationFailsInItsOwnWayAndLeavesNoneOpen) {
    if (VFS_TEST_ADDRESS_SANITIZER) GTEST_SKIP() << "the sanitizer needs descriptors for its own checks";
    const ScratchDirectory scratch;
    CONTINUE_IN_PRIVATE_NAMESPACE(WithHelperTool(scratch, "exit 0"));
    const Replaced nanosleepEnds(calls::nanosleep, [](const timespec*, timespec*) {
        VFixFirewall::FixFirewallStop();
        return 0;
    });
    (void)UserName();  // asked for while there are descriptors
    constexpr rlim_t kEnough = 12;
    long runs = 0;
    for (const NamedOperation& opener : kOpeners) {
        SCOPED_TRACE(opener.name);
        const Outcome normal = RunWithFault(InPackage(opener, opener.run), kNoFault);
        EXPECT_EQ(normal.leaks, "");
        EXPECT_NE(normal.result, opener.failure);
        bool hasFailed = false;
        bool hasSucceeded = false;
        for (rlim_t free = 0; free <= kEnough; ++free) {
            SCOPED_TRACE(std::to_string(free) + " descriptors");
            const auto run = [&opener, free] { return RunWithDescriptors(opener, free); };
            const Outcome outcome = RunWithFault(InPackage(opener, run), kNoFault);
            ++runs;
            EXPECT_EQ(outcome.leaks, "");
            const bool succeeds = outcome.result == normal.result;
            if (!succeeds) {
                EXPECT_EQ(outcome.result, opener.failure);
            }
            EXPECT_TRUE(succeeds || !hasSucceeded) << "does not fail with fewer";
            hasFailed = hasFailed || !succeeds;
            hasSucceeded = succeeds;
        }
        EXPECT_EQ(hasFailed, !opener.failure.empty());
        EXPECT_TRUE(hasSucceeded);
    }
    std::cout << "Faults: descriptor limits: " << runs << " points, " << runs << " runs\n";
}

volatile std::sig_atomic_t signalsArrived = 0;

extern "C" void CountSignal(int) {
    signalsArrived = signalsArrived + 1;
}

// Interrupts the process a thousand times a second, and does not have calls begun again.
class Interruptions {
public:
    Interruptions() {
        signalsArrived = 0;
        struct sigaction action = {};
        action.sa_handler = CountSignal;
        EXPECT_EQ(sigaction(SIGALRM, &action, &oldAction_), 0);
        const itimerval everyMillisecond = {{0, 1000}, {0, 1000}};
        EXPECT_EQ(setitimer(ITIMER_REAL, &everyMillisecond, nullptr), 0);
    }
    ~Interruptions() {
        const itimerval never = {};
        (void)setitimer(ITIMER_REAL, &never, nullptr);
        (void)sigaction(SIGALRM, &oldAction_, nullptr);
    }
    Interruptions(const Interruptions&) = delete;
    Interruptions& operator=(const Interruptions&) = delete;

    // How many signals have come so far.
    static long Count() { return signalsArrived; }

private:
    struct sigaction oldAction_;
};

// Runs it until it has been interrupted often enough, and tells the last result.
std::string RunInterrupted(const std::function<std::string()>& run) {
    constexpr long kTimes = 50;
    constexpr long kTimesAtMost = 100 * kTimes;
    constexpr long kSignals = 10;
    const Interruptions interruptions;
    std::string result;
    for (long i = 0; i < kTimes || (Interruptions::Count() < kSignals && i < kTimesAtMost); ++i) {
        result = run();
    }
    EXPECT_GE(Interruptions::Count(), kSignals);
    return result;
}

TEST(SurroundingsFaultsTest, InterruptingSignalsChangeNoFileOperation) {
    const ScratchDirectory scratch;
    CONTINUE_IN_PRIVATE_NAMESPACE(WithHelperTool(scratch, "exit 0"));
    for (const NamedOperation& opener : kOpeners) {
        // Packing reads a pipe, where a signal ends the reading; what becomes of the archive then is tar's.
        // The fixer's pass reads one, too.
        if (opener.startsOtherPrograms && std::string(opener.name) != "FileProtect") continue;
        SCOPED_TRACE(opener.name);
        const auto once = [&opener] {
            std::string result = opener.run();
            const calls::WithoutFaults paused;
            MakePackage();
            return result;
        };
        const auto often = [&once] { return RunInterrupted(once); };

        const Outcome interrupted = RunWithFault({MakePackage, often}, kNoFault);
        const Outcome normal = RunWithFault({MakePackage, once}, kNoFault);

        EXPECT_EQ(interrupted.leaks, "");
        EXPECT_EQ(normal.leaks, "");
        EXPECT_NE(normal.result, "");
        EXPECT_EQ(interrupted.result, normal.result);
    }
}

TEST(SurroundingsFaultsTest, AnInterruptedWaitForAChangeFailsAndIsLogged) {
    const auto wait = [] {
        const int fd = VMonitorFiles::InotifyInit("ignored");
        const Interruptions interruptions;
        const bool hasChanged = VMonitorFiles::InotifyFileChange(fd, "file", 1);
        EXPECT_GE(Interruptions::Count(), 1);
        ::close(fd);
        return Text(hasChanged);
    };
    const Outcome outcome = RunWithFault({MakeFiles, wait}, kNoFault);
    EXPECT_EQ(outcome.result, "0");
    EXPECT_EQ(outcome.log, std::vector<std::string>{"InotifyFileChange 1 could not get event error"});
    EXPECT_EQ(outcome.leaks, "");
}

TEST(SurroundingsFaultsTest, WhereChildrenAreNotWaitedForTheirStatusIsLost) {
    const ScratchDirectory scratch;
    CONTINUE_IN_PRIVATE_NAMESPACE(WithHelperTool(scratch, "exit 0"));
    const auto prepare = [] {
        Write("file", "x");
        (void)signal(SIGCHLD, SIG_IGN);
    };
    const Outcome protect = RunWithFault({prepare,
                                          [] {
                                              VFile::FileProtect(true);
                                              return Text("");
                                          }},
                                         kNoFault);
    EXPECT_EQ(protect.leaks, "");
    EXPECT_EQ(protect.log,
              (std::vector<std::string>{"FileProtect 3 enableFlag=1", "FileProtect 3 Done return: -1"}));

    const Outcome archive =
        RunWithFault({prepare, [] { return Text(VCompressAndDeCompress::CompressFile("file")); }}, kNoFault);
    EXPECT_EQ(archive.leaks, "");
    EXPECT_EQ(archive.result, "0");
    EXPECT_NE(archive.files.find("file.tar.gz"), std::string::npos);
}

// On a disk that is too small -copy fails, or every file is whole: at each size from nothing to enough.
TEST(SurroundingsFaultsTest, OnAFullDiskCopySaysSuccessOfWholeFilesOnly) {
    SKIP_WITHOUT_PRIVATE_NAMESPACE();
    const ScratchDirectory scratch;
    std::string list = "[Package_Intall_Type]\nPackageIntallType=Server\n[Server]\nBin=/tmp/disk\n[Bin]\nf=";
    std::size_t size = 0;
    for (int i = 0; i < 5; ++i) {
        const std::string name = "file" + std::to_string(i);
        scratch.Write("pkg/Common/" + name, Pattern(static_cast<std::size_t>(5000 + 3000 * i)));
        size += static_cast<std::size_t>(5000 + 3000 * i);
        list += (i > 0 ? "," : "") + name;
    }
    scratch.Write("pkg/filelist.ini", list + "\n");
    const std::string package = scratch.Path("pkg");

    long steps = 0;
    bool hasSucceeded = false;
    for (std::size_t pages = 1; pages * 4096 <= size + 16 * 4096; ++pages, ++steps) {
        const std::string script =
            std::string("VLOGGER_DIRECTORY=/tmp/log ") + TOOL_PATH +
            " -copy /tmp/pkg/filelist.ini || exit\n"
            "for file in /tmp/pkg/Common/*; do cmp $file /tmp/disk/${file##*/} || exit 2; done";
        const ProcessResult run =
            RunProcess(Concatenate(PrivateNamespace({"--ro-bind", package, "/tmp/pkg", "--size",
                                                     std::to_string(pages * 4096), "--tmpfs", "/tmp/disk"}),
                                   {"sh", "-c", script}));
        EXPECT_NE(run.exitStatus, 2) << pages << " pages: " << run.out;
        EXPECT_TRUE(run.exitStatus == 0 || run.exitStatus == 240) << run.exitStatus << ": " << run.err;
        EXPECT_TRUE(run.exitStatus == 0 || !hasSucceeded) << "fails on " << pages << " pages, not on fewer";
        hasSucceeded = run.exitStatus == 0;
    }
    EXPECT_TRUE(hasSucceeded) << "the last disk is large enough";
    EXPECT_GE(steps, 25);
    std::cout << "Faults: full disks: " << steps << " points, " << steps << " runs\n";
}

// A disk of 16 pages, all but a few of them taken.
class NearlyFullDisk {
public:
    // With `free` bytes left, or as many as make whole pages.
    explicit NearlyFullDisk(std::size_t free) {
        for (const auto& entry : fs::directory_iterator(kPlace)) fs::remove(entry);
        Write(kPlace + "old", "old");
        const std::size_t all = Free();
        if (free < all) Write(kPlace + "filler", std::string(all - free, 'x'));
    }
    static std::size_t PageSize() { return Status().f_bsize; }
    static std::size_t Free() {
        const struct statvfs status = Status();
        return status.f_bavail * status.f_bsize;
    }

    inline static const std::string kPlace = "/mnt/";

private:
    static struct statvfs Status() {
        struct statvfs status;
        EXPECT_EQ(statvfs(kPlace.c_str(), &status), 0);
        return status;
    }
};

// Tells that the file `name` holds the text `begin` and as much of `content` as there was room for.
void ExpectAsMuchAsFits(const std::string& name, const std::string& begin, const std::string& content,
                        std::size_t room) {
    const std::string written = ReadWholeFile(NearlyFullDisk::kPlace + name);
    const std::string whole = begin + content;
    EXPECT_EQ(written.size(), std::min(whole.size(), room));
    EXPECT_EQ(written, whole.substr(0, written.size()));
}

TEST(SurroundingsFaultsTest, OnAFullDiskWritingSaysWhatItsHeaderSays) {
    CONTINUE_IN_PRIVATE_NAMESPACE((std::vector<std::string>{"--size", "65536", "--tmpfs", "/mnt"}));
    constexpr std::size_t kSize = 20000;
    constexpr std::size_t kStreamBuffer = 4096;
    const std::string content = Pattern(kSize);
    const ScratchDirectory scratch;
    const std::string source = scratch.Write("source", content);
    const std::string newFile = NearlyFullDisk::kPlace + "new";
    const std::string oldFile = NearlyFullDisk::kPlace + "old";
    long steps = 0;
    long failures = 0;
    for (std::size_t wanted = 0; wanted <= kSize + 4096; wanted += 4096, ++steps) {
        SCOPED_TRACE(std::to_string(wanted) + " bytes free");
        {
            const NearlyFullDisk disk(wanted);
            const std::size_t free = NearlyFullDisk::Free();
            const long result = VFile::WriteBinFile(newFile.c_str(), content.data(), kSize);
            EXPECT_EQ(result, free >= kSize ? 20000 : -10000);
            ExpectAsMuchAsFits("new", "", content, free);
            if (result < 0) ++failures;
        }
        {
            // The result promises only that the file opened.
            const NearlyFullDisk disk(wanted);
            const std::size_t room = NearlyFullDisk::Free() + NearlyFullDisk::PageSize();
            EXPECT_EQ(VFile::AppendWriteFile(oldFile.c_str(), content.data(), kSize), 0);
            ExpectAsMuchAsFits("old", "old", content, room);
        }
        {
            // What does not fit at the last flush is not noticed.
            const NearlyFullDisk disk(wanted);
            const std::size_t free = NearlyFullDisk::Free();
            LogRecorder::Clear();
            const int result = VFile::VCopyFile(source.c_str(), newFile.c_str());
            EXPECT_EQ(result, free + kStreamBuffer >= kSize ? 0 : -10000);
            EXPECT_EQ(LogRecorder::Lines().size(), result == 0 ? 0U : 1U);
            ExpectAsMuchAsFits("new", "", content, free);
        }
    }
    EXPECT_EQ(steps, 6);
    EXPECT_GE(failures, 1);
    std::cout << "Faults: writing on full disks: " << 3 * steps << " points, " << 3 * steps << " runs\n";
}

}  // namespace
