// Decides on every target before it changes one. Each file is restored by one rename: its old content is
// under NAME or NAME.bak at every moment, and another run goes on where this one was killed.
#include "Rollback.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <map>
#include <set>
#include <vector>

#include "Attributes.h"
#include "Files.h"
#include "TargetFacts.h"

namespace fs = std::filesystem;

namespace {

enum class Action { kRestore, kSetMode, kKeep, kFail, kNothing };

struct RollbackStep {
    Action action;
    std::string detail = {};
    bool isProblem = false;  // not what was asked for
};

using Counts = std::map<Action, std::size_t>;
const char kChanged[] = "changed while the rollback ran";

struct Item {
    std::string path;
    std::string backup;
    std::string directory;
    TargetFacts facts;
    RollbackStep step = {Action::kNothing};
};

struct ActionName {
    const char* json;
    const char* done;
    const char* toDo;
    Style style;
};

ActionName NameOf(Action action) {
    constexpr ActionName kNames[] = {{"restored", "restored", "restore", Style::kGood},
                                     {"mode-set", "mode set", "set mode", Style::kGood},
                                     {"kept", "kept", "keep", Style::kWarning},
                                     {"failed", "FAILED", "FAIL", Style::kError},
                                     {"nothing", "-", "-", Style::kDim}};
    return kNames[static_cast<int>(action)];
}

RollbackStep Problem(const std::string& detail) {
    return {Action::kKeep, detail, true};
}

// What can't be looked at, or was not made by this upgrade.
bool IsForeignBackup(BackupDoubt doubt) {
    return doubt != BackupDoubt::kNone && doubt != BackupDoubt::kSameFile;
}

RollbackStep DecideWithoutBackup(const TargetFacts& facts) {
    switch (facts.state) {
        case TargetState::kNew:
            return {Action::kKeep, "the package's, no backup"};
        case TargetState::kPartial:
            return {Action::kKeep, "a beginning of the package's file, no backup"};
        case TargetState::kOld:
            return {Action::kNothing, "not the package's, no backup"};
        case TargetState::kMissing:
            return {Action::kNothing, "not there, no backup"};
        case TargetState::kUnknown:
            break;
    }
    return {Action::kNothing, facts.detail + "; no backup"};
}

// Whether the backup goes back. A problem with one target stands in the way of the others, too.
RollbackStep DecideOnBackup(const TargetFacts& facts) {
    if (IsForeignBackup(facts.backupDoubt)) return Problem(facts.detail);
    if (!facts.hasBackup) return DecideWithoutBackup(facts);
    if (S_ISDIR(facts.backup.st_mode)) return Problem("NAME.bak is a directory");
    const bool isFree = facts.state == TargetState::kMissing && !facts.isOccupied;
    if (isFree) return {Action::kRestore};
    // Anything else may be the installed file itself, beside the forgotten backup of an earlier upgrade.
    // -copy makes no links.
    if (!facts.IsFromPackage() || !S_ISREG(facts.status.st_mode)) {
        return Problem((facts.detail.empty() ? "" : facts.detail + "; ") +
                       "neither the package's file nor a beginning of it");
    }
    if (facts.isBackupDangling) return Problem(facts.detail);
    return {Action::kRestore};
}

// Whether the new file gets the mode and the owner of its backup.
RollbackStep DecideOnMode(const TargetFacts& facts) {
    const struct stat& wanted = facts.reference;
    if (IsForeignBackup(facts.backupDoubt)) return Problem(facts.detail);
    if (!facts.hasBackup) {
        if (facts.state == TargetState::kMissing) return {Action::kNothing, "not there, no backup"};
        return {Action::kKeep, "no backup; mode " + ShownMode(facts.status.st_mode) + " and owner " +
                                   ShownOwner(facts.status) + " stay"};
    }
    if (facts.state != TargetState::kNew) return Problem("not the package's file; run -copy first");
    if (!facts.hasReference) return Problem("NAME.bak is not a regular file, nor a symlink to one");
    if (!facts.IsModeDifferent() && !facts.IsOwnerDifferent()) return {Action::kNothing, "as its backup"};
    const std::string owners = ", owner " + ShownOwner(facts.status) + " to " + ShownOwner(wanted);
    return {Action::kSetMode, ShownMode(facts.status.st_mode) + " to " + ShownMode(wanted.st_mode) +
                                  (facts.IsOwnerDifferent() ? owners : "")};
}

RollbackStep Failure(int error) {
    return {Action::kFail, std::strerror(error), true};
}

std::vector<Item> ExamineAll(const FileList& list, Output& output) {
    const std::vector<Target> targets = list.Targets();
    std::vector<Item> items;
    items.reserve(targets.size());
    for (const Target& target : targets) {
        output.Progress("rollback: compare", items.size(), targets.size());
        const Entry& entry = list.EntryOf(target);
        items.push_back({list.TargetOf(entry), list.BackupOf(entry), list.ListOf(entry).directory,
                         Examine(list, target)});
    }
    return items;
}

// A link is not dangling any more when the file that it leads to comes back in the same rollback.
void FollowDanglingLinks(std::vector<Item>& items) {
    for (Item& item : items) {
        if (!item.facts.isBackupDangling) continue;
        std::error_code error;
        const fs::path link = fs::read_symlink(item.backup, error);
        const fs::path pointee = (item.directory / link).lexically_normal();
        item.facts.isBackupDangling = std::none_of(items.begin(), items.end(), [&](const Item& other) {
            if (fs::path(other.path).lexically_normal() != pointee) return false;
            return DecideOnBackup(other.facts).action == Action::kRestore;
        });
    }
}

// A backup that is a link may lead to another target, whose new file may not have its mode yet: what counts
// is the backup of that one, which may be a link as well.
void FollowReferences(std::vector<Item>& items) {
    for (Item& item : items) {
        const TargetFacts* last = &item.facts;
        for (std::size_t links = 0; links < items.size() && S_ISLNK(last->backup.st_mode); ++links) {
            const auto isPointee = [last](const Item& other) {
                return other.facts.hasReference && other.facts.isOccupied &&
                       IsSameFile(other.facts.status, last->reference);
            };
            const auto pointee = std::find_if(items.begin(), items.end(), isPointee);
            if (pointee == items.end()) break;
            last = &pointee->facts;
        }
        item.facts.reference = last->reference;
    }
}

// Decides on all targets. True when nothing may be done, because something is in the way.
bool Decide(std::vector<Item>& items, const RollbackOptions& options) {
    for (Item& item : items) {
        item.step = options.isOnlyModes ? DecideOnMode(item.facts) : DecideOnBackup(item.facts);
    }
    const auto isProblem = [](const Item& item) { return item.step.isProblem; };
    const bool hasProblem = std::any_of(items.begin(), items.end(), isProblem);
    if (!hasProblem || options.isOnlyModes || options.isPartial) return false;
    for (Item& item : items) {
        if (item.step.action == Action::kRestore) item.step = {Action::kNothing, "not restored"};
    }
    return true;
}

// No process has changed the target or its backup since they were looked at.
bool IsAsExamined(const Item& item) {
    struct stat now {};
    const bool isOccupied = lstat(item.path.c_str(), &now) == 0;
    if (isOccupied != item.facts.isOccupied || (isOccupied && !IsUnchanged(item.facts.status, now)))
        return false;
    return lstat(item.backup.c_str(), &now) == 0 && IsSameFile(item.facts.backup, now);
}

RollbackStep Restore(const Item& item) {
    if (!IsAsExamined(item)) return {Action::kKeep, kChanged, true};
    if (rename(item.backup.c_str(), item.path.c_str()) != 0) return Failure(errno);
    return item.step;
}

RollbackStep SetMode(const Item& item) {
    const struct stat& wanted = item.facts.reference;
    const Descriptor file(open(item.path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
    struct stat now {};
    if (!file || fstat(file.get(), &now) != 0) return Failure(errno);
    if (!IsUnchanged(item.facts.status, now)) return {Action::kKeep, kChanged, true};
    // The owner first: a change of the owner clears set-user-ID bits, and a file of a wrong owner must not
    // get them.
    if ((item.facts.IsOwnerDifferent() && fchown(file.get(), wanted.st_uid, wanted.st_gid) != 0) ||
        fchmod(file.get(), wanted.st_mode & kPermissions) != 0) {
        return Failure(errno);
    }
    return item.step;
}

RollbackStep Perform(const Item& item) {
    if (item.step.action == Action::kRestore) return Restore(item);
    if (item.step.action == Action::kSetMode) return SetMode(item);
    return item.step;
}

// A power cut after this must not undo the rollback. Returns how many directories could not be synced.
std::size_t SyncDirectories(const std::vector<Item>& items) {
    std::set<std::string> directories;
    for (const Item& item : items) {
        if (item.step.action == Action::kRestore) directories.insert(item.directory);
    }
    std::size_t problems = 0;
    for (const std::string& directory : directories) {
        const Trouble trouble = Sync(directory);
        if (!trouble) continue;
        (void)std::fprintf(stderr, "vfilelist: can't sync %s\n", Shown(*trouble).c_str());
        ++problems;
    }
    return problems;
}

void ShowHead(const FileList& list, const RollbackOptions& options, Output& output) {
    output.Member("command", "rollback");
    output.Member("fileList", list.iniPath());
    output.Member("installType", list.installType());
    output.Member("onlyModes", options.isOnlyModes);
    output.Member("dryRun", options.isDryRun);
    output.Line(output.Paint(Style::kBold, Shown(list.iniPath())) + "  install type " +
                Shown(list.installType()) + (options.isDryRun ? "; a dry run, nothing is changed" : ""));
    output.Line();
    output.BeginList("actions");
}

void ShowItem(const Item& item, const RollbackOptions& options, Output& output) {
    const ActionName name = NameOf(item.step.action);
    const std::string& detail = item.step.detail;
    output.Item({{"target", item.path},
                 {"action", name.json},
                 {"state", NameOf(item.facts.state)},
                 {"detail", detail},
                 {"problem", item.step.isProblem}});
    output.Line(output.Paint(name.style, Padded(options.isDryRun ? name.toDo : name.done, 10)) +
                Shown(item.path) + (detail.empty() ? "" : "  (" + Shown(detail) + ")"));
}

void ShowSummary(Counts& counts, std::size_t problems, bool isRefused, Output& output) {
    output.EndList();
    output.Member("summary", {{"restored", counts[Action::kRestore]},
                              {"modesSet", counts[Action::kSetMode]},
                              {"kept", counts[Action::kKeep]},
                              {"failed", counts[Action::kFail]},
                              {"nothing", counts[Action::kNothing]},
                              {"problems", problems},
                              {"refused", isRefused}});
    output.Line();
    output.Line(Counted(counts[Action::kRestore] + counts[Action::kSetMode], "file") + " done, " +
                std::to_string(counts[Action::kKeep]) + " kept, " + std::to_string(counts[Action::kFail]) +
                " failed.");
    if (isRefused) {
        output.Line(
            output.Paint(Style::kError, "Nothing is changed because of " + Counted(problems, "file") +
                                            ". Look at what is kept, or restore the rest: --partial"));
    }
}

}  // namespace

int Rollback(const FileList& list, const RollbackOptions& options, Output& output) {
    ShowHead(list, options, output);
    std::vector<Item> items = ExamineAll(list, output);
    options.isOnlyModes ? FollowReferences(items) : FollowDanglingLinks(items);
    const bool isRefused = Decide(items, options);
    Counts counts;
    std::size_t problems = 0;
    for (Item& item : items) {
        if (!options.isDryRun) item.step = Perform(item);
        ShowItem(item, options, output);
        ++counts[item.step.action];
        if (item.step.isProblem) ++problems;
    }
    if (!options.isDryRun) problems += SyncDirectories(items);
    ShowSummary(counts, problems, isRefused, output);
    return problems == 0 ? kFine : kFindings;
}
