// An upgrade that is killed before each of its system calls, and a rollback that is killed in its turn: no
// old file is ever lost, vfilelist tells the truth about what is there, and every way on or back ends well.

#include <unistd.h>

#include <algorithm>
#include <functional>
#include <iostream>
#include <random>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "KilledUpgrade.h"
#include "Scale.h"

namespace {

// In the order in which the passes visit them; two entries go to lib/twice.
const std::vector<std::string> kTargets = {"bin/tool",  "bin/unchanged", "bin/fresh", "bin/shorter",
                                           "bin/empty", "lib/large",     "lib/twice", "lib/last"};
const std::string kFresh = "bin/fresh";
constexpr std::size_t kPredecessors = 7;  // of all but the fresh one

class KilledUpgradeTest : public KilledUpgrade {
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
                {"bin/unlisted.bak", {"nor is this", 0600, geteuid(), getegid()}},
                {"lib/large", {Pattern(7000, 7), 04755, other, group}},
                {"lib/twice", {"was here once", 0700, geteuid(), getegid()}},
                {"lib/last", {"the last one is unchanged", 0711, geteuid(), getegid()}}};
        Restore(old_);
        old_ = Installed();  // the directories too
    }

    std::vector<std::string> Rollback(const std::vector<std::string>& options) const {
        return Concatenate({VFILELIST_PATH, "rollback", package_.ListPath()}, options);
    }

    // The old release, and nothing else but perhaps the new file that had no predecessor.
    void ExpectOldRelease() const {
        Tree tree = Installed();
        tree.erase(kFresh);
        EXPECT_EQ(tree, old_);
    }

    // A part of the file that had no predecessor may have been installed before, as far as vfilelist knows.
    bool IsInDoubt(const Tree& tree) const {
        const bool isCopyBegun = tree.count("bin/tool") == 1 && tree.count("bin/tool.bak") == 1;
        return isCopyBegun && StateOf(tree, kFresh) == "partial";
    }

    // What verify names; what was cut off, where verify leaves the decision to people. Empty at the end.
    std::string PassToRun() const {
        if (IsInDoubt(Installed())) return "-copy";
        const nlohmann::json next = package_.RunJson("verify")["summary"]["next"];
        return next.is_null() ? "" : next.get<std::string>();
    }

    // Does what verify says, as ExpectTheWayOnEndsWell, and looks for the old files in between.
    void ExpectNothingLostOnTheWayOn(std::string pass) const {
        for (int step = 0; step < 4; ++step) {
            const std::string next = PassToRun();
            if (next.empty()) break;
            pass = next;
            RunPassWhole(pass);
            ExpectInvariantsSince(pass, Installed());
        }
        EXPECT_EQ(pass, "-clean");
        ExpectTheWayOnEndsWell();
    }

    int Status(const std::vector<std::string>& command) const { return RunProcess(command).exitStatus; }

    std::size_t ListedBackups() const {
        const Tree tree = Installed();
        return static_cast<std::size_t>(
            std::count_if(kTargets.begin(), kTargets.end(),
                          [&](const auto& name) { return tree.count(name + ".bak") == 1; }));
    }

    bool IsAllNew() const {
        const Tree tree = Installed();
        return std::all_of(kTargets.begin(), kTargets.end(),
                           [&](const auto& name) { return StateOf(tree, name) == "new"; });
    }

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
        const bool isInDoubt = IsInDoubt(tree);
        EXPECT_EQ(summary["next"].is_null() ? "" : summary["next"].get<std::string>(), isInDoubt ? "" : next);
        const std::string reason = summary["reason"];
        EXPECT_EQ(reason.substr(0, reason.find(':')), isInDoubt ? PathOf(kFresh) : "");
        const auto state = [&next, isInDoubt](const char* pass) {
            if (isInDoubt) return "unknown";
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
            const std::string next = PassToRun();
            if (next.empty()) break;
            RunPassWhole(next);
        }
        ExpectNewRelease();
        EXPECT_EQ(package_.Run("verify", {"--expect", "cleaned"}).exitStatus, 0);
    }

    void ExpectRollbackEndsWell() const {
        EXPECT_EQ(Status(Rollback({})), 0);
        ExpectOldRelease();
        const Tree tree = Installed();
        EXPECT_EQ(Status(Rollback({})), 0);
        EXPECT_EQ(Installed(), tree);
    }

    // What vfilelist does before it looks at anything.
    long StartUpCalls() const { return RunKilled({VFILELIST_PATH, "--version"}, 0).systemCalls - 10; }
};

// How many system calls there are depends on the loader and the C library, most of all before main; the
// floors are about nine tenths of what Debian 12 has. The states of -rename, -clean and the rollback depend
// on the list alone.
TEST_F(KilledUpgradeTest, NothingIsLostWhereverRenameIsKilled) {
    SKIP_WITHOUT_TRACING();
    const auto prepare = [this] { Restore(old_); };
    const auto check = [this](const std::function<void()>& again) {
        ExpectTruth(ListedBackups() == kPredecessors ? "-copy" : "-rename");
        ExpectTheWayOnEndsWell();
        again();
        ExpectRepeatEndsWell("-rename");
        again();
        ExpectRollbackEndsWell();
    };
    const Swept swept = Sweep({Pass("-rename"), prepare, check});
    EXPECT_EQ(swept.states, kPredecessors + 1);
    EXPECT_GE(swept.systemCalls, 285);
}

TEST_F(KilledUpgradeTest, NothingIsLostWhereverCopyIsKilled) {
    SKIP_WITHOUT_TRACING();
    const auto prepare = [this] {
        Restore(old_);
        RunPassWhole("-rename");
    };
    const auto check = [this](const std::function<void()>& again) {
        ExpectTruth(IsAllNew() ? "-clean" : "-copy");
        ExpectTheWayOnEndsWell();
        again();
        ExpectRepeatEndsWell("-copy");
        again();
        ExpectRollbackEndsWell();
    };
    const Swept swept = Sweep({Pass("-copy"), prepare, check});
    EXPECT_GE(swept.states, 18u);
    EXPECT_GE(swept.systemCalls, 430);
}

TEST_F(KilledUpgradeTest, TheNewReleaseStandsWhereverCleanIsKilled) {
    SKIP_WITHOUT_TRACING();
    const auto prepare = [this] {
        Restore(old_);
        RunPassWhole("-rename");
        RunPassWhole("-copy");
    };
    const auto check = [this](const std::function<void()>& again) {
        ExpectTruth(ListedBackups() > 0 ? "-clean" : "");
        ExpectTheWayOnEndsWell();
        again();
        ExpectRepeatEndsWell("-clean");
    };
    const Swept swept = Sweep({Pass("-clean"), prepare, check});
    EXPECT_EQ(swept.states, kPredecessors + 1);
    EXPECT_GE(swept.systemCalls, 285);
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
        SCOPED_TRACE(name);
        const auto prepare = [this, reach = reach] {
            Restore(old_);
            reach();
        };
        const auto check = [this](const auto&) { ExpectRollbackEndsWell(); };
        const Swept swept = Sweep({Rollback({}), prepare, check}, StartUpCalls());
        EXPECT_GE(swept.states, kPredecessors + 1);
    }
}

TEST_F(KilledUpgradeTest, SettingModesCanBeKilledAnywhereAndRunAgain) {
    SKIP_WITHOUT_TRACING();
    const auto prepare = [this] {
        Restore(old_);
        RunPassWhole("-rename");
        RunPassWhole("-copy");
    };
    const auto check = [this](const auto&) {
        EXPECT_EQ(Status(Rollback({"--only-modes"})), 0);
        Tree tree = Installed();
        for (const auto& [name, file] : old_) {
            EXPECT_EQ(tree.at(name).mode, file.mode) << name;
            EXPECT_EQ(tree.at(name).user, file.user) << name;
            EXPECT_EQ(tree.at(name).group, file.group) << name;
        }
        EXPECT_EQ(package_.Run("verify").exitStatus, 0);
    };
    const Swept swept = Sweep({Rollback({"--only-modes"}), prepare, check});
    EXPECT_GE(swept.states, kPredecessors + 1);
}

// Kills the pass twice, each time somewhere in its work, then follows verify to the end.
TEST_F(KilledUpgradeTest, EndsWellWhereverAPassIsKilledAndKilledAgain) {
    SKIP_WITHOUT_TRACING();
    const std::vector<std::string> passes = {"-rename", "-copy", "-clean"};
    const long startUpCalls = RunKilled({TOOL_PATH}, 0).systemCalls - 20;
    std::minstd_rand random(20261121);
    std::set<Tree> seen;
    const std::size_t pairs = static_cast<std::size_t>(std::min(150 * TestScale(), 1000L));
    for (std::size_t pair = 0; pair < pairs && !HasFailure(); ++pair) {
        const auto pass = passes.begin() + static_cast<std::ptrdiff_t>(pair % passes.size());
        Restore(old_);
        for (auto before = passes.begin(); before != pass; ++before) RunPassWhole(*before);
        for (int kill = 1; kill <= 2; ++kill) {
            const long killAt = startUpCalls + static_cast<long>(random() % 300);
            SCOPED_TRACE(testing::Message()
                         << *pass << ", kill " << kill << " before system call " << killAt);
            (void)RunKilled(Pass(*pass), killAt);
            ExpectInvariantsSince(*pass, Installed());
        }
        seen.insert(Installed());
        ExpectNothingLostOnTheWayOn(*pass);
    }
    EXPECT_GE(seen.size(), 20u);
    std::cout << pairs << " pairs of kills, " << seen.size() << " different states\n";
}

}  // namespace
