// Every operation of the path, directory and file classes, with each of its calls failing in turn.
#include <gtest/gtest.h>
#include <pwd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <sstream>
#include <vector>

#include "FaultTexts.h"
#include "Process.h"
#include "Sweep.h"
#include "SystemCalls.h"
#include "VDir.h"
#include "VFile.h"
#include "VPath.h"

namespace {

namespace fs = std::filesystem;

const char kBadAlloc[] = "St9bad_alloc";

TEST(LibraryFaultsTest, ResolveARelativePath) {
    Sweep sweep("VPath of a relative text", {Nothing, [] {
                                                 const VPath path("a//b/../c");
                                                 return Text(path.RealPath().text);
                                             }});
    sweep.Expect("getcwd", "");
    sweep.Expect("snprintf_s", "");
    // A failed move leaves the text as the step reached it, and the path valid.
    sweep.Expect("memmove_s", 1, "@/a//b/../c");
    sweep.Expect("memmove_s", 2, "@/a/b/../c");
    sweep.Run("getcwd 1 memmove_s 2 snprintf_s 1");
}

TEST(LibraryFaultsTest, ResolveAnAbsolutePath) {
    Sweep sweep("VPath of an absolute text", {Nothing, [] {
                                                  const VPath path("/a/./b/../c//d");
                                                  return Text(path.RealPath().text);
                                              }});
    sweep.Expect("strcpy_s", "");
    sweep.Expect("memmove_s", 1, "/a/./b/../c//d");
    sweep.Expect("memmove_s", 2, "/a/b/../c//d");
    sweep.Expect("memmove_s", 3, "/a/c//d");
    sweep.Run("memmove_s 3 strcpy_s 1");
}

TEST(LibraryFaultsTest, JoinAndCopy) {
    Sweep sum("VPath::operator+", {Nothing, [] {
                                       const VPath path("/opt/product");
                                       return Text((path + "a/file/whose/name/is/long").RealPath().text);
                                   }});
    sum.Expect("malloc", kBadAlloc);
    // The second one sets the sum to the empty text, which it is already.
    sum.Expect("strcpy_s", 1, "");
    sum.Expect("strcpy_s", 2, "").Onwards();
    sum.Expect("strcpy_s", 3, "");
    sum.Run("malloc 1 strcpy_s 3");

    Sweep append("VPath::operator+=", {Nothing, [] {
                                           VPath path("/opt/product");
                                           path += "a/file/whose/name/is/long";
                                           return Text(path.RealPath().text);
                                       }});
    append.Expect("malloc", kBadAlloc);
    append.Expect("strcpy_s", "");
    append.Run("malloc 1 strcpy_s 2");

    Sweep copy("VPath copied", {Nothing, [] {
                                    const VPath path("/opt/product");
                                    const VPath other(path);
                                    return Text(other.RealPath().text);
                                }});
    copy.Expect("strcpy_s", "");
    copy.Run("strcpy_s 2");
}

TEST(LibraryFaultsTest, SplitAPath) {
    Sweep dirName("VPath::DirName", {Nothing, [] {
                                         const VPath path("/opt/product/etc");
                                         const PathText parent = path.DirName();
                                         return Text(parent.text);
                                     }});
    dirName.Expect("strcpy_s", "");
    dirName.Expect("malloc", "");
    dirName.Expect("strncpy_s", "");
    dirName.Run("malloc 1 strcpy_s 1 strncpy_s 1");

    Sweep dirPath("VPath::DirPath", {Nothing, [] {
                                         const VPath path("/opt/product/etc");
                                         return Text(path.DirPath().RealPath().text);
                                     }});
    dirPath.Expect("strcpy_s", "");
    dirPath.Expect("strncpy_s", "");
    dirPath.Run("strcpy_s 1 strncpy_s 1");
}

TEST(LibraryFaultsTest, FileExist) {
    Sweep sweep("VPath::FileExist",
                {[] { Write("file", "x"); }, [] { return Text(VPath::FileExist("file")); }});
    sweep.Expect("access", "0").Errno();
    sweep.Run("access 1");
}

TEST(LibraryFaultsTest, VMkDir) {
    const ScratchDirectory scratch;
    const std::string dir = scratch.Path("dir");
    const long ancestors = std::count(dir.begin(), dir.end(), '/');
    Sweep sweep("VDir::VMkDir", {Nothing, [] { return Text(VDir::VMkDir("a/b/c/d/e", 0755)); }});
    sweep.Expect("getcwd", "-1").Errno(ENOENT).Files("");
    sweep.Expect("snprintf_s", "-1").Errno(ENOENT).Files("");
    sweep.Expect("strcpy_s", "-1").Errno(ENAMETOOLONG).Files("");
    // What can't be looked at counts as missing, and what is there can't be made.
    sweep.Expect("stat", 1, "-1").Errno(EEXIST).Files("").Onwards();
    sweep.Expect("stat", 2, 1 + ancestors, "-1").Errno(EEXIST).Files("");
    const char* const made[] = {"", "a/", "a/ a/b/", "a/ a/b/ a/b/c/", "a/ a/b/ a/b/c/ a/b/c/d/"};
    for (long n = 1; n <= 5; ++n) sweep.Expect("mkdir", n, "-1").Errno().Files(made[n - 1]);
    sweep.Run("getcwd 1 mkdir 5 snprintf_s 1 strcpy_s 1 stat " + std::to_string(6 + ancestors));
}

TEST(LibraryFaultsTest, VRmDir) {
    Sweep sweep("VDir::VRmDir", {[] { fs::create_directory("a"); }, [] { return Text(VDir::VRmDir("a")); }});
    sweep.Expect("rmdir", "-1").Errno().Files("a/");
    sweep.Run("rmdir 1");
}

TEST(LibraryFaultsTest, VChownDirAndFirstDepthFiles) {
    static const std::string user = getpwuid(geteuid())->pw_name;
    const char function[] = "VChownDirAndFirstDepthFiles 1 ";
    Sweep sweep("VDir::VChownDirAndFirstDepthFiles",
                {[] {
                     fs::create_directory("d");
                     for (const char* const name : {"d/one", "d/two", "d/three"}) Write(name, "x");
                 },
                 [] { return Text(VDir::VChownDirAndFirstDepthFiles("d", user.c_str())); }});
    sweep.Expect("getpwnam", "-10000")
        .Log({std::string(function) + "Can't get user name id, errno: {errno}"});
    sweep.Expect("lchown", "-10000").Log({std::string(function) + "Failed to lchown to user, error:{errno}"});
    sweep.Expect("opendir", "-10000").Log({std::string(function) + "Failed open dir,path=d"});
    // The directory's stream; the paths of the entries are short.
    sweep.Expect("malloc", "-10000").Log({std::string(function) + "Failed open dir,path=d"});
    sweep.Run("closedir 1 getpwnam 1 lchown 4 malloc 1 opendir 1 readdir 6 stat 3");
}

TEST(LibraryFaultsTest, VRealPath) {
    const auto prepare = [] { Write("file", "x"); };
    Sweep check("VDir::VRealPath of a length",
                {prepare, [] { return Text(VDir::VRealPath("./file", 4096)); }});
    check.Expect("realpath", "0").Errno();
    check.Expect("realpath", "1").ForError(ENOENT);
    check.Run("memset_s 1 realpath 1");

    Sweep sweep("VDir::VRealPath into a text", {prepare, [] {
                                                    static const std::string input = "./file";
                                                    static std::string output;
                                                    output = "untouched";
                                                    output.reserve(4096);
                                                    const bool isCanonical = VDir::VRealPath(input, output);
                                                    const calls::WithoutFaults paused;
                                                    return Text(isCanonical) + " " + output;
                                                }});
    sweep.Expect("realpath", "0 untouched").Errno();
    sweep.Expect("realpath", "1 ./file").ForError(ENOENT);
    sweep.Run("memset_s 1 realpath 1");
}

// What the shell does with the helper tool's name needs the product's own places.
TEST(LibraryFaultsTest, FileProtect) {
    const ScratchDirectory scratch;
    CONTINUE_IN_PRIVATE_NAMESPACE(WithHelperTool(scratch, "exit 3"));
    Sweep sweep("VFile::FileProtect", {Nothing, [] {
                                           VFile::FileProtect(true);
                                           VFile::FileProtect(false);
                                           return Text("");
                                       }});
    sweep.Expect("system", "")
        .Log({"FileProtect 3 enableFlag=1", "FileProtect 3 Done return: -1", "FileProtect 3 enableFlag=0",
              "FileProtect 3 Done return: -1"});
    sweep.Expect("system", 1, "")
        .Once()
        .Log({"FileProtect 3 enableFlag=1", "FileProtect 3 Done return: -1", "FileProtect 3 enableFlag=0",
              "FileProtect 3 Done return: 768"});
    sweep.Expect("system", 2, "")
        .Log({"FileProtect 3 enableFlag=1", "FileProtect 3 Done return: 768", "FileProtect 3 enableFlag=0",
              "FileProtect 3 Done return: -1"});
    sweep.Run("system 2");
}

TEST(LibraryFaultsTest, RemoveFile) {
    Sweep sweep("VFile::RemoveFile",
                {[] { Write("file", "x"); }, [] { return Text(VFile::RemoveFile("file")); }});
    sweep.Expect("remove", "-10000").Errno().Files("file=x");
    sweep.Run("remove 1");
}

TEST(LibraryFaultsTest, GetFileLastModifiedTime) {
    Sweep sweep("VFile::GetFileLastModifiedTime", {[] { Write("file", "x"); },
                                                   [] {
                                                       static const std::string path = "file";
                                                       return Text(VFile::GetFileLastModifiedTime(path) > 0);
                                                   }});
    sweep.Expect("stat", "0").Errno();
    sweep.Run("stat 1");
}

TEST(LibraryFaultsTest, FileSize) {
    Sweep sweep("VFile::FileSize",
                {[] { Write("file", "12345"); }, [] { return Text(VFile::FileSize("file")); }});
    sweep.Expect("fopen64", "-10000");
    sweep.Expect("malloc", "-10000");
    // Going to the end belongs to opening; where the end is, is asked behind it.
    sweep.Expect("lseek64", 1, "-10000");
    sweep.Expect("lseek64", 2, "-1");
    sweep.Run("fclose 1 fopen64 1 lseek64 2 malloc 1");
}

TEST(LibraryFaultsTest, ReadBinFile) {
    static char buffer[8192];
    Sweep sweep("VFile::ReadBinFile", {[] { Write("file", Pattern(5000)); },
                                       [] {
                                           const long size =
                                               VFile::ReadBinFile("file", buffer, sizeof(buffer));
                                           return Text(size);
                                       }});
    sweep.Expect("fopen64", "-10000");
    sweep.Expect("malloc", "-10000");
    sweep.Expect("lseek64", 1, "-10000");
    // The size is the result, whatever the reading behind it says.
    sweep.Expect("lseek64", 2, "-1");
    sweep.Run("fclose 1 fopen64 1 lseek64 3 malloc 1 read 1");
}

TEST(LibraryFaultsTest, WriteBinFile) {
    static const std::string content = Pattern(20000);
    Sweep sweep("VFile::WriteBinFile",
                {[] { Write("file", "old"); },
                 [] { return Text(VFile::WriteBinFile("file", content.data(), 20000)); }});
    sweep.Expect("fopen64", 1, "-10000").Files("file=old");
    sweep.Expect("fopen64", 2, "-10000").Files("file=20000 bytes");
    sweep.Expect("malloc", 1, "-10000").Files("file=old");
    sweep.Expect("malloc", 2, "-10000").Files("file=20000 bytes");
    sweep.Expect("write", "-10000").Files("file=");
    sweep.Expect("writev", "-10000").Files("file=");
    sweep.Expect("lseek64", "-10000").Files("file=20000 bytes");
    sweep.Run("fclose 2 fopen64 2 lseek64 2 malloc 2 writev 1");
}

TEST(LibraryFaultsTest, AppendWriteFile) {
    static const std::string content = Pattern(20000);
    Sweep sweep("VFile::AppendWriteFile",
                {[] { Write("file", "old"); },
                 [] { return Text(VFile::AppendWriteFile("file", content.data(), 20000)); }});
    sweep.Expect("fopen64", "-10000").Files("file=old");
    sweep.Expect("malloc", "-10000").Files("file=old");
    // A file that opened is all that the result promises.
    sweep.Expect("write", "0").Files("file=old");
    sweep.Expect("writev", "0").Files("file=old");
    sweep.Run("fclose 1 fopen64 1 malloc 1 writev 1");
}

void ExpectFailuresToOpen(Sweep& sweep) {
    sweep.Expect("fopen", 1, "-10000")
        .Log({"fopen_s 3 open file src errno {errno}", "VCopyFile 3 Not Exist:srcFilename=src"});
    sweep.Expect("fopen", 2, "-10000")
        .Log({"fopen_s 3 open file dst errno {errno}", "VCopyFile 3 Not fopen_s:dstFilename=dst"});
    // The streams themselves; without memory for a buffer a stream works without one.
    sweep.Expect("malloc", 1, "-10000")
        .Log({"fopen_s 3 open file src errno 12", "VCopyFile 3 Not Exist:srcFilename=src"});
    sweep.Expect("malloc", 2, "-10000")
        .Log({"fopen_s 3 open file dst errno 12", "VCopyFile 3 Not fopen_s:dstFilename=dst"});
}

TEST(LibraryFaultsTest, VCopyFile) {
    Sweep sweep("VFile::VCopyFile of 5,000 bytes",
                {[] { Write("src", Pattern(5000)); }, [] { return Text(VFile::VCopyFile("src", "dst")); }});
    ExpectFailuresToOpen(sweep);
    // A read error is not told apart from the end of the file.
    sweep.Expect("fread", 1, "0").Files("dst= src=5000 bytes");
    sweep.Expect("fread", 2, "0").Files("dst=2048 bytes src=5000 bytes");
    sweep.Expect("fread", 3, "0").Files("dst=4096 bytes src=5000 bytes");
    sweep.Expect("fwrite", 1, "-10000").Log({"VCopyFile 1 ret=0,len=2048"}).Files("dst= src=5000 bytes");
    sweep.Expect("fwrite", 2, "-10000")
        .Log({"VCopyFile 1 ret=0,len=2048"})
        .Files("dst=2048 bytes src=5000 bytes");
    sweep.Expect("fwrite", 3, "-10000")
        .Log({"VCopyFile 1 ret=0,len=904"})
        .Files("dst=4096 bytes src=5000 bytes");
    sweep.Run("fclose 2 fflush 2 fopen 2 fread 4 fstat 1 fwrite 3 malloc 4");
}

TEST(LibraryFaultsTest, VCopyFileOfALargeFile) {
    Sweep sweep("VFile::VCopyFile of 140,000 bytes",
                {[] { Write("src", Pattern(140000)); }, [] { return Text(VFile::VCopyFile("src", "dst")); }});
    ExpectFailuresToOpen(sweep);
    // 122,880 bytes have been moved before; where the move fails, or is not tried, the streams copy them.
    for (long n = 1; n <= 9; ++n) {
        const std::string files =
            "dst=" + std::to_string(122880 + 2048 * (n - 1)) + " bytes src=140000 bytes";
        sweep.Expect("fread", n, "0").Files(files);
        sweep.Expect("fwrite", n, "-10000")
            .Log({"VCopyFile 1 ret=0,len=" + std::to_string(n < 9 ? 2048 : 736)})
            .Files(files);
    }
    sweep.Run("fclose 2 fflush 2 fopen 2 fread 10 fstat 2 fwrite 9 malloc 4 sendfile 1");
}

void MakeTree() {
    fs::create_directories("tree/sub/deep");
    fs::create_directories("tree/other");
    for (const char* const name :
         {"tree/a", "tree/b", "tree/sub/c", "tree/sub/d", "tree/sub/deep/e", "tree/other/f"}) {
        Write(name, "x");
    }
}

std::string Sorted(std::vector<std::string>& names) {
    const calls::WithoutFaults paused;
    std::sort(names.begin(), names.end());
    std::string text;
    for (const std::string& name : names) text += name + " ";
    return text;
}

std::vector<std::string> Words(const std::string& text) {
    std::istringstream stream(text);
    return {std::istream_iterator<std::string>(stream), {}};
}

// What can't be opened, read or looked at is missing; nothing is added, and nothing is logged.
void ExpectPartOfTheTree(const Fault& fault, const Outcome& outcome, const Outcome& normal) {
    EXPECT_TRUE(outcome.log.empty());
    EXPECT_EQ(outcome.files, normal.files);
    if (outcome.result == kBadAlloc) {
        EXPECT_EQ(fault.call, "malloc");
        return;
    }
    const std::vector<std::string> all = Words(normal.result);
    const std::vector<std::string> found = Words(outcome.result);
    EXPECT_TRUE(std::includes(all.begin(), all.end(), found.begin(), found.end())) << outcome.result;
    if (fault.call == "closedir") {
        EXPECT_EQ(found, all);
    }
    const bool isFromTheFirst = fault.n == 1 && (fault.call == "opendir" || fault.call == "readdir");
    if (isFromTheFirst || (fault.call == "stat" && fault.n == 1 && fault.isOnwards)) {
        EXPECT_EQ(outcome.result, "");
    }
    if (fault.call == "stat") {
        EXPECT_LT(found.size(), all.size());
    }
}

TEST(LibraryFaultsTest, ScanDirectoriesFiles) {
    Sweep sweep("VFile::ScanDirectoriesFiles", {MakeTree, [] {
                                                    std::vector<std::string> files;
                                                    static const std::string tree = "tree";
                                                    VFile::ScanDirectoriesFiles(tree, files);
                                                    return Sorted(files);
                                                }});
    sweep.Run("closedir 4 malloc 8 opendir 4 readdir 21 stat 9", ExpectPartOfTheTree);
}

TEST(LibraryFaultsTest, ListSubDirectories) {
    Sweep sweep("VFile::ListSubDirectories", {MakeTree, [] {
                                                  std::vector<std::string> directories;
                                                  static const std::string tree = "tree";
                                                  VFile::ListSubDirectories(tree, directories);
                                                  return Sorted(directories);
                                              }});
    sweep.Run("closedir 1 malloc 3 opendir 1 readdir 7 stat 4", [](const Fault& fault, const Outcome& outcome,
                                                                   const Outcome& normal) {
        EXPECT_TRUE(outcome.log.empty());
        if (outcome.result == kBadAlloc) return;
        const std::vector<std::string> all = Words(normal.result);
        const std::vector<std::string> found = Words(outcome.result);
        EXPECT_TRUE(std::includes(all.begin(), all.end(), found.begin(), found.end())) << outcome.result;
        if (fault.n == 1 && fault.call != "closedir" && fault.isOnwards) {
            EXPECT_EQ(outcome.result, "");
        }
    });
}

}  // namespace
