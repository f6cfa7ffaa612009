// A directory tree as a value, for comparing what an upgrade leaves with what it should leave. Made of plain
// calls of the platform, with nothing of what is tested.
#ifndef TESTS_SUPPORT_TREESNAPSHOT_H
#define TESTS_SUPPORT_TREESNAPSHOT_H

#include <sys/types.h>

#include <ctime>
#include <map>
#include <optional>
#include <string>
#include <vector>

struct TreeNode {
    mode_t mode = 0;  // the kind and the permissions
    uid_t user = 0;
    gid_t group = 0;
    std::string content;                            // of a file; where a link leads
    std::map<std::string, std::string> attributes;  // all extended ones
    std::optional<timespec> modified;               // of files and links; nothing: any time will do
};

// By the paths below the directory, which itself is ".".
using TreeSnapshot = std::map<std::string, TreeNode>;

TreeSnapshot TakeSnapshot(const std::string& directory);

// A line for each difference.
std::vector<std::string> DifferencesBetween(const TreeSnapshot& expected, const TreeSnapshot& actual);

#endif
