// Texts that an operation under faults tells of itself. Making them is not the operation's work, and does not
// fail with it.
#ifndef TESTS_FAULTS_FAULTTEXTS_H
#define TESTS_FAULTS_FAULTTEXTS_H

#include <cerrno>
#include <cstddef>
#include <fstream>
#include <string>

#include "SystemCalls.h"

inline std::string Text(const char* text) {
    const calls::WithoutFaults paused;
    return text;
}

// errno stays as it is.
inline std::string Text(long value) {
    const int error = errno;
    const calls::WithoutFaults paused;
    std::string text = std::to_string(value);
    errno = error;
    return text;
}

inline void Nothing() {}

inline void Write(const std::string& name, const std::string& content) {
    std::ofstream(name) << content;
}

// Text that repeats, but not by a power of two.
inline std::string Pattern(std::size_t size) {
    std::string text;
    for (std::size_t i = 0; i < size; ++i) text += static_cast<char>('a' + i % 23);
    return text;
}

#endif
