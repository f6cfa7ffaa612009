// The commands of the transaction. A state is on the disk before what it names begins.
#include "Transaction.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstring>
#include <exception>
#include <filesystem>
#include <functional>
#include <optional>
#include <vector>

#include "Check.h"
#include "CheckParts.h"
#include "FileList.h"
#include "Files.h"
#include "Install.h"
#include "Inventory.h"
#include "Journal.h"
#include "Pass.h"
#include "Signals.h"
#include "StateDirectory.h"
#include "TransactionReport.h"
#include "Undo.h"

namespace fs = std::filesystem;

namespace {

// What the steps of a command share.
struct Run {
    Run(const char* command, const TransactionOptions& options, Output& out)
        : directory(options.stateDirectory),
          isPartial(options.isPartial),
          output(out),
          report{command, options.stateDirectory} {}

    StateDirectory directory;
    bool isPartial;
    Output& output;
    TransactionReport report;
    Journal journal;
    State state;
    Signals signals;
};

int End(Run& run, int status, const std::string& message) {
    run.report.status = status;
    run.report.message = message;
    run.report.phase = run.state.phase;
    return Show(run.report, run.journal, run.output);
}

int Refuse(Run& run, int status, const std::string& error) {
    run.report.error = error;
    return End(run, status, "Nothing was changed.");
}

bool HasSeriousRemarks(const Run& run) {
    const std::vector<Remark>& remarks = run.report.remarks;
    return std::any_of(remarks.begin(), remarks.end(), [](const Remark& remark) { return remark.isSerious; });
}

// Returns the exit status when that can't be done. Another process at work is nothing to look at.
std::optional<int> EnterAndRead(Run& run) {
    if (const Trouble trouble = run.directory.Enter()) return Refuse(run, kFindings, *trouble);
    if (const Trouble trouble = run.directory.Read(run.state, run.journal))
        return Refuse(run, kLook, *trouble);
    return std::nullopt;
}

// The space that was there at the check may be somebody else's now.
Trouble ExpectSpace(const Journal& journal) {
    const PlannedFiles files;
    SpaceNeeds needs(files);
    for (const std::string& directory : journal.newDirectories) needs.Add(directory, 1);
    for (const JournalTarget& target : journal.targets) needs.Add(target.path, target.package.size);
    std::vector<Finding> shortages;
    needs.FindShortages(shortages);
    if (shortages.empty()) return std::nullopt;
    return shortages.front().path + ": " + shortages.front().detail;
}

// Errors that the upgrade does not prevent, and what would be no error in passes by hand: a backup that
// is in the way, and a lack of space.
bool IsAccepted(Run& run, const FileList& list, const Evidence& evidence) {
    // Of a package that nobody has signed no more is read.
    const std::vector<Finding>& refused = evidence.provenance.findings;
    for (const Finding& finding : refused.empty() ? FindTrouble(list, evidence, run.output) : refused) {
        const std::string code = finding.kind->code;
        const bool isError = finding.kind->IsError() && !finding.kind->isByHandOnly;
        if (!isError && code != "W-OLD-BACKUP" && code != "W-SPACE") continue;
        std::string place = finding.path;
        if (place.empty()) place.append(finding.section).append(" ").append(finding.key);
        std::string text = code;
        text.append(": ").append(finding.kind->title);
        if (!finding.detail.empty()) text.append(" (").append(finding.detail).append(")");
        run.report.remarks.push_back({place, text, true});
    }
    return run.report.remarks.empty();
}

// Returns the exit status when the upgrade is refused. The passes read what is kept; what is recorded comes
// from `list`.
std::optional<int> KeepList(Run& run, const FileList& list) {
    std::string text;
    const int error = ReadWhole(list.iniPath(), text);
    if (error != 0) return Refuse(run, kWrongUse, TroubleWith(list.iniPath(), error));
    run.journal.fileListDigest = DigestOf(text);
    Trouble trouble = run.directory.KeepList(text, list.sourceDirectory());
    if (!trouble && !list.HasContentsOf(run.directory.ListPath()))
        trouble = list.iniPath() + ": it has changed meanwhile";
    if (trouble) return Refuse(run, kFindings, *trouble);
    return std::nullopt;
}

// Fills the journal. What can't be recorded can't be taken back, and is not begun.
Trouble Record(Run& run, const FileList& list, const std::optional<Manifest>& manifest) {
    if (Trouble trouble = TakeInventory(list, manifest, run.output, run.journal)) return trouble;
    if (Trouble trouble = run.directory.KeepRescue(run.journal)) return trouble;
    Trouble trouble = run.directory.Begin(run.journal);
    if (trouble) (void)run.directory.Close();  // it may be half begun
    return trouble;
}

Trouble EndWanted(Run& run) {
    if (run.signals.IsEndWanted()) return "ended by a signal";
    return std::nullopt;
}

Trouble Enter(Run& run, const State& state) {
    if (Trouble trouble = run.directory.Write(state)) return trouble;
    run.state = state;
    return std::nullopt;
}

// How many bytes of the copies are there, as far as can be seen while -copy runs.
class CopyWatch {
public:
    CopyWatch(const Journal& journal, Output& output)
        : next_(journal.targets.begin()), end_(journal.targets.end()), output_(output) {
        for (const JournalTarget& target : journal.targets) total_ += target.package.size;
    }

    void Look() {
        off_t unfinished = 0;
        for (; next_ != end_; ++next_) {
            const JournalTarget& target = *next_;
            struct stat status {};
            if (stat(target.path.c_str(), &status) != 0) break;
            unfinished = status.st_size;
            if (unfinished < target.package.size) break;
            done_ += target.package.size;
            unfinished = 0;
        }
        const off_t copied = done_ + unfinished;
        output_.ProgressOfBytes("-copy", static_cast<unsigned long long>(copied),
                                static_cast<unsigned long long>(total_));
    }

private:
    JournalTargets::Iterator next_;
    const JournalTargets::Iterator end_;
    Output& output_;
    off_t done_ = 0;
    off_t total_ = 0;
};

// The passes have lists of their own, and do without the journal.
Trouble Pass(Run& run, const char* pass, const std::function<void()>& watch) {
    return RunPass(pass, run.directory.ListPath(), run.signals, watch,
                   [&run] { run.journal.targets = JournalTargets(); });
}

Trouble Rename(Run& run) {
    if (Trouble trouble = Pass(run, "-rename", [] {})) return trouble;
    if (!SyncDirectories(run.journal, run.report.remarks)) return "the renamed files are not on the disk";
    return std::nullopt;
}

Trouble Copy(Run& run) {
    CopyWatch watch(run.journal, run.output);
    return Pass(run, "-copy", [&watch] { watch.Look(); });
}

Trouble InstallAll(Run& run) {
    std::vector<Stamp> stamps;
    stamps.reserve(run.journal.targets.size());
    for (const JournalTarget& target : run.journal.targets) {
        run.output.Progress("install", stamps.size(), run.journal.targets.size());
        if (Trouble trouble = EndWanted(run)) return trouble;
        if (Trouble trouble = Install(target, stamps.emplace_back())) return trouble;
    }
    if (Trouble trouble = InstallDirectories(run.journal)) return trouble;
    if (!SyncDirectories(run.journal, run.report.remarks)) return "the new files are not on the disk";
    if (!IsInstalled(run.journal, stamps, run.report.remarks)) return "another process has changed files";
    return std::nullopt;
}

void ShowStep(Run& run, const char* step) {
    run.output.Line(run.output.Paint(Style::kDim, std::string("  ") + step));
}

Trouble RunSteps(Run& run) {
    if (Trouble trouble = Rename(run)) return trouble;
    if (Trouble trouble = ExpectSpace(run.journal)) return trouble;
    // The last look before -copy, which writes over whatever stands at NAME.
    if (!IsRenamed(run.journal, run.report.remarks)) return "another process has changed files";
    ShowStep(run, "the installed files are renamed to NAME.bak");
    if (Trouble trouble = Enter(run, {Phase::kCopying})) return trouble;
    if (Trouble trouble = Copy(run)) return trouble;
    ShowStep(run, "the new files are copied");
    if (Trouble trouble = InstallAll(run)) return trouble;
    ShowStep(run, "they have their modes, owners and attributes, are verified and on the disk");
    if (Trouble trouble = EndWanted(run)) return trouble;
    return Enter(run, {Phase::kInstalled});
}

// What runs out of memory in the middle is taken back like any other failure.
Trouble RunStepsSafely(Run& run) {
    try {
        return RunSteps(run);
    } catch (const std::exception& error) {
        return error.what();
    }
}

// True when the disk says that the way back has begun, or anything else from which only the way back leads
// on.
bool CanGoBack(Run& run, Phase undone) {
    const Trouble trouble = Enter(run, {Phase::kUndoing, undone});
    if (!trouble) return true;
    run.report.remarks.push_back({run.directory.path(), *trouble, true});
    State written;
    Journal ignored;
    if (run.directory.Read(written, ignored)) return false;
    return written.phase == Phase::kRenaming || written.phase == Phase::kCopying ||
           written.phase == Phase::kUndoing;
}

// What runs out of memory here is left for another try.
bool UndoSafely(Run& run, Phase undone) {
    try {
        return Undo(run.journal, undone, run.report.remarks);
    } catch (const std::exception& error) {
        run.report.error = error.what();
        return false;
    }
}

int GoBack(Run& run, int statusWhenDone) {
    const Phase undone = run.state.phase == Phase::kUndoing ? run.state.undone : run.state.phase;
    if (!CanGoBack(run, undone))
        return End(run, kLook, "The state can't be written: nothing was taken back yet.");
    bool isDone = UndoSafely(run, undone) || run.isPartial;
    if (isDone) {
        if (const Trouble trouble = run.directory.Close()) {
            run.report.remarks.push_back({run.directory.path(), *trouble, true});
            isDone = false;
        }
    }
    if (!isDone) return End(run, kLook, "The old files are not all back. Remove the cause, and resume.");
    run.state = {};
    if (HasSeriousRemarks(run)) {
        return End(run, kLook,
                   "The old files are back, but for those named above. Nothing is open any more.");
    }
    return End(run, statusWhenDone, "The old files are back.");
}

// Whether nothing but what -rename has moved stands where -clean will remove it.
bool AreBackupsOursAlone(Run& run) {
    return AreDirectoriesOurs(run.journal, run.report.remarks) &&
           AreBackupsOurs(run.journal, run.report.remarks);
}

// What was installed is written down before the journal, which knows it, goes.
Trouble CloseCommitted(Run& run) {
    Receipt receipt;
    if (Trouble trouble = run.directory.ReadReceipt(receipt)) return trouble;
    Add(run.journal, receipt);
    if (Trouble trouble = run.directory.WriteReceipt(receipt)) return trouble;
    return run.directory.Close();
}

// Removes the backups; to be repeated until it succeeds.
int Clean(Run& run) {
    if (!AreBackupsOursAlone(run)) {
        return End(run, kLook, "Backups are left. Move what is named out of the way, and commit again.");
    }
    const Trouble trouble = Pass(run, "-clean", [] {});
    // The pass may have been cut off, and needs the file list: what it leaves goes all the same.
    const bool isClean = RemoveBackups(run.journal, run.report.remarks);
    if (trouble) run.report.remarks.push_back({run.journal.fileList, *trouble, false});
    if (!isClean || !SyncDirectories(run.journal, run.report.remarks)) {
        return End(run, kLook, "The new files are in place, but some backups are not removed. Commit again.");
    }
    if (const Trouble closing = CloseCommitted(run)) {
        run.report.remarks.push_back({run.directory.path(), *closing, true});
        return End(run, kLook, "The backups are removed, but the upgrade can't be closed. Commit again.");
    }
    run.state = {};
    return End(run, kFine, "The new files are in place, and the backups are removed.");
}

// What runs out of memory here is left for another try.
int CleanSafely(Run& run) {
    try {
        return Clean(run);
    } catch (const std::exception& error) {
        run.report.error = error.what();
        return End(run, kLook, "The new files are in place, but the upgrade is not closed. Commit again.");
    }
}

// Checks and records. Returns the exit status when the upgrade is refused.
std::optional<int> Prepare(Run& run, const std::string& iniPath, const std::string& trustedDirectory) {
    Evidence evidence{ReadProvenance(iniPath, trustedDirectory), {}, false};
    if (const Trouble trouble = run.directory.ReadReceipt(evidence.receipt))
        return Refuse(run, kLook, *trouble);
    const FileList list(iniPath);
    if (list.trouble()) return Refuse(run, kWrongUse, iniPath + ": " + *list.trouble());
    if (list.lists().empty()) {
        return Refuse(run, kWrongUse, "no install type with a directory list; vfilelist check says more");
    }
    if (!IsAccepted(run, list, evidence))
        return Refuse(run, kFindings, "vfilelist check says what to do about these");
    if (const std::optional<int> refused = KeepList(run, list)) return refused;
    if (const Trouble trouble = Record(run, list, evidence.provenance.manifest))
        return Refuse(run, kFindings, *trouble);
    return std::nullopt;
}

}  // namespace

int Upgrade(const TransactionOptions& options, Output& output) {
    Run run("upgrade", options, output);
    if (const Trouble trouble = FileList::WhyUnreadable(options.iniPath))
        return Refuse(run, kWrongUse, options.iniPath + ": " + *trouble);
    const std::optional<std::string> iniPath = CanonicalPath(options.iniPath);
    if (!iniPath) return Refuse(run, kWrongUse, TroubleWith(options.iniPath, errno));

    if (const std::optional<int> refused = EnterAndRead(run)) return *refused;
    if (run.state.phase != Phase::kNone) return Refuse(run, kFindings, "an upgrade is open already");
    if (const std::optional<int> refused = Prepare(run, *iniPath, options.trustedDirectory)) return *refused;
    run.state.phase = Phase::kRenaming;
    if (const Trouble trouble = RunStepsSafely(run)) {
        run.report.error = *trouble;
        return GoBack(run, kFindings);
    }
    return End(run, kFine, "The new files are in place. The old ones are kept as NAME.bak until you decide.");
}

int Commit(const TransactionOptions& options, Output& output) {
    Run run("commit", options, output);
    if (const std::optional<int> refused = EnterAndRead(run)) return *refused;
    if (run.state.phase == Phase::kCleaning) return CleanSafely(run);
    if (run.state.phase != Phase::kInstalled) {
        return Refuse(run, kFindings,
                      run.state.phase == Phase::kNone ? "no upgrade is open" : "the upgrade is not complete");
    }
    Receipt receipt;
    if (const Trouble trouble = run.directory.ReadReceipt(receipt)) return Refuse(run, kLook, *trouble);
    if (!AreBackupsOursAlone(run)) {
        return Refuse(run, kLook, "not all backups are those of the upgrade");
    }
    if (const Trouble trouble = Enter(run, {Phase::kCleaning})) return Refuse(run, kFindings, *trouble);
    return CleanSafely(run);
}

int Resume(const TransactionOptions& options, Output& output) {
    Run run("resume", options, output);
    if (const std::optional<int> refused = EnterAndRead(run)) return *refused;
    switch (run.state.phase) {
        case Phase::kNone:
            return End(run, kFine, "No upgrade is open.");
        case Phase::kInstalled:
            return End(run, kFine, "The new files are in place: keep them or go back.");
        case Phase::kCleaning:
            return CleanSafely(run);
        default:
            return GoBack(run, kFine);
    }
}

int ShowStatus(const TransactionOptions& options, Output& output) {
    Run run("status", options, output);
    if (const Trouble trouble = run.directory.Read(run.state, run.journal))
        return Refuse(run, kLook, *trouble);
    run.report.isAtWork = run.directory.IsOccupied();
    Receipt receipt;
    if (const Trouble trouble = run.directory.ReadReceipt(receipt)) return Refuse(run, kLook, *trouble);
    run.report.history = std::move(receipt.history);
    const bool isOpen = run.state.phase != Phase::kNone;
    return End(run, isOpen ? kFindings : kFine, isOpen ? "An upgrade is open." : "No upgrade is open.");
}

int RollbackTransaction(const TransactionOptions& options, Output& output, bool& isOpen) {
    Run run("rollback", options, output);
    isOpen = true;
    if (const Trouble trouble = run.directory.Read(run.state, run.journal))
        return Refuse(run, kLook, *trouble);
    isOpen = run.state.phase != Phase::kNone;
    if (!isOpen) return kFine;
    if (options.isByHand) {
        return Refuse(run, kFindings,
                      "an upgrade is open: --dry-run and --only-modes are for passes by hand");
    }
    if (const std::optional<int> refused = EnterAndRead(run)) return *refused;
    if (run.state.phase == Phase::kNone)
        return Refuse(run, kFindings, "another process has closed the upgrade");
    if (!options.iniPath.empty() &&
        CanonicalPath(options.iniPath).value_or(options.iniPath) != run.journal.fileList) {
        return Refuse(run, kFindings, "the open upgrade is that of " + run.journal.fileList);
    }
    if (run.state.phase == Phase::kCleaning) {
        return Refuse(run, kFindings, "backups are being removed already: only commit leads on");
    }
    return GoBack(run, kFine);
}
