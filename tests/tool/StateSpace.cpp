#include "StateSpace.h"

#include <algorithm>
#include <ostream>
#include <tuple>

namespace {

bool IsFile(const Node& node) {
    return node.what != What::kNothing && node.what != What::kLink && node.what != What::kDirectory;
}

bool IsThere(const Node& node) {
    return node.what != What::kNothing;
}

bool IsOfPackage(const Node& node) {
    return node.what == What::kNew || node.what == What::kPart;
}

bool IsOldFile(const Node& node) {
    return node.mark == Mark::kOld || node.mark == Mark::kWritten;
}

// A link that is a backup leads to NAME: beside a file it is that file, and no backup.
bool IsBackupTheSameFile(const Place& target) {
    return IsFile(target.name) && target.backup.what == What::kLink;
}

bool HasBackup(const Place& target) {
    return IsThere(target.backup) && !IsBackupTheSameFile(target);
}

// Follows what a command does, change by change.
class Run {
public:
    explicit Run(const Host& host) : now(host), outcome_{0, {Canonical(host)}} {}

    void Note() {
        const Host state = Canonical(now);
        if (!(state == outcome_.states.back())) outcome_.states.push_back(state);
    }
    Outcome End(int status) {
        Note();
        outcome_.status = status;
        return outcome_;
    }
    Place* begin() { return now.targets.data(); }
    Place* end() { return now.targets.data() + now.count; }
    bool IsLast(const Place& target) const { return &target == now.targets.data() + now.count - 1; }

    Host now;

private:
    Outcome outcome_;
};

constexpr int kFailure = 240;

int Rename(Run& run) {
    for (Place& target : run) {
        if (!IsFile(target.name)) continue;  // a link leads nowhere
        if (target.backup.what == What::kDirectory) return kFailure;
        target.backup = target.name;
        target.name = {};
        run.Note();
    }
    return 0;
}

int Copy(Run& run) {
    for (Place& target : run) {
        if (run.IsLast(target)) run.now.hasDirectory = true;
        run.Note();
        if (target.name.what == What::kLink) return kFailure;  // it leads to itself
        target.name = {What::kPart, IsOldFile(target.name) ? Mark::kWritten : Mark::kNone};
        run.Note();
        target.name.what = What::kNew;
        run.Note();
    }
    return 0;
}

int Clean(Run& run) {
    for (Place& target : run) {
        const bool isDangling = target.backup.what == What::kLink && !IsFile(target.name);
        if (isDangling) continue;
        target.backup = {};
        run.Note();
    }
    return 0;
}

bool IsInTheWay(const Place& target) {
    if (!HasBackup(target)) return false;
    if (target.backup.mark == Mark::kEarlier || target.backup.what == What::kDirectory) return true;
    return IsThere(target.name) && !IsOfPackage(target.name);
}

int RollBackByHand(Run& run, bool isPartial) {
    const bool isRefused = std::any_of(run.begin(), run.end(), IsInTheWay);
    for (Place& target : run) {
        if (!HasBackup(target) || IsInTheWay(target) || (isRefused && !isPartial)) continue;
        target.name = target.backup;
        target.backup = {};
        run.Note();
    }
    return isRefused ? 1 : 0;
}

int Upgrade(Run& run) {
    const auto isRefused = [](const Place& target) {
        return IsThere(target.backup) || target.name.what == What::kLink;
    };
    if (run.now.IsOpen() || std::any_of(run.begin(), run.end(), isRefused)) return 1;
    for (Place& target : run) {
        target.origin = target.name.what;
        target.name.mark = IsThere(target.name) ? Mark::kOld : Mark::kNone;
    }
    run.now.hadDirectory = run.now.hasDirectory;
    run.now.stage = Stage::kRenaming;
    run.Note();
    if (Rename(run) != 0) return 3;
    run.now.stage = Stage::kCopying;
    run.Note();
    if (Copy(run) != 0) return 3;
    run.now.stage = Stage::kInstalled;
    run.Note();
    return 0;
}

int Commit(Run& run) {
    if (run.now.stage != Stage::kInstalled && run.now.stage != Stage::kCleaning) return 1;
    for (const Place& target : run) {
        if (IsThere(target.backup) && target.backup.mark != Mark::kOld) return 3;
    }
    run.now.stage = Stage::kCleaning;
    run.Note();
    (void)Clean(run);
    run.now.stage = Stage::kClosed;
    return 0;
}

// The package's file, as far as it can have come. Before -copy there is none, and `installed` says that all
// of them were whole.
bool IsCopy(const Node& node, Stage undone) {
    if (undone == Stage::kRenaming) return false;
    return node.what == What::kNew || (node.what == What::kPart && undone != Stage::kInstalled);
}

// Whether a person should look.
bool BringBack(Run& run, Place& target, Stage undone) {
    const bool isForeign = IsThere(target.name) && !IsOldFile(target.name) && !IsCopy(target.name, undone);
    const bool isUnexpected = isForeign && undone != Stage::kInstalled;
    const auto setAside = [&] {
        if (isForeign) target.setAside = target.name.what;
        target.name = {};
    };
    const bool isBackupForeign = IsThere(target.backup) && !IsOldFile(target.backup);
    if (target.origin == What::kNothing) {
        if (undone == Stage::kRenaming) return isForeign || isBackupForeign;
        setAside();
        return isUnexpected || isBackupForeign;
    }
    if (IsOldFile(target.name)) return target.name.mark == Mark::kWritten || isBackupForeign;
    if (!IsOldFile(target.backup)) return true;
    if (isForeign) setAside();
    if (isForeign) run.Note();
    target.name = target.backup;
    target.backup = {};
    return isUnexpected || target.name.mark == Mark::kWritten;
}

int GoBack(Run& run) {
    const Stage undone = run.now.stage == Stage::kUndoing ? run.now.undone : run.now.stage;
    run.now.stage = Stage::kUndoing;
    run.now.undone = undone;
    run.Note();
    bool isToLookAt = false;
    for (Place& target : run) {
        isToLookAt = BringBack(run, target, undone) || isToLookAt;
        run.Note();
    }
    const Place& last = *(run.end() - 1);
    const bool isEmpty = !IsThere(last.name) && !IsThere(last.backup) && last.setAside == What::kNothing;
    if (undone != Stage::kRenaming && !run.now.hadDirectory && isEmpty) run.now.hasDirectory = false;
    run.Note();
    run.now.stage = Stage::kClosed;
    return isToLookAt ? 3 : 0;
}

int RollBack(Run& run, bool isPartial) {
    if (!run.now.IsOpen()) return RollBackByHand(run, isPartial);
    return run.now.stage == Stage::kCleaning ? 1 : GoBack(run);
}

int Resume(Run& run) {
    switch (run.now.stage) {
        case Stage::kClosed:
        case Stage::kInstalled:
            return 0;
        case Stage::kCleaning:
            return Commit(run);
        default:
            return GoBack(run);
    }
}

int Perform(Command command, Run& run) {
    switch (command) {
        case Command::kRename:
            return Rename(run);
        case Command::kCopy:
            return Copy(run);
        case Command::kClean:
            return Clean(run);
        case Command::kUpgrade:
            return Upgrade(run);
        case Command::kCommit:
            return Commit(run);
        case Command::kRollback:
            return RollBack(run, false);
        case Command::kPartialRollback:
            return RollBack(run, true);
        case Command::kResume:
            break;
    }
    return Resume(run);
}

Advice AdviceOfStatus(Stage stage) {
    if (stage == Stage::kInstalled) return {{Command::kCommit, Command::kRollback}};
    return {{stage == Stage::kCleaning ? Command::kCommit : Command::kResume}};
}

bool IsDoubtful(const Place& target) {
    if (IsBackupTheSameFile(target) || target.backup.mark == Mark::kEarlier) return true;
    if (target.name.what == What::kLink) return true;
    return HasBackup(target) && IsThere(target.name) && !IsOfPackage(target.name);
}

std::array<std::uint8_t, 6 * kMostTargets + 6> BytesOf(const Host& host) {
    std::array<std::uint8_t, 6 * kMostTargets + 6> bytes{};
    std::size_t at = 0;
    for (const Place& target : host.targets) {
        for (const Node& node : {target.name, target.backup}) {
            bytes[at++] = static_cast<std::uint8_t>(node.what);
            bytes[at++] = static_cast<std::uint8_t>(node.mark);
        }
        bytes[at++] = static_cast<std::uint8_t>(target.origin);
        bytes[at++] = static_cast<std::uint8_t>(target.setAside);
    }
    bytes[at++] = host.count;
    bytes[at++] = static_cast<std::uint8_t>(host.stage);
    bytes[at++] = static_cast<std::uint8_t>(host.undone);
    bytes[at++] = host.hasDirectory ? 1 : 0;
    bytes[at++] = host.hadDirectory ? 1 : 0;
    bytes[at++] = host.isStrange ? 1 : 0;
    return bytes;
}

// What can stand at one target, from the start on. A backup beside what the package may have brought counts
// as the old file: that is the demanding reading. No command compares NAME with NAME.bak, so that "other" is
// another name for "old" but beside an old backup.
std::vector<Place> BeginningsOfTarget() {
    std::vector<Place> targets;
    for (const What name : {What::kNothing, What::kOld, What::kNew, What::kPart}) {
        targets.push_back({{name, Mark::kOld}, {}});
        std::vector<What> backups = {What::kOld, What::kLink, What::kDirectory};
        if (name == What::kNew || name == What::kPart) backups.push_back(name);
        for (const What backup : backups) {
            const bool isOldBackup = name != What::kOld;
            targets.push_back({{name, isOldBackup ? Mark::kNone : Mark::kOld},
                               {backup, isOldBackup ? Mark::kOld : Mark::kNone}});
            targets.push_back({{name, Mark::kOld}, {backup, Mark::kEarlier}});
        }
    }
    targets.push_back({{What::kOther, Mark::kOld}, {What::kOld, Mark::kNone}});
    targets.push_back({{What::kOther, Mark::kOld}, {What::kOld, Mark::kEarlier}});
    for (Place& target : targets) {
        if (!IsFile(target.name)) target.name.mark = Mark::kNone;
        if (!IsFile(target.backup) && target.backup.mark == Mark::kOld) target.backup.mark = Mark::kNone;
    }
    return targets;
}

}  // namespace

bool Host::operator<(const Host& other) const {
    return BytesOf(*this) < BytesOf(other);
}

bool Host::operator==(const Host& other) const {
    return BytesOf(*this) == BytesOf(other);
}

std::ostream& operator<<(std::ostream& out, const Host& host) {
    const char* const whats[] = {"-", "old", "new", "part", "other", "link", "directory"};
    const char* const marks[] = {"", "!", "*", "<"};
    const char* const stages[] = {"closed", "renaming", "copying", "installed", "undoing", "cleaning"};
    const auto text = [&](const Node& node) {
        return std::string(whats[static_cast<int>(node.what)]) + marks[static_cast<int>(node.mark)];
    };
    out << stages[static_cast<int>(host.stage)];
    if (host.stage == Stage::kUndoing) out << " of " << stages[static_cast<int>(host.undone)];
    for (std::size_t i = 0; i < host.count; ++i) {
        const Place& target = host.targets[i];
        out << " [" << text(target.name) << " .bak " << text(target.backup);
        if (host.IsOpen()) out << " was " << whats[static_cast<int>(target.origin)];
        if (target.setAside != What::kNothing) out << " aside " << whats[static_cast<int>(target.setAside)];
        out << "]";
    }
    if (!host.hasDirectory) out << " no directory";
    if (!host.hadDirectory) out << ", none before";
    return out << (host.isStrange ? " and something strange" : "");
}

const char* NameOf(Command command) {
    constexpr std::array<const char*, 8> kNames = {
        "-rename", "-copy", "-clean", "upgrade", "commit", "rollback", "rollback --partial", "resume"};
    return kNames[static_cast<std::size_t>(command)];
}

// Of a file that holds what the package's holds nothing can be lost.
Host Canonical(Host host) {
    if (host.stage != Stage::kUndoing) host.undone = Stage::kClosed;
    if (host.IsOpen()) return host;
    host.hadDirectory = true;
    for (Place& target : host.targets) {
        target.origin = What::kNothing;
        for (Node* node : {&target.name, &target.backup}) {
            const bool isLost = node->mark == Mark::kWritten;
            if (isLost || (node->mark == Mark::kOld && node->what == What::kNew)) node->mark = Mark::kNone;
        }
    }
    return host;
}

Host Settled(Host host) {
    for (Place& target : host.targets) target.setAside = What::kNothing;
    return Canonical(host);
}

Outcome ModelOf(Command command, const Host& host) {
    Run run(host);
    const int status = Perform(command, run);
    return run.End(status);
}

Advice ModelOfAdvice(const Host& host) {
    if (host.IsOpen()) return AdviceOfStatus(host.stage);
    const auto* const begin = host.targets.data();
    const auto* const end = begin + host.count;
    if (std::any_of(begin, end, IsDoubtful)) return {{}, true};
    const bool isCopyBegun = std::any_of(
        begin, end, [](const Place& target) { return HasBackup(target) && IsOfPackage(target.name); });
    const bool isUnsaved = std::any_of(begin, end, [](const Place& target) {
        return !HasBackup(target) && IsThere(target.name) && target.name.what != What::kNew;
    });
    if (isCopyBegun && isUnsaved) return {{}, true};
    const auto isNew = [](const Place& target) { return target.name.what == What::kNew; };
    if (std::all_of(begin, end, isNew)) {
        if (std::none_of(begin, end, HasBackup)) return {};
        return {{Command::kClean}};
    }
    const auto isThere = [](const Place& target) { return IsThere(target.name); };
    const bool isRenamed = isCopyBegun || std::none_of(begin, end, isThere);
    return {{isRenamed ? Command::kCopy : Command::kRename}};
}

std::vector<Host> Beginnings(std::size_t count) {
    Host none;
    none.count = static_cast<std::uint8_t>(count);
    std::vector<Host> hosts = {none};
    for (std::size_t i = 0; i < count; ++i) {
        std::vector<Host> longer;
        for (const Host& host : hosts) {
            for (const Place& target : BeginningsOfTarget()) {
                longer.push_back(host);
                longer.back().targets[i] = target;
            }
            if (i + 1 < count) continue;
            longer.push_back(host);
            longer.back().hasDirectory = false;
        }
        hosts = std::move(longer);
    }
    std::transform(hosts.begin(), hosts.end(), hosts.begin(), Canonical);
    return hosts;
}

std::set<Host> StatesFrom(std::vector<Host> beginnings, const std::vector<Command>& commands) {
    std::set<Host> found(beginnings.begin(), beginnings.end());
    while (!beginnings.empty()) {
        const Host host = beginnings.back();
        beginnings.pop_back();
        for (const Command command : commands) {
            for (const Host& state : ModelOf(command, host).states) {
                const Host settled = Settled(state);
                if (found.insert(settled).second) beginnings.push_back(settled);
            }
        }
    }
    return found;
}

std::set<Host> AllStates(std::size_t count) {
    return StatesFrom(Beginnings(count), {kCommands.begin(), kCommands.end()});
}
