// What another process may do to a file of an upgrade at any moment.
#ifndef TESTS_TOOL_OTHERPROCESS_H
#define TESTS_TOOL_OTHERPROCESS_H

#include <string>

#include "TreeSnapshot.h"

enum class Act {
    kReplace,  // by a file of its own, with rename
    kPut,      // the same where nothing stands
    kRemove,
    kTruncate,  // to nothing
    kWrite,     // over its beginning
};

// What it writes.
extern const std::string kForeignText;

// Whether it can be done to `path` as it is now, and does something.
bool CanAct(Act act, const std::string& path);

// `scratch` is a name on the same file system.
void DoAct(Act act, const std::string& path, const std::string& scratch);

// What the act makes of a tree in which it comes to `path`; the tree as it is where it can't be done.
TreeSnapshot AfterAct(Act act, const std::string& path, TreeSnapshot tree);

#endif
