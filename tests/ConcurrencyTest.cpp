// Eight threads, each with objects and files of its own, use everything that may be used so at once; and the
// same again and again, without growing. ThreadSanitizer watches the first, where it is built in.
#include <gtest/gtest.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <fstream>
#include <functional>
#include <iostream>
#include <string>
#include <thread>
#include <vector>

#include "FileSystem.h"
#include "HeapCounter.h"
#include "LogRecorder.h"
#include "Resources.h"
#include "Scale.h"
#include "ScratchDirectory.h"
#include "VCompressAndDeCompress.h"
#include "VCopyFileListIni.h"
#include "VDir.h"
#include "VFile.h"
#include "VMonitorFiles.h"
#include "VPath.h"

namespace {

constexpr int kThreads = 8;

void UsePaths(const std::string& dir) {
    VPath path(dir + "/a/../b/./c");
    path += "d";
    EXPECT_EQ(path.RealPath().text, dir + "/b/c/d");
    EXPECT_EQ((path + "e").DirPath().RealPath().text, dir + "/b/c/d");
    EXPECT_STREQ(path.BaseName().text, "d");
    EXPECT_EQ(path.DirName().text, dir + "/b/c");
    EXPECT_FALSE(VPath::FileExist((dir + "/nothing").c_str()));
}

void UseDirectories(const std::string& dir) {
    const std::string deep = dir + "/made/by/threads";
    EXPECT_EQ(VDir::VMkDir(deep.c_str(), 0755), 0);
    std::string canonical;
    EXPECT_TRUE(VDir::VRealPath(deep + "/..", canonical));
    EXPECT_EQ(canonical, dir + "/made/by");
    EXPECT_TRUE(VDir::VRealPath(deep.c_str(), 4096));
    EXPECT_EQ(VDir::VRmDir(deep.c_str()), 0);
}

void UseFiles(const std::string& dir) {
    const std::string file = dir + "/file";
    const std::string copy = dir + "/copy";
    const std::string content(70000, 'x');
    EXPECT_EQ(VFile::WriteBinFile(file.c_str(), content.data(), 70000), 70000);
    EXPECT_EQ(VFile::AppendWriteFile(file.c_str(), "end", 3), 0);
    EXPECT_EQ(VFile::VCopyFile(file.c_str(), copy.c_str()), 0);
    EXPECT_EQ(VFile::FileSize(copy.c_str()), 70003);
    std::vector<char> buffer(80000);
    EXPECT_EQ(VFile::ReadBinFile(copy.c_str(), buffer.data(), 80000), 70003);
    EXPECT_EQ(std::memcmp(buffer.data() + 69999, "xend", 4), 0);
    EXPECT_GT(VFile::GetFileLastModifiedTime(copy), 0);
    EXPECT_EQ(VFile::RemoveFile(copy.c_str()), 0);
}

void UseListings(const std::string& dir) {
    std::vector<std::string> files;
    VFile::ScanDirectoriesFiles(dir + "/tree", files);
    EXPECT_EQ(files, std::vector<std::string>{dir + "/tree/sub/leaf"});
    std::vector<std::string> directories;
    VFile::ListSubDirectories(dir + "/tree", directories);
    EXPECT_EQ(directories, std::vector<std::string>{dir + "/tree/sub"});
}

void UseCompression() {
    const std::string text(5000, 'z');
    std::array<char, 8000> compressed;
    std::array<char, 8000> member;
    std::array<char, 5000> back;
    int length = compressed.size();
    EXPECT_EQ(VCompressAndDeCompress::CompressString(text.c_str(), 5000, compressed.data(), &length), 0);
    const int size = VCompressAndDeCompress::GzipCompress(text.c_str(), 5000, member.data(), 8000);
    EXPECT_EQ(VCompressAndDeCompress::GzipDecompress(member.data(), size, back.data(), 5000), 5000);
    EXPECT_EQ(std::string(back.data(), back.size()), text);
}

void UseMonitoring(const std::string& dir) {
    const std::string watched = dir + "/tree/sub/leaf";
    const int fd = VMonitorFiles::InotifyInit(nullptr);
    ASSERT_GE(fd, 0);
    ASSERT_GE(inotify_add_watch(fd, watched.c_str(), IN_ATTRIB), 0);
    ASSERT_EQ(chmod(watched.c_str(), 0600), 0);
    EXPECT_TRUE(VMonitorFiles::InotifyFileChange(fd, watched.c_str(), 2));
    VMonitorFiles::Inotifyclose(fd);
}

void UseTheUpgradeTool(const std::string& dir) {
    EXPECT_EQ(RenameOperator(dir + "/pkg/filelist.ini"), 0);
    EXPECT_EQ(CopyOperator(dir + "/pkg/filelist.ini"), 0);
    EXPECT_EQ(CleanOperator(dir + "/pkg/filelist.ini"), 0);
    EXPECT_EQ(ReadWholeFile(dir + "/installed/one"), "new");
}

// Everything but packing, which starts a shell each time and has tests of its own for it.
void UseEverything(const std::string& dir) {
    UsePaths(dir);
    UseDirectories(dir);
    UseFiles(dir);
    UseListings(dir);
    UseCompression();
    UseMonitoring(dir);
    UseTheUpgradeTool(dir);
}

class ConcurrencyTest : public ResourceTest {
protected:
    std::string MakeDirectory(const std::string& name) const {
        const std::string dir = scratch_.MakeDirectory(name);
        scratch_.Write(name + "/tree/sub/leaf", "x");
        scratch_.Write(name + "/pkg/Common/one", "new");
        scratch_.Write(name + "/installed/one", "old");
        scratch_.Write(name + "/pkg/filelist.ini",
                       "[Package_Intall_Type]\nPackageIntallType=Server\n[Server]\nBin=" + dir +
                           "/installed\n[Bin]\nf=one\n");
        return dir;
    }

    ScratchDirectory scratch_;
};

TEST_F(ConcurrencyTest, EightThreadsUseEverythingAtOnce) {
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
        const std::string dir = MakeDirectory(std::to_string(i));
        threads.emplace_back([dir] {
            for (int round = 0; round < 20; ++round) UseEverything(dir);
        });
    }
    for (std::thread& thread : threads) thread.join();
}

// The memory that the process has in use, in KiB; heap blocks are counted besides.
long ResidentKiB() {
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.rfind("VmRSS:", 0) == 0) return std::stol(line.substr(6));
    }
    return 0;
}

TEST_F(ConcurrencyTest, LongUseLeavesNothingBehind) {
    const long rounds = 400 * TestScale();
    const std::string dir = MakeDirectory("soak");
    const auto use = [&dir] {
        UseEverything(dir);
        LogRecorder::Clear();
    };
    for (int i = 0; i < 20; ++i) use();
    const int descriptors = OpenDescriptors();
    const long blocks = heap::LiveBlocks();
    const long memory = ResidentKiB();

    for (long i = 0; i < rounds; ++i) use();

    EXPECT_EQ(OpenDescriptors(), descriptors);
    EXPECT_EQ(heap::LiveBlocks(), blocks);
    if (heap::IsCounted()) {
        EXPECT_LE(ResidentKiB(), memory + 1024);
    }
    std::cout << "Soak: " << rounds * 25 << " operations\n";
}

}  // namespace
