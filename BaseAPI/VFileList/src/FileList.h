// A file list as the upgrade tool reads it. Everything comes from the functions of the tool's own module, so
// that what is checked here is what the passes will do.
#ifndef VFILELIST_FILELIST_H
#define VFILELIST_FILELIST_H

#include <cstddef>
#include <string>
#include <vector>

#include "Trouble.h"

struct ListKey {
    std::string name;
    std::size_t valueLength;  // as it stands in the file; the tool reads up to 4095 bytes

    bool operator==(const ListKey& other) const {
        return name == other.name && valueLength == other.valueLength;
    }
};

// One list: a section of entries and the directory that they go to.
struct TargetList {
    std::string section;
    std::string directory;             // as the tool uses it: ends in '/'
    std::size_t directoryValueLength;  // as it stands in the file; the tool reads up to 259 bytes
    std::vector<ListKey> keys;

    bool operator==(const TargetList& other) const;
};

struct Entry {
    std::size_t list;  // index into lists()
    std::size_t key;   // index into the list's keys
    std::string text;  // exactly what stands between two commas

    bool operator==(const Entry& other) const {
        return list == other.list && key == other.key && text == other.text;
    }
};

// One installed file, and every entry that the passes apply to it, in their order.
struct Target {
    std::vector<std::size_t> entries;  // indexes into entries()
    bool isBackupListed = false;       // NAME.bak is a target, too
};

class FileList {
public:
    // Why `iniPath` can't be read as a file list at all; nothing when it can.
    static Trouble WhyUnreadable(const std::string& iniPath);

    // Reads the list. Target directories are looked up below `root`, if that is not empty.
    explicit FileList(std::string iniPath, std::string root = "");

    // Why what was read can't be relied on; nothing else counts then.
    const Trouble& trouble() const { return trouble_; }
    // Whether the tool reads the same from the file `iniPath`.
    bool HasContentsOf(const std::string& iniPath) const { return Read(iniPath) == contents_; }

    const std::string& iniPath() const { return iniPath_; }
    const std::string& root() const { return root_; }
    const std::string& installType() const { return contents_.installType; }
    std::size_t installTypeLength() const { return contents_.installTypeLength; }
    const std::string& sourceDirectory() const { return sourceDirectory_; }
    // In the order in which the passes visit them. Without a list, every pass fails.
    const std::vector<TargetList>& lists() const { return contents_.lists; }
    const std::vector<Entry>& entries() const { return contents_.entries; }

    const TargetList& ListOf(const Entry& entry) const { return lists()[entry.list]; }
    const std::string& KeyOf(const Entry& entry) const { return ListOf(entry).keys[entry.key].name; }
    // The entry whose file stands there at the end: the last of those that go there.
    const Entry& EntryOf(const Target& target) const { return entries()[target.entries.back()]; }
    std::string SourceOf(const Entry& entry) const { return sourceDirectory_ + entry.text; }
    std::string TargetOf(const Entry& entry) const;
    std::string BackupOf(const Entry& entry) const;

    // The installed files that the entries name. The same file in lists with different spellings of a
    // directory is one target; entries without a file name have none.
    std::vector<Target> Targets() const;

    // The keys that the tool skips because their values are too long.
    struct SkippedKey {
        std::string section;
        ListKey key;
    };
    std::vector<SkippedKey> SkippedKeys() const;

private:
    struct Contents {
        std::string installType;
        std::size_t installTypeLength = 0;
        std::vector<TargetList> lists = {};
        std::vector<Entry> entries = {};

        bool operator==(const Contents& other) const;
    };
    static Contents Read(const std::string& iniPath);

    std::string iniPath_;
    std::string root_;
    std::string sourceDirectory_;
    Contents contents_;
    Trouble trouble_;
};

// True when some key of the list has a value, if only one that is too long.
bool HasValues(const TargetList& list);

// True for an entry that names a file: its last component is not empty, "." or "..".
bool HasFileName(const Entry& entry);

#endif
