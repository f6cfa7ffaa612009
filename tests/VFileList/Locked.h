// Files that cannot be renamed because of their attributes.
#ifndef TESTS_VFILELIST_LOCKED_H
#define TESTS_VFILELIST_LOCKED_H

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <string>

// A file or directory with attributes as chattr sets them; they are taken away at the end.
class Locked {
public:
    Locked(const std::string& path, unsigned flags) : fd_(open(path.c_str(), O_RDONLY | O_CLOEXEC)) {
        isSet_ = ioctl(fd_, FS_IOC_GETFLAGS, &old_) == 0 && Set(old_ | flags);
    }
    ~Locked() {
        EXPECT_TRUE(!isSet_ || Set(old_));
        EXPECT_EQ(close(fd_), 0);
    }
    Locked(const Locked&) = delete;
    Locked& operator=(const Locked&) = delete;

    bool isSet() const { return isSet_; }

private:
    bool Set(unsigned flags) const { return ioctl(fd_, FS_IOC_SETFLAGS, &flags) == 0; }

    const int fd_;
    unsigned old_ = 0;
    bool isSet_ = false;
};

#endif
