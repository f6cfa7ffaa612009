// Keeps the files that a plan changes under their names without links, and walks paths as the kernel does.
#include "PlannedFiles.h"

#include <algorithm>
#include <deque>
#include <filesystem>
#include <utility>

#include "Files.h"
#include "VPath.h"

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
    PlannedFile file;
    if (lstat(path.c_str(), &file.status) != 0) return {};
    file.kind = KindOf(file.status.st_mode);
    file.origin = path;
    std::error_code error;
    if (file.kind == FileKind::kLink) file.link = fs::read_symlink(path, error);
    return file;
}

// What comes and goes under such a name changes where paths lead.
bool LeadsOn(const PlannedFile& file) {
    return file.kind == FileKind::kDirectory || file.kind == FileKind::kLink;
}

PlannedFile Made(FileKind kind, unsigned long long size) {
    PlannedFile file;
    file.kind = kind;
    file.status.st_size = static_cast<off_t>(size);
    return file;
}

}  // namespace

PlannedFiles::PlannedFiles(std::string root) : root_(WithoutTrailingSlashes(std::move(root))) {}

PlannedFile PlannedFiles::At(const std::string& path) const {
    const std::optional<std::string> name = ResolvedName(path);
    return name ? FileAt(*name) : PlannedFile{};
}

PlannedFile PlannedFiles::Behind(const std::string& path) const {
    const std::optional<std::string> end = EndOf(path);
    return end ? FileAt(*end) : PlannedFile{};
}

// Many paths have the same directory, which is walked once.
std::optional<std::string> PlannedFiles::ResolvedName(const std::string& path) const {
    const std::size_t begin = path.rfind('/') + 1;  // 0 when there is none
    const std::string last = path.substr(begin);
    if (last == "." || last == "..") return Walk(path);

    const auto [directory, isNew] = directoryNames_.try_emplace(path.substr(0, begin));
    if (isNew) directory->second = Walk(directory->first);
    if (!directory->second || last.empty()) return directory->second;
    return *directory->second + "/" + last;
}

std::optional<std::string> PlannedFiles::EndOf(const std::string& path) const {
    std::optional<std::string> name = ResolvedName(path);
    return name && FileAt(*name).kind == FileKind::kLink ? Walk(path) : name;
}

std::string PlannedFiles::NearestPlace(const std::string& path) const {
    const fs::path start = path;
    for (fs::path directory = start; directory.has_relative_path(); directory = directory.parent_path()) {
        std::string origin = Behind(directory).origin;
        if (!origin.empty()) return origin;
    }
    return start.is_absolute() ? root_ + "/" : ".";
}

void PlannedFiles::Move(const std::string& path, const std::string& newPath) {
    const std::optional<std::string> name = ResolvedName(path);
    const std::optional<std::string> newName = ResolvedName(newPath);
    if (!name || !newName) return;
    Change(*newName, FileAt(*name));
    Change(*name, {});
    // What was changed in a directory goes with it.
    const std::string prefix = *name + "/";
    for (auto file = changed_.lower_bound(prefix); file != changed_.end();) {
        if (file->first.compare(0, prefix.size(), prefix) != 0) break;
        auto moved = changed_.extract(file++);
        moved.key().replace(0, name->size(), *newName);
        changed_.insert(std::move(moved));
    }
}

void PlannedFiles::Remove(const std::string& path) {
    if (const std::optional<std::string> name = ResolvedName(path)) Change(*name, {});
}

void PlannedFiles::Write(const std::string& path, unsigned long long size) {
    if (const std::optional<std::string> end = EndOf(path)) Change(*end, Made(FileKind::kFile, size));
}

std::vector<std::string> PlannedFiles::MakeDirectory(const std::string& path) {
    std::vector<std::string> made;
    if (Behind(path).kind != FileKind::kNone) return made;
    const VPath canonical(path.c_str());
    const std::string text = canonical.RealPath().text;
    for (std::size_t end = 0; end != std::string::npos;) {
        end = text.find('/', end + 1);
        const std::string part = text.substr(0, end);
        if (Behind(part).kind != FileKind::kNone) continue;
        const std::optional<std::string> name = ResolvedName(part);
        if (!name || FileAt(*name).kind != FileKind::kNone) break;
        Change(*name, Made(FileKind::kDirectory, 0));
        made.push_back(part);
    }
    return made;
}

PlannedFile PlannedFiles::FileAt(const std::string& name) const {
    const auto changed = changed_.find(name);
    if (changed != changed_.end()) return changed->second;
    // Below a directory that has been moved, the files are where that was; a new one has none.
    std::size_t slash = isTreeChanged_ ? name.rfind('/') : 0;
    for (; slash != 0 && slash != std::string::npos; slash = name.rfind('/', slash - 1)) {
        const auto directory = changed_.find(name.substr(0, slash));
        if (directory == changed_.end()) continue;
        const std::string& origin = directory->second.origin;
        return origin.empty() ? PlannedFile{} : LookAt(origin + name.substr(slash));
    }
    return LookAt(root_ + (name.empty() ? "/" : name));
}

// The name at which the path ends once all links are followed. That of the root directory is empty.
std::optional<std::string> PlannedFiles::Walk(const std::string& path) const {
    const fs::path start = fs::path(path).is_absolute() ? fs::path(path) : fs::current_path() / path;
    std::deque<fs::path> rest(start.begin(), start.end());
    std::string name;
    FileKind kind = FileKind::kDirectory;
    for (int links = 0; !rest.empty();) {
        if (kind != FileKind::kDirectory) return std::nullopt;
        const fs::path component = rest.front();
        rest.pop_front();
        if (component.empty() || component == "." || component == "/") continue;
        if (component == "..") {
            name.erase(std::min(name.rfind('/'), name.size()));
            continue;
        }
        const PlannedFile file = FileAt(name + "/" + component.string());
        if (file.kind != FileKind::kLink) {
            name += "/" + component.string();
            kind = file.kind;
            continue;
        }
        if (++links > kMaxLinks) return std::nullopt;
        const fs::path link = file.link;
        if (link.is_absolute()) name.clear();
        rest.insert(rest.begin(), link.begin(), link.end());
    }
    return name;
}

void PlannedFiles::Change(const std::string& name, PlannedFile file) {
    const bool didLeadOn = LeadsOn(FileAt(name));
    if (didLeadOn || LeadsOn(file)) {
        directoryNames_.clear();
        isTreeChanged_ = true;
    }
    changed_[name] = std::move(file);
}

Trouble WhyNoDirectory(const PlannedFiles& files, const std::string& path) {
    if (files.Behind(path).kind == FileKind::kDirectory) return std::nullopt;
    fs::path nearest = path;
    for (; nearest.has_relative_path(); nearest = nearest.parent_path()) {
        if (files.At(nearest).kind != FileKind::kNone) break;
    }
    const std::string name = nearest.empty() ? "." : nearest.string();
    const FileKind kind = files.Behind(name).kind;
    if (kind == FileKind::kDirectory) return name + " lacks what stands before \"..\"";
    return name + (kind == FileKind::kNone ? " is a dangling link" : " is no directory");
}
