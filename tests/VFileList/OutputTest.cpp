#include "Output.h"

#include <gtest/gtest.h>

#include <string>

namespace {

TEST(OutputTest, EscapesWhatSteersATerminal) {
    EXPECT_EQ(Shown("plain text, Zürich"), "plain text, Zürich");
    EXPECT_EQ(Shown("a\nb\tc\033[2J\x7f"), "a\\x0ab\\x09c\\x1b[2J\\x7f");
    EXPECT_EQ(Shown("\xc2\x9b"
                    "31m"),
              "\\xc2\x9b"
              "31m")
        << "the second kind of control characters";
    EXPECT_EQ(Shown("\xc2\xa0"), "\xc2\xa0") << "no control character";
    EXPECT_EQ(Shown(std::string("\0", 1)), "\\x00");
    EXPECT_EQ(Shown("\xc2"), "\xc2");
}

TEST(OutputTest, ShowsSizesInAFewColumns) {
    EXPECT_EQ(ShownSize(0), "0 B");
    EXPECT_EQ(ShownSize(1023), "1023 B");
    EXPECT_EQ(ShownSize(1024), "1.0 KiB");
    EXPECT_EQ(ShownSize(1536), "1.5 KiB");
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
    output.Item({{"a", "x\n"}});
    output.Item(2);
    output.EndList();
    output.Member("a", nullptr);
    output.EndJson();
    EXPECT_TRUE(output.Finish());

    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "{\n\"z\": 1,\n\"empty\": [],\n\"list\": [\n{\"a\":\"x\\n\"},\n2],\n\"a\": null\n}\n");
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

}  // namespace
