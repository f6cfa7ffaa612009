// Looks for what would make an upgrade fail, do nothing, or do harm.
#include "Check.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <optional>
#include <set>
#include <utility>

#include "FileList.h"
#include "Files.h"
#include "VCopyFileListIni.h"

namespace fs = std::filesystem;

namespace {

constexpr std::size_t kMaxNameLength = NAME_MAX - (sizeof(kBackupSuffix) - 1);
constexpr mode_t kPermissions = 07777;
// As many as the kernel follows before it calls it a loop.
constexpr int kMaxLinks = 40;

using FileId = std::pair<dev_t, ino_t>;

FileId IdOf(const struct stat& status) {
    return {status.st_dev, status.st_ino};
}

mode_t CurrentUmask() {
    const mode_t mask = umask(0);
    (void)umask(mask);
    return mask;
}

std::string Owner(uid_t user, gid_t group) {
    return std::to_string(user) + ":" + std::to_string(group);
}

std::string Bytes(std::size_t count) {
    return std::to_string(count) + " bytes";
}

// An entry that begins with a '/' is one below Common all the same.
std::string BelowCommon(const Entry& entry) {
    return entry.text.substr(std::min(entry.text.find_first_not_of('/'), entry.text.size()));
}

// The programs that run now, by the file that they were started from, with one process of each.
std::map<FileId, std::string> RunningPrograms() {
    std::map<FileId, std::string> programs;
    std::error_code error;
    for (const fs::directory_entry& process : fs::directory_iterator("/proc", error)) {
        const std::string pid = process.path().filename();
        if (!std::all_of(pid.begin(), pid.end(), [](char digit) { return digit >= '0' && digit <= '9'; }))
            continue;
        struct stat status {};
        if (stat((process.path() / "exe").c_str(), &status) == 0) programs.emplace(IdOf(status), pid);
    }
    return programs;
}

class Checker {
public:
    Checker(const CheckOptions& options, Output& output)
        : list_(options.iniPath, options.root), output_(output) {}

    const Trouble& trouble() const { return list_.trouble(); }
    std::vector<Finding> Run();

private:
    struct Space {
        unsigned long long bytes = 0;
        unsigned long long files = 0;
        std::string directory;
    };

    void CheckInstallType();
    void CheckList(const TargetList& list);
    bool CheckDirectoryValue(const TargetList& list);
    void CheckDirectory(const TargetList& list);
    void CheckEntry(const Entry& entry);
    void CheckName(const Entry& entry);
    bool CheckSource(const Entry& entry);
    bool CheckIsInside(const Entry& entry);
    void CheckTarget(const Entry& entry);
    bool CheckTargetKind(const Entry& entry, const struct stat& link);
    void CheckLink(const Entry& entry);
    bool IsDirectoryOfAList(const Entry& entry) const;
    std::string NameBelowRoot(const fs::path& path) const;
    void CheckInstalledFile(const Entry& entry, const struct stat& installed);
    void CheckBackup(const Entry& entry, const struct stat* installed);
    bool IsLinkBetween(const Entry& entry, const struct stat& installed, const struct stat& backup) const;
    gid_t NewGroup(const TargetList& list) const;
    void CheckMode(const Entry& entry, const struct stat& reference, bool isInstalled);
    void CheckDuplicates();
    void AddListedPaths(const Entry& entry, std::set<std::string>& paths) const;
    void CheckUnlisted();
    void AddSpace(const TargetList& list);
    void CheckSpace();

    void Add(const char* code, const TargetList& list, const std::string& path, const std::string& detail);
    void Add(const char* code, const Entry& entry, const std::string& path, const std::string& detail = "");
    std::string FollowedPlaceOf(const Entry& entry) const;
    bool IsUsable(const TargetList& list) const { return unusable_.count(list.section) == 0; }

    const FileList list_;
    Output& output_;
    const std::optional<std::string> common_ = CanonicalPath(list_.sourceDirectory());
    std::vector<Finding> findings_;
    std::set<std::string> unusable_;  // lists whose directory is no place to look at
    std::set<std::string> moved_;     // the targets so far that -rename moves
    std::map<dev_t, Space> spaces_;
    const std::map<FileId, std::string> programs_ = RunningPrograms();
    const mode_t newMode_ = 0666 & ~CurrentUmask();
    struct stat source_ {};  // of the entry in hand; empty when the package lacks it
};

std::vector<Finding> Checker::Run() {
    CheckInstallType();
    for (const TargetList& list : list_.lists()) CheckList(list);
    std::size_t done = 0;
    for (const Entry& entry : list_.entries()) {
        CheckEntry(entry);
        output_.Progress("check", ++done, list_.entries().size());
    }
    CheckDuplicates();
    CheckUnlisted();
    CheckSpace();
    return std::move(findings_);
}

void Checker::CheckInstallType() {
    const auto add = [this](const char* code, const std::string& detail) {
        findings_.push_back({&KindOf(code), "Package_Intall_Type", "PackageIntallType", "", "", detail});
    };
    const std::string instead = list_.lists().empty() ? "" : "the keys before the first section are taken";
    if (list_.installTypeLength() >= kDirectoryValueCapacity) {
        add("E-TYPE-TOO-LONG", Bytes(list_.installTypeLength()) + (instead.empty() ? "" : "; " + instead));
    } else if (list_.installType().empty()) {
        add("E-TYPE-MISSING", instead);
    } else if (list_.lists().empty()) {
        add("E-TYPE-UNKNOWN", "[" + list_.installType() + "]");
    }
}

void Checker::CheckList(const TargetList& list) {
    if (CheckDirectoryValue(list)) {
        CheckDirectory(list);
    } else {
        unusable_.insert(list.section);
    }
    for (const ListKey& key : list.keys) {
        if (key.valueLength < kListValueCapacity) continue;
        findings_.push_back(
            {&KindOf("E-LIST-TOO-LONG"), list.section, key.name, "", "", Bytes(key.valueLength)});
    }
    if (!HasValues(list)) {
        findings_.push_back({&KindOf("W-LIST-EMPTY"), list.section, "", "", list.directory, ""});
    }
}

// False when there is no sense in looking at the directory.
bool Checker::CheckDirectoryValue(const TargetList& list) {
    if (list.directoryValueLength >= kDirectoryValueCapacity) {
        Add("E-DIR-TOO-LONG", list, "", Bytes(list.directoryValueLength));
    } else if (list.directoryValueLength == 0) {
        Add("E-DIR-EMPTY", list, "", "");
    } else if (list.directory[0] != '/') {
        Add("E-TARGET-RELATIVE", list, list.directory, "");
    } else if (fs::path(list.directory).lexically_normal() == "/") {
        Add("E-TARGET-ROOT", list, list.directory, "");
    } else {
        return true;
    }
    return false;
}

void Checker::CheckDirectory(const TargetList& list) {
    const std::string existing = NearestExisting(list_.PlaceOf(list));
    const std::string why = WhyNoDirectory(list_.PlaceOf(list));
    if (!why.empty()) {
        Add("E-DIR-NOT-DIRECTORY", list, list.directory, why);
        unusable_.insert(list.section);
    } else if (faccessat(AT_FDCWD, existing.c_str(), W_OK | X_OK, AT_EACCESS) != 0) {
        Add("W-TARGET-NOT-WRITABLE", list, existing, std::strerror(errno));
    }
}

void Checker::CheckEntry(const Entry& entry) {
    if (!HasFileName(entry) && GetFileName(entry.text) != "..") {
        Add("E-ENTRY-EMPTY", entry, "");
        return;
    }
    CheckName(entry);
    source_ = {};
    const bool hasSource = CheckSource(entry);
    // In Common "a\.." may be a file.
    if (hasSource && !HasFileName(entry)) Add("E-ENTRY-EMPTY", entry, "");
    if (HasFileName(entry) && IsUsable(list_.ListOf(entry))) {
        CheckTarget(entry);
        if (hasSource) AddSpace(list_.ListOf(entry));
    }
}

void Checker::CheckName(const Entry& entry) {
    const std::string name = GetFileName(entry.text);
    const std::string suffix = kBackupSuffix;
    if (name.size() >= suffix.size() &&
        name.compare(name.size() - suffix.size(), suffix.size(), suffix) == 0) {
        Add("E-NAME-BAK", entry, list_.TargetOf(entry));
    }
    // Directories have no more than 259 bytes: of the paths only the source's can be too long.
    const std::size_t sourceLength = list_.SourceOf(entry).size();
    if (name.size() > kMaxNameLength) {
        Add("E-NAME-TOO-LONG", entry, "", "a name of " + Bytes(name.size()));
    } else if (sourceLength >= PATH_MAX) {
        Add("E-NAME-TOO-LONG", entry, "", "a path of " + Bytes(sourceLength));
    }
    const std::string blanks = " \t";
    if (blanks.find(entry.text.front()) != std::string::npos ||
        blanks.find(entry.text.back()) != std::string::npos) {
        Add("W-ENTRY-BLANKS", entry, "", "\"" + entry.text + "\"");
    }
    if (entry.text.find('\\') != std::string::npos) Add("W-ENTRY-BACKSLASH", entry, "");
}

// True when the package has the file; its status is in `source_` then.
bool Checker::CheckSource(const Entry& entry) {
    if (!CheckIsInside(entry)) return false;
    const std::string source = list_.SourceOf(entry);
    if (stat(source.c_str(), &source_) != 0) {
        const int error = errno;
        const bool isMissing = error == ENOENT || error == ENOTDIR;
        Add(isMissing ? "E-SOURCE-MISSING" : "E-SOURCE-UNREADABLE", entry, source,
            isMissing ? "" : std::strerror(error));
        return false;
    }
    if (!S_ISREG(source_.st_mode)) {
        Add("E-SOURCE-NOT-REGULAR", entry, source,
            S_ISDIR(source_.st_mode) ? "a directory" : "a special file");
        return false;
    }
    const Descriptor file(open(source.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (!file) Add("E-SOURCE-UNREADABLE", entry, source, std::strerror(errno));
    return true;
}

// Neither the entry's text nor a link in the package may lead out of Common.
bool Checker::CheckIsInside(const Entry& entry) {
    const std::string source = list_.SourceOf(entry);
    if (!StaysBelow(BelowCommon(entry))) {
        Add("E-ENTRY-OUTSIDE", entry, fs::path(source).lexically_normal());
        return false;
    }
    const std::optional<std::string> real = CanonicalPath(source);
    if (!common_ || !real || *real == *common_ ||
        real->compare(0, common_->size() + 1, *common_ + "/") == 0) {
        return true;
    }
    Add("E-ENTRY-OUTSIDE", entry, source, "a link leads to " + *real);
    return false;
}

void Checker::CheckTarget(const Entry& entry) {
    const std::string place = list_.PlaceOf(entry);
    struct stat link {};
    if (lstat(place.c_str(), &link) != 0) {
        if (IsDirectoryOfAList(entry)) {
            Add("E-TARGET-DIRECTORY", entry, list_.TargetOf(entry), "the directory of a list, not there yet");
        }
        CheckBackup(entry, nullptr);
        if (S_ISREG(source_.st_mode)) CheckMode(entry, source_, false);
        return;
    }
    if (!CheckTargetKind(entry, link)) return;
    if (S_ISLNK(link.st_mode)) CheckLink(entry);
    moved_.insert(NameBelowRoot(list_.TargetOf(entry)));

    struct stat installed {};
    if (stat(FollowedPlaceOf(entry).c_str(), &installed) == 0) CheckInstalledFile(entry, installed);
    CheckBackup(entry, &link);
}

// True for a regular file, or a link to one.
bool Checker::CheckTargetKind(const Entry& entry, const struct stat& link) {
    struct stat status {};
    if (stat(FollowedPlaceOf(entry).c_str(), &status) != 0) {
        const char* const detail = errno == ELOOP ? "in a circle: -copy fails" : "";
        if (S_ISLNK(link.st_mode)) Add("E-TARGET-DANGLING", entry, list_.TargetOf(entry), detail);
        return false;
    }
    if (S_ISREG(status.st_mode)) return true;
    Add(S_ISDIR(status.st_mode) ? "E-TARGET-DIRECTORY" : "E-TARGET-SPECIAL", entry, list_.TargetOf(entry));
    return false;
}

// A link points nowhere, too, when -rename comes to it after it has moved what the link leads to.
void Checker::CheckLink(const Entry& entry) {
    fs::path path = list_.TargetOf(entry);
    std::error_code error;
    for (int links = 0; links < kMaxLinks; ++links) {
        const fs::path link = fs::read_symlink(NameBelowRoot(path), error);
        if (error) return;
        path = path.parent_path() / link;
        if (moved_.count(NameBelowRoot(path)) == 0) continue;
        Add("E-TARGET-DANGLING", entry, list_.TargetOf(entry), "once -rename has moved " + path.string());
        return;
    }
}

bool Checker::IsDirectoryOfAList(const Entry& entry) const {
    const std::string name = NameBelowRoot(list_.TargetOf(entry));
    return std::any_of(list_.lists().begin(), list_.lists().end(), [&](const TargetList& list) {
        return NameBelowRoot(fs::path(list.directory).parent_path()) == name;
    });
}

// Where the name itself is, links on the way to it followed.
std::string Checker::NameBelowRoot(const fs::path& path) const {
    const std::string root = list_.root().empty() ? "/" : list_.root();
    return fs::path(ResolveBelowRoot(root, path.parent_path())) / path.filename();
}

void Checker::CheckInstalledFile(const Entry& entry, const struct stat& installed) {
    CheckMode(entry, installed, true);
    if (IsSameFile(installed, source_)) Add("E-TARGET-IN-PACKAGE", entry, list_.TargetOf(entry));
    const auto program = programs_.find(IdOf(installed));
    if (program != programs_.end()) {
        Add("W-TARGET-BUSY", entry, list_.TargetOf(entry), "process " + program->second);
    }
}

// `installed` is the status of NAME itself, null when there is none.
void Checker::CheckBackup(const Entry& entry, const struct stat* installed) {
    struct stat backup {};
    if (lstat((list_.PlaceOf(entry) + kBackupSuffix).c_str(), &backup) != 0) return;
    const bool isSame =
        installed != nullptr && (IsSameFile(*installed, backup) || IsLinkBetween(entry, *installed, backup));
    Add(isSame ? "E-BACKUP-SAME-FILE" : "W-OLD-BACKUP", entry, list_.BackupOf(entry));
}

// One of NAME and NAME.bak is a link that leads to the other.
bool Checker::IsLinkBetween(const Entry& entry, const struct stat& installed,
                            const struct stat& backup) const {
    const std::string root = list_.root().empty() ? "/" : list_.root();
    return S_ISLNK(installed.st_mode) != S_ISLNK(backup.st_mode) &&
           ResolveBelowRoot(root, list_.TargetOf(entry)) == ResolveBelowRoot(root, list_.BackupOf(entry));
}

// The group of a new file: in a directory with the set-group-id bit that of the directory.
gid_t Checker::NewGroup(const TargetList& list) const {
    struct stat directory {};
    const bool isKnown = stat(list_.PlaceOf(list).c_str(), &directory) == 0;
    return isKnown && (directory.st_mode & S_ISGID) != 0 ? directory.st_gid : getegid();
}

void Checker::CheckMode(const Entry& entry, const struct stat& reference, bool isInstalled) {
    const mode_t mode = reference.st_mode & kPermissions;
    std::string detail;
    if (mode != newMode_) detail = ShownMode(mode) + " becomes " + ShownMode(newMode_);
    const gid_t group = NewGroup(list_.ListOf(entry));
    if (isInstalled && (reference.st_uid != geteuid() || reference.st_gid != group)) {
        if (!detail.empty()) detail += ", ";
        detail +=
            "owner " + Owner(reference.st_uid, reference.st_gid) + " becomes " + Owner(geteuid(), group);
    }
    if (detail.empty()) return;
    Add("W-MODE-LOST", entry, list_.TargetOf(entry), detail + (isInstalled ? "" : ", new in this package"));
}

void Checker::CheckDuplicates() {
    for (const Target& target : list_.Targets()) {
        const Entry& first = list_.entries()[target.entries.front()];
        for (std::size_t i = 1; i < target.entries.size(); ++i) {
            Add("E-DUPLICATE-NAME", list_.entries()[target.entries[i]], list_.TargetOf(first),
                "[" + list_.ListOf(first).section + "] " + list_.KeyOf(first) + " has it from " + first.text);
        }
    }
}

// The paths below Common that an entry needs: of the file, and of the links that lead there.
void Checker::AddListedPaths(const Entry& entry, std::set<std::string>& paths) const {
    const fs::path path = fs::path(BelowCommon(entry)).lexically_normal();
    for (fs::path prefix = path; !prefix.empty(); prefix = prefix.parent_path()) paths.insert(prefix);
    const std::optional<std::string> real = CanonicalPath(list_.SourceOf(entry));
    if (real) paths.insert(fs::path(*real).lexically_relative(common_.value_or("")));
}

void Checker::CheckUnlisted() {
    std::set<std::string> listed;
    for (const Entry& entry : list_.entries()) AddListedPaths(entry, listed);

    std::set<std::string> unlisted;
    std::error_code error;
    const fs::path common = list_.sourceDirectory();
    for (fs::recursive_directory_iterator file(common, fs::directory_options::skip_permission_denied, error),
         end;
         !error && file != end; file.increment(error)) {
        std::error_code ignored;
        if (file->is_directory(ignored) && !file->is_symlink(ignored)) continue;
        const std::string path = file->path().lexically_relative(common);
        if (listed.count(path) == 0) unlisted.insert(path);
    }
    for (const std::string& path : unlisted) {
        findings_.push_back({&KindOf("W-SOURCE-UNLISTED"), "", "", path, list_.sourceDirectory() + path, ""});
    }
}

void Checker::AddSpace(const TargetList& list) {
    const std::string existing = NearestExisting(list_.PlaceOf(list));
    struct statvfs system {};
    struct stat status {};
    if (stat(existing.c_str(), &status) != 0 || statvfs(existing.c_str(), &system) != 0) return;

    Space& space = spaces_[status.st_dev];
    const auto blockSize = static_cast<unsigned long long>(system.f_frsize);
    const auto size = static_cast<unsigned long long>(source_.st_size);
    space.bytes += (size + blockSize - 1) / blockSize * blockSize;
    ++space.files;
    space.directory = existing;
}

void Checker::CheckSpace() {
    const bool isRoot = geteuid() == 0;  // who may use the reserve
    for (const auto& [device, space] : spaces_) {
        struct statvfs system {};
        if (statvfs(space.directory.c_str(), &system) != 0) continue;
        const unsigned long long free =
            static_cast<unsigned long long>(isRoot ? system.f_bfree : system.f_bavail) * system.f_frsize;
        std::string detail;
        if (space.bytes > free) {
            detail = ShownSize(space.bytes) + " are needed, " + ShownSize(free) + " are free";
        } else if (system.f_files > 0 && space.files > system.f_favail) {
            detail = Counted(space.files, "file") + " are to be made, " + std::to_string(system.f_favail) +
                     " are possible";
        } else {
            continue;
        }
        findings_.push_back({&KindOf("W-SPACE"), "", "", "", space.directory, detail});
    }
}

void Checker::Add(const char* code, const TargetList& list, const std::string& path,
                  const std::string& detail) {
    findings_.push_back({&KindOf(code), list_.installType(), list.section, "", path, detail});
}

void Checker::Add(const char* code, const Entry& entry, const std::string& path, const std::string& detail) {
    findings_.push_back(
        {&KindOf(code), list_.ListOf(entry).section, list_.KeyOf(entry), entry.text, path, detail});
}

// Where the target's last link leads, within the root.
std::string Checker::FollowedPlaceOf(const Entry& entry) const {
    return list_.root().empty() ? list_.TargetOf(entry)
                                : ResolveBelowRoot(list_.root(), list_.TargetOf(entry));
}

Json ToJson(const Finding& finding) {
    return {{"severity", finding.kind->IsError() ? "error" : "warning"},
            {"code", finding.kind->code},
            {"section", finding.section},
            {"key", finding.key},
            {"entry", finding.entry},
            {"path", finding.path},
            {"detail", finding.detail},
            {"title", finding.kind->title},
            {"effect", finding.kind->effect},
            {"advice", finding.kind->advice}};
}

std::string Place(const Finding& finding) {
    std::string place;
    const auto append = [&place](const std::string& separator, const std::string& text) {
        if (!text.empty()) place += (place.empty() ? "" : separator) + text;
    };
    if (!finding.section.empty()) place = "[" + finding.section + "]";
    append(" ", finding.key);
    append(": ", finding.entry);
    append(place.empty() || !finding.entry.empty() ? " -> " : ": ", finding.path);
    if (!finding.detail.empty()) append(" ", "(" + finding.detail + ")");
    return Shown(place);
}

// What was found of one kind, and once what it means.
void ShowKind(const FindingKind& kind, const std::vector<Finding>& findings, Output& output) {
    const auto isOfKind = [&kind](const Finding& finding) { return finding.kind == &kind; };
    if (std::none_of(findings.begin(), findings.end(), isOfKind)) return;

    const Style style = kind.IsError() ? Style::kError : Style::kWarning;
    output.Line();
    output.Line(output.Paint(style, std::string(kind.IsError() ? "error   " : "warning ") + kind.code) +
                "  " + output.Paint(Style::kBold, kind.title));
    for (const Finding& finding : findings) {
        if (isOfKind(finding)) output.Line("  " + Place(finding));
    }
    output.Line(output.Paint(Style::kDim, std::string("  What happens: ") + kind.effect));
    output.Line(output.Paint(Style::kDim, std::string("  What to do:   ") + kind.advice));
}

}  // namespace

std::vector<Finding> FindTrouble(const CheckOptions& options, Output& output) {
    const std::string trouble = FileList::WhyUnreadable(options.iniPath);
    if (!trouble.empty()) return {{&KindOf("E-INI-UNREADABLE"), "", "", "", options.iniPath, trouble}};
    Checker checker(options, output);
    if (checker.trouble())
        return {{&KindOf("E-INI-UNREADABLE"), "", "", "", options.iniPath, *checker.trouble()}};

    std::vector<Finding> findings = checker.Run();
    if (options.isErrorsOnly) {
        findings.erase(std::remove_if(findings.begin(), findings.end(),
                                      [](const Finding& finding) { return !finding.kind->IsError(); }),
                       findings.end());
    }
    return findings;
}

int Check(const CheckOptions& options, Output& output) {
    const std::vector<Finding> findings = FindTrouble(options, output);
    const auto errors = static_cast<std::size_t>(std::count_if(
        findings.begin(), findings.end(), [](const Finding& finding) { return finding.kind->IsError(); }));
    const std::size_t warnings = findings.size() - errors;

    output.Member("command", "check");
    output.Member("fileList", options.iniPath);
    output.Member("root", options.root);
    output.BeginList("findings");
    for (const Finding& finding : findings) output.Item(ToJson(finding));
    output.EndList();
    output.Member("summary", {{"errors", errors}, {"warnings", warnings}});

    output.Line(output.Paint(Style::kBold, Shown(options.iniPath)));
    for (const FindingKind& kind : FindingKinds()) ShowKind(kind, findings, output);
    output.Line();
    output.Line(findings.empty() ? output.Paint(Style::kGood, "Nothing found.")
                                 : Counted(errors, "error") + ", " + Counted(warnings, "warning") + ".");
    if (!findings.empty() && findings.front().kind == &KindOf("E-INI-UNREADABLE")) return kWrongUse;
    return findings.empty() ? kFine : kFindings;
}
