// Makes certain that the copies are the package's files, and gives them what their predecessors had.
#ifndef VFILELIST_INSTALL_H
#define VFILELIST_INSTALL_H

#include <sys/types.h>

#include <ctime>
#include <vector>

#include "Journal.h"
#include "Undo.h"

// Whether all is as -rename shall leave it: the old files under NAME.bak, nothing under NAME. What is not is
// told.
bool IsRenamed(const Journal& journal, std::vector<Remark>& remarks);

// A file at one moment: whoever replaces it or writes to it gives it another stamp.
struct Stamp {
    ino_t inode = 0;
    off_t size = 0;
    timespec changed{};
};

// Compares one copy with what was recorded of the package, gives it the mode, the owner and the attributes of
// its predecessor (a new file: mode and owner of the manifest, or the package's mode), and puts it on the
// disk.
Trouble Install(const JournalTarget& target, Stamp& stamp);

// Gives the directories that -copy has made the modes and owners of the manifest, and puts them on the disk.
Trouble InstallDirectories(const Journal& journal);

// Whether all is as Install has left it, and the old files are under NAME.bak. What is not is told.
bool IsInstalled(const Journal& journal, const std::vector<Stamp>& stamps, std::vector<Remark>& remarks);

// Whether every backup is the old file or gone. What is not is told.
bool AreBackupsOurs(const Journal& journal, std::vector<Remark>& remarks);

// Removes the old files that are still under NAME.bak. False when one can't be removed.
bool RemoveBackups(const Journal& journal, std::vector<Remark>& remarks);

#endif
