// `vfilelist make`: a package, that is a file list, Common and a manifest, from a directory tree.
#ifndef VFILELIST_MAKE_H
#define VFILELIST_MAKE_H

#include <string>

#include "Output.h"

struct MakeOptions {
    std::string tree;
    std::string base;          // what the server has; may be empty, as the next three
    std::string release;       // of the package
    std::string lowest;        // the lowest release that the package may replace
    std::string owner;         // USER:GROUP of everything, instead of the tree's own owners
    std::string prefix = "/";  // what stands before the tree's paths on the server
    std::string package;       // the directory to make; it may be there if it is empty
    bool isAllowed = false;    // what can't be packaged is no reason for an exit status of 1
};

// Makes the package, whole or not at all. Returns the exit status.
int Make(const MakeOptions& options, Output& output);

#endif
