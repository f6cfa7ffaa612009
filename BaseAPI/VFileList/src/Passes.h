// How far the passes have come, told from nothing but the files.
#ifndef VFILELIST_PASSES_H
#define VFILELIST_PASSES_H

#include <string>
#include <vector>

#include "Files.h"

enum class TargetState {
    kNew,      // holds what the package's file holds
    kPartial,  // a beginning of it: an unfinished copy
    kOld,      // holds something else
    kMissing,
    kUnknown,  // there, but it can't be compared
};

struct TargetObservation {
    TargetState state;
    bool hasBackup;
    Moment born = 0;      // when NAME was made
    Moment backedUp = 0;  // when something last happened to its backup, a change of its name included
    bool isBackupDangling = false;  // a link that points nowhere: -clean passes over it
    bool isBackupDoubtful = false;  // NAME.bak is something else than a backup, or can't be looked at
};

enum class PassState { kComplete, kIncomplete, kUnknown };

struct PassesReport {
    PassState rename;
    PassState copy;
    PassState clean;
    std::string next;    // "-rename", "-copy", "-clean", or empty: nothing is left to do, or nobody can tell
    std::string reason;  // why nobody can tell
};

// Judges the targets, in the order in which the passes visit them. The content alone does not tell an
// installed file that the package does not change, or whose beginning it is, from a copied one. The order
// does: each pass visits the targets one by one, so that -copy cannot have come beyond a target that is
// missing.
//
// When in doubt it names nothing. It never names -rename while a file stands beside its backup: the file
// would take the backup's place.
PassesReport JudgePasses(const std::vector<TargetObservation>& targets);

// The same judgement for one target that has no backup and is there: the package brought it, and it did not
// stand there before. False when that is not certain, and for a file that is older than some backup: -rename
// makes the backups before -copy makes the files.
bool WasBroughtByCopy(const std::vector<TargetObservation>& targets, std::size_t index);

#endif
