// The files as they will be after the steps of a plan. Nothing is changed: what a step would do is noted, and
// everything else is looked up.
#ifndef VFILELIST_PLANNEDFILES_H
#define VFILELIST_PLANNEDFILES_H

#include <sys/types.h>

#include <map>
#include <string>
#include <utility>

enum class FileKind { kNone, kFile, kDirectory, kLink, kOther };

struct PlannedFile {
    FileKind kind = FileKind::kNone;
    unsigned long long size = 0;
    std::string origin;  // where it really is, if it is anywhere
    std::string link;    // what a link says
    std::pair<dev_t, ino_t> id;
};

class PlannedFiles {
public:
    // What bears the name, if only a link.
    PlannedFile At(const std::string& path) const;
    // What the name leads to; none for a link that points nowhere or in a circle.
    PlannedFile Behind(const std::string& path) const { return At(EndOf(path)); }
    // The path at which the links end that begin at `path`. Still a link when they lead in a circle.
    std::string EndOf(const std::string& path) const;

    void Move(const std::string& path, const std::string& newPath);
    void Remove(const std::string& path);
    // Writes to what the name leads to, and makes it if it is not there.
    void Write(const std::string& path, unsigned long long size);
    void MakeDirectory(const std::string& path);

    // Two spellings of one name are the same.
    bool IsSameName(const std::string& left, const std::string& right) const {
        return NameOf(left) == NameOf(right);
    }

private:
    std::string NameOf(const std::string& path) const;
    std::string DirectoryNameOf(const std::string& path) const;

    std::map<std::string, PlannedFile> changed_;
    mutable std::map<std::string, std::string> directoryNames_;
};

#endif
