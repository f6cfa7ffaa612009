// Takes an upgrade back. Each file is restored by one rename, so that at every moment its old content is
// under its name or under that of the backup; after a crash the next run goes on where this one ended.
#include "Rollback.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <map>
#include <set>
#include <vector>

#include "Files.h"
#include "Passes.h"
#include "TargetFacts.h"

namespace fs = std::filesystem;

namespace {

constexpr mode_t kPermissions = 07777;

enum class Action { kRestored, kRemoved, kModeSet, kKept, kFailed, kNothing };

struct ActionName {
    const char* json;
    const char* done;
    const char* toDo;
    Style style;
};

ActionName NameOf(Action action) {
    switch (action) {
        case Action::kRestored:
            return {"restored", "restored", "restore", Style::kGood};
        case Action::kRemoved:
            return {"removed", "removed", "remove", Style::kGood};
        case Action::kModeSet:
            return {"mode-set", "mode set", "set mode", Style::kGood};
        case Action::kKept:
            return {"kept", "kept", "keep", Style::kWarning};
        case Action::kFailed:
            return {"failed", "FAILED", "FAIL", Style::kError};
        case Action::kNothing:
            break;
    }
    return {"nothing", "-", "-", Style::kDim};
}

bool IsFromPackage(const TargetFacts& facts) {
    return facts.state == TargetState::kNew || facts.state == TargetState::kPartial;
}

class RollbackRun {
public:
    RollbackRun(const FileList& list, const RollbackOptions& options, Output& output)
        : list_(list), options_(options), output_(output), targets_(list.Targets()) {}

    int Run();

private:
    void Examine();
    void NoteTimes(std::size_t index);
    void ShowHead();

    void RemoveNewFiles();
    bool IsCertainlyNew(std::size_t index) const;
    bool IsUntouchedSinceCopy(const std::string& directory) const;
    void Remove(std::size_t index);

    void RestoreBackups();
    void Restore(std::size_t index);
    std::string WhyKept(std::size_t index) const;
    bool IsPointeeBackedUp(std::size_t index) const;
    bool IsBeyondCopy(std::size_t index) const;
    void PutBack(std::size_t index);
    void ReportWithoutBackup(std::size_t index);

    void SetModes();
    void FollowReference(std::size_t index);
    void SetMode(std::size_t index);
    void ChangeMode(std::size_t index);

    bool IsAsExamined(std::size_t index) const;
    void SyncDirectories();
    void Report(std::size_t index, Action action, const std::string& detail, bool isProblem = false);
    void ReportFailure(std::size_t index, int error);
    void ShowSummary();

    std::string PathOf(std::size_t index) const { return list_.TargetOf(EntryOf(index)); }
    std::string BackupOf(std::size_t index) const { return list_.BackupOf(EntryOf(index)); }
    const Entry& EntryOf(std::size_t index) const { return list_.entries()[targets_[index].entries.back()]; }
    const std::string& DirectoryOf(std::size_t index) const { return list_.ListOf(EntryOf(index)).directory; }

    // When a directory last gained or lost a name, and when its last new file was written.
    struct DirectoryTimes {
        timespec changed{};
        Moment lastCopy = 0;
    };

    const FileList& list_;
    const RollbackOptions& options_;
    Output& output_;
    const std::vector<Target> targets_;
    std::vector<TargetFacts> facts_;
    std::vector<TargetObservation> observations_;
    std::map<std::string, DirectoryTimes> times_;
    Moment lastWritten_ = 0;        // when the file that was looked at last was written
    bool isWrittenInOneGo_ = true;  // each new file was made after the one before it was written
    std::set<std::size_t> removed_;
    std::set<std::string> changedDirectories_;
    std::map<Action, std::size_t> counts_;
    std::size_t stayingNewFiles_ = 0;
    std::size_t problems_ = 0;
};

int RollbackRun::Run() {
    ShowHead();
    Examine();
    output_.BeginList("actions");
    if (options_.isOnlyModes) {
        SetModes();
    } else {
        // First, while every backup still tells which files had a predecessor.
        if (options_.removesNew) RemoveNewFiles();
        RestoreBackups();
        SyncDirectories();
    }
    output_.EndList();
    ShowSummary();
    return problems_ == 0 ? kFine : kFindings;
}

void RollbackRun::ShowHead() {
    output_.Member("command", "rollback");
    output_.Member("fileList", list_.iniPath());
    output_.Member("installType", list_.installType());
    output_.Member("onlyModes", options_.isOnlyModes);
    output_.Member("dryRun", options_.isDryRun);
    output_.Line(output_.Paint(Style::kBold, Shown(list_.iniPath())) + "  install type " +
                 Shown(list_.installType()) + (options_.isDryRun ? "; a dry run, nothing is changed" : ""));
    output_.Line();
}

void RollbackRun::Examine() {
    TargetExaminer examiner(list_);
    facts_.reserve(targets_.size());
    observations_.reserve(targets_.size());
    for (const Target& target : targets_) {
        output_.Progress("rollback: compare", facts_.size(), targets_.size());
        facts_.push_back(examiner.Examine(target));
        observations_.push_back(facts_.back().Observation());
        NoteTimes(facts_.size() - 1);
    }
}

void RollbackRun::NoteTimes(std::size_t index) {
    const std::string& directory = DirectoryOf(index);
    const auto [times, isNew] = times_.try_emplace(directory);
    struct stat status {};
    if (isNew && stat(directory.c_str(), &status) == 0) times->second.changed = status.st_mtim;

    if (!IsFromPackage(facts_[index])) return;
    isWrittenInOneGo_ = isWrittenInOneGo_ && lastWritten_ <= observations_[index].born;
    lastWritten_ = MomentOf(facts_[index].status.st_mtim);
    times->second.lastCopy = std::max(times->second.lastCopy, lastWritten_);
}

void RollbackRun::RemoveNewFiles() {
    for (std::size_t i = 0; i < targets_.size(); ++i) {
        if (S_ISREG(facts_[i].status.st_mode) && IsCertainlyNew(i)) Remove(i);
    }
}

// A new file without a backup had no predecessor, or it has none any more: -copy wrote over the installed
// file, which -rename had not moved, or the file was restored; its birth tells both. Or -clean has removed
// its backup: -clean goes in order, so that it has not come beyond a backup that is still there.
bool RollbackRun::IsCertainlyNew(std::size_t index) const {
    if (!facts_[index].birth || !WasBroughtByCopy(observations_, index)) return false;
    const auto here = facts_.begin() + static_cast<std::ptrdiff_t>(index);
    const auto hasFirmBackup = [](const TargetFacts& facts) {
        return facts.hasBackup && !facts.isBackupDangling;
    };
    return std::any_of(facts_.begin(), here, hasFirmBackup) || IsUntouchedSinceCopy(DirectoryOf(index));
}

// No backup has gone from the directory since -copy wrote its last file there. A second -copy writes the
// files anew and would hide it, and so would times that are kept to the second.
bool RollbackRun::IsUntouchedSinceCopy(const std::string& directory) const {
    const DirectoryTimes& times = times_.at(directory);
    return isWrittenInOneGo_ && times.changed.tv_nsec != 0 && MomentOf(times.changed) <= times.lastCopy;
}

void RollbackRun::Remove(std::size_t index) {
    if (!options_.isDryRun) {
        if (!IsAsExamined(index)) return;
        if (unlink(PathOf(index).c_str()) != 0) {
            ReportFailure(index, errno);
            removed_.insert(index);
            return;
        }
        changedDirectories_.insert(DirectoryOf(index));
    }
    removed_.insert(index);
    Report(index, Action::kRemoved, "new in this package");
}

void RollbackRun::RestoreBackups() {
    for (std::size_t i = 0; i < targets_.size(); ++i) {
        if (removed_.count(i) != 0) continue;
        if (facts_[i].hasBackup) {
            Restore(i);
        } else {
            ReportWithoutBackup(i);
        }
    }
}

void RollbackRun::Restore(std::size_t index) {
    const std::string why = WhyKept(index);
    if (!why.empty()) {
        Report(index, Action::kKept, why, true);
    } else if (options_.isDryRun) {
        Report(index, Action::kRestored, "");
    } else if (!IsAsExamined(index)) {
        Report(index, Action::kKept, "changed while the rollback ran", true);
    } else {
        PutBack(index);
    }
}

// Only what the package brought is replaced: anything else may be the installed file itself, which -rename
// had not reached, beside the forgotten backup of an earlier upgrade. Empty when the backup goes back.
std::string RollbackRun::WhyKept(std::size_t index) const {
    const TargetFacts& facts = facts_[index];
    if (facts.backupDoubt == BackupDoubt::kListed) {
        return "NAME.bak is on the list itself; put back by hand what is the old file";
    }
    const bool isFree = !facts.isOccupied && facts.state == TargetState::kMissing;
    if (isFree || options_.isForced) return "";
    if (!IsFromPackage(facts)) {
        return (facts.detail.empty() ? "" : facts.detail + "; ") +
               "neither the package's file nor a part of it; --force puts the backup over it";
    }
    if (facts.isBackupDangling && !IsPointeeBackedUp(index)) {
        return "the backup is a link that points nowhere; --force puts it over the file";
    }
    if (IsBeyondCopy(index)) {
        return "-copy has not come so far: it may be the installed file, beside a backup of an earlier "
               "upgrade; remove that, or --force puts it over the file";
    }
    return "";
}

// What the backup, a link, leads to comes back in this rollback, too.
bool RollbackRun::IsPointeeBackedUp(std::size_t index) const {
    std::error_code error;
    const fs::path link = fs::read_symlink(BackupOf(index), error);
    const fs::path pointee = (DirectoryOf(index) / link).lexically_normal();
    for (std::size_t i = 0; i < targets_.size(); ++i) {
        if (facts_[i].hasBackup && fs::path(PathOf(i)).lexically_normal() == pointee) return true;
    }
    return false;
}

// An earlier target has been renamed and not been copied. A directory that is missing tells nothing: it goes
// back in two steps, and a rollback may have been killed between them.
bool RollbackRun::IsBeyondCopy(std::size_t index) const {
    const auto here = facts_.begin() + static_cast<std::ptrdiff_t>(index);
    return std::any_of(facts_.begin(), here, [](const TargetFacts& facts) {
        return facts.state == TargetState::kMissing && facts.hasBackup && !S_ISDIR(facts.backup.st_mode);
    });
}

void RollbackRun::PutBack(std::size_t index) {
    const std::string path = PathOf(index);
    const TargetFacts& facts = facts_[index];
    // A directory that -rename moved can't replace the file that -copy put in its place.
    const bool isInTheWay =
        facts.isOccupied && S_ISDIR(facts.backup.st_mode) && !S_ISDIR(facts.status.st_mode);
    if ((isInTheWay && unlink(path.c_str()) != 0) || rename(BackupOf(index).c_str(), path.c_str()) != 0) {
        ReportFailure(index, errno);
        return;
    }
    changedDirectories_.insert(DirectoryOf(index));
    Report(index, Action::kRestored, "");
}

void RollbackRun::ReportWithoutBackup(std::size_t index) {
    const TargetFacts& facts = facts_[index];
    if (facts.backupDoubt == BackupDoubt::kUnreadable)
        return Report(index, Action::kKept, facts.detail, true);
    switch (facts.state) {
        case TargetState::kMissing:
            Report(index, Action::kNothing, "not there, no backup");
            break;
        case TargetState::kOld:
            Report(index, Action::kNothing, "not the package's, no backup");
            break;
        case TargetState::kNew:
            ++stayingNewFiles_;
            Report(index, Action::kKept,
                   options_.removesNew
                       ? "the package's, no backup; it can't be told whether it had a predecessor"
                       : "the package's, no backup",
                   options_.removesNew);
            break;
        case TargetState::kPartial:
            ++stayingNewFiles_;
            Report(index, Action::kKept, "a part of the package's file, no backup", options_.removesNew);
            break;
        case TargetState::kUnknown:
            Report(index, Action::kKept, facts.detail + "; no backup", true);
            break;
    }
}

void RollbackRun::SetModes() {
    for (std::size_t i = 0; i < targets_.size(); ++i) FollowReference(i);
    for (std::size_t i = 0; i < targets_.size(); ++i) SetMode(i);
}

// A backup that is a link may lead to another target, whose new file has not got its mode yet, or will never:
// what counts is that one's backup, which may be a link in its turn.
void RollbackRun::FollowReference(std::size_t index) {
    std::size_t last = index;
    for (std::size_t links = 0; links < targets_.size() && S_ISLNK(facts_[last].backup.st_mode); ++links) {
        const auto isPointee = [&](const TargetFacts& facts) {
            return facts.hasReference && facts.isOccupied && IsSameFile(facts.status, facts_[last].reference);
        };
        const auto pointee = std::find_if(facts_.begin(), facts_.end(), isPointee);
        if (pointee == facts_.end()) break;
        last = static_cast<std::size_t>(pointee - facts_.begin());
    }
    facts_[index].reference = facts_[last].reference;
}

void RollbackRun::SetMode(std::size_t index) {
    const TargetFacts& facts = facts_[index];
    if (facts.backupDoubt == BackupDoubt::kUnreadable || facts.backupDoubt == BackupDoubt::kListed) {
        Report(index, Action::kKept, facts.detail, true);
    } else if (!facts.hasBackup) {
        const bool isThere = facts.state != TargetState::kMissing;
        Report(index, isThere ? Action::kKept : Action::kNothing,
               isThere ? "no backup; mode " + ShownMode(facts.status.st_mode) + " and owner " +
                             ShownOwner(facts.status) + " stay"
                       : "not there, no backup");
    } else if (facts.state != TargetState::kNew) {
        Report(index, Action::kKept, "not the package's file; run -copy first", true);
    } else if (!facts.hasReference) {
        Report(index, Action::kKept,
               facts.isBackupDangling ? "the backup is a link that points nowhere"
                                      : "the backup is no regular file",
               true);
    } else if (!facts.IsModeDifferent() && !facts.IsOwnerDifferent()) {
        Report(index, Action::kNothing, "as its backup");
    } else {
        ChangeMode(index);
    }
}

void RollbackRun::ChangeMode(std::size_t index) {
    const TargetFacts& facts = facts_[index];
    const struct stat& wanted = facts.reference;
    const std::string detail =
        ShownMode(facts.status.st_mode) + " to " + ShownMode(wanted.st_mode) +
        (facts.IsOwnerDifferent() ? ", owner " + ShownOwner(facts.status) + " to " + ShownOwner(wanted) : "");
    if (!options_.isDryRun) {
        const Descriptor file(open(PathOf(index).c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
        struct stat now {};
        if (!file || fstat(file.get(), &now) != 0) return ReportFailure(index, errno);
        if (!IsUnchanged(facts.status, now)) {
            return Report(index, Action::kKept, "changed while this ran", true);
        }
        // The owner first: a change of the owner takes set-user-id bits away, and a file of a wrong owner
        // must not get them.
        if ((facts.IsOwnerDifferent() && fchown(file.get(), wanted.st_uid, wanted.st_gid) != 0) ||
            fchmod(file.get(), wanted.st_mode & kPermissions) != 0) {
            return ReportFailure(index, errno);
        }
    }
    Report(index, Action::kModeSet, detail);
}

// Nobody has changed the target or its backup since they were looked at.
bool RollbackRun::IsAsExamined(std::size_t index) const {
    const TargetFacts& facts = facts_[index];
    struct stat now {};
    const bool isOccupied = lstat(PathOf(index).c_str(), &now) == 0;
    if (isOccupied != facts.isOccupied || (isOccupied && !IsUnchanged(facts.status, now))) return false;
    return !facts.hasBackup || (lstat(BackupOf(index).c_str(), &now) == 0 && IsSameFile(facts.backup, now));
}

// A power cut after this must not undo it.
void RollbackRun::SyncDirectories() {
    for (const std::string& directory : changedDirectories_) {
        const Descriptor handle(open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        if (handle && fsync(handle.get()) == 0) continue;
        (void)std::fprintf(stderr, "vfilelist: can't sync %s: %s\n", Shown(directory).c_str(),
                           std::strerror(errno));
        ++problems_;
    }
}

void RollbackRun::Report(std::size_t index, Action action, const std::string& detail, bool isProblem) {
    ++counts_[action];
    if (isProblem) ++problems_;
    const ActionName name = NameOf(action);
    output_.Item({{"target", PathOf(index)},
                  {"action", name.json},
                  {"state", ::NameOf(facts_[index].state)},
                  {"detail", detail},
                  {"problem", isProblem}});
    output_.Line(output_.Paint(name.style, Padded(options_.isDryRun ? name.toDo : name.done, 10)) +
                 Shown(PathOf(index)) + (detail.empty() ? "" : "  (" + Shown(detail) + ")"));
}

void RollbackRun::ReportFailure(std::size_t index, int error) {
    Report(index, Action::kFailed, std::strerror(error), true);
}

void RollbackRun::ShowSummary() {
    output_.Member("summary", {{"restored", counts_[Action::kRestored]},
                               {"removed", counts_[Action::kRemoved]},
                               {"modesSet", counts_[Action::kModeSet]},
                               {"kept", counts_[Action::kKept]},
                               {"failed", counts_[Action::kFailed]},
                               {"nothing", counts_[Action::kNothing]},
                               {"problems", problems_}});
    output_.Line();
    if (options_.isOnlyModes) {
        output_.Line(Counted(counts_[Action::kModeSet], "mode") + " set, " +
                     std::to_string(counts_[Action::kNothing]) + " nothing to do, " +
                     std::to_string(counts_[Action::kKept]) + " kept, " +
                     std::to_string(counts_[Action::kFailed]) + " failed.");
    } else {
        output_.Line(Counted(counts_[Action::kRestored], "file") + " restored, " +
                     std::to_string(counts_[Action::kRemoved]) + " removed, " +
                     std::to_string(counts_[Action::kKept]) + " kept, " +
                     std::to_string(counts_[Action::kFailed]) + " failed.");
    }
    if (stayingNewFiles_ > 0) {
        output_.Line(Counted(stayingNewFiles_, "file") + " of the package without a backup stay" +
                     (stayingNewFiles_ == 1 ? "s." : "."));
    }
}

}  // namespace

int Rollback(const FileList& list, const RollbackOptions& options, Output& output) {
    return RollbackRun(list, options, output).Run();
}
