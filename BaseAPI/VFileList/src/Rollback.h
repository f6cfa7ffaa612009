// `vfilelist rollback FILELIST` without an open upgrade: puts the backups back, or gives the new files the
// modes and owners of their backups.
#ifndef VFILELIST_ROLLBACK_H
#define VFILELIST_ROLLBACK_H

#include "FileList.h"
#include "Output.h"

struct RollbackOptions {
    bool isDryRun = false;
    bool isOnlyModes = false;
    bool isPartial = false;  // restores what can be restored, though other backups can't
};

// All or nothing, unless it is partial. Returns the exit status: fine when everything that was asked for is
// done.
int Rollback(const FileList& list, const RollbackOptions& options, Output& output);

#endif
