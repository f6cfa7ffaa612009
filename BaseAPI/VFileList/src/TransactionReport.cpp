// Writes the report as text or JSON.
#include "TransactionReport.h"

#include <algorithm>
#include <array>
#include <ctime>

namespace {

std::string ShownTime(std::time_t time) {
    std::tm parts{};
    std::array<char, 32> text{};
    (void)gmtime_r(&time, &parts);
    (void)std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%SZ", &parts);
    return text.data();
}

std::vector<std::string> NextCommands(const TransactionReport& report) {
    switch (report.phase) {
        case Phase::kNone:
            return {};
        case Phase::kInstalled:
            return {"commit", "rollback"};
        case Phase::kCleaning:
            return {"commit"};
        default:
            return {"resume"};
    }
}

const char* Purpose(const std::string& command) {
    if (command == "commit") return "keeps the new files and removes the backups";
    if (command == "rollback") return "brings the old files back";
    return "takes up what was cut off";
}

void ShowAsJson(const TransactionReport& report, const Journal& journal, Output& output) {
    const bool isOpen = report.phase != Phase::kNone;
    output.Member("command", report.command);
    output.Member("stateDirectory", report.stateDirectory);
    output.Member("state", NameOf(report.phase));
    output.Member("isAtWork", report.isAtWork);
    output.Member("fileList", isOpen ? Json(journal.fileList) : Json(nullptr));
    output.Member("installType", isOpen ? Json(journal.installType) : Json(nullptr));
    output.Member("begun", isOpen ? Json(ShownTime(journal.begun)) : Json(nullptr));
    output.Member("targets", isOpen ? Json(journal.targets.size()) : Json(nullptr));
    output.BeginList("history");
    for (const Installation& installation : report.history) {
        output.Item({{"release", installation.release},
                     {"fileList", installation.fileList},
                     {"begun", ShownTime(installation.begun)},
                     {"files", installation.files}});
    }
    output.EndList();
    output.Member("message", report.message);
    output.Member("error", report.error.empty() ? Json(nullptr) : Json(report.error));
    output.BeginList("remarks");
    for (const Remark& remark : report.remarks) {
        output.Item({{"path", remark.path}, {"text", remark.text}, {"isSerious", remark.isSerious}});
    }
    output.EndList();
    output.Member("next", NextCommands(report));
    output.Member("exitStatus", report.status);
}

void ShowHistory(const std::vector<Installation>& history, Output& output) {
    for (const Installation& installation : history) {
        const std::string release = installation.release.empty() ? "" : " release " + installation.release;
        output.Line("Before: " + ShownTime(installation.begun) + release + ", " +
                    Counted(installation.files, "file") + " of " + Shown(installation.fileList));
    }
}

void ShowAsText(const TransactionReport& report, const Journal& journal, Output& output) {
    for (const Remark& remark : report.remarks) {
        output.Line(output.Paint(remark.isSerious ? Style::kError : Style::kWarning, Shown(remark.path)) +
                    ": " + Shown(remark.text));
    }
    if (!report.error.empty()) output.Line(output.Paint(Style::kError, Shown(report.error)));
    output.Line(output.Paint(report.status == kFine ? Style::kGood : Style::kError, report.message));
    ShowHistory(report.history, output);
    if (report.phase == Phase::kNone) return;

    output.Line("State:  " + std::string(NameOf(report.phase)) + ", begun " + ShownTime(journal.begun) +
                (report.isAtWork ? ", at work now" : ""));
    output.Line("Files:  " + std::to_string(journal.targets.size()) + " of " + Shown(journal.fileList));
    const bool isUsual = report.stateDirectory == kUsualStateDirectory;
    const std::string option = isUsual ? "" : " --state " + Shown(report.stateDirectory);
    for (const std::string& command : NextCommands(report)) {
        output.Line("Next:   vfilelist " + Padded(command, 8) + option + "  " +
                    output.Paint(Style::kDim, Purpose(command)));
    }
}

}  // namespace

int Show(const TransactionReport& report, const Journal& journal, Output& output) {
    if (output.isJson()) {
        ShowAsJson(report, journal, output);
    } else {
        ShowAsText(report, journal, output);
    }
    return report.status;
}
