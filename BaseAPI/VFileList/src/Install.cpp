// Works on the recorded targets one by one.
#include "Install.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "Files.h"
#include "VCopyFileListIni.h"

namespace {

const char kNotOurs[] = "NAME.bak is not, or no longer, what the upgrade left there";

Stamp StampOf(const struct stat& status) {
    return {status.st_ino, status.st_size, status.st_ctim};
}

bool IsSame(const Stamp& left, const Stamp& right) {
    return left.inode == right.inode && left.size == right.size &&
           left.changed.tv_sec == right.changed.tv_sec && left.changed.tv_nsec == right.changed.tv_nsec;
}

// The owner first, since a change of it takes set-id bits away. False, with errno set, when that fails.
bool SetMode(int fd, const std::optional<Owner>& owner, mode_t mode) {
    return (!owner || fchown(fd, owner->user, owner->group) == 0) && fchmod(fd, mode) == 0;
}

}  // namespace

bool IsRenamed(const Journal& journal, std::vector<Remark>& remarks) {
    const std::size_t before = remarks.size();
    for (const JournalTarget& target : journal.targets) {
        const TargetNow now = LookAt(target, Phase::kRenaming);
        const bool isBackedUp = now.backup == (target.old ? Found::kOld : Found::kNothing);
        if (now.name == Found::kNothing && isBackedUp && !now.isOldChanged) continue;
        remarks.push_back({target.path, "another process changed it, or NAME.bak, during -rename", true});
    }
    return remarks.size() == before;
}

Trouble Install(const JournalTarget& target, Stamp& stamp) {
    const Descriptor file(open(target.path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
    if (!file) return TroubleWith(target.path, errno);
    const std::optional<Digest> digest = DigestOfFile(file.get());
    if (!digest) return TroubleWith(target.path, errno);
    if (*digest != target.package.digest)
        return target.path + ": it does not hold what the package's file held";

    if (target.old) {
        if (const Trouble trouble = WriteAttributes(file.get(), target.old->attributes))
            return target.path + ": " + *trouble;
    } else if (!SetMode(file.get(), target.package.owner, target.package.mode)) {
        return TroubleWith(target.path, errno);
    }
    struct stat status {};
    if (fsync(file.get()) != 0 || fstat(file.get(), &status) != 0) return TroubleWith(target.path, errno);
    stamp = StampOf(status);
    return std::nullopt;
}

// From the innermost outwards: a mode may keep even the owner out.
Trouble InstallDirectories(const Journal& journal) {
    const std::vector<DirectoryMode>& modes = journal.directoryModes;
    for (auto mode = modes.rbegin(); mode != modes.rend(); ++mode) {
        const Descriptor directory(open(mode->path.c_str(), O_RDONLY | O_CLOEXEC | O_DIRECTORY | O_NOFOLLOW));
        if (!directory || !SetMode(directory.get(), mode->owner, mode->mode) || fsync(directory.get()) != 0)
            return TroubleWith(mode->path, errno);
    }
    return std::nullopt;
}

bool IsInstalled(const Journal& journal, const std::vector<Stamp>& stamps, std::vector<Remark>& remarks) {
    const std::size_t before = remarks.size();
    for (std::size_t i = 0; i < stamps.size(); ++i) {
        const std::string& path = journal.targets[i].path;
        struct stat status {};
        if (lstat(path.c_str(), &status) == 0 && IsSame(StampOf(status), stamps[i])) continue;
        remarks.push_back({path, "another process changed it after -copy", true});
    }
    return AreBackupsOurs(journal, remarks) && remarks.size() == before;
}

bool AreBackupsOurs(const Journal& journal, std::vector<Remark>& remarks) {
    const std::size_t before = remarks.size();
    for (const JournalTarget& target : journal.targets) {
        const TargetNow now = LookAt(target, Phase::kRenaming);
        if (now.backup == Found::kNothing || (now.backup == Found::kOld && !now.isOldChanged)) continue;
        remarks.push_back({target.path, kNotOurs, true});
    }
    return remarks.size() == before;
}

// -clean passes over links that point nowhere. A file that somebody has made since may bear the number of the
// old one that was there.
bool RemoveBackups(const Journal& journal, std::vector<Remark>& remarks) {
    const std::size_t before = remarks.size();
    for (const JournalTarget& target : journal.targets) {
        const TargetNow now = LookAt(target, Phase::kRenaming);
        const std::string backup = target.path + kBackupSuffix;
        if (now.backup != Found::kOld || (!now.isOldChanged && unlink(backup.c_str()) == 0)) continue;
        remarks.push_back(
            {backup, now.isOldChanged ? kNotOurs : TroubleWith("can't be removed", errno), true});
    }
    return remarks.size() == before;
}
