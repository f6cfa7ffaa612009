#include "Lines.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using testing::ElementsAre;

TEST(LinesTest, AnyTextIsOnePrintableWordAndIsReadAsItWas) {
    std::string all;
    for (int byte = 0; byte < 256; ++byte) all += static_cast<char>(byte);
    for (const std::string& text : {std::string(), std::string("%"), std::string("a b\n"), all}) {
        const std::string word = Word(text);
        for (const char character : word) EXPECT_TRUE(character > ' ' && character <= '~');
        LineScanner scanner(word);
        EXPECT_EQ(scanner.Text(), text);
        EXPECT_TRUE(scanner.IsDone());
    }
    EXPECT_EQ(Word(""), "%");
    EXPECT_EQ(Word("a b%"), "a%20b%25");
}

TEST(LinesTest, AreAddedToTheText) {
    std::string text = "before\n";
    LinePrinter printer(text);
    printer.Line("first");
    printer.Line("second", std::string("a word"), -5, 7u, Owner{1, 2});
    printer.Line("third", DigestOf("text"));
    printer.Attributes({{"user.a", "x y"}, {"user.b", ""}});
    EXPECT_EQ(text, "before\nfirst\nsecond a%20word -5 7 1 2\nthird " + HexOf(DigestOf("text")) +
                        "\nattribute user.a x%20y\nattribute user.b %\n");
}

// Whether the line is a number, and nothing else.
bool IsNumber(const std::string& line) {
    LineScanner scanner(line);
    unsigned number = 0;
    scanner.Into(number);
    return scanner.IsDone();
}

TEST(LinesTest, WhatDoesNotFitIsNoted) {
    EXPECT_TRUE(IsNumber("7"));
    for (const char* const line : {"", " 7", "7 8", "7x", "-7", "4294967296"})
        EXPECT_FALSE(IsNumber(line)) << line;
    for (const char* const word : {"", "a%4", "a%4x", "a%", "%%", "%4x%41"}) {
        LineScanner scanner(word);
        (void)scanner.Text();
        EXPECT_FALSE(scanner.IsDone()) << word;
    }
    LineScanner scanner("word");
    EXPECT_EQ(scanner.Next(), "word");
    EXPECT_TRUE(scanner.IsDone());
    scanner.Fail();
    EXPECT_FALSE(scanner.IsDone());
}

TEST(LinesTest, AreReadTheSameInWhateverBlocksTheyCome) {
    const std::string text = "the first line\na 1\nb 2\n";
    for (std::size_t size = 1; size <= text.size(); ++size) {
        std::vector<std::string> lines;
        LineReader reader("the first line", [&lines](LineScanner& scanner) {
            lines.emplace_back(scanner.Next());
            lines.back() += scanner.Next();
        });
        for (std::size_t at = 0; at < text.size(); at += size)
            reader.Add(std::string_view(text).substr(at, size));
        EXPECT_EQ(reader.Finish(), std::nullopt) << size;
        EXPECT_THAT(lines, ElementsAre("a1", "b2")) << size;
    }
}

TEST(LinesTest, OfAnotherKindOrCutOffAreRefused) {
    const auto read = [](const std::string& text) {
        LineReader reader("first", [](LineScanner& scanner) { (void)scanner.Next(); });
        reader.Add(text);
        return reader.Finish().value_or("");
    };
    const std::string none = "it is no file of vfilelist, or one of another version";
    const std::string changed = "it is cut off, or was changed";
    EXPECT_EQ(read("first\na\n"), "");
    EXPECT_EQ(read(""), none);
    EXPECT_EQ(read("first"), none);
    EXPECT_EQ(read("second\n"), none);
    EXPECT_EQ(read("second\nfirst\n"), changed);
    EXPECT_EQ(read("first\na"), changed);
    EXPECT_EQ(read("first\na b\n"), changed);
}

}  // namespace
