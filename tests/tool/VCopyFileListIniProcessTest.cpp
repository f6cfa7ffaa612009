// The upgrade tool as a process: with a recorder preloaded in the logger's place, and with the real logger.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "Process.h"
#include "Sanitizer.h"
#include "ScratchDirectory.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;

const char kLogDirectory[] = "/var/log/tarnlog/serverlog/upgradelog/node/";
const char kLogName[] = "TarnFramework_upgrade.log";

std::vector<std::string> LinesOf(const std::string& text) {
    std::vector<std::string> lines;
    for (std::size_t begin = 0; begin < text.size();) {
        const std::size_t end = text.find('\n', begin);
        lines.push_back(text.substr(begin, end - begin));
        begin = end == std::string::npos ? text.size() : end + 1;
    }
    return lines;
}

class VCopyFileListIniProcessTest : public testing::Test {
protected:
    VCopyFileListIniProcessTest() {
        scratch_.Write("pkg/Common/bin/tool", "new");
        scratch_.Write("installed/tool", "old");
        WriteList("bin/tool");
    }

    void WriteList(const std::string& entries) {
        list_ = scratch_.Write("pkg/filelist.ini",
                               "[Package_Intall_Type]\nPackageIntallType=Server\n[Server]\nBin=" +
                                   scratch_.Path("installed") + "\n[Bin]\nf=" + entries + "\n");
    }

    // The real logger writes into the scratch directory's "log".
    ProcessResult RunTool(const std::vector<std::string>& arguments) const {
        return RunProcess(Concatenate({TOOL_PATH}, arguments), {"VLOGGER_DIRECTORY=" + scratch_.Path("log")});
    }

    ProcessResult RunRecorded(const std::vector<std::string>& arguments) const {
        // AddressSanitizer wants to be the first library of a process, which the recorder is.
        const char* const options = std::getenv("ASAN_OPTIONS");
        const std::string asanOptions =
            std::string(options != nullptr ? options : "") + ":verify_asan_link_order=0";
        return RunProcess(Concatenate({TOOL_PATH}, arguments),
                          {"LD_PRELOAD=" RECORDER_PATH, "VLOGGER_RECORD=" + scratch_.Path("record"),
                           "ASAN_OPTIONS=" + asanOptions});
    }

    // Runs `script` in the scratch directory; in it "$@" is the tool with "-copy" and the file list.
    ProcessResult RunInShell(const std::string& script, const std::vector<std::string>& environment) const {
        return RunProcess({"sh", "-c", "cd \"$0\" && " + script, scratch_.Path(), TOOL_PATH, "-copy", list_},
                          environment);
    }

    // Every line is the logger's own, and stands there once.
    void ExpectLogOfOneCopy(const std::string& log) const {
        const std::vector<std::string> lines = LinesOf(scratch_.Read(log));
        EXPECT_EQ(lines.size(), 6U);
        EXPECT_THAT(lines, testing::Each(HasSubstr("BaseAPI/VFileSys/src/VCopyFileListIni.cpp:")));
    }

    std::string RecordedLine(const std::string& function, int level, const std::string& format,
                             const std::string& text) const {
        return "Log\tBaseAPI/VFileSys/src/VCopyFileListIni.cpp\t" + function + "\t \t\t" +
               std::to_string(level) + "\t" + format + "\t" + text;
    }

    ScratchDirectory scratch_;
    std::string list_;
};

TEST_F(VCopyFileListIniProcessTest, UpgradesInThreePasses) {
    EXPECT_EQ(RunTool({"-rename", list_}).exitStatus, 0);
    EXPECT_THAT(scratch_.List("installed"), ElementsAre("tool.bak"));
    EXPECT_EQ(RunTool({"-copy", list_}).exitStatus, 0);
    EXPECT_THAT(scratch_.List("installed"), ElementsAre("tool", "tool.bak"));
    EXPECT_EQ(scratch_.Read("installed/tool"), "new");
    EXPECT_EQ(scratch_.Read("installed/tool.bak"), "old");
    EXPECT_EQ(RunTool({"-clean", list_}).exitStatus, 0);
    EXPECT_THAT(scratch_.List("installed"), ElementsAre("tool"));

    const std::vector<std::string> log = LinesOf(scratch_.Read("log/" + std::string(kLogName)));
    EXPECT_EQ(log.size(), 6U + 6U + 6U);
    EXPECT_THAT(log, testing::Each(HasSubstr("BaseAPI/VFileSys/src/VCopyFileListIni.cpp:")));
    EXPECT_THAT(log.back(), HasSubstr("            Successfully completed"));
}

TEST_F(VCopyFileListIniProcessTest, SaysNothingOnTheStandardStreams) {
    for (const char* const pass : {"-rename", "-copy", "-clean"}) {
        const ProcessResult result = RunTool({pass, list_});
        EXPECT_EQ(result.out, "") << pass;
        EXPECT_EQ(result.err, "") << pass;
    }
}

TEST_F(VCopyFileListIniProcessTest, ExitsWith240ForEveryFailure) {
    WriteList("missing");

    EXPECT_EQ(RunTool({}).exitStatus, 240);
    EXPECT_EQ(RunTool({"-copy"}).exitStatus, 240);
    EXPECT_EQ(RunTool({"-Copy", list_}).exitStatus, 240);
    EXPECT_EQ(RunTool({"-copy", list_}).exitStatus, 240);
    EXPECT_EQ(RunTool({"-clean", scratch_.Path("no.ini")}).exitStatus, 240);
}

TEST_F(VCopyFileListIniProcessTest, CallsTheLoggerExactlyAsDefined) {
    EXPECT_EQ(RunRecorded({"-copy", list_}).exitStatus, 0);

    const std::string rule(51, '-');
    const std::string source = scratch_.Path("pkg/Common/bin/tool");
    const std::string target = scratch_.Path("installed/tool");
    EXPECT_THAT(
        LinesOf(scratch_.Read("record")),
        ElementsAre(
            std::string("StartSystem\t") + kLogName + "\t" + kLogDirectory + "\t3\t2\t3\t2048\tfalse",
            RecordedLine("GetPathSectionMap", 3, "PackageIntallType : %s", "PackageIntallType : Server"),
            RecordedLine("CopyOperator", 3, "%s , %s", "Bin , " + scratch_.Path("installed/")),
            RecordedLine("CopyOperator", 3, "%s , %s", source + " , " + target),
            RecordedLine("CopyFile", 3, "copy: %s, %s", "copy: " + source + ", " + target),
            RecordedLine("main", 3, rule, rule),
            RecordedLine("main", 3, "            Successfully completed",
                         "            Successfully completed"),
            "StopSystem"));
}

TEST_F(VCopyFileListIniProcessTest, LogsItsUsageUnderTheNameItWasCalledBy) {
    EXPECT_EQ(RunRecorded({"-copy"}).exitStatus, 240);

    EXPECT_THAT(
        LinesOf(scratch_.Read("record")),
        ElementsAre(
            HasSubstr("StartSystem\t"),
            RecordedLine("main", 3, "Usage: %s <operator> <filelist.ini path>",
                         std::string("Usage: ") + TOOL_PATH + " <operator> <filelist.ini path>"),
            RecordedLine("main", 3, "<operator>: -rename/-copy/-clean", "<operator>: -rename/-copy/-clean"),
            "StopSystem"));
}

TEST_F(VCopyFileListIniProcessTest, SaysOnStandardErrorWhichValueDoesNotFit) {
    WriteList(std::string(4096, 'x'));

    const ProcessResult result = RunTool({"-copy", list_});

    // Deliberate: the list counts as empty, and an empty list is no failure.
    EXPECT_EQ(result.exitStatus, 0);
    EXPECT_THAT(result.err, HasSubstr("[Bin] f"));
    EXPECT_THAT(result.err, HasSubstr("4096"));
}

TEST_F(VCopyFileListIniProcessTest, HidesNoLineBehindALineFeedInAName) {
    const std::string forged = scratch_.Path("forged\n            Successfully completed");

    EXPECT_EQ(RunTool({"-copy", forged}).exitStatus, 240);
    EXPECT_EQ(RunTool({forged, list_}).exitStatus, 240);

    for (const std::string& line : LinesOf(scratch_.Read("log/" + std::string(kLogName)))) {
        EXPECT_THAT(line, HasSubstr("BaseAPI/VFileSys/src/")) << "every line is the logger's own";
    }
}

TEST_F(VCopyFileListIniProcessTest, UpgradesThoughNoLogCanBeWritten) {
    scratch_.Write("log", "a file where the directory should be");

    const ProcessResult result = RunTool({"-copy", list_});

    EXPECT_EQ(result.exitStatus, 0);
    EXPECT_EQ(scratch_.Read("installed/tool"), "new");
    EXPECT_EQ(LinesOf(result.err).size(), 1U) << result.err;
}

// A standard error that no process reads; the shell's descriptor 4.
const char kBrokenPipe[] = "mkfifo pipe && exec 3<>pipe 4>pipe 3<&- && ";

TEST_F(VCopyFileListIniProcessTest, UpgradesThoughNoProcessReadsStandardError) {
    const struct {
        const char* name;
        std::string log;
        std::string first;
        const char* variable;
    } rows[] = {
        {"a value that does not fit", "log", "d=" + std::string(4096, 'x'), "VLOGGER_STDERR=0"},
        {"a log that cannot be written", "pkg/Common/bin/tool", "", "VLOGGER_STDERR=0"},
        {"every log line", "log", "", "VLOGGER_STDERR=1"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        scratch_.Write("installed/tool", "old");
        WriteList("bin/tool\n" + row.first);

        const ProcessResult result =
            RunInShell(std::string("rm -f pipe && ") + kBrokenPipe + "exec \"$@\" 2>&4",
                       {"VLOGGER_DIRECTORY=" + scratch_.Path(row.log), row.variable});

        EXPECT_EQ(result.waitStatus, 0) << result.err;
        EXPECT_EQ(scratch_.Read("installed/tool"), "new");
    }
}

TEST_F(VCopyFileListIniProcessTest, FailsAndDoesNotDieWhenItCannotReportAFailure) {
    WriteList("missing");

    const ProcessResult result =
        RunInShell(std::string(kBrokenPipe) + "exec \"$@\" 2>&4",
                   {"VLOGGER_DIRECTORY=" + scratch_.Path("log"), "VLOGGER_STDERR=1"});

    EXPECT_EQ(result.exitStatus, 240);
    EXPECT_THAT(scratch_.Read("log/" + std::string(kLogName)), HasSubstr("            Failed"));
}

TEST_F(VCopyFileListIniProcessTest, UpgradesThoughTheLogReachesTheLimitForFiles) {
    scratch_.Write("log/" + std::string(kLogName), std::string(1023, 'x') + "\n");

    const ProcessResult result =
        RunInShell("ulimit -f 2 && exec \"$@\"", {"VLOGGER_DIRECTORY=" + scratch_.Path("log")});

    EXPECT_EQ(result.waitStatus, 0);
    EXPECT_THAT(result.err, HasSubstr("VLogger: "));
    EXPECT_EQ(scratch_.Read("installed/tool"), "new");
    EXPECT_EQ(scratch_.Read("log/" + std::string(kLogName)).size(), 1024U);
}

TEST_F(VCopyFileListIniProcessTest, FailsToCopyAFileBeyondTheLimitForFiles) {
    for (const std::size_t size : {4097U, 100000U}) {
        SCOPED_TRACE(size);
        scratch_.Write("pkg/Common/bin/tool", std::string(size, 'n'));

        const ProcessResult result =
            RunInShell("ulimit -f 8 && exec \"$@\"", {"VLOGGER_DIRECTORY=" + scratch_.Path("log")});

        EXPECT_EQ(result.exitStatus, 240) << result.waitStatus;
        EXPECT_EQ(scratch_.Read("installed/tool").size(), 4096U);
        EXPECT_THAT(LinesOf(scratch_.Read("log/" + std::string(kLogName))).back(),
                    HasSubstr("            Failed"));
    }
}

TEST_F(VCopyFileListIniProcessTest, WritesNoReportIntoAFileThatGotTheNumberOfAClosedStream) {
    if (VFS_TEST_EMULATED) GTEST_SKIP() << "the emulator opens files of its own";
    WriteList("bin/tool\nd=" + std::string(4096, 'x'));
    for (const char* const closed : {"2>&-", "1>&- 2>&-", "0<&- 1>&- 2>&-", "0<&- 2>&-", "0<&-", "1>&-"}) {
        SCOPED_TRACE(closed);
        const std::string log = "log of " + std::string(closed);

        const ProcessResult result =
            RunInShell(std::string("exec \"$@\" ") + closed,
                       {"VLOGGER_DIRECTORY=" + scratch_.Path(log), "VLOGGER_STDERR=1"});

        EXPECT_EQ(result.waitStatus, 0) << result.err;
        EXPECT_EQ(scratch_.Read("installed/tool"), "new");
        ExpectLogOfOneCopy(log + "/" + kLogName);
    }
}

TEST_F(VCopyFileListIniProcessTest, NeedsNoDevicesToKeepReportsOutOfTheLog) {
    SKIP_WITHOUT_PRIVATE_NAMESPACE();
    if (VFS_TEST_EMULATED) GTEST_SKIP() << "the emulator opens files of its own";
    const std::vector<std::string> inside =
        PrivateNamespace({"--bind", scratch_.Path(), scratch_.Path(), "--tmpfs", "/dev", "--setenv",
                          "VLOGGER_DIRECTORY", scratch_.Path("log"), "--setenv", "VLOGGER_STDERR", "1"});

    const ProcessResult result = RunProcess(
        Concatenate(inside, {"sh", "-c", std::string("exec ") + TOOL_PATH + " -copy " + list_ + " 2>&-"}));

    EXPECT_EQ(result.exitStatus, 0) << result.err;
    ExpectLogOfOneCopy("log/" + std::string(kLogName));
}

TEST_F(VCopyFileListIniProcessTest, LeavesOpenStandardStreamsAsTheyAre) {
    const ProcessResult result = RunInShell(
        "\"$@\"; echo out; echo err >&2", {"VLOGGER_DIRECTORY=" + scratch_.Path("log"), "VLOGGER_STDERR=1"});

    EXPECT_EQ(result.out, "out\n");
    EXPECT_THAT(result.err, HasSubstr("Successfully completed"));
    EXPECT_EQ(LinesOf(result.err).back(), "err");
}

TEST_F(VCopyFileListIniProcessTest, KeepsNoDescriptorButThatOfTheLog) {
    if (VFS_TEST_EMULATED) GTEST_SKIP() << "the emulator opens files of its own";
    if (VFS_TEST_ADDRESS_SANITIZER || VFS_TEST_THREAD_SANITIZER)
        GTEST_SKIP() << "the sanitizer needs descriptors for its own checks";
    // The standard streams, the log, and a source and its copy; what the tests' caller has left open is
    // closed.
    const ProcessResult result =
        RunInShell("exec 3<&- 4<&- 5<&- 6<&- 7<&- 8<&- 9<&- && ulimit -n 6 && exec \"$@\"",
                   {"VLOGGER_DIRECTORY=" + scratch_.Path("log")});

    EXPECT_EQ(result.exitStatus, 0) << result.err;
    ExpectLogOfOneCopy("log/" + std::string(kLogName));
}

TEST_F(VCopyFileListIniProcessTest, LogsIntoItsFixedDirectory) {
    SKIP_WITHOUT_PRIVATE_NAMESPACE();
    const std::vector<std::string> inside =
        PrivateNamespace({"--tmpfs", "/var/log", "--bind", scratch_.Path(), scratch_.Path()});
    const std::string script =
        std::string(TOOL_PATH) + " -copy " + list_ + " && cat " + kLogDirectory + kLogName;

    const ProcessResult result = RunProcess(Concatenate(inside, {"sh", "-c", script}));

    EXPECT_EQ(result.exitStatus, 0) << result.err;
    const std::vector<std::string> log = LinesOf(result.out);
    ASSERT_EQ(log.size(), 6U);
    EXPECT_THAT(log[0], HasSubstr("[GetPathSectionMap] PackageIntallType : Server ("));
    EXPECT_THAT(log[5], HasSubstr("[main]             Successfully completed ("));
}

TEST_F(VCopyFileListIniProcessTest, NoticesAFullDiskByTheSizes) {
    SKIP_WITHOUT_PRIVATE_NAMESPACE();
    // The copy itself reports nothing: what is lost is in the destination's buffer when it is closed.
    scratch_.Write("pkg/Common/bin/tool", std::string(3000, 'n'));
    scratch_.MakeDirectory("full");
    scratch_.Write("pkg/filelist.ini", "[Package_Intall_Type]\nPackageIntallType=Server\n[Server]\nBin=" +
                                           scratch_.Path("full") + "\n[Bin]\nf=bin/tool\n");
    const std::vector<std::string> inside =
        PrivateNamespace({"--bind", scratch_.Path(), scratch_.Path(), "--size", "4096", "--tmpfs",
                          scratch_.Path("full"), "--setenv", "VLOGGER_DIRECTORY", scratch_.Path("log")});
    const std::string script = "head -c 4096 /dev/zero > " + scratch_.Path("full/filler") + "; exec " +
                               TOOL_PATH + " -copy " + list_;

    const ProcessResult result = RunProcess(Concatenate(inside, {"sh", "-c", script}));

    EXPECT_EQ(result.exitStatus, 240) << result.err;
    const std::string log = scratch_.Read("log/" + std::string(kLogName));
    EXPECT_THAT(log, HasSubstr("copy: "));
    EXPECT_THAT(log, HasSubstr("inFileSize:3000\xef\xbc\x8coutFileSize:0"));
}

}  // namespace
