// Keeps the files that a plan changes under the canonical names of their directories.
#include "PlannedFiles.h"

#include <sys/stat.h>

#include <filesystem>
#include <optional>

#include "Files.h"

namespace fs = std::filesystem;

namespace {

// As many as the kernel follows before it calls it a loop.
constexpr int kMaxLinks = 40;

FileKind KindOf(mode_t mode) {
    if (S_ISREG(mode)) return FileKind::kFile;
    if (S_ISDIR(mode)) return FileKind::kDirectory;
    return S_ISLNK(mode) ? FileKind::kLink : FileKind::kOther;
}

PlannedFile LookAt(const std::string& path) {
    struct stat status {};
    if (lstat(path.c_str(), &status) != 0) return {};
    PlannedFile file{KindOf(status.st_mode),
                     static_cast<unsigned long long>(status.st_size),
                     path,
                     "",
                     {status.st_dev, status.st_ino}};
    std::error_code error;
    if (file.kind == FileKind::kLink) file.link = fs::read_symlink(path, error);
    return file;
}

}  // namespace

PlannedFile PlannedFiles::At(const std::string& path) const {
    const auto changed = changed_.find(NameOf(path));
    return changed != changed_.end() ? changed->second : LookAt(WithoutTrailingSlashes(path));
}

std::string PlannedFiles::EndOf(const std::string& path) const {
    std::string end = WithoutTrailingSlashes(path);
    for (int links = 0; links < kMaxLinks; ++links) {
        const PlannedFile file = At(end);
        if (file.kind != FileKind::kLink) break;
        end = WithoutTrailingSlashes(fs::path(end).parent_path() / file.link);
    }
    return end;
}

void PlannedFiles::Move(const std::string& path, const std::string& newPath) {
    changed_[NameOf(newPath)] = At(path);
    Remove(path);
}

void PlannedFiles::Remove(const std::string& path) {
    changed_[NameOf(path)] = {};
}

void PlannedFiles::Write(const std::string& path, unsigned long long size) {
    PlannedFile file;
    file.kind = FileKind::kFile;
    file.size = size;
    changed_[NameOf(EndOf(path))] = file;
}

void PlannedFiles::MakeDirectory(const std::string& path) {
    PlannedFile directory;
    directory.kind = FileKind::kDirectory;
    for (fs::path missing = WithoutTrailingSlashes(path); At(missing).kind == FileKind::kNone;
         missing = missing.parent_path()) {
        changed_[NameOf(missing)] = directory;
    }
}

std::string PlannedFiles::NameOf(const std::string& path) const {
    const fs::path plain = WithoutTrailingSlashes(path);
    return DirectoryNameOf(plain.parent_path()) + "/" + plain.filename().string();
}

// The canonical path of a directory, or what that will be once it is made.
std::string PlannedFiles::DirectoryNameOf(const std::string& path) const {
    if (path.empty()) return ".";
    const auto [name, isNew] = directoryNames_.try_emplace(path);
    if (!isNew) return name->second;
    const std::optional<std::string> real = CanonicalPath(path);
    const std::string found = real ? *real : NameOf(path);
    return directoryNames_[path] = found;
}
