// The files as they will be after the steps of a plan. Nothing is changed: what a step would do is noted, and
// everything else is looked up.
#ifndef VFILELIST_PLANNEDFILES_H
#define VFILELIST_PLANNEDFILES_H

#include <sys/stat.h>

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "Trouble.h"

enum class FileKind { kNone, kFile, kDirectory, kLink, kOther };

struct PlannedFile {
    FileKind kind = FileKind::kNone;
    std::string origin;     // where it really is; empty for what a step makes
    std::string link;       // what a link says
    struct stat status {};  // of what a step makes, the size alone

    unsigned long long size() const { return static_cast<unsigned long long>(status.st_size); }
};

class PlannedFiles {
public:
    // With a root, paths are those of a system whose root directory it is.
    explicit PlannedFiles(std::string root = "");

    // What bears the name, if only a link.
    PlannedFile At(const std::string& path) const;
    // What the name leads to; none for a dangling link, as for access().
    PlannedFile Behind(const std::string& path) const;
    // The path without links, "..", and what else is spelt in several ways; nothing when something on the way
    // is missing, or no directory. The second one follows a link at the end, too, there or not.
    std::optional<std::string> ResolvedName(const std::string& path) const;
    std::optional<std::string> EndOf(const std::string& path) const;
    // Where the nearest directory at `path` or above it really is.
    std::string NearestPlace(const std::string& path) const;

    // These two do nothing where the platform's calls fail.
    void Move(const std::string& path, const std::string& newPath);
    void Remove(const std::string& path);
    // Writes to what the name leads to, and makes it if it is not there.
    void Write(const std::string& path, unsigned long long size);
    // As the tool: what is missing on the way is made, too, until something fails. Returns the paths.
    std::vector<std::string> MakeDirectory(const std::string& path);

private:
    PlannedFile FileAt(const std::string& name) const;
    std::optional<std::string> Walk(const std::string& path) const;
    void Change(const std::string& name, PlannedFile file);

    const std::string root_;
    std::map<std::string, PlannedFile> changed_;
    bool isTreeChanged_ = false;  // by a directory or a link, which other names lead through
    mutable std::map<std::string, std::optional<std::string>> directoryNames_;
};

// Why `path` is no directory; nothing when it is one.
Trouble WhyNoDirectory(const PlannedFiles& files, const std::string& path);

#endif
