// What tests ask of the file system, and long paths to try it with.
#ifndef TESTS_SUPPORT_FILESYSTEM_H
#define TESTS_SUPPORT_FILESYSTEM_H

#include <sys/stat.h>
#include <sys/types.h>

#include <cstddef>
#include <string>
#include <vector>

// Sets the process's umask for as long as it lives.
class Umask {
public:
    explicit Umask(mode_t mask);
    ~Umask();
    Umask(const Umask&) = delete;
    Umask& operator=(const Umask&) = delete;

    mode_t old() const { return old_; }

private:
    const mode_t old_;
};

// Of `path` itself, if it is a link. A path that is not there is a failure of
// the test.
struct stat StatusOf(const std::string& path);
mode_t PermissionsOf(const std::string& path);

// The names in a directory, in the order in which its stream gives them.
std::vector<std::string> NamesInStreamOrder(const std::string& path);

// `base` with components of 'd' behind it, `length` bytes in all.
std::string PathOfLength(const std::string& base, std::size_t length);

#endif
