// What a file system that is read-only, and a directory that is closed to the user, refuse: every operation
// that writes, and every one that looks, with the result, the errno and the log lines of its header.
#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <iostream>

#include "FaultTexts.h"
#include "OrdinaryUser.h"
#include "Process.h"
#include "Sweep.h"
#include "SystemCalls.h"
#include "Tool.h"
#include "VCompressAndDeCompress.h"
#include "VDir.h"
#include "VFile.h"
#include "VMonitorFiles.h"
#include "VPath.h"

namespace {

namespace fs = std::filesystem;

using Lines = std::vector<std::string>;

const Fault kNoFault = {"", 0, false, 0};
constexpr int kAnyErrno = 0;  // the header names none

struct Case {
    std::string name;
    std::function<std::string()> run;
    std::string result;
    int error;
    Lines log;
};

// What a run of the tool logs of the installed files in `installed`, with the `lines` of its pass.
Lines LogOfPass(const std::string& function, const std::string& installed, const Lines& lines,
                const std::string& end) {
    const Lines begin = {"GetPathSectionMap 3 PackageIntallType : Server",
                         function + " 3 Bin , " + installed + "/"};
    return Concatenate(
        Concatenate(begin, lines),
        {"main 3 ---------------------------------------------------", "main 3             " + end});
}

// A package in `dir`, a list that is to be found at `place` and names the targets there, and what stands in
// the way of each pass: an installed file and its backup.
void MakePackage(const std::string& dir, const std::string& place) {
    fs::create_directories(dir + "pkg/Common");
    fs::create_directories(dir + "installed");
    Write(dir + "pkg/Common/file", "new");
    Write(dir + "installed/file", "old");
    Write(dir + "installed/file.bak", "older");
    fs::permissions(dir + "installed/file", fs::perms(0444));
    Write(dir + "pkg/filelist.ini", "[Package_Intall_Type]\nPackageIntallType=Server\n[Server]\nBin=" +
                                        place + "installed\n[Bin]\nf=file\n");
}

// The three passes with the package at `place`, where nothing can be changed, and `error` says so.
std::vector<Case> RefusedPasses(const std::string& place, int error) {
    const std::string installed = place + "installed";
    const std::string file = installed + "/file";
    const std::string source = place + "pkg/Common/file";
    const auto run = [list = place + "pkg/filelist.ini"](const char* pass) {
        return [list, pass] { return Text(RunTool(pass, list.c_str())); };
    };
    return {
        {"-rename", run("-rename"), "-10000", kAnyErrno,
         LogOfPass(
             "RenameOperator", installed,
             {"RenameOperator 3 " + file + " ", "RenameFile 1 Failed:rename " + file + ", " + file + ".bak"},
             "Failed")},
        {"-copy", run("-copy"), "-10000", kAnyErrno,
         LogOfPass("CopyOperator", installed,
                   {"CopyOperator 3 " + source + " , " + file,
                    "fopen_s 3 open file " + file + " errno " + std::to_string(error),
                    "VCopyFile 3 Not fopen_s:dstFilename=" + file,
                    "CopyFile 1 Failed:copy " + source + ", " + file},
                   "Failed")},
        {"-clean", run("-clean"), "-10000", kAnyErrno,
         LogOfPass(
             "CleanOperator", installed,
             {"CleanOperator 3 " + file + ".bak ", "CleanOperator 1 Failed:RemoveFile " + file + ".bak"},
             "Failed")},
    };
}

Lines OpenRefused(const std::string& path, int error, const std::string& line) {
    return {"fopen_s 3 open file " + path + " errno " + std::to_string(error), line};
}

// Everything that writes, in the directory `d`, where nothing can be changed; a source to copy lies at
// `source`.
std::vector<Case> RefusedWriting(const std::string& d, const std::string& source, int error) {
    const std::string fresh = d + "/new";
    const std::string file = d + "/file";
    const std::string sub = d + "/sub";
    return {
        {"VMkDir", [fresh] { return Text(VDir::VMkDir(fresh.c_str(), 0755)); }, "-1", error, {}},
        {"VRmDir", [sub] { return Text(VDir::VRmDir(sub.c_str())); }, "-1", error, {}},
        {"RemoveFile", [file] { return Text(VFile::RemoveFile(file.c_str())); }, "-10000", error, {}},
        {"WriteBinFile, new",
         [fresh] { return Text(VFile::WriteBinFile(fresh.c_str(), "x", 1)); },
         "-10000",
         kAnyErrno,
         {}},
        {"WriteBinFile",
         [file] { return Text(VFile::WriteBinFile(file.c_str(), "x", 1)); },
         "-10000",
         kAnyErrno,
         {}},
        {"AppendWriteFile, new",
         [fresh] { return Text(VFile::AppendWriteFile(fresh.c_str(), "x", 1)); },
         "-10000",
         kAnyErrno,
         {}},
        {"AppendWriteFile",
         [file] { return Text(VFile::AppendWriteFile(file.c_str(), "x", 1)); },
         "-10000",
         kAnyErrno,
         {}},
        {"VCopyFile", [source, fresh] { return Text(VFile::VCopyFile(source.c_str(), fresh.c_str())); },
         "-10000", kAnyErrno, OpenRefused(fresh, error, "VCopyFile 3 Not fopen_s:dstFilename=" + fresh)},
        {"CompressFile",
         [file] { return Text(VCompressAndDeCompress::CompressFile(file.c_str())); },
         "-10000",
         kAnyErrno,
         {"CompressFile 3 command tar -zcvf " + file + ".tar.gz " + file}},
        {"CompressFilePath",
         [sub] { return Text(VCompressAndDeCompress::CompressFilePath(sub.c_str())); },
         "-10000",
         kAnyErrno,
         {"CompressFilePath 3 command tar -zcvf " + sub + "/sub.tar.gz " + sub}},
        {"CompressFileGroup",
         [source, fresh] {
             return Text(VCompressAndDeCompress::CompressFileGroup(source.c_str(), fresh.c_str()));
         },
         "-10000",
         kAnyErrno,
         {"CompressFileGroup 3 command tar -zcvf " + fresh + ".tar.gz " + source}},
    };
}

// Changing the owner of `d` to `user`.
Case RefusedChown(const std::string& d, const std::string& user, int error) {
    return {"VChownDirAndFirstDepthFiles",
            [d, user] { return Text(VDir::VChownDirAndFirstDepthFiles(d.c_str(), user.c_str())); },
            "-10000",
            kAnyErrno,
            {"VChownDirAndFirstDepthFiles 1 Failed to lchown to user, error:" + std::to_string(error)}};
}

std::string ReadText(const std::string& path) {
    char buffer[100];
    return Text(VFile::ReadBinFile(path.c_str(), buffer, sizeof(buffer)));
}

std::string WatchAttributes(const std::string& path) {
    const int fd = VMonitorFiles::InotifyInit(nullptr);
    // An event that is there already: the watch's end.
    const int other = inotify_add_watch(fd, ".", IN_ATTRIB);
    (void)inotify_rm_watch(fd, other);
    const bool hasChanged = VMonitorFiles::InotifyFileChange(fd, path.c_str(), 2);
    ::close(fd);
    return Text(hasChanged);
}

std::string CountFiles(const std::string& d) {
    std::vector<std::string> files;
    VFile::ScanDirectoriesFiles(d, files);
    return Text(static_cast<long>(files.size()));
}

std::string CountDirectories(const std::string& d) {
    std::vector<std::string> directories;
    VFile::ListSubDirectories(d, directories);
    return Text(static_cast<long>(directories.size()));
}

bool CanonicaliseIntoText(const std::string& path) {
    std::string output;
    return VDir::VRealPath(path, output);
}

// Everything that looks, in the directory `d` with "file" of three bytes and "sub" in it.
std::vector<Case> Looking(const std::string& d) {
    const std::string file = d + "/file";
    return {
        {"FileExist", [file] { return Text(VPath::FileExist(file.c_str())); }, "1", kAnyErrno, {}},
        {"FileSize", [file] { return Text(VFile::FileSize(file.c_str())); }, "3", kAnyErrno, {}},
        {"ReadBinFile", [file] { return ReadText(file); }, "3", kAnyErrno, {}},
        {"GetFileLastModifiedTime",
         [file] { return Text(VFile::GetFileLastModifiedTime(file) > 0); },
         "1",
         kAnyErrno,
         {}},
        {"ScanDirectoriesFiles", [d] { return CountFiles(d); }, "1", kAnyErrno, {}},
        {"ListSubDirectories", [d] { return CountDirectories(d); }, "1", kAnyErrno, {}},
        {"VRealPath", [file] { return Text(VDir::VRealPath(file.c_str(), 4096)); }, "1", kAnyErrno, {}},
        {"VRealPath into a text", [file] { return Text(CanonicaliseIntoText(file)); }, "1", kAnyErrno, {}},
        {"InotifyFileChange", [file] { return WatchAttributes(file); }, "1", kAnyErrno, {}},
    };
}

// The same where the directory can't be searched or read.
std::vector<Case> RefusedLooking(const std::string& d, const std::string& target) {
    std::vector<Case> cases = Looking(d);
    const std::string file = d + "/file";
    const Case failures[] = {
        {"FileExist", {}, "0", EACCES, {}},
        {"FileSize", {}, "-10000", kAnyErrno, {}},
        {"ReadBinFile", {}, "-10000", kAnyErrno, {}},
        {"GetFileLastModifiedTime", {}, "0", EACCES, {}},
        {"ScanDirectoriesFiles", {}, "0", kAnyErrno, {}},
        {"ListSubDirectories", {}, "0", kAnyErrno, {}},
        {"VRealPath", {}, "0", EACCES, {}},
        {"VRealPath into a text", {}, "0", EACCES, {}},
        {"InotifyFileChange",
         {},
         "0",
         kAnyErrno,
         {"InotifyFileChange 1 could not add watch " + file + ", error = " + std::to_string(EACCES)}},
    };
    for (std::size_t i = 0; i < cases.size(); ++i) {
        EXPECT_EQ(cases[i].name, failures[i].name);
        cases[i] = {cases[i].name, cases[i].run, failures[i].result, failures[i].error, failures[i].log};
    }
    cases.push_back({"VCopyFile of a source",
                     [file, target] { return Text(VFile::VCopyFile(file.c_str(), target.c_str())); },
                     "-10000", kAnyErrno,
                     OpenRefused(file, EACCES, "VCopyFile 3 Not Exist:srcFilename=" + file)});
    return cases;
}

std::vector<Case> operator+(std::vector<Case> left, const std::vector<Case>& right) {
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

// Runs each in a directory that `prepare` makes, which looks the same afterwards.
void ExpectEach(const std::string& title, const std::vector<Case>& cases,
                const std::function<void()>& prepare, const std::function<std::string(const Case&)>& run) {
    const std::string files = RunWithFault({prepare, [] { return Text(""); }}, kNoFault).files;
    for (const Case& each : cases) {
        SCOPED_TRACE(each.name);
        const Outcome outcome = RunWithFault({prepare, [&] { return run(each); }}, kNoFault);
        EXPECT_EQ(outcome.leaks, "");
        EXPECT_EQ(outcome.result, each.result);
        if (each.error != kAnyErrno) {
            EXPECT_EQ(outcome.error, each.error);
        }
        EXPECT_EQ(outcome.log, each.log);
        EXPECT_EQ(outcome.files, files);
    }
    std::cout << "Faults: " << title << ": " << cases.size() << " points, " << cases.size() << " runs\n";
}

TEST(RefusalFaultsTest, AReadOnlyFileSystemRefusesWhatWritesAndNothingElse) {
    const ScratchDirectory scratch;
    const std::string dir = scratch.Path() + "/";
    const std::string empty = scratch.Write("empty", "");
    MakePackage(dir, "/mnt/");
    scratch.MakeDirectory("d/sub");
    scratch.Write("d/file", "abc");
    CONTINUE_IN_PRIVATE_NAMESPACE(
        Concatenate(WithHelperTool(scratch, "exit 0"),
                    {"--ro-bind", scratch.Path(), "/mnt", "--ro-bind", empty, "/tmp/tmphfpenable.log"}));
    const std::string user = getpwuid(geteuid())->pw_name;
    std::vector<Case> cases =
        RefusedWriting("/mnt/d", "/mnt/d/file", EROFS) + RefusedPasses("/mnt/", EROFS) + Looking("/mnt/d");
    cases.push_back(RefusedChown("/mnt/d", user, EROFS));
    // The shell does not run what it has no output for, and ends with 2.
    cases.push_back({"FileProtect",
                     [] {
                         VFile::FileProtect(true);
                         return Text("");
                     },
                     "",
                     kAnyErrno,
                     {"FileProtect 3 enableFlag=1", "FileProtect 3 Done return: 512"}});
    ExpectEach("a read-only file system", cases, Nothing, [](const Case& each) { return each.run(); });
}

// "d" and "installed" are to be closed, for whoever comes in.
void MakeDirectories() {
    (void)umask(022);
    for (const char* const above : {".", ".."}) fs::permissions(above, fs::perms(0755));
    fs::create_directories("d/sub");
    Write("d/file", "abc");
    fs::permissions("d/file", fs::perms(0444));
    Write("source", "x");
    MakePackage("", "");
}

// As an ordinary user, with both directories of that mode; afterwards they can be read again.
std::function<std::string(const Case&)> InDirectoriesOfMode(unsigned mode) {
    return [mode](const Case& each) {
        const auto setMode = [](unsigned bits) {
            for (const char* const name : {"d", "installed"}) fs::permissions(name, fs::perms(bits));
        };
        setMode(mode);
        std::string result;
        int error = 0;
        {
            const OrdinaryUser ordinaryUser;
            errno = 0;
            result = each.run();
            error = errno;
        }
        setMode(0755);
        errno = error;
        return result;
    };
}

TEST(RefusalFaultsTest, ADirectoryThatMayNotBeWrittenRefusesAnOrdinaryUserWhatWrites) {
    std::vector<Case> cases =
        RefusedWriting("d", "source", EACCES) + RefusedPasses("", EACCES) + Looking("d");
    cases.push_back(RefusedChown("d", "root", EPERM));
    // What lies below is not closed.
    cases.erase(std::remove_if(cases.begin(), cases.end(),
                               [](const Case& each) { return each.name == "CompressFilePath"; }),
                cases.end());
    ExpectEach("directories of mode 0555", cases, MakeDirectories, InDirectoriesOfMode(0555));
}

TEST(RefusalFaultsTest, ADirectoryThatMayNotBeSearchedHidesWhatIsInItFromAnOrdinaryUser) {
    std::vector<Case> cases = RefusedWriting("d", "source", EACCES) + RefusedLooking("d", "target");
    cases.push_back(RefusedChown("d", "root", EPERM));
    // What can't be looked at counts as missing: nothing to back up, nothing to remove.
    const std::vector<Case> passes = RefusedPasses("", EACCES);
    cases.push_back({"-rename", passes[0].run, "0", kAnyErrno,
                     LogOfPass("RenameOperator", "installed", {"RenameOperator 3 installed/file "},
                               "Successfully completed")});
    cases.push_back(passes[1]);
    cases.push_back({"-clean", passes[2].run, "0", kAnyErrno,
                     LogOfPass("CleanOperator", "installed", {"CleanOperator 3 installed/file.bak "},
                               "Successfully completed")});
    ExpectEach("directories of mode 0000", cases, MakeDirectories, InDirectoriesOfMode(0000));
}

}  // namespace
