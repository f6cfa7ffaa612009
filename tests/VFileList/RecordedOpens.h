// The flags with which files and directories are opened.
#ifndef TESTS_VFILELIST_RECORDEDOPENS_H
#define TESTS_VFILELIST_RECORDEDOPENS_H

#include <fcntl.h>

#include <map>
#include <string>

#include "SystemCalls.h"

// Of every path that is opened while it lives. An open that would wait for a pipe's writer does not, so that
// a test fails and does not hang.
class RecordedOpens {
public:
    // -1 for a path that was not opened.
    int FlagsOf(const std::string& path) const {
        const auto found = flags_.find(path);
        return found != flags_.end() ? found->second : -1;
    }

private:
    std::map<std::string, int> flags_;
    const Replaced<calls::Hook<int(const char*, int, mode_t)>> replaced_{
        calls::open, [this](const char* path, int flags, mode_t mode) {
            flags_[path] = flags;
            return calls::real::open(path, flags | O_NONBLOCK, mode);
        }};
};

#endif
