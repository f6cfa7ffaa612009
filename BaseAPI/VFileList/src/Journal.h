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
#include "JournalTargets.h"
#include "Lines.h"
#include "Trouble.h"

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
    std::vector<std::string> newDirectories;  // that -copy will make, in its order
    std::vector<DirectoryMode> directoryModes;
    JournalTargets targets;
};

// The journal's text, which begins in `head`, block by block. Both have to outlive it.
std::vector<std::string_view> Print(const Journal& journal, std::string& head);

// Reads what Print has written. That the text is whole is for its keeper to know.
class JournalParser {
public:
    JournalParser();
    // The next block of the text.
    void Add(std::string_view text) { reader_.Add(text); }
    // The journal, or why the text is none.
    Trouble Finish(Journal& journal);

private:
    void AddLine(LineScanner& scanner);
    void AddTargetLine(std::string_view name, LineScanner& scanner);
    void AddTarget();

    Journal journal_;
    std::optional<JournalTarget> target_;  // the last one, whose lines are not all read
    LineReader reader_;
};

#endif
