// Adds up what each file system will have to hold.
#include "Space.h"

#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include "Files.h"
#include "Output.h"

void SpaceNeed::AddFile(const std::string& directory, off_t size) {
    const std::string existing = NearestExisting(directory);
    struct statvfs system {};
    struct stat status {};
    if (stat(existing.c_str(), &status) != 0 || statvfs(existing.c_str(), &system) != 0) return;

    Need& need = needs_[status.st_dev];
    const auto blockSize = static_cast<unsigned long long>(system.f_frsize);
    need.bytes += (static_cast<unsigned long long>(size) + blockSize - 1) / blockSize * blockSize;
    ++need.files;
    need.directory = existing;
}

std::vector<Shortage> SpaceNeed::Shortages() const {
    std::vector<Shortage> shortages;
    const bool isRoot = geteuid() == 0;  // who may use the reserve
    for (const auto& [device, need] : needs_) {
        struct statvfs system {};
        if (statvfs(need.directory.c_str(), &system) != 0) continue;
        const unsigned long long free =
            static_cast<unsigned long long>(isRoot ? system.f_bfree : system.f_bavail) * system.f_frsize;
        if (need.bytes > free) {
            shortages.push_back(
                {need.directory, ShownSize(need.bytes) + " are needed, " + ShownSize(free) + " are free"});
        } else if (system.f_files > 0 && need.files > system.f_favail) {
            shortages.push_back({need.directory, Counted(need.files, "file") + " are to be made, " +
                                                     std::to_string(system.f_favail) + " are possible"});
        }
    }
    return shortages;
}
