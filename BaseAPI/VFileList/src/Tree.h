// What there is in the directory trees that a package is made of.
#ifndef VFILELIST_TREE_H
#define VFILELIST_TREE_H

#include <sys/stat.h>

#include <map>
#include <set>
#include <string>

#include "Attributes.h"
#include "Output.h"
#include "Trouble.h"

struct TreeFile {
    struct stat status {};  // of a link itself
    Attributes attributes;  // extended ones of files and directories only
    std::string link;       // where a link leads
    std::string user;       // as a manifest names them; empty where it can't
    std::string group;
};

// By the paths below the tree's directory, which itself is the empty one.
using DirectoryTree = std::map<std::string, TreeFile>;

struct TreeFacts {
    DirectoryTree files;         // of the new tree
    DirectoryTree old;           // of the one that the server has
    std::set<std::string> same;  // files of both trees with the same content
};

// Whether a manifest can hold the text as the name of a user or group.
bool IsOwnerName(const std::string& name);

// Looks at all of both trees. `base`, the old one, may be empty: there is none. The trouble names what can't
// be read.
Trouble ReadTrees(const std::string& tree, const std::string& base, Output& output, TreeFacts& facts);

#endif
