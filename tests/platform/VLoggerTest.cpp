#include "VLogger.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <climits>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "CapturedStandardError.h"
#include "OrdinaryUser.h"
#include "OwnProcess.h"
#include "Sanitizer.h"
#include "ScratchDirectory.h"
#include "ShortMemory.h"

namespace fs = std::filesystem;

namespace {

using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::EndsWith;
using testing::Ge;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::Not;
using testing::SizeIs;

// The variable of a test that needs a process of its own.
constexpr char kLastLine[] = "VLOGGER_TEST_LAST_LINE";

// The logger asks once in a process what kind of terminal it runs on.
const bool terminalIsKnown = setenv("TERM", "xterm", 1) == 0;

VLogger& Logger() {
    return *VLogger::GetInstance();
}

// A macro, so that the compiler sees the format.
#define LOG_LINE(...) Logger().Log("BaseAPI/file.cpp", 42, "Function", " ", "", kLogLevelError, __VA_ARGS__)

void LogText(const std::string& text) {
    Logger().Log("BaseAPI/file.cpp", 42, "Function", " ", "", kLogLevelError, "%s", text.c_str());
}

// Opens the log NAME in a directory, with the text alone in its lines.
void StartIn(const std::string& directory, const char* fileName = "a.log", unsigned long maxFileKiB = 1024) {
    Logger().StartSystem(fileName, directory.c_str(), 3, 0, kLogLevelInformation, maxFileKiB, false);
}

// Is destroyed after all that the logger and its library have built since the start of the program.
struct LoggerOfTheLastLine {
    ~LoggerOfTheLastLine() {
        if (const char* const line = std::getenv(kLastLine)) LogText(line);
    }
} const loggerOfTheLastLine;

std::vector<std::string> Lines(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) lines.push_back(line);
    return lines;
}

long OpenDescriptors() {
    return std::distance(fs::directory_iterator("/proc/self/fd"), {});
}

class VLoggerTest : public testing::Test {
protected:
    VLoggerTest() {
        unsetenv("VLOGGER_STDERR");
        unsetenv("VLOGGER_DIRECTORY");
    }
    ~VLoggerTest() override {
        Logger().StopSystem();
        unsetenv("VLOGGER_STDERR");
        unsetenv("VLOGGER_DIRECTORY");
    }

    // Opens a.log in the directory "log".
    void Start(int detail = 0, LogLevel maxLevel = kLogLevelInformation, int fileCount = 3,
               unsigned long maxFileKiB = 1024, bool alsoOnStandardError = false) const {
        Logger().StartSystem("a.log", scratch_.Path("log").c_str(), fileCount, detail, maxLevel, maxFileKiB,
                             alsoOnStandardError);
    }
    std::string Log() const { return scratch_.Read("log/a.log"); }

    const ScratchDirectory scratch_;
};

TEST_F(VLoggerTest, ThereIsOneInstance) {
    EXPECT_NE(VLogger::GetInstance(), nullptr);
    EXPECT_EQ(VLogger::GetInstance(), VLogger::GetInstance());
}

TEST_F(VLoggerTest, MakesTheDirectoryWithItsParents) {
    StartIn(scratch_.Path("one/two/three"));
    LOG_LINE("text");

    EXPECT_EQ(scratch_.Read("one/two/three/a.log"), "text\n");
}

TEST_F(VLoggerTest, TakesADirectoryThatEndsInASlash) {
    StartIn(scratch_.Path("log") + "/");
    LOG_LINE("text");

    EXPECT_EQ(Log(), "text\n");
}

TEST_F(VLoggerTest, WithoutADirectoryLogsIntoTheWorkingDirectory) {
    const WorkingDirectory workingDirectory(scratch_.Path());

    Logger().StartSystem("null.log", nullptr, 3, 0, kLogLevelInformation, 1024, false);
    LOG_LINE("null");
    Logger().StartSystem("empty.log", "", 3, 0, kLogLevelInformation, 1024, false);
    LOG_LINE("empty");

    EXPECT_EQ(scratch_.Read("null.log"), "null\n");
    EXPECT_EQ(scratch_.Read("empty.log"), "empty\n");
}

TEST_F(VLoggerTest, AppendsOverRestarts) {
    Start();
    LOG_LINE("first");
    Logger().StopSystem();
    Start();
    LOG_LINE("second");

    EXPECT_EQ(Log(), "first\nsecond\n");
}

TEST_F(VLoggerTest, ALineIsInTheFileWhenTheCallReturns) {
    Start();
    LOG_LINE("text");

    EXPECT_EQ(Log(), "text\n");
}

TEST_F(VLoggerTest, DetailZeroIsTheTextAlone) {
    Start(0);
    LOG_LINE("text %d", 7);
    Logger().StopSystem();
    Start(-1);
    LOG_LINE("more");

    EXPECT_EQ(Log(), "text 7\nmore\n");
}

TEST_F(VLoggerTest, DetailOneAddsTimeAndLevel) {
    Start(1);
    LOG_LINE("text");

    EXPECT_THAT(
        Log(), MatchesRegex("[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3} error text\n"));
}

TEST_F(VLoggerTest, DetailTwoAddsFunctionAndSourceLine) {
    Start(2);
    LOG_LINE("text");
    Logger().Log("file", 0, "F", " ", "", kLogLevelInformation, "no line");
    Logger().StopSystem();
    Start(3);
    LOG_LINE("text");

    EXPECT_THAT(Lines(Log()), ElementsAre(EndsWith(" error [Function] text (BaseAPI/file.cpp:42)"),
                                          EndsWith(" info  [F] no line (file:0)"),
                                          EndsWith(" error [Function] text (BaseAPI/file.cpp:42)")));
}

TEST_F(VLoggerTest, NamesTheLevels) {
    Start(1, static_cast<LogLevel>(9));
    for (const int level : {-1, 0, 1, 2, 3, 4, 9})
        Logger().Log("f", 1, "F", " ", "", static_cast<LogLevel>(level), "%d", level);

    EXPECT_THAT(Lines(Log()), ElementsAre(EndsWith(" error -1"), EndsWith(" error 0"), EndsWith(" error 1"),
                                          EndsWith(" warning 2"), EndsWith(" info  3"), EndsWith(" info  4"),
                                          EndsWith(" info  9")));
}

TEST_F(VLoggerTest, DropsLinesAboveTheHighestLevel) {
    Start(0, kLogLevelWarning);
    for (const int level : {0, 1, 2, 3, 4})
        Logger().Log("f", 1, "F", " ", "", static_cast<LogLevel>(level), "%d", level);

    EXPECT_EQ(Log(), "0\n1\n2\n");
}

TEST_F(VLoggerTest, RotatesBeforeTheFileWouldGrowTooLongAndKeepsSoManyFiles) {
    Start(0, kLogLevelInformation, 3, 1);
    for (char name = 'a'; name <= 'h'; ++name) LogText(std::string(511, name));  // two of them are 1 KiB

    EXPECT_THAT(scratch_.List("log"), ElementsAre("a.1.log", "a.2.log", "a.log"));
    EXPECT_EQ(Log(), std::string(511, 'g') + "\n" + std::string(511, 'h') + "\n");
    EXPECT_EQ(scratch_.Read("log/a.1.log"), std::string(511, 'e') + "\n" + std::string(511, 'f') + "\n");
    EXPECT_EQ(scratch_.Read("log/a.2.log"), std::string(511, 'c') + "\n" + std::string(511, 'd') + "\n");
}

TEST_F(VLoggerTest, CountsWhatAnEarlierRunWrote) {
    Start(0, kLogLevelInformation, 3, 1);
    LogText(std::string(1000, 'a'));
    Logger().StopSystem();
    Start(0, kLogLevelInformation, 3, 1);
    LogText(std::string(30, 'b'));

    EXPECT_EQ(Log(), std::string(30, 'b') + "\n");
    EXPECT_EQ(scratch_.Read("log/a.1.log"), std::string(1000, 'a') + "\n");
}

TEST_F(VLoggerTest, AFileCountBelowTwoKeepsTheCurrentFileOnly) {
    for (const int fileCount : {1, 0, INT_MIN}) {
        Start(0, kLogLevelInformation, fileCount, 1);
        LogText(std::string(1023, 'a'));
        LOG_LINE("after %d", fileCount);

        EXPECT_THAT(scratch_.List("log"), ElementsAre("a.log"));
        EXPECT_EQ(Log(), "after " + std::to_string(fileCount) + "\n");
    }
}

TEST_F(VLoggerTest, ASizeOfZeroCountsAsOneKiB) {
    Start(0, kLogLevelInformation, 3, 0);
    LogText(std::string(1000, 'a'));
    LogText(std::string(22, 'b'));
    LogText("c");

    EXPECT_EQ(scratch_.Read("log/a.1.log"), std::string(1000, 'a') + "\n" + std::string(22, 'b') + "\n");
    EXPECT_EQ(Log(), "c\n");
}

TEST_F(VLoggerTest, TakesTheLargestCountAndSizes) {
    for (const unsigned long maxFileKiB : {ULONG_MAX, 1UL << 54, (1UL << 54) + 1}) {
        Start(0, kLogLevelInformation, INT_MAX, maxFileKiB);
        LogText(std::string(3000, 'a'));
        LOG_LINE("end");

        EXPECT_THAT(scratch_.List("log"), ElementsAre("a.log"));
        EXPECT_THAT(Log(), EndsWith("a\nend\n"));
    }
}

TEST_F(VLoggerTest, KeepsAThousandFilesAtMost) {
    scratch_.Write("log/a.998.log", "998");
    scratch_.Write("log/a.999.log", "999");
    Start(0, kLogLevelInformation, INT_MAX, 1);
    LogText(std::string(1023, 'a'));
    LOG_LINE("rotates");

    EXPECT_THAT(scratch_.List("log"), ElementsAre("a.1.log", "a.999.log", "a.log"));
    EXPECT_EQ(scratch_.Read("log/a.999.log"), "998");
}

TEST_F(VLoggerTest, ALineLongerThanTheFileSizeIsWholeInAFileOfItsOwn) {
    Start(0, kLogLevelInformation, 9, 1);
    LOG_LINE("before");
    LogText(std::string(100 * 1024, 'x') + "end");
    LOG_LINE("after");

    EXPECT_EQ(scratch_.Read("log/a.2.log"), "before\n");
    EXPECT_EQ(scratch_.Read("log/a.1.log"), std::string(100 * 1024, 'x') + "end\n");
    EXPECT_EQ(Log(), "after\n");
}

TEST_F(VLoggerTest, EscapesControlCharacters) {
    Start();
    LogText(
        "a\nb\rc\td\x1b[31me\x7f"
        "f\x01\x1fg\v\b");
    LOG_LINE("nul%cend", '\0');

    EXPECT_EQ(Log(), "a\\nb\\rc\\td\\x1b[31me\\x7ff\\x01\\x1fg\\x0b\\x08\nnul\\x00end\n");
}

TEST_F(VLoggerTest, EscapesControlCharactersAsUtf8WritesThem) {
    Start();
    LogText(
        "\xc2\x9b"
        "31m\xc2\x80\xc2\x9f\xc2\x85.");

    EXPECT_EQ(Log(), "\\xc2\\x9b31m\\xc2\\x80\\xc2\\x9f\\xc2\\x85.\n");
}

TEST_F(VLoggerTest, KeepsTextInUtf8) {
    // The first and the last characters of each length, and on both sides of the surrogates.
    const std::string texts[] = {"path\xef\xbc\x8cnext",  // a full-width comma
                                 " ~\xc2\xa0\xc2\xbf\xc3\x80\xdf\xbf",
                                 "\xe0\xa0\x80\xe1\x80\x80\xec\xbf\xbf\xed\x9f\xbf\xee\x80\x80\xef\xbf\xbf",
                                 "\xf0\x90\x80\x80\xf1\x80\x80\x80\xf3\xbf\xbf\xbf\xf4\x8f\xbf\xbf",
                                 "%s %n {} {0}"};
    Start();
    std::string expected;
    for (const std::string& text : texts) {
        LogText(text);
        expected += text + "\n";
    }

    EXPECT_EQ(Log(), expected);
}

TEST_F(VLoggerTest, EscapesBytesThatAreNotUtf8) {
    const struct {
        std::string text;
        std::string shown;
    } rows[] = {{"\xe4\xf6\xfc.", "\\xe4\\xf6\\xfc."},                  // another encoding
                {"\x9b\x80", "\\x9b\\x80"},                             // its control characters
                {"\xc1\xbf", "\\xc1\\xbf"},                             // too long a form
                {"\xe0\x9f\xbf", "\\xe0\\x9f\\xbf"},                    // the same
                {"\xf0\x8f\xbf\xbf", "\\xf0\\x8f\\xbf\\xbf"},           // the same
                {"\xed\xa0\x80", "\\xed\\xa0\\x80"},                    // a surrogate
                {"\xf4\x90\x80\x80", "\\xf4\\x90\\x80\\x80"},           // beyond the last character
                {"\xf5\x80\x80\x80\xff", "\\xf5\\x80\\x80\\x80\\xff"},  // the same
                {"\xc3.\xe1\x80.\xe1\x80\xc0", "\\xc3.\\xe1\\x80.\\xe1\\x80\\xc0"},
                {"\xf1\x80\x80.", "\\xf1\\x80\\x80."},
                {"\xc3\xa9\xf1\x80\x80", "\xc3\xa9\\xf1\\x80\\x80"},  // cut short
                {"\xc3", "\\xc3"}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.shown);
        scratch_.Write("log/a.log", "");
        Start();
        LogText(row.text);
        EXPECT_EQ(Log(), row.shown + "\n");
    }
}

TEST_F(VLoggerTest, DoublesBackslashesSoThatAnEscapeCanBeToldFromItsLikeness) {
    Start(2);
    LogText("lib\\one.so \\n\n\\");
    Logger().Log("a\\b.cpp", 7, "A\\B", " ", "", kLogLevelError, "text");

    EXPECT_THAT(Lines(Log()),
                ElementsAre(EndsWith(" error [Function] lib\\\\one.so \\\\n\\n\\\\ (BaseAPI/file.cpp:42)"),
                            EndsWith(" error [A\\\\B] text (a\\\\b.cpp:7)")));
}

TEST_F(VLoggerTest, DropsOneFinalLineFeed) {
    Start();
    LOG_LINE("text\n");
    LOG_LINE("two\n\n");
    LOG_LINE("\n");
    LOG_LINE("%s", "");

    EXPECT_EQ(Log(), "text\ntwo\\n\n\n\n");
}

TEST_F(VLoggerTest, EscapesControlCharactersOfFunctionAndFile) {
    Start(2);
    Logger().Log("f\x1bile\n", 7, "Fun\nction\n", " ", "", kLogLevelError, "text");

    EXPECT_THAT(Lines(Log()), ElementsAre(EndsWith(" error [Fun\\nction\\n] text (f\\x1bile\\n:7)")));
}

TEST_F(VLoggerTest, DoesNotShowModuleAndTag) {
    Start(2);
    Logger().Log("file", 7, "F", "module", "tag", kLogLevelError, "text");
    Logger().Log("file", 8, "F", nullptr, nullptr, kLogLevelError, "text");

    EXPECT_THAT(Lines(Log()),
                ElementsAre(EndsWith(" error [F] text (file:7)"), EndsWith(" error [F] text (file:8)")));
}

TEST_F(VLoggerTest, ShowsNullTexts) {
    const char* volatile nothing = nullptr;
    Start(2);
    LOG_LINE("text %s", nothing);
    Logger().Log(nullptr, 7, nullptr, " ", "", kLogLevelError, "text");

    EXPECT_THAT(Lines(Log()), ElementsAre(EndsWith("] text (null) (BaseAPI/file.cpp:42)"),
                                          EndsWith(" error [(null)] text ((null):7)")));
}

TEST_F(VLoggerTest, ANullFormatWritesNothing) {
    // Without the attribute by which the compiler would refuse a null format.
    void (VLogger::*const log)(const char*, int, const char*, const char*, const char*, LogLevel, const char*,
                               ...) = &VLogger::Log;
    Start();
    const CapturedStandardError standardError;
    (Logger().*log)("file", 42, "Function", " ", "", kLogLevelError, nullptr);

    EXPECT_EQ(Log(), "");
    EXPECT_EQ(standardError.Text(), "");
}

TEST_F(VLoggerTest, ATextThatCannotBeFormattedIsShownAsItsFormat) {
    Start();
    LOG_LINE("text %lc\n", static_cast<wint_t>(0xdfff));

    EXPECT_EQ(Log(), "text %lc\n");
}

TEST_F(VLoggerTest, WritesALongLineWhole) {
    std::string text;
    for (int i = 0; text.size() < 100 * 1024; ++i) text += std::to_string(i) + ",";
    Start();
    LogText(text);
    LogText("after");

    EXPECT_EQ(Log(), text + "\nafter\n");
}

TEST_F(VLoggerTest, LinesBeforeTheStartAndAfterTheStopGoNowhere) {
    const CapturedStandardError standardError;

    LOG_LINE("before");
    Start();
    LOG_LINE("between");
    Logger().StopSystem();
    LOG_LINE("after");
    Logger().StopSystem();

    EXPECT_EQ(Log(), "between\n");
    EXPECT_EQ(standardError.Text(), "");
}

TEST_F(VLoggerTest, ASecondStartClosesTheFirstLog) {
    Start();
    LOG_LINE("first");
    const long before = OpenDescriptors();

    StartIn(scratch_.Path("other"), "b.log");
    LOG_LINE("second");

    EXPECT_EQ(Log(), "first\n");
    EXPECT_EQ(scratch_.Read("other/b.log"), "second\n");
    EXPECT_EQ(OpenDescriptors(), before);
}

TEST_F(VLoggerTest, ASecondStartNeedsNoSecondDescriptor) {
    if (VFS_TEST_ADDRESS_SANITIZER) GTEST_SKIP() << "a sanitizer opens pipes of its own";
    Start();
    const int nextDescriptor = open("/dev/null", O_RDONLY | O_CLOEXEC);
    close(nextDescriptor);
    rlimit before;
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
    const rlimit noMore = {static_cast<rlim_t>(nextDescriptor), before.rlim_max};

    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &noMore), 0);
    StartIn(scratch_.Path("other"));
    LOG_LINE("text");
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);

    EXPECT_EQ(scratch_.Read("other/a.log"), "text\n");
}

TEST_F(VLoggerTest, ASecondStartThatFailsLeavesNoLogOpen) {
    Start();
    scratch_.Write("file", "");
    const CapturedStandardError standardError;

    StartIn(scratch_.Path("file"), "b.log");
    LOG_LINE("text");

    EXPECT_EQ(Log(), "");
}

TEST_F(VLoggerTest, LeavesNoDescriptorOpenAfterTheStop) {
    const long before = OpenDescriptors();

    Start(0, kLogLevelInformation, 3, 1);
    for (int i = 0; i < 5; ++i) LogText(std::string(1000, 'x'));
    ASSERT_EQ(OpenDescriptors(), before + 1);
    Logger().StopSystem();

    EXPECT_EQ(OpenDescriptors(), before);
}

TEST_F(VLoggerTest, NoChildProcessInheritsTheLog) {
    Start(0, kLogLevelInformation, 3, 1);
    LOG_LINE("text");
    const ProcessResult afterStart = RunProcess({"ls", "-l", "/proc/self/fd"});
    LogText(std::string(1020, 'x'));
    ASSERT_TRUE(scratch_.Has("log/a.1.log"));
    const ProcessResult afterRotation = RunProcess({"ls", "-l", "/proc/self/fd"});

    EXPECT_THAT(afterStart.out, HasSubstr("/dev/null"));
    EXPECT_THAT(afterStart.out, Not(HasSubstr(scratch_.Path())));
    EXPECT_THAT(afterRotation.out, HasSubstr("/dev/null"));
    EXPECT_THAT(afterRotation.out, Not(HasSubstr(scratch_.Path())));
}

TEST_F(VLoggerTest, EndsALineThatAnEarlierRunLeftTorn) {
    scratch_.Write("log/a.log", "whole\nto");
    Start();
    LOG_LINE("next");
    LOG_LINE("last");

    EXPECT_EQ(Log(), "whole\nto\nnext\nlast\n");
}

TEST_F(VLoggerTest, SaysOnceThatTheDirectoryIsAFile) {
    scratch_.Write("log", "content");
    const CapturedStandardError standardError;

    Start();
    LOG_LINE("one");
    LOG_LINE("two");
    Logger().StopSystem();

    EXPECT_EQ(standardError.Text(), "VLogger: Failed opening file " + scratch_.Path("log/a.log") +
                                        " for writing: Not a directory\n");
    EXPECT_EQ(scratch_.Read("log"), "content");
}

TEST_F(VLoggerTest, SaysThatALogWithoutANameCannotBeOpened) {
    const CapturedStandardError standardError;

    Logger().StartSystem(nullptr, scratch_.Path().c_str(), 3, 0, kLogLevelInformation, 1024, false);
    LOG_LINE("text");

    EXPECT_EQ(standardError.Text(),
              "VLogger: Failed opening file " + scratch_.Path() + "/ for writing: Is a directory\n");
}

TEST_F(VLoggerTest, SaysThatTheDirectoryMayNotBeWritten) {
    scratch_.MakeDirectory("log");
    fs::permissions(scratch_.Path(), fs::perms(0755));
    fs::permissions(scratch_.Path("log"), fs::perms(0555));
    const CapturedStandardError standardError;
    {
        const OrdinaryUser ordinaryUser;
        Start();
        LOG_LINE("text");
    }

    EXPECT_EQ(standardError.Text(), "VLogger: Failed opening file " + scratch_.Path("log/a.log") +
                                        " for writing: Permission denied\n");
    EXPECT_THAT(scratch_.List("log"), IsEmpty());
}

TEST_F(VLoggerTest, SaysInOneLineThatAPathOfSeveralLinesCannotBeOpened) {
    scratch_.Write("a\nb\x1b", "");
    const CapturedStandardError standardError;

    StartIn(scratch_.Path("a\nb\x1b"));

    EXPECT_EQ(standardError.Text(), "VLogger: Failed opening file " + scratch_.Path("a\\nb\\x1b/a.log") +
                                        " for writing: Not a directory\n");
}

TEST_F(VLoggerTest, ALogThatCannotBeOpenedIsStillShownOnStandardError) {
    scratch_.Write("log", "");
    const CapturedStandardError standardError;

    Start(0, kLogLevelInformation, 3, 1024, true);
    LOG_LINE("text");

    EXPECT_THAT(standardError.Text(), EndsWith("Not a directory\ntext\n"));
}

TEST_F(VLoggerTest, SaysAtEachStartThatTheLogCannotBeOpened) {
    scratch_.Write("log", "");
    const CapturedStandardError standardError;

    Start();
    Start();

    EXPECT_THAT(Lines(standardError.Text()), SizeIs(2));
}

TEST_F(VLoggerTest, GivesUpTheFileWhenItsDirectoryBecomesAFile) {
    Start(0, kLogLevelInformation, 3, 1);
    LogText(std::string(1000, 'a'));
    fs::rename(scratch_.Path("log"), scratch_.Path("moved"));
    scratch_.Write("log", "");
    const CapturedStandardError standardError;

    LogText(std::string(1000, 'b'));  // rotates
    LOG_LINE("short");
    fs::remove(scratch_.Path("log"));
    LOG_LINE("too late");

    EXPECT_EQ(standardError.Text(), "VLogger: Failed opening file " + scratch_.Path("log/a.log") +
                                        " for writing: Not a directory\n");
    EXPECT_EQ(scratch_.Read("moved/a.log"), std::string(1000, 'a') + "\n");
    EXPECT_FALSE(scratch_.Has("log"));
}

TEST_F(VLoggerTest, LogsOnInANewDirectoryWhenItsOwnIsRemoved) {
    Start(0, kLogLevelInformation, 3, 1);
    LogText(std::string(1000, 'a'));
    fs::remove_all(scratch_.Path("log"));

    LogText(std::string(1000, 'b'));  // rotates
    LOG_LINE("short");

    EXPECT_EQ(Log(), std::string(1000, 'b') + "\nshort\n");
}

TEST_F(VLoggerTest, SaysOnceThatALineCannotBeWritten) {
    scratch_.MakeDirectory("log");
    scratch_.Link("log/a.log", "/dev/full");
    const long before = OpenDescriptors();
    const std::string path = scratch_.Path("log/a.log");
    {
        const CapturedStandardError standardError;
        Start();
        LOG_LINE("one");
        LOG_LINE("two");
        LogText(std::string(10000, 'x'));
        EXPECT_EQ(standardError.Text(),
                  "VLogger: Failed flush to file " + path + ": No space left on device\n");
    }
    Logger().StopSystem();

    EXPECT_EQ(OpenDescriptors(), before);
}

TEST_F(VLoggerTest, LogsOnOnceAFullDiskHasRoomAgain) {
    if (!InOwnProcess()) {
        SKIP_WITHOUT_PRIVATE_NAMESPACE();
        const std::string disk = scratch_.MakeDirectory("disk");
        const ProcessResult result =
            RunInOwnProcess(disk, PrivateNamespace({"--size", "65536", "--tmpfs", disk}), {"TMPDIR=/tmp"});
        EXPECT_PASSED(result);
        return;
    }

    const std::string disk = OwnProcessDirectory();
    const std::string path = disk + "/a.log";
    const std::string filler = disk + "/filler";
    const std::string line(99, 'x');
    StartIn(disk);
    LogText(line);
    std::ofstream(filler) << std::string(100000, 'f');
    std::string trouble;
    {
        const CapturedStandardError standardError;
        for (int i = 0; i < 100; ++i) LogText(line);
        trouble = standardError.Text();
    }
    const std::vector<std::string> linesOfTheFullDisk = Lines(ReadWholeFile(path));
    fs::remove(filler);
    LOG_LINE("after");
    LOG_LINE("last");

    EXPECT_EQ(trouble, "VLogger: Failed flush to file " + path + ": No space left on device\n");
    // A page of the disk was begun by the first line; 40 whole lines and most of one more fit into it.
    ASSERT_THAT(linesOfTheFullDisk, SizeIs(41));
    EXPECT_EQ(linesOfTheFullDisk[39], line);
    EXPECT_EQ(linesOfTheFullDisk[40], std::string(96, 'x'));
    const std::vector<std::string> lines = Lines(ReadWholeFile(path));
    ASSERT_THAT(lines, SizeIs(43));
    EXPECT_EQ(lines[40], std::string(96, 'x'));
    EXPECT_EQ(lines[41], "after");
    EXPECT_EQ(lines[42], "last");
}

TEST_F(VLoggerTest, ShowsNothingOnStandardErrorByItself) {
    const CapturedStandardError standardError;
    setenv("VLOGGER_STDERR", "0", 1);
    Start();
    LOG_LINE("text");
    setenv("VLOGGER_STDERR", "", 1);
    Start();
    LOG_LINE("text");
    unsetenv("VLOGGER_STDERR");
    Start();
    LOG_LINE("text");

    EXPECT_EQ(standardError.Text(), "");
    EXPECT_EQ(Log(), "text\ntext\ntext\n");
}

TEST_F(VLoggerTest, ShowsEveryLineOnStandardErrorOnRequest) {
    const CapturedStandardError standardError;
    Start(0, kLogLevelWarning, 3, 1024, true);
    LOG_LINE("a\nb");
    Logger().Log("f", 1, "F", " ", "", kLogLevelInformation, "dropped");

    EXPECT_EQ(standardError.Text(), "a\\nb\n");
    EXPECT_EQ(Log(), "a\\nb\n");
}

TEST_F(VLoggerTest, ShowsEveryLineOnStandardErrorWithoutColourIfTheEnvironmentSaysSo) {
    const CapturedStandardError standardError;
    setenv("VLOGGER_STDERR", "1", 1);
    Start(2);
    LOG_LINE("text");

    EXPECT_EQ(standardError.Text(), Log());
    EXPECT_THAT(Log(), EndsWith(" error [Function] text (BaseAPI/file.cpp:42)\n"));
    EXPECT_THAT(Log(), Not(HasSubstr("\x1b")));
}

TEST_F(VLoggerTest, ColoursTheLevelOnATerminal) {
    ASSERT_TRUE(terminalIsKnown);
    const int terminal = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    ASSERT_GE(terminal, 0);
    ASSERT_EQ(grantpt(terminal), 0);
    ASSERT_EQ(unlockpt(terminal), 0);
    char name[64];
    ASSERT_EQ(ptsname_r(terminal, name, sizeof(name)), 0);
    const int screen = open(name, O_RDWR | O_NOCTTY | O_CLOEXEC);
    ASSERT_GE(screen, 0);
    {
        const CapturedStandardError putsItBack;
        ASSERT_EQ(dup2(screen, STDERR_FILENO), STDERR_FILENO);
        setenv("VLOGGER_STDERR", "1", 1);
        Start(1);
        LOG_LINE("text");
    }
    close(screen);
    std::string shown;
    char block[1000];
    for (ssize_t size = 0; (size = read(terminal, block, sizeof(block))) > 0;)
        shown.append(block, static_cast<std::size_t>(size));
    close(terminal);

    EXPECT_THAT(shown, HasSubstr(" \x1b["));
    EXPECT_THAT(shown, EndsWith("merror\x1b[m text\r\n"));
    EXPECT_THAT(Log(), Not(HasSubstr("\x1b")));
    EXPECT_THAT(Log(), EndsWith(" error text\n"));
}

TEST_F(VLoggerTest, TheEnvironmentPutsTheLogElsewhere) {
    setenv("VLOGGER_DIRECTORY", scratch_.Path("other/place").c_str(), 1);
    Start();
    LOG_LINE("text");

    EXPECT_EQ(scratch_.Read("other/place/a.log"), "text\n");
    EXPECT_FALSE(scratch_.Has("log"));
}

TEST_F(VLoggerTest, AnEmptyDirectoryInTheEnvironmentIsNone) {
    setenv("VLOGGER_DIRECTORY", "", 1);
    Start();
    LOG_LINE("text");

    EXPECT_EQ(Log(), "text\n");
}

TEST_F(VLoggerTest, ThreadsWriteWholeLines) {
    Start();
    std::vector<std::thread> threads;
    for (int thread = 0; thread < 8; ++thread) {
        threads.emplace_back([thread] {
            for (int i = 0; i < 500; ++i)
                LogText(std::string(200, static_cast<char>('a' + thread)) + std::to_string(i));
        });
    }
    for (std::thread& thread : threads) thread.join();

    std::map<char, int> next;
    const std::vector<std::string> lines = Lines(Log());
    ASSERT_THAT(lines, SizeIs(4000));
    for (const std::string& line : lines) {
        const char name = line[0];
        ASSERT_TRUE(name >= 'a' && name <= 'h') << line;
        ASSERT_EQ(line, std::string(200, name) + std::to_string(next[name]++));
    }
}

TEST_F(VLoggerTest, ThreadsRotateAndLoseNoLine) {
    Start(0, kLogLevelInformation, 1000, 1);
    std::vector<std::thread> threads;
    for (int thread = 0; thread < 4; ++thread) {
        threads.emplace_back([] {
            for (int i = 0; i < 50; ++i) LogText(std::string(255, 'x'));
        });
    }
    for (std::thread& thread : threads) thread.join();

    const std::vector<std::string> files = scratch_.List("log");
    EXPECT_THAT(files, SizeIs(50));
    const std::string line = std::string(255, 'x') + "\n";
    for (const std::string& file : files) EXPECT_EQ(scratch_.Read("log/" + file), line + line + line + line);
}

TEST_F(VLoggerTest, ThreadsStartStopAndLogAtOnce) {
    const long before = OpenDescriptors();
    std::vector<std::thread> threads;
    for (int thread = 0; thread < 6; ++thread) {
        threads.emplace_back([this, thread] {
            for (int i = 0; i < 50; ++i) {
                if (thread == 0) Start();
                if (thread == 1) Start(0, kLogLevelWarning);
                if (thread == 2) Logger().StopSystem();
                LogText(std::string(200, 'x'));
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    Logger().StopSystem();

    EXPECT_THAT(Lines(Log()), Each(std::string(200, 'x')));
    EXPECT_EQ(OpenDescriptors(), before);
}

TEST_F(VLoggerTest, NothingThrowsWithoutAnyMemoryFromTheFirstCallOn) {
    if (!heap::IsCounted()) GTEST_SKIP() << "the heap is not the tests' own";
    if (!InOwnProcess()) {
        const ProcessResult result = RunInOwnProcess(scratch_.Path());
        EXPECT_PASSED(result);
        EXPECT_EQ(result.err, "VLogger: std::bad_alloc\n");
        return;
    }

    const std::string directory = OwnProcessDirectory();
    const long before = heap::Allocations();
    {
        const ShortMemory memory(0);
        EXPECT_NE(VLogger::GetInstance(), nullptr);
        LOG_LINE("before the start");
        Logger().StopSystem();
        EXPECT_FALSE(memory.HasFailed());
        StartIn(directory);
        EXPECT_TRUE(memory.HasFailed());
        LOG_LINE("without a log");
        Logger().StopSystem();
    }
    EXPECT_EQ(heap::Allocations(), before);
}

TEST_F(VLoggerTest, StartsOrSaysWhyNotAtEachAllocationThatFails) {
    if (!heap::IsCounted()) GTEST_SKIP() << "the heap is not the tests' own";
    const std::string directory = scratch_.Path("log");
    const long descriptors = OpenDescriptors();
    bool isDone = false;
    for (long successes = 0; !isDone; ++successes) {
        SCOPED_TRACE(successes);
        const CapturedStandardError standardError;
        {
            const ShortMemory memory(successes);
            StartIn(directory);
            isDone = !memory.HasFailed();
        }
        EXPECT_EQ(standardError.Text() != "", !isDone);
        Logger().StopSystem();
    }
    EXPECT_EQ(OpenDescriptors(), descriptors);
}

TEST_F(VLoggerTest, LosesALineWithoutMemoryAndSaysSoOnce) {
    if (!heap::IsCounted()) GTEST_SKIP() << "the heap is not the tests' own";
    const std::string text = std::string(500, 'x') + "\x1b";
    bool isDone = false;
    for (long successes = 0; !isDone; ++successes) {
        SCOPED_TRACE(successes);
        const CapturedStandardError standardError;
        Start(2, kLogLevelInformation, 3, 1024, false);
        {
            const ShortMemory memory(successes);
            LogText(text);
            isDone = !memory.HasFailed();
            LogText(text);
        }
        EXPECT_EQ(standardError.Text(), "VLogger: std::bad_alloc\n");
        LOG_LINE("after %ld", successes);
        EXPECT_THAT(Log(), EndsWith(" error [Function] after " + std::to_string(successes) +
                                    " (BaseAPI/file.cpp:42)\n"));
        Logger().StopSystem();
    }
}

TEST_F(VLoggerTest, LogsOnOnceARotationHasMemoryAgain) {
    if (!heap::IsCounted()) GTEST_SKIP() << "the heap is not the tests' own";
    const long before = OpenDescriptors();
    const std::string text(1000, 'b');
    bool isDone = false;
    for (long successes = 0; !isDone; ++successes) {
        SCOPED_TRACE(successes);
        const CapturedStandardError* const standardError = new CapturedStandardError;
        scratch_.Write("log/a.log", "");
        Start(0, kLogLevelInformation, 2, 1);
        LogText(std::string(1000, 'a'));
        {
            const ShortMemory memory(successes);
            LogText(text);  // rotates
            isDone = !memory.HasFailed();
            LogText("short");
        }
        LOG_LINE("after");
        const bool isLost = standardError->Text() != "";
        EXPECT_THAT(Log(), EndsWith("after\n"));
        EXPECT_EQ(Log().find(text) == std::string::npos, isLost);
        EXPECT_EQ(standardError->Text(), isLost ? "VLogger: std::bad_alloc\n" : "");
        Logger().StopSystem();
        delete standardError;
    }
    EXPECT_EQ(OpenDescriptors(), before);
}

// The log has to be opened by an exit handler: the end of a test closes it.
TEST_F(VLoggerTest, ExitHandlersAndStaticDestructorsMayLog) {
    if (InOwnProcess()) {
        StartIn(OwnProcessDirectory());
        LOG_LINE("from the test");
        atexit([] {
            StartIn(OwnProcessDirectory());
            LOG_LINE("from an exit handler");
        });
        return;
    }

    const ProcessResult result =
        RunInOwnProcess(scratch_.Path("log"), {}, {std::string(kLastLine) + "=from a destructor"});

    EXPECT_PASSED(result);
    EXPECT_EQ(Log(), "from the test\nfrom an exit handler\nfrom a destructor\n");
}

TEST_F(VLoggerTest, AThreadMayLogWhileTheProcessExits) {
    if (InOwnProcess()) {
        atexit([] {
            static std::atomic<bool> hasLogged{false};
            StartIn(OwnProcessDirectory(), "a.log", ULONG_MAX);
            std::thread([] {
                while (true) {
                    LogText("from a thread");
                    hasLogged = true;
                }
            }).detach();
            while (!hasLogged) std::this_thread::yield();
        });
        return;
    }

    for (int run = 0; run < 3; ++run) {
        const ProcessResult result =
            RunInOwnProcess(scratch_.Path("log"), {}, {std::string(kLastLine) + "=last"});
        EXPECT_PASSED(result);
    }

    const std::vector<std::string> lines = Lines(Log());
    EXPECT_THAT(lines, Contains("last").Times(3));
    EXPECT_THAT(lines, Contains("from a thread").Times(Ge(3)));
    // The kernel may cut the thread's last line short: it ends a write between two pages.
    const std::string whole = "from a thread";
    for (const std::string& line : lines)
        ASSERT_TRUE(line == "last" || whole.compare(0, line.size(), line) == 0) << line;
}

}  // namespace
