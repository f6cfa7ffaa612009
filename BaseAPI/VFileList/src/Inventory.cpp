// Fills the journal with what is there.
#include "Inventory.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <filesystem>
#include <utility>

#include "Attributes.h"
#include "Files.h"
#include "PlannedFiles.h"
#include "VCopyFileListIni.h"

namespace fs = std::filesystem;

namespace {

Trouble LookAtOld(const std::string& path, std::optional<OldFile>& old) {
    struct stat status {};
    if (lstat(path.c_str(), &status) != 0) {
        if (errno == ENOENT) return std::nullopt;
        return TroubleWith(path, errno);
    }
    // What a link leads to has the mode and the owner that its successor shall have.
    const Descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    struct stat followed {};
    if (!file || fstat(file.get(), &followed) != 0) return TroubleWith(path, errno);
    if (!S_ISREG(followed.st_mode)) return path + ": not a regular file";

    old = OldFile{S_ISLNK(status.st_mode), status.st_ino, status.st_size, status.st_mtim, {}};
    if (const Trouble trouble = ReadAttributes(file.get(), old->attributes)) return path + ": " + *trouble;
    return std::nullopt;
}

Trouble ExpectFree(const std::string& path) {
    struct stat status {};
    if (lstat(path.c_str(), &status) == 0)
        return path + ": it is there already, from an earlier upgrade perhaps";
    if (errno == ENOENT) return std::nullopt;
    return TroubleWith(path, errno);
}

Trouble LookAtNew(const std::string& source, NewFile& package) {
    const Descriptor file(open(source.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    struct stat status {};
    if (!file || fstat(file.get(), &status) != 0) return TroubleWith(source, errno);
    if (!S_ISREG(status.st_mode)) return source + ": not a regular file";
    const std::optional<Digest> digest = DigestOfFile(file.get());
    if (!digest) return TroubleWith(source, errno);
    package = {source, status.st_size, status.st_mode & kPermissions, *digest};
    return std::nullopt;
}

// What can't be looked at looks missing to `files`, and must not be removed in the end.
Trouble LookAtMade(PlannedFiles& files, const std::string& directory, Journal& journal) {
    for (std::string& made : files.MakeDirectory(directory)) {
        struct stat status {};
        const int error = lstat(made.c_str(), &status) == 0 ? EEXIST : errno;
        if (error != ENOENT) return TroubleWith(made, error);
        journal.newDirectories.push_back(std::move(made));
    }
    return std::nullopt;
}

// Of what is missing, the directory that it will be made in is recorded, too.
Trouble LookAtDirectories(const FileList& list, Journal& journal) {
    PlannedFiles files;
    for (const TargetList& target : list.lists()) {
        fs::path path = WithoutTrailingSlashes(target.directory);
        struct stat status {};
        while (stat(path.c_str(), &status) != 0) {
            if (errno != ENOENT || !path.has_relative_path()) return TroubleWith(path, errno);
            path = path.parent_path();
        }
        journal.oldDirectories.push_back({path, status.st_ino});
        if (Trouble trouble = LookAtMade(files, target.directory, journal)) return trouble;
    }
    return std::nullopt;
}

// Takes the mode and the owner from the manifest where there is no predecessor.
Trouble FollowManifest(const Manifest& manifest, JournalTarget& target) {
    NewFile& package = target.package;
    const ManifestEntry* const entry = manifest.Find(target.path);
    if (entry == nullptr || entry->digest != package.digest)
        return package.source + ": it is not what the manifest says of " + target.path;
    if (target.old) return std::nullopt;
    package.mode = entry->mode;
    package.owner = OwnerOf(*entry);
    if (!package.owner) return target.path + ": " + WhyNoOwner(*entry);
    return std::nullopt;
}

Trouble FollowManifest(const Manifest& manifest, Journal& journal) {
    if (journal.fileListDigest != manifest.fileListDigest)
        return journal.fileList + ": it is not the one of the manifest";
    journal.release = manifest.release;
    for (const std::string& path : journal.newDirectories) {
        const ManifestEntry* const entry = manifest.Find(path);
        if (entry == nullptr) continue;
        const std::optional<Owner> owner = OwnerOf(*entry);
        if (!owner) return path + ": " + WhyNoOwner(*entry);
        journal.directoryModes.push_back({path, entry->mode, *owner});
    }
    return std::nullopt;
}

}  // namespace

Trouble TakeInventory(const FileList& list, const std::optional<Manifest>& manifest, Output& output,
                      Journal& journal) {
    journal.fileList = list.iniPath();
    journal.installType = list.installType();
    journal.begun = std::time(nullptr);
    if (Trouble trouble = LookAtDirectories(list, journal)) return trouble;
    Trouble trouble = manifest ? FollowManifest(*manifest, journal) : std::nullopt;
    if (trouble) return trouble;

    // No more of the targets is needed, and the rest would take memory beside the journal.
    std::vector<std::size_t> entries;
    for (const Target& target : list.Targets()) entries.push_back(target.entries.back());
    for (const std::size_t index : entries) {
        output.Progress("record", journal.targets.size(), entries.size());
        const Entry& entry = list.entries()[index];
        JournalTarget target{list.TargetOf(entry), {}, std::nullopt};
        trouble = LookAtOld(target.path, target.old);
        if (!trouble) trouble = ExpectFree(target.path + kBackupSuffix);
        if (!trouble) trouble = LookAtNew(list.SourceOf(entry), target.package);
        if (!trouble && manifest) trouble = FollowManifest(*manifest, target);
        if (trouble) return trouble;
        journal.targets.push_back(target);
    }
    return std::nullopt;
}
