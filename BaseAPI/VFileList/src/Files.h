// What vfilelist asks of single files: their status, and whether one holds what another holds.
#ifndef VFILELIST_FILES_H
#define VFILELIST_FILES_H

#include <sys/stat.h>
#include <unistd.h>

#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "Trouble.h"

class Descriptor {
public:
    explicit Descriptor(int fd) : fd_(fd) {}
    ~Descriptor() {
        if (fd_ >= 0) (void)close(fd_);
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;

    explicit operator bool() const { return fd_ >= 0; }
    int get() const { return fd_; }
    // As close(2), for whoever has to know whether all was written.
    int Close() { return close(std::exchange(fd_, -1)); }

private:
    int fd_;
};

enum class Content {
    kSame,
    kPart,        // a beginning of the package's file, perhaps with zero bytes behind it: an unfinished copy
    kOther,       // anything else
    kUnreadable,  // one of the two can't be read
};

// What the regular file `path` holds beside the package's regular file `packagePath`, both of which may be
// links. After kUnreadable, `trouble` says which file can't be read and why.
Content Compare(const std::string& path, const std::string& packagePath, std::string& trouble);

// Hands out the content of the file, block by block, or has it whole. Both return 0 or an errno, and open no
// device: it may never end.
int ReadBlocks(const std::string& path, const std::function<void(std::string_view)>& take);
int ReadWhole(const std::string& path, std::string& content);

// The trouble names the path.
Trouble WriteAll(int fd, const std::string& path, std::string_view text);

// Makes the file, or the names in the directory, last through a power cut.
Trouble Sync(const std::string& path);

// True when `path` holds nothing but bytes that `packagePath` has in the same places, and zeros: what a copy
// that was cut off, by a power cut perhaps, can leave. False also when the package's file is gone. Nothing
// when one of them can't be read; `trouble` says which and why.
std::optional<bool> IsUnfinishedCopy(const std::string& path, const std::string& packagePath,
                                     std::string& trouble);

// `path` holds the package's file or a beginning of it, and the backup something else: an upgrade has been
// begun, and the backup is the only copy of the old file.
bool IsUpgradeBegun(const std::string& path, const std::string& backupPath, const std::string& packagePath);

bool IsSameMoment(const timespec& left, const timespec& right);

// The two files, by status, are one: the same inode.
bool IsSameFile(const struct stat& left, const struct stat& right);

// What keeps a file, or a link itself, from being renamed. Not every file system tells.
struct FileMarks {
    const char* lock = "";  // "immutable" or "append-only"
    bool isMountPoint = false;
};
FileMarks MarksOf(const std::string& path);

mode_t CurrentUmask();

// Nothing happened to the file between the two looks at it.
bool IsUnchanged(const struct stat& before, const struct stat& now);

std::string WithoutTrailingSlashes(std::string path);

// True when the path, relative to some directory, leads nowhere else; links are not looked at.
bool StaysBelow(const std::string& relativePath);

// The canonical path of what is there; nothing when it can't be told.
std::optional<std::string> CanonicalPath(const std::string& path);

#endif
