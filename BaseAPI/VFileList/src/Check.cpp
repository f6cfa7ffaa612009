// Looks for what would make an upgrade fail, do nothing, or do harm.
#include "Check.h"

#include <algorithm>
#include <utility>

#include "CheckParts.h"

namespace {

bool IsWarning(const Finding& finding) {
    return !finding.kind->IsError();
}

// Of the entries for one target the first in a directory that can be looked at.
std::vector<bool> FirstEntries(const Inspection& inspection) {
    const std::vector<Entry>& entries = inspection.list.entries();
    const auto isUsable = [&](std::size_t entry) { return inspection.IsUsable(entries[entry]); };
    std::vector<bool> areFirst(entries.size());
    for (const Target& target : inspection.list.Targets()) {
        const auto first = std::find_if(target.entries.begin(), target.entries.end(), isUsable);
        if (first != target.entries.end()) areFirst[*first] = true;
    }
    return areFirst;
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

// Below another root directory nothing was installed by this machine's upgrades. Whoever may not read the
// receipt checks without.
Evidence EvidenceFor(const CheckOptions& options) {
    Evidence evidence{ReadProvenance(options.iniPath, options.trustedDirectory), {}, true};
    if (!options.root.empty()) return evidence;
    StateDirectory directory(options.stateDirectory);
    const Trouble trouble = directory.ReadReceipt(evidence.receipt);
    if (trouble && errno != EACCES)
        evidence.provenance.findings.push_back(FindingOf("E-RECEIPT-UNREADABLE", "", *trouble));
    return evidence;
}

}  // namespace

std::vector<Finding> FindTrouble(const CheckOptions& options, Output& output) {
    const auto unreadable = [&options](const std::string& trouble) -> std::vector<Finding> {
        return {FindingOf("E-INI-UNREADABLE", options.iniPath, trouble)};
    };
    if (const Trouble trouble = FileList::WhyUnreadable(options.iniPath)) return unreadable(*trouble);
    const FileList list(options.iniPath, options.root);
    if (list.trouble()) return unreadable(*list.trouble());
    std::vector<Finding> findings = FindTrouble(list, EvidenceFor(options), output);
    if (options.isErrorsOnly) {
        findings.erase(std::remove_if(findings.begin(), findings.end(), IsWarning), findings.end());
    }
    return findings;
}

std::vector<Finding> FindTrouble(const FileList& list, const Evidence& evidence, Output& output) {
    const std::optional<Manifest>& manifest = evidence.provenance.manifest;
    Inspection inspection(list);
    inspection.findings = evidence.provenance.findings;
    if (manifest) inspection.manifest = &*manifest;
    CheckLists(inspection);
    const std::vector<bool> areFirst = FirstEntries(inspection);
    TargetChecker targets(inspection);
    for (std::size_t i = 0; i < areFirst.size(); ++i) {
        const Entry& entry = list.entries()[i];
        const std::optional<struct stat> source = CheckSource(inspection, entry);
        if (areFirst[i]) targets.Check(entry, source);
        output.Progress("check", i + 1, areFirst.size());
    }
    inspection.CountLosses();
    targets.CheckUsers();
    CheckDuplicates(inspection);
    CheckPackage(inspection);
    CheckSpace(list, inspection.findings);
    if (manifest) CheckManifest(inspection, *manifest, evidence.isThorough);
    CheckReceipt(inspection, manifest, evidence.receipt, evidence.isThorough);
    return std::move(inspection.findings);
}

int Check(const CheckOptions& options, Output& output) {
    const std::vector<Finding> findings = FindTrouble(options, output);
    const auto warnings =
        static_cast<std::size_t>(std::count_if(findings.begin(), findings.end(), IsWarning));
    const std::size_t errors = findings.size() - warnings;

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
