#include "Transaction.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <new>
#include <string>
#include <vector>

#include "Release.h"
#include "StateDirectory.h"

namespace {

namespace fs = std::filesystem;

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

const char kBack[] = "The old files are back.";
const char kBackButNamed[] = "The old files are back, but for those named above. Nothing is open any more.";

class TransactionTest : public testing::Test {
protected:
    Ending Upgrade() const { return release_.Run(&::Upgrade); }
    Ending Commit() const { return release_.Run(&::Commit); }
    Ending Resume() const { return release_.Run(&::Resume); }
    Ending Status() const { return release_.Run(&::ShowStatus); }
    Ending Rollback() const { return release_.Rollback(); }

    void ExpectOld() const {
        EXPECT_EQ(release_.Now(), release_.Old());
        EXPECT_EQ(Status().state(), "none");
    }
    // Nothing was changed, for this reason.
    void ExpectRefused(const Ending& ending, int status, const std::string& error) const {
        EXPECT_EQ(ending.status, status);
        EXPECT_EQ(ending.error(), error);
        EXPECT_EQ(ending.message(), "Nothing was changed.");
    }
    // The upgrade failed for this reason, and the old files are back.
    void ExpectTakenBack(const Ending& ending, const std::string& error) const {
        EXPECT_EQ(ending.status, 1);
        EXPECT_EQ(ending.error(), error);
        EXPECT_EQ(ending.message(), kBack);
        EXPECT_THAT(ending.remarks(), IsEmpty());
        ExpectOld();
    }

    std::string Bin(const std::string& name) const { return release_.Path("bin/" + name); }
    void Write(const std::string& path, const std::string& content) const {
        std::ofstream(path, std::ios::binary) << content;
    }

    // Does something when the name of the state has been moved to the disk for the Nth time: "renaming" is
    // the first, "copying" the second, and "installed" the third one.
    auto AfterState(int number, std::function<void()> act) const {
        return [state = release_.StatePath("state"), act, left = number](const char* from,
                                                                         const char* to) mutable {
            const int result = calls::real::rename(from, to);
            if (to == state && --left == 0) act();
            return result;
        };
    }
    // Fails the writing of the state from the Nth time on.
    auto WithoutState(int number) const {
        return
            [state = release_.StatePath("state"), left = number](const char* from, const char* to) mutable {
                if (to != state || --left > 0) return calls::real::rename(from, to);
                errno = ENOSPC;
                return -1;
            };
    }
    // Does something in the pass that opens the file `path` with fopen.
    template <typename Act>
    auto WhenOpened(const std::string& path, Act act) const {
        return [path, act](const char* opened, const char* mode) {
            if (path == opened) act();
            return calls::real::fopen(opened, mode);
        };
    }

    Release release_;
};

TEST_F(TransactionTest, InstallsTheNewFilesWithTheModesOfTheOldOnes) {
    const Ending ending = Upgrade();

    EXPECT_EQ(ending.status, 0);
    EXPECT_EQ(ending.message(),
              "The new files are in place. The old ones are kept as NAME.bak until you decide.");
    EXPECT_EQ(ending.state(), "installed");
    EXPECT_THAT(ending.report["next"], ElementsAre("commit", "rollback"));

    Tree expected = release_.Old();
    const std::string owner = " " + std::to_string(geteuid()) + ":" + std::to_string(getegid());
    const auto replace = [&expected](const std::string& name, const std::string& from,
                                     const std::string& to) {
        std::string& text = expected.at("installed/bin/" + name);
        ASSERT_NE(text.find(from), std::string::npos) << text;
        text.replace(text.find(from), from.size(), to);
    };
    replace("tool", "the old tool", "the new tool");
    replace("conf", "old", "new configuration");
    expected["installed/bin/empty"] = "0644" + owner + " no longer";
    expected["installed/bin/link"] = "0640" + owner + " new data";
    expected["installed/new"] = "directory 0750" + owner;
    expected["installed/new/sub"] = "directory 0750" + owner;
    expected["installed/new/sub/fresh"] = "0755" + owner + " fresh";
    EXPECT_EQ(release_.Now(), Release::WithBackups(release_.Old(), expected));

    EXPECT_EQ(Commit().message(), "The new files are in place, and the backups are removed.");
    EXPECT_EQ(release_.Now(), expected);
    EXPECT_EQ(Status().state(), "none");
}

TEST_F(TransactionTest, SaysItsStepsToPeople) {
    const std::string text =
        WrittenBy([this](Output& out) { return ::Upgrade(release_.Options(), out); }, false, nullptr);

    EXPECT_THAT(text, testing::StartsWith(
                          "  the installed files are renamed to NAME.bak\n"
                          "  the new files are copied\n"
                          "  they have their modes, owners and attributes, are verified and on the disk\n"
                          "The new files are in place. The old ones are kept as NAME.bak until you decide.\n"
                          "State:  installed, begun "));
}

TEST_F(TransactionTest, RollsBackToTheVeryFilesOfBefore) {
    const ino_t inode = StatusOf(Bin("tool")).st_ino;
    EXPECT_EQ(Upgrade().status, 0);
    const Ending ending = Rollback();

    EXPECT_EQ(ending.status, 0);
    EXPECT_EQ(ending.message(), kBack);
    EXPECT_EQ(StatusOf(Bin("tool")).st_ino, inode);
    ExpectOld();
}

TEST_F(TransactionTest, RemovesTheDirectoriesThatItMadeThoughOneIsInAnotherByWayOfALink) {
    (void)release_.package().Bring("one", "1");
    (void)release_.package().Bring("two", "2");
    (void)release_.package().scratch().Link("installed/link", "x");
    release_.package().WriteList("[Server]\nA=@/x\nB=@/link/d\n[A]\nf=one\n[B]\nf=two\n");
    const Tree old = release_.Now();
    ASSERT_EQ(Upgrade().status, 0);
    EXPECT_EQ(ReadWholeFile(release_.Path("x/d/two")), "2");

    const Ending ending = Rollback();

    EXPECT_EQ(ending.status, 0);
    EXPECT_THAT(ending.remarks(), IsEmpty());
    EXPECT_EQ(release_.Now(), old);
}

TEST_F(TransactionTest, RemovesTheDirectoryThatItMadeOnlyToComeBackFromItAndNotTheOneThatWasThere) {
    (void)release_.package().scratch().MakeDirectory("installed/empty");
    (void)release_.package().Bring("one", "1");
    release_.package().WriteList("[Server]\nA=@/empty/x/..\n[A]\nf=one\n");
    const Tree old = release_.Now();
    ASSERT_EQ(Upgrade().status, 0);
    EXPECT_EQ(ReadWholeFile(release_.Path("empty/one")), "1");

    const Ending ending = Rollback();

    EXPECT_EQ(ending.status, 0);
    EXPECT_THAT(ending.remarks(), IsEmpty());
    EXPECT_EQ(release_.Now(), old);
}

TEST_F(TransactionTest, CanBeRepeatedAfterARollback) {
    EXPECT_EQ(Upgrade().status, 0);
    EXPECT_EQ(Rollback().status, 0);
    EXPECT_EQ(Upgrade().status, 0);
    EXPECT_EQ(Commit().status, 0);
    EXPECT_EQ(Upgrade().status, 0);
    EXPECT_EQ(ReadWholeFile(Bin("tool.bak")), "the new tool");
}

TEST_F(TransactionTest, KeepsWhatAServiceHasWrittenAfterTheUpgrade) {
    EXPECT_EQ(Upgrade().status, 0);
    Write(Bin("conf"), "rewritten");
    const Ending ending = Rollback();

    EXPECT_EQ(ending.status, 0);
    EXPECT_THAT(ending.remarks(),
                ElementsAre("conf: not the package's file any more; it is kept as " + Bin("conf.changed")));
    EXPECT_EQ(ReadWholeFile(Bin("conf.changed")), "rewritten");
    fs::remove(Bin("conf.changed"));
    ExpectOld();
}

TEST_F(TransactionTest, TellsWhatIsOpen) {
    Ending status = Status();
    EXPECT_EQ(status.status, 0);
    EXPECT_EQ(status.message(), "No upgrade is open.");
    EXPECT_EQ(Resume().message(), "No upgrade is open.");
    EXPECT_EQ(Upgrade().status, 0);

    status = Status();
    EXPECT_EQ(status.status, 1);
    EXPECT_EQ(status.message(), "An upgrade is open.");
    EXPECT_EQ(status.state(), "installed");
    EXPECT_EQ(status.report["isAtWork"], false);
    EXPECT_EQ(status.report["fileList"], release_.package().ListPath());
    EXPECT_EQ(status.report["installType"], "Server");
    EXPECT_EQ(status.report["targets"], 6);

    StateDirectory other(release_.StatePath());
    ASSERT_EQ(other.Enter(), std::nullopt);
    EXPECT_EQ(Status().report["isAtWork"], true);
}

TEST_F(TransactionTest, LetsNoSecondProcessIn) {
    const std::string error = release_.StatePath() + ": another vfilelist is at work";
    EXPECT_EQ(Upgrade().status, 0);
    const Tree installed = release_.Now();
    StateDirectory other(release_.StatePath());
    ASSERT_EQ(other.Enter(), std::nullopt);

    ExpectRefused(Upgrade(), 1, error);
    ExpectRefused(Commit(), 1, error);
    ExpectRefused(Resume(), 1, error);
    ExpectRefused(Rollback(), 1, error);
    EXPECT_EQ(release_.Now(), installed);
}

TEST_F(TransactionTest, KeepsOthersOutWhileAPassIsAtWork) {
    std::string seen;
    const std::string path = Bin("tool");
    const Replaced replaced(calls::waitpid, [&](pid_t child, int* status, int options) {
        if (seen.empty()) {
            StateDirectory other(release_.StatePath());
            seen = other.IsOccupied() ? "occupied" : "free";
        }
        return calls::real::waitpid(child, status, options);
    });
    EXPECT_EQ(Upgrade().status, 0);
    EXPECT_EQ(seen, "occupied");
}

TEST_F(TransactionTest, LeavesTheUpgradeOpenWhenMemoryRunsOutOnTheWayBack) {
    ASSERT_EQ(Upgrade().status, 0);
    {
        const std::string state = release_.StatePath("state");
        const Replaced replaced(calls::EVP_MD_CTX_new, [&state]() -> void* {
            const bool isUndoing = ReadWholeFile(state).find("undoing") != std::string::npos;
            return isUndoing ? nullptr : calls::real::EVP_MD_CTX_new();
        });
        const Ending ending = Rollback();

        EXPECT_EQ(ending.status, 3);
        EXPECT_EQ(ending.error(), "std::bad_alloc");
        EXPECT_EQ(ending.message(), "The old files are not all back. Remove the cause, and resume.");
    }
    EXPECT_EQ(Resume().status, 0);
    ExpectOld();
}

TEST_F(TransactionTest, LeavesTheUpgradeOpenWhenMemoryRunsOutWhileBackupsAreRemoved) {
    ASSERT_EQ(Upgrade().status, 0);
    for (const Release::Command command : {&::Commit, &::Resume, &::Commit}) {
        const Replaced replaced(calls::open, [this](const char* path, int flags, mode_t mode) {
            const bool isReceipt = path == release_.StatePath("receipt");
            if (isReceipt && !fs::exists(Bin("tool.bak"))) throw std::bad_alloc();
            return calls::real::open(path, flags, mode);
        });
        const Ending ending = release_.Run(command);

        EXPECT_EQ(ending.status, 3);
        EXPECT_EQ(ending.error(), "std::bad_alloc");
        EXPECT_EQ(ending.state(), "cleaning");
        EXPECT_EQ(ending.message(),
                  "The new files are in place, but the upgrade is not closed. Commit again.");
    }
    EXPECT_EQ(Commit().status, 0);
    EXPECT_EQ(release_.Run(&::ShowStatus).report["history"].size(), 1u);
    EXPECT_EQ(release_.package().Run("verify", {"--expect", "cleaned"}).exitStatus, 0);
}

TEST_F(TransactionTest, RefusesASecondUpgradeWhileOneIsOpen) {
    EXPECT_EQ(Upgrade().status, 0);
    const Tree installed = release_.Now();

    const Ending ending = Upgrade();
    ExpectRefused(ending, 1, "an upgrade is open already");
    EXPECT_EQ(ending.state(), "installed");
    EXPECT_EQ(release_.Now(), installed);
    EXPECT_EQ(Rollback().status, 0);
    ExpectOld();
}

TEST_F(TransactionTest, RefusesFileListsThatMakeNoUpgrade) {
    const std::string list = release_.package().ListPath();
    const auto upgrade = [this](const std::string& path) {
        TransactionOptions options = release_.Options();
        options.iniPath = path;
        Ending ending{};
        ending.report = ReportOf([&](Output& out) { return ::Upgrade(options, out); }, &ending.status);
        return ending;
    };
    ExpectRefused(upgrade(list + ".missing"), 2, list + ".missing: No such file or directory");
    ExpectRefused(upgrade("/dev/null"), 2, "/dev/null: not a regular file");
    {
        const Replaced replaced(calls::realpath, [](const char*, char*) -> char* {
            errno = EIO;
            return nullptr;
        });
        ExpectRefused(Upgrade(), 2, list + ": Input/output error");
    }
    {
        int looks = 0;
        const Replaced replaced(calls::stat,
                                [&, before = calls::stat](const char* path, struct stat* status) {
                                    if (path != list || ++looks != 4) return before(path, status);
                                    errno = EIO;
                                    return -1;
                                });
        ExpectRefused(Upgrade(), 2, list + ": it can't be read twice with the same result");
    }
    release_.package().WriteRawList("[Package_Intall_Type]\nPackageIntallType=Nowhere\n");
    ExpectRefused(Upgrade(), 2, "no install type with a directory list; vfilelist check says more");
    ExpectOld();
}

TEST_F(TransactionTest, ReplacesTheUpgradeToolItself) {
    release_.package().Bring("VCopyFileListIni", "new");
    Write(Bin("VCopyFileListIni"), "old");
    release_.package().WriteList("[Server]\nBin=@/bin\n[Bin]\nf=VCopyFileListIni\n");
    const Variable path("PATH", Bin("").c_str());

    EXPECT_EQ(Upgrade().status, 0);

    EXPECT_EQ(ReadWholeFile(Bin("VCopyFileListIni")), "new");
    EXPECT_EQ(ReadWholeFile(Bin("VCopyFileListIni.bak")), "old");
}

TEST_F(TransactionTest, RefusesWhatCheckCallsAnErrorAndOldBackups) {
    fs::remove(release_.package().SourcePath("same"));
    Write(Bin("conf.bak"), "of an earlier upgrade");
    release_.package().WriteList("[Server]\nBin=@/bin\n[Bin]\nf=tool,lib/conf,same,\n");

    const Ending ending = Upgrade();

    ExpectRefused(ending, 1, "vfilelist check says what to do about these");
    EXPECT_THAT(ending.remarks(),
                testing::UnorderedElementsAre(
                    "! same: E-SOURCE-MISSING: the package lacks a listed file",
                    "! Bin f: E-ENTRY-EMPTY: an entry has no file name",
                    testing::StartsWith("! conf.bak: W-OLD-BACKUP: an old NAME.bak is there")));
    EXPECT_EQ(ReadWholeFile(Bin("conf.bak")), "of an earlier upgrade");
}

TEST_F(TransactionTest, RefusesWhereThereIsTooLittleSpace) {
    const Replaced replaced(calls::statvfs, [](const char* path, struct statvfs* system) {
        const int result = calls::real::statvfs(path, system);
        system->f_bfree = system->f_bavail = 1;
        return result;
    });
    const Ending ending = Upgrade();

    EXPECT_EQ(ending.status, 1);
    EXPECT_THAT(ending.remarks(),
                Contains(HasSubstr("W-SPACE: there is too little free space, or too few free inodes (")));
    ExpectOld();
}

TEST_F(TransactionTest, GoesBackWhereTheSpaceIsGoneAfterRename) {
    const Replaced replaced(calls::statvfs, [this](const char* path, struct statvfs* system) {
        const int result = calls::real::statvfs(path, system);
        if (fs::exists(Bin("tool.bak"))) system->f_bfree = system->f_bavail = 1;
        return result;
    });
    const Ending ending = Upgrade();

    ExpectTakenBack(ending, ending.error());
    EXPECT_THAT(ending.error(), HasSubstr("are needed, "));
}

TEST_F(TransactionTest, RefusesWhatItCannotRecord) {
    {
        const Replaced replaced(calls::flistxattr, [](int, char*, size_t) -> ssize_t {
            errno = EIO;
            return -1;
        });
        ExpectRefused(Upgrade(), 1, Bin("tool") + ": Input/output error");
    }
    {
        // Whoever reads the list to check and record it opens it in between.
        const Replaced replaced(
            calls::open, [this, before = calls::open](const char* path, int flags, mode_t mode) {
                const bool isWhole = (flags & O_NOFOLLOW) != 0 && path == release_.package().ListPath();
                if (!isWhole) return before(path, flags, mode);
                errno = EIO;
                return -1;
            });
        ExpectRefused(Upgrade(), 2, release_.package().ListPath() + ": Input/output error");
    }
    ExpectOld();
}

TEST_F(TransactionTest, RefusesWithoutAStateDirectoryThatCanBeWritten) {
    TransactionOptions options = release_.Options();
    options.stateDirectory = release_.package().ListPath() + "/state";
    int status = -1;
    const nlohmann::json report = ReportOf([&](Output& out) { return ::Upgrade(options, out); }, &status);
    EXPECT_EQ(status, 1);
    EXPECT_EQ(report["error"], options.stateDirectory + ": Not a directory");

    // As between two file systems: a copy is made then.
    const Replaced linking(calls::linkat, [](int, const char*, int, const char*, int) {
        errno = EXDEV;
        return -1;
    });
    const std::string full = ": No space left on device";
    for (const char* const name : {"rescue/vfilelist", "journal.new", "state.new"}) {
        const Replaced replaced(calls::open,
                                [&, before = calls::open](const char* path, int flags, mode_t mode) {
                                    if (path == release_.StatePath(name)) {
                                        errno = ENOSPC;
                                        return -1;
                                    }
                                    return before(path, flags, mode);
                                });
        ExpectRefused(Upgrade(), 1, release_.StatePath(name) + full);
        ExpectOld();
    }
    for (int sync = 1; sync <= 7; ++sync) {
        const Replaced replaced(calls::fsync, [left = sync](int fd) mutable {
            if (--left != 0) return calls::real::fsync(fd);
            errno = EIO;
            return -1;
        });
        const Ending ending = Upgrade();
        EXPECT_EQ(ending.message(), "Nothing was changed.") << sync;
        ExpectOld();
    }
}

TEST_F(TransactionTest, RefusesAStateThatItDoesNotUnderstandAndLeavesItThere) {
    EXPECT_EQ(Upgrade().status, 0);
    const Tree installed = release_.Now();
    const std::string state = release_.StatePath("state");
    Write(state, "vfilelist-state 2\n");
    const std::string error = state + ": changed, of another version, or not of this journal";

    ExpectRefused(Upgrade(), 3, error);
    ExpectRefused(Commit(), 3, error);
    ExpectRefused(Resume(), 3, error);
    ExpectRefused(Status(), 3, error);
    ExpectRefused(Rollback(), 3, error);
    EXPECT_EQ(ReadWholeFile(state), "vfilelist-state 2\n");
    EXPECT_EQ(release_.Now(), installed);
}

TEST_F(TransactionTest, HasNothingToRollBackOrToCommitWhenNoUpgradeIsOpen) {
    bool isOpen = true;
    EXPECT_EQ(WrittenBy([&](Output& out) { return RollbackTransaction(release_.Options(), out, isOpen); },
                        false, nullptr),
              "");
    EXPECT_FALSE(isOpen);
    EXPECT_FALSE(fs::exists(release_.StatePath())) << "not even looked at for writing";
    ExpectRefused(Commit(), 1, "no upgrade is open");
}

TEST_F(TransactionTest, NoticesThatAnotherProcessHasClosedTheUpgradeMeanwhile) {
    EXPECT_EQ(Upgrade().status, 0);
    const Replaced replaced(calls::flock, [this](int fd, int operation) {
        fs::remove(release_.StatePath("state"));
        return calls::real::flock(fd, operation);
    });

    ExpectRefused(Rollback(), 1, "another process has closed the upgrade");
}

TEST_F(TransactionTest, KeepsTheListsApart) {
    EXPECT_EQ(Upgrade().status, 0);
    const std::string error = "the open upgrade is that of " + release_.package().ListPath();
    TransactionOptions options = release_.Options();
    const auto rollback = [&](Output& out) { return RollbackOpen(options, out); };
    options.iniPath = release_.package().scratch().Write("other.ini", "");
    EXPECT_EQ(ReportOf(rollback)["error"], error);
    options.iniPath = "nowhere.ini";
    EXPECT_EQ(ReportOf(rollback)["error"], error);

    options.iniPath = release_.package().scratch().Link("package/link.ini", release_.package().ListPath());
    int status = -1;
    EXPECT_EQ(ReportOf(rollback, &status)["error"], nullptr) << "the same list by another name";
    EXPECT_EQ(status, 0);
}

TEST_F(TransactionTest, RefusesWhatIsForPassesByHandWhileAnUpgradeIsOpen) {
    EXPECT_EQ(Upgrade().status, 0);
    TransactionOptions options = release_.Options();
    options.isByHand = true;
    int status = -1;
    EXPECT_EQ(ReportOf([&](Output& out) { return RollbackOpen(options, out); }, &status)["error"],
              "an upgrade is open: --dry-run and --only-modes are for passes by hand");
    EXPECT_EQ(status, 1);
    EXPECT_EQ(Rollback().status, 0) << "it is still open";
}

TEST_F(TransactionTest, GoesBackWhenAPassFails) {
    for (const char* const pass : {"-rename", "-copy"}) {
        const std::string name = pass == std::string("-rename") ? "conf.bak" : "conf";
        const Replaced copying(calls::fopen, [&](const char* path, const char* mode) -> FILE* {
            if (path != Bin(name)) return calls::real::fopen(path, mode);
            errno = ENOSPC;
            return nullptr;
        });
        const Replaced renaming(calls::rename, [&](const char* from, const char* to) {
            if (name != "conf.bak" || to != Bin(name)) return calls::real::rename(from, to);
            errno = ENOSPC;
            return -1;
        });
        ExpectTakenBack(Upgrade(),
                        std::string(pass) + " ended with status 240; the upgrade log names the file");
    }
}

TEST_F(TransactionTest, GoesBackWhenACopyIsNotThePackagesFile) {
    const std::string source = release_.package().SourcePath("same");
    const Replaced replaced(calls::fopen, WhenOpened(release_.StatePath("package/Common/same"),
                                                     [this, source] { Write(source, "THE SAME"); }));

    ExpectTakenBack(Upgrade(), Bin("same") + ": it does not hold what the package's file held");
}

TEST_F(TransactionTest, IsNotLedAstrayByAListThatChangesBeforeAPass) {
    const std::string list = release_.package().ListPath();
    const std::string text = ReadWholeFile(list);
    ASSERT_EQ(Upgrade().status, 0);
    const Tree installed = release_.Now();
    ASSERT_EQ(Rollback().status, 0);
    int passes = 0;
    const Replaced replaced(calls::fork, [&] {
        if (++passes == 1)
            Write(list, text + "[Server]\nEvil=" + release_.Path("evil") + "\n[Evil]\nf=tool\n");
        if (passes == 2) fs::remove(list);
        return calls::real::fork();
    });
    EXPECT_EQ(Upgrade().status, 0);
    EXPECT_EQ(release_.Now(), installed);
    EXPECT_EQ(passes, 2);
}

// The passes would install, and nobody could take back, what was not recorded.
TEST_F(TransactionTest, RefusesAListThatChangesWhileItIsChecked) {
    const std::string list = release_.package().ListPath();
    const std::string text = ReadWholeFile(list);
    int looks = 0;
    const Replaced replaced(calls::statvfs, [&](const char* path, struct statvfs* system) {
        if (++looks == 1)
            Write(list, text + "[Server]\nMore=" + release_.Path("more") + "\n[More]\nf=tool\n");
        return calls::real::statvfs(path, system);
    });

    ExpectRefused(Upgrade(), 1, list + ": it has changed meanwhile");
    EXPECT_GE(looks, 1);
    ExpectOld();
}

TEST_F(TransactionTest, GoesBackWhenTheStateCannotBeWritten) {
    for (const int number : {2, 3}) {
        const Replaced replaced(calls::rename,
                                [this, left = number](const char* from, const char* to) mutable {
                                    if (to != release_.StatePath("state") || --left != 0)
                                        return calls::real::rename(from, to);
                                    errno = ENOSPC;
                                    return -1;
                                });
        ExpectTakenBack(Upgrade(), release_.StatePath("state") + ": No space left on device");
    }
}

TEST_F(TransactionTest, GoesBackThoughItCannotSaySoWhenOnlyTheWayBackLeadsOn) {
    const std::string full = release_.StatePath("state") + ": No space left on device";
    for (const int number : {2, 3}) {
        const Replaced replaced(calls::rename, WithoutState(number));
        const Ending ending = Upgrade();

        EXPECT_EQ(ending.status, 3);
        EXPECT_EQ(ending.error(), full);
        EXPECT_EQ(ending.message(), kBackButNamed);
        EXPECT_THAT(ending.remarks(), ElementsAre("! state: " + full));
        ExpectOld();
    }
}

TEST_F(TransactionTest, GoesOnBackThoughItCannotSaySoAgain) {
    release_.DieBeforeInstalling(Bin("conf"));
    {
        const Replaced replaced(calls::unlink, [](const char*) {
            errno = EIO;
            return -1;
        });
        EXPECT_EQ(Resume().state(), "undoing");
    }
    const Replaced replaced(calls::rename, WithoutState(1));
    EXPECT_EQ(Resume().message(), kBackButNamed);
    ExpectOld();
}

TEST_F(TransactionTest, DoesNotGoBackFromACompleteUpgradeUnlessItCanSaySo) {
    EXPECT_EQ(Upgrade().status, 0);
    const Tree installed = release_.Now();
    for (const bool isReadable : {true, false}) {
        const Replaced replaced(calls::rename, [&](const char* from, const char* to) {
            if (to != release_.StatePath("state")) return calls::real::rename(from, to);
            if (!isReadable) Write(to, "");
            errno = ENOSPC;
            return -1;
        });
        const Ending ending = Rollback();
        EXPECT_EQ(ending.status, 3);
        EXPECT_EQ(ending.message(), "The state can't be written: nothing was taken back yet.");
        EXPECT_EQ(release_.Now(), installed);
    }
}

TEST_F(TransactionTest, GoesBackWhenItRunsOutOfMemory) {
    bool isThrown = false;
    const Replaced replaced(calls::open, [&, before = calls::open](const char* path, int flags, mode_t mode) {
        if (!isThrown && path == Bin("conf") && fs::exists(release_.Path("new/sub/fresh"))) {
            isThrown = true;
            throw std::bad_alloc();
        }
        return before(path, flags, mode);
    });

    ExpectTakenBack(Upgrade(), "std::bad_alloc");
}

TEST_F(TransactionTest, ResumesFromWhereverItWasCutOff) {
    release_.DieBeforeInstalling(Bin("conf"));
    EXPECT_NE(release_.Now(), release_.Old());
    EXPECT_EQ(Status().state(), "copying");
    EXPECT_THAT(Status().report["next"], ElementsAre("resume"));
    ExpectRefused(Commit(), 1, "the upgrade is not complete");
    ExpectRefused(Upgrade(), 1, "an upgrade is open already");

    const Ending ending = Resume();
    EXPECT_EQ(ending.status, 0);
    EXPECT_EQ(ending.message(), kBack);
    ExpectOld();
}

TEST_F(TransactionTest, ResumesAnUndoThatWasCutOff) {
    release_.DieBeforeInstalling(Bin("conf"));
    {
        const Replaced replaced(calls::rename, [this](const char* from, const char* to) {
            if (to != Bin("same")) return calls::real::rename(from, to);
            errno = EIO;
            return -1;
        });
        const Ending ending = Resume();
        EXPECT_EQ(ending.status, 3);
        EXPECT_EQ(ending.message(), "The old files are not all back. Remove the cause, and resume.");
        EXPECT_EQ(ending.state(), "undoing");
        EXPECT_THAT(ending.remarks(), ElementsAre("! same: can't be put back: Input/output error"));
    }
    EXPECT_EQ(Resume().status, 0);
    ExpectOld();
}

TEST_F(TransactionTest, ResumesThoughThePackageIsGone) {
    release_.DieBeforeInstalling(Bin("conf"));
    fs::remove_all(release_.package().scratch().Path("package"));

    EXPECT_EQ(Resume().status, 0);
    ExpectOld();
}

TEST_F(TransactionTest, LeavesACompleteUpgradeToTheOperator) {
    EXPECT_EQ(Upgrade().status, 0);
    const Tree installed = release_.Now();
    const Ending ending = Resume();

    EXPECT_EQ(ending.status, 0);
    EXPECT_EQ(ending.message(), "The new files are in place: keep them or go back.");
    EXPECT_EQ(ending.state(), "installed");
    EXPECT_EQ(release_.Now(), installed);
}

TEST_F(TransactionTest, IsNotClosedWhenThatCannotBeWritten) {
    EXPECT_EQ(Upgrade().status, 0);
    const auto fails = [this](const char* path) {
        if (path != release_.StatePath("state")) return calls::real::unlink(path);
        errno = EROFS;
        return -1;
    };
    {
        const Replaced replaced(calls::unlink, fails);
        const Ending ending = Rollback();
        EXPECT_EQ(ending.status, 3);
        EXPECT_EQ(ending.message(), "The old files are not all back. Remove the cause, and resume.");
        EXPECT_THAT(ending.remarks(), ElementsAre(HasSubstr("Read-only file system")));
    }
    EXPECT_EQ(Resume().status, 0);
    ExpectOld();

    EXPECT_EQ(Upgrade().status, 0);
    {
        const Replaced replaced(calls::unlink, fails);
        const Ending ending = Commit();
        EXPECT_EQ(ending.status, 3);
        EXPECT_EQ(ending.message(),
                  "The backups are removed, but the upgrade can't be closed. Commit again.");
        EXPECT_EQ(ending.state(), "cleaning");
    }
    EXPECT_EQ(Commit().status, 0);
    EXPECT_EQ(Status().state(), "none");
}

TEST_F(TransactionTest, ClosesAPartialRollbackThoughNotAllIsBack) {
    EXPECT_EQ(Upgrade().status, 0);
    fs::rename(release_.Path("new"), release_.Path("moved"));
    fs::create_directories(release_.Path("new"));
    const Replaced replaced(calls::rename, [this](const char* from, const char* to) {
        if (to != Bin("same")) return calls::real::rename(from, to);
        errno = EIO;
        return -1;
    });
    EXPECT_EQ(Rollback().status, 3);
    const Ending ending = release_.Rollback(true);

    EXPECT_EQ(ending.status, 3);
    EXPECT_EQ(ending.message(), kBackButNamed);
    EXPECT_EQ(ending.state(), "none");
    EXPECT_EQ(ReadWholeFile(Bin("same.bak")), "the same");
}

TEST_F(TransactionTest, GoesOnlyForwardOnceBackupsAreRemoved) {
    EXPECT_EQ(Upgrade().status, 0);
    {
        const Replaced replaced(calls::unlink, [this](const char* path) {
            if (path != Bin("same.bak")) return calls::real::unlink(path);
            errno = EIO;
            return -1;
        });
        const Replaced pass(calls::remove, [](const char*) {
            errno = EIO;
            return -1;
        });
        const Ending ending = Commit();
        EXPECT_EQ(ending.status, 3);
        EXPECT_EQ(ending.message(),
                  "The new files are in place, but some backups are not removed. Commit again.");
        EXPECT_EQ(ending.remarks().at(0), "! same.bak: can't be removed: Input/output error");
        EXPECT_EQ(ending.state(), "cleaning");
    }
    ExpectRefused(Rollback(), 1, "backups are being removed already: only commit leads on");
    EXPECT_EQ(Resume().status, 0);
    EXPECT_FALSE(fs::exists(Bin("same.bak")));
    EXPECT_EQ(Status().state(), "none");
}

TEST_F(TransactionTest, CommitsWithThePackageLongGone) {
    EXPECT_EQ(Upgrade().status, 0);
    fs::remove_all(release_.package().scratch().Path("package"));

    const Ending ending = Commit();
    EXPECT_EQ(ending.status, 0);
    EXPECT_THAT(ending.remarks(), IsEmpty());
    EXPECT_FALSE(fs::exists(Bin("tool.bak")));
    EXPECT_FALSE(fs::exists(release_.StatePath("package")));
}

TEST_F(TransactionTest, CommitsToTheEndWithoutTheList) {
    EXPECT_EQ(Upgrade().status, 0);
    fs::remove_all(release_.StatePath("package"));

    const Ending ending = Commit();
    EXPECT_EQ(ending.status, 0);
    EXPECT_THAT(ending.remarks(), ElementsAre(HasSubstr("filelist.ini: ")));
    EXPECT_FALSE(fs::exists(Bin("tool.bak")));
}

TEST_F(TransactionTest, RemovesBackupsThatAreLinksToNowhereToo) {
    EXPECT_EQ(Upgrade().status, 0);
    fs::remove(release_.package().scratch().Path("real/data"));

    EXPECT_EQ(Commit().status, 0);

    EXPECT_FALSE(fs::is_symlink(Bin("link.bak")));
}

TEST_F(TransactionTest, DoesNotCommitWithoutSayingSo) {
    EXPECT_EQ(Upgrade().status, 0);
    const Tree installed = release_.Now();
    const Replaced replaced(calls::rename, WithoutState(1));

    ExpectRefused(Commit(), 1, release_.StatePath("state") + ": No space left on device");
    EXPECT_EQ(release_.Now(), installed);
}

TEST_F(TransactionTest, RemovesNoBackupOfSomebodyElse) {
    EXPECT_EQ(Upgrade().status, 0);
    const std::string foreign = release_.Path("new/sub/fresh.bak");
    Write(foreign, "mine");
    const Ending ending = Commit();
    ExpectRefused(ending, 3, "not all backups are those of the upgrade");
    EXPECT_THAT(ending.remarks(),
                ElementsAre("! fresh: NAME.bak is not, or no longer, what the upgrade left there"));
    fs::remove(foreign);

    {
        // It comes when the removal has begun.
        const Replaced replaced(calls::rename, AfterState(1, [this, foreign] { Write(foreign, "mine"); }));
        const Ending cleaning = Commit();
        EXPECT_EQ(cleaning.status, 3);
        EXPECT_EQ(cleaning.message(),
                  "Backups are left. Move what is named out of the way, and commit again.");
        EXPECT_EQ(cleaning.state(), "cleaning");
    }
    EXPECT_EQ(Resume().status, 3);
    EXPECT_EQ(ReadWholeFile(foreign), "mine");
    fs::remove(foreign);
    EXPECT_EQ(Resume().status, 0);
    EXPECT_FALSE(fs::exists(Bin("tool.bak")));
}

TEST_F(TransactionTest, DoesNotCommitWhereADirectoryIsNotMounted) {
    EXPECT_EQ(Upgrade().status, 0);
    fs::rename(release_.Path("bin"), release_.Path("unmounted"));
    fs::create_directory(release_.Path("bin"));
    ExpectRefused(Commit(), 3, "not all backups are those of the upgrade");
    fs::remove(release_.Path("bin"));
    fs::rename(release_.Path("unmounted"), release_.Path("bin"));

    EXPECT_EQ(Commit().status, 0);
}

TEST_F(TransactionTest, RollsBackOnlyTheDirectoriesThatWereUpgraded) {
    EXPECT_EQ(Upgrade().status, 0);
    fs::rename(release_.Path("bin"), release_.Path("unmounted"));
    fs::create_directory(release_.Path("bin"));
    Write(Bin("tool"), "of another file system");
    const Ending ending = Rollback();
    EXPECT_EQ(ending.status, 3);
    EXPECT_THAT(ending.remarks(), ElementsAre("! bin: not the directory that was upgraded: is it mounted?"));
    EXPECT_EQ(ReadWholeFile(Bin("tool")), "of another file system");
    EXPECT_EQ(ending.state(), "undoing");

    fs::remove_all(release_.Path("bin"));
    fs::rename(release_.Path("unmounted"), release_.Path("bin"));
    EXPECT_EQ(Resume().status, 0);
    ExpectOld();
}

TEST_F(TransactionTest, NamesWhatAnotherProcessChangedDuringRename) {
    const Replaced replaced(calls::fork, [this] {
        const pid_t child = calls::real::fork();
        siginfo_t info{};
        if (child > 0) {
            EXPECT_EQ(waitid(P_PID, static_cast<id_t>(child), &info, WEXITED | WNOWAIT), 0);
        }
        if (child > 0) Write(Bin("tool"), "somebody's");
        return child;
    });
    const Ending ending = Upgrade();

    EXPECT_EQ(ending.status, 3);
    EXPECT_EQ(ending.error(), "another process has changed files");
    EXPECT_EQ(ending.message(), kBackButNamed);
    EXPECT_EQ(ReadWholeFile(Bin("tool.changed")), "somebody's");
    fs::remove(Bin("tool.changed"));
    ExpectOld();
}

// -copy would write over it: nothing is done between the last look and -copy but to write the state.
TEST_F(TransactionTest, LooksForTheWorkOfOthersOnceTheRenamedFilesAreOnTheDisk) {
    bool isChanged = false;
    const Replaced replaced(calls::fsync, [&](int fd) {
        const bool isBin = fs::read_symlink("/proc/self/fd/" + std::to_string(fd)) == release_.Path("bin");
        if (isBin && !isChanged && fs::exists(Bin("tool.bak"))) {
            isChanged = true;
            Write(Bin("tool"), "somebody's");
        }
        return calls::real::fsync(fd);
    });
    const Ending ending = Upgrade();

    EXPECT_TRUE(isChanged);
    EXPECT_EQ(ending.error(), "another process has changed files");
    EXPECT_EQ(ending.status, 3);
    EXPECT_EQ(ReadWholeFile(Bin("tool.changed")), "somebody's");
    fs::remove(Bin("tool.changed"));
    ExpectOld();
}

TEST_F(TransactionTest, NamesWhatAnotherProcessChangedAfterCopy) {
    bool isChanged = false;
    const Replaced replaced(calls::fsync, [&](int fd) {
        struct stat status {};
        EXPECT_EQ(fstat(fd, &status), 0);
        const bool isDue = S_ISDIR(status.st_mode) && fs::exists(release_.Path("new/sub/fresh"));
        if (isDue && !isChanged) Write(Bin("conf"), "somebody's");
        isChanged = isChanged || isDue;
        return calls::real::fsync(fd);
    });
    const Ending ending = Upgrade();

    EXPECT_EQ(ending.status, 3);
    EXPECT_EQ(ending.error(), "another process has changed files");
    EXPECT_THAT(ending.remarks(), Contains("! conf: another process changed it after -copy"));
    EXPECT_EQ(ReadWholeFile(Bin("conf.changed")), "somebody's");
    fs::remove(Bin("conf.changed"));
    ExpectOld();
}

TEST_F(TransactionTest, GoesBackWhenTheDirectoriesCannotBeSynced) {
    const std::string errors[] = {"the renamed files are not on the disk",
                                  "the new files are not on the disk"};
    for (const bool isCopied : {false, true}) {
        bool isFailed = false;
        const Replaced replaced(calls::fsync, [&](int fd) {
            const bool isBin =
                fs::read_symlink("/proc/self/fd/" + std::to_string(fd)) == release_.Path("bin");
            if (isFailed || !isBin || fs::exists(Bin("tool")) != isCopied) return calls::real::fsync(fd);
            isFailed = true;
            errno = EIO;
            return -1;
        });
        const Ending ending = Upgrade();
        EXPECT_EQ(ending.error(), errors[isCopied ? 1 : 0]);
        EXPECT_EQ(ending.status, 3) << "the disk wants looking at";
        ExpectOld();
    }
}

TEST_F(TransactionTest, GoesBackAtASignal) {
    for (const int signal : {SIGINT, SIGTERM}) {
        // In the middle of -copy, which waits for its end.
        const Replaced replaced(calls::fopen, WhenOpened(Bin("same"), [signal] {
                                    (void)kill(getppid(), signal);
                                    for (;;) (void)pause();
                                }));
        ExpectTakenBack(Upgrade(), "-copy was ended by a signal");
    }
}

TEST_F(TransactionTest, GoesBackAtASignalBetweenItsSteps) {
    const std::string ended = "ended by a signal";
    {
        const Replaced replaced(calls::fchmod, [this](int fd, mode_t mode) {
            if (fs::exists(release_.Path("new/sub/fresh"))) {
                EXPECT_EQ(kill(getpid(), SIGTERM), 0);
            }
            return calls::real::fchmod(fd, mode);
        });
        ExpectTakenBack(Upgrade(), ended);
    }
    // After the last file of all.
    const Replaced replaced(calls::fsync, [this](int fd) {
        const bool isNew =
            fs::read_symlink("/proc/self/fd/" + std::to_string(fd)) == release_.Path("new/sub");
        if (isNew) {
            EXPECT_EQ(kill(getpid(), SIGINT), 0);
        }
        return calls::real::fsync(fd);
    });
    ExpectTakenBack(Upgrade(), ended);
}

TEST_F(TransactionTest, GoesOnWhenTheTerminalIsLost) {
    const Replaced replaced(calls::fopen, WhenOpened(Bin("same"), [] {
                                (void)kill(getppid(), SIGHUP);
                                (void)kill(getpid(), SIGHUP);
                            }));

    EXPECT_EQ(Upgrade().status, 0);
}

TEST_F(TransactionTest, ShowsTheBytesThatAreCopied) {
    // -copy stops before its second file, of which a part is there, until it has been looked at.
    int ready[2];
    ASSERT_EQ(pipe2(ready, O_CLOEXEC), 0);
    const Replaced copying(calls::fopen, WhenOpened(Bin("conf"), [&ready, this] {
                               Write(Bin("conf"), "new");
                               (void)!write(ready[1], "x", 1);
                               for (;;) (void)pause();
                           }));
    int waits = 0;
    const Replaced waiting(calls::waitpid, [&](pid_t child, int* status, int options) {
        char byte = 0;
        const bool isCopying =
            ReadWholeFile(release_.StatePath("state")).find(" copying ") != std::string::npos;
        if (isCopying && ++waits == 1) {
            EXPECT_EQ(read(ready[0], &byte, 1), 1);
        }
        if (waits == 2) {
            EXPECT_EQ(kill(getpid(), SIGTERM), 0);
        }
        return calls::real::waitpid(child, status, options);
    });
    const std::vector<std::string> lines =
        ProgressOf([this](Output& out) { return ::Upgrade(release_.Options(), out); });
    (void)close(ready[0]);
    (void)close(ready[1]);

    EXPECT_THAT(lines, Contains(testing::StartsWith("-copy: 15 B of 59 B, ")));
    ExpectOld();
}

TEST_F(TransactionTest, ShowsThatAllIsCopied) {
    const Replaced waiting(calls::fork, [] {
        const pid_t child = calls::real::fork();
        siginfo_t info{};
        if (child > 0) {
            EXPECT_EQ(waitid(P_PID, static_cast<id_t>(child), &info, WEXITED | WNOWAIT), 0);
        }
        return child;
    });
    int waits = 0;
    const Replaced ended(calls::waitpid, [&waits](pid_t child, int* status, int options) {
        return ++waits % 2 == 1 ? 0 : calls::real::waitpid(child, status, options);
    });

    EXPECT_THAT(ProgressOf([this](Output& out) { return ::Upgrade(release_.Options(), out); }),
                testing::AllOf(Contains("-copy: 59 B of 59 B"), Contains("install: 5 of 6 files")));
}

TEST_F(TransactionTest, IsNotCleanBeforeThatIsOnTheDisk) {
    EXPECT_EQ(Upgrade().status, 0);
    {
        const Replaced replaced(calls::fsync, [this](int fd) {
            const bool isBin =
                fs::read_symlink("/proc/self/fd/" + std::to_string(fd)) == release_.Path("bin");
            if (!isBin) return calls::real::fsync(fd);
            errno = EIO;
            return -1;
        });
        const Ending ending = Commit();
        EXPECT_EQ(ending.status, 3);
        EXPECT_EQ(ending.message(),
                  "The new files are in place, but some backups are not removed. Commit again.");
        EXPECT_EQ(ending.state(), "cleaning");
    }
    EXPECT_EQ(Commit().status, 0);
}

class SignedTransactionTest : public TransactionTest {
protected:
    SignedTransactionTest() { release_.Sign(); }

    nlohmann::json History() const { return Status().report["history"]; }
};

TEST_F(SignedTransactionTest, GivesNewDirectoriesTheModesOfTheManifest) {
    ASSERT_EQ(Upgrade().status, 0);
    EXPECT_EQ(StatusOf(release_.Path("new")).st_mode & 07777, 0750U) << "the manifest says nothing of it";
    EXPECT_EQ(StatusOf(release_.Path("new/sub")).st_mode & 07777, 0755U);
    EXPECT_EQ(StatusOf(release_.Path("new/sub/fresh")).st_mode & 07777, 0755U);
    EXPECT_EQ(Rollback().status, 0);
    ExpectOld();
}

TEST_F(SignedTransactionTest, IsTakenBackWhenADirectoryCanNotHaveItsMode) {
    const std::string directory = release_.Path("new/sub");
    const auto isDirectory = [](int fd) {
        struct stat status {};
        return calls::real::fstat(fd, &status) == 0 && S_ISDIR(status.st_mode);
    };
    const Replaced replaced(calls::fchmod, [&](int fd, mode_t mode) {
        if (!isDirectory(fd)) return calls::real::fchmod(fd, mode);
        errno = EPERM;
        return -1;
    });
    ExpectTakenBack(Upgrade(), directory + ": Operation not permitted");
}

TEST_F(SignedTransactionTest, WritesDownWhatItHasInstalledOnceItIsCommitted) {
    EXPECT_TRUE(History().empty());
    ASSERT_EQ(Upgrade().status, 0);
    EXPECT_TRUE(History().empty());
    ASSERT_EQ(Commit().status, 0);

    ASSERT_EQ(History().size(), 1U);
    EXPECT_EQ(History()[0]["release"], "2.0");
    EXPECT_EQ(History()[0]["files"], 6);
    EXPECT_EQ(History()[0]["fileList"], release_.package().ListPath());
    Receipt receipt;
    ASSERT_EQ(StateDirectory(release_.StatePath()).ReadReceipt(receipt), std::nullopt);
    ASSERT_EQ(receipt.files.size(), 6U);
    for (const auto& [path, file] : receipt.files) EXPECT_EQ(DifferenceOf(path, file), "") << path;

    ASSERT_EQ(Upgrade().status, 0);
    ASSERT_EQ(Rollback().status, 0);
    EXPECT_EQ(History().size(), 1U) << "an upgrade that is taken back leaves no trace";
}

TEST_F(SignedTransactionTest, StaysOpenUntilItCanWriteDownWhatItHasInstalled) {
    ASSERT_EQ(Upgrade().status, 0);
    const std::string receipt = release_.StatePath("receipt");
    {
        const Replaced replaced(calls::rename, [&receipt](const char* from, const char* to) {
            if (to != receipt) return calls::real::rename(from, to);
            errno = ENOSPC;
            return -1;
        });
        const Ending ending = Commit();
        EXPECT_EQ(ending.status, 3);
        EXPECT_EQ(ending.message(),
                  "The backups are removed, but the upgrade can't be closed. Commit again.");
        EXPECT_THAT(ending.remarks(), ElementsAre("! state: " + receipt + ": No space left on device"));
        EXPECT_EQ(ending.state(), "cleaning");
    }
    EXPECT_EQ(Commit().status, 0);
    EXPECT_EQ(History().size(), 1U);
}

// The call fails for this path from the Nth time on.
auto FailingFrom(int number, const std::string& path) {
    return [path, left = number](const char* opened, int flags, mode_t mode) mutable {
        if (path != opened || --left > 0) return calls::real::open(opened, flags, mode);
        errno = ENOSPC;
        return -1;
    };
}

TEST_F(SignedTransactionTest, DoesNotBeginWithoutAListForThePasses) {
    const std::string list = release_.StatePath("package/filelist.ini");
    const Replaced replaced(calls::open, FailingFrom(1, list));
    ExpectRefused(Upgrade(), 1, list + ": No space left on device");
}

TEST_F(SignedTransactionTest, StaysOpenWhenTheReceiptCanNotBeReadInTheEnd) {
    ASSERT_EQ(Upgrade().status, 0);
    ASSERT_EQ(Commit().status, 0);
    ASSERT_EQ(Upgrade().status, 0);
    const std::string receipt = release_.StatePath("receipt");
    {
        const Replaced replaced(calls::open, FailingFrom(2, receipt));
        const Ending ending = Commit();
        EXPECT_EQ(ending.status, 3);
        EXPECT_THAT(ending.remarks(), ElementsAre("! state: " + receipt + ": No space left on device"));
    }
    EXPECT_EQ(Commit().status, 0);
}

TEST_F(SignedTransactionTest, SaysWhenTheReceiptCanNotBeRead) {
    release_.package().scratch().Write("state/receipt", "no receipt");
    const std::string trouble =
        release_.StatePath("receipt") + ": it is no file of vfilelist, or one of another version";
    ExpectRefused(Status(), 3, trouble);
    ExpectRefused(Upgrade(), 3, trouble);
    ASSERT_EQ(unlink(release_.StatePath("receipt").c_str()), 0);
    ASSERT_EQ(Upgrade().status, 0);

    release_.package().scratch().Write("state/receipt", "no receipt");
    ExpectRefused(Commit(), 3, trouble);
    EXPECT_EQ(release_.Rollback().status, 0) << "nothing was removed yet";
    ASSERT_EQ(unlink(release_.StatePath("receipt").c_str()), 0);
}

}  // namespace
