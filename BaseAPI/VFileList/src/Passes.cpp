// Tells the passes' progress from the states of the targets.
#include "Passes.h"

#include <algorithm>

namespace {

bool IsThere(const TargetObservation& target) {
    return target.state != TargetState::kMissing;
}

bool IsFromPackage(const TargetObservation& target) {
    return target.state == TargetState::kNew || target.state == TargetState::kPartial;
}

bool IsCopiedOverBackup(const TargetObservation& target) {
    return IsFromPackage(target) && target.hasBackup;
}

bool IsRenamed(const TargetObservation& target) {
    return !IsThere(target) && target.hasBackup;
}

// -clean does not see a link that points nowhere, which may be left of any upgrade.
bool HasFirmBackup(const TargetObservation& target) {
    return target.hasBackup && !target.isBackupDangling;
}

bool IsForeign(const TargetObservation& target) {
    return IsThere(target) && !IsFromPackage(target);
}

bool IsForeignBesideBackup(const TargetObservation& target) {
    return IsForeign(target) && target.hasBackup;
}

template <typename Predicate>
bool Any(const std::vector<TargetObservation>& targets, Predicate predicate) {
    return std::any_of(targets.begin(), targets.end(), predicate);
}

template <typename Predicate>
bool All(const std::vector<TargetObservation>& targets, Predicate predicate) {
    return std::all_of(targets.begin(), targets.end(), predicate);
}

// Told while some target is renamed, and none is copied over a backup. With the renamed ones all before it,
// this one is not copied: -copy has not come so far. One behind it shows that -rename has passed, and found
// nothing here.
bool IsStillInstalled(const std::vector<TargetObservation>& targets, std::size_t index) {
    const auto here = targets.begin() + static_cast<std::ptrdiff_t>(index);
    return std::none_of(here, targets.end(), IsRenamed);
}

bool IsOlderThanABackup(const TargetObservation& file, const std::vector<TargetObservation>& targets) {
    return Any(targets, [&file](const auto& target) { return file.born < target.backedUp; });
}

// Without a backup, and too old for an unfinished copy: an installed file, perhaps restored, whose content is
// a beginning of the package's file. -copy would write over it.
bool IsInstalledBeginning(const TargetObservation& target, const std::vector<TargetObservation>& targets) {
    return target.state == TargetState::kPartial && !target.hasBackup && IsOlderThanABackup(target, targets);
}

// Copied over a backup, though an earlier target has been renamed and not been copied.
bool HasCopyBeyondAGap(const std::vector<TargetObservation>& targets) {
    const auto gap = std::find_if(targets.begin(), targets.end(), IsRenamed);
    return std::any_of(gap, targets.end(), IsCopiedOverBackup);
}

PassesReport Next(const char* pass) {
    const std::string next = pass;
    if (next == "-rename") {
        return {PassState::kIncomplete, PassState::kIncomplete, PassState::kIncomplete, next, ""};
    }
    if (next == "-copy")
        return {PassState::kComplete, PassState::kIncomplete, PassState::kIncomplete, next, ""};
    return {PassState::kComplete, PassState::kComplete, PassState::kIncomplete, next, ""};
}

PassesReport NothingLeft() {
    return {PassState::kComplete, PassState::kComplete, PassState::kComplete, "", ""};
}

PassesReport NobodyCanTell(const char* reason) {
    return {PassState::kUnknown, PassState::kIncomplete, PassState::kIncomplete, "", reason};
}

PassesReport AfterCopyBegan(const std::vector<TargetObservation>& targets) {
    if (Any(targets, IsForeign)) {
        return NobodyCanTell(
            "some files are the package's, with a backup beside them, and others are not: either they were "
            "changed after -copy, or the backups are those of an earlier upgrade");
    }
    if (Any(targets, [&](const auto& target) { return IsInstalledBeginning(target, targets); })) {
        return NobodyCanTell(
            "a file without a backup is older than the backups, and holds a beginning of the package's file: "
            "a rollback has restored it, or -rename has not reached it");
    }
    if (HasCopyBeyondAGap(targets)) {
        return NobodyCanTell(
            "a file stands beside its backup where -copy has not been yet: either an earlier file was "
            "removed after -copy, or the backup is that of an earlier upgrade");
    }
    const auto isNew = [](const auto& target) { return target.state == TargetState::kNew; };
    if (!All(targets, isNew)) return Next("-copy");
    return Any(targets, HasFirmBackup) ? Next("-clean") : NothingLeft();
}

PassesReport AfterRenameBegan(const std::vector<TargetObservation>& targets) {
    if (Any(targets, IsForeignBesideBackup)) {
        return NobodyCanTell(
            "a file that is not the package's stands beside its backup: either it was changed after -copy, "
            "or the backup is that of an earlier upgrade");
    }
    bool isRenameCutOff = false;
    for (std::size_t i = 0; i < targets.size(); ++i) {
        const bool isInstalled = IsForeign(targets[i]) || IsInstalledBeginning(targets[i], targets) ||
                                 (IsThere(targets[i]) && IsStillInstalled(targets, i));
        isRenameCutOff = isRenameCutOff || isInstalled;
        if (isRenameCutOff && IsRenamed(targets[i])) {
            return NobodyCanTell(
                "a file stands where -rename has been already: it was made or changed since");
        }
    }
    return isRenameCutOff ? Next("-rename") : Next("-copy");
}

PassesReport WithoutTrace(const std::vector<TargetObservation>& targets) {
    if (Any(targets, IsForeign)) return Next("-rename");
    if (!targets.empty() && !Any(targets, IsThere)) return Next("-copy");
    const auto isNew = [](const auto& target) { return target.state == TargetState::kNew; };
    if (All(targets, isNew)) {
        return NothingLeft();
    }
    // Either installed files that the package does not change, or new ones of a -copy that was cut off. For
    // the latter -rename only makes backups of what the package still has.
    return {PassState::kUnknown, PassState::kIncomplete, PassState::kIncomplete, "-rename", ""};
}

}  // namespace

PassesReport JudgePasses(const std::vector<TargetObservation>& targets) {
    const auto isDoubtful = [](const auto& target) { return target.isBackupDoubtful; };
    if (Any(targets, isDoubtful)) {
        return NobodyCanTell("a NAME.bak is no backup or can't be looked at, as is said of its file");
    }
    if (Any(targets, IsCopiedOverBackup)) return AfterCopyBegan(targets);
    if (Any(targets, [](const auto& target) { return target.hasBackup; })) {
        return AfterRenameBegan(targets);
    }
    return WithoutTrace(targets);
}

bool WasBroughtByCopy(const std::vector<TargetObservation>& targets, std::size_t index) {
    const auto here = targets.begin() + static_cast<std::ptrdiff_t>(index);
    return targets[index].state == TargetState::kNew && !targets[index].hasBackup &&
           Any(targets, HasFirmBackup) && !Any(targets, IsForeign) &&
           std::all_of(targets.begin(), here, IsThere) && !IsOlderThanABackup(targets[index], targets);
}
