// The processes that use files, and the files that this program and the upgrade tool are started from.
#ifndef VFILELIST_PROCESSES_H
#define VFILELIST_PROCESSES_H

#include <sys/stat.h>

#include <map>
#include <set>
#include <string>
#include <utility>

using FileId = std::pair<dev_t, ino_t>;

inline FileId IdOf(const struct stat& status) {
    return {status.st_dev, status.st_ino};
}

// For each of the files that another process executes or maps: "process 1908 nginx [nginx.service], and 3
// more". Of other users' processes only root sees which.
std::map<FileId, std::string> UsersOf(const std::set<FileId>& files);

// Without these neither this program nor the upgrade tool, here or in PATH, starts again.
std::set<FileId> FilesOfTheTool();

#endif
