// Reads a file list with the upgrade tool's own functions.
#include "FileList.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <filesystem>
#include <functional>
#include <set>
#include <string_view>
#include <tuple>
#include <unordered_set>
#include <utility>

#include "Digest.h"
#include "Files.h"
#include "PlannedFiles.h"
#include "VCopyFileListIni.h"
#include "VIni.h"

namespace fs = std::filesystem;

namespace {

// The tool's readers don't tell how long a value is that does not fit; a buffer of the whole file's size
// holds any.
class ValueMeter {
public:
    explicit ValueMeter(std::string iniPath) : iniPath_(std::move(iniPath)), buffer_(SizeOf(iniPath_) + 1) {}

    std::size_t LengthOf(const std::string& section, const std::string& key) {
        const int status = VIni::IniGetString(section.c_str(), key.c_str(), "", buffer_.data(),
                                              static_cast<int>(buffer_.size()), iniPath_.c_str());
        return status == 0 ? std::strlen(buffer_.data()) : 0;
    }

private:
    static std::size_t SizeOf(const std::string& path) {
        struct stat status {};
        const off_t size = stat(path.c_str(), &status) == 0 ? status.st_size : 0;
        return static_cast<std::size_t>(std::min<off_t>(size, INT_MAX - 1));  // the reader's sizes are int
    }

    const std::string iniPath_;
    std::vector<char> buffer_;
};

// The same text for the same directory, however it is spelt, be it one that -copy will make.
std::string IdentityOfDirectory(PlannedFiles& files, const std::string& path) {
    (void)files.MakeDirectory(path);
    const PlannedFile directory = files.Behind(path);
    if (directory.origin.empty()) {
        const std::string text = fs::path(path).lexically_normal();
        return files.EndOf(path).value_or(WithoutTrailingSlashes(text)) + "/";
    }
    return std::to_string(directory.status.st_dev) + ":" + std::to_string(directory.status.st_ino) + "/";
}

// Few names are those of backups.
template <typename IdentityOf>
void NoteListedBackups(std::vector<Target>& targets, IdentityOf identityOf) {
    const std::string_view suffix = kBackupSuffix;  // shorter than any identity
    std::set<std::string> backups;
    for (const Target& target : targets) {
        std::string identity = identityOf(target.entries.front());
        const bool isBackup = identity.rfind(suffix) == identity.size() - suffix.size();
        if (isBackup) backups.insert(std::move(identity));
    }
    for (Target& target : targets) {
        target.isBackupListed =
            !backups.empty() && backups.count(identityOf(target.entries.front()) + kBackupSuffix) != 0;
    }
}

}  // namespace

Trouble FileList::WhyUnreadable(const std::string& iniPath) {
    const Descriptor file(open(iniPath.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (!file) return std::strerror(errno);

    struct stat status {};
    if (fstat(file.get(), &status) != 0) return std::strerror(errno);
    if (S_ISDIR(status.st_mode)) return std::strerror(EISDIR);
    if (!S_ISREG(status.st_mode)) return "not a regular file";
    if (!DigestOfFile(file.get())) return std::strerror(errno);  // which reads all of it
    return std::nullopt;
}

// The tool's readers don't tell a value that is missing from one that can't be read. What can't be read is
// not missing twice in the same way, except where nothing at all can be read.
FileList::FileList(std::string iniPath, std::string root)
    : iniPath_(std::move(iniPath)),
      root_(WithoutTrailingSlashes(std::move(root))),
      sourceDirectory_(SourceDirectory(iniPath_)),
      contents_(Read(iniPath_)) {
    if (!HasContentsOf(iniPath_)) {
        trouble_ = "it can't be read twice with the same result";
    } else if (lists().empty()) {
        trouble_ = WhyUnreadable(iniPath_);
    }
}

FileList::Contents FileList::Read(const std::string& iniPath) {
    ValueMeter meter(iniPath);
    Contents contents{ReadInstallType(iniPath), meter.LengthOf(kInstallTypeSection, kInstallTypeKey)};
    DirectoryMap directories;
    if (GetPathSectionMap(directories, iniPath) != 0) return contents;

    for (const auto& [section, directory] : directories) {
        TargetList list{section, directory, meter.LengthOf(contents.installType, section), {}};
        std::set<std::string> keys;
        (void)VIni::IniGetStringItems(section.c_str(), keys, iniPath.c_str());  // the set tells
        for (const std::string& key : keys) {
            std::vector<std::string> texts;
            GetKeyItemList(section, key, iniPath, texts);
            for (std::string& text : texts) {
                contents.entries.push_back({contents.lists.size(), list.keys.size(), std::move(text)});
            }
            list.keys.push_back({key, meter.LengthOf(section, key)});
        }
        contents.lists.push_back(std::move(list));
    }
    contents.entries.shrink_to_fit();
    return contents;
}

bool FileList::Contents::operator==(const Contents& other) const {
    return std::tie(installType, installTypeLength, lists, entries) ==
           std::tie(other.installType, other.installTypeLength, other.lists, other.entries);
}

bool TargetList::operator==(const TargetList& other) const {
    return std::tie(section, directory, directoryValueLength, keys) ==
           std::tie(other.section, other.directory, other.directoryValueLength, other.keys);
}

std::string FileList::TargetOf(const Entry& entry) const {
    return ListOf(entry).directory + GetFileName(entry.text);
}

std::string FileList::BackupOf(const Entry& entry) const {
    return TargetOf(entry) + kBackupSuffix;
}

std::vector<Target> FileList::Targets() const {
    PlannedFiles files(root_);
    std::vector<std::string> directories;
    for (const TargetList& list : lists()) directories.push_back(IdentityOfDirectory(files, list.directory));
    const auto identityOf = [&](std::size_t entry) {
        return directories[entries()[entry].list] + GetFileName(entries()[entry].text);
    };

    // Entries stand for their identities here, which take more memory than all the rest.
    const auto hash = [&](std::size_t entry) { return std::hash<std::string>()(identityOf(entry)); };
    const auto isSame = [&](std::size_t entry, std::size_t other) {
        return identityOf(entry) == identityOf(other);
    };
    std::unordered_set<std::size_t, decltype(hash), decltype(isSame)> firstEntries(0, hash, isSame);
    std::vector<std::size_t> indexes(entries().size());  // of the targets of the entries
    std::vector<Target> targets;
    targets.reserve(entries().size());
    for (std::size_t i = 0; i < entries().size(); ++i) {
        if (!HasFileName(entries()[i])) continue;
        const auto [first, isNew] = firstEntries.insert(i);
        indexes[i] = isNew ? targets.size() : indexes[*first];
        if (isNew) targets.emplace_back();
        targets[indexes[i]].entries.push_back(i);
    }
    NoteListedBackups(targets, identityOf);
    return targets;
}

std::vector<FileList::SkippedKey> FileList::SkippedKeys() const {
    std::vector<SkippedKey> skipped;
    for (const TargetList& list : lists()) {
        for (const ListKey& key : list.keys) {
            if (key.valueLength >= kListValueCapacity) skipped.push_back({list.section, key});
        }
    }
    return skipped;
}

bool HasValues(const TargetList& list) {
    return std::any_of(list.keys.begin(), list.keys.end(),
                       [](const ListKey& key) { return key.valueLength > 0; });
}

bool HasFileName(const Entry& entry) {
    const std::string name = GetFileName(entry.text);
    return !name.empty() && name != "." && name != "..";
}
