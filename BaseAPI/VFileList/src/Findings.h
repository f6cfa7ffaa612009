// What `vfilelist check` can find: each kind has a code that stays the same, what will happen, and what to
// do.
#ifndef VFILELIST_FINDINGS_H
#define VFILELIST_FINDINGS_H

#include <string>
#include <vector>

struct FindingKind {
    const char* code;           // "E-..." is an error, "W-..." a warning
    const char* title;          // what is wrong
    const char* effect;         // what will happen
    const char* advice;         // what to do
    bool isByHandOnly = false;  // an error that `vfilelist upgrade` prevents

    bool IsError() const { return code[0] == 'E'; }
};

// All kinds, errors first, in the order in which they are shown.
const std::vector<FindingKind>& FindingKinds();
const FindingKind& KindOf(const std::string& code);

struct Finding {
    const FindingKind* kind;
    std::string section;  // these three are empty where they do not apply
    std::string key;
    std::string entry;
    std::string path;    // the file or directory in question; may be empty
    std::string detail;  // the particulars; may be empty
};

// Of the package or the machine, not of one list or entry.
Finding FindingOf(const char* code, const std::string& path, const std::string& detail);

#endif
