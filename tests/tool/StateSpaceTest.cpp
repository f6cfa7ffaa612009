// All states that a host can be in: from every beginning, every command of the two programs, killed behind
// each of its changes or not, and again every command on what that leaves, until nothing new appears.
//
// The space is searched in a model of the commands; the real ones then have to do on each of its states, step
// by step, what the model says. So what they can reach from the beginnings is the model's space, no more and
// no less, and what is shown of the model's roads is true of theirs. The states may be taken in any order, by
// several processes. The targets are not alike, since the passes visit them in their order, and no two of
// them are taken for each other.
//
// `rollback --only-modes` is left out: modes are no part of these states.

#include <gtest/gtest.h>

#include <algorithm>
#include <iostream>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "Process.h"
#include "Scale.h"
#include "StateSpace.h"
#include "StateSpaceHost.h"

namespace {

bool IsSoak() {
    return TestScale() >= 100;
}

std::size_t TargetCount() {
    return IsSoak() ? 3 : 2;
}

// A change of these says that a command leaves other states than before: find out which, and why.
std::size_t ExpectedStates() {
    return IsSoak() ? 3'548'513 : 47'046;
}

bool IsPass(Command command) {
    return command == Command::kRename || command == Command::kCopy || command == Command::kClean;
}

bool IsNew(const Place& target) {
    return target.name.what == What::kNew;
}

bool HasNoBackup(const Place& target) {
    return target.backup.what == What::kNothing;
}

// Whether that is true of each target, before and now.
template <typename Predicate>
bool AllTargets(const Host& before, const Host& now, Predicate predicate) {
    for (std::size_t i = 0; i < now.count; ++i) {
        if (!predicate(before.targets[i], now.targets[i])) return false;
    }
    return true;
}

template <typename Predicate>
bool AllTargets(const Host& host, Predicate predicate) {
    return AllTargets(host, host, [&](const Place& target, const Place&) { return predicate(target); });
}

bool HasOldFile(const Place& target) {
    return target.name.mark == Mark::kOld || target.backup.mark == Mark::kOld;
}

// A: what was under NAME or NAME.bak still is. What the package holds, too, can't be lost.
bool IsNothingLost(const Host& before, const Host& now) {
    return AllTargets(before, now, [](const Place& was, const Place& is) {
        const bool isInPackage = was.origin == What::kNew;
        return !HasOldFile(was) || HasOldFile(is) || isInPackage;
    });
}

// B: NAME is as it was; the passes by hand begin -clean when all are new.
bool IsNameUntouched(const Host& before, const Host& now) {
    return AllTargets(before, now,
                      [](const Place& was, const Place& is) { return was.name.what == is.name.what; });
}

// To the last file, and with nothing beside it but what was set aside. A directory that came before -copy had
// begun is not the upgrade's, and one that has something in it stays.
bool IsOldAgain(const Host& before, const Host& now) {
    const Stage undone = before.stage == Stage::kUndoing ? before.undone : before.stage;
    const bool isNeeded =
        undone == Stage::kRenaming || now.targets[now.count - std::size_t{1}].setAside != What::kNothing;
    return (now.hasDirectory == before.hadDirectory || isNeeded) &&
           AllTargets(before, now, [](const Place& was, const Place& is) {
               return is.name.what == was.origin && HasNoBackup(is);
           });
}

// What the road from a state ends in, when each command does what it can and comes to its end.
enum class End { kOld, kNew, kKept, kLook, kNoEnd };

class StateSpaceRoads : public testing::Test {
protected:
    void SetUp() override {
        if (kIsSlow) GTEST_SKIP() << "the roads are the model's, which has no code of the programs";
    }

    // Of one command that was named for the state: what holds behind each of its changes.
    static std::string FaultOf(Command command, const Outcome& outcome) {
        const Host& before = outcome.before();
        const bool isBeyondReturn =
            command == Command::kClean || command == Command::kCommit || before.stage == Stage::kCleaning;
        for (const Host& now : outcome.states) {
            if (now.isStrange) return "E";
            if (isBeyondReturn && !IsNameUntouched(before, now)) return "B";
            if (!isBeyondReturn && !IsNothingLost(before, now)) return "A";
        }
        if (command == Command::kClean && !AllTargets(before, IsNew)) return "B: -clean too early";
        if (IsPass(command)) return outcome.status == 0 ? "" : "C: the named pass fails";
        if (outcome.status == 3) return "";
        if (outcome.status != 0) return "what status names is refused";
        const bool isDone =
            isBeyondReturn ? AllTargets(outcome.end(), HasNoBackup) : IsOldAgain(before, outcome.end());
        return isDone && !outcome.end().IsOpen() ? "" : "not what it says";
    }

    // Where an open upgrade ends when `command` takes it up; it is one step.
    static End EndOfUpgrade(Command command, const Host& host) {
        const Outcome outcome = ModelOf(command, host);
        if (outcome.status == 3) return End::kLook;
        if (command != Command::kCommit) return End::kOld;
        // What another process has made of a new file since is the operator's to judge before a commit.
        return AllTargets(outcome.end(), IsNew) ? End::kNew : End::kKept;
    }

    static End EndOfPasses(Host host) {
        constexpr int kLongest = 4;
        for (int step = 0; step < kLongest; ++step) {
            const Advice advice = ModelOfAdvice(host);
            if (advice.isInDoubt) return End::kLook;
            if (advice.next.empty()) {
                const bool isDone = AllTargets(host, [](const Place& target) { return IsNew(target); });
                return isDone ? End::kNew : End::kNoEnd;
            }
            host = Settled(ModelOf(advice.next.front(), host).end());
        }
        return End::kNoEnd;
    }

    void Follow(const Host& host) {
        const Advice advice = ModelOfAdvice(host);
        if (!host.IsOpen()) ++ends_[{false, EndOfPasses(host)}];
        for (const Command command : advice.next) {
            const std::string fault = FaultOf(command, ModelOf(command, host));
            EXPECT_EQ(fault, "") << NameOf(command) << " on " << host;
            if (host.IsOpen()) ++ends_[{true, EndOfUpgrade(command, host)}];
        }
    }

    // D: from a beginning of which check says no more than that there are old backups.
    static bool IsUsual(const Host& host) {
        return AllTargets(host, [](const Place& target) {
            if (HasNoBackup(target)) return true;
            const bool isFile = target.backup.what != What::kLink && target.backup.what != What::kDirectory;
            return isFile && target.name.what != What::kNew && target.name.what != What::kPart;
        });
    }

    static bool EndsNew(Host host, std::size_t pass) {
        constexpr std::array<Command, 3> kPasses = {Command::kRename, Command::kCopy, Command::kClean};
        for (; pass < kPasses.size(); ++pass) {
            const Outcome outcome = ModelOf(kPasses[pass], host);
            if (outcome.status != 0) return false;
            host = outcome.end();
        }
        return AllTargets(host, [](const Place& target) { return IsNew(target) && HasNoBackup(target); });
    }

    std::map<std::pair<bool, End>, long> ends_;
};

TEST_F(StateSpaceRoads, LeadToTheOldFilesOrTheNewOnesOrToAPerson) {
    const std::set<Host> states = AllStates(TargetCount());

    for (const Host& host : states) {
        Follow(host);
        if (HasFailure()) break;
    }

    const char* const names[] = {"old", "new", "kept as it is", "to look at", "no end"};
    for (const auto& [end, count] : ends_) {
        std::cout << (end.first ? "an open upgrade" : "passes by hand") << ": "
                  << names[static_cast<int>(end.second)] << " " << count << "\n";
        EXPECT_NE(end.second, End::kNoEnd);
    }
    std::cout << TargetCount() << " targets: " << states.size() << " states\n";
    EXPECT_EQ(states.size(), ExpectedStates());
}

std::vector<Host> WithoutBackups(std::vector<Host> hosts) {
    const auto hasBackup = [](const Host& host) { return !AllTargets(host, HasNoBackup); };
    hosts.erase(std::remove_if(hosts.begin(), hosts.end(), hasBackup), hosts.end());
    return hosts;
}

TEST_F(StateSpaceRoads, NeedNobodyWhileVfilelistAloneIsAtWork) {
    const std::set<Host> states = StatesFrom(WithoutBackups(Beginnings(TargetCount())),
                                             {Command::kUpgrade, Command::kCommit, Command::kRollback,
                                              Command::kPartialRollback, Command::kResume});
    long steps = 0;
    for (const Host& host : states) {
        if (!host.IsOpen()) continue;
        for (const Command command : ModelOfAdvice(host).next) {
            const End end = EndOfUpgrade(command, host);
            ASSERT_TRUE(end == End::kOld || end == End::kNew) << NameOf(command) << " on " << host;
            ++steps;
        }
    }
    std::cout << states.size() << " states, " << steps << " steps\n";
    EXPECT_GT(steps, 300);
}

// A beginning without a backup may have been installed before, as far as anybody can see.
TEST_F(StateSpaceRoads, OfPassesByHandNeedAPersonOnlyForABeginningWithoutABackup) {
    std::vector<Host> toDo = WithoutBackups(Beginnings(TargetCount()));
    std::set<Host> found(toDo.begin(), toDo.end());
    long doubts = 0;
    while (!toDo.empty()) {
        const Host host = toDo.back();
        toDo.pop_back();
        const Advice advice = ModelOfAdvice(host);
        const auto isCutOff = [](const Place& target) {
            return target.name.what == What::kPart && HasNoBackup(target);
        };
        const bool hasCutOff = !AllTargets(host, [&](const Place& target) { return !isCutOff(target); });
        ASSERT_TRUE(!advice.isInDoubt || hasCutOff) << host;
        if (advice.isInDoubt) ++doubts;
        for (const Command command : advice.next) {
            for (const Host& state : ModelOf(command, host).states)
                if (found.insert(state).second) toDo.push_back(state);
        }
    }
    std::cout << found.size() << " states, " << doubts << " in doubt\n";
    EXPECT_GT(found.size(), 100u);
}

TEST_F(StateSpaceRoads, LeadToTheNewFilesWhereverAPassIsRepeated) {
    constexpr std::array<Command, 3> kPasses = {Command::kRename, Command::kCopy, Command::kClean};
    long kills = 0;
    for (Host host : Beginnings(TargetCount())) {
        if (!IsUsual(host)) continue;
        for (std::size_t pass = 0; pass < kPasses.size(); ++pass) {
            const Outcome outcome = ModelOf(kPasses[pass], host);
            for (const Host& killed : outcome.states) {
                ASSERT_TRUE(EndsNew(killed, pass)) << NameOf(kPasses[pass]) << " again on " << killed;
                ++kills;
            }
            host = outcome.end();
        }
    }
    std::cout << kills << " killed passes\n";
    EXPECT_GT(kills, 1000);
}

// What such a command does is told by the stage alone, without a look at the files. A partial rollback of an
// open upgrade is another rollback until a file can't be looked at.
bool IsToldByStage(Command command, const Host& host) {
    switch (command) {
        case Command::kUpgrade:
            return host.IsOpen();
        case Command::kCommit:
            return host.stage != Stage::kInstalled && host.stage != Stage::kCleaning;
        case Command::kPartialRollback:
            return host.IsOpen();
        case Command::kRollback:
            return host.stage == Stage::kCleaning;
        case Command::kResume:
            return !host.IsOpen() || host.stage == Stage::kInstalled;
        default:
            return false;
    }
}

// Where both do one and the same.
bool IsResumedByRollback(const Host& host) {
    return host.stage == Stage::kRenaming || host.stage == Stage::kCopying || host.stage == Stage::kUndoing;
}

class StateSpaceOf : public testing::TestWithParam<std::size_t> {
protected:
    void Compare(const Host& host) {
        SCOPED_TRACE(testing::Message() << host);
        real_.Build(host);
        ASSERT_EQ(real_.Look(), host);
        ASSERT_EQ(real_.Ask(), ModelOfAdvice(host));
        ++states_;
        for (const Command command : kCommands) {
            if (IsWorthIt(command, host)) Compare(command, host);
            if (HasFatalFailure()) return;
        }
    }
    long states() const { return states_; }
    long runs() const { return runs_; }

private:
    // What is not worth it is done on some states.
    bool IsWorthIt(Command command, const Host& host) {
        constexpr long kSome = 16;
        if (IsSoak() || states_ % kSome == 0) return true;
        if (IsPass(command)) return IsNewTree(command, host);
        const Command left = states_ % 2 == 0 ? Command::kRollback : Command::kResume;
        if (command == left && IsResumedByRollback(host)) return false;
        return !IsToldByStage(command, host);
    }

    // The tool knows nothing of vfilelist's journal: what it does to a tree, it does at every stage.
    bool IsNewTree(Command command, const Host& host) {
        Host tree = host;
        tree.stage = tree.undone = Stage::kClosed;
        tree.hadDirectory = true;
        for (Place& target : tree.targets) target.origin = What::kNothing;
        return passed_.insert({command, tree}).second;
    }

    void Compare(Command command, const Host& host) {
        SCOPED_TRACE(NameOf(command));
        const Outcome outcome = real_.Run(command);
        const Outcome expected = ModelOf(command, host);
        ++runs_;
        ASSERT_EQ(outcome.status, expected.status) << real_.said();
        ASSERT_EQ(outcome.states, expected.states) << real_.said();
        if (outcome.states.size() > 1) real_.Build(host);
    }

    RealHost real_{TargetCount()};
    std::set<std::pair<Command, Host>> passed_;
    long states_ = 0;
    long runs_ = 0;
};

// A shard is for a process; the soak takes one of three targets. Commands that are watched or emulated take
// many times as long, and do a sample.
std::size_t ShardCount() {
    return IsSoak() ? 32 : 8;
}
constexpr std::size_t kStep = kIsSlow ? 50 : 1;
const std::vector<std::string> kNoOptions = {};

TEST_P(StateSpaceOf, TheRealCommandsIsThatOfTheModel) {
    CONTINUE_IN_PRIVATE_NAMESPACE(kNoOptions);
    std::size_t index = 0;
    for (const Host& host : AllStates(TargetCount())) {
        if (index++ % (ShardCount() * kStep) == GetParam()) Compare(host);
        if (HasFailure()) break;
    }
    std::cout << runs() << " runs on " << states() << " states\n";
    EXPECT_GE(states(), kIsSlow ? 100 : 5'000);
}

INSTANTIATE_TEST_SUITE_P(Shard, StateSpaceOf,
                         testing::Range(std::size_t{0}, IsSoak() || kIsSlow ? 1 : ShardCount()));

}  // namespace
