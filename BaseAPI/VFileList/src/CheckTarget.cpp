// Checks the installed files: what they are, what the passes would do to them, and who uses them.
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <sstream>

#include "Attributes.h"
#include "CheckParts.h"
#include "Output.h"
#include "TargetFacts.h"

namespace {

// The capabilities, access control list and user attributes of a file, by name.
std::string AttributesOf(const std::string& path) {
    const ssize_t size = listxattr(path.c_str(), nullptr, 0);
    if (size <= 0) return "";
    std::string names(static_cast<std::size_t>(size), '\0');
    const ssize_t length = listxattr(path.c_str(), names.data(), names.size());
    names.resize(static_cast<std::size_t>(std::max<ssize_t>(length, 0)));
    std::istringstream list(names);
    std::string lost;
    for (std::string name; std::getline(list, name, '\0');) {
        if (IsKept(name)) lost += (lost.empty() ? "" : ", ") + name;
    }
    return lost;
}

std::string LostMode(const struct stat& reference, const struct stat& directory, bool isInstalled) {
    const mode_t newMode = 0666 & ~CurrentUmask();
    const mode_t mode = reference.st_mode & kPermissions;
    std::string detail;
    if (mode != newMode) detail = ShownMode(mode) + " becomes " + ShownMode(newMode);
    // In a directory with the set-group-id bit a new file has the directory's group.
    const gid_t group = (directory.st_mode & S_ISGID) != 0 ? directory.st_gid : getegid();
    if (isInstalled && (reference.st_uid != geteuid() || reference.st_gid != group)) {
        if (!detail.empty()) detail += ", ";
        detail += "owner " + ShownOwner(reference) + " becomes " + std::to_string(geteuid()) + ":" +
                  std::to_string(group);
    }
    return detail.empty() || isInstalled ? detail : detail + ", new in this package";
}

}  // namespace

TargetChecker::TargetChecker(Inspection& inspection) : inspection_(inspection) {
    (void)stat(inspection.list.iniPath().c_str(), &fileList_);  // without it nothing is the list
}

void TargetChecker::Check(const Entry& entry, const std::optional<struct stat>& source) {
    const FileList& list = inspection_.list;
    const PlannedFiles& files = inspection_.files;
    const std::string path = list.TargetOf(entry);
    const PlannedFile file = files.At(path);
    const bool isLink = file.kind == FileKind::kLink;
    const PlannedFile behind = isLink ? files.Behind(path) : file;
    const PlannedFile backup = files.At(list.BackupOf(entry));
    const PlannedFile directory = files.Behind(list.ListOf(entry).directory);
    const Look look{path, file, behind, backup, directory.status, source};
    if (look.behind.kind == FileKind::kFile) {
        CheckInstalled(entry, look);
    } else if (look.file.kind != FileKind::kNone) {
        CheckUnusable(entry, look);
    } else {
        CheckBackup(entry, look);
        if (source) inspection_.AddLoss("W-MODE-LOST", entry, LostMode(*source, look.directory, false));
    }
}

void TargetChecker::CheckUsers() {
    std::set<FileId> files;
    for (const auto& [file, entry] : installed_) files.insert(file);
    const std::map<FileId, std::string> users = UsersOf(files);
    for (const auto& [file, entry] : installed_) {
        const auto found = users.find(file);
        if (found == users.end()) continue;
        inspection_.Add("W-TARGET-BUSY", *entry, inspection_.list.TargetOf(*entry), found->second);
    }
}

void TargetChecker::CheckUnusable(const Entry& entry, const Look& look) {
    if (look.behind.kind == FileKind::kNone) {
        inspection_.Add("E-TARGET-DANGLING", entry, look.path,
                        inspection_.files.EndOf(look.path) ? "" : "-copy can't follow it and fails");
    } else if (look.behind.kind == FileKind::kDirectory) {
        inspection_.Add("E-TARGET-DIRECTORY", entry, look.path,
                        look.behind.origin.empty() ? "of a list, and not there yet: -copy fails" : "");
    } else {
        inspection_.Add("E-TARGET-SPECIAL", entry, look.path);
    }
}

void TargetChecker::CheckInstalled(const Entry& entry, const Look& look) {
    const struct stat& status = look.behind.status;
    inspection_.AddLoss("W-MODE-LOST", entry, LostMode(status, look.directory, true));
    inspection_.AddLoss("W-ATTRIBUTES-LOST", entry, AttributesOf(look.behind.origin));
    if (look.source && IsSameFile(status, *look.source))
        inspection_.Add("E-TARGET-IN-PACKAGE", entry, look.path);
    if (IsSameFile(status, fileList_))
        inspection_.Add("E-TARGET-IN-PACKAGE", entry, look.path, "the file list");
    if (tool_.count(IdOf(status)) != 0) inspection_.Add("E-TARGET-TOOL", entry, look.path);
    const FileMarks marks = MarksOf(look.file.origin);
    if (*marks.lock != '\0') inspection_.Add("E-TARGET-LOCKED", entry, look.path, marks.lock);
    if (marks.isMountPoint) inspection_.Add("E-TARGET-MOUNT", entry, look.path);
    CheckLinks(entry, look);
    CheckBackup(entry, look);
    installed_.emplace_back(IdOf(status), &entry);
}

void TargetChecker::CheckLinks(const Entry& entry, const Look& look) {
    // A link points nowhere, too, when -rename comes to it after it has moved what the link leads to. Most
    // lists have no links, and then nothing of this is kept.
    const bool isLink = look.file.kind == FileKind::kLink;
    if (isLink) NoteRenamed();
    if (isLink && renamed_->Behind(look.path).kind == FileKind::kNone) {
        inspection_.Add("E-TARGET-DANGLING", entry, look.path, "once -rename has moved what it leads to");
        return;
    }
    if (renamed_) renamed_->Move(look.path, inspection_.list.BackupOf(entry));
    if (isLink) {
        inspection_.Add("W-TARGET-LINKED", entry, look.path, "a link to " + look.file.link);
    } else if (look.file.status.st_nlink > (IsBackupItself(entry, look) ? 2 : 1)) {
        inspection_.Add("W-TARGET-LINKED", entry, look.path,
                        std::to_string(look.file.status.st_nlink) + " hard links");
    }
}

// Without a link among them, -rename moves all installed files.
void TargetChecker::NoteRenamed() {
    if (renamed_) return;
    const FileList& list = inspection_.list;
    renamed_.emplace(list.root());
    for (const auto& [file, entry] : installed_) renamed_->Move(list.TargetOf(*entry), list.BackupOf(*entry));
}

void TargetChecker::CheckBackup(const Entry& entry, const Look& look) {
    const std::string path = inspection_.list.BackupOf(entry);
    if (look.backup.kind == FileKind::kNone) return;
    if (look.backup.kind == FileKind::kDirectory) {
        inspection_.Add("E-BACKUP-DIRECTORY", entry, path);
    } else if (IsBackupItself(entry, look)) {
        inspection_.Add("E-BACKUP-SAME-FILE", entry, path);
    } else if (IsUpgradeBegun(look.behind.origin, look.backup.origin, inspection_.list.SourceOf(entry))) {
        inspection_.Add("E-UPGRADE-UNFINISHED", entry, path);
    } else {
        inspection_.Add("W-OLD-BACKUP", entry, path);
    }
}

// NAME and NAME.bak are hard links, or NAME is a link to NAME.bak. The other way round -rename replaces the
// link.
bool TargetChecker::IsBackupItself(const Entry& entry, const Look& look) const {
    if (look.file.kind == FileKind::kNone || look.backup.kind == FileKind::kNone) return false;
    if (IsSameFile(look.file.status, look.backup.status)) return true;
    return look.file.kind == FileKind::kLink && look.backup.kind != FileKind::kLink &&
           inspection_.files.EndOf(look.path) ==
               inspection_.files.ResolvedName(inspection_.list.BackupOf(entry));
}
