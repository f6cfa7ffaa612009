// Works on the recorded targets one by one.
#include "Install.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "Files.h"
#include "VCopyFileListIni.h"

namespace {

const char kNotOurs[] = "NAME.bak is not, or no longer, what the upgrade left there";

Stamp StampOf(const struct stat& status) {
    return {status.st_ino, status.st_size, status.st_ctim};
}

bool IsSame(const Stamp& left, const Stamp& right) {
    return left.inode == right.inode && left.size == right.size && IsSameMoment(left.changed, right.changed);
}

Trouble SetAttributes(int fd, const JournalTarget& target) {
    if (const std::optional<Attributes> wanted = target.Wanted()) return WriteAttributes(fd, *wanted);
    return fchmod(fd, target.package.mode) == 0 ? Trouble() : std::strerror(errno);
}

// Whether every backup is the old file as it was; or gone, where that may be.
bool AreBackups(bool mayBeGone, const Journal& journal, std::vector<Remark>& remarks) {
    const std::size_t before = remarks.size();
    for (const JournalTarget& target : journal.targets) {
        const TargetNow now = LookAt(target, Phase::kRenaming);
        const bool isGone = now.backup == Found::kNothing && (mayBeGone || !target.old);
        if (isGone || (now.backup == Found::kOld && !now.isOldChanged)) continue;
        remarks.push_back({target.path, kNotOurs, true});
    }
    return remarks.size() == before;
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
    struct stat before {};
    if (!file || fstat(file.get(), &before) != 0) return TroubleWith(target.path, errno);
    const std::optional<Digest> digest = DigestOfFile(file.get());
    if (!digest) return TroubleWith(target.path, errno);
    if (*digest != target.package.digest)
        return target.path + ": it does not hold what the package's file held";

    if (const Trouble trouble = SetAttributes(file.get(), target)) return target.path + ": " + *trouble;
    struct stat status {};
    if (fsync(file.get()) != 0 || fstat(file.get(), &status) != 0) return TroubleWith(target.path, errno);
    if (before.st_size != status.st_size || !IsSameMoment(before.st_mtim, status.st_mtim))
        return target.path + ": another process has written to it";
    stamp = StampOf(status);
    return std::nullopt;
}

// From the innermost outwards: a mode may keep even the owner out.
Trouble InstallDirectories(const Journal& journal) {
    const std::vector<DirectoryMode>& modes = journal.directoryModes;
    for (auto mode = modes.rbegin(); mode != modes.rend(); ++mode) {
        const Descriptor directory(open(mode->path.c_str(), O_RDONLY | O_CLOEXEC | O_DIRECTORY | O_NOFOLLOW));
        if (!directory) return TroubleWith(mode->path, errno);
        const Attributes attributes{mode->mode, mode->owner.user, mode->owner.group, {}};
        if (const Trouble trouble = WriteAttributes(directory.get(), attributes))
            return mode->path + ": " + *trouble;
        if (fsync(directory.get()) != 0) return TroubleWith(mode->path, errno);
    }
    return std::nullopt;
}

bool IsInstalled(const Journal& journal, const std::vector<Stamp>& stamps, std::vector<Remark>& remarks) {
    const std::size_t before = remarks.size();
    auto stamp = stamps.begin();
    for (const JournalTarget& target : journal.targets) {
        const Stamp& expected = *stamp++;
        struct stat status {};
        if (lstat(target.path.c_str(), &status) == 0 && IsSame(StampOf(status), expected)) continue;
        remarks.push_back({target.path, "another process changed it after -copy", true});
    }
    return AreBackups(false, journal, remarks) && remarks.size() == before;
}

bool AreBackupsOurs(const Journal& journal, std::vector<Remark>& remarks) {
    return AreBackups(true, journal, remarks);
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
