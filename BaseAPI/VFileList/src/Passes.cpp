// Decides from the states of the targets which pass is the next.
#include "Passes.h"

#include <algorithm>

namespace {

bool IsOccupied(const TargetObservation& target) {
    return target.state != TargetState::kMissing;
}

bool IsNew(const TargetObservation& target) {
    return target.state == TargetState::kNew;
}

bool IsCopiedOverBackup(const TargetObservation& target) {
    return target.hasBackup && (IsNew(target) || target.state == TargetState::kPartial);
}

// -clean does not see a dangling symlink, which may be left of any upgrade.
bool HasFirmBackup(const TargetObservation& target) {
    return target.hasBackup && !target.isBackupDangling;
}

// Why no pass may be named, whatever the other targets are; null when it may.
const char* DoubtAbout(const TargetObservation& target) {
    if (target.backupDoubt == BackupDoubt::kEarlier) {
        return "NAME.bak is older than the package: it was there before this upgrade";
    }
    if (target.backupDoubt != BackupDoubt::kNone) return "NAME.bak is not a backup, or can't be looked at";
    if (target.state == TargetState::kUnknown) return "it can't be compared with the package's file";
    if (target.state == TargetState::kOld && target.hasBackup) {
        return "it is not the package's file and has a NAME.bak: it was changed after -copy, or the backup "
               "is that of an earlier upgrade";
    }
    return nullptr;
}

// The same once -copy has begun, which writes over what has no backup.
const char* DoubtAfterCopyBegan(const TargetObservation& target) {
    if (target.hasBackup) return nullptr;
    if (target.state == TargetState::kOld) {
        return "it is not the package's file and has no NAME.bak: it was changed after -copy, or a rollback "
               "has restored it";
    }
    if (target.state == TargetState::kPartial) {
        return "it holds a beginning of the package's file and has no NAME.bak: -copy has not finished it, "
               "or it was installed before";
    }
    return nullptr;
}

template <typename Doubt>
std::optional<PassesReport> FirstDoubt(const std::vector<TargetObservation>& targets, Doubt doubt) {
    const auto found = std::find_if(targets.begin(), targets.end(), doubt);
    if (found == targets.end()) return std::nullopt;
    return PassesReport{PassState::kUnknown,     PassState::kUnknown, PassState::kUnknown, "",
                        found - targets.begin(), doubt(*found)};
}

}  // namespace

PassesReport JudgePasses(const std::vector<TargetObservation>& targets) {
    constexpr PassState kComplete = PassState::kComplete;
    constexpr PassState kIncomplete = PassState::kIncomplete;
    const bool isCopyBegun = std::any_of(targets.begin(), targets.end(), IsCopiedOverBackup);

    std::optional<PassesReport> doubt = FirstDoubt(targets, DoubtAbout);
    if (!doubt && isCopyBegun) doubt = FirstDoubt(targets, DoubtAfterCopyBegan);
    if (doubt) return *doubt;

    if (std::all_of(targets.begin(), targets.end(), IsNew)) {
        const bool isClean = std::none_of(targets.begin(), targets.end(), HasFirmBackup);
        if (isClean) return {kComplete, kComplete, kComplete, "", std::nullopt, ""};
        return {kComplete, kComplete, kIncomplete, "-clean", std::nullopt, ""};
    }
    const bool isRenamed = isCopyBegun || std::none_of(targets.begin(), targets.end(), IsOccupied);
    if (isRenamed) return {kComplete, kIncomplete, kIncomplete, "-copy", std::nullopt, ""};
    return {kIncomplete, kIncomplete, kIncomplete, "-rename", std::nullopt, ""};
}
