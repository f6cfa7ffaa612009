// Making, removing, handing over and canonicalising directories.
#include "VDir.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <filesystem>
#include <ostream>
#include <sstream>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include "FileSystem.h"
#include "LogRecorder.h"
#include "OrdinaryUser.h"
#include "Process.h"
#include "Resources.h"
#include "Scale.h"
#include "ScratchDirectory.h"
#include "SystemCalls.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

static_assert(std::is_same_v<decltype(&VDir::VMkDir), int (*)(const char*, unsigned short)>);
static_assert(std::is_same_v<decltype(&VDir::VRmDir), int (*)(const char*)>);
static_assert(
    std::is_same_v<decltype(&VDir::VChownDirAndFirstDepthFiles), int (*)(const char*, const char*)>);
static_assert(!std::is_default_constructible_v<VDir>);
static_assert(!std::is_aggregate_v<VDir>);

// Each names one of the two overloads by its exact type.
constexpr bool (*kIsRealPath)(const char*, int) = &VDir::VRealPath;
constexpr bool (*kRealPath)(const std::string&, std::string&) = &VDir::VRealPath;

// What a call in the system's style gave: its result, and after a failure its errno (otherwise 0).
struct Outcome {
    int result;
    int error;
};

bool operator==(const Outcome& left, const Outcome& right) {
    return left.result == right.result && left.error == right.error;
}

std::ostream& operator<<(std::ostream& out, const Outcome& outcome) {
    return out << outcome.result << " with errno " << outcome.error << " (" << std::strerror(outcome.error)
               << ")";
}

constexpr Outcome kDone = {0, 0};

constexpr Outcome FailedWith(int error) {
    return {-1, error};
}

template <typename Operation>
Outcome Observe(Operation operation) {
    errno = 0;
    const int result = operation();
    return {result, result == 0 ? 0 : errno};
}

Outcome MakeDirectory(const char* path, unsigned short mode = 0750) {
    return Observe([&] { return VDir::VMkDir(path, mode); });
}

Outcome MakeDirectory(const std::string& path, unsigned short mode = 0750) {
    return MakeDirectory(path.c_str(), mode);
}

Outcome RemoveDirectory(const std::string& path) {
    return Observe([&] { return VDir::VRmDir(path.c_str()); });
}

// The outcome of VRealPath in the same style: 0 for true.
Outcome CheckRealPath(const char* path, int length) {
    return Observe([&] { return kIsRealPath(path, length) ? 0 : -1; });
}

Outcome GetRealPath(const std::string& input, std::string& output) {
    return Observe([&] { return kRealPath(input, output) ? 0 : -1; });
}

// User and group of `path` itself as "USER:GROUP".
std::string OwnerOf(const std::string& path) {
    const struct stat status = StatusOf(path);
    return std::to_string(status.st_uid) + ":" + std::to_string(status.st_gid);
}

// Stays in a working directory whose own path has more than 4095 bytes.
class DeepWorkingDirectory {
public:
    explicit DeepWorkingDirectory(const ScratchDirectory& scratch) : top_(scratch.Path()) {
        const std::string name(250, 'w');
        for (int level = 0; level < 17; ++level) {
            EXPECT_EQ(mkdir(name.c_str(), 0700), 0);
            EXPECT_EQ(chdir(name.c_str()), 0);
        }
    }

private:
    const WorkingDirectory top_;
};

// Writes down the calls of stat and mkdir, without `base` in front of their paths, and passes them on.
class RecordedCalls {
public:
    explicit RecordedCalls(const std::string& base) : base_(base) {}
    std::vector<std::string> calls;

private:
    int Stat(const char* path, struct stat* status) {
        calls.push_back("stat " + Shortened(path));
        return calls::real::stat(path, status);
    }
    int Mkdir(const char* path, mode_t mode) {
        std::ostringstream octal;
        octal << std::oct << mode;
        calls.push_back("mkdir " + Shortened(path) + " " + octal.str());
        return calls::real::mkdir(path, mode);
    }
    std::string Shortened(const std::string& path) const {
        return path.compare(0, base_.size(), base_) == 0 ? path.substr(base_.size()) : path;
    }

    const std::string base_;
    const Replaced<decltype(calls::stat)> stat_{calls::stat,
                                                [this](auto... given) { return Stat(given...); }};
    const Replaced<decltype(calls::mkdir)> mkdir_{calls::mkdir,
                                                  [this](auto... given) { return Mkdir(given...); }};
};

// The user "worker" with user id 1234 and group id 5678, and an lchown which writes down what it is to do, as
// "PATH USER:GROUP", and fails with EPERM for `refusedPath`.
class RecordedHandOver {
public:
    explicit RecordedHandOver(const std::string& refusedPath = "") : refusedPath_(refusedPath) {
        user_.pw_uid = 1234;
        user_.pw_gid = 5678;
    }
    std::vector<std::string> changes;

private:
    passwd* FindUser(const char* name) { return std::strcmp(name, "worker") == 0 ? &user_ : nullptr; }
    int ChangeOwner(const char* path, uid_t user, gid_t group) {
        if (path == refusedPath_) {
            errno = EPERM;
            return -1;
        }
        changes.push_back(std::string(path) + " " + std::to_string(user) + ":" + std::to_string(group));
        return 0;
    }

    const std::string refusedPath_;
    passwd user_ = {};
    const Replaced<decltype(calls::getpwnam)> lookup_{calls::getpwnam,
                                                      [this](const char* name) { return FindUser(name); }};
    const Replaced<decltype(calls::lchown)> lchown_{calls::lchown,
                                                    [this](auto... given) { return ChangeOwner(given...); }};
};

// Some account of this machine whose user id and primary group id differ, and differ from root's.
const passwd* UserWithGroupOfOtherNumber() {
    const passwd* found = nullptr;
    setpwent();
    while (found == nullptr) {
        const passwd* const user = getpwent();
        if (user == nullptr) break;
        if (user->pw_uid != user->pw_gid && user->pw_uid != 0 && user->pw_gid != 0) found = user;
    }
    endpwent();
    return found;
}

LogLine HandOverLine(const std::string& format, const std::string& text) {
    return {"BaseAPI/VFileSys/src/VDir", "VChownDirAndFirstDepthFiles", 1, format, text};
}

LogLine UserLine(int error) {
    return HandOverLine("Can't get user name id, errno: %d",
                        "Can't get user name id, errno: " + std::to_string(error));
}

LogLine OwnerLine(int error) {
    return HandOverLine("Failed to lchown to user, error:%d",
                        "Failed to lchown to user, error:" + std::to_string(error));
}

LogLine OpenLine(const std::string& path) {
    return HandOverLine("Failed open dir,path=%s", "Failed open dir,path=" + path);
}

// Log lines that a test has not taken are a failure, so every other operation is proved to be quiet.
class VDirTest : public ResourceTest {
protected:
    ~VDirTest() override { EXPECT_THAT(LogRecorder::Lines(), IsEmpty()); }

    static std::vector<LogLine> TakeLogLines() {
        const std::vector<LogLine> lines = LogRecorder::Lines();
        LogRecorder::Clear();
        return lines;
    }

    // Hands over the directory `name` of the scratch directory to the recorded user "worker".
    std::vector<std::string> ChangesOfHandOver(const std::string& name) const {
        const RecordedHandOver recorded;
        EXPECT_EQ(VDir::VChownDirAndFirstDepthFiles(scratch_.Path(name).c_str(), "worker"), 0);
        return recorded.changes;
    }

    const ScratchDirectory scratch_;
};

// VMkDir

TEST_F(VDirTest, VMkDirMakesEveryMissingLevelWithTheGivenMode) {
    const Umask umask(0);

    EXPECT_EQ(MakeDirectory(scratch_.Path("a/b/c"), 0751), kDone);

    EXPECT_EQ(PermissionsOf(scratch_.Path("a")), 0751);
    EXPECT_EQ(PermissionsOf(scratch_.Path("a/b")), 0751);
    EXPECT_EQ(PermissionsOf(scratch_.Path("a/b/c")), 0751);
    EXPECT_THAT(scratch_.List("a/b/c"), IsEmpty());
}

TEST_F(VDirTest, VMkDirPassesTheModeUnchangedForEveryLevel) {
    std::vector<mode_t> modes;
    const Replaced recording(calls::mkdir, [&](const char* path, mode_t mode) {
        modes.push_back(mode);
        return calls::real::mkdir(path, 0700);  // others would keep an ordinary user out
    });
    const unsigned short given[] = {0, 01, 0600, 0777, 07077, 0xffff};
    for (const unsigned short mode : given) {
        modes.clear();

        EXPECT_EQ(MakeDirectory(scratch_.Path(std::to_string(mode) + "/b/c"), mode), kDone);

        EXPECT_THAT(modes, ElementsAre(mode, mode, mode));
    }
}

TEST_F(VDirTest, VMkDirLessensTheModeOfEveryLevelByTheUmask) {
    const Umask umask(027);

    EXPECT_EQ(MakeDirectory(scratch_.Path("a/b"), 0777), kDone);

    EXPECT_EQ(PermissionsOf(scratch_.Path("a")), 0750);
    EXPECT_EQ(PermissionsOf(scratch_.Path("a/b")), 0750);
}

TEST_F(VDirTest, VMkDirResolvesARelativePathAgainstTheWorkingDirectory) {
    scratch_.MakeDirectory("work");
    const WorkingDirectory work(scratch_.Path("work"));

    EXPECT_EQ(MakeDirectory("a/b/c"), kDone);
    EXPECT_EQ(MakeDirectory("../beside"), kDone);

    EXPECT_TRUE(scratch_.Has("work/a/b/c"));
    EXPECT_THAT(scratch_.List(), ElementsAre("beside", "work"));
}

TEST_F(VDirTest, VMkDirChangesNothingAboutAnExistingDirectory) {
    scratch_.Write("old/file", "kept");
    ASSERT_EQ(chmod(scratch_.Path("old").c_str(), 0700), 0);

    EXPECT_EQ(MakeDirectory(scratch_.Path("old"), 0755), kDone);

    EXPECT_EQ(PermissionsOf(scratch_.Path("old")), 0700);
    EXPECT_EQ(scratch_.Read("old/file"), "kept");
}

TEST_F(VDirTest, VMkDirLeavesExistingAncestorsAsTheyAre) {
    const Umask umask(0);
    scratch_.MakeDirectory("old");
    ASSERT_EQ(chmod(scratch_.Path("old").c_str(), 0700), 0);

    EXPECT_EQ(MakeDirectory(scratch_.Path("old/new"), 0755), kDone);

    EXPECT_EQ(PermissionsOf(scratch_.Path("old")), 0700);
    EXPECT_EQ(PermissionsOf(scratch_.Path("old/new")), 0755);
}

TEST_F(VDirTest, VMkDirOfTheRootIsDoneAfterOneLook) {
    for (const char* const path : {"/", "///", "/./../"}) {
        SCOPED_TRACE(path);
        const RecordedCalls recorded("");

        EXPECT_EQ(MakeDirectory(path), kDone);

        EXPECT_EQ(recorded.calls.size(), 1u);
    }
}

TEST_F(VDirTest, VMkDirOfWhatIsNoDirectoryGivesEEXISTAfterOneLook) {
    scratch_.Write("file", "kept");
    scratch_.Link("link", "file");
    ASSERT_EQ(mkfifo(scratch_.Path("fifo").c_str(), 0600), 0);

    for (const std::string name : {"file", "link", "fifo"}) {
        SCOPED_TRACE(name);
        const RecordedCalls recorded(scratch_.Path());

        EXPECT_EQ(MakeDirectory(scratch_.Path(name)), FailedWith(EEXIST));

        EXPECT_THAT(recorded.calls, ElementsAre("stat /" + name));
    }
    EXPECT_EQ(scratch_.Read("file"), "kept");
    EXPECT_THAT(scratch_.List(), ElementsAre("fifo", "file", "link"));
}

TEST_F(VDirTest, VMkDirOfNoValidPathGivesENOENTWithoutALookAtTheFileSystem) {
    const std::string longestAndOneByte = PathOfLength(scratch_.Path(), 4096);
    // Would fit once its slashes were collapsed; the limit holds for the argument.
    const std::string mostlySlashes = scratch_.Path("x") + std::string(4096, '/');
    const RecordedCalls recorded("");

    EXPECT_EQ(MakeDirectory(nullptr), FailedWith(ENOENT));
    EXPECT_EQ(MakeDirectory(""), FailedWith(ENOENT));
    EXPECT_EQ(MakeDirectory(longestAndOneByte), FailedWith(ENOENT));
    EXPECT_EQ(MakeDirectory(mostlySlashes), FailedWith(ENOENT));

    EXPECT_THAT(recorded.calls, IsEmpty());
}

TEST_F(VDirTest, VMkDirMakesADirectoryWhosePathHas4095Bytes) {
    const std::string path = PathOfLength(scratch_.Path(), 4095);

    EXPECT_EQ(MakeDirectory(path), kDone);

    EXPECT_TRUE(S_ISDIR(StatusOf(path).st_mode));
}

TEST_F(VDirTest, VMkDirCountsTheWorkingDirectoryInTheLengthOfARelativePath) {
    const std::string deep = PathOfLength(scratch_.Path(), 4090);
    ASSERT_EQ(MakeDirectory(deep), kDone);
    const WorkingDirectory work(deep);

    EXPECT_EQ(MakeDirectory("5555"), kDone);
    EXPECT_EQ(MakeDirectory("66666"), FailedWith(ENOENT));

    EXPECT_THAT(NamesInStreamOrder("."), ElementsAre("5555"));
}

TEST_F(VDirTest, VMkDirWithoutAReadableWorkingDirectoryGivesENOENT) {
    const WorkingDirectory work(scratch_.MakeDirectory("gone"));
    ASSERT_EQ(rmdir(scratch_.Path("gone").c_str()), 0);

    EXPECT_EQ(MakeDirectory("a"), FailedWith(ENOENT));
    EXPECT_EQ(MakeDirectory(scratch_.Path("b")), kDone);
}

TEST_F(VDirTest, VMkDirInAWorkingDirectoryOfOverlongPathGivesENOENT) {
    const DeepWorkingDirectory work(scratch_);

    EXPECT_EQ(MakeDirectory("a"), FailedWith(ENOENT));

    EXPECT_THAT(NamesInStreamOrder("."), IsEmpty());
}

TEST_F(VDirTest, VMkDirGivesENAMETOOLONGWhenTheCanonicalTextCannotBeCopied) {
    const WorkingDirectory work(scratch_.Path());
    std::vector<std::string> copied;
    std::size_t capacity = 0;
    // A relative path is put together by other means, so this is the only copy.
    const Replaced failing(calls::strcpy_s, [&](char*, std::size_t destMax, const char* src) {
        copied.push_back(src);
        capacity = destMax;
        return ERANGE;
    });
    const RecordedCalls recorded("");

    EXPECT_EQ(MakeDirectory("a/../b/"), FailedWith(ENAMETOOLONG));

    EXPECT_THAT(copied, ElementsAre(scratch_.Path("b")));
    EXPECT_EQ(capacity, 4096u);
    EXPECT_THAT(recorded.calls, IsEmpty());
}

TEST_F(VDirTest, VMkDirGivesENOENTWhenThePathValueCannotTakeTheText) {
    int copies = 0;
    const Replaced failing(calls::strcpy_s, [&](char* dest, std::size_t destMax, const char* src) {
        return ++copies == 1 ? ERANGE : calls::real::strcpy_s(dest, destMax, src);
    });

    EXPECT_EQ(MakeDirectory(scratch_.Path("a")), FailedWith(ENOENT));

    EXPECT_FALSE(scratch_.Has("a"));
}

TEST_F(VDirTest, VMkDirMakesParentsUpToANameThatIsTooLong) {
    const std::string name(256, 'n');

    EXPECT_EQ(MakeDirectory(scratch_.Path("a/" + name)), FailedWith(ENAMETOOLONG));
    EXPECT_EQ(MakeDirectory(scratch_.Path("b/" + name + "/c")), FailedWith(ENAMETOOLONG));
    EXPECT_EQ(MakeDirectory(scratch_.Path("a/" + name.substr(1))), kDone);

    EXPECT_THAT(scratch_.List("a"), ElementsAre(name.substr(1)));
    EXPECT_THAT(scratch_.List("b"), IsEmpty());
}

TEST_F(VDirTest, VMkDirTakesNamesOfAnyBytes) {
    const std::vector<std::string> names = {"\x01\x7f",   " blank ", "$(x)",    "-rf",
                                            "line\nfeed", "...",     "\xff\xfe"};

    for (const std::string& name : names) {
        SCOPED_TRACE(name);
        EXPECT_EQ(MakeDirectory(scratch_.Path("in/" + name + "/" + name)), kDone);
        EXPECT_THAT(scratch_.List("in/" + name), ElementsAre(name));
    }
    EXPECT_THAT(scratch_.List("in"), testing::UnorderedElementsAreArray(names));
}

TEST_F(VDirTest, VMkDirLooksAtTheWholeThenAtEachAncestorThenAtTheWholeAgain) {
    const Umask umask(0);
    scratch_.MakeDirectory("old");
    const WorkingDirectory work(scratch_.Path());
    const std::string above = scratch_.Path() + "/old";
    std::vector<std::string> ancestors;
    for (std::size_t slash = above.find('/', 1); slash != std::string::npos;
         slash = above.find('/', slash + 1)) {
        ancestors.push_back("stat " + above.substr(0, slash));
    }
    ancestors.push_back("stat " + above);
    const std::vector<std::string> made = {"stat " + above + "/a",     "mkdir " + above + "/a 7750",
                                           "stat " + above + "/a/b",   "mkdir " + above + "/a/b 7750",
                                           "stat " + above + "/a/b/c", "mkdir " + above + "/a/b/c 7750"};
    const std::vector<std::string> whole = {"stat " + above + "/a/b/c"};
    const RecordedCalls recorded("");

    EXPECT_EQ(MakeDirectory("old//x/../a/./b/c/", 07750), kDone);

    EXPECT_EQ(recorded.calls, Concatenate(Concatenate(whole, ancestors), made));
}

TEST_F(VDirTest, VMkDirOfAnExistingDirectoryLooksOnce) {
    const RecordedCalls recorded(scratch_.Path());

    EXPECT_EQ(MakeDirectory(scratch_.Path()), kDone);

    EXPECT_THAT(recorded.calls, ElementsAre("stat "));
}

TEST_F(VDirTest, VMkDirBelowAFileGivesENOTDIRAndKeepsTheFile) {
    scratch_.Write("dir/file", "kept");

    EXPECT_EQ(MakeDirectory(scratch_.Path("dir/file/a")), FailedWith(ENOTDIR));
    EXPECT_EQ(MakeDirectory(scratch_.Path("dir/file/a/b/c")), FailedWith(ENOTDIR));

    EXPECT_EQ(scratch_.Read("dir/file"), "kept");
    EXPECT_THAT(scratch_.List("dir"), ElementsAre("file"));
}

TEST_F(VDirTest, VMkDirStopsAtTheFirstParentThatCannotBeMadeAndLeavesTheOnesBefore) {
    std::vector<std::string> asked;
    const Replaced full(calls::mkdir, [&](const char* path, mode_t mode) {
        asked.push_back(path);
        if (path != scratch_.Path("a/b")) return calls::real::mkdir(path, mode);
        errno = ENOSPC;
        return -1;
    });

    EXPECT_EQ(MakeDirectory(scratch_.Path("a/b/c/d")), FailedWith(ENOSPC));

    EXPECT_THAT(asked, ElementsAre(scratch_.Path("a"), scratch_.Path("a/b")));
    EXPECT_THAT(scratch_.List("a"), IsEmpty());
}

TEST_F(VDirTest, VMkDirPassesOnTheErrnoOfTheLastLevel) {
    const Replaced full(calls::mkdir, [](const char*, mode_t) {
        errno = EDQUOT;
        return -1;
    });

    EXPECT_EQ(MakeDirectory(scratch_.Path("a")), FailedWith(EDQUOT));
}

TEST_F(VDirTest, VMkDirLosesToAnotherMakerOfTheSameLevelAndSucceedsWhenCalledAgain) {
    for (const std::string contested : {"/b", "/b/c"}) {
        SCOPED_TRACE(contested);
        const std::string top = scratch_.MakeDirectory("top" + std::to_string(contested.size()));
        {
            const Replaced racing(calls::mkdir, [&](const char* path, mode_t mode) {
                if (path == top + contested) (void)calls::real::mkdir(path, 0700);
                return calls::real::mkdir(path, mode);
            });
            EXPECT_EQ(MakeDirectory(top + "/b/c"), FailedWith(EEXIST));
        }

        EXPECT_EQ(MakeDirectory(top + "/b/c"), kDone);
        EXPECT_EQ(PermissionsOf(top + contested), 0700);
    }
}

TEST_F(VDirTest, VMkDirFromManyThreadsEndsWithTheTreeWhenEEXISTIsTriedAgain) {
    const auto makeUntilThere = [](const std::string& path) {
        // Each EEXIST means that one more of the eight levels is there.
        for (int attempt = 0; attempt <= 8; ++attempt) {
            const Outcome outcome = MakeDirectory(path);
            if (outcome == kDone) return;
            EXPECT_EQ(outcome, FailedWith(EEXIST));
        }
        ADD_FAILURE() << "still not there";
    };

    for (long round = 0; round < 100 * TestScale(); ++round) {
        const std::string name = std::to_string(round) + "/2/3/4/5/6/7/8";
        std::vector<std::thread> makers;
        for (int count = 0; count < 4; ++count) makers.emplace_back(makeUntilThere, scratch_.Path(name));
        for (std::thread& maker : makers) maker.join();

        EXPECT_TRUE(scratch_.Has(name));
    }
}

TEST_F(VDirTest, VMkDirOfATrailingParentMakesTheLevelsBeforeItAndIsDone) {
    EXPECT_EQ(MakeDirectory(scratch_.Path("x/y/..")), kDone);

    EXPECT_THAT(scratch_.List("x"), ElementsAre("y"));
    EXPECT_THAT(scratch_.List("x/y"), IsEmpty());
}

TEST_F(VDirTest, VMkDirOfATrailingDotMakesTheLevelsBeforeItAndIsDone) {
    EXPECT_EQ(MakeDirectory(scratch_.Path("x/y/.")), kDone);

    EXPECT_THAT(scratch_.List("x"), ElementsAre("y"));
}

TEST_F(VDirTest, VMkDirTakesWhateverAppearedAtThePathMeanwhileForTheDirectory) {
    const std::string path = scratch_.Path("a/b");
    const auto appearBehindTheParents = [&](const char* parent, mode_t mode) {
        const int result = calls::real::mkdir(parent, mode);
        EXPECT_EQ(close(creat(path.c_str(), 0600)), 0);
        return result;
    };
    const Replaced racing(calls::mkdir, appearBehindTheParents);

    EXPECT_EQ(MakeDirectory(path), kDone);

    EXPECT_TRUE(S_ISREG(StatusOf(path).st_mode));
}

TEST_F(VDirTest, VMkDirFollowsLinksToDirectories) {
    scratch_.MakeDirectory("target");
    scratch_.Link("link", "target");

    EXPECT_EQ(MakeDirectory(scratch_.Path("link")), kDone);
    EXPECT_EQ(MakeDirectory(scratch_.Path("link/new")), kDone);

    EXPECT_THAT(scratch_.List("target"), ElementsAre("new"));
    EXPECT_TRUE(S_ISLNK(StatusOf(scratch_.Path("link")).st_mode));
}

TEST_F(VDirTest, VMkDirDropsALinkBeforeAParentComponentAsText) {
    scratch_.MakeDirectory("else/where");
    scratch_.Link("link", "else/where");

    EXPECT_EQ(MakeDirectory(scratch_.Path("link/../new")), kDone);

    EXPECT_THAT(scratch_.List(), ElementsAre("else", "link", "new"));
    EXPECT_THAT(scratch_.List("else"), ElementsAre("where"));
}

TEST_F(VDirTest, VMkDirAtOrBelowALinkThatLeadsNowhereGivesEEXIST) {
    scratch_.Link("dangling", "missing");
    scratch_.Link("loop", "loop");

    for (const std::string name : {"dangling", "loop"}) {
        SCOPED_TRACE(name);
        EXPECT_EQ(MakeDirectory(scratch_.Path(name)), FailedWith(EEXIST));
        EXPECT_EQ(MakeDirectory(scratch_.Path(name + "/a")), FailedWith(EEXIST));
    }
    EXPECT_THAT(scratch_.List(), ElementsAre("dangling", "loop"));
}

TEST_F(VDirTest, VMkDirCannotGoOnBelowAParentItMadeWithoutOwnerRights) {
    const OrdinaryUser ordinaryUser(scratch_.Path());

    EXPECT_EQ(MakeDirectory(scratch_.Path("a/b"), 0500), FailedWith(EACCES));

    EXPECT_THAT(scratch_.List(), ElementsAre("a"));
    EXPECT_EQ(PermissionsOf(scratch_.Path("a")), 0500);
}

TEST_F(VDirTest, VMkDirLeavesNothingOpenOrAllocated) {
    scratch_.Write("file", "");
    const std::string made = scratch_.Path("made/it");
    const std::string belowFile = scratch_.Path("file/a/b");
    const std::string tooLong = PathOfLength(scratch_.Path(), 4096);

    ExpectNoLeak([&] {
        VDir::VMkDir(made.c_str(), 0750);
        VDir::VMkDir(belowFile.c_str(), 0750);
        VDir::VMkDir(tooLong.c_str(), 0750);
        VDir::VMkDir("", 0750);
        VDir::VMkDir(nullptr, 0750);
    });
}

// VRmDir

TEST_F(VDirTest, VRmDirRemovesAnEmptyDirectory) {
    scratch_.MakeDirectory("a/b");

    EXPECT_EQ(RemoveDirectory(scratch_.Path("a/b/")), kDone);

    EXPECT_THAT(scratch_.List("a"), IsEmpty());
}

TEST_F(VDirTest, VRmDirReportsWhatRmdirReports) {
    scratch_.Write("full/file", "kept");
    scratch_.MakeDirectory("empty");
    scratch_.Link("link", "empty");
    const struct {
        const char* name;
        int error;
    } rows[] = {{"full", ENOTEMPTY}, {"full/file", ENOTDIR},  {"missing", ENOENT},     {"link", ENOTDIR},
                {"empty/.", EINVAL}, {"empty/..", ENOTEMPTY}, {"full/file/x", ENOTDIR}};

    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(RemoveDirectory(scratch_.Path(row.name)), FailedWith(row.error));
    }
    EXPECT_EQ(RemoveDirectory(""), FailedWith(ENOENT));
    EXPECT_EQ(RemoveDirectory(PathOfLength("", 4096)), FailedWith(ENAMETOOLONG));
    EXPECT_EQ(scratch_.Read("full/file"), "kept");
    EXPECT_THAT(scratch_.List(), ElementsAre("empty", "full", "link"));
}

TEST_F(VDirTest, VRmDirOfNullGivesENOENT) {
    EXPECT_EQ(Observe([] { return VDir::VRmDir(nullptr); }), FailedWith(ENOENT));
}

TEST_F(VDirTest, VRmDirHandsThePathOnAsGiven) {
    std::vector<std::string> removed;
    const Replaced recording(calls::rmdir, [&](const char* path) {
        removed.push_back(path);
        return 17;
    });

    EXPECT_EQ(VDir::VRmDir("a//./b/../"), 17);

    EXPECT_THAT(removed, ElementsAre("a//./b/../"));
}

TEST_F(VDirTest, VRmDirTakesARelativePathFromTheWorkingDirectory) {
    scratch_.MakeDirectory("a/b");
    const WorkingDirectory work(scratch_.Path("a"));

    EXPECT_EQ(RemoveDirectory("b"), kDone);

    EXPECT_THAT(scratch_.List("a"), IsEmpty());
}

// VChownDirAndFirstDepthFiles

TEST_F(VDirTest, VChownGivesTheDirectoryItsFilesAndLinksToFilesAway) {
    scratch_.Write("outside", "");
    scratch_.Write("dir/file", "");
    scratch_.Write("dir/sub/inner", "");
    scratch_.Link("dir/link", "../outside");
    scratch_.Link("dir/dangling", "missing");
    scratch_.Link("dir/linkToSub", "sub");
    ASSERT_EQ(mkfifo(scratch_.Path("dir/fifo").c_str(), 0600), 0);

    EXPECT_THAT(ChangesOfHandOver("dir"), UnorderedElementsAre(scratch_.Path("dir") + " 1234:5678",
                                                               scratch_.Path("dir/file") + " 1234:5678",
                                                               scratch_.Path("dir/link") + " 1234:5678",
                                                               scratch_.Path("dir/fifo") + " 1234:5678"));
}

TEST_F(VDirTest, VChownGoesFromTheDirectoryThroughItsEntriesInStreamOrder) {
    std::vector<std::string> expected = {scratch_.MakeDirectory("dir") + " 1234:5678"};
    for (int count = 0; count < 20; ++count) scratch_.Write("dir/" + std::to_string(count * 7919), "");
    for (const std::string& name : NamesInStreamOrder(scratch_.Path("dir"))) {
        expected.push_back(scratch_.Path("dir/" + name) + " 1234:5678");
    }

    EXPECT_EQ(ChangesOfHandOver("dir"), expected);
}

TEST_F(VDirTest, VChownPutsASlashBehindADirectoryThatEndsInOne) {
    scratch_.Write("dir/file", "");

    EXPECT_THAT(ChangesOfHandOver("dir/"),
                ElementsAre(scratch_.Path("dir/") + " 1234:5678", scratch_.Path("dir//file") + " 1234:5678"));
}

TEST_F(VDirTest, VChownTakesARelativeDirectoryAsGiven) {
    scratch_.Write("dir/file", "");
    const WorkingDirectory work(scratch_.Path());
    const RecordedHandOver recorded;

    EXPECT_EQ(VDir::VChownDirAndFirstDepthFiles("./dir", "worker"), 0);

    EXPECT_THAT(recorded.changes, ElementsAre("./dir 1234:5678", "./dir/file 1234:5678"));
}

TEST_F(VDirTest, VChownTakesNamesOfAnyBytes) {
    const std::vector<std::string> names = {"%s%n",       "-R",       "..hidden",
                                            "line\nfeed", "\xff\xfe", std::string(255, 'n')};
    std::vector<std::string> expected = {scratch_.MakeDirectory("dir") + " 1234:5678"};
    for (const std::string& name : names) {
        expected.push_back(scratch_.Write("dir/" + name, "") + " 1234:5678");
    }

    EXPECT_THAT(ChangesOfHandOver("dir"), testing::UnorderedElementsAreArray(expected));
}

TEST_F(VDirTest, VChownDoesNotLookAtTheDirectoryItselfOrItsParentAsEntries) {
    scratch_.Write("dir/file", "");
    scratch_.MakeDirectory("dir/sub");
    const RecordedCalls recorded(scratch_.Path());

    (void)ChangesOfHandOver("dir");

    EXPECT_THAT(recorded.calls, UnorderedElementsAre("stat /dir/file", "stat /dir/sub"));
}

TEST_F(VDirTest, VChownPassesOverAnEntryThatVanishedSinceItWasListed) {
    scratch_.Write("dir/gone", "");
    scratch_.Write("dir/stays", "");
    const Replaced vanishing(calls::stat, [&](const char* path, struct stat* status) {
        if (path == scratch_.Path("dir/gone")) unlink(path);
        return calls::real::stat(path, status);
    });

    EXPECT_THAT(ChangesOfHandOver("dir"), UnorderedElementsAre(scratch_.Path("dir") + " 1234:5678",
                                                               scratch_.Path("dir/stays") + " 1234:5678"));
}

TEST_F(VDirTest, VChownByRootChangesUserAndPrimaryGroupOfTheEntriesThemselves) {
    SKIP_UNLESS_ROOT();
    const passwd* const user = UserWithGroupOfOtherNumber();
    if (user == nullptr) GTEST_SKIP() << "no account whose user and group id differ";
    const std::string name = user->pw_name;
    const std::string owner = std::to_string(user->pw_uid) + ":" + std::to_string(user->pw_gid);
    scratch_.Write("outside", "");
    scratch_.Write("dir/file", "");
    scratch_.Write("dir/sub/inner", "");
    scratch_.Link("dir/link", "../outside");
    scratch_.Link("dir/dangling", "missing");
    scratch_.Link("dir/linkToSub", "sub");

    EXPECT_EQ(VDir::VChownDirAndFirstDepthFiles(scratch_.Path("dir").c_str(), name.c_str()), 0);

    for (const std::string changed : {"dir", "dir/file", "dir/link"}) {
        EXPECT_EQ(OwnerOf(scratch_.Path(changed)), owner) << changed;
    }
    const std::string own = std::to_string(geteuid()) + ":" + std::to_string(getegid());
    for (const std::string kept : {"dir/sub", "dir/sub/inner", "dir/dangling", "dir/linkToSub", "outside"}) {
        EXPECT_EQ(OwnerOf(scratch_.Path(kept)), own) << kept;
    }
}

TEST_F(VDirTest, VChownToOneselfIsAllowed) {
    const passwd* const self = getpwuid(geteuid());
    if (self == nullptr || self->pw_gid != getegid()) GTEST_SKIP() << "no account for this user and group";
    scratch_.Write("dir/file", "");
    scratch_.Link("dir/link", "file");

    EXPECT_EQ(VDir::VChownDirAndFirstDepthFiles(scratch_.Path("dir").c_str(), self->pw_name), 0);
}

TEST_F(VDirTest, VChownByAnOrdinaryUserToRootIsRefused) {
    scratch_.Write("dir/file", "");
    const OrdinaryUser ordinaryUser(scratch_.Path());

    EXPECT_EQ(VDir::VChownDirAndFirstDepthFiles(scratch_.Path("dir").c_str(), "root"), -10000);

    EXPECT_THAT(TakeLogLines(), ElementsAre(OwnerLine(EPERM)));
}

TEST_F(VDirTest, VChownLogsTheErrnoOfTheLookupForAnUnknownUser) {
    const char* const nobodysName = "no such user, surely";
    errno = 0;
    ASSERT_EQ(getpwnam(nobodysName), nullptr);
    const int lookupError = errno;

    errno = 0;
    EXPECT_EQ(VDir::VChownDirAndFirstDepthFiles(scratch_.Path().c_str(), nobodysName), -10000);

    EXPECT_THAT(TakeLogLines(), ElementsAre(UserLine(lookupError)));
}

TEST_F(VDirTest, VChownChangesNothingWithoutAUser) {
    std::vector<std::string> changed;
    const Replaced recording(calls::lchown, [&](const char* path, uid_t, gid_t) {
        changed.push_back(path);
        return 0;
    });
    const Replaced failing(calls::getpwnam, [](const char*) -> passwd* {
        errno = EMFILE;
        return nullptr;
    });

    EXPECT_EQ(VDir::VChownDirAndFirstDepthFiles(scratch_.Path().c_str(), "root"), -10000);

    EXPECT_THAT(TakeLogLines(), ElementsAre(UserLine(EMFILE)));
    EXPECT_THAT(changed, IsEmpty());
}

TEST_F(VDirTest, VChownLogsWhateverErrnoTheLookupLeaves) {
    const Replaced findingNobody(calls::getpwnam, [](const char*) -> passwd* { return nullptr; });
    for (const int before : {ENOTTY, 0}) {
        errno = before;

        EXPECT_EQ(VDir::VChownDirAndFirstDepthFiles(scratch_.Path().c_str(), "worker"), -10000);

        EXPECT_THAT(TakeLogLines(), ElementsAre(UserLine(before)));
    }
}

TEST_F(VDirTest, VChownTakesANullUserForAnUnknownOneWithoutALookup) {
    const Replaced refusing(calls::getpwnam, [](const char*) -> passwd* {
        ADD_FAILURE() << "looked up";
        return nullptr;
    });

    EXPECT_EQ(VDir::VChownDirAndFirstDepthFiles(scratch_.Path().c_str(), nullptr), -10000);

    EXPECT_THAT(TakeLogLines(), ElementsAre(UserLine(ENOENT)));
}

TEST_F(VDirTest, VChownOfAMissingDirectoryLogsTheErrnoOfTheOwnerChange) {
    const std::string missing = scratch_.Path("missing");
    for (const char* const path : {missing.c_str(), "", static_cast<const char*>(nullptr)}) {
        EXPECT_EQ(VDir::VChownDirAndFirstDepthFiles(path, "root"), -10000);

        EXPECT_THAT(TakeLogLines(), ElementsAre(OwnerLine(ENOENT)));
    }
}

TEST_F(VDirTest, VChownStopsWhenTheDirectoryItselfIsRefused) {
    scratch_.Write("dir/file", "");
    const RecordedHandOver recorded(scratch_.Path("dir"));

    EXPECT_EQ(VDir::VChownDirAndFirstDepthFiles(scratch_.Path("dir").c_str(), "worker"), -10000);

    EXPECT_THAT(TakeLogLines(), ElementsAre(OwnerLine(EPERM)));
    EXPECT_THAT(recorded.changes, IsEmpty());
}

TEST_F(VDirTest, VChownOfAFileChangesItAndThenFailsToOpenIt) {
    const std::string file = scratch_.Write("fi%le", "");
    const RecordedHandOver recorded;

    EXPECT_EQ(VDir::VChownDirAndFirstDepthFiles(file.c_str(), "worker"), -10000);

    EXPECT_THAT(TakeLogLines(), ElementsAre(OpenLine(file)));
    EXPECT_THAT(recorded.changes, ElementsAre(file + " 1234:5678"));
}

TEST_F(VDirTest, VChownStopsAtTheFirstRefusedEntryAndClosesTheDirectory) {
    for (const std::string name : {"1", "2", "3", "4"}) scratch_.Write("dir/" + name, "");
    const std::vector<std::string> names = NamesInStreamOrder(scratch_.Path("dir"));
    ASSERT_EQ(names.size(), 4u);
    const RecordedHandOver recorded(scratch_.Path("dir/" + names[2]));
    int closed = 0;
    const Replaced counting(calls::closedir, [&](DIR* dir) {
        ++closed;
        return calls::real::closedir(dir);
    });

    EXPECT_EQ(VDir::VChownDirAndFirstDepthFiles(scratch_.Path("dir").c_str(), "worker"), -10000);

    EXPECT_THAT(TakeLogLines(), ElementsAre(OwnerLine(EPERM)));
    EXPECT_THAT(recorded.changes, ElementsAre(scratch_.Path("dir") + " 1234:5678",
                                              scratch_.Path("dir/" + names[0]) + " 1234:5678",
                                              scratch_.Path("dir/" + names[1]) + " 1234:5678"));
    EXPECT_EQ(closed, 1);
}

TEST_F(VDirTest, VChownLeavesNothingOpenOrAllocated) {
    scratch_.Write("dir/refused", "");
    const std::string dir = scratch_.Path("dir");
    const std::string refused = scratch_.Path("dir/refused");
    const RecordedHandOver recorded(refused);
    const Replaced refusing(calls::lchown,
                            [&](const char* path, uid_t, gid_t) { return path == dir ? 0 : -1; });

    ExpectNoLeak([&] {
        VDir::VChownDirAndFirstDepthFiles(dir.c_str(), "worker");
        VDir::VChownDirAndFirstDepthFiles(refused.c_str(), "worker");
        VDir::VChownDirAndFirstDepthFiles(nullptr, "worker");
        VDir::VChownDirAndFirstDepthFiles(dir.c_str(), nullptr);
    });
}

// VRealPath

TEST_F(VDirTest, VRealPathTellsWhatCanBeCanonicalisedOrIsMerelyMissing) {
    scratch_.Write("dir/file", "");
    scratch_.Link("link", "dir/file");
    scratch_.Link("dangling", "missing");
    scratch_.Link("loop", "loop");
    const struct {
        std::string path;
        Outcome expected;
    } rows[] = {
        {"/", kDone},
        {"dir", kDone},
        {"./dir//../dir/file", kDone},
        {"link", kDone},
        {"missing", kDone},
        {"missing/below", kDone},
        {"dangling", kDone},
        {"dangling/below", kDone},
        {"", kDone},
        {"dir/file/below", FailedWith(ENOTDIR)},
        {"dir/file/", FailedWith(ENOTDIR)},
        {"link/below", FailedWith(ENOTDIR)},
        {"loop", FailedWith(ELOOP)},
        {"loop/below", FailedWith(ELOOP)},
        {std::string(256, 'n'), FailedWith(ENAMETOOLONG)},
    };
    const WorkingDirectory work(scratch_.Path());

    for (const auto& row : rows) {
        SCOPED_TRACE(row.path);
        EXPECT_EQ(CheckRealPath(row.path.c_str(), 1), row.expected);
        // The form with an output agrees, and leaves that alone where it fails.
        std::string output = "old";
        EXPECT_EQ(GetRealPath(row.path, output), row.expected);
        EXPECT_EQ(output == "old", row.expected.result != 0);
    }
}

TEST_F(VDirTest, VRealPathOfNullGivesEINVAL) {
    EXPECT_EQ(CheckRealPath(nullptr, 0), FailedWith(EINVAL));
}

TEST_F(VDirTest, VRealPathRefusesALengthAbove4096WithoutALook) {
    for (const int length : {4097, 4098, INT_MAX}) {
        SCOPED_TRACE(length);
        const Replaced refusing(calls::realpath, [](const char*, char*) -> char* {
            ADD_FAILURE() << "looked";
            return nullptr;
        });
        EXPECT_FALSE(kIsRealPath("/", length));
        EXPECT_FALSE(kIsRealPath("/missing", length));
    }
}

TEST_F(VDirTest, VRealPathTakesAnyLengthUpTo4096ZeroAndNegativeOnesIncluded) {
    for (const int length : {4096, 4095, 1, 0, -1, INT_MIN}) {
        SCOPED_TRACE(length);
        EXPECT_TRUE(kIsRealPath("/", length));
        EXPECT_TRUE(kIsRealPath(scratch_.Path("missing").c_str(), length));
        EXPECT_EQ(CheckRealPath("/dev/null/below", length), FailedWith(ENOTDIR));
    }
}

TEST_F(VDirTest, VRealPathHandsOnABufferOf4097ZeroedBytes) {
    std::vector<std::string> steps;
    const void* zeroed = nullptr;
    const Replaced zeroing(calls::memset_s,
                           [&](void* dest, std::size_t destMax, int value, std::size_t count) {
                               steps.push_back("memset_s " + std::to_string(destMax) + " " +
                                               std::to_string(value) + " " + std::to_string(count));
                               zeroed = dest;
                               return calls::real::memset_s(dest, destMax, value, count);
                           });
    const Replaced resolving(calls::realpath, [&](const char* path, char* resolved) {
        steps.push_back(std::string("realpath ") + path);
        EXPECT_EQ(resolved, zeroed);
        EXPECT_EQ(std::count(resolved, resolved + 4097, '\0'), 4097);
        return calls::real::realpath(path, resolved);
    });
    std::string output;

    EXPECT_TRUE(kIsRealPath("/./", 0));
    EXPECT_TRUE(kRealPath("/../", output));

    EXPECT_THAT(steps,
                ElementsAre("memset_s 4097 0 4097", "realpath /./", "memset_s 4097 0 4097", "realpath /../"));
}

TEST_F(VDirTest, VRealPathGivesTheCanonicalTextWithAllLinksFollowed) {
    scratch_.Write("dir/file", "");
    scratch_.Link("link", "dir");
    const WorkingDirectory work(scratch_.Path());

    for (const std::string input : {"dir/file", "./link/../link//file", "link/file"}) {
        SCOPED_TRACE(input);
        std::string output = "something longer than nothing";
        EXPECT_TRUE(kRealPath(input, output));
        EXPECT_EQ(output, scratch_.Path("dir/file"));
    }
}

TEST_F(VDirTest, VRealPathGivesAMissingPathBackAsItStands) {
    scratch_.Link("dangling", "missing");
    const WorkingDirectory work(scratch_.Path());

    for (const std::string input : {"missing", "./missing/../x//", "dangling", "/missing/", ""}) {
        SCOPED_TRACE(input);
        std::string output = "old";
        EXPECT_TRUE(kRealPath(input, output));
        EXPECT_EQ(output, input);
    }
}

TEST_F(VDirTest, VRealPathMayPutTheOutputInThePlaceOfTheInput) {
    const WorkingDirectory work(scratch_.MakeDirectory("dir"));
    std::string existing = "../dir/.";
    std::string missing = "../missing";

    EXPECT_TRUE(kRealPath(existing, existing));
    EXPECT_TRUE(kRealPath(missing, missing));

    EXPECT_EQ(existing, scratch_.Path("dir"));
    EXPECT_EQ(missing, "../missing");
}

TEST_F(VDirTest, VRealPathLooksAtTheInputUpToItsFirstNul) {
    using namespace std::string_literals;
    std::string output;

    EXPECT_TRUE(kRealPath("/\0/dev/null/below"s, output));
    EXPECT_EQ(output, "/");
    EXPECT_TRUE(kRealPath("missing\0tail"s, output));
    EXPECT_EQ(output, "missing\0tail"s);
}

TEST_F(VDirTest, VRealPathGivesACanonicalTextOf4095Bytes) {
    const std::string path = PathOfLength(scratch_.Path(), 4095);
    std::filesystem::create_directories(path);
    std::string output;

    EXPECT_TRUE(kIsRealPath(path.c_str(), 0));
    EXPECT_TRUE(kRealPath(path, output));

    EXPECT_EQ(output, path);
}

TEST_F(VDirTest, VRealPathFailsWhenTheCanonicalTextIsTooLong) {
    const DeepWorkingDirectory work(scratch_);
    std::string output = "old";

    EXPECT_EQ(CheckRealPath(".", 0), FailedWith(ENAMETOOLONG));
    EXPECT_EQ(GetRealPath(".", output), FailedWith(ENAMETOOLONG));

    EXPECT_EQ(output, "old");
}

TEST_F(VDirTest, VRealPathThroughAClosedDirectoryGivesEACCES) {
    const std::string closed = scratch_.MakeDirectory("closed");
    ASSERT_EQ(chmod(closed.c_str(), 0), 0);
    std::string output = "old";
    {
        const OrdinaryUser ordinaryUser(scratch_.Path());
        EXPECT_EQ(CheckRealPath((closed + "/x").c_str(), 0), FailedWith(EACCES));
        EXPECT_EQ(GetRealPath(closed + "/x", output), FailedWith(EACCES));
    }

    EXPECT_EQ(output, "old");
    ASSERT_EQ(chmod(closed.c_str(), 0700), 0);
}

TEST_F(VDirTest, VRealPathLeavesNothingOpenOrAllocated) {
    std::string output;
    output.reserve(4096);
    const std::string missing = scratch_.Path("missing");
    const std::string belowFile = "/dev/null/below";

    ExpectNoLeak([&] {
        for (const std::string* const path : {&scratch_.Path(), &missing, &belowFile}) {
            (void)kIsRealPath(path->c_str(), 0);
            (void)kRealPath(*path, output);
        }
    });
}

}  // namespace
