#include "Rollback.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "FileSystem.h"
#include "Package.h"
#include "RecordedOpens.h"
#include "Report.h"
#include "SystemCalls.h"

namespace {

namespace fs = std::filesystem;

using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

RollbackOptions RemovingNew() {
    RollbackOptions options;
    options.removesNew = true;
    return options;
}

RollbackOptions OnlyModes() {
    RollbackOptions options;
    options.isOnlyModes = true;
    return options;
}

class RollbackTest : public testing::Test {
protected:
    RollbackTest() {
        package_.Bring("tool", "the new tool");
        package_.Install("tool", "old");
        package_.WriteEntries("tool");
    }

    void RunPasses(const std::vector<std::string>& passes) const {
        for (const std::string& pass : passes) ASSERT_EQ(package_.RunPass(pass), 0) << pass;
    }

    int Rollback(const std::vector<std::string>& options = {}) const {
        return package_.Run("rollback", options).exitStatus;
    }

    // What was done to the file `name`.
    std::string ActionOn(const std::string& name, const std::vector<std::string>& options = {}) const {
        const nlohmann::json report = package_.RunJson("rollback", options);
        for (const auto& action : report["actions"]) {
            if (action["target"] == package_.InstalledPath(name)) return action["action"];
        }
        return "none";
    }

    // The same in this process, where calls can be replaced: "kept: why".
    std::string ActionHere(const std::string& name, const RollbackOptions& options = {},
                           int* exitStatus = nullptr) const {
        const nlohmann::json report = ReportHere(options, exitStatus);
        for (const auto& action : report["actions"]) {
            if (action["target"] != package_.InstalledPath(name)) continue;
            return action["action"].get<std::string>() + ": " + action["detail"].get<std::string>();
        }
        return "none";
    }
    nlohmann::json ReportHere(const RollbackOptions& options = {}, int* exitStatus = nullptr) const {
        const FileList list(package_.ListPath());
        return ReportOf([&](Output& output) { return ::Rollback(list, options, output); }, exitStatus);
    }

    // Looks at the file `name`, and before the second look somebody makes a change.
    auto WithChangeBeforeTheSecondLook(const std::string& name, const std::function<void()>& change) const {
        return [path = package_.InstalledPath(name), change, looks = 0](const char* file,
                                                                        struct stat* status) mutable {
            if (file == path && ++looks == 2) change();
            return calls::real::lstat(file, status);
        };
    }

    void SetMode(const std::string& name, mode_t mode) const {
        ASSERT_EQ(chmod(package_.InstalledPath(name).c_str(), mode), 0);
    }
    mode_t ModeOf(const std::string& name) const { return PermissionsOf(package_.InstalledPath(name)); }

    // The file system's clock goes in steps: what happens from now on is later than what was.
    void LetTimePass() const {
        const timespec before = StatusOf(package_.scratch().Write("clock", "")).st_mtim;
        timespec now = before;
        while (now.tv_sec == before.tv_sec && now.tv_nsec == before.tv_nsec) {
            now = StatusOf(package_.scratch().Write("clock", "")).st_mtim;
        }
    }

    // -clean, killed after its first file.
    void BeginClean() const { fs::remove(package_.InstalledPath("tool.bak")); }

    void BringAnotherFile() const {
        package_.Bring("other", "the other new one");
        package_.Install("other", "old");
        package_.WriteEntries("tool,other");
    }

    const Umask umask_{022};
    const Package package_;
};

TEST_F(RollbackTest, BringsBackContentAndMode) {
    SetMode("tool", 04755);
    RunPasses({"-rename", "-copy"});
    EXPECT_EQ(package_.Installed("tool"), "the new tool");

    EXPECT_EQ(Rollback(), 0);

    EXPECT_EQ(package_.Installed("tool"), "old");
    EXPECT_EQ(ModeOf("tool"), 04755u);
    EXPECT_THAT(package_.InstalledNames(), ElementsAre("tool"));
}

TEST_F(RollbackTest, BringsBackTheOwner) {
    SKIP_UNLESS_ROOT();
    ASSERT_EQ(chown(package_.InstalledPath("tool").c_str(), 65534, 65533), 0);
    RunPasses({"-rename", "-copy"});

    EXPECT_EQ(Rollback(), 0);

    EXPECT_EQ(StatusOf(package_.InstalledPath("tool")).st_uid, 65534u);
    EXPECT_EQ(StatusOf(package_.InstalledPath("tool")).st_gid, 65533u);
}

TEST_F(RollbackTest, PutsBackTheVeryFile) {
    const ino_t inode = StatusOf(package_.InstalledPath("tool")).st_ino;
    RunPasses({"-rename", "-copy"});

    EXPECT_EQ(Rollback(), 0);

    EXPECT_EQ(StatusOf(package_.InstalledPath("tool")).st_ino, inode);
}

TEST_F(RollbackTest, DryRunChangesNothingAndSaysWhatTheRollbackWillSay) {
    package_.Bring("fresh", "fresh");
    package_.WriteEntries("tool,fresh");
    RunPasses({"-rename", "-copy"});
    const std::vector<std::string> options = {"--remove-new"};

    nlohmann::json dryRun = package_.RunJson("rollback", {"--remove-new", "--dry-run"});
    EXPECT_THAT(package_.InstalledNames(), ElementsAre("fresh", "tool", "tool.bak"));
    EXPECT_EQ(package_.Installed("tool"), "the new tool");
    const nlohmann::json run = package_.RunJson("rollback", options);

    EXPECT_EQ(dryRun["dryRun"], true);
    dryRun["dryRun"] = false;
    EXPECT_EQ(dryRun, run);
    EXPECT_THAT(package_.InstalledNames(), ElementsAre("tool"));
}

TEST_F(RollbackTest, DoesNoHarmTheSecondTime) {
    RunPasses({"-rename", "-copy"});
    EXPECT_EQ(Rollback(), 0);

    EXPECT_EQ(Rollback(), 0);
    EXPECT_EQ(ActionOn("tool"), "nothing");
    EXPECT_EQ(Rollback({"--remove-new", "--force"}), 0);

    EXPECT_EQ(package_.Installed("tool"), "old");
}

TEST_F(RollbackTest, PutsABackupOverAnUnfinishedCopy) {
    RunPasses({"-rename"});
    for (const std::string& content :
         {std::string(), std::string("the n"), std::string("the new\0\0\0\0", 11)}) {
        package_.Install("tool", content);
        package_.Install("tool.bak", "old");
        EXPECT_EQ(Rollback(), 0) << content;
        EXPECT_EQ(package_.Installed("tool"), "old");
    }
}

TEST_F(RollbackTest, LeavesAFileAloneThatIsNotThePackagesWork) {
    // An installed file that -rename has not reached, beside a backup that an earlier upgrade forgot.
    package_.Install("tool.bak", "much older");

    EXPECT_EQ(Rollback(), 1);

    EXPECT_EQ(package_.Installed("tool"), "old");
    EXPECT_EQ(package_.Installed("tool.bak"), "much older");
    EXPECT_EQ(Rollback({"--force"}), 0);
    EXPECT_EQ(package_.Installed("tool"), "much older");
    EXPECT_THAT(package_.InstalledNames(), ElementsAre("tool"));
}

TEST_F(RollbackTest, LeavesAnUnchangedFileAloneThatCopyCannotHaveReached) {
    // -rename was cut off before the second file, which has a backup that an earlier upgrade forgot.
    package_.Bring("unchanged", "second version");
    package_.Install("unchanged", "second version");
    package_.Install("unchanged.bak", "first version");
    package_.WriteEntries("tool,unchanged");
    fs::rename(package_.InstalledPath("tool"), package_.InstalledPath("tool.bak"));

    EXPECT_EQ(package_.RunJson("verify")["summary"]["next"], nullptr);
    EXPECT_EQ(Rollback(), 1);

    EXPECT_EQ(package_.Installed("tool"), "old");
    EXPECT_EQ(package_.Installed("unchanged"), "second version");
    EXPECT_EQ(package_.Installed("unchanged.bak"), "first version");
}

TEST_F(RollbackTest, RestoresTheFilesBehindADirectoryThatItWasKilledAt) {
    fs::remove(package_.InstalledPath("tool"));
    package_.Install("tool/inside", "kept");
    BringAnotherFile();
    RunPasses({"-rename", "-copy"});
    fs::remove(package_.InstalledPath("tool"));

    EXPECT_EQ(Rollback(), 0);

    EXPECT_EQ(package_.Installed("tool/inside"), "kept");
    EXPECT_EQ(package_.Installed("other"), "old");
}

TEST_F(RollbackTest, LeavesAFileAloneThatItCannotCompare) {
    RunPasses({"-rename", "-copy"});
    fs::remove(package_.SourcePath("tool"));

    EXPECT_EQ(Rollback(), 1);
    EXPECT_EQ(package_.Installed("tool"), "the new tool");
    EXPECT_EQ(Rollback({"--force"}), 0);
    EXPECT_EQ(package_.Installed("tool"), "old");
}

TEST_F(RollbackTest, ReportsWhatHasNoBackup) {
    package_.Bring("fresh", "fresh");
    package_.WriteEntries("tool,fresh,never");
    EXPECT_EQ(package_.RunPass("-rename"), 0);
    EXPECT_EQ(package_.RunPass("-copy"), 240);

    const nlohmann::json report = package_.RunJson("rollback");

    ASSERT_EQ(report["actions"].size(), 3u);
    EXPECT_EQ(report["actions"][1]["action"], "kept");
    EXPECT_EQ(report["actions"][1]["state"], "new");
    EXPECT_EQ(report["actions"][2]["action"], "nothing");
    EXPECT_EQ(report["actions"][2]["state"], "missing");
    EXPECT_EQ(report["summary"]["problems"], 0);
    EXPECT_THAT(package_.InstalledNames(), ElementsAre("fresh", "tool"));
}

TEST_F(RollbackTest, RemovesNewFilesWhenAskedWhereverTheyStandInTheList) {
    package_.Bring("first", "first");
    package_.Bring("last", "last");
    package_.WriteEntries("first,tool,last");
    RunPasses({"-rename", "-copy"});

    EXPECT_EQ(Rollback({"--remove-new"}), 0);

    EXPECT_THAT(package_.InstalledNames(), ElementsAre("tool"));
    EXPECT_EQ(package_.Installed("tool"), "old");
}

TEST_F(RollbackTest, RemovesTheOnlyFileOfADirectoryThatGotItsNameAndItsContentInOneMoment) {
    package_.Bring("fresh", "fresh");
    package_.WriteList("[Server]\nA=@/new\nB=@\n[A]\nf=fresh\n[B]\nf=tool\n");
    RunPasses({"-rename", "-copy"});
    const timespec times[2] = {{0, UTIME_OMIT}, StatusOf(package_.InstalledPath("new/fresh")).st_mtim};
    ASSERT_EQ(utimensat(AT_FDCWD, package_.InstalledPath("new").c_str(), times, 0), 0);

    EXPECT_EQ(Rollback({"--remove-new"}), 0);

    EXPECT_FALSE(fs::exists(package_.InstalledPath("new/fresh")));
}

TEST_F(RollbackTest, KeepsNewFilesThatWereChanged) {
    package_.Bring("fresh", "fresh");
    package_.Bring("fresher", "fresher");
    package_.WriteEntries("tool,fresh,fresher");
    RunPasses({"-rename", "-copy"});
    package_.Install("fresh", "edited");

    EXPECT_EQ(Rollback({"--remove-new"}), 1) << "a changed file makes it uncertain how far the passes came";

    EXPECT_THAT(package_.InstalledNames(), ElementsAre("fresh", "fresher", "tool"));
    EXPECT_EQ(package_.Installed("fresh"), "edited");
}

TEST_F(RollbackTest, KeepsAnUnfinishedNewFile) {
    package_.Bring("fresh", "fresh");
    package_.WriteEntries("tool,fresh");
    RunPasses({"-rename", "-copy"});
    package_.Install("fresh", "fre");
    EXPECT_EQ(package_.RunJson("rollback", {"--dry-run"})["actions"].size(), 2u);

    const ProcessResult result = package_.Run("rollback", {"--remove-new"});

    EXPECT_EQ(result.exitStatus, 1);
    EXPECT_THAT(result.out, HasSubstr("\n1 file of the package without a backup stays.\n"));
    EXPECT_EQ(package_.Installed("fresh"), "fre");
    EXPECT_EQ(package_.Installed("tool"), "old");
}

TEST_F(RollbackTest, RemovesNothingAfterClean) {
    RunPasses({"-rename", "-copy", "-clean"});

    EXPECT_EQ(Rollback({"--remove-new"}), 1);

    EXPECT_EQ(package_.Installed("tool"), "the new tool");
}

TEST_F(RollbackTest, RemovesNothingWhoseBackupAHalfFinishedCleanMayHaveTaken) {
    BringAnotherFile();
    RunPasses({"-rename", "-copy"});
    LetTimePass();
    BeginClean();

    EXPECT_EQ(Rollback({"--remove-new"}), 1);

    EXPECT_EQ(package_.Installed("tool"), "the new tool");
    EXPECT_EQ(package_.Installed("other"), "old");
}

TEST_F(RollbackTest, RemovesNothingWhoseBackupWentBeforeASecondCopy) {
    BringAnotherFile();
    RunPasses({"-rename", "-copy"});
    LetTimePass();
    BeginClean();
    LetTimePass();
    RunPasses({"-copy"});

    EXPECT_EQ(Rollback({"--remove-new"}), 1);

    EXPECT_EQ(package_.Installed("tool"), "the new tool");
    EXPECT_EQ(package_.Installed("other"), "old");
}

TEST_F(RollbackTest, RemovesNothingWhereTimesAreKeptToTheSecond) {
    BringAnotherFile();
    RunPasses({"-rename", "-copy"});
    BeginClean();
    for (const char* const name : {"", "tool", "other"}) {
        const timespec times[2] = {{0, UTIME_OMIT},
                                   {StatusOf(package_.InstalledPath(name)).st_mtim.tv_sec, 0}};
        ASSERT_EQ(utimensat(AT_FDCWD, package_.InstalledPath(name).c_str(), times, 0), 0);
    }

    EXPECT_EQ(Rollback({"--remove-new"}), 1);

    EXPECT_EQ(package_.Installed("tool"), "the new tool");
}

TEST_F(RollbackTest, RemovesNoFileThatCopyWroteOverBecauseRenameWasCutOff) {
    BringAnotherFile();
    LetTimePass();
    fs::rename(package_.InstalledPath("tool"), package_.InstalledPath("tool.bak"));
    LetTimePass();
    RunPasses({"-copy"});

    EXPECT_EQ(Rollback({"--remove-new"}), 1) << "the other one is not new, though nothing is left of the old";

    EXPECT_EQ(package_.Installed("tool"), "old");
    EXPECT_EQ(package_.Installed("other"), "the other new one");
}

TEST_F(RollbackTest, RemovesNothingForABackupThatSomebodyMadeAfterClean) {
    BringAnotherFile();
    RunPasses({"-rename", "-copy", "-clean"});
    LetTimePass();
    package_.Install("tool.bak", "the new tool");

    EXPECT_EQ(Rollback({"--remove-new"}), 1);

    EXPECT_EQ(package_.Installed("other"), "the other new one");
}

TEST_F(RollbackTest, RemovesNoUnchangedFileThatRenameHadNotReached) {
    package_.Bring("unchanged", "unchanged");
    package_.Install("unchanged", "unchanged");
    package_.WriteEntries("tool,unchanged");
    fs::rename(package_.InstalledPath("tool"), package_.InstalledPath("tool.bak"));

    (void)Rollback({"--remove-new"});

    EXPECT_EQ(package_.Installed("unchanged"), "unchanged");
    EXPECT_EQ(package_.Installed("tool"), "old");
}

TEST_F(RollbackTest, RemovesNoUnchangedFileThatItRestoredBefore) {
    package_.Bring("unchanged", "unchanged");
    package_.Install("unchanged", "unchanged");
    package_.WriteEntries("unchanged,tool");
    RunPasses({"-rename", "-copy"});
    EXPECT_EQ(Rollback({"--remove-new"}), 0);

    EXPECT_EQ(Rollback({"--remove-new"}), 1) << "nothing tells it from a new file any more";

    EXPECT_EQ(package_.Installed("unchanged"), "unchanged");
}

TEST_F(RollbackTest, RemovesNoUnchangedFileThatItRestoredBesideAFileThatItKept) {
    package_.Bring("unchanged", "unchanged");
    package_.Install("unchanged", "unchanged");
    package_.WriteEntries("tool,unchanged");
    LetTimePass();
    RunPasses({"-rename", "-copy"});
    package_.Install("tool", "changed by a service");
    EXPECT_EQ(Rollback({"--remove-new"}), 1);
    EXPECT_EQ(package_.Installed("tool.bak"), "old");
    package_.Install("tool", "the new tool");

    EXPECT_EQ(Rollback({"--remove-new"}), 1);

    EXPECT_EQ(package_.Installed("tool"), "old");
    EXPECT_EQ(package_.Installed("unchanged"), "unchanged");
}

TEST_F(RollbackTest, BringsBackALinkAsALink) {
    fs::rename(package_.InstalledPath("tool"), package_.InstalledPath("tool-1.0"));
    fs::create_symlink("tool-1.0", package_.InstalledPath("tool"));
    RunPasses({"-rename", "-copy"});

    EXPECT_EQ(Rollback(), 0);

    EXPECT_EQ(fs::read_symlink(package_.InstalledPath("tool")), "tool-1.0");
    EXPECT_EQ(package_.Installed("tool-1.0"), "old");
}

// After -clean, which does not see the link; "tool", its new file, and "other" are right as they are.
class DanglingBackupTest : public RollbackTest {
protected:
    DanglingBackupTest() {
        fs::rename(package_.InstalledPath("tool"), package_.InstalledPath("tool-1.0"));
        fs::create_symlink("tool-1.0", package_.InstalledPath("tool"));
        BringAnotherFile();
        RunPasses({"-rename", "-copy"});
        fs::remove(package_.InstalledPath("tool-1.0"));
        RunPasses({"-clean"});
    }
};

TEST_F(DanglingBackupTest, IsNotPutOverANewFile) {
    EXPECT_EQ(Rollback(), 1);
    EXPECT_EQ(package_.Installed("tool"), "the new tool");

    EXPECT_EQ(Rollback({"--force"}), 0);
    EXPECT_EQ(fs::read_symlink(package_.InstalledPath("tool")), "tool-1.0");
}

TEST_F(DanglingBackupTest, IsNoEvidenceThatAFileIsNew) {
    EXPECT_EQ(Rollback({"--remove-new"}), 1);

    EXPECT_EQ(package_.Installed("tool"), "the new tool");
    EXPECT_EQ(package_.Installed("other"), "the other new one");
}

TEST_F(DanglingBackupTest, LeavesNothingToClean) {
    EXPECT_EQ(package_.Run("verify", {"--expect", "cleaned"}).exitStatus, 0);
    EXPECT_THAT(package_.Run("verify").out,
                HasSubstr("(NAME.bak is a link that points nowhere; -clean passes over it)"));
}

TEST_F(RollbackTest, BringsBackALinkWhosePointeeComesBackToo) {
    fs::remove(package_.InstalledPath("tool"));
    package_.Install("lib.so.1", "old");
    fs::create_symlink("lib.so.1", package_.InstalledPath("lib.so"));
    package_.Bring("lib.so", "new");
    package_.Bring("lib.so.1", "new");
    package_.WriteEntries("lib.so,lib.so.1");
    RunPasses({"-rename", "-copy"});
    fs::remove(package_.InstalledPath("lib.so.1"));

    EXPECT_EQ(Rollback(), 0);

    EXPECT_EQ(fs::read_symlink(package_.InstalledPath("lib.so")), "lib.so.1");
    EXPECT_EQ(package_.Installed("lib.so.1"), "old");
}

TEST_F(RollbackTest, PutsNoLinkOverTheFileThatItLeadsTo) {
    package_.Install("tool", "the new tool");
    fs::create_symlink("tool", package_.InstalledPath("tool.bak"));

    EXPECT_EQ(Rollback(), 0);

    EXPECT_EQ(package_.Installed("tool"), "the new tool");
    EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(package_.InstalledPath("tool"))));
}

TEST_F(RollbackTest, PutsNoListedFileOverAnother) {
    package_.Bring("tool.bak", "new");
    package_.Install("tool.bak", "a file of its own");
    package_.Install("tool", "the new tool");
    package_.WriteEntries("tool,tool.bak");

    EXPECT_EQ(package_.RunJson("verify")["summary"]["next"], nullptr);
    EXPECT_EQ(Rollback(), 1);
    EXPECT_EQ(Rollback({"--force"}), 1);
    EXPECT_EQ(ActionHere("tool", OnlyModes()), "kept: NAME.bak is on the list itself");

    EXPECT_EQ(package_.Installed("tool"), "the new tool");
    EXPECT_EQ(package_.Installed("tool.bak"), "a file of its own");
}

TEST_F(RollbackTest, OnlyModesTakesNoModeFromADirectory) {
    fs::remove(package_.InstalledPath("tool"));
    fs::create_directory(package_.InstalledPath("tool"));
    RunPasses({"-rename", "-copy"});

    EXPECT_EQ(Rollback({"--only-modes"}), 1);

    EXPECT_EQ(ModeOf("tool"), 0644u);
}

TEST_F(RollbackTest, KeepsAFileThatItCannotLookAtThoughItsBackupCanBe) {
    package_.Install("tool.bak", "forgotten");
    const std::string tool = package_.InstalledPath("tool");
    int status = 0;
    {
        const Replaced replaced(calls::lstat, [&tool](const char* path, struct stat* result) {
            if (path != tool) return calls::real::lstat(path, result);
            errno = EIO;
            return -1;
        });
        const FileList list(package_.ListPath());
        (void)ReportOf([&](Output& output) { return ::Rollback(list, {}, output); }, &status);
    }

    EXPECT_EQ(status, 1);
    EXPECT_EQ(package_.Installed("tool"), "old");
    EXPECT_EQ(package_.Installed("tool.bak"), "forgotten");
}

TEST_F(RollbackTest, KeepsAFileWhoseBackupItCannotLookAt) {
    fs::create_symlink("loop", package_.InstalledPath("loop"));
    package_.WriteList("[Server]\nBin=@/loop\n[Bin]\nf=tool\n");

    EXPECT_EQ(Rollback(), 1);
    EXPECT_EQ(Rollback({"--only-modes"}), 1);
}

TEST_F(RollbackTest, RestoresFilesWhoseNewOnesWereMadeNamesOfOneFile) {
    package_.Bring("tool", "the other new one");
    BringAnotherFile();
    RunPasses({"-rename", "-copy"});
    fs::remove(package_.InstalledPath("other"));
    fs::create_hard_link(package_.InstalledPath("tool"), package_.InstalledPath("other"));

    EXPECT_EQ(Rollback(), 0);

    EXPECT_EQ(package_.Installed("tool"), "old");
    EXPECT_EQ(package_.Installed("other"), "old");
}

TEST_F(RollbackTest, BringsBackADirectoryThatStoodWhereThePackageHasAFile) {
    fs::remove(package_.InstalledPath("tool"));
    package_.Install("tool/inside", "kept");
    RunPasses({"-rename", "-copy"});

    EXPECT_EQ(Rollback(), 0);

    EXPECT_EQ(package_.Installed("tool/inside"), "kept");
    EXPECT_THAT(package_.InstalledNames(), ElementsAre("tool"));
}

TEST_F(RollbackTest, TakesASecondNameOfTheFileForNoBackup) {
    fs::create_hard_link(package_.InstalledPath("tool"), package_.InstalledPath("tool.bak"));

    EXPECT_EQ(Rollback(), 0);

    EXPECT_THAT(package_.InstalledNames(), ElementsAre("tool", "tool.bak"));
}

TEST_F(RollbackTest, GoesOnBehindAFileThatItCannotRestore) {
    // The rename of a file over a directory fails.
    package_.Bring("other", "new");
    package_.Install("other", "old");
    package_.WriteEntries("tool,other");
    RunPasses({"-rename", "-copy"});
    fs::remove(package_.InstalledPath("tool"));
    fs::create_directory(package_.InstalledPath("tool"));

    EXPECT_EQ(Rollback({"--force"}), 1);

    EXPECT_EQ(package_.Installed("other"), "old");
    EXPECT_EQ(package_.Installed("tool.bak"), "old");
    EXPECT_EQ(ActionOn("tool", {"--force"}), "failed");
}

TEST_F(RollbackTest, TakesNoCauseOfAFailedRestoreForSuccess) {
    RunPasses({"-rename", "-copy"});
    for (const int error : {ENOENT, EXDEV, EEXIST}) {
        const Replaced replaced(calls::rename, [error](const char*, const char*) {
            errno = error;
            return -1;
        });
        int status = 0;

        EXPECT_EQ(ActionHere("tool", {}, &status), std::string("failed: ") + std::strerror(error));

        EXPECT_EQ(status, 1);
        EXPECT_EQ(package_.Installed("tool.bak"), "old");
    }
}

TEST_F(RollbackTest, SaysSoWhenTheFileSystemIsReadOnly) {
    CONTINUE_IN_PRIVATE_NAMESPACE((std::vector<std::string>{}));
    RunPasses({"-rename", "-copy"});
    const std::vector<std::string> inside = {"bwrap",
                                             "--bind",
                                             "/",
                                             "/",
                                             "--dev",
                                             "/dev",
                                             "--ro-bind",
                                             package_.InstalledPath(),
                                             package_.InstalledPath()};

    const ProcessResult result =
        RunProcess(Concatenate(inside, {VFILELIST_PATH, "rollback", package_.ListPath()}));

    EXPECT_EQ(result.exitStatus, 1) << result.err;
    EXPECT_THAT(result.out, HasSubstr("Read-only file system"));
    EXPECT_EQ(package_.Installed("tool"), "the new tool");
    EXPECT_EQ(package_.Installed("tool.bak"), "old");
}

TEST_F(RollbackTest, TellsHowManyFilesItHasComparedBeforeItBegins) {
    package_.Bring("other", "");
    package_.WriteEntries("tool,other");
    const FileList list(package_.ListPath());

    EXPECT_THAT(ProgressOf([&list](Output& output) { return ::Rollback(list, {}, output); }),
                ElementsAre("rollback: compare: 0 of 2 files", "rollback: compare: 1 of 2 files"));
}

TEST_F(RollbackTest, HandlesTwoEntriesOfOneTargetOnce) {
    package_.Bring("other/tool", "the other new tool");
    package_.WriteEntries("tool,other/tool");
    RunPasses({"-rename", "-copy"});

    const nlohmann::json report = package_.RunJson("rollback");

    EXPECT_EQ(report["actions"].size(), 1u);
    EXPECT_EQ(package_.Installed("tool"), "old");
}

TEST_F(RollbackTest, IsNotStoppedByAnEntryWithoutAFileName) {
    RunPasses({"-rename", "-copy"});
    package_.WriteEntries(",tool,");
    package_.Install(".bak", "nobody's business");

    EXPECT_EQ(Rollback(), 0);

    EXPECT_EQ(package_.Installed("tool"), "old");
    EXPECT_EQ(package_.Installed(".bak"), "nobody's business");
}

TEST_F(RollbackTest, ShowsControlCharactersEscaped) {
    package_.WriteEntries("to\033ol");

    EXPECT_THAT(package_.Run("rollback").out, Not(HasSubstr("\033")));
}

TEST_F(RollbackTest, OnlyModesGivesTheNewFilesTheModesOfTheirBackups) {
    SetMode("tool", 04711);
    RunPasses({"-rename", "-copy"});
    EXPECT_EQ(ModeOf("tool"), 0644u);

    EXPECT_EQ(Rollback({"--only-modes"}), 0);

    EXPECT_EQ(ModeOf("tool"), 04711u);
    EXPECT_EQ(package_.Installed("tool"), "the new tool");
    EXPECT_EQ(package_.Installed("tool.bak"), "old");
    EXPECT_EQ(ActionOn("tool", {"--only-modes"}), "nothing") << "the second time";
}

TEST_F(RollbackTest, OnlyModesGivesTheOwnerAndKeepsTheSetUserIdBit) {
    SKIP_UNLESS_ROOT();
    ASSERT_EQ(chown(package_.InstalledPath("tool").c_str(), 65534, 65533), 0);
    SetMode("tool", 06755);
    RunPasses({"-rename", "-copy"});

    EXPECT_EQ(Rollback({"--only-modes"}), 0);

    EXPECT_EQ(StatusOf(package_.InstalledPath("tool")).st_uid, 65534u);
    EXPECT_EQ(StatusOf(package_.InstalledPath("tool")).st_gid, 65533u);
    EXPECT_EQ(ModeOf("tool"), 06755u);
}

TEST_F(RollbackTest, OnlyModesDryRunChangesNothing) {
    SetMode("tool", 0755);
    RunPasses({"-rename", "-copy"});

    EXPECT_EQ(ActionOn("tool", {"--only-modes", "--dry-run"}), "mode-set");

    EXPECT_EQ(ModeOf("tool"), 0644u);
}

TEST_F(RollbackTest, OnlyModesKeepsItsHandsOffWhatIsNotThePackagesFile) {
    SetMode("tool", 0755);
    RunPasses({"-rename"});
    EXPECT_EQ(Rollback({"--only-modes"}), 1) << "not copied yet";
    for (const char* const content : {"the n", "foreign"}) {
        package_.Install("tool", content);
        SetMode("tool", 0600);
        EXPECT_EQ(Rollback({"--only-modes"}), 1) << content;
        EXPECT_EQ(ModeOf("tool"), 0600u) << content;
    }
    EXPECT_EQ(package_.Installed("tool.bak"), "old");
}

TEST_F(RollbackTest, OnlyModesNamesWhatHasNoBackup) {
    package_.Bring("fresh", "fresh");
    package_.WriteEntries("tool,fresh");
    RunPasses({"-rename", "-copy"});

    const ProcessResult result = package_.Run("rollback", {"--only-modes"});

    EXPECT_EQ(result.exitStatus, 0);
    EXPECT_THAT(result.out, HasSubstr(package_.InstalledPath("fresh") + "  (no backup; mode 0644"));
}

TEST_F(RollbackTest, OnlyModesTakesTheModeThatAListedFileHadForTheLinksToIt) {
    fs::remove(package_.InstalledPath("tool"));
    package_.Install("lib.so.1.2", "old");
    SetMode("lib.so.1.2", 0751);
    fs::create_symlink("lib.so.1.2", package_.InstalledPath("lib.so.1"));
    fs::create_symlink("lib.so.1", package_.InstalledPath("lib.so"));
    for (const char* const name : {"lib.so", "lib.so.1", "lib.so.1.2"}) package_.Bring(name, "new");
    package_.WriteEntries("lib.so,lib.so.1,lib.so.1.2");
    RunPasses({"-rename", "-copy"});

    EXPECT_EQ(ActionOn("lib.so", {"--only-modes", "--dry-run"}), "mode-set");
    EXPECT_EQ(Rollback({"--only-modes"}), 0);

    for (const char* const name : {"lib.so", "lib.so.1", "lib.so.1.2"})
        EXPECT_EQ(ModeOf(name), 0751u) << name;
    EXPECT_EQ(package_.Run("verify").exitStatus, 0);
}

TEST_F(RollbackTest, OnlyModesTakesTheModeOfWhatABackedUpLinkLedTo) {
    fs::rename(package_.InstalledPath("tool"), package_.InstalledPath("tool-1.0"));
    SetMode("tool-1.0", 0750);
    fs::create_symlink("tool-1.0", package_.InstalledPath("tool"));
    RunPasses({"-rename", "-copy"});

    EXPECT_EQ(Rollback({"--only-modes"}), 0);

    EXPECT_EQ(ModeOf("tool"), 0750u);
}

TEST_F(RollbackTest, KeepsItsHandsOffWhatSomebodyChangesMeanwhile) {
    const std::string tool = package_.InstalledPath("tool");
    const std::string backup = package_.InstalledPath("tool.bak");
    const std::vector<std::function<void()>> changes = {
        [this] { package_.Install("tool", "foreign"); },
        [&tool] { fs::remove(tool); },
        [&backup] { fs::remove(backup); },
        [&] {
            package_.Install("another", "foreign");
            fs::rename(package_.InstalledPath("another"), backup);
        },
    };
    for (std::size_t i = 0; i < changes.size(); ++i) {
        SCOPED_TRACE(i);
        package_.Install("tool", "the new tool");
        package_.Install("tool.bak", "old");
        const Replaced replaced(calls::lstat, WithChangeBeforeTheSecondLook("tool", changes[i]));

        int status = 0;
        EXPECT_EQ(ActionHere("tool", {}, &status), "kept: changed while the rollback ran");
        EXPECT_EQ(status, 1);
    }
    EXPECT_EQ(package_.Installed("tool.bak"), "foreign");
}

TEST_F(RollbackTest, PutsNoBackupOverAFileThatTurnsUpMeanwhile) {
    RunPasses({"-rename"});
    const Replaced replaced(
        calls::lstat, WithChangeBeforeTheSecondLook("tool", [this] { package_.Install("tool", "foreign"); }));

    EXPECT_EQ(ActionHere("tool"), "kept: changed while the rollback ran");
    EXPECT_EQ(package_.Installed("tool"), "foreign");
}

TEST_F(RollbackTest, RemovesNoNewFileThatSomebodyChangesMeanwhile) {
    package_.Bring("fresh", "fresh");
    package_.WriteEntries("tool,fresh");
    RunPasses({"-rename", "-copy"});
    const Replaced replaced(calls::lstat, WithChangeBeforeTheSecondLook(
                                              "fresh", [this] { package_.Install("fresh", "edited"); }));

    EXPECT_THAT(ActionHere("fresh", RemovingNew()), testing::StartsWith("kept: "));
    EXPECT_EQ(package_.Installed("fresh"), "edited");
}

TEST_F(RollbackTest, SaysWhyANewFileCannotBeRemovedAndGoesOn) {
    package_.Bring("fresh", "fresh");
    package_.WriteEntries("fresh,tool");
    RunPasses({"-rename", "-copy"});
    const Replaced replaced(calls::unlink, [](const char*) {
        errno = EPERM;
        return -1;
    });

    int status = 0;
    const nlohmann::json report = ReportHere(RemovingNew(), &status);

    EXPECT_EQ(status, 1);
    ASSERT_EQ(report["actions"].size(), 2u) << "one for each file";
    EXPECT_EQ(report["actions"][0]["action"], "failed");
    EXPECT_EQ(report["actions"][0]["detail"], "Operation not permitted");
    EXPECT_EQ(report["summary"]["failed"], 1);
    EXPECT_EQ(package_.Installed("fresh"), "fresh");
    EXPECT_EQ(package_.Installed("tool"), "old");
}

TEST_F(RollbackTest, SaysWhyAFileCannotMakeRoomForADirectory) {
    fs::remove(package_.InstalledPath("tool"));
    package_.Install("tool/inside", "kept");
    RunPasses({"-rename", "-copy"});
    const Replaced replaced(calls::unlink, [](const char*) {
        errno = EBUSY;
        return -1;
    });

    EXPECT_EQ(ActionHere("tool"), "failed: Device or resource busy");
    EXPECT_EQ(package_.Installed("tool"), "the new tool");
    EXPECT_EQ(package_.Installed("tool.bak/inside"), "kept");
}

TEST_F(RollbackTest, PutsADirectoryBackOverAnEmptyOneWhenForced) {
    fs::remove(package_.InstalledPath("tool"));
    package_.Install("tool/inside", "kept");
    RunPasses({"-rename"});
    fs::create_directory(package_.InstalledPath("tool"));

    EXPECT_EQ(Rollback(), 1);
    EXPECT_EQ(Rollback({"--force"}), 0);

    EXPECT_EQ(package_.Installed("tool/inside"), "kept");
}

TEST_F(RollbackTest, SaysWhenADirectoryCannotBeSynchronised) {
    const auto expectTrouble = [this](const char* cause) {
        package_.Install("tool.bak", "old");
        int status = 0;
        testing::internal::CaptureStderr();
        (void)ReportHere({}, &status);
        EXPECT_EQ(testing::internal::GetCapturedStderr(),
                  "vfilelist: can't sync " + package_.InstalledPath() + "/: " + cause + "\n");
        EXPECT_EQ(status, 1);
        EXPECT_EQ(package_.Installed("tool"), "old") << "restored all the same";
        fs::remove(package_.InstalledPath("tool"));
    };
    fs::remove(package_.InstalledPath("tool"));
    {
        const Replaced replaced(calls::fsync, [](int) {
            errno = EIO;
            return -1;
        });
        expectTrouble("Input/output error");
    }
    const Replaced replaced(calls::open, [](const char* path, int flags, mode_t mode) {
        if ((flags & O_DIRECTORY) == 0) return calls::real::open(path, flags, mode);
        errno = EMFILE;
        return -1;
    });
    expectTrouble("Too many open files");
}

// An fsync that notes what it is called for.
auto NotingDirectories(std::vector<std::string>& synchronised) {
    return [&synchronised](int fd) {
        synchronised.push_back(fs::read_symlink("/proc/self/fd/" + std::to_string(fd)));
        return calls::real::fsync(fd);
    };
}

TEST_F(RollbackTest, SynchronisesEachDirectoryThatItChangesOnceAndNoOther) {
    package_.Bring("other", "new");
    package_.WriteList("[Server]\nA=@\nB=@/none\nC=@/kept\n[A]\nf=tool,other\n[B]\nf=tool\n[C]\nf=tool\n");
    package_.Install("tool.bak", "old");
    package_.Install("other.bak", "old");
    package_.Install("kept/tool", "old");
    fs::remove(package_.InstalledPath("tool"));
    std::vector<std::string> synchronised;
    const Replaced replaced(calls::fsync, NotingDirectories(synchronised));

    (void)ReportHere();

    EXPECT_THAT(synchronised, ElementsAre(package_.InstalledPath()));
}

TEST_F(RollbackTest, OpensWhatItChangesSoThatAPipeInItsPlaceHoldsNothingUp) {
    SetMode("tool", 0755);
    RunPasses({"-rename", "-copy"});
    const RecordedOpens opens;

    EXPECT_EQ(ActionHere("tool", OnlyModes()), "mode-set: 0644 to 0755");
    EXPECT_EQ(opens.FlagsOf(package_.InstalledPath("tool")), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);

    EXPECT_EQ(ActionHere("tool"), "restored: ");
    EXPECT_EQ(opens.FlagsOf(package_.InstalledPath() + "/"), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
}

TEST_F(RollbackTest, SynchronisesADirectoryThatItOnlyTakesFilesFrom) {
    package_.Bring("fresh", "fresh");
    package_.WriteList("[Server]\nA=@\nB=@/new\n[A]\nf=tool\n[B]\nf=fresh\n");
    RunPasses({"-rename", "-copy"});
    std::vector<std::string> synchronised;
    const Replaced replaced(calls::fsync, NotingDirectories(synchronised));

    (void)ReportHere(RemovingNew());

    EXPECT_THAT(synchronised, ElementsAre(package_.InstalledPath(), package_.InstalledPath("new")));
}

TEST_F(RollbackTest, KnowsNothingOfWhatIsNoFileAndHasNoBackup) {
    fs::remove(package_.InstalledPath("tool"));
    fs::create_directory(package_.InstalledPath("tool"));

    int status = 0;
    const nlohmann::json report = ReportHere({}, &status);

    EXPECT_EQ(status, 1);
    EXPECT_EQ(report["actions"][0]["action"], "kept");
    EXPECT_EQ(report["actions"][0]["detail"], "a directory; no backup");
}

TEST_F(RollbackTest, OnlyModesLeavesAFileAloneWhoseBackupLeadsNowhere) {
    package_.Install("tool", "the new tool");
    fs::create_symlink("nowhere", package_.InstalledPath("tool.bak"));

    EXPECT_EQ(ActionHere("tool", OnlyModes()), "kept: the backup is a link that points nowhere");
}

TEST_F(RollbackTest, OnlyModesSaysWhichCallFailed) {
    SetMode("tool", 0755);
    RunPasses({"-rename", "-copy"});
    const std::string tool = package_.InstalledPath("tool");
    {
        const Replaced replaced(calls::open, [&tool](const char* path, int flags, mode_t mode) {
            if (path != tool || (flags & O_NOFOLLOW) == 0) return calls::real::open(path, flags, mode);
            errno = ELOOP;
            return -1;
        });
        EXPECT_EQ(ActionHere("tool", OnlyModes()), "failed: Too many levels of symbolic links");
    }
    {
        const Replaced replaced(calls::fchmod, [](int, mode_t) {
            errno = EPERM;
            return -1;
        });
        EXPECT_EQ(ActionHere("tool", OnlyModes()), "failed: Operation not permitted");
    }
    int changing = -1;
    const Replaced opening(calls::open, [&changing](const char* path, int flags, mode_t mode) {
        const int fd = calls::real::open(path, flags, mode);
        if ((flags & O_NOFOLLOW) != 0) changing = fd;
        return fd;
    });
    const Replaced replaced(calls::fstat, [&changing](int fd, struct stat* status) {
        if (fd != changing) return calls::real::fstat(fd, status);
        errno = EIO;
        return -1;
    });
    EXPECT_EQ(ActionHere("tool", OnlyModes()), "failed: Input/output error");
    EXPECT_EQ(ModeOf("tool"), 0644u);
}

TEST_F(RollbackTest, OnlyModesKeepsItsHandsOffWhatSomebodyChangesMeanwhile) {
    SetMode("tool", 0755);
    RunPasses({"-rename", "-copy"});
    const std::string tool = package_.InstalledPath("tool");
    const Replaced replaced(calls::open, [&](const char* path, int flags, mode_t mode) {
        if (path == tool && (flags & O_NOFOLLOW) != 0) package_.Install("tool", "foreign");
        return calls::real::open(path, flags, mode);
    });

    int status = 0;
    EXPECT_EQ(ActionHere("tool", OnlyModes(), &status), "kept: changed while this ran");
    EXPECT_EQ(status, 1);
    EXPECT_EQ(ModeOf("tool"), 0644u);
}

// The group of every backup becomes another one; only root could give files away.
int StatusWithForeignBackups(const char* path, struct stat* status) {
    const int result = calls::real::stat(path, status);
    if (fs::path(path).extension() == ".bak") ++status->st_gid;
    return result;
}

TEST_F(RollbackTest, OnlyModesGivesTheOwnerFirstThenTheMode) {
    RunPasses({"-rename", "-copy"});
    const struct stat old = StatusOf(package_.InstalledPath("tool"));
    std::vector<std::string> steps;
    const Replaced status(calls::stat, StatusWithForeignBackups);
    const Replaced owner(calls::fchown, [&steps](int, uid_t user, gid_t group) {
        steps.push_back("owner " + std::to_string(user) + ":" + std::to_string(group));
        return 0;
    });
    const Replaced mode(calls::fchmod, [&steps](int, mode_t bits) {
        steps.push_back("mode " + std::to_string(bits));
        return 0;
    });

    EXPECT_THAT(ActionHere("tool", OnlyModes()), testing::StartsWith("mode-set: 0644 to 0644, owner "));

    EXPECT_THAT(steps,
                ElementsAre("owner " + std::to_string(old.st_uid) + ":" + std::to_string(old.st_gid + 1),
                            "mode " + std::to_string(0644)));
}

TEST_F(RollbackTest, OnlyModesLeavesTheModeOfAFileThatItCannotGiveAway) {
    SetMode("tool", 04755);
    RunPasses({"-rename", "-copy"});
    const Replaced status(calls::stat, StatusWithForeignBackups);
    const Replaced owner(calls::fchown, [](int, uid_t, gid_t) {
        errno = EPERM;
        return -1;
    });

    EXPECT_EQ(ActionHere("tool", OnlyModes()), "failed: Operation not permitted");
    EXPECT_EQ(ModeOf("tool"), 0644u) << "no set-user-id bit for a wrong owner";
}

TEST_F(RollbackTest, ShowsPeopleWhatItDidToEachFile) {
    package_.Bring("fresh", "fresh");
    package_.Bring("gone", "gone");
    package_.Install("foreign", "old");
    package_.Bring("foreign", "new");
    package_.WriteEntries("tool,fresh,gone,foreign");
    RunPasses({"-rename", "-copy"});
    fs::remove(package_.InstalledPath("gone"));
    package_.Install("foreign", "edited");
    const auto show = [this](const RollbackOptions& options) {
        return ShownOnATerminal(package_, [&](Output& output) {
            return ::Rollback(FileList(package_.ListPath()), options, output);
        });
    };
    RollbackOptions dryRun;
    dryRun.isDryRun = true;
    const std::string rest =
        "  @/foreign  (neither the package's file nor a part of it; --force puts the backup over it)\n"
        "\n"
        "1 file restored, 0 removed, 2 kept, 0 failed.\n"
        "1 file of the package without a backup stays.\n";

    EXPECT_EQ(show(dryRun),
              "{bold}LIST{}  install type Server; a dry run, nothing is changed\n"
              "\n"
              "{good}restore   {}@/tool\n"
              "{warning}keep      {}@/fresh  (the package's, no backup)\n"
              "{dim}-         {}@/gone  (not there, no backup)\n"
              "{warning}keep      {}" +
                  rest.substr(2));
    EXPECT_EQ(show({}),
              "{bold}LIST{}  install type Server\n"
              "\n"
              "{good}restored  {}@/tool\n"
              "{warning}kept      {}@/fresh  (the package's, no backup)\n"
              "{dim}-         {}@/gone  (not there, no backup)\n"
              "{warning}kept      {}" +
                  rest.substr(2));
}

TEST_F(RollbackTest, ShowsPeopleTheModesThatItSet) {
    package_.Install("other", "old");
    package_.Bring("other", "new");
    package_.Bring("fresh", "fresh");
    package_.WriteEntries("tool,other,fresh,lost");
    SetMode("tool", 0755);
    (void)package_.RunPass("-rename");
    (void)package_.RunPass("-copy");
    const struct stat status = StatusOf(package_.InstalledPath("tool"));
    const std::string owner = std::to_string(status.st_uid) + ":" + std::to_string(status.st_gid);

    EXPECT_EQ(ShownOnATerminal(package_,
                               [this](Output& output) {
                                   return ::Rollback(FileList(package_.ListPath()), OnlyModes(), output);
                               }),
              "{bold}LIST{}  install type Server\n"
              "\n"
              "{good}mode set  {}@/tool  (0644 to 0755)\n"
              "{dim}-         {}@/other  (as its backup)\n"
              "{warning}kept      {}@/fresh  (no backup; mode 0644 and owner " +
                  owner +
                  " stay)\n"
                  "{dim}-         {}@/lost  (not there, no backup)\n"
                  "\n"
                  "1 mode set, 2 nothing to do, 1 kept, 0 failed.\n");
}

TEST_F(RollbackTest, ReportsEachActionAndTheirSum) {
    package_.Bring("fresh", "fresh");
    package_.Bring("second", "second");
    package_.WriteEntries("tool,fresh,second");
    RunPasses({"-rename", "-copy"});
    RollbackOptions dryRun;
    dryRun.isDryRun = true;

    const nlohmann::json report = ReportHere(dryRun);

    EXPECT_EQ(report["command"], "rollback");
    EXPECT_EQ(report["fileList"], package_.ListPath());
    EXPECT_EQ(report["installType"], "Server");
    EXPECT_EQ(report["onlyModes"], false);
    EXPECT_EQ(report["dryRun"], true);
    EXPECT_EQ(report["actions"][0], (nlohmann::json{{"target", package_.InstalledPath("tool")},
                                                    {"action", "restored"},
                                                    {"state", "new"},
                                                    {"detail", ""},
                                                    {"problem", false}}));
    EXPECT_EQ(report["summary"], (nlohmann::json{{"restored", 1},
                                                 {"removed", 0},
                                                 {"modesSet", 0},
                                                 {"kept", 2},
                                                 {"failed", 0},
                                                 {"nothing", 0},
                                                 {"problems", 0}}));
    EXPECT_EQ(ReportHere(RemovingNew())["summary"]["removed"], 2);
}

TEST_F(RollbackTest, RemovesNothingOfSeveralFilesThatWereNotWrittenInOrder) {
    for (const char* const name : {"a", "b", "c"}) package_.Bring(name, name);
    package_.WriteEntries("a,b,c");
    for (const char* const name : {"c", "b", "a"}) {
        package_.Install(name, name);
        LetTimePass();
    }

    EXPECT_EQ(Rollback({"--remove-new"}), 1);

    EXPECT_EQ(package_.InstalledNames(), (std::vector<std::string>{"a", "b", "c", "tool"}));
}

TEST_F(RollbackTest, RemovesNothingWhereTheFileSystemKeepsNoBirths) {
    package_.Bring("fresh", "fresh");
    package_.WriteEntries("tool,fresh");
    RunPasses({"-rename", "-copy"});
    const Replaced replaced(calls::statx, [](int, const char*, int, unsigned, struct statx*) {
        errno = ENOSYS;
        return -1;
    });

    EXPECT_THAT(ActionHere("fresh", RemovingNew()), testing::StartsWith("kept: "));
    EXPECT_EQ(package_.Installed("fresh"), "fresh");
}

TEST_F(DanglingBackupTest, SaysNothingOfTheFilesBehindIt) {
    package_.Bring("fresh", "fresh");
    package_.WriteEntries("tool,other,fresh");
    package_.Install("fresh", "fresh");

    EXPECT_EQ(Rollback({"--remove-new"}), 1);

    EXPECT_EQ(package_.Installed("fresh"), "fresh");
}

TEST_F(RollbackTest, RestoresWhatStandsBehindADirectoryThatIsMissing) {
    fs::remove(package_.InstalledPath("tool"));
    fs::create_directory(package_.InstalledPath("tool.bak"));
    package_.Bring("other", "the other new one");
    package_.Install("other", "the other new one");
    package_.Install("other.bak", "old");
    package_.WriteEntries("tool,other");

    EXPECT_EQ(Rollback(), 0);

    EXPECT_TRUE(fs::is_directory(package_.InstalledPath("tool")));
    EXPECT_EQ(package_.Installed("other"), "old");
}

TEST_F(RollbackTest, OnlyModesEndsWhereBackupsLeadToEachOthersFiles) {
    package_.Bring("other", "the other new one");
    package_.WriteEntries("tool,other");
    package_.Install("tool", "the new tool");
    package_.Install("other", "the other new one");
    fs::create_symlink("other", package_.InstalledPath("tool.bak"));
    fs::create_symlink("tool", package_.InstalledPath("other.bak"));
    SetMode("tool", 0600);
    SetMode("other", 0600);

    EXPECT_EQ(Rollback({"--only-modes"}), 0);

    EXPECT_EQ(ModeOf("tool"), 0600u);
    EXPECT_EQ(ModeOf("other"), 0600u);
}

TEST_F(RollbackTest, OnlyModesFollowsNoBackupToAFileThatIsMissing) {
    BringAnotherFile();
    fs::rename(package_.InstalledPath("other"), package_.InstalledPath("other-1.0"));
    fs::create_symlink("other-1.0", package_.InstalledPath("other"));
    SetMode("other-1.0", 0750);
    RunPasses({"-rename", "-copy"});
    fs::remove(package_.InstalledPath("tool"));

    EXPECT_EQ(Rollback({"--only-modes"}), 1);

    EXPECT_EQ(ModeOf("other"), 0750u);
}

TEST_F(RollbackTest, OnlyModesTakesNoModeFromAListedFile) {
    package_.Bring("tool.bak", "new");
    package_.Install("tool.bak", "new");
    package_.Install("tool", "the new tool");
    SetMode("tool.bak", 0700);
    package_.WriteEntries("tool,tool.bak");

    EXPECT_EQ(Rollback({"--only-modes"}), 1);

    EXPECT_EQ(ModeOf("tool"), 0644u);
}

TEST_F(RollbackTest, KeepsANewFileBehindADanglingBackupOnly) {
    BringAnotherFile();
    package_.Bring("fresh", "fresh");
    package_.WriteEntries("tool,fresh,other");
    fs::rename(package_.InstalledPath("tool"), package_.InstalledPath("tool-1.0"));
    fs::create_symlink("tool-1.0", package_.InstalledPath("tool"));
    RunPasses({"-rename", "-copy"});
    LetTimePass();
    fs::remove(package_.InstalledPath("tool-1.0"));

    EXPECT_EQ(Rollback({"--remove-new"}), 1);

    EXPECT_EQ(package_.Installed("fresh"), "fresh");
    EXPECT_EQ(package_.Installed("other"), "old");
}

TEST_F(RollbackTest, RestoresWhatStandsBehindANewFileThatIsMissing) {
    package_.Bring("fresh", "fresh");
    package_.WriteEntries("fresh,tool");
    RunPasses({"-rename", "-copy"});
    fs::remove(package_.InstalledPath("fresh"));

    EXPECT_EQ(Rollback(), 0);

    EXPECT_EQ(package_.Installed("tool"), "old");
}

}  // namespace
