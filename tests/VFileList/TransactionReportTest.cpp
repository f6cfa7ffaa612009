#include "TransactionReport.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "Report.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;

Journal JournalOfTwo() {
    Journal journal;
    journal.fileList = "/package/file\nlist.ini";
    journal.installType = "Server";
    journal.begun = 1000000000;
    journal.targets = {{}, {}};
    return journal;
}

TransactionReport ReportIn(Phase phase) {
    TransactionReport report{"status", kUsualStateDirectory};
    report.message = "The message.";
    report.phase = phase;
    return report;
}

nlohmann::json Json(const TransactionReport& report, int* status = nullptr) {
    return ReportOf([&](Output& output) { return Show(report, JournalOfTwo(), output); }, status);
}

std::string Text(const TransactionReport& report) {
    const Replaced replaced(calls::isatty, [](int) { return 0; });
    return WrittenBy([&](Output& output) { return Show(report, JournalOfTwo(), output); }, false, nullptr);
}

TEST(TransactionReportTest, HasNothingOfAnUpgradeWhileNoneIsOpen) {
    int status = -1;
    const nlohmann::json report = Json(ReportIn(Phase::kNone), &status);

    EXPECT_EQ(status, 0);
    EXPECT_EQ(report, nlohmann::json::parse(R"({
        "command": "status", "stateDirectory": "/var/lib/vfilelist", "state": "none", "isAtWork": false, "fileList": null,
        "installType": null, "begun": null, "targets": null, "history": [], "message": "The message.", "error": null,
        "remarks": [], "next": [], "exitStatus": 0})"));
    EXPECT_EQ(Text(ReportIn(Phase::kNone)), "The message.\n");
}

TEST(TransactionReportTest, HasTheOpenUpgradeAndWhatIsNext) {
    TransactionReport report = ReportIn(Phase::kInstalled);
    report.isAtWork = true;
    report.error = "an error";
    report.status = kLook;
    report.remarks = {{"/one", "text", true}, {"/two", "other\n", false}};
    report.history = {{"1.0", "/a\nlist", 1000000000, 1}, {"", "/b", 0, 2}};
    int status = -1;

    EXPECT_EQ(Json(report, &status), nlohmann::json::parse(R"({
        "command": "status", "stateDirectory": "/var/lib/vfilelist", "state": "installed", "isAtWork": true,
        "fileList": "/package/file\nlist.ini", "installType": "Server", "begun": "2001-09-09T01:46:40Z",
        "targets": 2,
        "history": [{"release": "1.0", "fileList": "/a\nlist", "begun": "2001-09-09T01:46:40Z", "files": 1},
                    {"release": "", "fileList": "/b", "begun": "1970-01-01T00:00:00Z", "files": 2}],
        "message": "The message.", "error": "an error",
        "remarks": [{"path": "/one", "text": "text", "isSerious": true},
                    {"path": "/two", "text": "other\n", "isSerious": false}],
        "next": ["commit", "rollback"], "exitStatus": 3})"));

    EXPECT_EQ(status, 3);
    EXPECT_EQ(Text(report),
              "/one: text\n"
              "/two: other\\x0a\n"
              "an error\n"
              "The message.\n"
              "Before: 2001-09-09T01:46:40Z release 1.0, 1 file of /a\\x0alist\n"
              "Before: 1970-01-01T00:00:00Z, 2 files of /b\n"
              "State:  installed, begun 2001-09-09T01:46:40Z, at work now\n"
              "Files:  2 of /package/file\\x0alist.ini\n"
              "Next:   vfilelist commit    keeps the new files and removes the backups\n"
              "Next:   vfilelist rollback  brings the old files back\n");
}

TEST(TransactionReportTest, SaysWhatLeadsOnFromEachState) {
    for (const Phase phase : {Phase::kRenaming, Phase::kCopying, Phase::kUndoing}) {
        EXPECT_THAT(Json(ReportIn(phase))["next"], ElementsAre("resume"));
        EXPECT_THAT(Text(ReportIn(phase)),
                    HasSubstr("Next:   vfilelist resume    takes up what was cut off\n"));
    }
    EXPECT_THAT(Json(ReportIn(Phase::kCleaning))["next"], ElementsAre("commit"));
}

TEST(TransactionReportTest, RepeatsAnotherStateDirectoryInTheNextCommands) {
    TransactionReport report = ReportIn(Phase::kInstalled);
    report.stateDirectory = "/elsewhere\n";
    EXPECT_THAT(Text(report), HasSubstr("Next:   vfilelist commit   --state /elsewhere\\x0a  keeps the new"));
}

TEST(TransactionReportTest, IsColouredOnATerminal) {
    TransactionReport report = ReportIn(Phase::kCleaning);
    report.status = kFindings;
    report.error = "an error";
    report.remarks = {{"/one", "text", true}, {"/two", "text", false}};
    const Variable term("TERM", "xterm");
    const Variable noColour("NO_COLOR", nullptr);
    const Replaced replaced(calls::isatty, [](int fd) { return fd == STDOUT_FILENO ? 1 : 0; });
    const auto show = [&](Output& output) { return Show(report, JournalOfTwo(), output); };
    const std::string error = "\033[31m";

    const std::string text = WrittenBy(show, false, nullptr);
    EXPECT_THAT(text, HasSubstr(error + "/one\033[0m: text\n\033[33m/two\033[0m: text\n" + error +
                                "an error\033[0m\n" + error + "The message.\033[0m\n"));
    EXPECT_THAT(text, HasSubstr("\033[2mkeeps the new files and removes the backups\033[0m\n"));
    report.status = kFine;
    EXPECT_THAT(WrittenBy(show, false, nullptr), HasSubstr("\033[32mThe message.\033[0m\n"));
}

}  // namespace
