#include "Files.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <string>

#include "ScratchDirectory.h"

namespace {

namespace fs = std::filesystem;

class FilesTest : public testing::Test {
protected:
    Content Compare(const std::string& content, const std::string& packaged) {
        return comparer_.Compare(scratch_.Write("file", content), scratch_.Write("packaged", packaged),
                                 trouble_);
    }

    static std::size_t OpenDescriptors() {
        const fs::directory_iterator descriptors("/proc/self/fd");
        return static_cast<std::size_t>(std::distance(begin(descriptors), end(descriptors)));
    }

    ScratchDirectory scratch_;
    ContentComparer comparer_;
    std::string trouble_;
};

TEST_F(FilesTest, ComparesContents) {
    EXPECT_EQ(Compare("", ""), Content::kSame);
    EXPECT_EQ(Compare("abc", "abc"), Content::kSame);
    EXPECT_EQ(Compare("", "abc"), Content::kPart);
    EXPECT_EQ(Compare("ab", "abc"), Content::kPart);
    EXPECT_EQ(Compare(std::string("a\0\0", 3), "abc"), Content::kPart);
    EXPECT_EQ(Compare(std::string("a\0", 2), "abc"), Content::kPart);
    EXPECT_EQ(Compare(std::string("\0\0\0", 3), "abc"), Content::kPart);
    EXPECT_EQ(Compare(std::string("a\0\0\0", 4), "abc"), Content::kOther) << "longer than what it copies";
    EXPECT_EQ(Compare(std::string("a\0c", 3), "abc"), Content::kOther);
    EXPECT_EQ(Compare("abd", "abc"), Content::kOther);
    EXPECT_EQ(Compare("abcd", "abc"), Content::kOther);
    EXPECT_EQ(Compare("abc", ""), Content::kOther);
}

TEST_F(FilesTest, LooksForZeroBytesBeyondTheBlockOfTheDifference) {
    constexpr std::size_t kBlock = 256 * 1024;
    const std::string packaged(3 * kBlock, 'x');
    std::string unfinished = packaged;
    unfinished.replace(100, unfinished.size() - 100, unfinished.size() - 100, '\0');

    EXPECT_EQ(Compare(unfinished, packaged), Content::kPart);
    unfinished.back() = 'x';
    EXPECT_EQ(Compare(unfinished, packaged), Content::kOther);
}

TEST_F(FilesTest, SaysWhichFileCannotBeCompared) {
    const std::string file = scratch_.Write("file", "x");
    const std::string missing = scratch_.Path("missing");
    EXPECT_EQ(comparer_.Compare(file, missing, trouble_), Content::kUnreadable);
    EXPECT_EQ(trouble_, missing + ": No such file or directory");
    EXPECT_EQ(comparer_.Compare(scratch_.Path(), file, trouble_), Content::kUnreadable);
    EXPECT_EQ(trouble_, scratch_.Path() + ": not a regular file");
}

TEST_F(FilesTest, DoesNotWaitForThoseWhoWriteToAPipe) {
    const std::string pipe = scratch_.Path("pipe");
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);

    EXPECT_EQ(comparer_.Compare(pipe, scratch_.Write("file", "x"), trouble_), Content::kUnreadable);
}

TEST_F(FilesTest, LeavesNoDescriptorOpen) {
    const std::size_t before = OpenDescriptors();
    (void)Compare("abc", "abc");
    (void)Compare("abc", "ab");
    (void)comparer_.Compare(scratch_.Path("missing"), scratch_.Path("file"), trouble_);
    (void)comparer_.Compare(scratch_.Path(), scratch_.Path("file"), trouble_);
    EXPECT_EQ(OpenDescriptors(), before);
}

TEST_F(FilesTest, CountsTheBytesThatItRead) {
    (void)Compare("abc", "abc");
    EXPECT_EQ(comparer_.bytesRead(), 6u);
    (void)Compare("longer", "abc");
    EXPECT_EQ(comparer_.bytesRead(), 6u) << "the sizes tell";
}

TEST_F(FilesTest, KnowsWhetherAPathStaysBelow) {
    for (const char* const path : {"a", "a/b", "a/../b", "./a", "a/..", "", "...", "..a"}) {
        EXPECT_TRUE(StaysBelow(path)) << path;
    }
    for (const char* const path : {"..", "../a", "a/../..", "a/../../b", "/a"})
        EXPECT_FALSE(StaysBelow(path)) << path;
}

TEST_F(FilesTest, FindsTheNearestThingThatExists) {
    const std::string file = scratch_.Write("a/file", "");
    EXPECT_EQ(NearestExisting(file), file);
    EXPECT_EQ(NearestExisting(scratch_.Path("a/b/c/")), scratch_.Path("a"));
    EXPECT_EQ(NearestExisting(file + "/below"), file);
    EXPECT_EQ(NearestExisting("/nowhere/at/all"), "/");
    EXPECT_EQ(NearestExisting("nowhere"), ".");
}

TEST_F(FilesTest, NoticesThatAFileWasTouched) {
    struct stat before {};
    struct stat now {};
    const std::string file = scratch_.Write("file", "x");
    ASSERT_EQ(stat(file.c_str(), &before), 0);
    EXPECT_TRUE(IsUnchanged(before, before));
    ASSERT_EQ(chmod(file.c_str(), 0400), 0);
    ASSERT_EQ(stat(file.c_str(), &now), 0);
    EXPECT_FALSE(IsUnchanged(before, now));
    EXPECT_TRUE(IsSameFile(before, now));
    ASSERT_EQ(stat(scratch_.Write("other", "x").c_str(), &now), 0);
    EXPECT_FALSE(IsSameFile(before, now));
}

}  // namespace
