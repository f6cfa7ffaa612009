// The installed files of a file list, looked at one by one.
#ifndef VFILELIST_TARGETFACTS_H
#define VFILELIST_TARGETFACTS_H

#include <sys/stat.h>

#include <optional>
#include <string>

#include "FileList.h"
#include "Files.h"
#include "Passes.h"

// What makes a NAME.bak something else than a backup.
enum class BackupDoubt {
    kNone,
    kSameFile,    // it is NAME, by a second name or through a link
    kListed,      // it is on the list itself
    kUnreadable,  // it can't be looked at
};

struct TargetFacts {
    TargetState state = TargetState::kMissing;
    bool hasBackup = false;
    bool isBackupDangling = false;  // it is a link that points nowhere
    BackupDoubt backupDoubt = BackupDoubt::kNone;
    bool isOccupied = false;      // something bears the name, if only a link that points nowhere
    std::string detail;           // what else there is to say; may be empty
    struct stat status {};        // of NAME itself, if it is occupied
    struct stat backup {};        // of NAME.bak itself, if there is a backup
    std::optional<Moment> birth;  // of NAME itself, where the file system tells
    struct stat reference {};     // of the file that the backup is or, being a link, leads to
    bool hasReference = false;    // it is a regular file
    long long packageSize = -1;   // of the package's file; -1 when it can't be read

    TargetObservation Observation() const;
    // The new file has not the mode, or not the owner, of the backup.
    bool IsModeDifferent() const;
    bool IsOwnerDifferent() const;
};

class TargetExaminer {
public:
    explicit TargetExaminer(const FileList& list) : list_(list) {}

    TargetFacts Examine(const Target& target);

    // The entry whose file stands there at the end: the last of those that go there.
    const Entry& EntryOf(const Target& target) const { return list_.entries()[target.entries.back()]; }

private:
    void LookAtTarget(const Target& target, TargetFacts& facts);
    void LookAtPackage(const Target& target, TargetFacts& facts) const;
    void LookAtBackup(const Target& target, TargetFacts& facts) const;
    void CompareWithPackage(const Target& target, TargetFacts& facts);

    const FileList& list_;
    ContentComparer comparer_;
};

const char* NameOf(TargetState state);
std::string ShownOwner(const struct stat& status);

#endif
