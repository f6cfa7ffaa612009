#include "Manifest.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

const std::string kZeros(64, '0');
const std::string kOnes(64, '1');
const std::string kBegin = "#mtree\n# filelist " + kOnes + "\n";

Manifest Sample() {
    Manifest manifest;
    manifest.release = "2.0";
    manifest.lowest = "1.4~rc1";
    manifest.fileListDigest = DigestOf("list");
    manifest.entries = {
        {"/opt/app", true, 02755, "root", "adm", 0, {}},
        {"/opt/app/b#=\\ *?[\n\xff", false, 04711, "root", "root", 123456789012, DigestOf("b")},
        {"/opt/app/file", false, 0, "a_b.c-d", "root", 0, DigestOf("")}};
    return manifest;
}

Manifest Parsed(const std::string& text) {
    Manifest manifest;
    EXPECT_EQ(Parse(text, manifest).value_or(""), "");
    return manifest;
}

std::string WhyNot(const std::string& text) {
    Manifest manifest;
    return Parse(text, manifest).value_or("");
}

TEST(ManifestTest, IsALineForEachPathWithEscapesForWhatHasAMeaning) {
    EXPECT_EQ(Print(Sample()),
              "#mtree\n# release 2.0\n# lowest 1.4~rc1\n# filelist " + HexOf(DigestOf("list")) +
                  "\n"
                  "./opt/app type=dir mode=2755 uname=root gname=adm\n"
                  "./opt/app/b\\043\\075\\134\\040\\052\\077\\133\\012\\377 type=file mode=4711 uname=root "
                  "gname=root size=123456789012 sha256digest=" +
                  HexOf(DigestOf("b")) +
                  "\n"
                  "./opt/app/file type=file mode=0000 uname=a_b.c-d gname=root size=0 sha256digest=" +
                  HexOf(DigestOf("")) + "\n");
}

TEST(ManifestTest, IsReadAsItWasWritten) {
    const Manifest read = Parsed(Print(Sample()));

    EXPECT_EQ(read.release, "2.0");
    EXPECT_EQ(read.lowest, "1.4~rc1");
    EXPECT_EQ(Print(read), Print(Sample()));
}

TEST(ManifestTest, AnyByteOfANameIsReadAsItWasWritten) {
    for (int byte = 1; byte < 256; ++byte) {
        if (byte == '/') continue;
        Manifest manifest = Sample();
        manifest.entries = {{"/d/" + std::string(1, static_cast<char>(byte)) + "x", false, 0644, "root",
                             "root", 1, DigestOf("x")}};
        EXPECT_EQ(Parsed(Print(manifest)).entries.at(0).path, manifest.entries[0].path) << byte;
    }
}

TEST(ManifestTest, FindsEntriesByTheirPaths) {
    const std::string line = " type=dir mode=0755 uname=root gname=root\n";
    const Manifest manifest = Parsed(kBegin + "./a" + line + "./b" + line + "./c" + line);

    for (const char* const path : {"/a", "/b", "/c"}) {
        ASSERT_NE(manifest.Find(path), nullptr) << path;
        EXPECT_EQ(manifest.Find(path)->path, path);
    }
    for (const char* const path : {"", "/", "/aa", "a", "/d"})
        EXPECT_EQ(manifest.Find(path), nullptr) << path;
}

TEST(ManifestTest, StandsBesideTheFileList) {
    EXPECT_EQ(ManifestPath("/package/filelist.ini"), "/package/filelist.ini.mtree");
}

TEST(ManifestTest, RefusesWhatDoesNotBeginAsAManifest) {
    EXPECT_EQ(WhyNot(""), "it does not begin with \"#mtree\"");
    EXPECT_EQ(WhyNot("./a type=dir\n"), "it does not begin with \"#mtree\"");
    EXPECT_EQ(WhyNot("#mtree v2\n"), "it does not begin with \"#mtree\"");
    EXPECT_EQ(WhyNot("#mtree\n"), "it lacks the digest of the file list");
    EXPECT_EQ(WhyNot("#mtree\n./a type=dir\n# filelist " + kOnes + "\n"),
              "it lacks the digest of the file list");
    EXPECT_EQ(WhyNot("#mtree\n# filelist " + kZeros + "\n"), "it lacks the digest of the file list");
}

TEST(ManifestTest, RefusesCommentsThatItDoesNotKnow) {
    const std::string comments[] = {"# requires kernel",
                                    "# release",
                                    "# release 1 2",
                                    "# release 1/2",
                                    "# lowest " + std::string(65, '1'),
                                    "# filelist " + kOnes.substr(1),
                                    "# filelist x" + kOnes.substr(1),
                                    "#release 1",
                                    "# "};
    for (const std::string& comment : comments) {
        EXPECT_EQ(WhyNot(kBegin + comment + "\n"), "it is for another version of vfilelist: " + comment);
    }
}

TEST(ManifestTest, RefusesEntriesThatLackSomethingOrAreSomethingElse) {
    const std::string owner = " uname=root gname=root";
    const std::string digest = " sha256digest=" + kOnes;
    const struct {
        std::string line;
        std::string why;
    } cases[] = {
        {"./f type=file mode=0644 uname=root size=1" + digest, "/f: it has no owner"},
        {"./f type=file mode=0644 gname=root size=1" + digest, "/f: it has no owner"},
        {"./f type=file mode=0644 size=1" + owner, "/f: it has no SHA-256 digest"},
        {"./f type=file mode=0644 size=1" + owner + " sha256digest=" + kZeros,
         "/f: it has no SHA-256 digest"},
        {"./f type=file mode=0644 size=-1" + owner + digest, "/f: its size is negative"},
        {"./f type=link mode=0644 link=x" + owner, "/f: neither a file nor a directory"},
        {"./../f type=dir mode=0755" + owner, "./../f: not a path below the root directory"},
        {"./a/../f type=dir mode=0755" + owner, "./a/../f: not a path below the root directory"},
        {"./f/ type=dir mode=0755" + owner, "./f/: not a path below the root directory"},
        {"a/f type=dir mode=0755" + owner, "a/f: not a path below the root directory"},
        {"f type=dir mode=0755" + owner, "f: not a path below the root directory"},
        {". type=dir mode=0755" + owner, ".: not a path below the root directory"},
        {"./f type=file mode=0644 colour=red" + owner, "Unrecognized key colour=red"},
        {"/f type=file", "Can't parse line 3"},
    };
    for (const auto& [line, why] : cases) EXPECT_EQ(WhyNot(kBegin + line + "\n"), why) << line;
}

TEST(ManifestTest, RefusesWhatCouldHaveBeenWrittenInAnotherWay) {
    const std::string line = " type=dir mode=0755 uname=root gname=root\n";
    const std::string file = " type=file mode=0644 uname=root gname=root size=1 sha256digest=" + kOnes + "\n";
    const std::string texts[] = {
        kBegin + "./b" + line + "./a" + line,
        kBegin + "./a" + line + "./a type=dir mode=04777 uname=root gname=root\n",
        kBegin + "/set mode=0755\n./a type=dir uname=root gname=root\n",
        kBegin + "./a type=dir uname=root gname=root\n",
        kBegin + "./a\\000b" + line,
        kBegin + "./a type=dir mode=0755 uname=root gname=root optional\n",
        kBegin + "\n# lowest 2.0\n./a" + line,
        kBegin + "./a" + line + "# lowest 2.0\n",
        kBegin + "./a type=file mode=0644 uname=root gname=root sha256digest=" + kOnes + "\n",
        kBegin + "./a" + file + "\n",
        "#mtree\n# filelist " + kOnes + "\n# release 1\n./a" + line,
    };
    EXPECT_EQ(WhyNot(kBegin + "./a" + file), "");
    for (const std::string& text : texts)
        EXPECT_EQ(WhyNot(text), "it is not as vfilelist make writes it") << text;
}

TEST(ManifestTest, ReleasesAreShortWordsOfLettersDigitsAndMarks) {
    for (const char* const text : {"1", "2.0", "10.4.2-rc1+git~5_x", "Z"})
        EXPECT_TRUE(IsRelease(text)) << text;
    EXPECT_TRUE(IsRelease(std::string(64, '1')));
    EXPECT_FALSE(IsRelease(std::string(65, '1')));
    for (const char* const text : {"", "1 2", "1/2", "\xc3\xa4", "1\n", "%"})
        EXPECT_FALSE(IsRelease(text)) << text;
}

TEST(ManifestTest, NumbersInReleasesCountAsNumbers) {
    EXPECT_TRUE(IsOlder("1.9", "1.10"));
    EXPECT_TRUE(IsOlder("1", "1.0"));
    EXPECT_TRUE(IsOlder("", "1"));
    EXPECT_TRUE(IsOlder("2.0", "2.01"));
    EXPECT_TRUE(IsOlder("1.09", "1.010"));
    EXPECT_FALSE(IsOlder("2026.10", "2026.09"));
    EXPECT_FALSE(IsOlder("01", "1"));
    EXPECT_FALSE(IsOlder("1", "01"));
    EXPECT_TRUE(IsOlder("00", "1"));
    EXPECT_FALSE(IsOlder("1.10", "1.10"));
    EXPECT_FALSE(IsOlder("2", "1.10"));
}

TEST(ManifestTest, OwnersAreThoseThatThisMachineKnows) {
    ManifestEntry entry{"/f", false, 0, "root", "root", 0, {}};
    ASSERT_TRUE(OwnerOf(entry));
    EXPECT_EQ(OwnerOf(entry)->user, 0U);
    EXPECT_EQ(OwnerOf(entry)->group, 0U);

    entry.group = "no such group";
    EXPECT_FALSE(OwnerOf(entry));
    entry = {"/f", false, 0, "no such user", "root", 0, {}};
    EXPECT_FALSE(OwnerOf(entry));
}

}  // namespace
