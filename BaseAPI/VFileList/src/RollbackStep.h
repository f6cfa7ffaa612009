// What a rollback of a file list does to one target, decided from the facts alone.
#ifndef VFILELIST_ROLLBACKSTEP_H
#define VFILELIST_ROLLBACKSTEP_H

#include <string>

#include "TargetFacts.h"

enum class Action { kRestore, kSetMode, kKeep, kFail, kNothing };

struct RollbackStep {
    Action action;
    std::string detail = {};
    bool isProblem = false;  // not what was asked for
};

// Whether the backup goes back. A problem with one target stands in the way of the others, too.
RollbackStep DecideOnBackup(const TargetFacts& facts);

// Whether the new file gets the mode and the owner of its backup.
RollbackStep DecideOnMode(const TargetFacts& facts);

#endif
