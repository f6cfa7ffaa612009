// Knows no file system: decides from what was seen of one target.
#include "RollbackStep.h"

#include "Output.h"

namespace {

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

}  // namespace

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
