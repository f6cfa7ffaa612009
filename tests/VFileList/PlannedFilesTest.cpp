#include "PlannedFiles.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <optional>
#include <string>

#include "ScratchDirectory.h"

namespace {

namespace fs = std::filesystem;

using testing::ElementsAre;
using testing::IsEmpty;

class PlannedFilesTest : public testing::Test {
protected:
    std::string Path(const std::string& name) const { return scratch_.Path(name); }

    const ScratchDirectory scratch_;
    PlannedFiles files_;
};

TEST_F(PlannedFilesTest, KnowsTheFileBehindEachSpellingOfItsPath) {
    scratch_.Write("a/b/file", "12345");
    scratch_.Link("a/link", "b");
    scratch_.Link("absolute", Path("a/link"));
    for (const char* const path : {"a/b/file", "a//b/./file", "a/link/file", "absolute/file",
                                   "absolute/../b/file", "a/link/../b/file"}) {
        EXPECT_EQ(files_.ResolvedName(Path(path)), Path("a/b/file")) << path;
        EXPECT_EQ(files_.At(Path(path)).size(), 5u) << path;
    }
    for (const char* const path : {"a/b/file/", "a/b/file/.", "a/b/file/x", "lost/../a/b/file"}) {
        EXPECT_EQ(files_.At(Path(path)).kind, FileKind::kNone) << path;
        EXPECT_EQ(files_.ResolvedName(Path(path)), std::nullopt) << path;
    }
    EXPECT_EQ(files_.ResolvedName("/../.."), "");
    EXPECT_EQ(files_.At("/").kind, FileKind::kDirectory);
}

TEST_F(PlannedFilesTest, StartsARelativePathInTheWorkingDirectory) {
    scratch_.Write("dir/file", "1");
    const WorkingDirectory inside(Path("dir"));

    EXPECT_EQ(files_.ResolvedName("file"), Path("dir/file"));
    EXPECT_EQ(files_.NearestPlace("new/er"), ".");
    EXPECT_EQ(WhyNoDirectory(files_, "new/../dir"), ". lacks what stands before \"..\"");
    EXPECT_THAT(files_.MakeDirectory("new"), ElementsAre(Path("dir/new")));
    EXPECT_EQ(files_.At("new").kind, FileKind::kDirectory);
}

TEST_F(PlannedFilesTest, StaysBelowItsRoot) {
    scratch_.Write("image/data/file", "12");
    scratch_.Link("image/link", "/data");
    scratch_.Link("image/up", "../../data");
    const PlannedFiles files(Path("image/"));
    for (const char* const path : {"/data/file", "/link/file", "/up/file", "/../data/file"}) {
        EXPECT_EQ(files.ResolvedName(path), "/data/file") << path;
        EXPECT_EQ(files.Behind(path).origin, Path("image/data/file")) << path;
    }
    EXPECT_EQ(files.NearestPlace("/opt/app"), Path("image/"));
}

TEST_F(PlannedFilesTest, SaysWhyADirectoryIsNone) {
    const std::string file = scratch_.Write("file", "");
    scratch_.Link("link", "nowhere");
    scratch_.Link("circle", "circle");
    scratch_.MakeDirectory("dir");

    EXPECT_EQ(WhyNoDirectory(files_, Path("dir/")), std::nullopt);
    EXPECT_EQ(WhyNoDirectory(files_, file + "/new"), file + " is no directory");
    EXPECT_EQ(WhyNoDirectory(files_, Path("dir/new/../x")), Path("dir") + " lacks what stands before \"..\"");
    for (const char* const name : {"link", "circle"}) {
        EXPECT_EQ(WhyNoDirectory(files_, Path(name) + "/new"), Path(name) + " is a dangling link");
    }
}

TEST_F(PlannedFilesTest, MakesWhatTheToolWouldMake) {
    scratch_.Write("file", "");
    scratch_.Link("link", "nowhere");
    EXPECT_THAT(files_.MakeDirectory(Path("a/b/")), ElementsAre(Path("a"), Path("a/b")));
    EXPECT_THAT(files_.MakeDirectory(Path("a/b")), IsEmpty()) << "it is there";
    EXPECT_THAT(files_.MakeDirectory(Path("a/x/../c")), ElementsAre(Path("a/c"))) << "its text decides";
    EXPECT_THAT(files_.MakeDirectory(Path("file/d")), IsEmpty());
    EXPECT_THAT(files_.MakeDirectory(Path("link/d")), IsEmpty());
    EXPECT_THAT(files_.MakeDirectory(Path(std::string(5000, 'x'))), IsEmpty());
    EXPECT_EQ(files_.At(Path("a/x")).kind, FileKind::kNone);
    EXPECT_EQ(files_.NearestPlace(Path("a/b/file")), scratch_.Path());
    EXPECT_FALSE(fs::exists(Path("a")));
}

TEST_F(PlannedFilesTest, MovesADirectoryWithAllThatIsInIt) {
    scratch_.Write("dir/file", "1");
    scratch_.Write("dir/sub/deep", "12");
    files_.Write(Path("dir/new"), 7);
    files_.Remove(Path("dir/sub/deep"));
    files_.Move(Path("dir"), Path("dir.bak"));

    EXPECT_EQ(files_.At(Path("dir/file")).kind, FileKind::kNone);
    EXPECT_EQ(files_.At(Path("dir.bak/file")).origin, Path("dir/file"));
    EXPECT_EQ(files_.At(Path("dir.bak/new")).size(), 7u);
    EXPECT_EQ(files_.At(Path("dir.bak/sub/deep")).kind, FileKind::kNone);
    EXPECT_EQ(files_.At(Path("dir.bak/sub")).kind, FileKind::kDirectory);
    EXPECT_EQ(files_.At("/").kind, FileKind::kDirectory);
    files_.MakeDirectory(Path("dir"));
    EXPECT_EQ(files_.At(Path("dir/file")).kind, FileKind::kNone) << "a new directory is empty";
}

TEST_F(PlannedFilesTest, WritesThroughALinkIfItsDirectoryIsThere) {
    scratch_.Link("link", "target");
    scratch_.Link("lost", "nowhere/target");
    files_.Write(Path("link"), 3);
    files_.Write(Path("lost"), 3);

    EXPECT_EQ(files_.At(Path("target")).size(), 3u);
    EXPECT_EQ(files_.At(Path("link")).kind, FileKind::kLink);
    EXPECT_EQ(files_.Behind(Path("lost")).kind, FileKind::kNone);
}

TEST_F(PlannedFilesTest, DoesNothingWhereNothingCanBe) {
    scratch_.Write("file", "1");
    files_.Remove(Path("file/x"));
    files_.Move(Path("file/x"), Path("file"));
    files_.Move(Path("file"), Path("lost/file"));

    EXPECT_EQ(files_.At(Path("file")).size(), 1u);
}

}  // namespace
