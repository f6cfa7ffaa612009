// Limits of the process that a test lowers.
#ifndef TESTS_SUPPORT_RESOURCELIMIT_H
#define TESTS_SUPPORT_RESOURCELIMIT_H

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <csignal>

// Lowers one of the process's limits for as long as it lives.
class ResourceLimit {
public:
    ResourceLimit(decltype(RLIMIT_NOFILE) resource, rlim_t limit) : resource_(resource) {
        EXPECT_EQ(getrlimit(resource_, &old_), 0);
        const rlimit lowered = {limit, old_.rlim_max};
        EXPECT_EQ(setrlimit(resource_, &lowered), 0);
    }
    ~ResourceLimit() { setrlimit(resource_, &old_); }
    ResourceLimit(const ResourceLimit&) = delete;
    ResourceLimit& operator=(const ResourceLimit&) = delete;

private:
    const decltype(RLIMIT_NOFILE) resource_;
    rlimit old_ = {};
};

// Files grow to `size` bytes and no further: the write that reaches the limit is cut, the next one fails.
class FileSizeLimit {
public:
    explicit FileSizeLimit(rlim_t size) : oldHandler_(signal(SIGXFSZ, SIG_IGN)), limit_(RLIMIT_FSIZE, size) {}
    ~FileSizeLimit() { signal(SIGXFSZ, oldHandler_); }
    FileSizeLimit(const FileSizeLimit&) = delete;
    FileSizeLimit& operator=(const FileSizeLimit&) = delete;

private:
    void (*const oldHandler_)(int);
    const ResourceLimit limit_;
};

#endif
