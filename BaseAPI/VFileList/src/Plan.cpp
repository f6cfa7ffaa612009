// Goes through the passes in the upgrade tool's order without doing anything, one pass building on what the
// one before it would have left behind.
#include "Plan.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <filesystem>
#include <set>
#include <vector>

#include "Files.h"
#include "VCopyFileListIni.h"

namespace {

constexpr std::size_t kNoTarget = static_cast<std::size_t>(-1);

// What bears a name, now or after the steps so far.
struct Place {
    bool isThere = false;
    bool isDirectory = false;
    unsigned long long size = 0;
};

Place LookAt(const std::string& path) {
    struct stat status {};
    // As access(): a link that points nowhere is not there.
    if (stat(path.c_str(), &status) != 0) return {};
    return {true, S_ISDIR(status.st_mode), static_cast<unsigned long long>(status.st_size)};
}

struct TargetPlaces {
    Place file;
    Place backup;
};

enum class Step { kMove, kSkip, kMakeDirectory, kCopy, kRemove, kFail };

struct StepName {
    const char* json;
    Style style;
};

StepName NameOf(Step step) {
    switch (step) {
        case Step::kMove:
            return {"rename", Style::kPlain};
        case Step::kMakeDirectory:
            return {"mkdir", Style::kPlain};
        case Step::kCopy:
            return {"copy", Style::kPlain};
        case Step::kRemove:
            return {"remove", Style::kPlain};
        case Step::kFail:
            return {"FAIL", Style::kError};
        case Step::kSkip:
            break;
    }
    return {"skip", Style::kDim};
}

class Planner {
public:
    Planner(const FileList& list, Output& output);

    int Run();

private:
    void RunPass(const char* pass, bool (Planner::*handle)(std::size_t));
    void EndPass(const char* pass, bool isReached);
    bool RenameEntry(std::size_t index);
    bool CopyEntry(std::size_t index);
    bool CleanEntry(std::size_t index);
    void MakeDirectoryOf(const TargetList& list);

    std::string WhyRenameFails(const Entry& entry, const TargetPlaces& places) const;
    std::string WhyCopyFails(const Entry& entry, const Place& file) const;
    bool IsDirectoryThere(const Entry& entry) const;

    void Show(Step step, const Entry* entry, const std::string& path, unsigned long long size,
              const std::string& detail = "");
    bool Fail(const Entry& entry, const std::string& path, const std::string& why);

    const FileList& list_;
    Output& output_;
    std::vector<TargetPlaces> places_;
    std::vector<std::size_t> targetOf_;  // an entry's index into places_, or kNoTarget
    std::set<std::string> madeDirectories_;
    const char* pass_ = "";
    std::size_t files_ = 0;  // of the pass in hand
    unsigned long long bytes_ = 0;
    std::string failure_;
    Json passes_;
};

Planner::Planner(const FileList& list, Output& output)
    : list_(list), output_(output), targetOf_(list_.entries().size(), kNoTarget) {
    for (const Target& target : list_.Targets()) {
        for (const std::size_t index : target.entries) targetOf_[index] = places_.size();
        const Entry& entry = list_.entries()[target.entries.front()];
        places_.push_back({LookAt(list_.TargetOf(entry)), LookAt(list_.BackupOf(entry))});
    }
}

int Planner::Run() {
    output_.Member("command", "plan");
    output_.Member("fileList", list_.iniPath());
    output_.Member("installType", list_.installType());
    output_.Line(output_.Paint(Style::kBold, Shown(list_.iniPath())) + "  install type " +
                 Shown(list_.installType()));

    output_.BeginList("steps");
    RunPass("-rename", &Planner::RenameEntry);
    RunPass("-copy", &Planner::CopyEntry);
    RunPass("-clean", &Planner::CleanEntry);
    output_.EndList();

    output_.BeginList("skippedKeys");
    const std::vector<FileList::SkippedKey> skippedKeys = list_.SkippedKeys();
    if (!skippedKeys.empty()) output_.Line();
    for (const FileList::SkippedKey& skipped : skippedKeys) {
        output_.Item(
            {{"section", skipped.section}, {"key", skipped.key.name}, {"bytes", skipped.key.valueLength}});
        output_.Line(output_.Paint(Style::kError, "Every pass skips [" + Shown(skipped.section) + "] " +
                                                      Shown(skipped.key.name) + ": a value of " +
                                                      std::to_string(skipped.key.valueLength) + " bytes."));
    }
    output_.EndList();
    output_.Member("passes", passes_);
    return failure_.empty() && skippedKeys.empty() ? kFine : kFindings;
}

// Stops at the first entry that fails; the passes behind it are not reached.
void Planner::RunPass(const char* pass, bool (Planner::*handle)(std::size_t)) {
    pass_ = pass;
    files_ = 0;
    bytes_ = 0;
    output_.Line();
    output_.Line(output_.Paint(Style::kBold, pass));
    const bool isReached = failure_.empty();
    std::size_t index = 0;
    for (std::size_t list = 0; list < list_.lists().size() && failure_.empty(); ++list) {
        if (handle == &Planner::CopyEntry) MakeDirectoryOf(list_.lists()[list]);
        while (index < list_.entries().size() && list_.entries()[index].list == list && failure_.empty()) {
            if (!(this->*handle)(index)) break;
            ++index;
        }
    }
    EndPass(pass, isReached);
}

void Planner::EndPass(const char* pass, bool isReached) {
    passes_[std::string(pass).substr(1)] = {
        {"reached", isReached}, {"succeeds", failure_.empty()}, {"files", files_}, {"bytes", bytes_}};
    if (!isReached) {
        output_.Line("  not reached");
    } else if (failure_.empty()) {
        output_.Line(output_.Paint(Style::kDim, "  " + Counted(files_, "file") + ", " + ShownSize(bytes_)));
    } else {
        output_.Line(output_.Paint(Style::kError, "  stops here, exit status 240"));
    }
}

bool Planner::RenameEntry(std::size_t index) {
    const Entry& entry = list_.entries()[index];
    const std::string path = list_.TargetOf(entry);
    if (targetOf_[index] == kNoTarget) {
        if (IsDirectoryThere(entry)) return Fail(entry, path, "a directory can't be moved into itself");
        Show(Step::kSkip, &entry, path, 0, "not there");
        return true;
    }
    TargetPlaces& places = places_[targetOf_[index]];
    if (!places.file.isThere) {
        Show(Step::kSkip, &entry, path, 0, "not there");
        return true;
    }
    const std::string why = WhyRenameFails(entry, places);
    if (!why.empty()) return Fail(entry, path, why);
    Show(Step::kMove, &entry, path, places.file.size,
         places.backup.isThere ? "to NAME.bak, replacing an older one" : "to NAME.bak");
    places.backup = places.file;
    places.file = {};
    return true;
}

std::string Planner::WhyRenameFails(const Entry& entry, const TargetPlaces& places) const {
    if (list_.BackupOf(entry).size() >= PATH_MAX ||
        GetFileName(entry.text).size() + std::strlen(kBackupSuffix) > NAME_MAX) {
        return "the name is too long for its backup";
    }
    if (places.backup.isThere && places.backup.isDirectory != places.file.isDirectory) {
        return places.backup.isDirectory ? "NAME.bak is a directory" : "NAME is a directory, NAME.bak is not";
    }
    const std::string& directory = list_.ListOf(entry).directory;
    if (faccessat(AT_FDCWD, directory.c_str(), W_OK | X_OK, AT_EACCESS) != 0) {
        return directory + ": " + std::strerror(errno);
    }
    return "";
}

void Planner::MakeDirectoryOf(const TargetList& list) {
    const std::string identity = std::filesystem::path(list.directory).lexically_normal();
    if (access(list.directory.c_str(), F_OK) == 0 || !madeDirectories_.insert(identity).second) return;
    Show(Step::kMakeDirectory, nullptr, list.directory, 0, "mode 0750 less the umask");
}

bool Planner::CopyEntry(std::size_t index) {
    const Entry& entry = list_.entries()[index];
    const std::string source = list_.SourceOf(entry);
    const Place file = LookAt(source);
    const std::string why = WhyCopyFails(entry, file);
    if (!why.empty()) return Fail(entry, list_.TargetOf(entry), why);

    TargetPlaces& places = places_[targetOf_[index]];
    if (places.file.isDirectory) return Fail(entry, list_.TargetOf(entry), "a directory stands there");
    Show(Step::kCopy, &entry, list_.TargetOf(entry), file.size,
         std::string("from Common/") + entry.text + (places.file.isThere ? ", overwriting it" : ""));
    places.file = file;
    return true;
}

std::string Planner::WhyCopyFails(const Entry& entry, const Place& file) const {
    if (!HasFileName(entry)) return "the entry has no file name";
    if (!file.isThere) return "the package lacks " + entry.text;
    if (file.isDirectory) return entry.text + " is a directory";
    const Descriptor source(open(list_.SourceOf(entry).c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (!source) return entry.text + ": " + std::strerror(errno);
    struct stat status {};
    if (fstat(source.get(), &status) == 0 && !S_ISREG(status.st_mode))
        return entry.text + " is a special file";
    const std::string existing = NearestExisting(list_.ListOf(entry).directory);
    if (!LookAt(existing).isDirectory) return existing + " is no directory";
    if (faccessat(AT_FDCWD, existing.c_str(), W_OK | X_OK, AT_EACCESS) != 0) {
        return existing + ": " + std::strerror(errno);
    }
    return "";
}

bool Planner::CleanEntry(std::size_t index) {
    const Entry& entry = list_.entries()[index];
    const std::string path = list_.BackupOf(entry);
    // An entry without a file name stands for a file that is called ".bak", or "..bak", or "...bak".
    Place backup = targetOf_[index] == kNoTarget ? LookAt(path) : places_[targetOf_[index]].backup;
    if (!backup.isThere) {
        Show(Step::kSkip, &entry, path, 0, "not there");
        return true;
    }
    if (backup.isDirectory) return Fail(entry, path, "a directory, which goes only if it is empty");
    Show(Step::kRemove, &entry, path, backup.size);
    if (targetOf_[index] != kNoTarget) places_[targetOf_[index]].backup = {};
    return true;
}

// Whether the entry's path, the directory itself, exists when the pass looks.
bool Planner::IsDirectoryThere(const Entry& entry) const {
    return access(list_.TargetOf(entry).c_str(), F_OK) == 0;
}

void Planner::Show(Step step, const Entry* entry, const std::string& path, unsigned long long size,
                   const std::string& detail) {
    const bool isFile = step == Step::kMove || step == Step::kCopy || step == Step::kRemove;
    if (isFile) {
        ++files_;
        bytes_ += size;
    }
    const StepName name = NameOf(step);
    output_.Item({{"pass", pass_},
                  {"step", step == Step::kFail ? "fail" : name.json},
                  {"path", path},
                  {"size", isFile ? Json(size) : Json(nullptr)},
                  {"detail", detail},
                  {"section", entry != nullptr ? list_.ListOf(*entry).section : ""},
                  {"key", entry != nullptr ? list_.KeyOf(*entry) : ""},
                  {"entry", entry != nullptr ? entry->text : ""}});
    output_.Line("  " + output_.Paint(name.style, Padded(name.json, 6)) + "  " +
                 RightAligned(isFile ? ShownSize(size) : "-", 10) + "  " + Shown(path) +
                 (detail.empty() ? "" : output_.Paint(Style::kDim, "  (" + Shown(detail) + ")")));
}

bool Planner::Fail(const Entry& entry, const std::string& path, const std::string& why) {
    Show(Step::kFail, &entry, path, 0, why);
    failure_ = why;
    return false;
}

}  // namespace

int Plan(const FileList& list, Output& output) {
    return Planner(list, output).Run();
}
