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
#include "Lines.h"
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
    std::optional<Owner> owner = {};  // of a file without a predecessor, if the manifest tells
};

struct JournalTarget {
    std::string path;
    NewFile package;
    std::optional<OldFile> old;

    // What the new file shall have: those of its predecessor, or what the manifest says. Nothing where
    // neither tells: then it keeps its owner, and what its directory gave it.
    std::optional<Attributes> Wanted() const;
};

// A directory of targets that was there before the upgrade. One of another number is another one: a file
// system may not be mounted.
struct OldDirectory {
    std::string path;
    ino_t inode = 0;
};

// What the manifest says of a directory that -copy will make.
struct DirectoryMode {
    std::string path;
    mode_t mode = 0;
    Owner owner;
};

struct Journal {
    std::string release;   // that the manifest names; may be empty
    std::string fileList;  // its canonical path
    Digest fileListDigest{};
    std::string installType;
    std::time_t begun = 0;
    std::vector<OldDirectory> oldDirectories;
    std::vector<std::string> newDirectories;  // that -copy will make, parents first
    std::vector<DirectoryMode> directoryModes;
    std::vector<JournalTarget> targets;  // in the order in which the passes visit them
};

// Hands the journal's text to the sink, block by block. Returns the sink's first trouble.
Trouble Print(const Journal& journal, const Sink& sink);

// Reads what Print has written. That the text is whole is for its keeper to know.
class JournalParser {
public:
    JournalParser();
    // The next block of the text.
    void Add(std::string_view text) { reader_.Add(text); }
    // The journal, or why the text is none.
    Trouble Finish(Journal& journal);

private:
    Journal journal_;
    LineReader reader_;
};

#endif
