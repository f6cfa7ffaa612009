// How far passes that are run by hand have come, as far as the files alone show it.
#ifndef VFILELIST_PASSES_H
#define VFILELIST_PASSES_H

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

enum class TargetState {
    kNew,      // holds what the package's file holds
    kPartial,  // a beginning of it: an unfinished copy
    kOld,      // holds something else
    kMissing,
    kUnknown,  // there, but it can't be compared
};

// Why a NAME.bak can't be treated as the backup that this upgrade made.
enum class BackupDoubt {
    kNone,
    kEarlier,     // it was there before the package
    kSameFile,    // it is NAME, by a second name or through a link
    kListed,      // it is on the list itself
    kUnreadable,  // it can't be looked at
};

struct TargetObservation {
    TargetState state = TargetState::kMissing;
    bool hasBackup = false;
    bool isBackupDangling = false;  // a dangling symlink: -clean skips it
    BackupDoubt backupDoubt = BackupDoubt::kNone;
};

enum class PassState { kComplete, kIncomplete, kUnknown };

struct PassesReport {
    PassState rename;
    PassState copy;
    PassState clean;
    std::string next;  // "-rename", "-copy" or "-clean"; empty: nothing is left, or a doubt
    std::optional<std::size_t> doubtful;  // the first target because of which no pass is named
    std::string reason;                   // and why
};

// Names no pass when in doubt, and never -rename while a file stands beside its backup: the file would
// replace the backup. Without such a file -rename loses nothing, however far the passes have come.
PassesReport JudgePasses(const std::vector<TargetObservation>& targets);

#endif
