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

// Whether all targets and their backups are as they have to be. Those that are not are told.
template <typename IsRight>
bool AreAll(const Journal& journal, const char* otherwise, std::vector<Remark>& remarks, IsRight isRight) {
    const std::size_t before = remarks.size();
    for (const JournalTarget& target : journal.targets) {
        if (!isRight(target)) remarks.push_back({target.path, otherwise, true});
    }
    return remarks.size() == before;
}

// Whether the backup is the old file as it was; or gone, where that may be.
bool IsBackup(const JournalTarget& target, bool mayBeGone) {
    const TargetNow now = LookAt(target, Phase::kRenaming);
    if (now.backup == Found::kNothing) return mayBeGone || !target.old;
    return now.backup == Found::kOld && !now.isOldChanged;
}

}  // namespace

bool IsRenamed(const Journal& journal, std::vector<Remark>& remarks) {
    const char* const otherwise = "another process changed it, or NAME.bak, during -rename";
    return AreAll(journal, otherwise, remarks, [](const JournalTarget& target) {
        const TargetNow now = LookAt(target, Phase::kRenaming);
        const bool isBackedUp = now.backup == (target.old ? Found::kOld : Found::kNothing);
        return now.name == Found::kNothing && isBackedUp && !now.isOldChanged;
    });
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
    auto stamp = stamps.begin();
    const auto isUntouched = [&stamp](const JournalTarget& target) {
        const Stamp& expected = *stamp++;
        struct stat status {};
        return lstat(target.path.c_str(), &status) == 0 && IsSame(StampOf(status), expected);
    };
    const auto hasBackup = [](const JournalTarget& target) { return IsBackup(target, false); };
    const bool areUntouched = AreAll(journal, "another process changed it after -copy", remarks, isUntouched);
    return AreAll(journal, kNotOurs, remarks, hasBackup) && areUntouched;
}

bool AreBackupsOurs(const Journal& journal, std::vector<Remark>& remarks) {
    return AreAll(journal, kNotOurs, remarks,
                  [](const JournalTarget& target) { return IsBackup(target, true); });
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
