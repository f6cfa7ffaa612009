// An upgrade that is killed before each of its system calls, and a rollback that is killed in its turn: no
// old file is ever lost, vfilelist tells the truth about what is there, and every way on or back ends well.

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <iostream>
#include <map>
#include <optional>
#include <random>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "FileSystem.h"
#include "Package.h"
#include "Sanitizer.h"
#include "TracedProcess.h"

namespace {

namespace fs = std::filesystem;

struct File {
    std::string content;
    mode_t mode;
    uid_t user;
    gid_t group;

    bool operator==(const File& other) const {
        return std::tie(content, mode, user, group) ==
               std::tie(other.content, other.mode, other.user, other.group);
    }
    bool operator<(const File& other) const {
        return std::tie(content, mode, user, group) <
               std::tie(other.content, other.mode, other.user, other.group);
    }
};

// The installed files by their names, "bin/tool" for example.
using Tree = std::map<std::string, File>;

std::ostream& operator<<(std::ostream& out, const File& file) {
    return out << file.content.size() << " bytes \"" << file.content.substr(0, 20) << "\", mode " << std::oct
               << file.mode << std::dec << ", owner " << file.user << ':' << file.group;
}

std::string Pattern(std::size_t size, int step) {
    std::string bytes(size, '\0');
    for (std::size_t i = 0; i < size; ++i)
        bytes[i] = static_cast<char>('a' + (i * static_cast<std::size_t>(step)) % 23);
    return bytes;
}

// In the order in which the passes visit them; two entries go to lib/twice.
const std::vector<std::string> kTargets = {"bin/tool",  "bin/unchanged", "bin/fresh", "bin/shorter",
                                           "bin/empty", "lib/large",     "lib/twice", "lib/last"};
const std::string kFresh = "bin/fresh";

class KilledUpgradeTest : public testing::Test {
protected:
    KilledUpgradeTest() {
        Bring();
        InstallOldRelease();
        package_.WriteList(
            "[Server]\nBin=@/bin\nLib=@/lib\n[Bin]\nf=bin/tool,bin/unchanged,bin/fresh\n"
            "g=bin/shorter,bin/empty\n[Lib]\nf=lib/large,first/twice,lib/twice,lib/last\n");
    }

    void Bring() {
        new_ = {{"bin/tool", "the new tool"},           {"bin/unchanged", "not changed by the package"},
                {"bin/fresh", "had no predecessor"},    {"bin/shorter", "a beginning and the rest"},
                {"bin/empty", "no longer empty"},       {"lib/large", Pattern(9000, 5)},
                {"lib/twice", "from the second entry"}, {"lib/last", "the last one is unchanged"}};
        for (const auto& [name, content] : new_) package_.Bring(name, content);
        package_.Bring("first/twice", "from the first entry");
    }

    void InstallOldRelease() {
        const uid_t other = geteuid() == 0 ? 65534 : geteuid();
        const gid_t group = geteuid() == 0 ? 65534 : getegid();
        old_ = {{"bin/tool", {"the old tool", 0755, geteuid(), getegid()}},
                {"bin/unchanged", {"not changed by the package", 0600, other, group}},
                {"bin/shorter", {"a beginning", 0640, geteuid(), getegid()}},
                {"bin/empty", {"", 0444, geteuid(), getegid()}},
                {"bin/unlisted", {"nobody's business", 0751, other, group}},
                {"lib/large", {Pattern(7000, 7), 04755, other, group}},
                {"lib/twice", {"was here once", 0700, geteuid(), getegid()}},
                {"lib/last", {"the last one is unchanged", 0711, geteuid(), getegid()}}};
        Restore(old_);
    }

    std::string PathOf(const std::string& name) const { return package_.InstalledPath(name); }

    // Makes the installed release what `tree` says, all of it.
    void Restore(const Tree& tree) const {
        fs::remove_all(package_.InstalledPath());
        package_.scratch().MakeDirectory("installed/bin");
        package_.scratch().MakeDirectory("installed/lib");
        for (const auto& [name, file] : tree) {
            package_.Install(name, file.content);
            if (file.user != geteuid()) {
                ASSERT_EQ(chown(PathOf(name).c_str(), file.user, file.group), 0);
            }
            ASSERT_EQ(chmod(PathOf(name).c_str(), file.mode), 0);
        }
    }

    Tree Installed() const {
        Tree tree;
        for (const auto& entry : fs::recursive_directory_iterator(package_.InstalledPath())) {
            if (entry.is_directory()) continue;
            const struct stat status = StatusOf(entry.path());
            tree[entry.path().lexically_relative(package_.InstalledPath())] = {
                ReadWholeFile(entry.path()), status.st_mode & 07777, status.st_uid, status.st_gid};
        }
        return tree;
    }

    TracedRun RunKilled(const std::vector<std::string>& command, long killAt) const {
        return RunTraced(command, {"VLOGGER_DIRECTORY=" + package_.scratch().Path("log")}, killAt);
    }
    std::vector<std::string> Pass(const std::string& pass) const {
        return {TOOL_PATH, pass, package_.ListPath()};
    }
    std::vector<std::string> Rollback(const std::vector<std::string>& options) const {
        return Concatenate({VFILELIST_PATH, "rollback", package_.ListPath()}, options);
    }

    // Kills `command` before each of its system calls from `firstKill` on, each time after `prepare`, and
    // calls `check` behind it where what is installed then has not been seen before. Returns the number of
    // system calls.
    long Sweep(const std::vector<std::string>& command, const std::function<void()>& prepare,
               const std::function<void(const std::function<void()>& prepareAndKill)>& check,
               long firstKill = 1) const {
        std::set<Tree> seen;
        long killAt = firstKill;
        for (bool wasKilled = true; wasKilled && !HasFatalFailure(); ++killAt) {
            const auto prepareAndKill = [&] {
                prepare();
                wasKilled = RunKilled(command, killAt).wasKilled;
            };
            prepareAndKill();
            const Tree tree = Installed();
            ExpectNothingLost(tree);
            if (!seen.insert(tree).second) continue;
            SCOPED_TRACE(testing::Message() << "killed before system call " << killAt);
            check(prepareAndKill);
        }
        std::cout << command[1] << ": killed at system calls " << firstKill << " to " << killAt - 2 << ", "
                  << seen.size() << " different states\n";
        return killAt - 2;
    }

    void ExpectNothingLost(const Tree& tree) const {
        for (const auto& [name, file] : old_) {
            const auto here = tree.find(name);
            const auto backup = tree.find(name + ".bak");
            const bool isHere = here != tree.end() && here->second == file;
            // A new file may have got the owner and mode already; the old content is in the backup then.
            const bool isBackedUp = backup != tree.end() && backup->second == file;
            EXPECT_TRUE(isHere || isBackedUp) << name << " is lost";
        }
    }

    // The old release, and nothing else but perhaps the new file that had no predecessor.
    void ExpectOldRelease(bool mayHaveNew) const {
        Tree tree = Installed();
        if (mayHaveNew) tree.erase(kFresh);
        EXPECT_EQ(tree, old_);
    }

    void ExpectNewRelease() const {
        const Tree tree = Installed();
        EXPECT_EQ(tree.size(), kTargets.size() + 1);
        for (const auto& [name, content] : new_) {
            ASSERT_EQ(tree.count(name), 1u) << name;
            EXPECT_EQ(tree.at(name).content, content) << name;
        }
        EXPECT_EQ(tree.at("bin/unlisted"), old_.at("bin/unlisted"));
    }

    // -clean removes the old files, but not before every new one is in place.
    void ExpectNothingLostSince(const std::string& pass) const {
        if (pass != "-clean") return ExpectNothingLost(Installed());
        const Tree tree = Installed();
        for (const auto& [name, content] : new_) EXPECT_EQ(StateOf(tree, name), "new") << name;
    }

    // Does what verify says, as ExpectTheWayOnEndsWell, and looks for the old files in between.
    void ExpectNothingLostOnTheWayOn(std::string pass) const {
        for (int step = 0; step < 4; ++step) {
            const nlohmann::json next = package_.RunJson("verify")["summary"]["next"];
            if (next.is_null()) break;
            pass = next;
            ASSERT_EQ(package_.RunPass(pass), 0) << pass;
            ExpectNothingLostSince(pass);
        }
        EXPECT_EQ(pass, "-clean");
        ExpectTheWayOnEndsWell();
    }

    int Status(const std::vector<std::string>& command) const { return RunProcess(command).exitStatus; }

    // What each target's state is, seen without vfilelist's help.
    std::string StateOf(const Tree& tree, const std::string& name) const {
        const auto found = tree.find(name);
        if (found == tree.end()) return "missing";
        const std::string& content = found->second.content;
        const std::string& wanted = new_.at(name);
        if (content == wanted) return "new";
        if (name == "lib/twice" && content == std::string("from the first entry").substr(0, content.size())) {
            return "partial";
        }
        return wanted.compare(0, content.size(), content) == 0 ? "partial" : "old";
    }

    // `next`: the pass to run next, or empty when nothing is left to do.
    void ExpectTruth(const std::string& next) const {
        const Tree tree = Installed();
        const nlohmann::json report = package_.RunJson("verify");
        ASSERT_EQ(report["targets"].size(), kTargets.size());
        for (std::size_t i = 0; i < kTargets.size(); ++i) {
            const nlohmann::json& target = report["targets"][i];
            EXPECT_EQ(target["target"], PathOf(kTargets[i]));
            EXPECT_EQ(target["state"], StateOf(tree, kTargets[i])) << kTargets[i];
            EXPECT_EQ(target["backup"], tree.count(kTargets[i] + ".bak") == 1) << kTargets[i];
        }
        const nlohmann::json& summary = report["summary"];
        EXPECT_EQ(summary["next"].is_null() ? "" : summary["next"].get<std::string>(), next);
        const auto state = [&next](const char* pass) {
            const std::vector<std::string> order = {"-rename", "-copy", "-clean", ""};
            const auto at = [&order](const std::string& name) {
                return std::find(order.begin(), order.end(), name);
            };
            return at(pass) < at(next) ? "complete" : "incomplete";
        };
        EXPECT_EQ(summary["passes"]["rename"], state("-rename"));
        EXPECT_EQ(summary["passes"]["copy"], state("-copy"));
        EXPECT_EQ(summary["passes"]["clean"], state("-clean"));
    }

    // Does what verify says until nothing is left to do.
    void ExpectTheWayOnEndsWell() const {
        for (int step = 0; step < 4; ++step) {
            const nlohmann::json next = package_.RunJson("verify")["summary"]["next"];
            if (next.is_null()) break;
            ASSERT_EQ(package_.RunPass(next), 0) << next;
        }
        ExpectNewRelease();
        EXPECT_EQ(package_.Run("verify", {"--expect", "cleaned"}).exitStatus, 0);
    }

    void ExpectRollbackEndsWell() const {
        EXPECT_EQ(Status(Rollback({})), 0);
        ExpectOldRelease(true);
        const Tree tree = Installed();
        EXPECT_EQ(Status(Rollback({})), 0);
        EXPECT_EQ(Installed(), tree);
    }

    // Also with the removal of new files; only what is certain may go.
    void ExpectRollbackWithRemovalEndsWell() const {
        const Tree before = Installed();
        (void)Status(Rollback({"--remove-new"}));
        const bool wasCopied = before.count("bin/tool.bak") == 1 && StateOf(before, "bin/tool") == "new" &&
                               before.count(kFresh) == 1 && before.at(kFresh).content == new_.at(kFresh);
        ExpectOldRelease(!wasCopied);
        const Tree tree = Installed();
        (void)Status(Rollback({"--remove-new"}));
        EXPECT_EQ(Installed(), tree);
    }

    // What vfilelist does before it looks at anything.
    long StartUpCalls() const { return RunKilled({VFILELIST_PATH, "--version"}, 0).systemCalls - 10; }

    void RunPassWhole(const char* pass) const { ASSERT_EQ(package_.RunPass(pass), 0); }

    Package package_;
    std::map<std::string, std::string> new_;
    Tree old_;
};

#define SKIP_WITHOUT_TRACING()                                            \
    do {                                                                  \
        std::string why;                                                  \
        if (!CanTrace(why)) GTEST_SKIP() << "no tracing: " << why;        \
        if (VFS_TEST_ADDRESS_SANITIZER || VFS_TEST_THREAD_SANITIZER) {    \
            GTEST_SKIP() << "most system calls would be the sanitizer's"; \
        }                                                                 \
    } while (false)

TEST_F(KilledUpgradeTest, NothingIsLostWhereverRenameIsKilled) {
    SKIP_WITHOUT_TRACING();
    const auto prepare = [this] { Restore(old_); };
    const long systemCalls = Sweep(Pass("-rename"), prepare, [this](const std::function<void()>& again) {
        std::size_t moved = 0;
        for (const auto& [name, file] : Installed()) moved += fs::path(name).extension() == ".bak" ? 1U : 0U;
        ExpectTruth(moved == old_.size() - 1 ? "-copy" : "-rename");
        ExpectTheWayOnEndsWell();
        again();
        ExpectRollbackEndsWell();
        again();
        ExpectRollbackWithRemovalEndsWell();
    });
    EXPECT_GE(systemCalls, 100);
}

TEST_F(KilledUpgradeTest, NothingIsLostWhereverCopyIsKilled) {
    SKIP_WITHOUT_TRACING();
    const auto prepare = [this] {
        Restore(old_);
        RunPassWhole("-rename");
    };
    const long systemCalls = Sweep(Pass("-copy"), prepare, [this](const std::function<void()>& again) {
        const Tree tree = Installed();
        const bool isDone = std::all_of(kTargets.begin(), kTargets.end(), [&](const std::string& name) {
            return StateOf(tree, name) == "new";
        });
        ExpectTruth(isDone ? "-clean" : "-copy");
        ExpectTheWayOnEndsWell();
        again();
        ExpectRollbackEndsWell();
        again();
        ExpectRollbackWithRemovalEndsWell();
    });
    EXPECT_GE(systemCalls, 200);
}

TEST_F(KilledUpgradeTest, TheNewReleaseStandsWhereverCleanIsKilled) {
    SKIP_WITHOUT_TRACING();
    long killAt = 1;
    for (bool wasKilled = true; wasKilled; ++killAt) {
        SCOPED_TRACE(testing::Message() << "killed before system call " << killAt);
        Restore(old_);
        RunPassWhole("-rename");
        RunPassWhole("-copy");
        wasKilled = RunKilled(Pass("-clean"), killAt).wasKilled;

        Tree tree = Installed();
        for (const auto& [name, content] : new_) {
            ASSERT_EQ(tree.count(name), 1u) << name;
            ASSERT_EQ(tree.at(name).content, content) << name;
        }
        const bool isDone = std::none_of(tree.begin(), tree.end(), [](const auto& file) {
            return fs::path(file.first).extension() == ".bak";
        });
        if (killAt % 5 == 0) ExpectTruth(isDone ? "" : "-clean");
    }
    EXPECT_GE(killAt, 100);
    ExpectTheWayOnEndsWell();
}

TEST_F(KilledUpgradeTest, ARollbackCanBeKilledAnywhereAndRunAgain) {
    SKIP_WITHOUT_TRACING();
    const long halfOfCopy = [this] {
        Restore(old_);
        RunPassWhole("-rename");
        const long systemCalls = RunKilled(Pass("-copy"), 0).systemCalls;
        return systemCalls - systemCalls / 4;
    }();
    const std::vector<std::pair<const char*, std::function<void()>>> states = {
        {"after -rename", [this] { RunPassWhole("-rename"); }},
        {"in the middle of -copy",
         [this, halfOfCopy] {
             RunPassWhole("-rename");
             ASSERT_TRUE(RunKilled(Pass("-copy"), halfOfCopy).wasKilled);
         }},
        {"after -copy",
         [this] {
             RunPassWhole("-rename");
             RunPassWhole("-copy");
         }},
    };
    for (const auto& [name, reach] : states) {
        for (const std::vector<std::string>& options :
             {std::vector<std::string>{}, std::vector<std::string>{"--remove-new"}}) {
            SCOPED_TRACE(testing::Message() << name << " " << testing::PrintToString(options));
            const auto prepare = [this, reach = reach] {
                Restore(old_);
                reach();
            };
            Sweep(
                Rollback(options), prepare,
                [&](const std::function<void()>&) {
                    (void)Status(Rollback(options));
                    ExpectOldRelease(true);
                },
                StartUpCalls());
        }
    }
}

TEST_F(KilledUpgradeTest, SettingModesCanBeKilledAnywhereAndRunAgain) {
    SKIP_WITHOUT_TRACING();
    const auto prepare = [this] {
        Restore(old_);
        RunPassWhole("-rename");
        RunPassWhole("-copy");
    };
    Sweep(Rollback({"--only-modes"}), prepare, [this](const std::function<void()>&) {
        EXPECT_EQ(Status(Rollback({"--only-modes"})), 0);
        Tree tree = Installed();
        for (const auto& [name, file] : old_) {
            EXPECT_EQ(tree.at(name).mode, file.mode) << name;
            EXPECT_EQ(tree.at(name).user, file.user) << name;
            EXPECT_EQ(tree.at(name).group, file.group) << name;
        }
        EXPECT_EQ(package_.Run("verify").exitStatus, 0);
    });
}

// Kills the pass twice, each time somewhere in its work, then follows verify to the end.
TEST_F(KilledUpgradeTest, EndsWellWhereverAPassIsKilledAndKilledAgain) {
    SKIP_WITHOUT_TRACING();
    const std::vector<std::string> passes = {"-rename", "-copy", "-clean"};
    const long startUpCalls = RunKilled({TOOL_PATH}, 0).systemCalls - 20;
    std::minstd_rand random(20261121);
    std::set<Tree> seen;
    for (std::size_t pair = 0; pair < 150 && !HasFailure(); ++pair) {
        const auto pass = passes.begin() + static_cast<std::ptrdiff_t>(pair % passes.size());
        Restore(old_);
        for (auto before = passes.begin(); before != pass; ++before) ASSERT_EQ(package_.RunPass(*before), 0);
        for (int kill = 1; kill <= 2; ++kill) {
            const long killAt = startUpCalls + static_cast<long>(random() % 300);
            SCOPED_TRACE(testing::Message()
                         << *pass << ", kill " << kill << " before system call " << killAt);
            (void)RunKilled(Pass(*pass), killAt);
            ExpectNothingLostSince(*pass);
        }
        seen.insert(Installed());
        ExpectNothingLostOnTheWayOn(*pass);
    }
    EXPECT_GE(seen.size(), 20u);
    std::cout << "150 pairs of kills, " << seen.size() << " different states\n";
}

}  // namespace
