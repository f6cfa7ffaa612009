// A transaction keeps a copy of its program. This one is large: while such an object lives, a small one
// stands in its place. A replacement of these two calls has to pass on to what it replaces.
#ifndef TESTS_VFILELIST_SMALLPROGRAM_H
#define TESTS_VFILELIST_SMALLPROGRAM_H

#include <sys/stat.h>

#include <cstring>
#include <string>

#include "ScratchDirectory.h"
#include "SystemCalls.h"

class SmallProgram {
public:
    explicit SmallProgram(const ScratchDirectory& scratch) : path_(scratch.Write("program", "small")) {}

private:
    const char* InPlaceOf(const char* path) const {
        return std::strcmp(path, "/proc/self/exe") == 0 ? path_.c_str() : path;
    }

    const std::string path_;
    const Replaced<calls::Hook<int(const char*, int, mode_t)>> open_{
        calls::open, [this](const char* path, int flags, mode_t mode) {
            return calls::real::open(InPlaceOf(path), flags, mode);
        }};
    const Replaced<calls::Hook<int(const char*, struct stat*)>> stat_{
        calls::stat,
        [this](const char* path, struct stat* status) { return calls::real::stat(InPlaceOf(path), status); }};
};

#endif
