// What the process and the machine around an operation can do to it: no descriptors left, signals that
// interrupt, children that nobody may wait for, a disk that fills up.
#include <gtest/gtest.h>
#include <sys/inotify.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <iostream>

#include "FaultTexts.h"
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

// Everything that opens something, in the directory that MakePackage makes.
const NamedOperation kOpeners[] = {
    {"FileSize", [] { return Text(VFile::FileSize("file")); }},
    {"ReadBinFile",
     [] {
         static char buffer[8192];
         return Text(VFile::ReadBinFile("file", buffer, sizeof(buffer)));
     }},
    {"WriteBinFile", [] { return Text(VFile::WriteBinFile("written", "12345", 5)); }},
    {"AppendWriteFile", [] { return Text(VFile::AppendWriteFile("written", "12345", 5)); }},
    {"VCopyFile", [] { return Text(VFile::VCopyFile("file", "copy")); }},
    {"ScanDirectoriesFiles",
     [] {
         std::vector<std::string> files;
         VFile::ScanDirectoriesFiles("tree", files);
         return Text(static_cast<long>(files.size()));
     }},
    {"ListSubDirectories",
     [] {
         std::vector<std::string> directories;
         VFile::ListSubDirectories("tree", directories);
         return Text(static_cast<long>(directories.size()));
     }},
    {"VRealPath", [] { return Text(VDir::VRealPath("tree", 4096)); }},
    {"InotifyInit",
     [] {
         const int fd = VMonitorFiles::InotifyInit("ignored");
         if (fd < 0) return Text("none");
         VMonitorFiles::Inotifyclose(fd);
         return Text("one");
     }},
    {"CompressFile", [] { return Text(VCompressAndDeCompress::CompressFile("other")); }},
    {"RenameOperator", [] { return Text(RenameOperator("pkg/filelist.ini")); }},
    {"CopyOperator", [] { return Text(CopyOperator("pkg/filelist.ini")); }},
    {"CleanOperator", [] { return Text(CleanOperator("pkg/filelist.ini")); }},
};

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

TEST(SurroundingsFaultsTest, WithoutDescriptorsAnOperationFailsInItsOwnWayAndLeavesNoneOpen) {
    if (VFS_TEST_ADDRESS_SANITIZER) GTEST_SKIP() << "the sanitizer needs descriptors for its own checks";
    constexpr rlim_t kEnough = 12;
    long runs = 0;
    for (const NamedOperation& opener : kOpeners) {
        SCOPED_TRACE(opener.name);
        const Outcome normal = RunWithFault({MakePackage, opener.run}, kNoFault);
        bool hasSucceeded = false;
        for (rlim_t free = 0; free <= kEnough; ++free) {
            const auto run = [&opener, free] {
                const calls::WithoutFaults paused;
                rlimit before;
                EXPECT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
                LimitDescriptors(FirstFreeDescriptor() + free);
                std::string result = opener.run();
                EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);
                return result;
            };
            const Outcome outcome = RunWithFault({MakePackage, run}, kNoFault);
            ++runs;
            EXPECT_EQ(outcome.leaks, "") << free << " descriptors";
            const bool succeeds = outcome.result == normal.result;
            EXPECT_TRUE(succeeds || !hasSucceeded) << "fails with " << free << " descriptors, not with fewer";
            hasSucceeded = succeeds;
        }
        EXPECT_TRUE(hasSucceeded);
    }
    std::cout << "Faults: descriptor limits: " << runs << " points, " << runs << " runs\n";
}

extern "C" void CountSignal(int) {}

// Interrupts the process a thousand times a second, and does not have calls begun again.
class Interruptions {
public:
    Interruptions() {
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

private:
    struct sigaction oldAction_;
};

TEST(SurroundingsFaultsTest, InterruptingSignalsChangeNoFileOperation) {
    for (const NamedOperation& opener : kOpeners) {
        // Packing reads a pipe, where a signal ends the reading; what becomes of the archive then is tar's.
        if (std::string(opener.name) == "CompressFile") continue;
        SCOPED_TRACE(opener.name);
        const auto once = [&opener] {
            std::string result = opener.run();
            const calls::WithoutFaults paused;
            MakePackage();
            return result;
        };
        const auto often = [&once] {
            const Interruptions interruptions;
            std::string result;
            for (int i = 0; i < 50; ++i) result = once();
            return result;
        };
        EXPECT_EQ(RunWithFault({MakePackage, often}, kNoFault).result,
                  RunWithFault({MakePackage, once}, kNoFault).result);
    }
}

TEST(SurroundingsFaultsTest, AnInterruptedWaitForAChangeFailsAndIsLogged) {
    const auto wait = [] {
        const int fd = VMonitorFiles::InotifyInit("ignored");
        const Interruptions interruptions;
        const bool hasChanged = VMonitorFiles::InotifyFileChange(fd, "file", 1);
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
    EXPECT_EQ(protect.log,
              (std::vector<std::string>{"FileProtect 3 enableFlag=1", "FileProtect 3 Done return: -1"}));

    const Outcome archive =
        RunWithFault({prepare, [] { return Text(VCompressAndDeCompress::CompressFile("file")); }}, kNoFault);
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
            " -copy /tmp/pkg/filelist.ini || exit 1\n"
            "for file in /tmp/pkg/Common/*; do cmp $file /tmp/disk/${file##*/} || exit 2; done";
        const ProcessResult run =
            RunProcess(Concatenate(PrivateNamespace({"--ro-bind", package, "/tmp/pkg", "--size",
                                                     std::to_string(pages * 4096), "--tmpfs", "/tmp/disk"}),
                                   {"sh", "-c", script}));
        EXPECT_NE(run.exitStatus, 2) << pages << " pages: " << run.out;
        EXPECT_TRUE(run.exitStatus == 0 || run.exitStatus == 1) << run.err;
        EXPECT_TRUE(run.exitStatus == 0 || !hasSucceeded) << "fails on " << pages << " pages, not on fewer";
        hasSucceeded = run.exitStatus == 0;
    }
    EXPECT_TRUE(hasSucceeded) << "the last disk is large enough";
    std::cout << "Faults: full disks: " << steps << " points, " << steps << " runs\n";
}

}  // namespace
