// What an upgrade needs to know to be taken back or finished, written down before its first change. A value:
// it can be printed, and read again.
#ifndef VFILELIST_JOURNAL_H
#define VFILELIST_JOURNAL_H

#include <sys/types.h>

#include <cstddef>
#include <ctime>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Attributes.h"
#include "Digest.h"
#include "Trouble.h"

// A file that was there before the upgrade.
struct OldFile {
    bool isLink = false;
    ino_t inode = 0;
    off_t size = 0;
    timespec modified{};
    Attributes attributes;  // of the file that a link leads to
};

// A file of the package.
struct NewFile {
    std::string source;
    off_t size = 0;
    mode_t mode = 0;
    Digest digest{};
};

struct JournalTarget {
    std::string path;
    NewFile package;
    std::optional<OldFile> old;
};

// A directory of targets that was there before the upgrade. One of another number is another one: a file
// system may not be mounted.
struct OldDirectory {
    std::string path;
    ino_t inode = 0;
};

struct Journal {
    std::string fileList;  // its canonical path
    Digest fileListDigest{};
    std::string installType;
    std::time_t begun = 0;
    std::vector<OldDirectory> oldDirectories;
    std::vector<std::string> newDirectories;  // that -copy will make, parents first
    std::vector<JournalTarget> targets;       // in the order in which the passes visit them
};

std::string Print(const Journal& journal);

// Reads what Print has written; trouble for anything else.
Trouble Parse(std::string_view text, Journal& journal);

#endif
