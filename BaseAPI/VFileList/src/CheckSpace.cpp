// Checks whether there is room for the new files beside the backups.
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>

#include "CheckParts.h"
#include "Output.h"

namespace {

std::string Shown(unsigned long long bytes, unsigned long long inodes) {
    return ShownSize(bytes) + " and " + Counted(inodes, "inode");
}

// The size of the largest file of the package that goes there; nothing when there is none.
std::optional<off_t> LargestSource(const FileList& list, const Target& target) {
    std::optional<off_t> largest;
    for (const std::size_t index : target.entries) {
        struct stat source {};
        if (stat(list.SourceOf(list.entries()[index]).c_str(), &source) != 0) continue;
        largest = std::max(largest.value_or(0), source.st_size);
    }
    return largest;
}

}  // namespace

void SpaceNeeds::Add(const std::string& path, off_t size) {
    const std::string directory = files_.NearestPlace(path);
    struct statvfs system {};
    struct stat status {};
    if (stat(directory.c_str(), &status) != 0 || statvfs(directory.c_str(), &system) != 0) return;

    Need& need = needs_[status.st_dev];
    const auto blockSize = static_cast<unsigned long long>(system.f_frsize);
    need.bytes += (static_cast<unsigned long long>(size) + blockSize - 1) / blockSize * blockSize;
    ++need.inodes;
    need.directory = directory;
}

void SpaceNeeds::FindShortages(std::vector<Finding>& findings) const {
    const bool isRoot = geteuid() == 0;  // who may use the reserve
    for (const auto& [device, need] : needs_) {
        struct statvfs system {};
        if (statvfs(need.directory.c_str(), &system) != 0) continue;
        const unsigned long long bytes =
            static_cast<unsigned long long>(isRoot ? system.f_bfree : system.f_bavail) * system.f_frsize;
        const unsigned long long inodes = system.f_favail;
        // Some file systems have as many inodes as they need, and count none.
        const bool hasInodes = system.f_files == 0 || need.inodes <= inodes;
        if (need.bytes <= bytes && hasInodes) continue;
        const std::string free = system.f_files == 0 ? ShownSize(bytes) : Shown(bytes, inodes);
        findings.push_back(FindingOf("W-SPACE", need.directory,
                                     Shown(need.bytes, need.inodes) + " are needed, " + free + " are free"));
    }
}

void CheckSpace(const FileList& list, std::vector<Finding>& findings) {
    PlannedFiles files(list.root());
    SpaceNeeds needs(files);
    for (const TargetList& target : list.lists()) {
        // Each takes a block.
        for (const std::string& made : files.MakeDirectory(target.directory)) needs.Add(made, 1);
    }
    for (const Target& target : list.Targets()) {
        const std::string path = list.TargetOf(list.entries()[target.entries.front()]);
        const std::optional<off_t> size = LargestSource(list, target);
        if (size && files.ResolvedName(path)) needs.Add(path, *size);
    }
    needs.FindShortages(findings);
}
