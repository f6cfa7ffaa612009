#include "FileSystem.h"

#include <dirent.h>
#include <gtest/gtest.h>

#include <algorithm>

Umask::Umask(mode_t mask) : old_(umask(mask)) {}

Umask::~Umask() {
    umask(old_);
}

struct stat StatusOf(const std::string& path) {
    struct stat status = {};
    EXPECT_EQ(lstat(path.c_str(), &status), 0) << path;
    return status;
}

mode_t PermissionsOf(const std::string& path) {
    return StatusOf(path).st_mode & 07777;
}

std::vector<std::string> NamesInStreamOrder(const std::string& path) {
    std::vector<std::string> names;
    DIR* const dir = opendir(path.c_str());
    if (dir == nullptr) return names;
    while (const dirent* const entry = readdir(dir)) {
        const std::string name = entry->d_name;
        if (name != "." && name != "..") names.push_back(name);
    }
    closedir(dir);
    return names;
}

std::string PathOfLength(const std::string& base, std::size_t length) {
    std::string path = base;
    while (path.size() < length) {
        const std::size_t rest = length - path.size() - 1;
        const std::size_t name = std::min<std::size_t>(rest, 200);
        // One byte left over would be a '/' with nothing behind it.
        path += "/" + std::string(rest - name == 1 ? name - 1 : name, 'd');
    }
    return path;
}
