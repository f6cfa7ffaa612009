// Checks whether there is room for the new files beside the backups.
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <map>

#include "CheckParts.h"
#include "Output.h"

namespace {

struct Space {
    unsigned long long bytes = 0;
    unsigned long long inodes = 0;
    std::string directory;
};
using SpaceByDevice = std::map<dev_t, Space>;

// A file or directory of `size` bytes, in the nearest directory above `place`.
void Add(const PlannedFiles& files, const std::string& path, unsigned long long size, SpaceByDevice& spaces) {
    const std::string directory = files.NearestPlace(path);
    struct statvfs system {};
    struct stat status {};
    if (stat(directory.c_str(), &status) != 0 || statvfs(directory.c_str(), &system) != 0) return;

    Space& space = spaces[status.st_dev];
    const auto blockSize = static_cast<unsigned long long>(system.f_frsize);
    space.bytes += (size + blockSize - 1) / blockSize * blockSize;
    ++space.inodes;
    space.directory = directory;
}

// The size of the new file; of several entries for it the largest. Nothing when the package has none.
std::optional<unsigned long long> SizeOf(const FileList& list, const Target& target) {
    std::optional<unsigned long long> size;
    for (const std::size_t index : target.entries) {
        struct stat source {};
        if (stat(list.SourceOf(list.entries()[index]).c_str(), &source) != 0) continue;
        size = std::max(size.value_or(0), static_cast<unsigned long long>(source.st_size));
    }
    return size;
}

std::string Shown(unsigned long long bytes, unsigned long long inodes) {
    return ShownSize(bytes) + " and " + Counted(inodes, "inode");
}

}  // namespace

void CheckSpace(const FileList& list, std::vector<Finding>& findings) {
    PlannedFiles files(list.root());
    SpaceByDevice spaces;
    for (const TargetList& target : list.lists()) {
        // Each takes a block.
        for (const std::string& made : files.MakeDirectory(target.directory)) Add(files, made, 1, spaces);
    }
    for (const Target& target : list.Targets()) {
        const std::string path = list.TargetOf(list.entries()[target.entries.front()]);
        const std::optional<unsigned long long> size = SizeOf(list, target);
        if (size && files.NameOf(path)) Add(files, path, *size, spaces);
    }

    const bool isRoot = geteuid() == 0;  // who may use the reserve
    for (const auto& [device, space] : spaces) {
        struct statvfs system {};
        if (statvfs(space.directory.c_str(), &system) != 0) continue;
        const unsigned long long bytes =
            static_cast<unsigned long long>(isRoot ? system.f_bfree : system.f_bavail) * system.f_frsize;
        const unsigned long long inodes = system.f_favail;
        // Some file systems have as many inodes as they need, and count none.
        const bool hasInodes = system.f_files == 0 || space.inodes <= inodes;
        if (space.bytes <= bytes && hasInodes) continue;
        const std::string free = system.f_files == 0 ? ShownSize(bytes) : Shown(bytes, inodes);
        findings.push_back({&KindOf("W-SPACE"), "", "", "", space.directory,
                            Shown(space.bytes, space.inodes) + " are needed, " + free + " are free"});
    }
}
