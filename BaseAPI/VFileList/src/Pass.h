// Runs a pass of the upgrade tool: its own code, in a child process.
#ifndef VFILELIST_PASS_H
#define VFILELIST_PASS_H

#include <functional>
#include <string>

#include "Signals.h"
#include "Trouble.h"

// Runs "-rename", "-copy" or "-clean". The child has the whole program in its memory already, so that the
// pass may move the program's own files; it dies with this process. INT and TERM end it. `watch` is called
// from time to time; `makeRoom` in the child, before the pass needs memory.
Trouble RunPass(const char* pass, const std::string& iniPath, Signals& signals,
                const std::function<void()>& watch, const std::function<void()>& makeRoom);

#endif
