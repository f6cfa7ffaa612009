// Checks the entries of a file list, and the package beside it.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <filesystem>

#include "CheckParts.h"
#include "VCopyFileListIni.h"

namespace fs = std::filesystem;

namespace {

constexpr std::size_t kMaxNameLength = NAME_MAX - (sizeof(kBackupSuffix) - 1);

// An entry that begins with a '/' is one below Common all the same.
std::string BelowCommon(const Entry& entry) {
    return entry.text.substr(std::min(entry.text.find_first_not_of('/'), entry.text.size()));
}

// Directories have no more than 259 bytes: of the paths only the source's can be too long. A name without
// room for its suffix matters to -rename once there is such a file.
void CheckLengths(Inspection& inspection, const Entry& entry) {
    const std::size_t nameLength = GetFileName(entry.text).size();
    const std::size_t sourceLength = inspection.list.SourceOf(entry).size();
    if (nameLength > kMaxNameLength) {
        const bool isInstalled =
            inspection.files.Behind(inspection.list.TargetOf(entry)).kind != FileKind::kNone;
        const bool isWarning = nameLength <= NAME_MAX && !isInstalled;
        inspection.Add(isWarning ? "W-NAME-LONG" : "E-NAME-TOO-LONG", entry, "",
                       "a name of " + Bytes(nameLength));
    } else if (sourceLength >= PATH_MAX) {
        inspection.Add("E-NAME-TOO-LONG", entry, "", "a path of " + Bytes(sourceLength));
    }
}

void CheckText(Inspection& inspection, const Entry& entry) {
    const std::string name = GetFileName(entry.text);
    const std::string suffix = kBackupSuffix;
    if (name.size() >= suffix.size() &&
        name.compare(name.size() - suffix.size(), suffix.size(), suffix) == 0) {
        inspection.Add("E-NAME-BAK", entry, inspection.list.TargetOf(entry));
    }
    CheckLengths(inspection, entry);
    const std::string blanks = " \t";
    if (blanks.find(entry.text.front()) != std::string::npos ||
        blanks.find(entry.text.back()) != std::string::npos) {
        inspection.Add("W-ENTRY-BLANKS", entry, "", "\"" + entry.text + "\"");
    }
    if (entry.text.find('\\') != std::string::npos) inspection.Add("W-ENTRY-BACKSLASH", entry, "");
}

// Neither the entry's text nor a link in the package may lead out of Common.
bool CheckIsInside(Inspection& inspection, const Entry& entry) {
    const std::string source = inspection.list.SourceOf(entry);
    if (!StaysBelow(BelowCommon(entry))) {
        inspection.Add("E-ENTRY-OUTSIDE", entry, fs::path(source).lexically_normal());
        return false;
    }
    const std::optional<std::string>& common = inspection.common;
    const std::optional<std::string> real = CanonicalPath(source);
    if (!common || !real || *real == *common || real->compare(0, common->size() + 1, *common + "/") == 0) {
        return true;
    }
    inspection.Add("E-ENTRY-OUTSIDE", entry, source, "a link leads to " + *real);
    return false;
}

std::optional<struct stat> CheckFile(Inspection& inspection, const Entry& entry) {
    const std::string source = inspection.list.SourceOf(entry);
    struct stat status {};
    if (stat(source.c_str(), &status) != 0) {
        const int error = errno;
        const bool isMissing = error == ENOENT || error == ENOTDIR;
        inspection.Add(isMissing ? "E-SOURCE-MISSING" : "E-SOURCE-UNREADABLE", entry, source,
                       isMissing ? "" : std::strerror(error));
        return std::nullopt;
    }
    if (!S_ISREG(status.st_mode)) {
        inspection.Add("E-SOURCE-NOT-REGULAR", entry, source,
                       S_ISDIR(status.st_mode) ? "a directory" : "a special file");
        return std::nullopt;
    }
    const Descriptor file(open(source.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (!file) inspection.Add("E-SOURCE-UNREADABLE", entry, source, std::strerror(errno));
    return status;
}

// The paths below Common that an entry needs: of the file, and of the links that lead there.
void AddListedPaths(const Inspection& inspection, const Entry& entry, std::set<std::string>& paths) {
    const fs::path path = fs::path(BelowCommon(entry)).lexically_normal();
    for (fs::path prefix = path; !prefix.empty(); prefix = prefix.parent_path()) paths.insert(prefix);
    const std::optional<std::string> real = CanonicalPath(inspection.list.SourceOf(entry));
    if (real) paths.insert(fs::path(*real).lexically_relative(inspection.common.value_or("")));
}

}  // namespace

void CheckUnlisted(Inspection& inspection) {
    const FileList& list = inspection.list;
    std::set<std::string> listed;
    for (const Entry& entry : list.entries()) AddListedPaths(inspection, entry, listed);

    std::set<std::string> unlisted;
    std::error_code error;
    const fs::path common = list.sourceDirectory();
    const auto options = inspection.manifest != nullptr ? fs::directory_options::none
                                                        : fs::directory_options::skip_permission_denied;
    for (fs::recursive_directory_iterator file(common, options, error), end; !error && file != end;
         file.increment(error)) {
        std::error_code ignored;
        if (file->is_directory(ignored) && !file->is_symlink(ignored)) continue;
        const std::string path = file->path().lexically_relative(common);
        if (listed.count(path) == 0) unlisted.insert(path);
    }
    // What can't be looked at may be anything.
    if (error && inspection.manifest != nullptr) {
        inspection.findings.push_back(
            FindingOf("E-MANIFEST-DIFFERS", list.sourceDirectory(), error.message()));
    }
    const bool isManifest = inspection.manifest != nullptr;
    for (const std::string& path : unlisted) {
        inspection.findings.push_back({&KindOf(isManifest ? "E-MANIFEST-DIFFERS" : "W-SOURCE-UNLISTED"), "",
                                       "", path, list.sourceDirectory() + path,
                                       isManifest ? "not listed" : ""});
    }
}

std::optional<struct stat> CheckSource(Inspection& inspection, const Entry& entry) {
    const std::string name = GetFileName(entry.text);
    if (name.empty() || name == ".") {
        inspection.Add("E-ENTRY-EMPTY", entry, "");
        return std::nullopt;
    }
    CheckText(inspection, entry);
    if (!CheckIsInside(inspection, entry)) return std::nullopt;
    std::optional<struct stat> status = CheckFile(inspection, entry);
    // In Common "a\.." may be a file.
    if (status && !HasFileName(entry)) inspection.Add("E-ENTRY-EMPTY", entry, "");
    return status;
}

void CheckPackage(Inspection& inspection) {
    CheckUnlisted(inspection);
    const fs::path list = inspection.list.iniPath();
    const fs::path directory = list.has_parent_path() ? list.parent_path() : ".";
    for (const fs::path& path : {list, directory, directory / fs::path("Common")}) {
        struct stat status {};
        if (stat(path.c_str(), &status) != 0) continue;
        const std::string others = WhoElseWrites(status);
        if (!others.empty()) inspection.findings.push_back(FindingOf("W-OTHERS-WRITE", path, others));
    }
}
