#include "VPath.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <new>
#include <optional>
#include <random>
#include <type_traits>
#include <vector>

#include "PathModel.h"
#include "Resources.h"
#include "Scale.h"
#include "ScratchDirectory.h"
#include "SystemCalls.h"

namespace {

// The interface as callers were compiled against it.
static_assert(sizeof(VPath) == 4097 && alignof(VPath) == 1);
static_assert(!std::is_polymorphic_v<VPath>);
static_assert(std::is_copy_constructible_v<VPath> && std::is_copy_assignable_v<VPath>);
static_assert(std::is_constructible_v<VPath, bool, const char*, const char*>);
static_assert(std::is_convertible_v<const char*, VPath> && std::is_convertible_v<std::string, VPath>);
static_assert(std::is_same_v<decltype(&VPath::ResolvePath), void (VPath::*)(const char*)>);
static_assert(std::is_same_v<decltype(std::declval<VPath&>() += ""), VPath&>);
static_assert(std::is_same_v<decltype(std::declval<VPath&>() += std::string()), VPath&>);
static_assert(std::is_same_v<decltype(std::declval<const VPath&>() + ""), VPath>);
static_assert(std::is_same_v<decltype(std::declval<const VPath&>() + std::string()), VPath>);
static_assert(std::is_same_v<decltype(&VPath::IsRootDir), bool (VPath::*)() const>);
static_assert(std::is_same_v<decltype(&VPath::RealPath), PathText (VPath::*)() const>);
static_assert(std::is_same_v<decltype(&VPath::DirName), PathText (VPath::*)() const>);
static_assert(std::is_same_v<decltype(&VPath::BaseName), PathText (VPath::*)() const>);
static_assert(std::is_same_v<decltype(&VPath::DirPath), VPath (VPath::*)() const>);
static_assert(std::is_same_v<decltype(&VPath::FileExist), bool (*)(const char*)>);
static_assert(sizeof(PathText) == 16);
static_assert(offsetof(PathText, text) == 0 && offsetof(PathText, owned) == 8);
static_assert(std::is_same_v<decltype(PathText::text), const char*>);
static_assert(std::is_same_v<decltype(PathText::owned), bool>);
static_assert(!std::is_copy_constructible_v<PathText> && !std::is_copy_assignable_v<PathText>);
static_assert(std::is_nothrow_move_constructible_v<PathText> && std::is_nothrow_move_assignable_v<PathText>);

// The fields are private; callers of older builds know them by their place.
bool IsValid(const VPath& path) {
    return *reinterpret_cast<const bool*>(&path);
}
const char* StoredText(const VPath& path) {
    return reinterpret_cast<const char*>(&path) + 1;
}

std::string TextOf(const VPath& path) {
    return path.RealPath().text;
}
std::optional<std::string> ResultOf(const VPath& path) {
    return IsValid(path) ? std::optional<std::string>(StoredText(path)) : std::nullopt;
}

VPath Invalid() {
    return VPath("");
}

class VPathTest : public ResourceTest {
protected:
    // Paths are quiet, whatever happens to them.
    ~VPathTest() override { EXPECT_TRUE(LogRecorder::Lines().empty()); }

    ScratchDirectory scratch_;
};

struct TextRow {
    const char* text;
    const char* expected;
};

TEST_F(VPathTest, ResolvesAbsoluteTexts) {
    const std::vector<TextRow> rows = {
        {"/", "/"},
        {"//", "/"},
        {"///", "/"},
        {"////////", "/"},
        {"/a", "/a"},
        {"/a/", "/a"},
        {"/a///", "/a"},
        {"//a", "/a"},
        {"//a///b", "/a/b"},
        {"/a//b/", "/a/b"},
        {"/a/./b", "/a/b"},
        {"/a/././././b", "/a/b"},
        {"/a/.//./b", "/a/b"},
        {"/./a", "/a"},
        {"/.//a", "/a"},
        {"/a/b/../c", "/a/c"},
        {"/a/b/..//c", "/a/c"},
        {"/a/b//../c", "/a/c"},
        {"/a/b/../../c", "/c"},
        {"/a/b/../../../c", "/c"},
        {"/../a", "/a"},
        {"/../../x", "/x"},
        {"/..//..//x", "/x"},
        {"/a/../b/../c/../d", "/d"},
        {"/a/../..", "/.."},
        {"/a/b/c/../../d/./e//f", "/a/d/e/f"},
    };
    for (const TextRow& row : rows) {
        SCOPED_TRACE(row.text);
        EXPECT_EQ(TextOf(VPath(row.text)), row.expected);
    }
}

TEST_F(VPathTest, DeliberatelyNeverExaminesTheLastComponent) {
    const std::vector<TextRow> rows = {
        {"/a/b/..", "/a/b/.."}, {"/a/.", "/a/."},  {"/..", "/.."},           {"/.", "/."},
        {"/a/../", "/a/.."},    {"/a/./", "/a/."}, {"/a/b/./..", "/a/b/.."}, {"/a/b/../..", "/a/.."},
        {"/./.", "/."},         {"//..//", "/.."}, {"/../..", "/.."},        {"/a/b/../.", "/a/."},
    };
    for (const TextRow& row : rows) {
        SCOPED_TRACE(row.text);
        EXPECT_EQ(TextOf(VPath(row.text)), row.expected);
    }
}

TEST_F(VPathTest, TakesNamesThatMerelyLookLikeDotsAsOrdinary) {
    const std::vector<TextRow> rows = {
        {"/.../a", "/.../a"},     {"/a/.../b", "/a/.../b"},
        {"/a/..b/c", "/a/..b/c"}, {"/a/b../c", "/a/b../c"},
        {"/a/.b/c", "/a/.b/c"},   {"/a/b./c", "/a/b./c"},
        {"/.../../b", "/b"},      {"/..../x", "/..../x"},
        {"/a/.../../b", "/a/b"},  {"/.a/..b/c./d", "/.a/..b/c./d"},
    };
    for (const TextRow& row : rows) {
        SCOPED_TRACE(row.text);
        EXPECT_EQ(TextOf(VPath(row.text)), row.expected);
    }
}

TEST_F(VPathTest, KeepsEveryOtherByteAsItIs) {
    for (int byte = 1; byte < 256; ++byte) {
        if (byte == '/') continue;
        SCOPED_TRACE(byte);
        const std::string name(1, static_cast<char>(byte));
        EXPECT_EQ(TextOf(VPath("/x" + name + "/./" + name + "y/" + name + "z")),
                  "/x" + name + "/" + name + "y/" + name + "z");
    }
}

TEST_F(VPathTest, PutsTheWorkingDirectoryBeforeRelativeTexts) {
    const WorkingDirectory here(scratch_.Path());
    const std::string& base = scratch_.Path();

    EXPECT_EQ(TextOf(VPath("x/y")), base + "/x/y");
    EXPECT_EQ(TextOf(VPath("./x")), base + "/x");
    EXPECT_EQ(TextOf(VPath("x//y/")), base + "/x/y");
    EXPECT_EQ(TextOf(VPath("x/../y")), base + "/y");
    EXPECT_EQ(TextOf(VPath("-n")), base + "/-n");
    EXPECT_EQ(TextOf(VPath(" ")), base + "/ ");
    EXPECT_EQ(TextOf(VPath("../x")), base.substr(0, base.rfind('/')) + "/x");
}

TEST_F(VPathTest, DeliberatelyKeepsARelativeDotBehindTheWorkingDirectory) {
    const WorkingDirectory here(scratch_.Path());

    EXPECT_EQ(TextOf(VPath(".")), scratch_.Path() + "/.");
    EXPECT_EQ(TextOf(VPath("..")), scratch_.Path() + "/..");
    EXPECT_EQ(TextOf(VPath("x/..")), scratch_.Path() + "/x/..");
}

TEST_F(VPathTest, ResolvesRelativeTextsInTheRootDirectory) {
    const WorkingDirectory here("/");

    EXPECT_EQ(TextOf(VPath("x")), "/x");
    EXPECT_EQ(TextOf(VPath("x/y")), "/x/y");
    EXPECT_EQ(TextOf(VPath("../x")), "/x");
    EXPECT_EQ(TextOf(VPath("..")), "/..");
}

TEST_F(VPathTest, AcceptsAbsoluteTextsOfUpTo4095Characters) {
    for (const std::size_t length : {4093U, 4094U, 4095U}) {
        SCOPED_TRACE(length);
        const std::string text = "/" + std::string(length - 1, 'a');
        EXPECT_EQ(ResultOf(VPath(text)), text);
        EXPECT_EQ(ResultOf(VPath(std::string(length, '/'))), "/");
    }
    for (const std::size_t length : {4096U, 4097U, 5000U, 70000U}) {
        SCOPED_TRACE(length);
        EXPECT_FALSE(IsValid(VPath("/" + std::string(length - 1, 'a'))));
        // The limit is on the text as given, not on what would remain of it.
        EXPECT_FALSE(IsValid(VPath(std::string(length, '/'))));
    }
}

TEST_F(VPathTest, AcceptsRelativeTextsUpTo4095CharactersWithTheWorkingDirectory) {
    const WorkingDirectory here(scratch_.Path());
    const std::size_t longest = 4095 - 1 - scratch_.Path().size();

    EXPECT_EQ(ResultOf(VPath(std::string(longest, 'a'))), scratch_.Path() + "/" + std::string(longest, 'a'));
    EXPECT_FALSE(IsValid(VPath(std::string(longest + 1, 'a'))));
}

TEST_F(VPathTest, CountsTheRootDirectoryAsOneCharacterOfARelativeText) {
    const WorkingDirectory here("/");

    EXPECT_EQ(ResultOf(VPath(std::string(4093, 'a'))), "/" + std::string(4093, 'a'));
    EXPECT_FALSE(IsValid(VPath(std::string(4094, 'a'))));
}

TEST_F(VPathTest, StripsSlashesOfTheWorkingDirectory) {
    const Replaced replaced(calls::getcwd, [](char* buffer, size_t size) {
        EXPECT_EQ(size, 4096U);
        return std::strcpy(buffer, "/odd//dir///");
    });

    EXPECT_EQ(TextOf(VPath("x")), "/odd/dir/x");
    // What was stripped does not count: 9 + 1 + 4085 characters.
    EXPECT_TRUE(IsValid(VPath(std::string(4085, 'a'))));
    EXPECT_FALSE(IsValid(VPath(std::string(4086, 'a'))));
}

TEST_F(VPathTest, IsInvalidWhenTheTextIsMissingOrEmpty) {
    const char* const nothing = nullptr;

    EXPECT_FALSE(IsValid(VPath(nothing)));
    EXPECT_FALSE(IsValid(VPath("")));
    EXPECT_FALSE(IsValid(VPath(std::string())));
    VPath path("/a");
    path.ResolvePath(nullptr);
    EXPECT_FALSE(IsValid(path));
}

TEST_F(VPathTest, IsInvalidWhenTheWorkingDirectoryCannotBeRead) {
    const Replaced replaced(calls::getcwd, [](char*, size_t) -> char* {
        errno = ENOENT;
        return nullptr;
    });

    EXPECT_FALSE(IsValid(VPath("x")));
    EXPECT_TRUE(IsValid(VPath("/x")));
}

TEST_F(VPathTest, IsInvalidInARemovedWorkingDirectory) {
    const std::string gone = scratch_.MakeDirectory("gone");
    const WorkingDirectory here(gone);
    ASSERT_EQ(rmdir(gone.c_str()), 0);

    EXPECT_FALSE(IsValid(VPath("x")));
}

TEST_F(VPathTest, IsInvalidWhenACopyReportsAnError) {
    {
        const VPath path("/a");
        const Replaced replaced(calls::strcpy_s, [](char*, size_t, const char*) { return ERANGE; });
        EXPECT_FALSE(IsValid(VPath("/a")));
        EXPECT_FALSE(IsValid(VPath(true, "/a", nullptr)));
        EXPECT_FALSE(IsValid(VPath(path)));
    }
    {
        const char text[] = "/a/b";
        const Replaced replaced(calls::strncpy_s, [](char*, size_t, const char*, size_t) { return ERANGE; });
        EXPECT_FALSE(IsValid(VPath(true, text, text + 2)));
    }
    {
        const WorkingDirectory here(scratch_.Path());
        const Replaced replaced(calls::snprintfFails, true);
        EXPECT_FALSE(IsValid(VPath("x")));
    }
    {
        VPath target("/old");
        const VPath source("/new");
        const Replaced replaced(calls::strcpy_s, [](char*, size_t, const char*) { return ERANGE; });
        target = source;
        EXPECT_FALSE(IsValid(target));
    }
}

TEST_F(VPathTest, IsInvalidWhenItsOwnTextCannotBeSetAside) {
    VPath path("/a/b");
    const PathText text = path.RealPath();
    {
        const Replaced replaced(calls::strcpy_s, [](char*, size_t, const char*) { return ERANGE; });
        path.ResolvePath(text.text);
    }

    EXPECT_FALSE(IsValid(path));
}

TEST_F(VPathTest, DeliberatelyStaysValidWhenABlockCannotBeMoved) {
    VPath path("/old");
    {
        const Replaced replaced(calls::memmove_s, [](void*, size_t, const void*, size_t) { return ERANGE; });
        path.ResolvePath("/a/./b");
    }

    EXPECT_TRUE(IsValid(path));
    EXPECT_STREQ(StoredText(path), "/a/./b");
}

TEST_F(VPathTest, MovesExactlyTheRestOfTheTextWithItsNul) {
    std::vector<std::string> moves;
    const Replaced replaced(calls::memmove_s, [&](void* dest, size_t destMax, const void* src, size_t count) {
        moves.push_back(std::string(static_cast<const char*>(src)) + " " + std::to_string(destMax) + " " +
                        std::to_string(count));
        return calls::real::memmove_s(dest, destMax, src, count);
    });

    const VPath path("//a/./b//c/../d");

    EXPECT_EQ(TextOf(path), "/a/b/d");
    EXPECT_THAT(moves,
                testing::ElementsAre("/a/./b//c/../d 15 15", "/b//c/../d 11 11", "/c/../d 8 8", "/d 3 3"));
}

TEST_F(VPathTest, NeedsNoMoveForACanonicalText) {
    const Replaced replaced(calls::memmove_s, [](void*, size_t, const void*, size_t) -> int {
        ADD_FAILURE() << "moved";
        return 0;
    });

    EXPECT_EQ(TextOf(VPath("/usr/lib/x86_64/..name/b.so")), "/usr/lib/x86_64/..name/b.so");
}

// Constructs a path in memory that is filled with a pattern, and expects the pattern behind the first `used`
// characters of its text.
template <typename... Arguments>
void ExpectUntouchedBehind(std::size_t used, Arguments&&... arguments) {
    alignas(VPath) unsigned char memory[sizeof(VPath)];
    std::memset(memory, 0x5a, sizeof(memory));

    auto* const path = new (memory) VPath(std::forward<Arguments>(arguments)...);

    for (std::size_t i = 1 + used; i < sizeof(memory); ++i) ASSERT_EQ(memory[i], 0x5a) << i;
    path->~VPath();
}

TEST_F(VPathTest, WritesNoMoreOfItsBufferThanTheTextNeeds) {
    const std::string text = "/some//path/./to";
    ExpectUntouchedBehind(text.size() + 1, text);
    ExpectUntouchedBehind(text.size() + 1, true, text.c_str(), nullptr);
    ExpectUntouchedBehind(3 + 1, true, text.c_str(), text.c_str() + 3);
    ExpectUntouchedBehind(13 + 1, VPath(text));
    ExpectUntouchedBehind(1, "");
    const WorkingDirectory here("/usr");
    ExpectUntouchedBehind(4 + 1 + 3 + 1, "lib");
}

TEST_F(VPathTest, LeavesItsOldTextWhenTheNewOneIsRefusedAtOnce) {
    for (const std::string& refused : {std::string(), std::string(4096, 'a'), std::string(9000, '/')}) {
        SCOPED_TRACE(refused.size());
        VPath path("/");
        path.ResolvePath(refused.c_str());

        EXPECT_FALSE(IsValid(path));
        EXPECT_STREQ(StoredText(path), "/");
        // The one question that looks at the text without asking whether it counts.
        EXPECT_TRUE(path.IsRootDir());
        EXPECT_STREQ(path.RealPath().text, "");
    }
}

TEST_F(VPathTest, HoldsTheWorkingDirectoryWhenARelativeTextDoesNotFitBehindIt) {
    const WorkingDirectory here(scratch_.Path());
    VPath path("/old");
    path.ResolvePath(std::string(4095 - scratch_.Path().size(), 'a').c_str());

    EXPECT_FALSE(IsValid(path));
    EXPECT_EQ(StoredText(path), scratch_.Path());
}

TEST_F(VPathTest, ResolvesItsOwnText) {
    VPath path("/a/b/..");
    path.ResolvePath(path.RealPath().text);
    EXPECT_EQ(ResultOf(path), "/a/b/..");

    const WorkingDirectory here(scratch_.Path());
    path.ResolvePath("/x/y/name");
    path.ResolvePath(path.BaseName().text);
    EXPECT_EQ(ResultOf(path), scratch_.Path() + "/name");
}

TEST_F(VPathTest, EndsAStringAtItsFirstNul) {
    using std::string_literals::operator""s;

    EXPECT_EQ(ResultOf(VPath("/a/b\0/c"s)), "/a/b");
    EXPECT_FALSE(IsValid(VPath("\0/a"s)));
    VPath path("/a");
    path += "b\0/c"s;
    EXPECT_EQ(ResultOf(path), "/a/b");
    EXPECT_EQ(ResultOf(path + "\0c"s), "/a/b");
}

TEST_F(VPathTest, StoresARangeAsItStands) {
    const std::string text = "//a/../b/rest";

    const VPath part(true, text.c_str(), text.c_str() + 8);
    EXPECT_EQ(ResultOf(part), "//a/../b");
    const VPath whole(true, text.c_str(), nullptr);
    EXPECT_EQ(ResultOf(whole), "//a/../b/rest");
    const VPath unflagged(false, text.c_str(), nullptr);
    EXPECT_FALSE(IsValid(unflagged));
    EXPECT_STREQ(StoredText(unflagged), "//a/../b/rest");
    const VPath empty(true, text.c_str(), text.c_str());
    EXPECT_EQ(ResultOf(empty), "");
}

TEST_F(VPathTest, RefusesRangesThatCannotBeCopied) {
    const std::string longest(4095, 'a');
    const std::string tooLong(4096, 'a');

    EXPECT_EQ(ResultOf(VPath(true, longest.c_str(), nullptr)), longest);
    EXPECT_EQ(ResultOf(VPath(true, tooLong.c_str(), tooLong.c_str() + 4095)), longest);
    EXPECT_FALSE(IsValid(VPath(true, tooLong.c_str(), nullptr)));
    EXPECT_FALSE(IsValid(VPath(true, tooLong.c_str(), tooLong.c_str() + 4096)));
    EXPECT_FALSE(IsValid(VPath(true, longest.c_str() + 1, longest.c_str())));
    EXPECT_FALSE(IsValid(VPath(true, nullptr, nullptr)));
    EXPECT_FALSE(IsValid(VPath(true, nullptr, longest.c_str())));
}

TEST_F(VPathTest, CopiesFlagAndText) {
    const VPath valid("/a/b");
    VPath invalid("/");
    invalid.ResolvePath("");

    EXPECT_EQ(ResultOf(VPath(valid)), "/a/b");
    const VPath copyOfInvalid(invalid);
    EXPECT_FALSE(IsValid(copyOfInvalid));
    EXPECT_STREQ(StoredText(copyOfInvalid), "/");

    VPath target("/other");
    EXPECT_EQ(&(target = valid), &target);
    EXPECT_EQ(ResultOf(target), "/a/b");
    target = invalid;
    EXPECT_FALSE(IsValid(target));
    target = valid;
    EXPECT_EQ(ResultOf(target), "/a/b");
}

TEST_F(VPathTest, DoesNothingWhenAssignedToItself) {
    VPath path("/a");
    const VPath& self = path;
    const Replaced replaced(calls::strcpy_s, [](char*, size_t, const char*) { return ERANGE; });

    path = self;

    EXPECT_EQ(ResultOf(path), "/a");
}

TEST_F(VPathTest, BecomesValidAgainByResolvingOrAssignment) {
    VPath path("");
    path.ResolvePath("/a");
    EXPECT_EQ(ResultOf(path), "/a");
    path.ResolvePath("");
    path = VPath("/b");
    EXPECT_EQ(ResultOf(path), "/b");
}

struct JoinRow {
    const char* path;
    const char* tail;
    const char* expected;
};

TEST_F(VPathTest, JoinsByAppendingAndResolvingTheWhole) {
    const std::vector<JoinRow> rows = {
        {"/a", "b", "/a/b"},  {"/a", "/b", "/a/b"},   {"/a", "", "/a"},          {"/a", nullptr, "/a"},
        {"/a", "../b", "/b"}, {"/a", "..", "/a/.."},  {"/a", ".", "/a/."},       {"/a", "./b", "/a/b"},
        {"/", "x", "/x"},     {"/", "", "/"},         {"/a", "b/../../c", "/c"}, {"/a/..", "b", "/b"},
        {"/a", "///", "/a"},  {"/a/..", "", "/a/.."}, {"/a", "-b c", "/a/-b c"}, {"/", "/", "/"},
    };
    for (const JoinRow& row : rows) {
        SCOPED_TRACE(std::string(row.path) + " and " + (row.tail != nullptr ? row.tail : "null"));
        const VPath path(row.path);

        EXPECT_EQ(ResultOf(path + row.tail), row.expected);
        EXPECT_EQ(ResultOf(path), row.path) << "the left side is unchanged";
        VPath grown(path);
        EXPECT_EQ(&(grown += row.tail), &grown);
        EXPECT_EQ(ResultOf(grown), row.expected);

        const std::string tail = row.tail != nullptr ? row.tail : "";
        EXPECT_EQ(ResultOf(path + tail), row.expected);
        VPath grownByString(path);
        EXPECT_EQ(&(grownByString += tail), &grownByString);
        EXPECT_EQ(ResultOf(grownByString), row.expected);
    }
}

TEST_F(VPathTest, JoinsUpTo4095Characters) {
    const VPath path("/a");
    const std::string longest(4092, 'b');

    EXPECT_EQ(ResultOf(path + longest), "/a/" + longest);
    EXPECT_FALSE(IsValid(path + (longest + "b")));
    EXPECT_FALSE(IsValid(path + (longest + "b").c_str()));
    VPath grown("/a");
    grown += longest + "b";
    EXPECT_FALSE(IsValid(grown));
    EXPECT_STREQ(StoredText(grown), "/a") << "refused at once, so the old text stays";
}

TEST_F(VPathTest, StaysInvalidWhenJoined) {
    VPath path("/");
    path.ResolvePath("");

    path += "x";
    path += std::string("x");
    EXPECT_FALSE(IsValid(path));
    EXPECT_STREQ(StoredText(path), "/");

    for (const VPath& sum : {path + "x", path + std::string("x")}) {
        EXPECT_FALSE(IsValid(sum));
        EXPECT_STREQ(StoredText(sum), "");
    }
}

TEST_F(VPathTest, JoinsItsOwnText) {
    VPath path("/a/b");
    path += path.RealPath().text;
    EXPECT_EQ(ResultOf(path), "/a/b/a/b");
    path += path.BaseName().text;
    EXPECT_EQ(ResultOf(path), "/a/b/a/b/b");
}

TEST_F(VPathTest, IsRootDirLooksAtTheTextAlone) {
    EXPECT_TRUE(VPath("/").IsRootDir());
    EXPECT_TRUE(VPath("///").IsRootDir());
    EXPECT_FALSE(VPath("/a").IsRootDir());
    EXPECT_FALSE(VPath("/.").IsRootDir());
    EXPECT_FALSE(VPath("").IsRootDir());
    EXPECT_TRUE(VPath(false, "/", nullptr).IsRootDir());
    EXPECT_FALSE(VPath(true, "//", nullptr).IsRootDir());
    EXPECT_FALSE(VPath(true, "", nullptr).IsRootDir());
}

TEST_F(VPathTest, RealPathIsAViewOfTheStoredText) {
    const VPath path("/a/b");
    const PathText text = path.RealPath();

    EXPECT_EQ(text.text, StoredText(path));
    EXPECT_FALSE(text.owned);
}

TEST_F(VPathTest, RealPathDoesNotFollowLinks) {
    scratch_.Write("file", "");
    const std::string link = scratch_.Link("link", "file");

    EXPECT_EQ(TextOf(VPath(link)), link);
}

struct SplitRow {
    const char* text;
    const char* dirName;
    bool dirNameIsOwned;
    const char* baseName;
    const char* dirPath;
};

TEST_F(VPathTest, SplitsAtTheLastSlash) {
    const std::vector<SplitRow> rows = {
        {"/", "/", false, "/", "/"},
        {"/a", "", true, "a", ""},
        {"/a/b", "/a", true, "b", "/a"},
        {"/a/b/c", "/a/b", true, "c", "/a/b"},
        {"/a/b/..", "/a/b", true, "..", "/a/b"},
        {"/.", "", true, ".", ""},
    };
    for (const SplitRow& row : rows) {
        SCOPED_TRACE(row.text);
        const VPath path(row.text);

        const PathText dirName = path.DirName();
        EXPECT_STREQ(dirName.text, row.dirName);
        EXPECT_EQ(dirName.owned, row.dirNameIsOwned);
        const PathText baseName = path.BaseName();
        EXPECT_STREQ(baseName.text, row.baseName);
        EXPECT_FALSE(baseName.owned);
        EXPECT_GE(baseName.text, StoredText(path));
        EXPECT_LT(baseName.text, StoredText(path) + 4096);
        EXPECT_EQ(ResultOf(path.DirPath()), row.dirPath);
    }
}

TEST_F(VPathTest, DeliberatelyGivesTheEmptyTextAsTheParentOfATopLevelName) {
    const VPath parent = VPath("/a").DirPath();

    EXPECT_TRUE(IsValid(parent));
    EXPECT_STREQ(StoredText(parent), "");
    EXPECT_FALSE(parent.IsRootDir());
    EXPECT_STREQ(parent.RealPath().text, "");
    EXPECT_EQ(ResultOf(parent + "b"), "/b");
}

TEST_F(VPathTest, AnswersWithNothingWhereThereIsNoSlash) {
    for (const char* const text : {"", "name"}) {
        SCOPED_TRACE(text);
        const VPath path(true, text, nullptr);

        EXPECT_STREQ(path.DirName().text, "");
        EXPECT_FALSE(path.DirName().owned);
        EXPECT_STREQ(path.BaseName().text, "");
        EXPECT_FALSE(IsValid(path.DirPath()));
        EXPECT_STREQ(StoredText(path.DirPath()), "");
    }
}

TEST_F(VPathTest, AnswersWithNothingWhenInvalid) {
    for (const VPath& path : {Invalid(), VPath(false, "/a/b", nullptr), VPath(false, "/", nullptr)}) {
        SCOPED_TRACE(StoredText(path));
        EXPECT_STREQ(path.RealPath().text, "");
        EXPECT_FALSE(path.RealPath().owned);
        EXPECT_STREQ(path.DirName().text, "");
        EXPECT_FALSE(path.DirName().owned);
        EXPECT_STREQ(path.BaseName().text, "");
        EXPECT_FALSE(path.BaseName().owned);
        EXPECT_FALSE(IsValid(path.DirPath()));
        EXPECT_STREQ(StoredText(path.DirPath()), "");
    }
}

TEST_F(VPathTest, DirNameIsEmptyWhenNoMemoryCanBeHad) {
    if (!heap::IsCounted()) GTEST_SKIP() << "the heap belongs to a sanitizer here";
    const VPath path("/" + std::string(3210, 'a') + "/b");
    const Replaced replaced(calls::failingMallocSize, 3212U);

    const PathText text = path.DirName();

    EXPECT_STREQ(text.text, "");
    EXPECT_FALSE(text.owned);
}

TEST_F(VPathTest, DirNameFreesItsBlockWhenTheCopyReportsAnError) {
    const VPath path("/a/b");
    const Replaced replaced(calls::strncpy_s, [](char*, size_t, const char*, size_t) { return ERANGE; });

    ExpectNoLeak([&path] {
        const PathText text = path.DirName();
        EXPECT_STREQ(text.text, "");
        EXPECT_FALSE(text.owned);
    });
}

TEST_F(VPathTest, PathTextReleasesWhatItOwnsOnce) {
    const VPath path("/a/b");
    ExpectNoLeak([&path] {
        PathText first = path.DirName();
        PathText second = std::move(first);
        EXPECT_STREQ(first.text, "");
        EXPECT_FALSE(first.owned);
        EXPECT_STREQ(second.text, "/a");
        EXPECT_TRUE(second.owned);

        PathText third = path.DirName();
        third = std::move(second);
        EXPECT_STREQ(third.text, "/a");
        third = path.BaseName();
        EXPECT_STREQ(third.text, "b");
        EXPECT_FALSE(third.owned);
    });
}

TEST_F(VPathTest, AllocatesNothingButForJoinsAndDirName) {
    const WorkingDirectory here(scratch_.Path());
    const std::string tail(100, 'x');
    const VPath path("/some/directory/../whose/text/is/not/a/short/one");
    VPath target(path);

    const long before = heap::Allocations();
    target.ResolvePath("/some//rather/long/../path/which/does/not/fit/into/a/short/string");
    target.ResolvePath("relative/../path");
    target = path;
    EXPECT_FALSE(VPath(path).DirPath().BaseName().owned);
    EXPECT_EQ(heap::Allocations(), before);

    const VPath sum = path + tail;
    const long afterJoin = heap::Allocations();
    const PathText parent = path.DirName();
    const long afterDirName = heap::Allocations();
    EXPECT_EQ(afterJoin - before, heap::IsCounted() ? 1 : 0);
    EXPECT_EQ(afterDirName - afterJoin, heap::IsCounted() ? 1 : 0);
}

TEST_F(VPathTest, FileExistAsksForTheNameAsGiven) {
    const WorkingDirectory here(scratch_.Path());
    scratch_.Write("file", "");
    scratch_.Link("dangling", "nowhere");

    EXPECT_TRUE(VPath::FileExist(scratch_.Path("file").c_str()));
    EXPECT_TRUE(VPath::FileExist("file"));
    EXPECT_TRUE(VPath::FileExist(scratch_.Path().c_str()));
    EXPECT_FALSE(VPath::FileExist(scratch_.Path("missing").c_str()));
    EXPECT_FALSE(VPath::FileExist("dangling"));
    EXPECT_FALSE(VPath::FileExist("file/"));
    EXPECT_FALSE(VPath::FileExist("missing/../file"));
    EXPECT_FALSE(VPath::FileExist(""));
    EXPECT_FALSE(VPath::FileExist(nullptr));
}

TEST_F(VPathTest, FileExistIsTrueForAnythingButMinusOne) {
    int answer = 0;
    const Replaced replaced(calls::access, [&answer](const char* path, int mode) {
        EXPECT_STREQ(path, "name");
        EXPECT_EQ(mode, F_OK);
        return answer;
    });

    EXPECT_TRUE(VPath::FileExist("name"));
    answer = -1;
    EXPECT_FALSE(VPath::FileExist("name"));
    answer = 1;
    EXPECT_TRUE(VPath::FileExist("name"));
}

// The rest compares with an independent model of the canonicalisation.

class TextMaker {
public:
    explicit TextMaker(unsigned seed) : random_(seed) {}

    // A text of `pieces` components, dots and runs of '/' among them far more often than in real life.
    std::string Make(std::size_t pieces) {
        static const std::vector<std::string> kNames = {"a",   "bc", ".", "..",   "...", ".x", "x.",
                                                        "..y", "",   " ", "\xff", "-",   "a b"};
        std::string text = Pick(2) == 0 ? "/" : "";
        for (std::size_t i = 0; i < pieces; ++i) {
            text += kNames[Pick(kNames.size())];
            text += std::string(Pick(8) == 0 ? 1 + Pick(4) : 1, '/');
        }
        if (Pick(2) == 0) text += kNames[Pick(kNames.size())];
        return text;
    }

    // A text whose length lies around the limits.
    std::string MakeLong() {
        const std::size_t length = 4080 + Pick(24);
        std::string text = Make(3000);
        text.resize(length, 'z');
        if (Pick(4) == 0) text.back() = '/';
        return text;
    }

    std::size_t Pick(std::size_t count) {
        return std::uniform_int_distribution<std::size_t>(0, count - 1)(random_);
    }

private:
    std::mt19937 random_;
};

// A directory under `base` whose path has exactly `length` characters.
std::string MakeDeepDirectory(const ScratchDirectory& base, std::size_t length) {
    std::string path = base.Path();
    const WorkingDirectory home(path);
    while (path.size() < length) {
        const std::size_t missing = length - path.size() - 1;
        const std::string name(missing <= 250 ? missing : (missing < 252 ? 100 : 250), 'd');
        if (mkdir(name.c_str(), 0700) != 0 || chdir(name.c_str()) != 0) ADD_FAILURE() << strerror(errno);
        path += "/" + name;
    }
    return path;
}

void GoDown(const std::string& path, std::size_t from) {
    // In steps, since the whole may be longer than the system takes at once.
    for (std::size_t begin = from; begin < path.size();) {
        const std::size_t end = std::min(path.find('/', begin + 1), path.size());
        ASSERT_EQ(chdir(path.substr(begin + 1, end - begin - 1).c_str()), 0) << strerror(errno);
        begin = end;
    }
}

// A sanitizer, memcheck, an emulator and the counters of coverage make everything many times slower.
long Rounds(long count) {
    return heap::IsCounted() && !kIsSlow && !VFS_TEST_COVERAGE ? count * TestScale() : count / 100;
}

void CompareWithModel(const std::string& workingDirectory, unsigned seed, long shortTexts, long longTexts) {
    TextMaker maker(seed);
    VPath path("/");
    for (long i = 0; i < shortTexts + longTexts; ++i) {
        const std::string text = i < shortTexts ? maker.Make(maker.Pick(12)) : maker.MakeLong();
        path.ResolvePath(text.c_str());
        ASSERT_EQ(ResultOf(path), ModelOfResolve(text, workingDirectory)) << "text: " << text;
    }
}

TEST_F(VPathTest, AgreesWithTheModelInTheRootDirectory) {
    const WorkingDirectory here("/");
    CompareWithModel("/", 1, Rounds(500000), Rounds(2000));
}

TEST_F(VPathTest, AgreesWithTheModelInAShortDirectory) {
    const WorkingDirectory here("/usr");
    CompareWithModel("/usr", 2, Rounds(500000), Rounds(2000));
}

TEST_F(VPathTest, AgreesWithTheModelInVeryLongDirectories) {
    for (const std::size_t length : {3000U, 4000U, 4090U, 4093U, 4094U, 4095U}) {
        SCOPED_TRACE(length);
        const ScratchDirectory base;
        const std::string deep = MakeDeepDirectory(base, length);
        ASSERT_EQ(deep.size(), length);
        const WorkingDirectory home(base.Path());
        ASSERT_NO_FATAL_FAILURE(GoDown(deep, base.Path().size()));

        CompareWithModel(deep, static_cast<unsigned>(length), Rounds(10000), Rounds(500));
    }
}

TEST_F(VPathTest, IsInvalidWhenTheWorkingDirectoryIsLongerThanThePathCanHold) {
    const std::string deep = MakeDeepDirectory(scratch_, 4096);
    const WorkingDirectory home(scratch_.Path());
    ASSERT_NO_FATAL_FAILURE(GoDown(deep, scratch_.Path().size()));

    EXPECT_FALSE(IsValid(VPath("x")));
    EXPECT_TRUE(IsValid(VPath("/x")));
}

TEST_F(VPathTest, AgreesWithTheModelOnJoins) {
    TextMaker maker(3);
    VPath path("/");
    for (long i = 0; i < Rounds(50000); ++i) {
        const std::string before = StoredText(path);
        const std::string tail = maker.Make(maker.Pick(8));
        const std::optional<std::string> expected = ModelOfJoin(before, tail);
        ASSERT_EQ(ResultOf(path + tail), expected) << before << " + " << tail;
        path += tail.c_str();
        ASSERT_EQ(ResultOf(path), expected) << before << " += " << tail;
        if (!expected || expected->size() > 3000) path.ResolvePath("/");
    }
}

TEST_F(VPathTest, AgreesWithTheModelWhereverInALongTextSomethingIsRemoved) {
    // Clean text is looked through in blocks; nothing may slip through at their borders or ends.
    for (const std::size_t length : {0U, 1U, 15U, 16U, 17U, 40U, 127U, 128U, 129U, 144U, 300U}) {
        std::string clean;
        while (clean.size() < length) clean += clean.size() % 9 == 0 ? '/' : 'n';
        for (std::size_t at = 0; at <= length; ++at) {
            for (const char* const piece : {"/", "//", "/.", "/./", "/..", "/../", "/..//", "/.n", "/...",
                                            "//////////////////////////////////////////"}) {
                const std::string text = "/" + clean.substr(0, at) + piece + clean.substr(at);
                ASSERT_EQ(ResultOf(VPath(text)), ModelOfResolve(text, "/")) << text;
            }
        }
    }
}

TEST_F(VPathTest, AgreesWithTheModelOnTheLongestTexts) {
    const WorkingDirectory here("/");
    for (const char* const piece : {"/a/..", "/./", "////", "/a", "/../", "/a/./b/..", "/...", "/."}) {
        for (std::size_t length = 4085; length <= 4098; ++length) {
            std::string text;
            while (text.size() < length) text += piece;
            text.resize(length);
            ASSERT_EQ(ResultOf(VPath(text)), ModelOfResolve(text, "/")) << piece << " up to " << length;
        }
    }
    std::string deep;
    for (int i = 0; i < 585; ++i) deep += "/abc";
    for (int i = 0; i < 585; ++i) deep += "/..";
    EXPECT_EQ(ResultOf(VPath(deep)), ModelOfResolve(deep, "/"));
    EXPECT_EQ(ResultOf(VPath(deep)), "/abc/..");
}

}  // namespace
