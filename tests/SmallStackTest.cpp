// Every operation that starts no process runs on a thread with the smallest stack that the platform gives.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <limits.h>
#include <pthread.h>
#include <pwd.h>
#include <signal.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "Resources.h"
#include "Sanitizer.h"
#include "ScratchDirectory.h"
#include "VCompressAndDeCompress.h"
#include "VDir.h"
#include "VFile.h"
#include "VFixFirewall.h"
#include "VMonitorFiles.h"
#include "VPath.h"

namespace {

// What the operations work on. On the heap, as their results are: the stack is for the library.
struct Arguments {
    const ScratchDirectory scratch;
    const std::string dir = scratch.MakeDirectory("dir");
    const std::string file = scratch.Write("dir/file", std::string(100, 'f'));
    const std::string largeFile = scratch.Write("large", std::string(200000, 'l'));
    const std::string tree = scratch.MakeDirectory("tree");
    const std::string leaf = scratch.Write("tree/1/2/3/leaf", "");
    const std::string made = scratch.Path("made/../made/1/2/3");
    const std::string written = scratch.Path("written");
    const std::string missing = scratch.Path("missing/file");
    const std::string longName = std::string(3000, 'n');
    const std::string text = std::string(100000, 't');
    const std::string root = "/";
    const passwd* const self = getpwuid(geteuid());
    VPath path{"/a/b/c"};
    VPath other{"/"};
    std::unique_ptr<VPath> result;
    std::string canonical;
    std::vector<std::string> names;
    std::vector<char> buffer = std::vector<char>(300000);
    std::vector<char> packed = std::vector<char>(300000);
    int packedLength = 0;
};

struct Operation {
    const char* name;
    // True when the result is the one of success.
    bool (*run)(Arguments& given);
};

bool IsText(const VPath& path, const char* expected) {
    return path.RealPath().text == std::string(expected);
}

bool Compress(Arguments& given) {
    given.packedLength = static_cast<int>(given.packed.size());
    return VCompressAndDeCompress::CompressString(given.text.c_str(), 100000, given.packed.data(),
                                                  &given.packedLength) == 0;
}
bool GzipCompress(Arguments& given) {
    given.packedLength = VCompressAndDeCompress::GzipCompress(given.text.data(), 100000, given.packed.data(),
                                                              static_cast<int>(given.packed.size()));
    return given.packedLength > 0;
}
bool GzipDecompress(Arguments& given) {
    return VCompressAndDeCompress::GzipDecompress(given.packed.data(), given.packedLength,
                                                  given.buffer.data(), 300000) == 100000;
}

bool WaitForChange(Arguments& given) {
    const int fd = VMonitorFiles::InotifyInit("");
    // Queued before the call, so that it need not wait.
    if (inotify_add_watch(fd, given.scratch.Path().c_str(), IN_CREATE) < 0) return false;
    (void)close(open(given.written.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600));
    const bool hasChanged = VMonitorFiles::InotifyFileChange(fd, given.dir.c_str(), 8);
    VMonitorFiles::Inotifyclose(fd);
    return hasChanged && unlink(given.written.c_str()) == 0;
}

const Operation kOperations[] = {
    {"VPathOfARange",
     [](Arguments& given) {
         given.result = std::make_unique<VPath>(true, "/a/b", nullptr);
         return IsText(*given.result, "/a/b");
     }},
    {"VPathOfAText",
     [](Arguments& given) {
         given.result = std::make_unique<VPath>("/a/./b//c/../d");
         return IsText(*given.result, "/a/b/d");
     }},
    {"VPathOfARelativeText",
     [](Arguments& given) {
         given.result = std::make_unique<VPath>(given.longName);
         return given.result->RealPath().text[0] == '/';
     }},
    {"VPathCopied",
     [](Arguments& given) {
         given.result = std::make_unique<VPath>(given.path);
         return IsText(*given.result, "/a/b/c");
     }},
    {"VPathAssigned",
     [](Arguments& given) {
         given.other = given.path;
         return IsText(given.other, "/a/b/c");
     }},
    {"ResolvePath",
     [](Arguments& given) {
         given.other.ResolvePath("/x/y/name");
         return IsText(given.other, "/x/y/name");
     }},
    {"ResolvePathOfItsOwnText",
     [](Arguments& given) {
         given.other.ResolvePath("/x/y/name");
         given.other.ResolvePath(given.other.BaseName().text);
         return given.other.RealPath().text[0] == '/';
     }},
    {"Joining",
     [](Arguments& given) {
         given.other = given.path;
         given.other += "d/../e";
         return IsText(given.other, "/a/b/c/e");
     }},
    {"JoiningIntoANewPath",
     [](Arguments& given) {
         given.result.reset(new VPath(given.path + given.longName));
         return given.result->RealPath().text[0] == '/';
     }},
    {"DirName", [](Arguments& given) { return given.path.DirName().text == std::string("/a/b"); }},
    {"BaseName", [](Arguments& given) { return given.path.BaseName().text == std::string("c"); }},
    {"DirPath",
     [](Arguments& given) {
         given.result.reset(new VPath(given.path.DirPath()));
         return IsText(*given.result, "/a/b") && !given.result->IsRootDir();
     }},
    {"FileExist", [](Arguments& given) { return VPath::FileExist(given.file.c_str()); }},
    {"VMkDirAndVRmDir",
     [](Arguments& given) {
         return VDir::VMkDir(given.made.c_str(), 0750) == 0 && VDir::VRmDir(given.made.c_str()) == 0;
     }},
    {"VMkDirOfARelativeText", [](Arguments&) { return VDir::VMkDir("./././.", 0750) == 0; }},
    {"VMkDirThatFails", [](Arguments& given) { return VDir::VMkDir(given.longName.c_str(), 0750) == -1; }},
    {"VChownDirAndFirstDepthFiles",
     [](Arguments& given) {
         return VDir::VChownDirAndFirstDepthFiles(given.dir.c_str(), given.self->pw_name) == 0;
     }},
    {"VChownDirAndFirstDepthFilesThatFails",
     [](Arguments& given) {
         return VDir::VChownDirAndFirstDepthFiles(given.missing.c_str(), given.self->pw_name) == -10000;
     }},
    {"VRealPath", [](Arguments& given) { return VDir::VRealPath(given.leaf.c_str(), 4096); }},
    {"VRealPathOfStrings",
     [](Arguments& given) {
         return VDir::VRealPath(given.leaf, given.canonical) && given.canonical == given.leaf;
     }},
    {"FileSize", [](Arguments& given) { return VFile::FileSize(given.file.c_str()) == 100; }},
    {"ReadBinFile",
     [](Arguments& given) {
         return VFile::ReadBinFile(given.largeFile.c_str(), given.buffer.data(), 300000) == 200000;
     }},
    {"WriteBinFile",
     [](Arguments& given) {
         return VFile::WriteBinFile(given.written.c_str(), given.text.data(), 100000) == 100000 &&
                VFile::RemoveFile(given.written.c_str()) == 0;
     }},
    {"AppendWriteFile",
     [](Arguments& given) {
         return VFile::AppendWriteFile(given.written.c_str(), given.text.data(), 100000) == 0 &&
                VFile::RemoveFile(given.written.c_str()) == 0;
     }},
    {"VCopyFile",
     [](Arguments& given) {
         return VFile::VCopyFile(given.file.c_str(), given.written.c_str()) == 0 &&
                VFile::RemoveFile(given.written.c_str()) == 0;
     }},
    {"VCopyFileOfALargeFile",
     [](Arguments& given) {
         return VFile::VCopyFile(given.largeFile.c_str(), given.written.c_str()) == 0 &&
                VFile::RemoveFile(given.written.c_str()) == 0;
     }},
    {"VCopyFileThatFails",
     [](Arguments& given) {
         return VFile::VCopyFile(given.missing.c_str(), given.written.c_str()) == -10000;
     }},
    {"GetFileLastModifiedTime",
     [](Arguments& given) { return VFile::GetFileLastModifiedTime(given.file) > 0; }},
    {"ListSubDirectories",
     [](Arguments& given) {
         given.names.clear();
         VFile::ListSubDirectories(given.tree, given.names);
         return given.names.size() == 1;
     }},
    {"ScanDirectoriesFiles",
     [](Arguments& given) {
         given.names.clear();
         VFile::ScanDirectoriesFiles(given.tree, given.names);
         return given.names.size() == 1;
     }},
    {"CompressString", Compress},
    {"CompressStringThatFails",
     [](Arguments& given) {
         int length = 1;
         return VCompressAndDeCompress::CompressString("text", 4, given.packed.data(), &length) == -10000;
     }},
    {"GzipCompressAndGzipDecompress",
     [](Arguments& given) { return GzipCompress(given) && GzipDecompress(given); }},
    {"InotifyInitInotifyFileChangeAndInotifyclose", WaitForChange},
    {"InotifyFileChangeThatFails",
     [](Arguments& given) { return !VMonitorFiles::InotifyFileChange(1, given.dir.c_str(), 0); }},
    {"FixFirewallStopAndFixFirewallStart",
     [](Arguments&) {
         // Stopped before, the new thread ends at once.
         VFixFirewall::FixFirewallStop();
         VFixFirewall::FixFirewallStart();
         return true;
     }},
};

struct Run {
    const Operation& operation;
    Arguments& arguments;
    bool hasSucceeded;
};

void* RunOnThread(void* run) {
    Run& given = *static_cast<Run*>(run);
    given.hasSucceeded = given.operation.run(given.arguments);
    return nullptr;
}

// What `operation` gives on the smallest stack. Elsewhere first: names that are bound at their first use take
// more stack once, and belong to other libraries.
bool SucceedsOnSmallestStack(const Operation& operation) {
    const auto arguments = std::make_unique<Arguments>();
    if (!operation.run(*arguments)) {
        std::printf("%s fails on any stack\n", operation.name);
        return false;
    }

    const auto run = std::make_unique<Run>(Run{operation, *arguments, false});
    pthread_attr_t attributes;
    pthread_t thread;
    const bool hasRun = pthread_attr_init(&attributes) == 0 &&
                        pthread_attr_setstacksize(&attributes, static_cast<size_t>(PTHREAD_STACK_MIN)) == 0 &&
                        pthread_create(&thread, &attributes, RunOnThread, run.get()) == 0 &&
                        pthread_join(thread, nullptr) == 0;
    return hasRun && run->hasSucceeded;
}

// A process of its own: a stack that is too small ends it.
int WaitStatusOnSmallestStack(const Operation& operation) {
    fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) std::exit(SucceedsOnSmallestStack(operation) ? 0 : 1);
    int status = -1;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    return status;
}

class SmallStackTest : public ResourceTest {};

TEST_F(SmallStackTest, SufficesForEveryOperationThatStartsNoProcess) {
    if (VFS_TEST_ADDRESS_SANITIZER || VFS_TEST_THREAD_SANITIZER) {
        GTEST_SKIP() << "what a sanitizer adds needs more than the smallest stack";
    }
    if (getpwuid(geteuid()) == nullptr) GTEST_SKIP() << "no account for this user";

    for (const Operation& operation : kOperations) {
        EXPECT_EQ(WaitStatusOnSmallestStack(operation), 0)
            << operation.name << "; " << SIGSEGV << " where a stack of " << PTHREAD_STACK_MIN
            << " bytes is too small";
    }
}

}  // namespace
