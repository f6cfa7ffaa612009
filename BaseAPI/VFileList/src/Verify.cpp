// Compares the installed files with the package's or the receipt's, and shows what is there.
#include "Verify.h"

#include <map>
#include <vector>

#include "Findings.h"
#include "Passes.h"
#include "Receipt.h"
#include "StateDirectory.h"
#include "TargetFacts.h"
#include "VCopyFileListIni.h"

namespace {

constexpr TargetState kStates[] = {TargetState::kNew, TargetState::kPartial, TargetState::kOld,
                                   TargetState::kMissing, TargetState::kUnknown};

struct Summary {
    std::map<TargetState, std::size_t> states;
    std::size_t targets = 0;
    std::size_t backups = 0;
    std::size_t unreadableBackups = 0;
    std::size_t differentModes = 0;
    std::size_t otherThanManifest = 0;  // new files without a backup
    std::size_t lackingSources = 0;
    PassesReport passes;
    std::string reason;  // why no pass is named, with the file's path
    std::string expected;
    bool isExpected = false;
};

const char* NameOf(PassState state) {
    constexpr const char* kNames[] = {"complete", "incomplete", "unknown"};
    return kNames[static_cast<int>(state)];
}

Style StyleOf(TargetState state) {
    if (state == TargetState::kNew) return Style::kGood;
    const bool isPlain = state == TargetState::kOld || state == TargetState::kMissing;
    return isPlain ? Style::kPlain : Style::kError;
}

// There is a file whose mode and size are known.
bool HasModeAndSize(const TargetFacts& facts) {
    return facts.state != TargetState::kMissing && facts.isOccupied;
}

std::string Details(const TargetFacts& facts) {
    std::string details = facts.detail;
    if (facts.IsOwnerDifferent()) {
        if (!details.empty()) details += ", ";
        details += "owner " + ShownOwner(facts.status) + ", was " + ShownOwner(facts.reference);
    }
    return details.empty() ? "" : "  (" + Shown(details) + ")";
}

Json ToJson(const FileList& list, const Target& target, const TargetFacts& facts) {
    Json entries = Json::array();
    for (const std::size_t index : target.entries) {
        const Entry& entry = list.entries()[index];
        entries.push_back({{"section", list.ListOf(entry).section},
                           {"key", list.KeyOf(entry)},
                           {"entry", entry.text},
                           {"source", list.SourceOf(entry)}});
    }
    const auto known = [](bool isKnown, const Json& value) { return isKnown ? value : Json(nullptr); };
    const bool hasModeAndSize = HasModeAndSize(facts);
    return {{"target", list.TargetOf(list.EntryOf(target))},
            {"state", NameOf(facts.state)},
            {"size", known(hasModeAndSize, facts.status.st_size)},
            {"packageSize", known(facts.packageSize >= 0, facts.packageSize)},
            {"mode", known(hasModeAndSize, ShownMode(facts.status.st_mode))},
            {"owner", known(hasModeAndSize, ShownOwner(facts.status))},
            {"backup", known(facts.backupDoubt != BackupDoubt::kUnreadable, facts.hasBackup)},
            {"backupMode", known(facts.hasReference, ShownMode(facts.reference.st_mode))},
            {"backupOwner", known(facts.hasReference, ShownOwner(facts.reference))},
            {"modeDiffers", facts.IsModeDifferent()},
            {"ownerDiffers", facts.IsOwnerDifferent()},
            {"detail", facts.detail},
            {"entries", entries}};
}

void ShowHead(const FileList& list, Output& output) {
    output.Member("command", "verify");
    output.Member("fileList", list.iniPath());
    output.Member("installType", list.installType());
    output.Line(output.Paint(Style::kBold, Shown(list.iniPath())) + "  install type " +
                Shown(list.installType()));
    output.Line();
    output.Line(output.Paint(Style::kDim, "STATE    BACKUP  MODE  WAS         SIZE  FILE"));
}

void ShowTarget(const std::string& path, const TargetFacts& facts, Output& output) {
    const bool isUnreadable = facts.backupDoubt == BackupDoubt::kUnreadable;
    const std::string mode = HasModeAndSize(facts) ? ShownMode(facts.status.st_mode) : "-";
    const std::string was = facts.hasReference ? ShownMode(facts.reference.st_mode) : "-";
    const std::string size =
        HasModeAndSize(facts) ? ShownSize(static_cast<unsigned long long>(facts.status.st_size)) : "-";
    output.Line(output.Paint(StyleOf(facts.state), Padded(NameOf(facts.state), 9)) +
                Padded(isUnreadable ? "?" : (facts.hasBackup ? "yes" : "-"), 8) + Padded(mode, 6) +
                output.Paint(facts.IsModeDifferent() ? Style::kWarning : Style::kPlain, Padded(was, 6)) +
                RightAligned(size, 10) + "  " + Shown(path) + Details(facts));
}

// What the passes skip in silence, treat as something else, or fail on, whatever is installed.
std::vector<Finding> ProblemsOf(const FileList& list) {
    std::vector<Finding> problems;
    const auto add = [&problems](const char* code, const std::string& section, const std::string& key,
                                 const std::string& detail) {
        problems.push_back({&KindOf(code), section, key, "", "", detail});
    };
    for (const TargetList& targets : list.lists()) {
        const std::size_t length = targets.directoryValueLength;
        if (length >= kDirectoryValueCapacity) {
            add("E-DIR-TOO-LONG", list.installType(), targets.section,
                "a directory of " + std::to_string(length) + " bytes; every pass takes /");
        } else if (length == 0) {
            add("E-DIR-EMPTY", list.installType(), targets.section, "no directory; every pass takes /");
        }
        if (!HasValues(targets))
            add("W-LIST-EMPTY", targets.section, "", "no entries; nothing is installed for it");
    }
    for (const auto& [section, key] : list.SkippedKeys()) {
        add("E-LIST-TOO-LONG", section, key.name,
            "a value of " + std::to_string(key.valueLength) + " bytes; every pass skips the key");
    }
    for (const Entry& entry : list.entries()) {
        if (HasFileName(entry)) continue;
        add("E-ENTRY-EMPTY", list.ListOf(entry).section, list.KeyOf(entry),
            "an entry without a file name; -rename and -copy fail there");
        problems.back().entry = entry.text;
    }
    return problems;
}

void ShowProblems(const std::vector<Finding>& problems, Output& output) {
    output.BeginList("problems");
    if (!problems.empty()) output.Line();
    for (const Finding& problem : problems) {
        output.Line(output.Paint(Style::kError, problem.kind->code) + "  " +
                    Shown("[" + problem.section + "]" + (problem.key.empty() ? "" : " ") + problem.key +
                          ": " + problem.detail));
        output.Item({{"code", problem.kind->code},
                     {"section", problem.section},
                     {"key", problem.key},
                     {"entry", problem.entry},
                     {"detail", problem.detail}});
    }
    output.EndList();
}

// Whether a new file without a backup has the mode and the owner of the manifest. If not, its details say so.
bool NoteManifest(const Manifest& manifest, const std::string& path, TargetFacts& facts) {
    const ManifestEntry* const entry = manifest.Find(path);
    if (facts.state != TargetState::kNew || facts.hasReference || entry == nullptr) return true;
    const std::optional<Owner> owner = OwnerOf(*entry);
    const bool isSameOwner =
        owner && facts.status.st_uid == owner->user && facts.status.st_gid == owner->group;
    if (isSameOwner && (facts.status.st_mode & kPermissions) == entry->mode) return true;
    facts.detail += (facts.detail.empty() ? "" : ", ") + ("the manifest says mode " + ShownMode(entry->mode) +
                                                          ", owner " + entry->user + ":" + entry->group);
    return false;
}

// Examines the targets one by one, and shows each at once: a long list takes little memory.
Summary LookAtTargets(const FileList& list, const std::optional<Manifest>& manifest, Output& output) {
    Summary summary;
    const std::vector<Target> targets = list.Targets();
    std::vector<TargetObservation> observations;
    const auto pathOf = [&](const Target& target) { return list.TargetOf(list.EntryOf(target)); };
    output.BeginList("targets");
    for (const Target& target : targets) {
        output.Progress("verify", observations.size(), targets.size());
        TargetFacts facts = Examine(list, target);
        if (manifest && !NoteManifest(*manifest, pathOf(target), facts)) ++summary.otherThanManifest;
        observations.push_back(facts);
        ++summary.states[facts.state];
        if (facts.hasBackup) ++summary.backups;
        if (facts.backupDoubt == BackupDoubt::kUnreadable) ++summary.unreadableBackups;
        if (facts.IsModeDifferent() || facts.IsOwnerDifferent()) ++summary.differentModes;
        if (facts.packageSize < 0) ++summary.lackingSources;
        output.Item(ToJson(list, target, facts));
        ShowTarget(pathOf(target), facts, output);
    }
    output.EndList();
    summary.targets = targets.size();
    summary.passes = JudgePasses(observations);
    if (summary.passes.doubtful) {
        summary.reason = pathOf(targets[*summary.passes.doubtful]) + ": " + summary.passes.reason;
    }
    return summary;
}

bool IsReached(const std::string& expected, Summary& summary) {
    if (expected == "copied") return summary.states[TargetState::kNew] == summary.targets;
    if (expected == "cleaned") return summary.passes.clean == PassState::kComplete;
    if (expected == "renamed") return summary.states[TargetState::kMissing] == summary.targets;
    // "restored": an old file may well hold what the package has, or the beginning of it.
    return summary.backups == 0 && summary.unreadableBackups == 0;
}

void ShowPasses(const FileList& list, const Summary& summary, Output& output) {
    const PassesReport& passes = summary.passes;
    output.Line();
    output.Line(std::string("-rename  ") + NameOf(passes.rename));
    output.Line(std::string("-copy    ") + NameOf(passes.copy));
    output.Line(std::string("-clean   ") + NameOf(passes.clean));
    if (passes.doubtful) {
        output.Line("Look at this file before you run a pass: " + Shown(summary.reason) + ".");
    } else if (passes.next.empty()) {
        output.Line("Next:    nothing");
    } else {
        output.Line("Next:    VCopyFileListIni " + passes.next + " " + Shown(list.iniPath()));
    }
    output.Line();
}

void ShowSummary(const FileList& list, Summary& summary, Output& output) {
    output.Line();
    std::string line = Counted(summary.targets, "file") + ":";
    for (const TargetState state : kStates) {
        const std::size_t count = summary.states[state];
        if (count > 0) line += " " + std::to_string(count) + " " + NameOf(state) + ",";
    }
    output.Line(line + " " + Counted(summary.backups, "backup") + ".");
    if (summary.differentModes > 0) {
        output.Line(output.Paint(Style::kWarning, Counted(summary.differentModes, "new file") +
                                                      " with another mode or owner than the backup: "
                                                      "vfilelist rollback --only-modes"));
    }
    if (summary.otherThanManifest > 0) {
        output.Line(output.Paint(Style::kWarning, Counted(summary.otherThanManifest, "new file") +
                                                      " with another mode or owner than the manifest says."));
    }
    if (summary.lackingSources > 0) {
        output.Line(output.Paint(
            Style::kError,
            "The package lacks " + Counted(summary.lackingSources, "file") + ": -copy stops at the first."));
    }
    ShowPasses(list, summary, output);
    output.Line(
        output.Paint(summary.isExpected ? Style::kGood : Style::kError,
                     (summary.isExpected ? "As expected: " : "Not as expected: ") + summary.expected + "."));
}

Json ToJson(Summary& summary) {
    const PassesReport& passes = summary.passes;
    Json states;
    for (const TargetState state : kStates) states[NameOf(state)] = summary.states[state];
    return {
        {"targets", summary.targets},
        {"states", states},
        {"backups", summary.backups},
        {"modesDiffering", summary.differentModes},
        {"manifestDiffering", summary.otherThanManifest},
        {"sourcesLacking", summary.lackingSources},
        {"passes",
         {{"rename", NameOf(passes.rename)}, {"copy", NameOf(passes.copy)}, {"clean", NameOf(passes.clean)}}},
        {"next", passes.next.empty() ? Json(nullptr) : Json(passes.next)},
        {"reason", summary.reason},
        {"expected", summary.expected},
        {"isExpected", summary.isExpected}};
}

}  // namespace

int Verify(const FileList& list, const VerifyOptions& options, Output& output) {
    ShowHead(list, output);
    Summary summary = LookAtTargets(list, options.manifest, output);
    const std::vector<Finding> problems = ProblemsOf(list);
    ShowProblems(problems, output);

    const bool isModeWrong =
        summary.differentModes + summary.otherThanManifest > 0 && !options.areModesIgnored;
    summary.expected = options.expected;
    summary.isExpected = IsReached(options.expected, summary) && problems.empty() && !isModeWrong;
    output.Member("summary", ToJson(summary));
    ShowSummary(list, summary, output);
    return summary.isExpected ? kFine : kFindings;
}

int VerifyInstalled(const std::string& stateDirectory, Output& output) {
    Receipt receipt;
    Trouble trouble = StateDirectory(stateDirectory).ReadReceipt(receipt);
    if (!trouble && receipt.history.empty()) trouble = stateDirectory + ": no upgrade was committed";
    output.Member("command", "verify");
    output.Member("stateDirectory", stateDirectory);
    output.Member("release", receipt.Release());
    output.Member("error", trouble ? Json(*trouble) : Json(nullptr));
    if (trouble) {
        output.Line(output.Paint(Style::kError, Shown(*trouble)));
        return kWrongUse;
    }

    std::size_t changed = 0;
    std::size_t done = 0;
    output.BeginList("changed");
    for (const auto& [path, file] : receipt.files) {
        output.Progress("verify", done++, receipt.files.size());
        const std::string difference = DifferenceOf(path, file);
        if (difference.empty()) continue;
        ++changed;
        output.Item({{"path", path}, {"text", difference}});
        output.Line(output.Paint(Style::kError, Shown(path)) + ": " + Shown(difference));
    }
    output.EndList();
    output.Member("files", receipt.files.size());
    const std::string summary = Counted(receipt.files.size(), "installed file") + ", " +
                                (changed == 0 ? "none" : std::to_string(changed)) + " changed.";
    output.Line(output.Paint(changed == 0 ? Style::kGood : Style::kError, summary));
    return changed == 0 ? kFine : kFindings;
}
