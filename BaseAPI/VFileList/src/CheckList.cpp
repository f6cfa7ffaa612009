// Checks the lists of a file list and the directories that they go to.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

#include "CheckParts.h"
#include "Output.h"
#include "TargetFacts.h"
#include "VCopyFileListIni.h"

namespace fs = std::filesystem;

namespace {

void CheckInstallType(Inspection& inspection) {
    const FileList& list = inspection.list;
    const auto add = [&inspection](const char* code, const std::string& detail) {
        inspection.findings.push_back({&KindOf(code), kInstallTypeSection, kInstallTypeKey, "", "", detail});
    };
    const std::string instead = list.lists().empty() ? "" : "the keys before the first section are taken";
    if (list.installTypeLength() >= kDirectoryValueCapacity) {
        add("E-TYPE-TOO-LONG", Bytes(list.installTypeLength()) + (instead.empty() ? "" : "; " + instead));
    } else if (list.installType().empty()) {
        add("E-TYPE-MISSING", instead);
    } else if (list.lists().empty()) {
        add("E-TYPE-UNKNOWN", "[" + list.installType() + "]");
    }
}

// False when there is no sense in looking at the directory.
bool CheckDirectoryValue(Inspection& inspection, const TargetList& list) {
    if (list.directoryValueLength >= kDirectoryValueCapacity) {
        inspection.Add("E-DIR-TOO-LONG", list, "", Bytes(list.directoryValueLength));
    } else if (list.directoryValueLength == 0) {
        inspection.Add("E-DIR-EMPTY", list, "");
    } else if (list.directory[0] != '/') {
        inspection.Add("E-TARGET-RELATIVE", list, list.directory);
    } else if (fs::path(list.directory).lexically_normal() == "/") {
        inspection.Add("E-TARGET-ROOT", list, list.directory);
    } else {
        return true;
    }
    return false;
}

// Below an empty root everything is missing, which says nothing of the server.
bool IsBare(const std::string& root) {
    std::error_code error;
    return !root.empty() && fs::is_empty(root, error);
}

// False when there is no such directory, and -copy can't make it.
bool CheckDirectory(Inspection& inspection, const TargetList& list) {
    const std::vector<std::string> made = inspection.files.MakeDirectory(list.directory);
    if (const Trouble trouble = WhyNoDirectory(inspection.files, list.directory)) {
        inspection.Add("E-DIR-NOT-DIRECTORY", list, list.directory, *trouble);
        return false;
    }
    const std::string owner = std::to_string(geteuid()) + ":" + std::to_string(getegid());
    for (const std::string& path : IsBare(inspection.list.root()) ? std::vector<std::string>() : made) {
        if (inspection.manifest != nullptr && inspection.manifest->Find(path) != nullptr) continue;
        const mode_t mode = 0750 & ~CurrentUmask();
        inspection.Add("W-DIR-MADE", list, path, "mode " + ShownMode(mode) + ", owner " + owner);
    }
    const std::string place = inspection.files.NearestPlace(list.directory);
    if (faccessat(AT_FDCWD, place.c_str(), W_OK | X_OK, AT_EACCESS) != 0) {
        inspection.Add("W-TARGET-NOT-WRITABLE", list, place, std::strerror(errno));
    }
    // Of a link to a directory, the directory counts.
    const std::string lock = MarksOf(place + "/").lock;
    if (!lock.empty()) inspection.Add("E-TARGET-LOCKED", list, place, "the directory is " + lock);
    const std::string others = WhoElseWrites(inspection.files.Behind(list.directory).status);
    if (!others.empty()) inspection.Add("W-OTHERS-WRITE", list, list.directory, others);
    return true;
}

bool HasSameSource(const FileList& list, const Entry& left, const Entry& right) {
    const fs::path source = list.SourceOf(left);
    const fs::path other = list.SourceOf(right);
    if (source.lexically_normal() == other.lexically_normal()) return true;
    const std::optional<std::string> real = CanonicalPath(source);
    const std::optional<std::string> otherReal = CanonicalPath(other);
    return real && real == otherReal;
}

}  // namespace

void Inspection::Add(const char* code, const TargetList& targets, const std::string& path,
                     const std::string& detail) {
    findings.push_back({&KindOf(code), list.installType(), targets.section, "", path, detail});
}

void Inspection::Add(const char* code, const Entry& entry, const std::string& path,
                     const std::string& detail) {
    findings.push_back(
        {&KindOf(code), list.ListOf(entry).section, list.KeyOf(entry), entry.text, path, detail});
}

void Inspection::AddLoss(const char* code, const Entry& entry, const std::string& detail) {
    if (detail.empty()) return;
    const auto [loss, isNew] = losses.try_emplace({code, detail}, Loss{findings.size(), 0});
    if (isNew) Add(code, entry, list.TargetOf(entry), detail);
    ++loss->second.count;
}

void Inspection::CountLosses() {
    for (const auto& [key, loss] : losses) {
        if (loss.count == 1) continue;
        findings[loss.finding].detail += "; " + Counted(loss.count, "file") + ", this is the first";
    }
}

void CheckLists(Inspection& inspection) {
    CheckInstallType(inspection);
    for (const TargetList& list : inspection.list.lists()) {
        if (!CheckDirectoryValue(inspection, list) || !CheckDirectory(inspection, list)) {
            inspection.unusable.insert(list.section);
        }
        for (const ListKey& key : list.keys) {
            if (key.valueLength < kListValueCapacity) continue;
            inspection.findings.push_back(
                {&KindOf("E-LIST-TOO-LONG"), list.section, key.name, "", "", Bytes(key.valueLength)});
        }
        if (!HasValues(list)) {
            inspection.findings.push_back(
                {&KindOf("W-LIST-EMPTY"), list.section, "", "", list.directory, ""});
        }
    }
}

void CheckDuplicates(Inspection& inspection) {
    const FileList& list = inspection.list;
    for (const Target& target : list.Targets()) {
        const Entry& first = list.entries()[target.entries.front()];
        for (std::size_t i = 1; i < target.entries.size(); ++i) {
            const Entry& entry = list.entries()[target.entries[i]];
            const bool isSame = HasSameSource(list, first, entry);
            inspection.Add(
                isSame ? "W-DUPLICATE-ENTRY" : "E-DUPLICATE-NAME", entry, list.TargetOf(first),
                "[" + list.ListOf(first).section + "] " + list.KeyOf(first) + " has it from " + first.text);
        }
    }
}

std::string WhoElseWrites(const struct stat& status) {
    const bool isOthers = status.st_uid != 0 && status.st_uid != geteuid();
    const bool isGroups = (status.st_mode & S_IWGRP) != 0 && status.st_gid != 0 && status.st_gid != getegid();
    if (!isOthers && !isGroups && (status.st_mode & S_IWOTH) == 0) return "";
    return "mode " + ShownMode(status.st_mode & kPermissions) + ", owner " + ShownOwner(status);
}
