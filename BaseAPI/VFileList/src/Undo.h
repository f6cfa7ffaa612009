// Takes an upgrade back: what each target needs is told from the journal and from what is there now, so that
// it may be cut off anywhere and done again.
#ifndef VFILELIST_UNDO_H
#define VFILELIST_UNDO_H

#include <string>
#include <vector>

#include "Journal.h"
#include "StateDirectory.h"

// What stands under a name.
enum class Found {
    kNothing,
    kOld,      // the file that was there before the upgrade
    kCopy,     // what -copy made of the package's file, be it unfinished
    kForeign,  // something of somebody else's
    kUnknown,  // it can't be looked at
};

struct TargetNow {
    Found name = Found::kNothing;
    Found backup = Found::kNothing;
    bool isOldChanged = false;  // the old file was written to since
    std::string detail;         // why something can't be looked at
};

enum class UndoMove {
    kNone,
    kRestore,  // where nothing stands
    kReplace,  // restore over the copy
    kRemove,
    kSetAside,
    kSetAsideAndRestore,
    kPostpone,
};

struct UndoStep {
    UndoMove move = UndoMove::kNone;
    std::string remark = {};  // what people should know of this target; empty when it is as expected
    bool isSerious = false;   // they should look at it
};

// What the target needs. `undone` is the phase that is taken back.
UndoStep Decide(bool hadPredecessor, Phase undone, const TargetNow& now);

TargetNow LookAt(const JournalTarget& target, Phase undone);

// What is to be said of one file.
struct Remark {
    std::string path;
    std::string text;
    bool isSerious;
};

// False when something could not be done, and is worth another try. Appends what is to be said.
bool Undo(const Journal& journal, Phase undone, std::vector<Remark>& remarks);

// Whether the directories of the targets are those that were upgraded. Those that are not are told.
bool AreDirectoriesOurs(const Journal& journal, std::vector<Remark>& remarks);

// Makes the names of all targets last through a power cut. False as above.
bool SyncDirectories(const Journal& journal, std::vector<Remark>& remarks);

#endif
