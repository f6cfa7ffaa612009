// Looks at an installed file, its backup, and the package's file.
#include "TargetFacts.h"

#include <cerrno>
#include <cstring>
#include <tuple>

#include "Attributes.h"

namespace {

void Append(std::string& detail, const std::string& text) {
    detail += (detail.empty() ? "" : ", ") + text;
}

bool IsBefore(const timespec& left, const timespec& right) {
    return std::tie(left.tv_sec, left.tv_nsec) < std::tie(right.tv_sec, right.tv_nsec);
}

// Both names have the same inode, or one is a link that leads to the other. Two links to a third file are not
// one, nor is a link and a second name of what it leads to.
bool IsOneFile(const std::string& path, const struct stat& status, const std::string& other,
               const struct stat& otherStatus) {
    if (IsSameFile(status, otherStatus)) return true;
    if (S_ISLNK(status.st_mode) == S_ISLNK(otherStatus.st_mode)) return false;
    const std::optional<std::string> real = CanonicalPath(path);
    return real && real == CanonicalPath(other);
}

// When several entries go to one target, the last one is what it shall hold; with one of the others it is on
// its way there.
void CompareWithPackage(const FileList& list, const Target& target, TargetFacts& facts) {
    const std::string path = list.TargetOf(list.EntryOf(target));
    facts.state = TargetState::kOld;
    for (auto index = target.entries.rbegin(); index != target.entries.rend(); ++index) {
        const std::string source = list.SourceOf(list.entries()[*index]);
        switch (Compare(path, source, facts.detail)) {
            case Content::kSame:
                facts.state = index == target.entries.rbegin() ? TargetState::kNew : TargetState::kPartial;
                return;
            case Content::kPart:
                facts.state = TargetState::kPartial;
                break;
            case Content::kUnreadable:
                if (facts.state == TargetState::kOld) facts.state = TargetState::kUnknown;
                break;
            case Content::kOther:
                break;
        }
    }
}

void LookAtTarget(const FileList& list, const Target& target, TargetFacts& facts) {
    const std::string path = list.TargetOf(list.EntryOf(target));
    if (lstat(path.c_str(), &facts.status) != 0) {
        if (errno == ENOENT || errno == ENOTDIR) return;
        facts.state = TargetState::kUnknown;
        facts.detail = std::strerror(errno);
        return;
    }
    facts.isOccupied = true;
    struct stat followed {};
    if (stat(path.c_str(), &followed) != 0) {
        // The passes treat it as missing, too.
        facts.state = errno == ENOENT ? TargetState::kMissing : TargetState::kUnknown;
        facts.detail = errno == ENOENT ? "a dangling symlink" : std::strerror(errno);
    } else if (S_ISREG(followed.st_mode)) {
        CompareWithPackage(list, target, facts);
        if (S_ISLNK(facts.status.st_mode) && facts.detail.empty()) facts.detail = "a link";
    } else {
        facts.state = TargetState::kUnknown;
        facts.detail = S_ISDIR(followed.st_mode) ? "a directory" : "a special file";
    }
}

void LookAtPackage(const FileList& list, const Target& target, TargetFacts& facts) {
    const Entry& entry = list.EntryOf(target);
    struct stat package {};
    if (stat(list.SourceOf(entry).c_str(), &package) == 0) {
        facts.packageSize = package.st_size;
        facts.packageChanged = package.st_ctim;
        return;
    }
    const int error = errno;
    (void)stat(list.iniPath().c_str(), &package);  // it was read just now
    facts.packageChanged = package.st_ctim;
    if (facts.state != TargetState::kMissing && !S_ISREG(facts.status.st_mode)) return;
    const bool isLacking = error == ENOENT || error == ENOTDIR;
    facts.detail = isLacking ? "the package lacks " + entry.text
                             : "the package's " + entry.text + ": " + std::strerror(error);
}

void LookAtBackup(const FileList& list, const Target& target, TargetFacts& facts) {
    const std::string path = list.BackupOf(list.EntryOf(target));
    if (lstat(path.c_str(), &facts.backup) != 0) {
        if (errno == ENOENT || errno == ENOTDIR) return;
        Append(facts.detail, std::string("NAME.bak can't be looked at: ") + std::strerror(errno));
        facts.backupDoubt = BackupDoubt::kUnreadable;
        return;
    }
    if (facts.isOccupied &&
        IsOneFile(list.TargetOf(list.EntryOf(target)), facts.status, path, facts.backup)) {
        Append(facts.detail, "NAME.bak is the same file, and no backup");
        facts.backupDoubt = BackupDoubt::kSameFile;
        return;
    }
    facts.hasBackup = true;
    facts.isBackupDangling = stat(path.c_str(), &facts.reference) != 0;
    facts.hasReference = !facts.isBackupDangling && S_ISREG(facts.reference.st_mode);
    if (facts.isBackupDangling) {
        Append(facts.detail, "NAME.bak is a dangling symlink; -clean skips it");
    }
    if (target.isBackupListed) {
        Append(facts.detail, "NAME.bak is on the list itself");
        facts.backupDoubt = BackupDoubt::kListed;
    } else if (IsBefore(facts.backup.st_ctim, facts.packageChanged)) {
        // -rename changes the time of what it moves.
        Append(facts.detail, "NAME.bak is older than the package");
        facts.backupDoubt = BackupDoubt::kEarlier;
    }
}

}  // namespace

bool TargetFacts::IsModeDifferent() const {
    return state == TargetState::kNew && hasReference &&
           (status.st_mode & kPermissions) != (reference.st_mode & kPermissions);
}

bool TargetFacts::IsOwnerDifferent() const {
    return state == TargetState::kNew && hasReference &&
           (status.st_uid != reference.st_uid || status.st_gid != reference.st_gid);
}

TargetFacts Examine(const FileList& list, const Target& target) {
    TargetFacts facts;
    LookAtTarget(list, target, facts);
    LookAtPackage(list, target, facts);
    LookAtBackup(list, target, facts);
    return facts;
}

const char* NameOf(TargetState state) {
    constexpr const char* kNames[] = {"new", "partial", "old", "missing", "unknown"};
    return kNames[static_cast<int>(state)];
}

std::string ShownOwner(const struct stat& status) {
    return std::to_string(status.st_uid) + ":" + std::to_string(status.st_gid);
}
