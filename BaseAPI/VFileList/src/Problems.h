// What the passes skip in silence, treat as something else, or fail on, whatever is installed.
#ifndef VFILELIST_PROBLEMS_H
#define VFILELIST_PROBLEMS_H

#include <string>
#include <vector>

#include "FileList.h"

struct Problem {
    const char* code;  // that of the same finding of `vfilelist check`
    std::string section;
    std::string key;
    std::string entry;
    std::string detail;
};

std::vector<Problem> ProblemsOf(const FileList& list);

#endif
