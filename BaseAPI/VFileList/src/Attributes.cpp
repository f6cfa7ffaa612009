// Reads and writes modes, owners and extended attributes.
#include "Attributes.h"

#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstring>
#include <tuple>

namespace {

constexpr std::size_t kMostBytes = XATTR_SIZE_MAX;  // of one value, and of all names

Trouble Cause() {
    return std::strerror(errno);
}

Trouble ReadExtended(int fd, std::vector<ExtendedAttribute>& extended) {
    std::string names(kMostBytes, '\0');
    const ssize_t length = flistxattr(fd, names.data(), names.size());
    if (length < 0) return errno == ENOTSUP ? std::nullopt : Cause();

    std::string value(kMostBytes, '\0');
    const char* const end = names.data() + length;
    for (const char* name = names.data(); name < end; name += std::strlen(name) + 1) {
        if (!IsKept(name)) continue;
        const ssize_t size = fgetxattr(fd, name, value.data(), value.size());
        if (size < 0) return Cause();
        extended.push_back({name, value.substr(0, static_cast<std::size_t>(size))});
    }
    std::sort(extended.begin(), extended.end(),
              [](const auto& left, const auto& right) { return left.name < right.name; });
    return std::nullopt;
}

bool Contains(const std::vector<ExtendedAttribute>& extended, const std::string& name) {
    return std::any_of(extended.begin(), extended.end(),
                       [&name](const ExtendedAttribute& attribute) { return attribute.name == name; });
}

// A new file may have got an access control list from its directory.
Trouble RemoveOthers(int fd, const std::vector<ExtendedAttribute>& wanted,
                     const std::vector<ExtendedAttribute>& present) {
    for (const ExtendedAttribute& attribute : present) {
        if (Contains(wanted, attribute.name)) continue;
        if (fremovexattr(fd, attribute.name.c_str()) != 0) return Cause();
    }
    return std::nullopt;
}

}  // namespace

bool operator==(const Attributes& left, const Attributes& right) {
    return std::tie(left.mode, left.user, left.group, left.extended) ==
           std::tie(right.mode, right.user, right.group, right.extended);
}

bool IsKept(const std::string& name) {
    return name == "security.capability" || name == "system.posix_acl_access" || name.rfind("user.", 0) == 0;
}

Trouble ReadAttributes(int fd, Attributes& attributes) {
    struct stat status {};
    if (fstat(fd, &status) != 0) return Cause();
    attributes = {status.st_mode & kPermissions, status.st_uid, status.st_gid, {}};
    return ReadExtended(fd, attributes.extended);
}

Trouble WriteAttributes(int fd, const Attributes& attributes) {
    Attributes present;
    if (Trouble trouble = ReadAttributes(fd, present)) return trouble;
    if (present == attributes) return std::nullopt;
    if (Trouble trouble = RemoveOthers(fd, attributes.extended, present.extended)) return trouble;

    // The owner first: a change of the owner takes set-id bits and capabilities away, and a file of a wrong
    // owner must not get them. Then the mode, which an access control list may sharpen.
    if (fchown(fd, attributes.user, attributes.group) != 0) return Cause();
    if (fchmod(fd, attributes.mode) != 0) return Cause();
    for (const ExtendedAttribute& attribute : attributes.extended) {
        if (fsetxattr(fd, attribute.name.c_str(), attribute.value.data(), attribute.value.size(), 0) != 0) {
            return Cause();
        }
    }
    return std::nullopt;
}
