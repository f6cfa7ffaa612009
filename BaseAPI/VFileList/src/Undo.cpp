// Looks, decides, and moves files. A file that is not ours is never overwritten nor removed: it is moved
// aside.
#include "Undo.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <set>

#include "Files.h"
#include "VCopyFileListIni.h"

namespace fs = std::filesystem;

namespace {

const char kAsideSuffix[] = ".changed";
constexpr int kMostAsideNames = 1000;

bool IsMissing(int error) {
    return error == ENOENT || error == ENOTDIR;
}

// The number of its device may be another one when the machine has been started anew.
bool IsOld(const OldFile& old, const struct stat& status) {
    const bool isLink = S_ISLNK(status.st_mode);
    return status.st_ino == old.inode && isLink == old.isLink;
}

bool IsChanged(const OldFile& old, const struct stat& status) {
    return status.st_size != old.size || status.st_mtim.tv_sec != old.modified.tv_sec ||
           status.st_mtim.tv_nsec != old.modified.tv_nsec;
}

// Whether `path`, which is not the old file, is a copy of the package's. Until the copies were verified a
// copy may be unfinished, and a power cut may have left zeros in it.
Found LookAtCopy(const std::string& path, const struct stat& status, const NewFile& package, Phase undone,
                 std::string& detail) {
    if (!S_ISREG(status.st_mode) || status.st_size > package.size) return Found::kForeign;
    const Descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
    const std::optional<Digest> digest = file ? DigestOfFile(file.get()) : std::nullopt;
    if (!digest) {
        detail = std::strerror(errno);
        return Found::kUnknown;
    }
    if (*digest == package.digest) return Found::kCopy;
    if (undone == Phase::kInstalled) return Found::kForeign;
    const std::optional<bool> isUnfinished = IsUnfinishedCopy(path, package.source, detail);
    if (!isUnfinished) return Found::kUnknown;
    return *isUnfinished ? Found::kCopy : Found::kForeign;
}

Found LookAtName(const JournalTarget& target, Phase undone, TargetNow& now) {
    struct stat status {};
    if (lstat(target.path.c_str(), &status) != 0) {
        if (IsMissing(errno)) return Found::kNothing;
        now.detail = std::strerror(errno);
        return Found::kUnknown;
    }
    if (target.old && IsOld(*target.old, status)) {
        now.isOldChanged = IsChanged(*target.old, status);
        return Found::kOld;
    }
    if (undone == Phase::kRenaming) return Found::kForeign;
    return LookAtCopy(target.path, status, target.package, undone, now.detail);
}

Found LookAtBackup(const JournalTarget& target, TargetNow& now) {
    struct stat status {};
    if (lstat((target.path + kBackupSuffix).c_str(), &status) != 0) {
        if (IsMissing(errno)) return Found::kNothing;
        now.detail = std::string("NAME.bak: ") + std::strerror(errno);
        return Found::kUnknown;
    }
    if (!target.old || !IsOld(*target.old, status)) return Found::kForeign;
    now.isOldChanged = IsChanged(*target.old, status);
    return Found::kOld;
}

UndoStep DecideOnOld(Phase undone, const TargetNow& now) {
    if (now.backup != Found::kOld) {
        if (now.name != Found::kOld) {
            return {UndoMove::kNone, "the installed file is neither under NAME nor under NAME.bak any more",
                    true};
        }
        if (now.isOldChanged) return {UndoMove::kNone, "it was written to since the upgrade began", true};
        return {};
    }
    if (now.name == Found::kOld) return {UndoMove::kNone, "NAME.bak is the same file by a second name", true};
    if (now.name == Found::kForeign && now.isOldChanged) {
        return {UndoMove::kSetAsideAndRestore,
                "NAME.bak was written to since the upgrade began, and is back as it is now; NAME was "
                "not the package's file any more",
                true};
    }
    // A service that rewrote its new file does what is to be expected.
    if (now.name == Found::kForeign) {
        return {UndoMove::kSetAsideAndRestore, "not the package's file any more",
                undone != Phase::kInstalled};
    }
    const UndoMove move = now.name == Found::kCopy ? UndoMove::kReplace : UndoMove::kRestore;
    if (!now.isOldChanged) return {move};
    return {move, "NAME.bak was written to since the upgrade began; it is back as it is now", true};
}

UndoStep DecideOnNew(Phase undone, const TargetNow& now) {
    switch (now.name) {
        case Found::kCopy:
            return {UndoMove::kRemove};
        case Found::kForeign:
            if (undone == Phase::kRenaming)
                return {UndoMove::kNone, "it was made since the upgrade began", true};
            return {UndoMove::kSetAside, "not the package's file any more", undone != Phase::kInstalled};
        default:
            return {};
    }
}

// As rename, but fails with EEXIST where something bears the new name. Not every file system can do that in
// one step; on the others a name that is taken between the two is lost, which nothing can help.
int RenameToFree(const std::string& file, const std::string& newName) {
    if (renameat2(AT_FDCWD, file.c_str(), AT_FDCWD, newName.c_str(), RENAME_NOREPLACE) == 0) return 0;
    if (errno != EINVAL) return -1;
    struct stat status {};
    if (lstat(newName.c_str(), &status) != 0) return rename(file.c_str(), newName.c_str());
    errno = EEXIST;
    return -1;
}

// The first name of the kind NAME.changed, NAME.changed.1, ... that is free when the file moves there.
Trouble SetAside(const std::string& path, std::string& newPath) {
    for (int number = 0; number < kMostAsideNames; ++number) {
        newPath = path + kAsideSuffix + (number == 0 ? "" : "." + std::to_string(number));
        if (RenameToFree(path, newPath) == 0) return std::nullopt;
        if (errno != EEXIST) break;
    }
    return std::strerror(errno);
}

Trouble Perform(const UndoStep& step, const std::string& path, std::string& remark) {
    if (step.move == UndoMove::kSetAside || step.move == UndoMove::kSetAsideAndRestore) {
        std::string newPath;
        if (Trouble trouble = SetAside(path, newPath)) return trouble;
        remark += "; it is kept as " + newPath;
    }
    const std::string backup = path + kBackupSuffix;
    // What another process makes meanwhile where nothing stood is not overwritten.
    const bool isRestored = step.move == UndoMove::kRestore || step.move == UndoMove::kSetAsideAndRestore;
    if (isRestored && RenameToFree(backup, path) != 0) return std::strerror(errno);
    if (step.move == UndoMove::kReplace && rename(backup.c_str(), path.c_str()) != 0)
        return std::strerror(errno);
    if (step.move == UndoMove::kRemove && unlink(path.c_str()) != 0) return std::strerror(errno);
    return std::nullopt;
}

// Those that are not the ones that were recorded. Their files are left for another try.
std::set<std::string> StrangeDirectories(const std::vector<OldDirectory>& directories,
                                         std::vector<Remark>& remarks) {
    std::set<std::string> strange;
    for (const OldDirectory& directory : directories) {
        struct stat status {};
        if (stat(directory.path.c_str(), &status) == 0 && status.st_ino == directory.inode) continue;
        const bool isNew = strange.insert(directory.path).second;
        if (isNew)
            remarks.push_back({directory.path, "not the directory that was upgraded: is it mounted?", true});
    }
    return strange;
}

bool IsBelow(const fs::path& path, const std::set<std::string>& directories) {
    for (fs::path above = path.parent_path();; above = above.parent_path()) {
        if (directories.count(above) != 0) return true;
        if (!above.has_relative_path()) return false;
    }
}

bool UndoTarget(const JournalTarget& target, Phase undone, std::vector<Remark>& remarks) {
    const UndoStep step = Decide(target.old.has_value(), undone, LookAt(target, undone));
    std::string remark = step.remark;
    const Trouble trouble = Perform(step, target.path, remark);
    if (!remark.empty()) remarks.push_back({target.path, remark, step.isSerious});
    if (trouble) remarks.push_back({target.path, "can't be put back: " + *trouble, true});
    return !trouble && step.move != UndoMove::kPostpone;
}

// Those that are empty; what others have put into one stays, and so does the directory.
bool RemoveDirectories(const std::vector<std::string>& directories, std::vector<Remark>& remarks) {
    bool isDone = true;
    for (auto path = directories.rbegin(); path != directories.rend(); ++path) {
        if (rmdir(path->c_str()) == 0 || IsMissing(errno)) continue;
        const bool isInUse = errno == ENOTEMPTY || errno == EEXIST;
        remarks.push_back({*path,
                           isInUse ? "the upgrade made this directory; it stays, since it is not empty"
                                   : TroubleWith("can't be removed", errno),
                           !isInUse});
        isDone = isDone && isInUse;
    }
    return isDone;
}

}  // namespace

UndoStep Decide(bool hadPredecessor, Phase undone, const TargetNow& now) {
    if (now.name == Found::kUnknown || now.backup == Found::kUnknown) {
        return {UndoMove::kPostpone, "can't be looked at: " + now.detail, true};
    }
    UndoStep step = hadPredecessor ? DecideOnOld(undone, now) : DecideOnNew(undone, now);
    if (now.backup == Found::kForeign && !step.isSerious) {
        step.remark =
            "NAME.bak is not the upgrade's, and stays" + (step.remark.empty() ? "" : "; " + step.remark);
        step.isSerious = true;
    }
    return step;
}

TargetNow LookAt(const JournalTarget& target, Phase undone) {
    TargetNow now;
    now.backup = LookAtBackup(target, now);
    now.name = LookAtName(target, undone, now);
    return now;
}

bool Undo(const Journal& journal, Phase undone, std::vector<Remark>& remarks) {
    const std::set<std::string> strange = StrangeDirectories(journal.oldDirectories, remarks);
    bool isDone = strange.empty();
    for (const JournalTarget& target : journal.targets) {
        if (IsBelow(target.path, strange)) continue;
        isDone = UndoTarget(target, undone, remarks) && isDone;
    }
    if (undone != Phase::kRenaming && strange.empty())
        isDone = RemoveDirectories(journal.newDirectories, remarks) && isDone;
    return SyncDirectories(journal, remarks) && isDone;
}

bool AreDirectoriesOurs(const Journal& journal, std::vector<Remark>& remarks) {
    return StrangeDirectories(journal.oldDirectories, remarks).empty();
}

// All of them, also when nothing was left to do: what an undo that was cut off has done may not be on the
// disk.
bool SyncDirectories(const Journal& journal, std::vector<Remark>& remarks) {
    std::set<std::string> directories;
    for (const JournalTarget& target : journal.targets)
        directories.insert(fs::path(target.path).parent_path());
    for (const fs::path path : journal.newDirectories) directories.insert(path.parent_path());
    bool isDone = true;
    for (const std::string& directory : directories) {
        const Trouble trouble = Sync(directory);
        if (!trouble || IsMissing(errno)) continue;
        remarks.push_back({directory, "can't be synced: " + *trouble, true});
        isDone = false;
    }
    return isDone;
}
