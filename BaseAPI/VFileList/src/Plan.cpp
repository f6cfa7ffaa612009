// Goes through the passes in the upgrade tool's order without doing anything, one pass building on what the
// one before it would have left behind.
#include "Plan.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <filesystem>
#include <vector>

#include "Files.h"
#include "PlannedFiles.h"
#include "VCopyFileListIni.h"

namespace {

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

// One that the tool makes gets files.
bool IsEmptyDirectory(const PlannedFile& directory) {
    std::error_code error;
    return !directory.origin.empty() && std::filesystem::is_empty(directory.origin, error);
}

class Planner {
public:
    Planner(const FileList& list, Output& output) : list_(list), output_(output) {}

    int Run();

private:
    void RunPass(const char* pass, bool (Planner::*handle)(std::size_t));
    void EndPass(const char* pass, bool isReached);
    bool RenameEntry(std::size_t index);
    bool CopyEntry(std::size_t index);
    bool CleanEntry(std::size_t index);
    void MakeDirectoryOf(const TargetList& list);

    std::string WhyRenameFails(const Entry& entry) const;
    std::string WhyMoveFails(const PlannedFile& file, const PlannedFile& backup) const;
    std::string WhyCopyFails(const Entry& entry) const;
    std::string WhySourceFails(const Entry& entry) const;
    std::string WhyDirectoryFails(const std::string& directory) const;
    std::string WhyWriteFails(const std::string& path) const;
    bool IsThere(const std::string& path) const { return files_.Behind(path).kind != FileKind::kNone; }

    void Show(Step step, const Entry* entry, const std::string& path, unsigned long long size,
              const std::string& detail = "");
    bool Fail(const Entry& entry, const std::string& path, const std::string& why);

    const FileList& list_;
    Output& output_;
    PlannedFiles files_;
    const char* pass_ = "";
    std::size_t count_ = 0;  // of files in the pass in hand
    unsigned long long bytes_ = 0;
    std::string failure_;
    Json passes_;
};

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
    count_ = 0;
    bytes_ = 0;
    output_.Line();
    output_.Line(output_.Paint(Style::kBold, pass));
    const bool isReached = failure_.empty();
    std::size_t index = 0;
    for (std::size_t list = 0; list < list_.lists().size() && failure_.empty(); ++list) {
        if (handle == &Planner::CopyEntry) MakeDirectoryOf(list_.lists()[list]);
        while (index < list_.entries().size() && list_.entries()[index].list == list &&
               (this->*handle)(index)) {
            ++index;
        }
    }
    EndPass(pass, isReached);
}

void Planner::EndPass(const char* pass, bool isReached) {
    passes_[std::string(pass).substr(1)] = {
        {"reached", isReached}, {"succeeds", failure_.empty()}, {"files", count_}, {"bytes", bytes_}};
    if (!isReached) {
        output_.Line("  not reached");
    } else if (failure_.empty()) {
        output_.Line(output_.Paint(Style::kDim, "  " + Counted(count_, "file") + ", " + ShownSize(bytes_)));
    } else {
        output_.Line(output_.Paint(Style::kError, "  stops here, exit status 240"));
    }
}

bool Planner::RenameEntry(std::size_t index) {
    const Entry& entry = list_.entries()[index];
    const std::string path = list_.TargetOf(entry);
    const std::string backupPath = list_.BackupOf(entry);
    // As access(): a link that points nowhere is not there.
    const PlannedFile behind = files_.Behind(path);
    if (behind.kind == FileKind::kNone || behind.kind == FileKind::kLink) {
        Show(Step::kSkip, &entry, path, 0, "not there");
        return true;
    }
    if (!HasFileName(entry)) return Fail(entry, path, "a directory can't be moved into itself");
    const std::string why = WhyRenameFails(entry);
    if (!why.empty()) return Fail(entry, path, why);

    const PlannedFile backup = files_.At(backupPath);
    if (backup.kind != FileKind::kNone && backup.id == files_.At(path).id) {
        Show(Step::kSkip, &entry, path, 0, "NAME.bak is the same file: nothing happens");
        return true;
    }
    Show(Step::kMove, &entry, path, behind.size,
         backup.kind != FileKind::kNone ? "to NAME.bak, replacing an older one" : "to NAME.bak");
    files_.Move(path, backupPath);
    return true;
}

std::string Planner::WhyRenameFails(const Entry& entry) const {
    if (GetFileName(entry.text).size() + std::strlen(kBackupSuffix) > NAME_MAX) {
        return "the name is too long for its backup";
    }
    std::string why = WhyMoveFails(files_.At(list_.TargetOf(entry)), files_.At(list_.BackupOf(entry)));
    if (!why.empty()) return why;
    const std::string& directory = list_.ListOf(entry).directory;
    if (faccessat(AT_FDCWD, directory.c_str(), W_OK | X_OK, AT_EACCESS) != 0) {
        return directory + ": " + std::strerror(errno);
    }
    return "";
}

std::string Planner::WhyMoveFails(const PlannedFile& file, const PlannedFile& backup) const {
    const bool isDirectory = file.kind == FileKind::kDirectory;
    if (backup.kind == FileKind::kDirectory) {
        if (!isDirectory) return "NAME.bak is a directory";
        return IsEmptyDirectory(backup) ? "" : "NAME.bak is a directory that is not empty";
    }
    return isDirectory && backup.kind != FileKind::kNone ? "NAME is a directory, NAME.bak is not" : "";
}

void Planner::MakeDirectoryOf(const TargetList& list) {
    if (IsThere(list.directory) || !WhyNoDirectory(list.directory).empty()) return;
    Show(Step::kMakeDirectory, nullptr, list.directory, 0, "mode 0750 less the umask");
    files_.MakeDirectory(list.directory);
}

bool Planner::CopyEntry(std::size_t index) {
    const Entry& entry = list_.entries()[index];
    const std::string path = list_.TargetOf(entry);
    const std::string why = WhyCopyFails(entry);
    if (!why.empty()) return Fail(entry, path, why);

    const std::string source = list_.SourceOf(entry);
    const bool isOntoItself = files_.IsSameName(files_.EndOf(source), files_.EndOf(path));
    const unsigned long long size = files_.Behind(source).size;
    Show(Step::kCopy, &entry, path, isOntoItself ? 0 : size,
         std::string("from Common/") + entry.text +
             (isOntoItself    ? ", onto itself: it will be empty"
              : IsThere(path) ? ", overwriting it"
                              : ""));
    files_.Write(path, isOntoItself ? 0 : size);
    return true;
}

std::string Planner::WhyCopyFails(const Entry& entry) const {
    if (!HasFileName(entry)) return "the entry has no file name";
    std::string why = WhySourceFails(entry);
    if (why.empty()) why = WhyDirectoryFails(list_.ListOf(entry).directory);
    return why.empty() ? WhyWriteFails(list_.TargetOf(entry)) : why;
}

std::string Planner::WhySourceFails(const Entry& entry) const {
    const PlannedFile file = files_.Behind(list_.SourceOf(entry));
    if (file.kind == FileKind::kNone || file.kind == FileKind::kLink)
        return "the package lacks " + entry.text;
    if (file.kind == FileKind::kDirectory) return entry.text + " is a directory";
    if (file.kind == FileKind::kOther) return entry.text + " is a special file";
    if (file.origin.empty()) return "";  // an earlier step has made it
    const Descriptor source(open(file.origin.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    return source ? "" : entry.text + ": " + std::strerror(errno);
}

std::string Planner::WhyDirectoryFails(const std::string& directory) const {
    std::string why = WhyNoDirectory(directory);
    if (!why.empty()) return why;
    const std::string existing = NearestExisting(directory);
    if (faccessat(AT_FDCWD, existing.c_str(), W_OK | X_OK, AT_EACCESS) != 0) {
        return existing + ": " + std::strerror(errno);
    }
    return "";
}

std::string Planner::WhyWriteFails(const std::string& path) const {
    const std::string end = files_.EndOf(path);
    switch (files_.At(end).kind) {
        case FileKind::kDirectory:
            return "a directory stands there";
        case FileKind::kLink:
            return "a link that leads in a circle stands there";
        case FileKind::kNone:
            return IsThere(std::filesystem::path(end).parent_path()) ? ""
                                                                     : "a link into nothing stands there";
        case FileKind::kFile:
        case FileKind::kOther:
            break;
    }
    return "";
}

bool Planner::CleanEntry(std::size_t index) {
    const Entry& entry = list_.entries()[index];
    // An entry without a file name stands for a file that is called ".bak", or "..bak", or "...bak".
    const std::string path = list_.BackupOf(entry);
    const PlannedFile behind = files_.Behind(path);
    if (behind.kind == FileKind::kNone || behind.kind == FileKind::kLink) {
        Show(Step::kSkip, &entry, path, 0, "not there");
        return true;
    }
    const PlannedFile backup = files_.At(path);
    if (backup.kind == FileKind::kDirectory && !IsEmptyDirectory(backup)) {
        return Fail(entry, path, "a directory, which goes only if it is empty");
    }
    Show(Step::kRemove, &entry, path, behind.size);
    files_.Remove(path);
    return true;
}

void Planner::Show(Step step, const Entry* entry, const std::string& path, unsigned long long size,
                   const std::string& detail) {
    const bool isFile = step == Step::kMove || step == Step::kCopy || step == Step::kRemove;
    if (isFile) {
        ++count_;
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
