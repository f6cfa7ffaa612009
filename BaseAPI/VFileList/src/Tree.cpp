// Looks at directory trees.
#include "Tree.h"

#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <vector>

#include "Files.h"

namespace fs = std::filesystem;

namespace {

std::string PathIn(std::string directory, const std::string& name) {
    return directory.append("/").append(name);
}

Trouble ExpectUnchanged(const std::string& path, const struct stat& before) {
    struct stat now {};
    if (lstat(path.c_str(), &now) != 0) return TroubleWith(path, errno);
    if (!IsUnchanged(before, now)) return path + ": it changed while it was read";
    return std::nullopt;
}

Trouble ReadFile(const std::string& path, TreeFile& file) {
    const struct stat& status = file.status;
    if (lstat(path.c_str(), &file.status) != 0) return TroubleWith(path, errno);
    file.attributes = {status.st_mode & kPermissions, status.st_uid, status.st_gid, {}};
    if (S_ISLNK(status.st_mode)) {
        std::error_code error;
        file.link = fs::read_symlink(path, error);
        if (error) return TroubleWith(path, error.value());
    }
    if (!S_ISREG(status.st_mode) && !S_ISDIR(status.st_mode)) return std::nullopt;

    const Descriptor opened(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
    if (!opened) return TroubleWith(path, errno);
    if (const Trouble trouble = ReadAttributes(opened.get(), file.attributes)) return path + ": " + *trouble;
    return ExpectUnchanged(path, status);
}

// The final '/' leads through a link to the tree.
Trouble ReadTree(const std::string& directory, DirectoryTree& tree) {
    if (Trouble trouble = ReadFile(directory + "/", tree[""])) return trouble;
    for (std::vector<std::string> pending = {""}; !pending.empty();) {
        const std::string path = pending.back();
        pending.pop_back();
        std::error_code error;
        fs::directory_iterator entry(PathIn(directory, path), error);
        for (; !error && entry != fs::directory_iterator(); entry.increment(error)) {
            const std::string name = entry->path().filename();
            const std::string below = path.empty() ? name : PathIn(path, name);
            TreeFile& file = tree[below];
            if (Trouble trouble = ReadFile(PathIn(directory, below), file)) return trouble;
            if (S_ISDIR(file.status.st_mode)) pending.push_back(below);
        }
        if (error) return TroubleWith(PathIn(directory, path), error.value());
    }
    return std::nullopt;
}

// Trees have few owners; asking for each file's takes long.
void NameOwners(DirectoryTree& tree) {
    std::map<uid_t, std::string> users;
    std::map<gid_t, std::string> groups;
    for (auto& [path, file] : tree) {
        const auto [user, isNewUser] = users.try_emplace(file.attributes.user);
        const passwd* const knownUser = isNewUser ? getpwuid(user->first) : nullptr;
        if (knownUser != nullptr && IsOwnerName(knownUser->pw_name)) user->second = knownUser->pw_name;
        const auto [owning, isNewGroup] = groups.try_emplace(file.attributes.group);
        const group* const knownGroup = isNewGroup ? getgrgid(owning->first) : nullptr;
        if (knownGroup != nullptr && IsOwnerName(knownGroup->gr_name)) owning->second = knownGroup->gr_name;
        file.user = user->second;
        file.group = owning->second;
    }
}

Trouble CompareContents(const std::string& tree, const std::string& base, Output& output, TreeFacts& facts) {
    std::size_t done = 0;
    for (const auto& [path, file] : facts.files) {
        output.Progress("compare", ++done, facts.files.size());
        const auto old = facts.old.find(path);
        if (old == facts.old.end() || !S_ISREG(file.status.st_mode) || !S_ISREG(old->second.status.st_mode))
            continue;
        if (file.status.st_size != old->second.status.st_size) continue;

        const std::string newPath = PathIn(tree, path);
        const std::string oldPath = PathIn(base, path);
        std::string unreadable;
        const Content content = Compare(newPath, oldPath, unreadable);
        if (content == Content::kUnreadable) return unreadable;
        if (Trouble trouble = ExpectUnchanged(newPath, file.status)) return trouble;
        if (Trouble trouble = ExpectUnchanged(oldPath, old->second.status)) return trouble;
        if (content == Content::kSame) facts.same.insert(path);
    }
    return std::nullopt;
}

}  // namespace

bool IsOwnerName(const std::string& name) {
    constexpr char kCharacters[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789._-";
    const std::size_t end = name.find_first_not_of(kCharacters);
    return !name.empty() && (end == std::string::npos || (name[end] == '$' && end + 1 == name.size()));
}

Trouble ReadTrees(const std::string& tree, const std::string& base, Output& output, TreeFacts& facts) {
    if (Trouble trouble = ReadTree(tree, facts.files)) return trouble;
    NameOwners(facts.files);
    if (base.empty()) return std::nullopt;
    if (Trouble trouble = ReadTree(base, facts.old)) return trouble;
    return CompareContents(tree, base, output, facts);
}
