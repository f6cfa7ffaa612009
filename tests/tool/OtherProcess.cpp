#include "OtherProcess.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <stdexcept>

namespace fs = std::filesystem;

namespace {

constexpr mode_t kForeignMode = 0604;

void Expect(bool isDone, const std::string& path) {
    if (!isDone) throw std::runtime_error("the other process can't do it: " + path);
}

void MoveFileTo(const std::string& path, const std::string& scratch) {
    std::ofstream(scratch) << kForeignText;
    Expect(chmod(scratch.c_str(), kForeignMode) == 0, scratch);
    Expect(rename(scratch.c_str(), path.c_str()) == 0, path);
}

void WriteOver(const std::string& path) {
    const int file = open(path.c_str(), O_WRONLY | O_CLOEXEC | O_NOFOLLOW);
    const auto size = static_cast<ssize_t>(kForeignText.size());
    Expect(write(file, kForeignText.data(), kForeignText.size()) == size, path);
    (void)close(file);
}

}  // namespace

const std::string kForeignText = "somebody's\n";

bool CanAct(Act act, const std::string& path) {
    struct stat status {};
    const bool isThere = lstat(path.c_str(), &status) == 0;
    if (act == Act::kPut) return !isThere && fs::exists(fs::path(path).parent_path());
    return isThere && (act != Act::kTruncate || status.st_size > 0);
}

void DoAct(Act act, const std::string& path, const std::string& scratch) {
    switch (act) {
        case Act::kReplace:
        case Act::kPut:
            return MoveFileTo(path, scratch);
        case Act::kRemove:
            return Expect(unlink(path.c_str()) == 0, path);
        case Act::kTruncate:
            return Expect(truncate(path.c_str(), 0) == 0, path);
        case Act::kWrite:
            return WriteOver(path);
    }
}

TreeSnapshot AfterAct(Act act, const std::string& path, TreeSnapshot tree) {
    const auto found = tree.find(path);
    const bool isThere = found != tree.end();
    if ((act == Act::kPut) == isThere) return tree;
    switch (act) {
        case Act::kReplace:
        case Act::kPut:
            tree[path] = {S_IFREG | kForeignMode, geteuid(), getegid(), kForeignText, {}, std::nullopt};
            break;
        case Act::kRemove:
            tree.erase(found);
            break;
        case Act::kTruncate:
            found->second.content.clear();
            found->second.modified.reset();
            break;
        case Act::kWrite:
            found->second.content.replace(0, kForeignText.size(), kForeignText);
            found->second.modified.reset();
            break;
    }
    return tree;
}
