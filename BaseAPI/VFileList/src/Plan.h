// `vfilelist plan`: what each pass will do, file by file.
#ifndef VFILELIST_PLAN_H
#define VFILELIST_PLAN_H

#include "FileList.h"
#include "Output.h"

// Returns the exit status: fine when every pass will succeed and no key of the list is skipped.
int Plan(const FileList& list, Output& output);

#endif
