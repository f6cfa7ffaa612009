#include "Findings.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <fstream>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>

#include "ScratchDirectory.h"

namespace {

// Compares the part of a document between two texts with what the table says. VFILELIST_WRITE_FINDINGS=1
// writes it instead.
void ExpectPart(const std::string& document, const std::string& begin, const std::string& end,
                const std::string& part) {
    const std::string path = VFS_SOURCE_DIRECTORY "/" + document;
    const std::string text = ReadWholeFile(path);
    const std::size_t from = text.find(begin) + begin.size();
    const std::size_t to = end.empty() ? text.size() : text.find(end, from);
    ASSERT_LE(from, text.size());
    ASSERT_LE(to, text.size());
    if (std::getenv("VFILELIST_WRITE_FINDINGS") != nullptr) {
        std::ofstream(path) << text.substr(0, from) << part << text.substr(to);
    } else {
        EXPECT_EQ(text.substr(from, to - from), part);
    }
}

std::string Sentence(const char* title) {
    std::string sentence = std::string(title) + ".";
    sentence[0] = static_cast<char>(std::toupper(sentence[0]));
    return sentence;
}

// `text` in lines of a manual page, a new one for each sentence.
std::string ManualLines(const std::string& text) {
    std::istringstream words(text);
    std::string lines;
    std::string line;
    for (std::string word; words >> word;) {
        if (word[0] == '-') word.insert(0, 1, '\\');
        const bool isEnd = !line.empty() && line.back() == '.';
        if (isEnd || (!line.empty() && line.size() + 1 + word.size() > 80)) {
            lines += line + "\n";
            line.clear();
        }
        line += (line.empty() ? "" : " ") + word;
    }
    return lines + line + "\n";
}

TEST(FindingsTest, EveryKindHasACodeOfItsOwnAndSaysWhatWillHappenAndWhatToDo) {
    std::set<std::string> codes;
    for (const FindingKind& kind : FindingKinds()) {
        const std::string code = kind.code;
        EXPECT_TRUE(codes.insert(code).second) << code;
        EXPECT_TRUE(code.rfind("E-", 0) == 0 || code.rfind("W-", 0) == 0) << code;
        EXPECT_EQ(kind.IsError(), code[0] == 'E') << code;
        EXPECT_EQ(std::string(kind.effect).back(), '.') << code;
        EXPECT_EQ(std::string(kind.advice).back(), '.') << code;
        EXPECT_EQ(&KindOf(code), &kind);
    }
}

TEST(FindingsTest, ErrorsComeBeforeWarnings) {
    bool isWarningSeen = false;
    for (const FindingKind& kind : FindingKinds()) {
        EXPECT_FALSE(isWarningSeen && kind.IsError()) << kind.code;
        isWarningSeen = isWarningSeen || !kind.IsError();
    }
}

TEST(FindingsTest, TheDocumentIsMadeOfThem) {
    std::string part;
    for (const FindingKind& kind : FindingKinds()) {
        part += std::string("\n### ") + kind.code + "\n\n" + Sentence(kind.title) + " " + kind.effect +
                " **What to do:** " + kind.advice + "\n";
    }
    ExpectPart("docs/findings.md", "<!-- from the table of the program -->\n", "", part);
}

TEST(FindingsTest, TheManualPageIsMadeOfThem) {
    std::string part;
    for (const FindingKind& kind : FindingKinds()) {
        part += std::string(".It Li ") + kind.code + "\n" + ManualLines(Sentence(kind.title)) +
                ManualLines(kind.effect);
    }
    ExpectPart("docs/man/vfilelist.1", "They stay the same from version to version.\n.Bl -tag -width Ds\n",
               ".El\n", part);
}

TEST(FindingsTest, ThereIsNoUnknownKind) {
    EXPECT_THROW((void)KindOf("E-NO-SUCH-CODE"), std::logic_error);
}

}  // namespace
