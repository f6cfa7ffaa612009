#include "Digest.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <new>
#include <string>

#include "Files.h"
#include "ScratchDirectory.h"
#include "SystemCalls.h"

namespace {

const struct {
    std::string bytes;
    const char* digest;
} kVectors[] = {
    {"", "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855"},
    {"abc", "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"},
    {std::string(1000000, 'a'), "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0"},
};

TEST(DigestTest, IsThatOfThePublishedVectors) {
    for (const auto& row : kVectors) EXPECT_EQ(HexOf(DigestOf(row.bytes)), row.digest);
}

TEST(DigestTest, OfAFileIsThatOfItsBytes) {
    const ScratchDirectory scratch;
    for (const auto& row : kVectors) {
        const Descriptor file(open(scratch.Write("file", row.bytes).c_str(), O_RDONLY | O_CLOEXEC));
        const std::optional<Digest> digest = DigestOfFile(file.get());
        ASSERT_TRUE(digest);
        EXPECT_EQ(HexOf(*digest), row.digest);
    }
}

TEST(DigestTest, OfAFileThatCannotBeReadIsNoneAndErrnoSaysWhy) {
    const Descriptor directory(open("/", O_RDONLY | O_CLOEXEC));

    errno = 0;
    EXPECT_EQ(DigestOfFile(directory.get()), std::nullopt);
    EXPECT_EQ(errno, EISDIR);
}

TEST(DigestTest, WritesBytesAsLowerCaseHexadecimalDigitsAndReadsThemBack) {
    std::string bytes;
    for (int byte = 0; byte < 256; ++byte) bytes += static_cast<char>(byte);

    EXPECT_EQ(HexOf(std::string_view("\x00\x0f\xf0\xff", 4)), "000ff0ff");
    EXPECT_EQ(BytesFromHex(HexOf(bytes)), bytes);
    EXPECT_EQ(BytesFromHex(""), "");
    EXPECT_EQ(DigestFromHex(HexOf(DigestOf("abc"))), DigestOf("abc"));
}

TEST(DigestTest, ReadsNothingElse) {
    for (const char* const text : {"0", "000", "0g", "g0", "-1", "+1", " 1", "0x", "00 "})
        EXPECT_EQ(BytesFromHex(text), std::nullopt) << text;

    const std::string digest = HexOf(DigestOf("abc"));
    EXPECT_EQ(DigestFromHex(digest.substr(2)), std::nullopt);
    EXPECT_EQ(DigestFromHex(digest + "00"), std::nullopt);
    EXPECT_EQ(DigestFromHex("x" + digest.substr(1)), std::nullopt);
}

TEST(DigestTest, EndsInBadAllocWhenTheCryptographicLibraryHasNoMemory) {
    const auto fails = [](auto...) { return 0; };
    {
        const Replaced replaced(calls::EVP_MD_CTX_new, []() -> void* { return nullptr; });
        EXPECT_THROW((void)DigestOf("abc"), std::bad_alloc);
    }
    {
        const Replaced replaced(calls::EVP_DigestInit_ex, fails);
        EXPECT_THROW((void)DigestOf("abc"), std::bad_alloc);
    }
    {
        const Replaced replaced(calls::EVP_DigestUpdate, fails);
        EXPECT_THROW((void)DigestOf("abc"), std::bad_alloc);
    }
    const Replaced replaced(calls::EVP_DigestFinal_ex, fails);
    EXPECT_THROW((void)DigestOf("abc"), std::bad_alloc);
}

}  // namespace
