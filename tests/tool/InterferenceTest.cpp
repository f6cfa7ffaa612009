// Another process works on the same files as vfilelist, between any two of its steps: what it writes is kept,
// nothing else is lost, and what can't be made the old or the new release is named.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <iostream>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <ostream>
#include <stdexcept>
#include <string>
#include <vector>

#include "OtherProcess.h"
#include "Release.h"
#include "Sanitizer.h"
#include "Scale.h"
#include "TracedTree.h"

namespace fs = std::filesystem;

namespace {

// What the command finds: an upgrade, if any, and a command that was killed half-way through a state, if any.
struct Scenario {
    std::string command;
    bool isUpgraded;
    std::string killed;
    std::string state;
    bool endsNew;            // the way on is that of commit
    std::size_t leastCells;  // about nine tenths of what there are with the C library of Debian 12
};
const Scenario kScenarios[] = {{"upgrade", false, "", "", false, 3250},
                               {"rollback", true, "", "", false, 1020},
                               {"commit", true, "", "", true, 1230},
                               {"resume", false, "upgrade", "renaming", false, 370},
                               {"resume", false, "upgrade", "copying", false, 890},
                               {"resume", true, "rollback", "undoing", false, 690},
                               {"resume", true, "commit", "cleaning", true, 850}};

std::string NameOf(const Scenario& scenario) {
    return scenario.command + (scenario.state.empty() ? "" : "_" + scenario.state);
}

void PrintTo(const Scenario& scenario, std::ostream* stream) {
    *stream << NameOf(scenario);
}

struct Thing {
    const char* text;
    Act act;
    const char* suffix;  // of the name that it comes to
};
const Thing kThings[] = {
    {"replaces a target", Act::kReplace, ""},    {"removes a target", Act::kRemove, ""},
    {"truncates a target", Act::kTruncate, ""},  {"writes to a target", Act::kWrite, ""},
    {"makes a target", Act::kPut, ""},           {"replaces a backup", Act::kReplace, ".bak"},
    {"removes a backup", Act::kRemove, ".bak"},  {"truncates a backup", Act::kTruncate, ".bak"},
    {"writes to a backup", Act::kWrite, ".bak"}, {"makes a backup", Act::kPut, ".bak"}};

// One that is there before, one that is not, and one in a directory that is made. A fourth one is not
// touched.
const char* const kTargets[] = {"bin/kept", "bin/added", "made/m1"};
const std::map<std::string, const char*> kEntries = {
    {"bin/kept", "bin/kept"}, {"bin/added", "bin/added"}, {"made/m1", "m1"}};

// What nothing can help: what another process wrote is lost in a step that nobody can look before. The first
// call on that name, after vfilelist has looked at it for the last time, is this one.
struct Loss {
    bool isOfProgram;  // and not of a pass
    long call;
    const char* reason;
};
const Loss kLosses[] = {
    {false, SYS_rename, "-rename, which is fixed, writes over a NAME.bak that came since it was looked for"},
    {false, SYS_openat, "-copy, which is fixed, empties whatever has come to NAME since it was looked for"},
    {false, SYS_write, "-copy, which is fixed, writes over what came into its file since it was opened"},
    {false, SYS_unlink, "-clean, which is fixed, removes whatever stands at NAME.bak by then"},
    {true, SYS_rename, "no call replaces a file on condition that it is a certain one"},
    {true, SYS_unlink, "no call removes a file on condition that it is a certain one"}};

struct Cell {
    const Thing* thing;
    std::string target;
    long at;  // the call before which it happens
};

struct Remark {
    std::string path;
    std::string text;
    bool isSerious;
};

struct Outcome {
    int status = -1;
    std::string state;  // after another resume, if that is what vfilelist names
    std::vector<Remark> remarks;
    std::vector<TreeCall> calls;
    TreeSnapshot tree;
    bool hasHappened = false;
    bool isOldHit = false;  // the other process has changed or removed the file that was there before
};

class InterferenceTest : public testing::TestWithParam<Scenario> {
protected:
    std::string Path(const std::string& name) const { return release_.InstalledPath() + "/" + name; }
    static ino_t InodeOf(const std::string& path) {
        struct stat status {};
        return lstat(path.c_str(), &status) == 0 ? status.st_ino : 0;
    }

    TreeEvent Event(long at) const {
        TreeEvent event;
        event.at = at;
        event.directories = {release_.InstalledPath(), release_.StatePath()};
        event.except = release_.PassedList();
        return event;
    }
    TreeRun Trace(const std::string& command, const TreeEvent& event) const {
        return RunTracedTree(Concatenate(release_.Command(command), {"--json"}), release_.Environment(),
                             event);
    }

    void Begin();
    long MiddleOfState();
    void Prepare();
    std::vector<Cell> AllCells();
    void Note(const nlohmann::json& report, Outcome& outcome) const;
    Outcome Run(const Cell& cell);

    const TreeSnapshot& BaseOf(const Outcome& outcome) const;
    std::vector<std::string> WhatIsWrong(const Cell& cell, const Outcome& outcome);
    void JudgeOthers(const Cell& cell, const Outcome& outcome, std::vector<std::string>& wrong) const;
    void JudgeTarget(const Cell& cell, const Outcome& outcome, std::vector<std::string>& wrong) const;
    void JudgeWritten(const Cell& cell, const Outcome& outcome, std::vector<std::string>& wrong);
    void JudgeOld(const Cell& cell, const Outcome& outcome, std::vector<std::string>& wrong) const;
    const Loss* LossIn(const Cell& cell, const std::vector<TreeCall>& calls) const;
    TreeSnapshot InstalledOver(const Cell& cell, const TreeSnapshot& old) const;
    static TreeSnapshot PartOf(const TreeSnapshot& tree, const std::string& target);
    static TreeSnapshot RestOf(const TreeSnapshot& tree, const std::string& target, bool withMade);

    const Release release_{Entries::k4};
    ino_t oldInode_ = 0;
    long killedAt_ = 0;  // the command before this one
    std::map<const Loss*, long> losses_;
};

void InterferenceTest::Begin() {
    release_.Restore();
    oldInode_ = InodeOf(Path("bin/kept"));
    if (GetParam().isUpgraded && release_.Run("upgrade") != 0) throw std::runtime_error("no upgrade");
}

// The call half-way through the state.
long InterferenceTest::MiddleOfState() {
    long at = 0;
    std::vector<long> found;
    TreeEvent event = Event(1);
    event.isOnwards = true;
    event.interfere = [&] {
        ++at;
        const std::string file = release_.StatePath() + "/state";
        const std::string state = fs::exists(file) ? ReadWholeFile(file) : "";
        if (state.find(" " + GetParam().state + " ") != std::string::npos) found.push_back(at);
    };
    Begin();
    (void)Trace(GetParam().killed, event);
    return found.at(found.size() / 2);
}

void InterferenceTest::Prepare() {
    if (!GetParam().killed.empty() && killedAt_ == 0) killedAt_ = MiddleOfState();
    Begin();
    if (killedAt_ != 0) (void)Trace(GetParam().killed, Event(killedAt_));
}

// All that can be done at each call, in the order of the things.
std::vector<Cell> InterferenceTest::AllCells() {
    std::vector<Cell> cells;
    Prepare();
    long at = 0;
    TreeEvent event = Event(1);
    event.isOnwards = true;
    event.interfere = [&] {
        ++at;
        for (const Thing& thing : kThings) {
            for (const std::string target : kTargets) {
                if (CanAct(thing.act, Path(target) + thing.suffix)) cells.push_back({&thing, target, at});
            }
        }
    };
    const TreeRun run = Trace(GetParam().command, event);
    EXPECT_EQ(run.exitStatus, 0);
    std::stable_sort(cells.begin(), cells.end(), [](const Cell& left, const Cell& right) {
        return std::make_pair(left.thing, left.target) < std::make_pair(right.thing, right.target);
    });
    return cells;
}

void InterferenceTest::Note(const nlohmann::json& report, Outcome& outcome) const {
    outcome.state = report["state"];
    for (const auto& remark : report["remarks"])
        outcome.remarks.push_back({remark["path"], remark["text"], remark["isSerious"]});
}

Outcome InterferenceTest::Run(const Cell& cell) {
    Outcome outcome;
    Prepare();
    const std::string path = Path(cell.target) + cell.thing->suffix;
    TreeEvent event = Event(cell.at);
    event.output = release_.package().scratch().Path("report");
    event.interfere = [&] {
        outcome.hasHappened = CanAct(cell.thing->act, path);
        if (!outcome.hasHappened) return;
        outcome.isOldHit = InodeOf(path) == oldInode_;
        DoAct(cell.thing->act, path, release_.package().scratch().Path("other"));
    };
    const TreeRun run = Trace(GetParam().command, event);
    outcome.status = run.exitStatus;
    outcome.calls = run.calls;
    Note(nlohmann::json::parse(ReadWholeFile(event.output)), outcome);
    if (outcome.state != "none" && outcome.state != "installed") {
        EXPECT_EQ(outcome.status, 3) << "left open";
        const ProcessResult again =
            RunProcess(Concatenate(release_.Command("resume"), {"--json"}), release_.Environment());
        Note(nlohmann::json::parse(again.out), outcome);
    }
    outcome.tree = release_.Now();
    return outcome;
}

// The names of the target and of what may stand beside it.
TreeSnapshot InterferenceTest::PartOf(const TreeSnapshot& tree, const std::string& target) {
    TreeSnapshot part;
    for (const auto& [path, node] : tree) {
        if (path == target || path.compare(0, target.size() + 1, target + ".") == 0) part[path] = node;
    }
    return part;
}

TreeSnapshot InterferenceTest::RestOf(const TreeSnapshot& tree, const std::string& target, bool withMade) {
    TreeSnapshot rest = tree;
    for (const auto& [path, node] : PartOf(tree, target)) rest.erase(path);
    if (!withMade) rest.erase("made");
    return rest;
}

const TreeSnapshot& InterferenceTest::BaseOf(const Outcome& outcome) const {
    if (outcome.state == "installed") return release_.newTreeWithBackups();
    return GetParam().endsNew ? release_.newTree() : release_.oldTree();
}

void InterferenceTest::JudgeOthers(const Cell& cell, const Outcome& outcome,
                                   std::vector<std::string>& wrong) const {
    // A directory that the upgrade made stays as long as something is in it.
    const bool isIn = cell.target == "made/m1" && !PartOf(outcome.tree, cell.target).empty();
    TreeSnapshot expected = RestOf(BaseOf(outcome), cell.target, !isIn);
    // Backups go together: where one can't go, the others may stand.
    if (outcome.state == "cleaning") {
        for (const auto& [path, node] : RestOf(release_.newTreeWithBackups(), cell.target, !isIn)) {
            if (outcome.tree.count(path) == 1) expected[path] = node;
        }
    }
    for (const std::string& difference :
         DifferencesBetween(expected, RestOf(outcome.tree, cell.target, !isIn)))
        wrong.push_back("of the others: " + difference);
}

// The target and its backup after an upgrade that finds `old`.
TreeSnapshot InterferenceTest::InstalledOver(const Cell& cell, const TreeSnapshot& old) const {
    TreeSnapshot part = PartOf(release_.newTreeWithBackups(), cell.target);
    TreeNode& node = part.at(cell.target);
    const auto found = old.find(cell.target);
    struct stat status {};
    EXPECT_EQ(stat(release_.package().SourcePath(kEntries.at(cell.target)).c_str(), &status), 0);
    part.erase(cell.target + ".bak");
    if (found == old.end()) {
        node.mode = status.st_mode;
        return part;
    }
    const TreeNode& before = found->second;
    part[cell.target + ".bak"] = before;
    node = {before.mode, before.user, before.group, node.content, before.attributes, std::nullopt};
    return part;
}

// It is as expected, or as if all had happened before or after the command, or it is named.
void InterferenceTest::JudgeTarget(const Cell& cell, const Outcome& outcome,
                                   std::vector<std::string>& wrong) const {
    TreeSnapshot part = PartOf(outcome.tree, cell.target);
    bool isNamed = false;
    for (const Remark& remark : outcome.remarks) {
        const bool isOfTarget = remark.path == Path(cell.target) || remark.path == Path(cell.target) + ".bak";
        isNamed = isNamed || (isOfTarget && remark.isSerious);
        for (auto node = part.begin(); node != part.end();) {
            const bool isAside =
                node->first.compare(0, cell.target.size() + 8, cell.target + ".changed") == 0;
            const bool isTold = isAside && remark.text.find(Path(node->first)) != std::string::npos;
            node = isTold ? part.erase(node) : std::next(node);
        }
    }
    if (outcome.status == 3 && isNamed) return;

    const TreeSnapshot base = PartOf(BaseOf(outcome), cell.target);
    const Act act = cell.thing->act;
    std::vector<TreeSnapshot> accepted = {base, AfterAct(act, cell.target, base),
                                          AfterAct(act, cell.target + ".bak", base)};
    if (GetParam().command == "upgrade" && outcome.state == "installed") {
        const TreeSnapshot old = PartOf(release_.oldTree(), cell.target);
        accepted.push_back(InstalledOver(cell, AfterAct(act, cell.target + cell.thing->suffix, old)));
    }
    for (const TreeSnapshot& tree : accepted) {
        if (DifferencesBetween(tree, part).empty()) return;
    }
    wrong.push_back("it is not named, and not as if that had come before or after:" +
                    Joined(DifferencesBetween(base, part)));
}

// The loss that explains that what was written is gone, if any.
const Loss* InterferenceTest::LossIn(const Cell& cell, const std::vector<TreeCall>& calls) const {
    std::string path = Path(cell.target) + cell.thing->suffix;
    for (std::size_t i = static_cast<std::size_t>(cell.at) - 1; i < calls.size(); ++i) {
        const TreeCall& call = calls[i];
        const bool isMoved = call.paths.size() == 2 && call.paths.front() == path;
        if (isMoved) path = call.paths.back();
        if (isMoved || call.paths.back() != path) continue;
        const bool isOpening = call.number == SYS_openat;
        if (isOpening && (call.arguments[2] & O_TRUNC) == 0 && !call.isOfProgram) continue;
        const bool isLook = call.isOfProgram && !call.isByDescriptor && call.number != SYS_rename &&
                            call.number != SYS_unlink;
        if (isLook) return nullptr;
        for (const Loss& loss : kLosses) {
            if (call.isOfProgram == loss.isOfProgram && call.number == loss.call) return &loss;
        }
    }
    return nullptr;
}

// What the other process wrote stands under one of the names.
void InterferenceTest::JudgeWritten(const Cell& cell, const Outcome& outcome,
                                    std::vector<std::string>& wrong) {
    if (cell.thing->act == Act::kRemove || cell.thing->act == Act::kTruncate) return;
    for (const auto& [path, node] : PartOf(outcome.tree, cell.target)) {
        if (node.content.compare(0, kForeignText.size(), kForeignText) == 0) return;
    }
    const Loss* const loss = LossIn(cell, outcome.calls);
    if (loss == nullptr) {
        wrong.push_back("what the other process wrote is lost");
    } else {
        ++losses_[loss];
    }
}

// The old file is there, under NAME when the upgrade is taken back, unless the other process has changed it
// or the way leads forward.
void InterferenceTest::JudgeOld(const Cell& cell, const Outcome& outcome,
                                std::vector<std::string>& wrong) const {
    const TreeSnapshot old = PartOf(release_.oldTree(), cell.target);
    if (old.empty() || outcome.isOldHit || GetParam().endsNew) return;
    for (const char* const suffix : {"", ".bak"}) {
        if (outcome.state == "none" && *suffix != '\0') break;
        const auto found = outcome.tree.find(cell.target + suffix);
        if (found == outcome.tree.end()) continue;
        if (DifferencesBetween(old, {{cell.target, found->second}}).empty()) return;
    }
    wrong.push_back("the old file is not where it shall be");
}

std::vector<std::string> InterferenceTest::WhatIsWrong(const Cell& cell, const Outcome& outcome) {
    std::vector<std::string> wrong;
    const bool isUpgrade = GetParam().command == "upgrade";
    const std::string ended = isUpgrade && outcome.status == 0 ? "installed" : "none";
    if (outcome.status == 0 || (isUpgrade && outcome.status == 1)) {
        if (outcome.state != ended) wrong.push_back("state " + outcome.state);
    } else if (outcome.status != 3) {
        wrong.push_back("status " + std::to_string(outcome.status));
    }
    JudgeOthers(cell, outcome, wrong);
    JudgeTarget(cell, outcome, wrong);
    JudgeWritten(cell, outcome, wrong);
    JudgeOld(cell, outcome, wrong);
    return wrong;
}

TEST_P(InterferenceTest, LosesNothingAndNamesWhatIsNotAsItShallBe) {
    if (VFS_TEST_ADDRESS_SANITIZER || VFS_TEST_THREAD_SANITIZER) {
        GTEST_SKIP() << "a sanitizer makes system calls of its own";
    }
    const std::vector<Cell> cells = AllCells();
    const std::size_t wanted = 30 * static_cast<std::size_t>(TestScale());
    const std::size_t step = std::max<std::size_t>(1, cells.size() / wanted);
    std::size_t happened = 0;
    for (std::size_t i = 0; i < cells.size(); i += step) {
        const Cell& cell = cells[i];
        SCOPED_TRACE(testing::Message() << "another process " << cell.thing->text << ", " << cell.target
                                        << ", before call " << cell.at);
        const Outcome outcome = Run(cell);
        happened += outcome.hasHappened ? 1U : 0U;
        const std::vector<std::string> wrong = WhatIsWrong(cell, outcome);
        EXPECT_TRUE(wrong.empty()) << "status " << outcome.status << Joined(wrong);
    }
    std::cout << NameOf(GetParam()) << ": " << happened << " points, interference, of " << cells.size()
              << '\n';
    for (const auto& [loss, count] : losses_) std::cout << "  " << count << " lost: " << loss->reason << '\n';
    EXPECT_GE(happened, std::min(wanted, cells.size()) * 9 / 10);
    EXPECT_GE(cells.size(), GetParam().leastCells);
}

INSTANTIATE_TEST_SUITE_P(At, InterferenceTest, testing::ValuesIn(kScenarios),
                         [](const auto& scenario) { return NameOf(scenario.param); });

}  // namespace
