// How much of what can be repeated at will is repeated.
#ifndef TESTS_SUPPORT_SCALE_H
#define TESTS_SUPPORT_SCALE_H

#include <cstdlib>

// 1, or what VFILESYS_TEST_SCALE says: ./dev check soak sets it.
inline long TestScale() {
    const char* const scale = std::getenv("VFILESYS_TEST_SCALE");
    const long value = scale == nullptr ? 1 : std::strtol(scale, nullptr, 10);
    return value > 0 ? value : 1;
}

#endif
