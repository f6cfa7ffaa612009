// Compares the installed files with the package's, and tells which pass is complete.
#include "Verify.h"

#include <map>
#include <vector>

#include "Passes.h"
#include "TargetFacts.h"
#include "VCopyFileListIni.h"

namespace {

const char* NameOf(PassState state) {
    switch (state) {
        case PassState::kComplete:
            return "complete";
        case PassState::kIncomplete:
            return "incomplete";
        case PassState::kUnknown:
            break;
    }
    return "unknown";
}

Style StyleOf(TargetState state) {
    switch (state) {
        case TargetState::kNew:
            return Style::kGood;
        case TargetState::kPartial:
        case TargetState::kUnknown:
            return Style::kError;
        case TargetState::kOld:
        case TargetState::kMissing:
            break;
    }
    return Style::kPlain;
}

// There is a file whose mode and size are known.
bool IsThere(const TargetFacts& facts) {
    return facts.state != TargetState::kMissing && facts.isOccupied;
}

const char* BackupColumn(const TargetFacts& facts) {
    if (facts.backupDoubt == BackupDoubt::kUnreadable) return "?";
    return facts.hasBackup ? "yes" : "-";
}

std::string Details(const TargetFacts& facts) {
    std::string details = facts.detail;
    if (facts.IsOwnerDifferent()) {
        if (!details.empty()) details += ", ";
        details += "owner " + ShownOwner(facts.status) + ", was " + ShownOwner(facts.reference);
    }
    return details.empty() ? "" : "  (" + Shown(details) + ")";
}

class Verifier {
public:
    Verifier(const FileList& list, const VerifyOptions& options, Output& output)
        : list_(list), options_(options), output_(output) {}

    int Run();

private:
    void ShowHead();
    void ShowTarget(const Target& target, const TargetFacts& facts);
    void Count(const TargetFacts& facts);
    void ReportProblems();
    bool IsExpectedState(const PassesReport& passes) const;
    bool HasProblems() const;
    void ShowSummary(const PassesReport& passes, bool isExpected);
    void ShowPasses(const PassesReport& passes);
    Json ToJson(const Target& target, const TargetFacts& facts) const;
    Json SummaryToJson(const PassesReport& passes, bool isExpected) const;

    const FileList& list_;
    const VerifyOptions& options_;
    Output& output_;
    std::vector<TargetObservation> observations_;
    std::map<TargetState, std::size_t> counts_;
    std::size_t backups_ = 0;
    std::size_t unknownBackups_ = 0;
    std::size_t differentModes_ = 0;
    std::size_t lackingSources_ = 0;
    std::size_t problems_ = 0;
};

int Verifier::Run() {
    ShowHead();
    const std::vector<Target> targets = list_.Targets();
    TargetExaminer examiner(list_);
    output_.BeginList("targets");
    for (const Target& target : targets) {
        output_.Progress("verify", observations_.size(), targets.size());
        const TargetFacts facts = examiner.Examine(target);
        Count(facts);
        ShowTarget(target, facts);
    }
    output_.EndList();
    ReportProblems();

    const PassesReport passes = JudgePasses(observations_);
    const bool isExpected = IsExpectedState(passes) && !HasProblems();
    ShowSummary(passes, isExpected);
    return isExpected ? kFine : kFindings;
}

void Verifier::ShowHead() {
    output_.Member("command", "verify");
    output_.Member("fileList", list_.iniPath());
    output_.Member("installType", list_.installType());
    output_.Line(output_.Paint(Style::kBold, Shown(list_.iniPath())) + "  install type " +
                 Shown(list_.installType()));
    output_.Line();
    output_.Line(output_.Paint(Style::kDim, "STATE    BACKUP  MODE  WAS         SIZE  FILE"));
}

void Verifier::ShowTarget(const Target& target, const TargetFacts& facts) {
    if (output_.isJson()) {
        output_.Item(ToJson(target, facts));
        return;
    }
    const std::string mode = IsThere(facts) ? ShownMode(facts.status.st_mode) : "-";
    const std::string was = facts.hasReference ? ShownMode(facts.reference.st_mode) : "-";
    const std::string size =
        IsThere(facts) ? ShownSize(static_cast<unsigned long long>(facts.status.st_size)) : "-";
    output_.Line(output_.Paint(StyleOf(facts.state), Padded(::NameOf(facts.state), 9)) +
                 Padded(BackupColumn(facts), 8) + Padded(mode, 6) +
                 output_.Paint(facts.IsModeDifferent() ? Style::kWarning : Style::kPlain, Padded(was, 6)) +
                 RightAligned(size, 10) + "  " +
                 Shown(list_.TargetOf(list_.entries()[target.entries.back()])) + Details(facts));
}

void Verifier::Count(const TargetFacts& facts) {
    observations_.push_back(facts.Observation());
    ++counts_[facts.state];
    if (facts.hasBackup) ++backups_;
    if (facts.backupDoubt == BackupDoubt::kUnreadable) ++unknownBackups_;
    if (facts.IsModeDifferent() || facts.IsOwnerDifferent()) ++differentModes_;
    if (facts.packageSize < 0) ++lackingSources_;
}

// What the passes pass over in silence, take for something else, or fail on.
void Verifier::ReportProblems() {
    output_.BeginList("problems");
    const auto report = [this](const char* code, const std::string& section, const std::string& key,
                               const std::string& entry, const std::string& detail) {
        if (problems_++ == 0) output_.Line();
        output_.Line(output_.Paint(Style::kError, code) + "  " +
                     Shown("[" + section + "]" + (key.empty() ? "" : " ") + key + ": " + detail));
        output_.Item(
            {{"code", code}, {"section", section}, {"key", key}, {"entry", entry}, {"detail", detail}});
    };
    for (const TargetList& list : list_.lists()) {
        if (list.directoryValueLength >= kDirectoryValueCapacity) {
            report(
                "E-DIR-TOO-LONG", list_.installType(), list.section, "",
                "a directory of " + std::to_string(list.directoryValueLength) + " bytes; every pass takes /");
        } else if (list.directoryValueLength == 0) {
            report("E-DIR-EMPTY", list_.installType(), list.section, "", "no directory; every pass takes /");
        }
        if (!HasValues(list)) {
            report("W-LIST-EMPTY", list.section, "", "", "no entries; nothing is installed for it");
        }
    }
    for (const FileList::SkippedKey& skipped : list_.SkippedKeys()) {
        report("E-LIST-TOO-LONG", skipped.section, skipped.key.name, "",
               "a value of " + std::to_string(skipped.key.valueLength) + " bytes; every pass skips the key");
    }
    for (const Entry& entry : list_.entries()) {
        if (HasFileName(entry)) continue;
        report("E-ENTRY-EMPTY", list_.ListOf(entry).section, list_.KeyOf(entry), entry.text,
               "an entry without a file name; -rename and -copy fail there");
    }
    output_.EndList();
}

bool Verifier::IsExpectedState(const PassesReport& passes) const {
    if (options_.expected == "copied") return passes.copy == PassState::kComplete;
    if (options_.expected == "cleaned") return passes.clean == PassState::kComplete;
    if (options_.expected == "renamed") {
        const auto missing = counts_.find(TargetState::kMissing);
        const bool isNothingCopied = missing != counts_.end() && missing->second == observations_.size();
        return passes.rename == PassState::kComplete && isNothingCopied;
    }
    // No more can be told: an old file may well hold what the package has, or the beginning of it.
    return backups_ == 0 && unknownBackups_ == 0;
}

bool Verifier::HasProblems() const {
    return problems_ > 0 || (differentModes_ > 0 && !options_.areModesIgnored);
}

void Verifier::ShowSummary(const PassesReport& passes, bool isExpected) {
    output_.Member("summary", SummaryToJson(passes, isExpected));
    output_.Line();
    std::string line = Counted(observations_.size(), "file") + ":";
    for (const TargetState state : {TargetState::kNew, TargetState::kPartial, TargetState::kOld,
                                    TargetState::kMissing, TargetState::kUnknown}) {
        if (counts_[state] > 0) line += " " + std::to_string(counts_[state]) + " " + ::NameOf(state) + ",";
    }
    output_.Line(line + " " + Counted(backups_, "backup") + ".");
    if (differentModes_ > 0) {
        output_.Line(output_.Paint(Style::kWarning, Counted(differentModes_, "new file") +
                                                        " with another mode or owner than the backup: "
                                                        "vfilelist rollback --only-modes"));
    }
    if (lackingSources_ > 0) {
        output_.Line(output_.Paint(Style::kError, "The package lacks " + Counted(lackingSources_, "file") +
                                                      ": -copy stops at the first."));
    }
    ShowPasses(passes);
    output_.Line(
        output_.Paint(isExpected ? Style::kGood : Style::kError,
                      (isExpected ? "As expected: " : "Not as expected: ") + options_.expected + "."));
}

void Verifier::ShowPasses(const PassesReport& passes) {
    output_.Line();
    output_.Line(std::string("-rename  ") + NameOf(passes.rename));
    output_.Line(std::string("-copy    ") + NameOf(passes.copy));
    output_.Line(std::string("-clean   ") + NameOf(passes.clean));
    if (!passes.next.empty()) {
        output_.Line("Next:    VCopyFileListIni " + passes.next + " " + Shown(list_.iniPath()));
    } else if (!passes.reason.empty()) {
        output_.Line("Look at the files before you run a pass: " + passes.reason + ".");
    } else {
        output_.Line("Next:    nothing");
    }
    output_.Line();
}

Json Verifier::ToJson(const Target& target, const TargetFacts& facts) const {
    Json entries = Json::array();
    for (const std::size_t index : target.entries) {
        const Entry& entry = list_.entries()[index];
        entries.push_back({{"section", list_.ListOf(entry).section},
                           {"key", list_.KeyOf(entry)},
                           {"entry", entry.text},
                           {"source", list_.SourceOf(entry)}});
    }
    Json item = {{"target", list_.TargetOf(list_.entries()[target.entries.back()])},
                 {"state", ::NameOf(facts.state)},
                 {"size", nullptr},
                 {"packageSize", nullptr},
                 {"mode", nullptr},
                 {"owner", nullptr},
                 {"backup", facts.hasBackup},
                 {"backupMode", nullptr},
                 {"backupOwner", nullptr},
                 {"modeDiffers", facts.IsModeDifferent()},
                 {"ownerDiffers", facts.IsOwnerDifferent()},
                 {"detail", facts.detail},
                 {"entries", entries}};
    if (facts.backupDoubt == BackupDoubt::kUnreadable) item["backup"] = nullptr;
    if (facts.packageSize >= 0) item["packageSize"] = facts.packageSize;
    if (IsThere(facts)) {
        item["size"] = facts.status.st_size;
        item["mode"] = ShownMode(facts.status.st_mode);
        item["owner"] = ShownOwner(facts.status);
    }
    if (facts.hasReference) {
        item["backupMode"] = ShownMode(facts.reference.st_mode);
        item["backupOwner"] = ShownOwner(facts.reference);
    }
    return item;
}

Json Verifier::SummaryToJson(const PassesReport& passes, bool isExpected) const {
    Json states;
    for (const TargetState state : {TargetState::kNew, TargetState::kPartial, TargetState::kOld,
                                    TargetState::kMissing, TargetState::kUnknown}) {
        const auto found = counts_.find(state);
        states[::NameOf(state)] = found == counts_.end() ? 0 : found->second;
    }
    return {
        {"targets", observations_.size()},
        {"states", states},
        {"backups", backups_},
        {"modesDiffering", differentModes_},
        {"sourcesLacking", lackingSources_},
        {"passes",
         {{"rename", NameOf(passes.rename)}, {"copy", NameOf(passes.copy)}, {"clean", NameOf(passes.clean)}}},
        {"next", passes.next.empty() ? Json(nullptr) : Json(passes.next)},
        {"reason", passes.reason},
        {"expected", options_.expected},
        {"isExpected", isExpected}};
}

}  // namespace

int Verify(const FileList& list, const VerifyOptions& options, Output& output) {
    return Verifier(list, options, output).Run();
}
