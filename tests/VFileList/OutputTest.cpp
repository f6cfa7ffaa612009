#include "Output.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <string>

#include "Report.h"
#include "SystemCalls.h"

namespace {

// Everything is a terminal, or nothing.
auto Terminal(bool isTerminal) {
    return [isTerminal](int) { return isTerminal ? 1 : 0; };
}

// Does something after a progress line has been written, and tells what standard error has then.
template <typename Act>
std::string AfterProgress(Act act) {
    const Replaced terminal(calls::isatty, Terminal(true));
    const Variable term("TERM", "xterm");
    timespec now{1000, 0};
    const Replaced clock(calls::clock_gettime, [&now](clockid_t, timespec* time) {
        *time = now;
        return 0;
    });
    Output output(false);
    now.tv_sec += 1;
    testing::internal::CaptureStderr();
    output.Progress("plan", 1, 3);
    act(output);
    return testing::internal::GetCapturedStderr();
}

// What a progress line of two steps, `milliseconds` apart, writes to standard error.
std::string ProgressAfter(long milliseconds) {
    timespec now{1000, 0};
    const Replaced replaced(calls::clock_gettime, [&now](clockid_t, timespec* time) {
        *time = now;
        return 0;
    });
    testing::internal::CaptureStderr();
    {
        Output output(true);
        output.Progress("verify", 1, 9);
        now.tv_sec += milliseconds / 1000;
        now.tv_nsec += milliseconds % 1000 * 1000000;
        output.Progress("verify", 2, 9);
    }
    return testing::internal::GetCapturedStderr();
}

TEST(OutputTest, EscapesWhatSteersATerminal) {
    EXPECT_EQ(Shown("plain text, Zürich"), "plain text, Zürich");
    EXPECT_EQ(Shown("a\nb\tc\033[2J\x7f"), "a\\x0ab\\x09c\\x1b[2J\\x7f");
    EXPECT_EQ(Shown("\xc2\x9b"
                    "31m"),
              "\\xc2\\x9b"
              "31m")
        << "the second kind of control characters";
    EXPECT_EQ(Shown("\xc2\xa0"), "\xc2\xa0") << "no control character";
    EXPECT_EQ(Shown(std::string("\0", 1)), "\\x00");
    EXPECT_EQ(Shown("€ and 😀"), "€ and 😀");
    for (const char* const edge : {"\x7e", "\xc2\xa0", "\xdf\xbf", "\xe0\xa0\x80", "\xed\x9f\xbf",
                                   "\xee\x80\x80", "\xef\xbf\xbf", "\xf0\x90\x80\x80", "\xf4\x8f\xbf\xbf"}) {
        EXPECT_EQ(Shown(edge), edge)
            << "the first or last character of its length, or beside those of UTF-16";
    }
}

TEST(OutputTest, EscapesWhatIsNotUtf8) {
    const struct {
        const char* text;
        const char* shown;
    } cases[] = {
        {"\x9b", "\\x9b"},                             // a control character in other encodings
        {"\xc2", "\\xc2"},                             // cut off
        {"\xe2\x82", "\\xe2\\x82"},                    //
        {"\xc3(", "\\xc3("},                           // a lead byte without its second one
        {"\xc0\xaf", "\\xc0\\xaf"},                    // longer than need be
        {"\xe0\x80\xaf", "\\xe0\\x80\\xaf"},           //
        {"\xf0\x80\x80\xaf", "\\xf0\\x80\\x80\\xaf"},  //
        {"\xed\xa0\x80", "\\xed\\xa0\\x80"},           // half of a pair of UTF-16
        {"\xf4\x90\x80\x80", "\\xf4\\x90\\x80\\x80"},  // beyond Unicode
        {"\xf8\x90\x80\x80", "\\xf8\\x90\\x80\\x80"},  // a lead byte of more than four
        {"\xff\xfe", "\\xff\\xfe"},
    };
    for (const auto& row : cases) EXPECT_EQ(Shown(row.text), row.shown);
}

TEST(OutputTest, ShowsSizesInAFewColumns) {
    EXPECT_EQ(ShownSize(0), "0 B");
    EXPECT_EQ(ShownSize(1023), "1023 B");
    EXPECT_EQ(ShownSize(1024), "1.0 KiB");
    EXPECT_EQ(ShownSize(1536), "1.5 KiB");
    EXPECT_EQ(ShownSize(1024ULL * 999), "999.0 KiB");
    EXPECT_EQ(ShownSize(1024ULL * 1000), "1.0 MiB");
    EXPECT_EQ(ShownSize(1024ULL * 1023), "1.0 MiB");
    EXPECT_EQ(ShownSize(5ULL << 30), "5.0 GiB");
    EXPECT_EQ(ShownSize(~0ULL), "16.0 EiB");
}

TEST(OutputTest, AlignsAndCounts) {
    EXPECT_EQ(Padded("ab", 4), "ab  ");
    EXPECT_EQ(Padded("abcde", 4), "abcde");
    EXPECT_EQ(RightAligned("ab", 4), "  ab");
    EXPECT_EQ(RightAligned("abcde", 4), "abcde");
    EXPECT_EQ(Counted(0, "file"), "0 files");
    EXPECT_EQ(Counted(1, "file"), "1 file");
    EXPECT_EQ(Counted(2, "file"), "2 files");
    EXPECT_EQ(ShownMode(0100644), "0644");
    EXPECT_EQ(ShownMode(04755), "4755");
}

TEST(OutputTest, WritesOneJsonObjectInTheOrderOfTheCalls) {
    testing::internal::CaptureStdout();
    Output output(true);
    output.Line("for people");
    output.Member("z", 1);
    output.BeginList("empty");
    output.EndList();
    output.BeginList("list");
    output.Item({{"a", "Zürich\n"}});
    output.Item(2);
    output.EndList();
    output.Member("a", nullptr);
    output.EndJson();
    EXPECT_TRUE(output.Finish());

    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "{\n\"z\": 1,\n\"empty\": [],\n\"list\": [\n{\"a\":\"Zürich\\n\"},\n2],\n\"a\": null\n}\n");
}

TEST(OutputTest, WritesNothingButLinesForPeople) {
    testing::internal::CaptureStdout();
    Output output(false);
    output.Member("a", 1);
    output.BeginList("list");
    output.Item(2);
    output.EndList();
    output.Line(output.Paint(Style::kError, "text"));
    output.EndJson();
    EXPECT_TRUE(output.Finish());

    EXPECT_EQ(testing::internal::GetCapturedStdout(), "text\n");
}

TEST(OutputTest, PaintsEveryStyleOnATerminal) {
    const Replaced replaced(calls::isatty, Terminal(true));
    const Variable term("TERM", "xterm");
    const Variable noColour("NO_COLOR", nullptr);
    const Output output(false);

    EXPECT_EQ(output.Paint(Style::kPlain, "text"), "text");
    EXPECT_EQ(output.Paint(Style::kBold, "text"), "\033[1mtext\033[0m");
    EXPECT_EQ(output.Paint(Style::kDim, "text"), "\033[2mtext\033[0m");
    EXPECT_EQ(output.Paint(Style::kGood, "text"), "\033[32mtext\033[0m");
    EXPECT_EQ(output.Paint(Style::kWarning, "text"), "\033[33mtext\033[0m");
    EXPECT_EQ(output.Paint(Style::kError, "text"), "\033[31mtext\033[0m");
}

TEST(OutputTest, ThePaintThatIsAskedForCountsMoreThanTerminalAndEnvironment) {
    const Variable noColour("NO_COLOR", "1");
    const Variable term("TERM", "dumb");
    EXPECT_EQ(Output(false, "always").Paint(Style::kGood, "text"), "\033[32mtext\033[0m");
    EXPECT_EQ(Output(true, "always").Paint(Style::kGood, "text"), "text") << "JSON has none";
    EXPECT_EQ(Output(false, "auto").Paint(Style::kGood, "text"), "text");

    const Replaced replaced(calls::isatty, Terminal(true));
    const Variable noNoColour("NO_COLOR", nullptr);
    const Variable xterm("TERM", "xterm");
    EXPECT_EQ(Output(false, "never").Paint(Style::kGood, "text"), "text");
    EXPECT_EQ(Output(false, "auto").Paint(Style::kGood, "text"), "\033[32mtext\033[0m");
}

TEST(OutputTest, PaintsWhereTheEnvironmentSaysNothing) {
    const Replaced replaced(calls::isatty, Terminal(true));
    const Variable term("TERM", nullptr);
    const auto isPainted = [](const char* noColour) {
        const Variable variable("NO_COLOR", noColour);
        return Output(false).Paint(Style::kGood, "text") != "text";
    };

    EXPECT_TRUE(isPainted(nullptr));
    EXPECT_TRUE(isPainted(""));
    EXPECT_FALSE(isPainted("1"));
}

TEST(OutputTest, PaintsNothingInJson) {
    const Replaced replaced(calls::isatty, Terminal(true));
    const Variable noColour("NO_COLOR", nullptr);

    EXPECT_EQ(Output(true).Paint(Style::kError, "text"), "text");
}

TEST(OutputTest, ShowsTheProgressOfLongWorkAndWipesItAway) {
    const Replaced replaced(calls::isatty, Terminal(true));
    const Variable term("TERM", "xterm");

    EXPECT_EQ(ProgressAfter(499), "") << "not worth it yet";
    EXPECT_EQ(ProgressAfter(500), "\r\033[Kverify: 2 of 9 files\r\033[K");
}

TEST(OutputTest, WipesTheProgressAwayBeforeEachLineAndAtTheEnd) {
    EXPECT_EQ(AfterProgress([](Output&) {}), "\r\033[Kplan: 1 of 3 files");
    EXPECT_EQ(AfterProgress([](Output& output) { output.Line(); }), "\r\033[Kplan: 1 of 3 files\r\033[K");
    EXPECT_EQ(AfterProgress([](Output& output) { EXPECT_TRUE(output.Finish()); }),
              "\r\033[Kplan: 1 of 3 files\r\033[K");
}

TEST(OutputTest, WritesTheReportSoFarBeforeTheProgress) {
    int count = 0;
    const Replaced replaced(calls::fflush, [&count](FILE* file) {
        if (file == stdout) ++count;
        return calls::real::fflush(file);
    });
    (void)AfterProgress([&count](Output&) { EXPECT_EQ(count, 1); });
}

TEST(OutputTest, ShowsNoProgressWithoutATerminal) {
    const Replaced replaced(calls::isatty, Terminal(false));

    EXPECT_EQ(ProgressAfter(5000), "");
}

TEST(OutputTest, RenewsTheProgressTenTimesASecond) {
    const Replaced replaced(calls::isatty, Terminal(true));
    const Variable term("TERM", "xterm");
    timespec now{1000, 0};
    const Replaced clock(calls::clock_gettime, [&now](clockid_t, timespec* time) {
        *time = now;
        return 0;
    });
    testing::internal::CaptureStderr();
    {
        Output output(true);
        now.tv_sec += 1;
        output.Progress("plan", 1, 3);
        now.tv_nsec = 99999999;
        output.Progress("plan", 2, 3);
        now.tv_nsec = 100000000;
        output.Progress("plan", 3, 3);
        EXPECT_TRUE(output.Finish());
    }

    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "\r\033[Kplan: 1 of 3 files\r\033[Kplan: 3 of 3 files\r\033[K");
}

TEST(OutputTest, RemembersThatSomethingCouldNotBeWritten) {
    ASSERT_EQ(std::fflush(stdout), 0);
    const int kept = dup(STDOUT_FILENO);
    const int full = open("/dev/full", O_WRONLY | O_CLOEXEC);
    ASSERT_EQ(dup2(full, STDOUT_FILENO), STDOUT_FILENO);
    Output output(false);
    output.Line(std::string(100000, 'x'));
    (void)std::fflush(stdout);
    // From here on there is room, but a part of the report is lost.
    const int restored = dup2(kept, STDOUT_FILENO);
    const bool isWritten = output.Finish();
    std::clearerr(stdout);
    (void)close(full);
    (void)close(kept);

    EXPECT_EQ(restored, STDOUT_FILENO);
    EXPECT_FALSE(isWritten);
    EXPECT_TRUE(output.Finish());
}

TEST(OutputTest, ShowsTheProgressInBytesWithTheTimeLeft) {
    const Replaced replaced(calls::isatty, Terminal(true));
    const Variable term("TERM", "xterm");
    timespec now{1000, 0};
    const Replaced clock(calls::clock_gettime, [&now](clockid_t, timespec* time) {
        *time = now;
        return 0;
    });
    testing::internal::CaptureStderr();
    {
        Output output(true);
        output.ProgressOfBytes("-copy", 0, 4096);
        now.tv_sec += 10;
        output.ProgressOfBytes("-copy", 0, 4096);
        output.ProgressOfBytes("-copy", 1, 4096);  // too soon
        now.tv_sec += 10;
        output.ProgressOfBytes("-copy", 1024, 4096);
        now.tv_sec += 10;
        output.ProgressOfBytes("-copy", 4096, 4096);
        EXPECT_TRUE(output.Finish());
    }

    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "\r\033[K-copy: 0 B of 4.0 KiB"
              "\r\033[K-copy: 1.0 KiB of 4.0 KiB, 61 s left"
              "\r\033[K-copy: 4.0 KiB of 4.0 KiB\r\033[K");
}

}  // namespace
