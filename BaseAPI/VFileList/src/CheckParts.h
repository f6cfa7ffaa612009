// The parts of `vfilelist check`. Each adds what it finds.
#ifndef VFILELIST_CHECKPARTS_H
#define VFILELIST_CHECKPARTS_H

#include <sys/stat.h>

#include <map>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "FileList.h"
#include "Files.h"
#include "Findings.h"
#include "Manifest.h"
#include "PlannedFiles.h"
#include "Processes.h"

// What the parts share.
struct Inspection {
    const FileList& list;
    PlannedFiles files;              // as they are, with the directories that -copy will make
    std::set<std::string> unusable;  // lists whose directory is no place to look at
    std::vector<Finding> findings;
    const Manifest* manifest = nullptr;  // of the package, if it has one
    const std::optional<std::string> common = CanonicalPath(list.sourceDirectory());
    struct Loss {
        std::size_t finding;
        std::size_t count;
    };
    std::map<std::pair<std::string, std::string>, Loss> losses;  // by code and detail

    explicit Inspection(const FileList& fileList) : list(fileList), files(fileList.root()) {}
    void Add(const char* code, const TargetList& targets, const std::string& path,
             const std::string& detail = "");
    void Add(const char* code, const Entry& entry, const std::string& path, const std::string& detail = "");
    // Says once what several files lose; nothing where `detail` is empty.
    void AddLoss(const char* code, const Entry& entry, const std::string& detail);
    void CountLosses();
    bool IsUsable(const Entry& entry) const { return unusable.count(list.ListOf(entry).section) == 0; }
};

// The install type, the lists and their directories; entries with the same target.
void CheckLists(Inspection& inspection);
void CheckDuplicates(Inspection& inspection);

// What the package has and no entry names: with a manifest, an error.
void CheckUnlisted(Inspection& inspection);

// An entry's text, and the package's file. Returns the file's status if it is a regular one.
std::optional<struct stat> CheckSource(Inspection& inspection, const Entry& entry);
// The installed files: what they are, what the passes would do to them, and who uses them.
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
    struct stat fileList_ {};
    const std::set<FileId> tool_ = FilesOfTheTool();
    std::vector<std::pair<FileId, const Entry*>> installed_;
};

// What CheckUnlisted finds, and who else may write the package.
void CheckPackage(Inspection& inspection);

// Room for new files and directories, by file system.
class SpaceNeeds {
public:
    explicit SpaceNeeds(const PlannedFiles& files) : files_(files) {}
    // A file or directory of `size` bytes.
    void Add(const std::string& path, off_t size);
    void FindShortages(std::vector<Finding>& findings) const;

private:
    struct Need {
        unsigned long long bytes = 0;
        unsigned long long inodes = 0;
        std::string directory;
    };
    const PlannedFiles& files_;
    std::map<dev_t, Need> needs_;
};

// Whether there is room for all that the list brings.
void CheckSpace(const FileList& list, std::vector<Finding>& findings);

inline std::string Bytes(std::size_t count) {
    return std::to_string(count) + " bytes";
}

// The mode and owner of what users other than root and the caller can write; the empty text for anything
// else.
std::string WhoElseWrites(const struct stat& status);

#endif
