// The part of `vfilelist check` that looks at the installed files.
#ifndef VFILELIST_CHECKTARGET_H
#define VFILELIST_CHECKTARGET_H

#include <map>
#include <utility>

#include "CheckParts.h"
#include "Processes.h"

class TargetChecker {
public:
    explicit TargetChecker(Inspection& inspection);

    // A target by one of its entries, in a directory that is one. `source` is the status of the
    // package's file, if there is one.
    void Check(const Entry& entry, const std::optional<struct stat>& source);
    // What can be said when all targets are known.
    void Finish();

private:
    struct Look {
        std::string path;  // as it is shown
        PlannedFile file;  // what bears the name
        PlannedFile behind;
        PlannedFile backup;
        struct stat directory;
        std::optional<struct stat> source;
    };
    struct Loss {
        std::size_t finding;
        std::size_t count;
    };

    void CheckUnusable(const Entry& entry, const Look& look);
    void CheckInstalled(const Entry& entry, const Look& look);
    void CheckLinks(const Entry& entry, const Look& look);
    void NoteRenamed();
    void CheckBackup(const Entry& entry, const Look& look);
    bool IsBackupItself(const Entry& entry, const Look& look) const;
    void AddLoss(const char* code, const Entry& entry, const std::string& detail);

    Inspection& inspection_;
    std::optional<PlannedFiles> renamed_;  // the files as -rename leaves them so far, from the first link on
    ContentComparer comparer_;
    struct stat fileList_ {};
    const std::set<FileId> tool_ = FilesOfTheTool();
    std::vector<std::pair<FileId, const Entry*>> installed_;
    std::map<std::pair<std::string, std::string>, Loss> losses_;  // by code and detail
};

#endif
