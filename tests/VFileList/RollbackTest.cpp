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
#include <map>
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

RollbackOptions Partial() {
    RollbackOptions options;
    options.isPartial = true;
    return options;
}

RollbackOptions OnlyModes() {
    RollbackOptions options;
    options.isOnlyModes = true;
    return options;
}

class RollbackTest : public testing::Test {
public:
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

    void BringAnotherFile() const {
        package_.Bring("other", "the other new one");
        package_.Install("other", "old");
        package_.WriteEntries("tool,other");
    }

    // Everything below the installed release, with what tells whether it was touched.
    std::string Look() const {
        return RunProcess({"find", package_.InstalledPath(), "-printf", "%P %y %i %s %m %U %T@ %C@ %l\n"})
            .out;
    }

    // Two installed files and their backups after -copy. The second goes back without ado.
    void UpgradeTwoFiles() const {
        BringAnotherFile();
        RunPasses({"-rename", "-copy"});
    }

    const Umask umask_{022};
    const Package package_;
};

// A release of its own for each round of a test.
template <typename Fixture>
class Round : public Fixture {
    void TestBody() override {}
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
    const std::string before = Look();

    nlohmann::json dryRun = package_.RunJson("rollback", {"--dry-run"});
    EXPECT_EQ(Look(), before);
    const nlohmann::json run = package_.RunJson("rollback");

    EXPECT_EQ(dryRun["dryRun"], true);
    dryRun["dryRun"] = false;
    EXPECT_EQ(dryRun, run);
    EXPECT_THAT(package_.InstalledNames(), ElementsAre("fresh", "tool"));
}

TEST_F(RollbackTest, DoesNoHarmTheSecondTime) {
    RunPasses({"-rename", "-copy"});
    EXPECT_EQ(Rollback(), 0);

    EXPECT_EQ(Rollback(), 0);
    EXPECT_EQ(ActionOn("tool"), "nothing");
    EXPECT_EQ(Rollback({"--partial"}), 0);

    EXPECT_EQ(package_.Installed("tool"), "old");
}

// What may stand in the way of the first of two files, and what is said of it.
struct Hindrance {
    const char* name;
    std::function<void(const Package&)> bring;
    std::string detail;
};

std::vector<Hindrance> Hindrances() {
    const auto replaceTool = [](const Package& p, const std::function<void(const std::string&)>& make) {
        fs::remove(p.InstalledPath("tool"));
        make(p.InstalledPath("tool"));
    };
    const auto replaceBackup = [](const Package& p, const std::function<void(const std::string&)>& make) {
        fs::remove(p.InstalledPath("tool.bak"));
        make(p.InstalledPath("tool.bak"));
    };
    const std::string foreign = "neither the package's file nor a beginning of it";
    return {
        {"changed by a service", [](const Package& p) { p.Install("tool", "configured"); }, foreign},
        {"a directory",
         [=](const Package& p) { replaceTool(p, [](const auto& path) { fs::create_directory(path); }); },
         "a directory; " + foreign},
        {"an empty pipe",
         [=](const Package& p) {
             replaceTool(p, [](const auto& path) { (void)mkfifo(path.c_str(), 0600); });
         },
         "a special file; " + foreign},
        {"a link to the new content",
         [=](const Package& p) {
             p.Install("tool-2.0", "the new tool");
             replaceTool(p, [](const auto& path) { fs::create_symlink("tool-2.0", path); });
         },
         "a link; " + foreign},
        {"a dangling link",
         [=](const Package& p) { replaceTool(p, [](const auto& path) { fs::create_symlink("no", path); }); },
         "a dangling symlink; " + foreign},
        {"no file of the package", [](const Package& p) { fs::remove(p.SourcePath("tool")); }, foreign},
        {"a directory as backup",
         [=](const Package& p) { replaceBackup(p, [](const auto& path) { fs::create_directory(path); }); },
         "NAME.bak is a directory"},
        {"a directory as backup of nothing",
         [=](const Package& p) {
             fs::remove(p.InstalledPath("tool"));
             replaceBackup(p, [](const auto& path) { fs::create_directory(path); });
         },
         "NAME.bak is a directory"},
        {"a dangling link as backup",
         [=](const Package& p) {
             replaceBackup(p, [](const auto& path) { fs::create_symlink("no", path); });
         },
         "NAME.bak is a dangling symlink; -clean skips it"},
        {"a backup that is listed",
         [](const Package& p) {
             p.Bring("tool.bak", "new");
             p.WriteEntries("tool,tool.bak,other");
         },
         "NAME.bak is on the list itself"},
    };
}

TEST_F(RollbackTest, ChangesNothingAtAllWhileOneFileIsInTheWay) {
    for (const Hindrance& hindrance : Hindrances()) {
        SCOPED_TRACE(hindrance.name);
        const Round<RollbackTest> test;
        test.UpgradeTwoFiles();
        hindrance.bring(test.package_);
        const std::string before = test.Look();

        for (const bool isDryRun : {true, false}) {
            RollbackOptions options;
            options.isDryRun = isDryRun;
            int status = 0;
            const nlohmann::json report = test.ReportHere(options, &status);

            EXPECT_EQ(status, 1);
            EXPECT_EQ(report["actions"][0]["action"], "kept");
            EXPECT_EQ(report["actions"][0]["problem"], true);
            EXPECT_THAT(report["actions"][0]["detail"], HasSubstr(hindrance.detail));
            EXPECT_EQ(report["actions"].back()["action"], "nothing");
            EXPECT_EQ(report["actions"].back()["detail"], "not restored");
            EXPECT_EQ(report["summary"]["problems"], 1);
            EXPECT_EQ(report["summary"]["refused"], true);
            EXPECT_EQ(test.Look(), before);
        }
    }
}

TEST_F(RollbackTest, PartialRestoresTheOthersAndLeavesWhatIsInTheWay) {
    for (const Hindrance& hindrance : Hindrances()) {
        SCOPED_TRACE(hindrance.name);
        const Round<RollbackTest> test;
        test.UpgradeTwoFiles();
        hindrance.bring(test.package_);
        const auto look = [&test](const char* name) {
            return RunProcess({"find", test.package_.InstalledPath(name), "-printf", "%y %i %s %C@\n"}).out;
        };
        const std::string tool = look("tool");
        const std::string backup = look("tool.bak");

        for (int run = 1; run <= 2; ++run) {
            int status = 0;
            const nlohmann::json report = test.ReportHere(Partial(), &status);
            EXPECT_EQ(status, 1);
            EXPECT_EQ(report["summary"]["refused"], false);
            EXPECT_EQ(report["actions"].back()["action"], run == 1 ? "restored" : "nothing");
            EXPECT_EQ(test.package_.Installed("other"), "old");
            EXPECT_FALSE(fs::exists(test.package_.InstalledPath("other.bak")));
            EXPECT_EQ(look("tool"), tool);
            EXPECT_EQ(look("tool.bak"), backup);
        }
    }
}

TEST_F(RollbackTest, RestoresNoBackupThatIsOlderThanThePackage) {
    BringAnotherFile();
    for (const char* const content : {"", "old", "the new", "the new tool"}) {
        SCOPED_TRACE(content);
        // An earlier upgrade forgot the backup; -rename is cut off before this file, or has not found it.
        package_.Install("tool.bak", "much older");
        LetTimePass();
        package_.Bring("tool", "the new tool");
        package_.Install("other.bak", "old");
        package_.Install("other", "the other new one");
        if (*content == '\0') fs::remove(package_.InstalledPath("tool"));
        if (*content != '\0') package_.Install("tool", content);
        const std::string before = Look();

        int status = 0;
        EXPECT_THAT(ActionHere("tool", {}, &status), testing::EndsWith("NAME.bak is older than the package"));
        EXPECT_EQ(status, 1);
        EXPECT_EQ(Look(), before);
        EXPECT_EQ(package_.RunJson("verify")["summary"]["next"], nullptr);
        EXPECT_EQ(Rollback({"--partial"}), 1);
        EXPECT_EQ(package_.Installed("other"), "old");
        EXPECT_EQ(package_.Installed("tool.bak"), "much older");
    }
}

TEST_F(RollbackTest, IsRefusedWhereABackupCannotBeLookedAt) {
    UpgradeTwoFiles();
    for (const char* const name : {"tool", "tool.bak"}) {
        const std::string before = Look();
        int status = 0;
        {
            const std::string path = package_.InstalledPath(name);
            const Replaced replaced(calls::lstat, [&path](const char* file, struct stat* result) {
                if (file != path) return calls::real::lstat(file, result);
                errno = EIO;
                return -1;
            });
            EXPECT_THAT(ActionHere("tool", {}, &status), HasSubstr("Input/output error"));
        }
        EXPECT_EQ(status, 1);
        EXPECT_EQ(Look(), before);
    }
}

// What one file of an upgrade was before: nothing, or something else than the package's, the same, or a
// beginning of it; and whether an earlier upgrade forgot a backup.
struct Before {
    const char* content;
    bool hasForgottenBackup;
};

class RollbackOfEveryStateTest : public RollbackTest {
public:
    static constexpr const char* kNew = "the new content";

    // Makes the release, then the package, then runs `passes` of three passes and `files` files of the next.
    void Reach(const std::vector<Before>& release, int passes, std::size_t files) const {
        for (std::size_t i = 0; i < release.size(); ++i) {
            if (release[i].content != nullptr) package_.Install(NameOf(i), release[i].content);
            if (release[i].hasForgottenBackup) package_.Install(NameOf(i) + ".bak", "forgotten");
        }
        LetTimePass();
        for (std::size_t i = 0; i < release.size(); ++i) package_.Bring(NameOf(i), kNew);
        package_.WriteEntries(NameOf(0) + "," + NameOf(1));
        for (int pass = 0; pass <= passes; ++pass) {
            const std::size_t count = pass < passes ? release.size() : files;
            for (std::size_t i = 0; i < count; ++i) RunPassOn(pass, NameOf(i));
        }
    }
    void RunPassOn(int pass, const std::string& name) const {
        const std::string path = package_.InstalledPath(name);
        if (pass == 0 && fs::exists(path)) fs::rename(path, path + ".bak");
        if (pass == 1) package_.Install(name, kNew);
    }
    static std::string NameOf(std::size_t index) { return index == 0 ? "first" : "second"; }

    std::map<std::string, std::string> Contents() const {
        std::map<std::string, std::string> contents;
        for (const std::string& name : package_.InstalledNames()) contents[name] = package_.Installed(name);
        return contents;
    }

    void ExpectOld(const std::vector<Before>& release) const {
        for (std::size_t i = 0; i < release.size(); ++i) {
            if (release[i].content == nullptr) continue;
            EXPECT_EQ(package_.Installed(NameOf(i)), release[i].content) << NameOf(i);
        }
    }
};

TEST_F(RollbackOfEveryStateTest, BringsTheOldFilesBackOrIsRefusedBeforeAnythingChanges) {
    std::vector<Before> all;
    for (const bool hasForgottenBackup : {false, true}) {
        for (const char* const content : {static_cast<const char*>(nullptr), "other", kNew, "the new", ""}) {
            all.push_back({content, hasForgottenBackup});
        }
    }
    int restored = 0;
    int refused = 0;
    const auto check = [&](const std::vector<Before>& release, int passes, std::size_t files) {
        const Round<RollbackOfEveryStateTest> test;
        test.Reach(release, passes, files);
        std::map<std::string, std::string> before = test.Contents();
        int status = 0;
        const nlohmann::json report = test.ReportHere({}, &status);
        EXPECT_EQ(report["summary"]["refused"], status == 1);
        if (status == 0) test.ExpectOld(release);
        if (status == 1) {
            EXPECT_EQ(test.Contents(), before);
        }
        ++(status == 0 ? restored : refused);

        before = test.Contents();
        int again = 0;
        (void)test.ReportHere({}, &again);
        EXPECT_EQ(again, status);
        EXPECT_EQ(test.Contents(), before) << "the second time";
    };
    for (const Before& first : all) {
        for (const Before& second : all) {
            for (int passes = 0; passes < 2; ++passes) {
                for (std::size_t files = 0; files <= 2; ++files) {
                    SCOPED_TRACE(testing::Message()
                                 << (first.content ? first.content : "-") << first.hasForgottenBackup
                                 << (second.content ? second.content : "-") << second.hasForgottenBackup
                                 << " pass " << passes << " files " << files);
                    check({first, second}, passes, files);
                }
            }
        }
    }
    EXPECT_GT(restored, 250);
    EXPECT_GT(refused, 100);
}

TEST_F(RollbackTest, NamesAFileOfThePackageThatHasNoBackup) {
    package_.Bring("fresh", "fresh");
    package_.Bring("half", "half of it");
    package_.WriteEntries("tool,fresh,half");
    RunPasses({"-rename", "-copy"});
    package_.Install("half", "half");

    EXPECT_EQ(ActionHere("fresh"), "kept: the package's, no backup");
    EXPECT_EQ(ActionHere("half"), "kept: a beginning of the package's file, no backup");
    EXPECT_EQ(package_.Installed("fresh"), "fresh");
    EXPECT_EQ(package_.Installed("tool"), "old");
}

TEST_F(RollbackTest, SaysWhyAFileCannotBeRestoredAndGoesOn) {
    UpgradeTwoFiles();
    const Replaced replaced(calls::rename, [this](const char* from, const char* to) {
        if (from != package_.InstalledPath("tool.bak")) return calls::real::rename(from, to);
        errno = EPERM;
        return -1;
    });

    int status = 0;
    EXPECT_EQ(ActionHere("tool", {}, &status), "failed: Operation not permitted");

    EXPECT_EQ(status, 1);
    EXPECT_EQ(package_.Installed("tool"), "the new tool");
    EXPECT_EQ(package_.Installed("other"), "old");
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

TEST_F(DanglingBackupTest, LeavesNothingToClean) {
    EXPECT_EQ(package_.Run("verify", {"--expect", "cleaned"}).exitStatus, 0);
    EXPECT_THAT(package_.Run("verify").out, HasSubstr("(NAME.bak is a dangling symlink; -clean skips it)"));
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

TEST_F(RollbackTest, PutsNoLinkBackWhosePointeeIsLeftBehind) {
    package_.Bring("lib.so", "new");
    package_.Bring("lib.so.1", "new");
    package_.WriteEntries("lib.so,lib.so.1");
    package_.Install("lib.so", "new");
    fs::create_symlink("lib.so.1", package_.InstalledPath("lib.so.bak"));
    for (const bool isBackupThere : {false, true}) {
        if (isBackupThere) fs::create_directory(package_.InstalledPath("lib.so.1.bak"));

        EXPECT_THAT(ActionHere("lib.so", Partial()), HasSubstr("NAME.bak is a dangling symlink"));
        EXPECT_EQ(package_.Installed("lib.so"), "new");
    }
}

TEST_F(RollbackTest, PutsNoLinkOverTheFileThatItLeadsTo) {
    package_.Install("tool", "the new tool");
    fs::create_symlink("tool", package_.InstalledPath("tool.bak"));

    EXPECT_EQ(Rollback(), 0);

    EXPECT_EQ(package_.Installed("tool"), "the new tool");
    EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(package_.InstalledPath("tool"))));
}

TEST_F(RollbackTest, OnlyModesTakesNoModeFromABackupThatIsOlderThanThePackage) {
    package_.Install("tool.bak", "much older");
    SetMode("tool.bak", 04755);
    LetTimePass();
    package_.Bring("tool", "the new tool");
    package_.Install("tool", "the new tool");

    EXPECT_EQ(ActionHere("tool", OnlyModes()), "kept: NAME.bak is older than the package");
    EXPECT_EQ(ModeOf("tool"), 0644u);
}

TEST_F(RollbackTest, OnlyModesSetsTheModesOfTheOthersBesideAProblem) {
    UpgradeTwoFiles();
    package_.Install("tool", "configured");
    SetMode("other.bak", 0750);

    int status = 0;
    const nlohmann::json report = ReportHere(OnlyModes(), &status);

    EXPECT_EQ(report["actions"][1]["detail"], "0644 to 0750");
    EXPECT_EQ(report["summary"]["refused"], false);
    EXPECT_EQ(status, 1);
    EXPECT_EQ(ModeOf("other"), 0750u);
}

TEST_F(RollbackTest, OnlyModesTakesNoModeFromADirectory) {
    fs::remove(package_.InstalledPath("tool"));
    fs::create_directory(package_.InstalledPath("tool"));
    RunPasses({"-rename", "-copy"});

    EXPECT_EQ(Rollback({"--only-modes"}), 1);

    EXPECT_EQ(ModeOf("tool"), 0644u);
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

TEST_F(RollbackTest, TakesASecondNameOfTheFileForNoBackup) {
    fs::create_hard_link(package_.InstalledPath("tool"), package_.InstalledPath("tool.bak"));

    EXPECT_EQ(Rollback(), 0);

    EXPECT_THAT(package_.InstalledNames(), ElementsAre("tool", "tool.bak"));
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
    const std::string directory = package_.InstalledPath() + "/";
    const Replaced replaced(calls::open, [&directory](const char* path, int flags, mode_t mode) {
        if (path != directory) return calls::real::open(path, flags, mode);
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
    EXPECT_EQ(opens.FlagsOf(package_.InstalledPath() + "/"), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
}

TEST_F(RollbackTest, OnlyModesLeavesAFileAloneWhoseBackupLeadsNowhere) {
    package_.Install("tool", "the new tool");
    fs::create_symlink("nowhere", package_.InstalledPath("tool.bak"));

    EXPECT_EQ(ActionHere("tool", OnlyModes()), "kept: NAME.bak is not a regular file, nor a symlink to one");
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
    EXPECT_EQ(ActionHere("tool", OnlyModes(), &status), "kept: changed while the rollback ran");
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

TEST_F(RollbackTest, HasNothingToDoForADirectoryWithoutABackup) {
    fs::remove(package_.InstalledPath("tool"));
    fs::create_directory(package_.InstalledPath("tool"));

    int status = 1;
    EXPECT_EQ(ActionHere("tool", {}, &status), "nothing: a directory; no backup");
    EXPECT_EQ(status, 0);
}

TEST_F(RollbackTest, ShowsPeopleWhatItDidToEachFile) {
    package_.Bring("fresh", "fresh");
    package_.Bring("gone", "gone");
    package_.Install("foreign", "old");
    package_.Bring("foreign", "new");
    package_.Install("same", "same");
    package_.Bring("same", "not the same");
    package_.WriteEntries("tool,fresh,gone,foreign,same");
    RunPasses({"-rename", "-copy"});
    fs::remove(package_.InstalledPath("gone"));
    package_.Install("foreign", "edited");
    fs::rename(package_.InstalledPath("same.bak"), package_.InstalledPath("same"));
    const auto show = [this](const RollbackOptions& options) {
        return ShownOnATerminal(package_, [&](Output& output) {
            return ::Rollback(FileList(package_.ListPath()), options, output);
        });
    };
    RollbackOptions dryRun = Partial();
    dryRun.isDryRun = true;
    const std::string why = "{}@/foreign  (neither the package's file nor a beginning of it)\n";
    const std::string same = "{dim}-         {}@/same  (not the package's, no backup)\n\n";

    EXPECT_EQ(show({}),
              "{bold}LIST{}  install type Server\n"
              "\n"
              "{dim}-         {}@/tool  (not restored)\n"
              "{warning}kept      {}@/fresh  (the package's, no backup)\n"
              "{dim}-         {}@/gone  (not there, no backup)\n"
              "{warning}kept      " +
                  why + same +
                  "0 files done, 2 kept, 0 failed.\n"
                  "{error}Nothing is changed because of 1 file. Look at what is kept, or restore the rest: "
                  "--partial{}\n");
    EXPECT_EQ(show(dryRun),
              "{bold}LIST{}  install type Server; a dry run, nothing is changed\n"
              "\n"
              "{good}restore   {}@/tool\n"
              "{warning}keep      {}@/fresh  (the package's, no backup)\n"
              "{dim}-         {}@/gone  (not there, no backup)\n"
              "{warning}keep      " +
                  why + same + "1 file done, 2 kept, 0 failed.\n");
}

TEST_F(RollbackTest, ReportsEachActionAndTheirSum) {
    package_.Bring("fresh", "fresh");
    package_.Bring("second", "second");
    package_.WriteEntries("tool,fresh,second");
    RunPasses({"-rename", "-copy"});

    const nlohmann::json report = ReportHere();

    EXPECT_EQ(report["command"], "rollback");
    EXPECT_EQ(report["fileList"], package_.ListPath());
    EXPECT_EQ(report["installType"], "Server");
    EXPECT_EQ(report["onlyModes"], false);
    EXPECT_EQ(report["dryRun"], false);
    EXPECT_EQ(report["actions"][0], (nlohmann::json{{"target", package_.InstalledPath("tool")},
                                                    {"action", "restored"},
                                                    {"state", "new"},
                                                    {"detail", ""},
                                                    {"problem", false}}));
    EXPECT_EQ(report["summary"], (nlohmann::json{{"restored", 1},
                                                 {"modesSet", 0},
                                                 {"kept", 2},
                                                 {"failed", 0},
                                                 {"nothing", 0},
                                                 {"problems", 0},
                                                 {"refused", false}}));
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
                  "1 file done, 1 kept, 0 failed.\n");
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

TEST_F(RollbackTest, RestoresWhatStandsBehindANewFileThatIsMissing) {
    package_.Bring("fresh", "fresh");
    package_.WriteEntries("fresh,tool");
    RunPasses({"-rename", "-copy"});
    fs::remove(package_.InstalledPath("fresh"));

    EXPECT_EQ(Rollback(), 0);

    EXPECT_EQ(package_.Installed("tool"), "old");
}

}  // namespace
