// Walks /proc once, and asks the dynamic linker what it has loaded.
#include "Processes.h"

#include <link.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <sstream>
#include <vector>

#include "Files.h"
#include "VCopyFileListIni.h"

namespace fs = std::filesystem;

namespace {

constexpr std::size_t kMaxShown = 5;

// As far as it can be read.
std::string TextOf(const std::string& path) {
    std::string text;
    (void)ReadWhole(path, text);
    return text;
}

bool IsNumber(const std::string& name) {
    return std::all_of(name.begin(), name.end(), [](char digit) { return digit >= '0' && digit <= '9'; });
}

// The innermost systemd unit of a process, if there is one.
std::string UnitOf(std::string controlGroups) {
    std::replace(controlGroups.begin(), controlGroups.end(), '\n', '/');
    std::vector<std::string> components;
    SplitString(controlGroups, "/", components);
    const auto unit = std::find_if(components.rbegin(), components.rend(), [](const fs::path& component) {
        const std::string extension = component.extension();
        return extension == ".service" || extension == ".scope";
    });
    return unit != components.rend() ? *unit : "";
}

std::string Description(const fs::path& process) {
    std::string name = TextOf(process / "comm");
    name.erase(std::min(name.find('\n'), name.size()));
    const std::string unit = UnitOf(TextOf(process / "cgroup"));
    return "process " + process.filename().string() + (name.empty() ? "" : " " + name) +
           (unit.empty() ? "" : " [" + unit + "]");
}

// Which of the files the process executes or maps.
std::set<FileId> FilesUsedBy(const fs::path& process, const std::set<FileId>& files,
                             const std::set<ino_t>& inodes) {
    std::set<FileId> used;
    const auto add = [&](const FileId& file) {
        if (files.count(file) != 0) used.insert(file);
    };
    struct stat status {};
    if (stat((process / "exe").c_str(), &status) == 0) add(IdOf(status));
    std::istringstream maps(TextOf(process / "maps"));
    for (std::string line; std::getline(maps, line);) {
        unsigned major = 0;
        unsigned minor = 0;
        unsigned long inode = 0;
        int path = 0;
        (void)std::sscanf(line.c_str(), "%*s %*s %*s %x:%x %lu %n", &major, &minor, &inode, &path);
        if (inodes.count(inode) == 0) continue;
        add({makedev(major, minor), inode});
        // Some file systems show another device here than in a file's status.
        if (stat(line.c_str() + path, &status) == 0) add(IdOf(status));
    }
    return used;
}

int AddLoaded(dl_phdr_info* info, std::size_t /*size*/, void* files) {
    struct stat status {};
    const char* const path = info->dlpi_name[0] == '\0' ? "/proc/self/exe" : info->dlpi_name;
    if (stat(path, &status) == 0) static_cast<std::set<FileId>*>(files)->insert(IdOf(status));
    return 0;
}

}  // namespace

std::map<FileId, std::string> UsersOf(const std::set<FileId>& files) {
    std::set<ino_t> inodes;
    for (const auto& [device, inode] : files) inodes.insert(inode);
    std::map<FileId, std::string> users;
    std::map<FileId, std::size_t> counts;
    std::error_code error;
    const std::string self = std::to_string(getpid());
    for (const fs::directory_entry& process : fs::directory_iterator("/proc", error)) {
        const std::string pid = process.path().filename();
        if (!IsNumber(pid) || pid == self) continue;
        for (const FileId& file : FilesUsedBy(process.path(), files, inodes)) {
            if (++counts[file] > kMaxShown) continue;
            users[file] += (users[file].empty() ? "" : ", ") + Description(process.path());
        }
    }
    for (const auto& [file, count] : counts) {
        if (count > kMaxShown) users[file] += ", and " + std::to_string(count - kMaxShown) + " more";
    }
    return users;
}

std::set<FileId> FilesOfTheTool() {
    std::set<FileId> files;
    (void)dl_iterate_phdr(AddLoaded, &files);
    std::vector<std::string> directories;
    const char* const path = std::getenv("PATH");
    SplitString(path != nullptr ? path : "", ":", directories);
    directories.push_back(fs::path(CanonicalPath("/proc/self/exe").value_or("")).parent_path());
    for (const std::string& directory : directories) {
        struct stat status {};
        if (stat((directory + "/VCopyFileListIni").c_str(), &status) == 0) files.insert(IdOf(status));
    }
    return files;
}
