// What the process writes to its standard error while the object lives.
#ifndef TESTS_PLATFORM_CAPTUREDSTANDARDERROR_H
#define TESTS_PLATFORM_CAPTUREDSTANDARDERROR_H

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>
#include <stdexcept>
#include <string>

class CapturedStandardError {
public:
    CapturedStandardError()
        : before_(fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 0)), captured_(memfd_create("stderr", MFD_CLOEXEC)) {
        (void)std::fflush(stderr);
        if (before_ < 0 || captured_ < 0 || dup2(captured_, STDERR_FILENO) < 0)
            throw std::runtime_error("can't capture standard error");
    }
    ~CapturedStandardError() {
        (void)std::fflush(stderr);
        (void)dup2(before_, STDERR_FILENO);
        close(before_);
        close(captured_);
    }
    CapturedStandardError(const CapturedStandardError&) = delete;
    CapturedStandardError& operator=(const CapturedStandardError&) = delete;

    // All that was written so far.
    std::string Text() const {
        (void)std::fflush(stderr);
        std::string text;
        char block[4096];
        for (ssize_t size = 0;
             (size = pread(captured_, block, sizeof(block), static_cast<off_t>(text.size()))) > 0;)
            text.append(block, static_cast<std::size_t>(size));
        return text;
    }

private:
    const int before_;
    const int captured_;
};

#endif
