// Values that several sources of the library share.
#ifndef VFILESYS_CONSTANTS_H
#define VFILESYS_CONSTANTS_H

#include <cstddef>

constexpr int kSuccess = 0;
constexpr int kFailure = -10000;

// A path of at most 4095 characters and its NUL.
constexpr std::size_t kPathCapacity = 4096;

// A missing text is passed on as the empty one: the system then answers as it does for a name that is not
// there, instead of the process dying.
inline const char* TextOrEmpty(const char* text) {
    return text != nullptr ? text : "";
}

#endif
