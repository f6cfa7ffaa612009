// How much of what can be repeated at will is repeated, and what does no more than a sample.
#ifndef TESTS_SUPPORT_SCALE_H
#define TESTS_SUPPORT_SCALE_H

#include <cstdlib>

#include "Sanitizer.h"

// 1, or what VFILESYS_TEST_SCALE says: ./dev check soak sets it.
inline long TestScale() {
    const char* const scale = std::getenv("VFILESYS_TEST_SCALE");
    const long value = scale == nullptr ? 1 : std::strtol(scale, nullptr, 10);
    return value > 0 ? value : 1;
}

// Whether a program is watched or emulated, so that it takes many times as long. What a long sweep shows of
// the program's results it shows elsewhere; here a sample of it does.
constexpr bool kIsSlow = VFS_TEST_ADDRESS_SANITIZER || VFS_TEST_THREAD_SANITIZER || VFS_TEST_EMULATED;

#endif
