#include "TreeSnapshot.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <sstream>
#include <stdexcept>

namespace {

[[noreturn]] void Fail(const std::string& what, const std::string& path) {
    throw std::runtime_error(what + " " + path + ": " + std::strerror(errno));
}

std::string ContentOf(const std::string& path) {
    const int fd = open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0) Fail("open", path);
    std::string content;
    std::array<char, 65536> block{};
    ssize_t count = 0;
    while ((count = read(fd, block.data(), block.size())) > 0) {
        content.append(block.data(), static_cast<std::size_t>(count));
    }
    close(fd);
    if (count < 0) Fail("read", path);
    return content;
}

std::string LinkOf(const std::string& path) {
    std::array<char, 4096> text{};
    const ssize_t length = readlink(path.c_str(), text.data(), text.size());
    if (length < 0) Fail("readlink", path);
    return {text.data(), static_cast<std::size_t>(length)};
}

std::map<std::string, std::string> AttributesOf(const std::string& path) {
    std::map<std::string, std::string> attributes;
    std::string names(65536, '\0');
    const ssize_t length = llistxattr(path.c_str(), names.data(), names.size());
    if (length < 0 && errno != ENOTSUP) Fail("llistxattr", path);
    const auto end = static_cast<std::size_t>(std::max<ssize_t>(length, 0));
    for (std::size_t at = 0; at < end; at += std::strlen(&names[at]) + 1) {
        std::string value(65536, '\0');
        const ssize_t size = lgetxattr(path.c_str(), &names[at], value.data(), value.size());
        if (size < 0) Fail("lgetxattr", path);
        value.resize(static_cast<std::size_t>(size));
        attributes[&names[at]] = value;
    }
    return attributes;
}

TreeNode NodeOf(const std::string& path) {
    struct stat status {};
    if (lstat(path.c_str(), &status) != 0) Fail("lstat", path);
    TreeNode node{status.st_mode, status.st_uid, status.st_gid, "", AttributesOf(path), std::nullopt};
    if (S_ISREG(status.st_mode)) node.content = ContentOf(path);
    if (S_ISLNK(status.st_mode)) node.content = LinkOf(path);
    if (!S_ISDIR(status.st_mode)) node.modified = status.st_mtim;
    return node;
}

void AddBelow(const std::string& directory, const std::string& prefix, TreeSnapshot& snapshot) {
    DIR* const stream = opendir(directory.c_str());
    if (stream == nullptr) Fail("opendir", directory);
    while (const dirent* const entry = readdir(stream)) {
        const std::string name = entry->d_name;
        if (name == "." || name == "..") continue;
        const TreeNode node = NodeOf(directory + "/" + name);
        snapshot[prefix + name] = node;
        if (S_ISDIR(node.mode)) AddBelow(directory + "/" + name, prefix + name + "/", snapshot);
    }
    closedir(stream);
}

std::string Describe(const TreeNode& node) {
    std::ostringstream text;
    text << "mode " << std::oct << node.mode << std::dec << ", owner " << node.user << ':' << node.group
         << ", " << node.content.size() << " bytes";
    for (const auto& [name, value] : node.attributes)
        text << ", " << name << " of " << value.size() << " bytes";
    return text.str();
}

bool IsSameTime(const std::optional<timespec>& left, const std::optional<timespec>& right) {
    if (!left || !right) return true;
    return left->tv_sec == right->tv_sec && left->tv_nsec == right->tv_nsec;
}

bool IsSame(const TreeNode& left, const TreeNode& right) {
    return left.mode == right.mode && left.user == right.user && left.group == right.group &&
           left.content == right.content && left.attributes == right.attributes &&
           IsSameTime(left.modified, right.modified);
}

}  // namespace

TreeSnapshot TakeSnapshot(const std::string& directory) {
    TreeSnapshot snapshot;
    snapshot["."] = NodeOf(directory);
    AddBelow(directory, "", snapshot);
    return snapshot;
}

std::vector<std::string> DifferencesBetween(const TreeSnapshot& expected, const TreeSnapshot& actual) {
    std::vector<std::string> differences;
    for (const auto& [path, node] : expected) {
        const auto found = actual.find(path);
        if (found == actual.end()) {
            differences.push_back(path + " is missing");
        } else if (!IsSame(node, found->second)) {
            differences.push_back(path + " has " + Describe(found->second) + " instead of " + Describe(node) +
                                  (node.content == found->second.content ? "" : ", and another content"));
        }
    }
    for (const auto& [path, node] : actual) {
        if (expected.count(path) == 0) differences.push_back(path + " has come from nowhere");
    }
    return differences;
}
