#include "Findings.h"

#include <gtest/gtest.h>

#include <set>
#include <stdexcept>
#include <string>

namespace {

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

TEST(FindingsTest, ThereIsNoUnknownKind) {
    EXPECT_THROW((void)KindOf("E-NO-SUCH-CODE"), std::logic_error);
}

}  // namespace
