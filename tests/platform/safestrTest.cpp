#include "safestr.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>

namespace {

// A block of exactly so many bytes, so that AddressSanitizer sees a step beyond it.
class Block {
public:
    explicit Block(std::size_t size, char filler = '#') : size_(size), bytes_(new char[size]) {
        std::memset(bytes_.get(), filler, size);
    }
    // The bytes of `text`, without a NUL behind them.
    explicit Block(const std::string& text) : Block(text.size()) {
        std::memcpy(bytes_.get(), text.data(), text.size());
    }

    operator char*() const { return bytes_.get(); }
    std::string Bytes() const { return std::string(bytes_.get(), size_); }

private:
    const std::size_t size_;
    const std::unique_ptr<char[]> bytes_;
};

std::string Bytes(const char (&literal)[9]) {
    return std::string(literal, 8);
}

// Without the attribute by which the compiler would refuse a null format.
int (*const formatUnchecked)(char*, std::size_t, const char*, ...) = sprintf_s;
int (*const formatCountUnchecked)(char*, std::size_t, std::size_t, const char*, ...) = snprintf_s;

constexpr std::size_t kHuge = SIZE_MAX;

TEST(memset_sTest, SetsTheFirstBytesOnly) {
    const Block block(8);

    EXPECT_EQ(memset_s(block, 8, 'z', 3), 0);

    EXPECT_EQ(block.Bytes(), "zzz#####");
}

TEST(memset_sTest, SetsAWholeBlock) {
    const Block block(8);

    EXPECT_EQ(memset_s(block, 8, 0, 8), 0);

    EXPECT_EQ(block.Bytes(), std::string(8, '\0'));
}

TEST(memset_sTest, RefusesOneByteTooManyAndLeavesTheBlock) {
    const Block block(8);

    EXPECT_EQ(memset_s(block, 8, 0, 9), ERANGE);

    EXPECT_EQ(block.Bytes(), "########");
}

TEST(memset_sTest, SetsNothingForACountOfZero) {
    const Block block(8);

    EXPECT_EQ(memset_s(block, 8, 0, 0), 0);

    EXPECT_EQ(block.Bytes(), "########");
}

TEST(memset_sTest, RefusesNullAndZeroCapacity) {
    const Block block(8);

    EXPECT_EQ(memset_s(nullptr, 8, 0, 1), EINVAL);
    EXPECT_EQ(memset_s(block, 0, 0, 0), EINVAL);
    EXPECT_EQ(memset_s(block, 0, 0, 1), EINVAL);

    EXPECT_EQ(block.Bytes(), "########");
}

TEST(memset_sTest, TakesAHugeCapacityAtItsWord) {
    const Block block(8);

    EXPECT_EQ(memset_s(block, kHuge, 'z', 2), 0);

    EXPECT_EQ(block.Bytes(), "zz######");
}

TEST(memmove_sTest, MovesTheFirstBytesOnly) {
    const Block block(8);

    EXPECT_EQ(memmove_s(block, 8, "ab\0cd", 5), 0);

    EXPECT_EQ(block.Bytes(), Bytes("ab\0cd###"));
}

TEST(memmove_sTest, FillsAWholeBlock) {
    const Block block(8);

    EXPECT_EQ(memmove_s(block, 8, Block("12345678"), 8), 0);

    EXPECT_EQ(block.Bytes(), "12345678");
}

TEST(memmove_sTest, RefusesOneByteTooManyAndLeavesTheBlock) {
    const Block block(8);

    EXPECT_EQ(memmove_s(block, 8, "123456789", 9), ERANGE);

    EXPECT_EQ(block.Bytes(), "########");
}

TEST(memmove_sTest, MovesDownWhereTheTwoOverlap) {
    const Block block("abcdefgh");

    EXPECT_EQ(memmove_s(block, 6, block + 2, 6), 0);

    EXPECT_EQ(block.Bytes(), "cdefghgh");
}

TEST(memmove_sTest, MovesUpWhereTheTwoOverlap) {
    const Block block("abcdefgh");

    EXPECT_EQ(memmove_s(block + 2, 6, block, 6), 0);

    EXPECT_EQ(block.Bytes(), "ababcdef");
}

TEST(memmove_sTest, RefusesNullAndZeroCapacity) {
    const Block block(8);

    EXPECT_EQ(memmove_s(nullptr, 8, "a", 1), EINVAL);
    EXPECT_EQ(memmove_s(block, 8, nullptr, 1), EINVAL);
    EXPECT_EQ(memmove_s(block, 8, nullptr, 0), EINVAL);
    EXPECT_EQ(memmove_s(block, 0, "a", 0), EINVAL);

    EXPECT_EQ(block.Bytes(), "########");
}

TEST(memmove_sTest, TakesAHugeCapacityAtItsWord) {
    const Block block(8);

    EXPECT_EQ(memmove_s(block, kHuge, "abc", 3), 0);

    EXPECT_EQ(block.Bytes(), "abc#####");
}

TEST(strcpy_sTest, CopiesTheTextAndFillsNothingBehindIt) {
    const Block block(8);

    EXPECT_EQ(strcpy_s(block, 8, "abc"), 0);

    EXPECT_EQ(block.Bytes(), Bytes("abc\0####"));
}

TEST(strcpy_sTest, CopiesTheEmptyText) {
    const Block block(8);

    EXPECT_EQ(strcpy_s(block, 1, ""), 0);

    EXPECT_EQ(block.Bytes(), Bytes("\0#######"));
}

TEST(strcpy_sTest, CopiesATextThatJustFits) {
    const Block block(8);

    EXPECT_EQ(strcpy_s(block, 8, "1234567"), 0);

    EXPECT_EQ(block.Bytes(), Bytes("1234567\0"));
}

TEST(strcpy_sTest, LeavesTheEmptyTextWhenTheTextIsOneTooLong) {
    const Block block(8);

    EXPECT_EQ(strcpy_s(block, 8, "12345678"), ERANGE);

    EXPECT_EQ(block.Bytes(), Bytes("\0#######"));
}

TEST(strcpy_sTest, ReadsNoFurtherThanCouldFit) {
    const Block block(8);

    EXPECT_EQ(strcpy_s(block, 8, Block("12345678")), ERANGE);

    EXPECT_EQ(block.Bytes(), Bytes("\0#######"));
}

TEST(strcpy_sTest, LeavesTheEmptyTextForANullSource) {
    const Block block(8);

    EXPECT_EQ(strcpy_s(block, 8, nullptr), EINVAL);

    EXPECT_EQ(block.Bytes(), Bytes("\0#######"));
}

TEST(strcpy_sTest, RefusesANullDestinationAndZeroCapacity) {
    const Block block(8);

    EXPECT_EQ(strcpy_s(nullptr, 8, "a"), EINVAL);
    EXPECT_EQ(strcpy_s(block, 0, ""), EINVAL);
    EXPECT_EQ(strcpy_s(block, 0, nullptr), EINVAL);

    EXPECT_EQ(block.Bytes(), "########");
}

TEST(strcpy_sTest, TakesAHugeCapacityAtItsWord) {
    const Block block(8);

    EXPECT_EQ(strcpy_s(block, kHuge, "abc"), 0);

    EXPECT_EQ(block.Bytes(), Bytes("abc\0####"));
}

TEST(strncpy_sTest, CopiesTheFirstCharactersAndFillsNothingBehindThem) {
    const Block block(8);

    EXPECT_EQ(strncpy_s(block, 8, "abcdef", 3), 0);

    EXPECT_EQ(block.Bytes(), Bytes("abc\0####"));
}

TEST(strncpy_sTest, CopiesAShorterTextWholeAndFillsNothingBehindIt) {
    const Block block(8);

    EXPECT_EQ(strncpy_s(block, 8, "ab", 6), 0);

    EXPECT_EQ(block.Bytes(), Bytes("ab\0#####"));
}

TEST(strncpy_sTest, CopiesAShorterTextAlsoForACountBeyondTheCapacity) {
    const Block block(8);

    EXPECT_EQ(strncpy_s(block, 8, "1234567", 100), 0);

    EXPECT_EQ(block.Bytes(), Bytes("1234567\0"));
}

TEST(strncpy_sTest, ReadsNoFurtherThanTheCount) {
    const Block block(8);

    EXPECT_EQ(strncpy_s(block, 8, Block("abc"), 3), 0);

    EXPECT_EQ(block.Bytes(), Bytes("abc\0####"));
}

TEST(strncpy_sTest, CopiesCharactersThatJustFit) {
    const Block block(8);

    EXPECT_EQ(strncpy_s(block, 8, "123456789", 7), 0);

    EXPECT_EQ(block.Bytes(), Bytes("1234567\0"));
}

TEST(strncpy_sTest, LeavesTheEmptyTextWhenOneCharacterIsTooMany) {
    const Block block(8);

    EXPECT_EQ(strncpy_s(block, 8, "123456789", 8), ERANGE);

    EXPECT_EQ(block.Bytes(), Bytes("\0#######"));
}

TEST(strncpy_sTest, ReadsNoFurtherThanCouldFit) {
    const Block block(8);

    EXPECT_EQ(strncpy_s(block, 8, Block("12345678"), 100), ERANGE);

    EXPECT_EQ(block.Bytes(), Bytes("\0#######"));
}

TEST(strncpy_sTest, WritesTheEmptyTextForACountOfZero) {
    const Block block(8);

    EXPECT_EQ(strncpy_s(block, 8, "abc", 0), 0);

    EXPECT_EQ(block.Bytes(), Bytes("\0#######"));
}

TEST(strncpy_sTest, LeavesTheEmptyTextForANullSource) {
    const Block block(8);

    EXPECT_EQ(strncpy_s(block, 8, nullptr, 0), EINVAL);

    EXPECT_EQ(block.Bytes(), Bytes("\0#######"));
}

TEST(strncpy_sTest, RefusesANullDestinationAndZeroCapacity) {
    const Block block(8);

    EXPECT_EQ(strncpy_s(nullptr, 8, "a", 1), EINVAL);
    EXPECT_EQ(strncpy_s(block, 0, "a", 0), EINVAL);

    EXPECT_EQ(block.Bytes(), "########");
}

TEST(strncpy_sTest, TakesAHugeCapacityAndCountAtTheirWord) {
    const Block block(8);

    EXPECT_EQ(strncpy_s(block, kHuge, "abc", kHuge), 0);

    EXPECT_EQ(block.Bytes(), Bytes("abc\0####"));
}

TEST(sprintf_sTest, FormatsAndFillsNothingBehindTheText) {
    const Block block(8);

    EXPECT_EQ(sprintf_s(block, 8, "%s-%d", "a", 42), 4);

    EXPECT_EQ(block.Bytes(), Bytes("a-42\0###"));
}

TEST(sprintf_sTest, FormatsATextThatJustFits) {
    const Block block(8);

    EXPECT_EQ(sprintf_s(block, 8, "%s", "1234567"), 7);

    EXPECT_EQ(block.Bytes(), Bytes("1234567\0"));
}

TEST(sprintf_sTest, LeavesTheEmptyTextWhenTheTextIsOneTooLong) {
    const Block block(8);

    EXPECT_EQ(sprintf_s(block, 8, "%s", "12345678"), -1);

    EXPECT_STREQ(block, "");
}

TEST(sprintf_sTest, LeavesTheEmptyTextWhenTheTextCannotBeFormatted) {
    const Block block(8);

    EXPECT_EQ(sprintf_s(block, 8, "ab%lc", static_cast<wint_t>(0xdfff)), -1);

    EXPECT_STREQ(block, "");
}

TEST(sprintf_sTest, LeavesTheEmptyTextForANullFormat) {
    const Block block(8);

    EXPECT_EQ(formatUnchecked(block, 8, nullptr), -1);

    EXPECT_EQ(block.Bytes(), Bytes("\0#######"));
}

TEST(sprintf_sTest, RefusesANullDestinationAndZeroCapacity) {
    const Block block(8);

    EXPECT_EQ(sprintf_s(nullptr, 8, "a"), -1);
    EXPECT_EQ(sprintf_s(block, 0, "%s", ""), -1);

    EXPECT_EQ(block.Bytes(), "########");
}

TEST(sprintf_sTest, TakesAHugeCapacityAtItsWord) {
    const Block block(8);

    EXPECT_EQ(sprintf_s(block, kHuge, "%d", 42), 2);

    EXPECT_EQ(block.Bytes(), Bytes("42\0#####"));
}

TEST(snprintf_sTest, FormatsATextBelowTheCountLimit) {
    const Block block(8);

    EXPECT_EQ(snprintf_s(block, 8, 7, "%c%s", '/', "abc"), 4);

    EXPECT_EQ(block.Bytes(), Bytes("/abc\0###"));
}

TEST(snprintf_sTest, FormatsATextOfTheCountLimit) {
    const Block block(8);

    EXPECT_EQ(snprintf_s(block, 8, 4, "%s", "1234"), 4);

    EXPECT_EQ(block.Bytes(), Bytes("1234\0###"));
}

TEST(snprintf_sTest, FailsForATextBeyondTheCountLimitAndWritesNothingBehindIt) {
    const Block block(8);

    EXPECT_EQ(snprintf_s(block, 8, 4, "%s", "12345"), -1);

    EXPECT_STREQ(block, "");
    EXPECT_EQ(block.Bytes().substr(5), "###");
}

TEST(snprintf_sTest, FormatsATextThatJustFitsUnderALargerCountLimit) {
    const Block block(8);

    EXPECT_EQ(snprintf_s(block, 8, 100, "%s", "1234567"), 7);

    EXPECT_EQ(block.Bytes(), Bytes("1234567\0"));
}

TEST(snprintf_sTest, FailsForATextThatDoesNotFitUnderALargerCountLimit) {
    const Block block(8);

    EXPECT_EQ(snprintf_s(block, 8, 100, "%s", "12345678"), -1);
    EXPECT_EQ(snprintf_s(block, 8, 8, "%s", "12345678"), -1);

    EXPECT_STREQ(block, "");
}

TEST(snprintf_sTest, FormatsOnlyTheEmptyTextUnderACountLimitOfZero) {
    const Block block(8);

    EXPECT_EQ(snprintf_s(block, 8, 0, "%s", ""), 0);
    EXPECT_EQ(block.Bytes(), Bytes("\0#######"));

    EXPECT_EQ(snprintf_s(block, 8, 0, "%s", "a"), -1);
    EXPECT_EQ(block.Bytes(), Bytes("\0#######"));
}

TEST(snprintf_sTest, LeavesTheEmptyTextForANullFormat) {
    const Block block(8);

    EXPECT_EQ(formatCountUnchecked(block, 8, 7, nullptr), -1);

    EXPECT_EQ(block.Bytes(), Bytes("\0#######"));
}

TEST(snprintf_sTest, RefusesANullDestinationAndZeroCapacity) {
    const Block block(8);

    EXPECT_EQ(snprintf_s(nullptr, 8, 7, "a"), -1);
    EXPECT_EQ(snprintf_s(block, 0, 0, "%s", ""), -1);

    EXPECT_EQ(block.Bytes(), "########");
}

TEST(snprintf_sTest, TakesAHugeCapacityAndCountLimitAtTheirWord) {
    const Block block(8);

    EXPECT_EQ(snprintf_s(block, kHuge, kHuge, "%d", 42), 2);

    EXPECT_EQ(block.Bytes(), Bytes("42\0#####"));
}

}  // namespace
