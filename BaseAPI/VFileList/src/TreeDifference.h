// Which files of a tree a package takes, how its file list names them, and what of the tree no package can
// say. From facts alone: nothing here looks at files.
#ifndef VFILELIST_TREEDIFFERENCE_H
#define VFILELIST_TREEDIFFERENCE_H

#include <set>
#include <string>
#include <vector>

#include "Tree.h"

// Something that the server will not have, or have otherwise.
struct Unsaid {
    std::string path;  // below the tree; "." is the tree itself
    std::string code;  // stays the same from version to version
    std::string text;  // why, for people
};

struct PackagePlan {
    std::set<std::string> files;        // to be installed; paths below the tree, as the next
    std::set<std::string> lists;        // the directories that hold some of them
    std::set<std::string> directories;  // the same with those above
    std::vector<Unsaid> unsaid;         // in the order of paths and codes
};

// `prefix` stands before the paths on the server: absolute, without a '/' at the end, empty for the root
// directory. Owners that are the same for all files by order are not compared.
PackagePlan Decide(const TreeFacts& facts, const std::string& prefix, bool areOwnersCompared);

#endif
