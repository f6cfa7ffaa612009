// Checks whether there is room for the new files beside the backups.
#include <sys/statvfs.h>
#include <unistd.h>

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

// The new files with their sizes; of several entries for one the largest.
std::map<std::string, unsigned long long> NewFiles(const FileList& list, const PlannedFiles& files) {
    std::map<std::string, unsigned long long> sizes;
    for (const Entry& entry : list.entries()) {
        const std::optional<std::string> name = files.NameOf(list.TargetOf(entry));
        struct stat source {};
        if (!HasFileName(entry) || !name || stat(list.SourceOf(entry).c_str(), &source) != 0) continue;
        unsigned long long& size = sizes[*name];
        size = std::max(size, static_cast<unsigned long long>(source.st_size));
    }
    return sizes;
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
    for (const auto& [name, size] : NewFiles(list, files)) Add(files, name, size, spaces);

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
