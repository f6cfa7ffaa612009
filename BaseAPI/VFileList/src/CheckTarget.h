// The part of `vfilelist check` that looks at the installed files.
#ifndef VFILELIST_CHECKTARGET_H
#define VFILELIST_CHECKTARGET_H

#include <utility>

#include "CheckParts.h"
#include "Processes.h"

class TargetChecker {
public:
    explicit TargetChecker(Inspection& inspection);

    // A target by one of its entries, in a directory that is one. `source` is the status of the
    // package's file, if there is one.
    void Check(const Entry& entry, const std::optional<struct stat>& source);
    // Who uses the files, when all are known.
    void CheckUsers();

private:
    struct Look {
        std::string path;  // as it is shown
        PlannedFile file;  // what bears the name
        PlannedFile behind;
        PlannedFile backup;
        struct stat directory;
        std::optional<struct stat> source;
    };

    void CheckUnusable(const Entry& entry, const Look& look);
    void CheckInstalled(const Entry& entry, const Look& look);
    void CheckLinks(const Entry& entry, const Look& look);
    void NoteRenamed();
    void CheckBackup(const Entry& entry, const Look& look);
    bool IsBackupItself(const Entry& entry, const Look& look) const;

    Inspection& inspection_;
    std::optional<PlannedFiles> renamed_;  // the files as -rename leaves them so far, from the first link on
    ContentComparer comparer_;
    struct stat fileList_ {};
    const std::set<FileId> tool_ = FilesOfTheTool();
    std::vector<std::pair<FileId, const Entry*>> installed_;
};

#endif
