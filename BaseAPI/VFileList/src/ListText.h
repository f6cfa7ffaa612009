// The text of a file list for the files of a directory tree: a list for each of its directories.
#ifndef VFILELIST_LISTTEXT_H
#define VFILELIST_LISTTEXT_H

#include <set>
#include <string>

// The directory of a path below the tree; empty for the tree itself.
std::string DirectoryOf(const std::string& path);

// The entry of a file: where it is below Common.
std::string EntryFor(const std::string& path);

// `prefix` stands before the paths on the server, without a '/' at its end.
std::string PrintFileList(const std::set<std::string>& files, const std::string& prefix);

#endif
