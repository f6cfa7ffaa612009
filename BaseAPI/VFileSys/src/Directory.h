// Reading directories: the owner of a directory stream, and the two entries that no walk wants.
#ifndef VFILESYS_DIRECTORY_H
#define VFILESYS_DIRECTORY_H

#include <dirent.h>

#include <cstring>
#include <memory>

struct DirCloser {
    void operator()(DIR* dir) const { closedir(dir); }
};
using DirHandle = std::unique_ptr<DIR, DirCloser>;

inline bool IsSelfOrParent(const char* name) {
    return std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0;
}

#endif
