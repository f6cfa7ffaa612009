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
#include "PlannedFiles.h"
#include "Processes.h"
#include "VCopyFileListIni.h"

namespace {

enum class Step { kMove, kSkip, kMakeDirectory, kCopy, kRemove, kFail };

struct PlannedStep {
    Step step;
    std::string path;
    std::string detail;
    unsigned long long size = 0;  // of a file that is moved, copied or removed
    bool isHarmful = false;       // it succeeds, but something is lost by it, or the next pass fails
    FileId moved{};               // the file behind what -rename moves
};

// What a pass does for an entry, noted in `files`.
using PassOverEntry = PlannedStep (*)(const FileList& list, const Entry& entry, PlannedFiles& files);

struct StepName {
    const char* json;
    Style style;
};

StepName NameOf(Step step) {
    constexpr StepName kNames[] = {{"rename", Style::kPlain}, {"skip", Style::kDim},
                                   {"mkdir", Style::kPlain},  {"copy", Style::kPlain},
                                   {"remove", Style::kPlain}, {"fail", Style::kError}};
    return kNames[static_cast<int>(step)];
}

// One that the tool makes gets files.
bool IsEmptyDirectory(const PlannedFile& directory) {
    std::error_code error;
    return !directory.origin.empty() && std::filesystem::is_empty(directory.origin, error);
}

Trouble WhyNotWritable(const std::string& directory) {
    if (faccessat(AT_FDCWD, directory.c_str(), W_OK | X_OK, AT_EACCESS) == 0) return std::nullopt;
    return TroubleWith(directory, errno);
}

Trouble WhyRenameFails(const FileList& list, const Entry& entry, const PlannedFiles& files) {
    if (!HasFileName(entry)) return "a directory can't be moved into itself";
    if (GetFileName(entry.text).size() + std::strlen(kBackupSuffix) > NAME_MAX) {
        return "the name is too long for its backup";
    }
    const PlannedFile backup = files.At(list.BackupOf(entry));
    const bool isDirectory = files.At(list.TargetOf(entry)).kind == FileKind::kDirectory;
    if (backup.kind == FileKind::kDirectory && !isDirectory) return "NAME.bak is a directory";
    if (backup.kind == FileKind::kDirectory && !IsEmptyDirectory(backup)) {
        return "NAME.bak is a directory that is not empty";
    }
    if (isDirectory && backup.kind != FileKind::kNone && backup.kind != FileKind::kDirectory) {
        return "NAME is a directory, NAME.bak is not";
    }
    const FileMarks marks = MarksOf(files.At(list.TargetOf(entry)).origin);
    if (*marks.lock != '\0') return std::string("it is ") + marks.lock;
    if (marks.isMountPoint) return "it is a mount point";
    const std::string place = files.NearestPlace(list.ListOf(entry).directory);
    const std::string lock = MarksOf(place + "/").lock;
    if (!lock.empty()) return place + " is " + lock;
    return WhyNotWritable(place);
}

PlannedStep RenameEntry(const FileList& list, const Entry& entry, PlannedFiles& files) {
    const std::string path = list.TargetOf(entry);
    const PlannedFile behind = files.Behind(path);
    if (behind.kind == FileKind::kNone) return {Step::kSkip, path, "not there"};
    if (const Trouble trouble = WhyRenameFails(list, entry, files)) return {Step::kFail, path, *trouble};

    const PlannedFile file = files.At(path);
    const PlannedFile backup = files.At(list.BackupOf(entry));
    if (backup.kind != FileKind::kNone && IsSameFile(backup.status, file.status)) {
        return {Step::kSkip, path, "NAME.bak is the same file: nothing happens"};
    }
    files.Move(path, list.BackupOf(entry));
    PlannedStep step{Step::kMove, path, "to NAME.bak", behind.size(), false, IdOf(behind.status)};
    if (backup.kind == FileKind::kNone) return step;
    const bool isItself = behind.origin == backup.origin;
    step.isHarmful = isItself || IsUpgradeBegun(behind.origin, backup.origin, list.SourceOf(entry));
    step.detail += isItself         ? ", replacing the file that it leads to: it is lost"
                   : step.isHarmful ? ", replacing the backup of an unfinished upgrade: it is lost"
                                    : ", replacing an older one";
    return step;
}

Trouble WhySourceFails(const Entry& entry, const PlannedFile& file) {
    if (file.kind == FileKind::kNone) return "the package lacks " + entry.text;
    if (file.kind == FileKind::kDirectory) return entry.text + " is a directory";
    if (file.kind == FileKind::kOther) return entry.text + " is a special file";
    if (file.origin.empty()) return std::nullopt;  // an earlier step has made it
    const Descriptor source(open(file.origin.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (!source) return TroubleWith(entry.text, errno);
    return std::nullopt;
}

Trouble WhyCopyFails(const FileList& list, const Entry& entry, const PlannedFiles& files) {
    if (!HasFileName(entry)) return "the entry has no file name";
    const std::string& directory = list.ListOf(entry).directory;
    const std::string path = list.TargetOf(entry);
    if (Trouble trouble = WhySourceFails(entry, files.Behind(list.SourceOf(entry)))) return trouble;
    if (Trouble trouble = WhyNoDirectory(files, directory)) return trouble;
    if (Trouble trouble = WhyNotWritable(files.NearestPlace(directory))) return trouble;
    if (!files.EndOf(path)) return "a link that can't be followed stands there";
    if (files.Behind(path).kind == FileKind::kDirectory) return "a directory stands there";
    return std::nullopt;
}

PlannedStep CopyEntry(const FileList& list, const Entry& entry, PlannedFiles& files) {
    const std::string path = list.TargetOf(entry);
    if (const Trouble trouble = WhyCopyFails(list, entry, files)) return {Step::kFail, path, *trouble};

    const std::string source = list.SourceOf(entry);
    const bool isOntoItself = files.EndOf(source) == files.EndOf(path);
    const unsigned long long size = isOntoItself ? 0 : files.Behind(source).size();
    const char* const how = isOntoItself                                 ? ", onto itself: it will be empty"
                            : files.Behind(path).kind != FileKind::kNone ? ", overwriting it"
                                                                         : "";
    files.Write(path, size);
    return {Step::kCopy, path, "from Common/" + entry.text + how, size, isOntoItself};
}

PlannedStep CleanEntry(const FileList& list, const Entry& entry, PlannedFiles& files) {
    // An entry without a file name stands for a file that is called ".bak", or "..bak", or "...bak".
    const std::string path = list.BackupOf(entry);
    const PlannedFile behind = files.Behind(path);
    if (behind.kind == FileKind::kNone) return {Step::kSkip, path, "not there"};
    const PlannedFile backup = files.At(path);
    if (backup.kind == FileKind::kDirectory && !IsEmptyDirectory(backup)) {
        return {Step::kFail, path, "a directory, which goes only if it is empty"};
    }
    files.Remove(path);
    return {Step::kRemove, path, "", behind.size()};
}

class Planner {
public:
    Planner(const FileList& list, Output& output) : list_(list), output_(output) {
        struct stat status {};
        if (stat(list.iniPath().c_str(), &status) == 0) needed_.insert(IdOf(status));
    }

    int Run();

private:
    void RunPass(const char* pass, PassOverEntry handle);
    void EndPass(const char* pass, bool isReached);
    void MakeDirectoryOf(const TargetList& list);
    void ShowSkippedKeys(const std::vector<FileList::SkippedKey>& skippedKeys);
    void Show(const PlannedStep& step, const Entry* entry);

    const FileList& list_;
    Output& output_;
    PlannedFiles files_;
    std::set<FileId> needed_ = FilesOfTheTool();  // and the list, by every pass
    const char* pass_ = "";
    std::size_t count_ = 0;  // of files in the pass in hand
    unsigned long long bytes_ = 0;
    bool hasFailed_ = false;
    bool isHarmful_ = false;
    Json passes_;
};

int Planner::Run() {
    output_.Member("command", "plan");
    output_.Member("fileList", list_.iniPath());
    output_.Member("installType", list_.installType());
    output_.Line(output_.Paint(Style::kBold, Shown(list_.iniPath())) + "  install type " +
                 Shown(list_.installType()));

    output_.BeginList("steps");
    RunPass("-rename", RenameEntry);
    RunPass("-copy", CopyEntry);
    RunPass("-clean", CleanEntry);
    output_.EndList();

    const std::vector<FileList::SkippedKey> skippedKeys = list_.SkippedKeys();
    ShowSkippedKeys(skippedKeys);
    output_.Member("passes", passes_);
    return hasFailed_ || isHarmful_ || !skippedKeys.empty() ? kFindings : kFine;
}

// Stops at the first entry that fails; the passes behind it are not reached.
void Planner::RunPass(const char* pass, PassOverEntry handle) {
    pass_ = pass;
    count_ = 0;
    bytes_ = 0;
    output_.Line();
    output_.Line(output_.Paint(Style::kBold, pass));
    const bool isReached = !hasFailed_;
    std::size_t index = 0;
    for (std::size_t list = 0; list < list_.lists().size() && !hasFailed_; ++list) {
        if (handle == CopyEntry) MakeDirectoryOf(list_.lists()[list]);
        while (index < list_.entries().size() && list_.entries()[index].list == list && !hasFailed_) {
            const Entry& entry = list_.entries()[index++];
            PlannedStep step = handle(list_, entry, files_);
            if (needed_.count(step.moved) != 0) {
                step.detail += "; the next pass needs it, and fails";
                step.isHarmful = true;
            }
            Show(step, &entry);
        }
    }
    EndPass(pass, isReached);
}

void Planner::EndPass(const char* pass, bool isReached) {
    passes_[std::string(pass).substr(1)] = {
        {"reached", isReached}, {"succeeds", !hasFailed_}, {"files", count_}, {"bytes", bytes_}};
    if (!isReached) {
        output_.Line("  not reached");
    } else if (!hasFailed_) {
        output_.Line(output_.Paint(Style::kDim, "  " + Counted(count_, "file") + ", " + ShownSize(bytes_)));
    } else {
        output_.Line(output_.Paint(Style::kError, "  stops here, exit status 240"));
    }
}

void Planner::MakeDirectoryOf(const TargetList& list) {
    if (files_.MakeDirectory(list.directory).empty()) return;
    Show({Step::kMakeDirectory, list.directory, "mode 0750 minus the umask"}, nullptr);
}

void Planner::ShowSkippedKeys(const std::vector<FileList::SkippedKey>& skippedKeys) {
    output_.BeginList("skippedKeys");
    if (!skippedKeys.empty()) output_.Line();
    for (const auto& [section, key] : skippedKeys) {
        output_.Item({{"section", section}, {"key", key.name}, {"bytes", key.valueLength}});
        output_.Line(output_.Paint(Style::kError, "Every pass skips [" + Shown(section) + "] " +
                                                      Shown(key.name) + ": a value of " +
                                                      std::to_string(key.valueLength) + " bytes."));
    }
    output_.EndList();
}

void Planner::Show(const PlannedStep& step, const Entry* entry) {
    const bool isFile = step.step == Step::kMove || step.step == Step::kCopy || step.step == Step::kRemove;
    if (isFile) ++count_;
    bytes_ += step.size;
    hasFailed_ = step.step == Step::kFail;
    isHarmful_ = isHarmful_ || step.isHarmful;
    const StepName name = NameOf(step.step);
    output_.Item({{"pass", pass_},
                  {"step", name.json},
                  {"path", step.path},
                  {"size", isFile ? Json(step.size) : Json(nullptr)},
                  {"detail", step.detail},
                  {"section", entry != nullptr ? list_.ListOf(*entry).section : ""},
                  {"key", entry != nullptr ? list_.KeyOf(*entry) : ""},
                  {"entry", entry != nullptr ? entry->text : ""}});
    const std::string shownName = hasFailed_ ? "FAIL" : name.json;
    const Style detailStyle = step.isHarmful ? Style::kError : Style::kDim;
    output_.Line("  " + output_.Paint(name.style, Padded(shownName, 6)) + "  " +
                 RightAligned(isFile ? ShownSize(step.size) : "-", 10) + "  " + Shown(step.path) +
                 (step.detail.empty() ? "" : output_.Paint(detailStyle, "  (" + Shown(step.detail) + ")")));
}

}  // namespace

int Plan(const FileList& list, Output& output) {
    return Planner(list, output).Run();
}
