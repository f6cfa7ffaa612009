#include "VCopyFileListIni.h"

#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <string>
#include <type_traits>
#include <vector>

#include "Resources.h"
#include "ScratchDirectory.h"
#include "SystemCalls.h"
#include "VIni.h"

// The main of the module; the test program has one of its own.
extern "C" int VCopyFileListIniMain(int argc, char* argv[]);

namespace {

// Stands in the place of VIni::IniGetString, if anything does.
using IniGetString = int(const char*, const char*, const char*, char*, int, const char*);
calls::Hook<IniGetString> iniGetString = {nullptr};

}  // namespace

int VIni::IniGetString(const char* section, const char* key, const char* defaultValue, char* buffer,
                       int bufferSize, const char* iniPath) {
    if (iniGetString.replacement != nullptr) {
        return iniGetString(section, key, defaultValue, buffer, bufferSize, iniPath);
    }
    static const auto next =
        reinterpret_cast<::IniGetString*>(dlsym(RTLD_NEXT, "_ZN4VIni12IniGetStringEPKcS1_S1_PciS1_"));
    return next(section, key, defaultValue, buffer, bufferSize, iniPath);
}

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

static_assert(std::is_same_v<DirectoryMap, std::map<std::string, std::string>>);
static_assert(
    std::is_same_v<decltype(&ReadIniValue), std::string (*)(std::string, std::string, std::string)>);
static_assert(
    std::is_same_v<decltype(&SplitString), void (*)(std::string, std::string, std::vector<std::string>&)>);
static_assert(std::is_same_v<decltype(&GetFileName), std::string (*)(std::string)>);
static_assert(std::is_same_v<decltype(&GetSectionItemList),
                             void (*)(std::string, std::string, std::vector<std::string>&)>);
static_assert(std::is_same_v<decltype(&GetPathKeyAndValue), DirectoryMap (*)(std::string, std::string)>);
static_assert(std::is_same_v<decltype(&GetPathSectionMap), int (*)(DirectoryMap&, std::string)>);
static_assert(std::is_same_v<decltype(&RenameOperator), int (*)(std::string)>);
static_assert(std::is_same_v<decltype(&CopyOperator), int (*)(std::string)>);
static_assert(std::is_same_v<decltype(&CleanOperator), int (*)(std::string)>);

constexpr int kHardError = 1;
constexpr int kInformation = 3;

LogLine Line(const std::string& function, int level, const std::string& format, const std::string& text) {
    return {"BaseAPI/VFileSys/src/VCopyFileListIni", function, level, format, text};
}

LogLine InstallTypeLine(const std::string& installType) {
    return Line("GetPathSectionMap", kInformation, "PackageIntallType : %s",
                "PackageIntallType : " + installType);
}

LogLine CopyClassLine(const std::string& function, int level, const std::string& format,
                      const std::string& text) {
    return {"BaseAPI/VFileSys/src/VFile", function, level, format, text};
}

const char kRule[] = "---------------------------------------------------";

std::vector<std::string> Split(const std::string& text, const std::string& delimiter) {
    std::vector<std::string> pieces;
    SplitString(text, delimiter, pieces);
    return pieces;
}

mode_t ModeOf(const std::string& path) {
    struct stat status;
    return stat(path.c_str(), &status) == 0 ? status.st_mode & 07777 : 0;
}

// A package with its file list, and a directory to upgrade, both in a scratch directory.
class VCopyFileListIniTest : public ResourceTest {
protected:
    // A file list with the install type "Server", whose directory list and file lists are `rest`. In it,
    // "@" stands for the directory to upgrade.
    std::string WriteList(const std::string& rest) {
        return WriteRawList("[Package_Intall_Type]\nPackageIntallType=Server\n" + rest);
    }

    std::string WriteRawList(std::string text) {
        for (std::size_t at = 0; (at = text.find('@', at)) != std::string::npos;)
            text.replace(at, 1, Target());
        return scratch_.Write("pkg/filelist.ini", text);
    }

    std::string Target() const { return scratch_.Path("installed"); }
    std::string Target(const std::string& name) const { return Target() + "/" + name; }
    std::string Source(const std::string& name) const { return scratch_.Path("pkg/Common/" + name); }

    void WriteSource(const std::string& name, const std::string& content) {
        scratch_.Write("pkg/Common/" + name, content);
    }
    void Install(const std::string& name, const std::string& content) {
        scratch_.Write("installed/" + name, content);
    }
    std::string Installed(const std::string& name) const { return scratch_.Read("installed/" + name); }
    std::vector<std::string> InstalledNames() const { return scratch_.List("installed"); }

    ScratchDirectory scratch_;
};

// Reading and cutting.

TEST_F(VCopyFileListIniTest, SplitStringKeepsEmptyPiecesAndBlanks) {
    EXPECT_THAT(Split("a,b", ","), ElementsAre("a", "b"));
    EXPECT_THAT(Split("a,,b", ","), ElementsAre("a", "", "b"));
    EXPECT_THAT(Split("a,", ","), ElementsAre("a", ""));
    EXPECT_THAT(Split(",a", ","), ElementsAre("", "a"));
    EXPECT_THAT(Split("", ","), ElementsAre(""));
    EXPECT_THAT(Split("a.so, b.so ", ","), ElementsAre("a.so", " b.so "));
    EXPECT_THAT(Split("no delimiter", ","), ElementsAre("no delimiter"));
}

TEST_F(VCopyFileListIniTest, SplitStringTakesLongDelimitersFromLeftToRight) {
    EXPECT_THAT(Split("a--b-c", "--"), ElementsAre("a", "b-c"));
    // The delimiter that ends the text may be met early.
    EXPECT_THAT(Split("a-", "--"), ElementsAre("a"));
    EXPECT_THAT(Split("a---b", "--"), ElementsAre("a", "-b"));
}

TEST_F(VCopyFileListIniTest, SplitStringEndsForAnEmptyDelimiter) {
    EXPECT_THAT(Split("abc", ""), ElementsAre("abc"));
    EXPECT_THAT(Split("", ""), IsEmpty());
}

TEST_F(VCopyFileListIniTest, SplitStringAppends) {
    std::vector<std::string> pieces = {"before"};
    SplitString("a,b", ",", pieces);
    EXPECT_THAT(pieces, ElementsAre("before", "a", "b"));
}

TEST_F(VCopyFileListIniTest, GetFileNameIsWhatStandsBehindTheLastSeparator) {
    EXPECT_EQ(GetFileName("lib\\sub\\a.so"), "a.so");
    EXPECT_EQ(GetFileName("lib/sub/a.so"), "a.so");
    EXPECT_EQ(GetFileName("lib/sub\\a.so"), "a.so");
    EXPECT_EQ(GetFileName("lib\\sub/a.so"), "a.so");
    EXPECT_EQ(GetFileName("a.so"), "a.so");
    EXPECT_EQ(GetFileName("lib/"), "");
    EXPECT_EQ(GetFileName("lib\\"), "");
    EXPECT_EQ(GetFileName("/"), "");
    EXPECT_EQ(GetFileName(""), "");
    EXPECT_EQ(GetFileName(" lib/ a.so "), " a.so ");
}

TEST_F(VCopyFileListIniTest, GetKeyItemListAppendsTheEntriesOfOneKey) {
    const std::string list =
        WriteRawList("[Bin]\na=1,2\nb=3\nempty=\nlonger=" + std::string(4096, 'x') + "\n");
    std::vector<std::string> entries = {"before"};

    for (const char* const key : {"b", "empty", "longer", "missing", "a"}) {
        testing::internal::CaptureStderr();
        GetKeyItemList("Bin", key, list, entries);
        (void)testing::internal::GetCapturedStderr();
    }

    EXPECT_THAT(entries, ElementsAre("before", "3", "1", "2"));
}

TEST_F(VCopyFileListIniTest, ReadInstallTypeIsEmptyWithoutOne) {
    EXPECT_EQ(ReadInstallType(WriteList("")), "Server");
    EXPECT_EQ(ReadInstallType(WriteRawList("[Package_Intall_Type]\nPackageInstallType=Server\n")), "");
}

TEST_F(VCopyFileListIniTest, SourceDirectoryLiesBesideTheFileList) {
    EXPECT_EQ(SourceDirectory("/pkg/filelist.ini"), "/pkg/Common/");
    EXPECT_EQ(SourceDirectory("filelist.ini"), "Common/");
    EXPECT_EQ(SourceDirectory("/filelist.ini"), "/Common/");
}

TEST_F(VCopyFileListIniTest, ReadIniValueReadsUpTo259Bytes) {
    const std::string longest(259, 'v');
    const std::string list =
        WriteRawList("[S]\nkey=value\nempty=\nlongest=" + longest + "\nlonger=" + longest + "v\n");

    EXPECT_EQ(ReadIniValue("S", "key", list), "value");
    EXPECT_EQ(ReadIniValue("S", "longest", list), longest);
    testing::internal::CaptureStderr();
    EXPECT_EQ(ReadIniValue("S", "longer", list), "");
    EXPECT_THAT(testing::internal::GetCapturedStderr(), testing::HasSubstr("[S] longer"));
    EXPECT_EQ(ReadIniValue("S", "empty", list), "");
    EXPECT_EQ(ReadIniValue("S", "missing", list), "");
    EXPECT_EQ(ReadIniValue("T", "key", list), "");
}

TEST_F(VCopyFileListIniTest, GetSectionItemListReadsAllKeysInTheirByteWiseOrder) {
    const std::string list = WriteRawList("[L]\nb=3,4\na=2\nB=1\nempty=\nz=5,3\n");
    std::vector<std::string> entries = {"before"};

    GetSectionItemList("L", list, entries);

    EXPECT_THAT(entries, ElementsAre("before", "1", "2", "3", "4", "5", "3"));
}

TEST_F(VCopyFileListIniTest, GetSectionItemListKeepsEmptyEntriesAndBlanks) {
    const std::string list = WriteRawList("[L]\nf=x.so,,y.so, z.so,\n");
    std::vector<std::string> entries;

    GetSectionItemList("L", list, entries);

    EXPECT_THAT(entries, ElementsAre("x.so", "", "y.so", " z.so", ""));
}

TEST_F(VCopyFileListIniTest, GetSectionItemListSkipsAValueOfMoreThan4095Bytes) {
    const std::string longest(4095, 'x');
    const std::string list = WriteRawList("[L]\na=" + longest + "\nb=" + longest + "x\nc=y\n");
    std::vector<std::string> entries;

    testing::internal::CaptureStderr();
    GetSectionItemList("L", list, entries);

    EXPECT_THAT(testing::internal::GetCapturedStderr(), testing::HasSubstr("[L] b"));
    EXPECT_THAT(entries, ElementsAre(longest, "y"));
}

TEST_F(VCopyFileListIniTest, EndsAValueThatTheReaderCutWithoutANul) {
    const std::string list = WriteRawList("[L]\nkey=value\n");
    const Replaced cutting(
        iniGetString, [](const char*, const char*, const char*, char* buffer, int bufferSize, const char*) {
            std::memset(buffer, 'v', static_cast<std::size_t>(bufferSize));
            return 0;
        });
    std::vector<std::string> entries;

    EXPECT_EQ(ReadIniValue("L", "key", list), std::string(259, 'v'));
    GetSectionItemList("L", list, entries);

    EXPECT_THAT(entries, ElementsAre(std::string(4095, 'v')));
}

// What the reader leaves in the buffer with the status of a failure.
int FillAndFail(const char*, const char*, const char*, char* buffer, int, const char*) {
    std::strcpy(buffer, "left,behind");
    return -1;
}

TEST_F(VCopyFileListIniTest, DeliberatelyTakesTheEntriesThatAFailedReadLeft) {
    const std::string list = WriteRawList("[L]\nkey=value\n");
    const Replaced failing(iniGetString, FillAndFail);
    std::vector<std::string> entries;

    GetSectionItemList("L", list, entries);

    EXPECT_THAT(entries, ElementsAre("left", "behind"));
    EXPECT_EQ(ReadIniValue("L", "key", list), "") << "a directory is taken from a good read only";
}

TEST_F(VCopyFileListIniTest, GivesTheReaderZeroedBuffersOfFixedSizesAndAnEmptyDefault) {
    const std::string list = WriteRawList("[L]\nkey=value\n");
    std::vector<int> sizes;
    const Replaced recording(iniGetString, [&](const char* section, const char* key, const char* defaultValue,
                                               char* buffer, int bufferSize, const char* iniPath) {
        EXPECT_STREQ(section, "L");
        EXPECT_STREQ(key, "key");
        EXPECT_STREQ(defaultValue, "");
        EXPECT_EQ(iniPath, list);
        EXPECT_EQ(std::count(buffer, buffer + bufferSize, '\0'), bufferSize);
        sizes.push_back(bufferSize);
        return -1;
    });
    std::vector<std::string> entries;

    EXPECT_EQ(ReadIniValue("L", "key", list), "");
    GetSectionItemList("L", list, entries);

    EXPECT_THAT(sizes, ElementsAre(260, 4096));
    EXPECT_THAT(entries, IsEmpty());
}

TEST_F(VCopyFileListIniTest, GetSectionItemListFindsNothingInMissingAndEmptySections) {
    const std::string list = WriteRawList("[L]\na=\nb=\n[E]\n");
    std::vector<std::string> entries;

    GetSectionItemList("L", list, entries);
    GetSectionItemList("E", list, entries);
    GetSectionItemList("missing", list, entries);

    EXPECT_THAT(entries, IsEmpty());
}

TEST_F(VCopyFileListIniTest, GetPathKeyAndValueEndsEveryDirectoryWithASlash) {
    const std::string list = WriteRawList("[Server]\na=/opt/bin\nB=/opt/lib/\nc=relative\n");

    const DirectoryMap directories = GetPathKeyAndValue("Server", list);

    EXPECT_THAT(directories, ElementsAre(testing::Pair("B", "/opt/lib/"), testing::Pair("a", "/opt/bin/"),
                                         testing::Pair("c", "relative/")));
    EXPECT_THAT(LogRecorder::Lines(), IsEmpty());
}

TEST_F(VCopyFileListIniTest, DeliberatelyTakesTheRootDirectoryForADirectoryThatCannotBeRead) {
    const std::string list = WriteRawList("[Server]\nempty=\nlong=/" + std::string(259, 'd') + "\nlongest=/" +
                                          std::string(258, 'd') + "\n");

    testing::internal::CaptureStderr();
    const DirectoryMap directories = GetPathKeyAndValue("Server", list);
    testing::internal::GetCapturedStderr();

    EXPECT_THAT(directories, ElementsAre(testing::Pair("empty", "/"), testing::Pair("long", "/"),
                                         testing::Pair("longest", "/" + std::string(258, 'd') + "/")));
    EXPECT_THAT(LogRecorder::Lines(), IsEmpty());
}

TEST_F(VCopyFileListIniTest, GetPathKeyAndValueLogsASectionWithoutKeys) {
    const std::string list = WriteRawList("[Server]\n");

    EXPECT_THAT(GetPathKeyAndValue("Server", list), IsEmpty());
    EXPECT_THAT(LogRecorder::Lines(), ElementsAre(Line("GetPathKeyAndValue", kHardError, "Get path list fail",
                                                       "Get path list fail")));
}

TEST_F(VCopyFileListIniTest, GetPathSectionMapReplacesTheMap) {
    const std::string list = WriteList("[Server]\nBin=/opt/bin\n[Client]\nOther=/x\n");
    DirectoryMap directories = {{"old", "/old/"}};

    EXPECT_EQ(GetPathSectionMap(directories, list), 0);

    EXPECT_THAT(directories, ElementsAre(testing::Pair("Bin", "/opt/bin/")));
    EXPECT_THAT(LogRecorder::Lines(), ElementsAre(InstallTypeLine("Server")));
}

TEST_F(VCopyFileListIniTest, GetPathSectionMapFailsWithoutAnInstallType) {
    const std::string list = WriteRawList("[Server]\nBin=/opt/bin\n");
    DirectoryMap directories = {{"old", "/old/"}};

    EXPECT_EQ(GetPathSectionMap(directories, list), -10000);

    EXPECT_THAT(directories, IsEmpty());
    EXPECT_THAT(
        LogRecorder::Lines(),
        ElementsAre(InstallTypeLine(""),
                    Line("GetPathKeyAndValue", kHardError, "Get path list fail", "Get path list fail"),
                    Line("GetPathSectionMap", kHardError, "Get path list fail", "Get path list fail")));
}

// What the passes have in common.

struct Pass {
    const char* name;
    int (*run)(std::string);
};
const Pass kPasses[] = {
    {"RenameOperator", &RenameOperator}, {"CopyOperator", &CopyOperator}, {"CleanOperator", &CleanOperator}};

TEST_F(VCopyFileListIniTest, EveryPassFailsWithoutADirectoryMap) {
    const std::string missing = scratch_.Path("no.ini");
    for (const Pass& pass : kPasses) {
        SCOPED_TRACE(pass.name);
        LogRecorder::Clear();

        testing::internal::CaptureStderr();
        EXPECT_EQ(pass.run(missing), -10000);
        testing::internal::GetCapturedStderr();

        EXPECT_THAT(
            LogRecorder::Lines(),
            ElementsAre(
                InstallTypeLine(""),
                Line("GetPathKeyAndValue", kHardError, "Get path list fail", "Get path list fail"),
                Line("GetPathSectionMap", kHardError, "Get path list fail", "Get path list fail"),
                Line(pass.name, kHardError, "Get GetPathSectionMap fail", "Get GetPathSectionMap fail")));
    }
}

TEST_F(VCopyFileListIniTest, EveryPassVisitsTheListsInByteWiseOrder) {
    const std::string list = WriteList("[Server]\nb=@/1\nB=@/2\na=@/3/\n");
    for (const Pass& pass : kPasses) {
        SCOPED_TRACE(pass.name);
        LogRecorder::Clear();

        EXPECT_EQ(pass.run(list), 0);

        EXPECT_THAT(LogRecorder::Lines(),
                    ElementsAre(InstallTypeLine("Server"),
                                Line(pass.name, kInformation, "%s , %s", "B , " + Target("2/")),
                                Line(pass.name, kInformation, "%s , %s", "a , " + Target("3/")),
                                Line(pass.name, kInformation, "%s , %s", "b , " + Target("1/"))));
    }
}

TEST_F(VCopyFileListIniTest, EveryPassLeavesNothingBehindWhenItFails) {
    WriteSource("f", "new");
    Install("f", "old");
    const std::string list = WriteList("[Server]\nL=@\n[L]\nf=f,missing,\n");
    const Replaced noRename(calls::rename, [](const char*, const char*) { return -1; });
    const Replaced noRemove(calls::remove, [](const char*) { return -1; });
    Install("f.bak", "older");
    for (const Pass& pass : kPasses) {
        SCOPED_TRACE(pass.name);
        ExpectNoLeak([&] { EXPECT_EQ(pass.run(list), -10000); });
    }
}

// -rename

TEST_F(VCopyFileListIniTest, RenameMovesInstalledFilesToTheirBackups) {
    Install("tool1", "old 1");
    Install("tool 2", "old 2");
    Install("other", "untouched");
    const std::string list = WriteList("[Server]\nBin=@\n[Bin]\nf=bin/tool1,bin\\tool 2,new\n");

    EXPECT_EQ(RenameOperator(list), 0);

    EXPECT_THAT(InstalledNames(), ElementsAre("other", "tool 2.bak", "tool1.bak"));
    EXPECT_EQ(Installed("tool1.bak"), "old 1");
    EXPECT_THAT(LogRecorder::Lines(),
                ElementsAre(InstallTypeLine("Server"),
                            Line("RenameOperator", kInformation, "%s , %s", "Bin , " + Target("")),
                            Line("RenameOperator", kInformation, "%s ", Target("tool1 ")),
                            Line("RenameFile", kInformation, "rename: %s, %s",
                                 "rename: " + Target("tool1") + ", " + Target("tool1.bak")),
                            Line("RenameOperator", kInformation, "%s ", Target("tool 2 ")),
                            Line("RenameFile", kInformation, "rename: %s, %s",
                                 "rename: " + Target("tool 2") + ", " + Target("tool 2.bak")),
                            Line("RenameOperator", kInformation, "%s ", Target("new "))));
}

TEST_F(VCopyFileListIniTest, RenameReplacesAnOldBackupWithoutAWord) {
    Install("f", "old");
    Install("f.bak", "older");
    const std::string list = WriteList("[Server]\nL=@\n[L]\nf=f\n");

    EXPECT_EQ(RenameOperator(list), 0);

    EXPECT_THAT(InstalledNames(), ElementsAre("f.bak"));
    EXPECT_EQ(Installed("f.bak"), "old");
}

TEST_F(VCopyFileListIniTest, RenameTwiceFindsNothingTheSecondTime) {
    Install("f", "old");
    const std::string list = WriteList("[Server]\nL=@\n[L]\nf=f\n");

    EXPECT_EQ(RenameOperator(list), 0);
    LogRecorder::Clear();
    EXPECT_EQ(RenameOperator(list), 0);

    EXPECT_EQ(Installed("f.bak"), "old");
    EXPECT_EQ(LogRecorder::Texts().back(), Target("f "));
}

TEST_F(VCopyFileListIniTest, RenameOfTheSameNameTwicePassesOverTheSecond) {
    Install("f", "old");
    const std::string list = WriteList("[Server]\nL=@\n[L]\nf=a/f,b/f\n");

    EXPECT_EQ(RenameOperator(list), 0);

    EXPECT_EQ(Installed("f.bak"), "old");
    EXPECT_THAT(LogRecorder::Texts(), ElementsAre(testing::_, testing::_, Target("f "),
                                                  testing::HasSubstr("rename: "), Target("f ")));
}

TEST_F(VCopyFileListIniTest, RenameStopsAtTheFirstFailure) {
    Install("a", "old a");
    Install("b", "old b");
    Install("c", "old c");
    scratch_.Write("installed/b.bak/in the way", "");
    const std::string list = WriteList("[Server]\nL=@\n[L]\nf=a,b,c\n");

    EXPECT_EQ(RenameOperator(list), -10000);

    EXPECT_THAT(InstalledNames(), ElementsAre("a.bak", "b", "b.bak", "c"));
    EXPECT_EQ(LogRecorder::Lines().back(), Line("RenameFile", kHardError, "Failed:rename %s, %s",
                                                "Failed:rename " + Target("b") + ", " + Target("b.bak")));
}

TEST_F(VCopyFileListIniTest, RenameFailsWhateverTheCause) {
    Install("f", "old");
    const std::string list = WriteList("[Server]\nL=@\n[L]\nf=f\n");
    for (const int error : {EXDEV, ENOENT, EEXIST, EINTR, EROFS}) {
        const Replaced failing(calls::rename, [error](const char*, const char*) {
            errno = error;
            return -1;
        });

        EXPECT_EQ(RenameOperator(list), -10000) << error;

        EXPECT_THAT(InstalledNames(), ElementsAre("f"));
        EXPECT_EQ(LogRecorder::Lines().back(), Line("RenameFile", kHardError, "Failed:rename %s, %s",
                                                    "Failed:rename " + Target("f") + ", " + Target("f.bak")));
    }
}

TEST_F(VCopyFileListIniTest, RenameFailsForAnEmptyEntry) {
    Install("a", "old");
    const std::string list = WriteList("[Server]\nL=@\n[L]\nf=,a\n");

    EXPECT_EQ(RenameOperator(list), -10000);

    EXPECT_THAT(InstalledNames(), ElementsAre("a"));
    EXPECT_EQ(LogRecorder::Lines().back(), Line("RenameFile", kHardError, "Failed:rename %s, %s",
                                                "Failed:rename " + Target("") + ", " + Target(".bak")));
}

TEST_F(VCopyFileListIniTest, RenamePassesOverADanglingLink) {
    scratch_.Link("installed/f", "nowhere");
    const std::string list = WriteList("[Server]\nL=@\n[L]\nf=f\n");

    EXPECT_EQ(RenameOperator(list), 0);

    EXPECT_THAT(InstalledNames(), ElementsAre("f"));
}

TEST_F(VCopyFileListIniTest, RenameAsksAccessForExistenceOnly) {
    Install("f", "old");
    const std::string list = WriteList("[Server]\nL=@\n[L]\nf=f\n");
    std::vector<std::string> asked;
    const Replaced replaced(calls::access, [&asked](const char* path, int mode) {
        EXPECT_EQ(mode, F_OK);
        asked.emplace_back(path);
        return calls::real::access(path, mode);
    });

    EXPECT_EQ(RenameOperator(list), 0);

    EXPECT_THAT(asked, ElementsAre(Target("f")));
}

TEST_F(VCopyFileListIniTest, RenameCreatesNoDirectory) {
    const std::string list = WriteList("[Server]\nL=@/missing\n[L]\nf=f\n");

    EXPECT_EQ(RenameOperator(list), 0);

    EXPECT_FALSE(scratch_.Has("installed"));
}

// -copy

TEST_F(VCopyFileListIniTest, CopyPutsTheFilesFlatIntoTheirTargets) {
    WriteSource("bin/tool1", "new 1");
    WriteSource("bin/deep/er/tool2", "new 2");
    WriteSource("lib\\libone.so", "a backslash in its name");
    Install("tool1", "old and longer");
    const std::string list = WriteList(
        "[Server]\nBin=@\nLib=@/lib/\n[Bin]\nf=bin/tool1,bin/deep/er/tool2\n[Lib]\nf=lib\\libone.so\n");

    EXPECT_EQ(CopyOperator(list), 0);

    EXPECT_EQ(Installed("tool1"), "new 1");
    EXPECT_EQ(Installed("tool2"), "new 2");
    EXPECT_EQ(Installed("lib/libone.so"), "a backslash in its name");
    EXPECT_THAT(
        LogRecorder::Lines(),
        ElementsAre(
            InstallTypeLine("Server"), Line("CopyOperator", kInformation, "%s , %s", "Bin , " + Target("")),
            Line("CopyOperator", kInformation, "%s , %s", Source("bin/tool1") + " , " + Target("tool1")),
            Line("CopyFile", kInformation, "copy: %s, %s",
                 "copy: " + Source("bin/tool1") + ", " + Target("tool1")),
            Line("CopyOperator", kInformation, "%s , %s",
                 Source("bin/deep/er/tool2") + " , " + Target("tool2")),
            Line("CopyFile", kInformation, "copy: %s, %s",
                 "copy: " + Source("bin/deep/er/tool2") + ", " + Target("tool2")),
            Line("CopyOperator", kInformation, "%s , %s", "Lib , " + Target("lib/")),
            Line("CopyOperator", kInformation, "%s , %s",
                 Source("lib\\libone.so") + " , " + Target("lib/libone.so")),
            Line("CopyFile", kInformation, "copy: %s, %s",
                 "copy: " + Source("lib\\libone.so") + ", " + Target("lib/libone.so"))));
}

TEST_F(VCopyFileListIniTest, CopyMakesMissingTargetsAlsoForEmptyLists) {
    const mode_t oldMask = umask(0);
    const std::string list = WriteList("[Server]\nL=@/one/two\nM=@/three\n[L]\nf=\n");

    EXPECT_EQ(CopyOperator(list), 0);

    umask(oldMask);
    EXPECT_EQ(ModeOf(Target("one")), 0750U);
    EXPECT_EQ(ModeOf(Target("one/two")), 0750U);
    EXPECT_EQ(ModeOf(Target("three")), 0750U);
}

TEST_F(VCopyFileListIniTest, CopyUsesAnExistingTargetAsItIs) {
    WriteSource("f", "new");
    scratch_.MakeDirectory("installed");
    ASSERT_EQ(chmod(Target().c_str(), 0711), 0);
    const std::string list = WriteList("[Server]\nL=@\n[L]\nf=f\n");
    const Replaced replaced(calls::mkdir, [](const char*, mode_t) -> int {
        ADD_FAILURE() << "made a directory";
        return -1;
    });

    EXPECT_EQ(CopyOperator(list), 0);

    EXPECT_EQ(ModeOf(Target()), 0711U);
}

TEST_F(VCopyFileListIniTest, CopyShowsATargetThatCannotBeMadeAsACopyThatFails) {
    WriteSource("f", "new");
    Install("file", "in the way");
    const std::string list = WriteList("[Server]\nL=@/file/sub\n[L]\nf=f\n");

    EXPECT_EQ(CopyOperator(list), -10000);

    const std::string destination = Target("file/sub/f");
    EXPECT_THAT(LogRecorder::Lines(),
                ElementsAre(InstallTypeLine("Server"),
                            Line("CopyOperator", kInformation, "%s , %s", "L , " + Target("file/sub/")),
                            Line("CopyOperator", kInformation, "%s , %s", Source("f") + " , " + destination),
                            CopyClassLine("fopen_s", kInformation, "open file %s errno %d",
                                          "open file " + destination + " errno " + std::to_string(ENOTDIR)),
                            CopyClassLine("VCopyFile", kInformation, "Not fopen_s:dstFilename=%s",
                                          "Not fopen_s:dstFilename=" + destination),
                            Line("CopyFile", kHardError, "Failed:copy %s, %s",
                                 "Failed:copy " + Source("f") + ", " + destination)));
}

TEST_F(VCopyFileListIniTest, CopyStopsAtAMissingSource) {
    WriteSource("a", "new a");
    WriteSource("c", "new c");
    Install("b", "old b");
    const std::string list = WriteList("[Server]\nL=@\n[L]\nf=a,b,c,d\n");

    EXPECT_EQ(CopyOperator(list), -10000);

    EXPECT_THAT(InstalledNames(), ElementsAre("a", "b"));
    EXPECT_EQ(Installed("b"), "old b");
    EXPECT_EQ(LogRecorder::Lines().back(),
              Line("CopyFile", kHardError, "Does Not Exist:%s", "Does Not Exist:" + Source("b")));
}

TEST_F(VCopyFileListIniTest, CopyFailsForAnEmptyEntry) {
    WriteSource("f", "new");
    const std::string list = WriteList("[Server]\nL=@\n[L]\nf=f,\n");

    EXPECT_EQ(CopyOperator(list), -10000);

    EXPECT_EQ(Installed("f"), "new");
    const std::vector<LogLine> lines = LogRecorder::Lines();
    ASSERT_GE(lines.size(), 4U);
    EXPECT_EQ(lines[lines.size() - 4],
              Line("CopyOperator", kInformation, "%s , %s", Source("") + " , " + Target("")));
    EXPECT_EQ(lines[lines.size() - 3],
              CopyClassLine("fopen_s", kInformation, "open file %s errno %d",
                            "open file " + Target("") + " errno " + std::to_string(EISDIR)));
    EXPECT_EQ(lines.back(), Line("CopyFile", kHardError, "Failed:copy %s, %s",
                                 "Failed:copy " + Source("") + ", " + Target("")));
}

TEST_F(VCopyFileListIniTest, CopyLogsDifferentSizesAsIntsWithTheFullWidthComma) {
    WriteSource("f", "123456789");
    scratch_.MakeDirectory("installed");
    ASSERT_EQ(symlink("/dev/null", Target("f").c_str()), 0);
    const std::string list = WriteList("[Server]\nL=@\n[L]\nf=f,g\n");

    EXPECT_EQ(CopyOperator(list), -10000);

    const std::vector<LogLine> lines = LogRecorder::Lines();
    ASSERT_EQ(lines.size(), 6U);
    EXPECT_EQ(lines[4], Line("CompareFileSizes", kHardError, "inFileSize:%d\xef\xbc\x8coutFileSize:%d",
                             "inFileSize:9\xef\xbc\x8coutFileSize:0"));
    EXPECT_EQ(lines[5],
              Line("CopyOperator", kHardError, "Failed:Compare %s", "Failed:Compare " + Target("f")));
}

TEST_F(VCopyFileListIniTest, CopyComparesAllBitsOfTheSizesAndLogsTheLower32) {
    constexpr std::uintmax_t kWraps = std::uintmax_t{1} << 32;
    WriteSource("f", "123456789");
    scratch_.MakeDirectory("installed");
    const std::string list = WriteList("[Server]\nL=@\n[L]\nf=f\n");
    // The source grows by a hole once its copy is whole: both sizes are measured after that.
    const Replaced growing(calls::fclose, [this](FILE* file) {
        const int result = calls::real::fclose(file);
        std::error_code missing;
        if (std::filesystem::file_size(Target("f"), missing) == 9) {
            std::filesystem::resize_file(Source("f"), kWraps + 9);
        }
        return result;
    });

    EXPECT_EQ(CopyOperator(list), -10000);

    const std::vector<LogLine> lines = LogRecorder::Lines();
    ASSERT_EQ(lines.size(), 6U);
    EXPECT_EQ(lines[4].text, "inFileSize:9\xef\xbc\x8coutFileSize:9");
    EXPECT_EQ(lines[5],
              Line("CopyOperator", kHardError, "Failed:Compare %s", "Failed:Compare " + Target("f")));
}

TEST_F(VCopyFileListIniTest, CopyOfTheSameNameTwiceKeepsTheSecond) {
    WriteSource("a/f", "first and longer");
    WriteSource("b/f", "second");
    const std::string list = WriteList("[Server]\nL=@\n[L]\nf=a/f,b/f\n");

    EXPECT_EQ(CopyOperator(list), 0);

    EXPECT_EQ(Installed("f"), "second");
}

TEST_F(VCopyFileListIniTest, CopyAgainOverwritesWhatIsThere) {
    WriteSource("f", "new");
    const std::string list = WriteList("[Server]\nL=@\n[L]\nf=f\n");

    EXPECT_EQ(CopyOperator(list), 0);
    Install("f", "spoilt");
    EXPECT_EQ(CopyOperator(list), 0);

    EXPECT_EQ(Installed("f"), "new");
}

TEST_F(VCopyFileListIniTest, CopyTakesItsFilesFromBesideARelativeList) {
    WriteSource("f", "new");
    WriteList("[Server]\nL=@\n[L]\nf=f\n");
    const WorkingDirectory here(scratch_.Path("pkg"));

    EXPECT_EQ(CopyOperator("filelist.ini"), 0);

    EXPECT_EQ(Installed("f"), "new");
    EXPECT_EQ(LogRecorder::Texts().back(), "copy: Common/f, " + Target("f"));
    EXPECT_EQ(CopyOperator("../pkg/filelist.ini"), 0);
    EXPECT_EQ(LogRecorder::Texts().back(), "copy: ../pkg/Common/f, " + Target("f"));
}

TEST_F(VCopyFileListIniTest, CopyTakesEntriesOfAnyBytes) {
    const std::string longest(255, 'n');
    const std::vector<std::string> names = {"-rf",        " blank ", "\xff\xfe", "a;b#c",
                                            "\"quoted\"", "%s%n",    longest};
    std::string values;
    for (std::size_t i = 0; i < names.size(); ++i) {
        WriteSource("d/" + names[i], names[i]);
        values += std::to_string(i) + "=d/" + names[i] + ",d/" + names[0] + "\n";
    }
    const std::string list = WriteList("[Server]\nL=@\n[L]\n" + values);

    EXPECT_EQ(CopyOperator(list), 0);

    for (const std::string& name : names) EXPECT_EQ(Installed(name), name);
}

TEST_F(VCopyFileListIniTest, CopyAsksAccessForTheTargetAndTheSourceOnly) {
    WriteSource("f", "new");
    const std::string list = WriteList("[Server]\nL=@\n[L]\nf=f\n");
    std::vector<std::string> asked;
    const Replaced replaced(calls::access, [&asked](const char* path, int mode) {
        asked.emplace_back(path);
        return calls::real::access(path, mode);
    });

    EXPECT_EQ(CopyOperator(list), 0);

    EXPECT_THAT(asked, ElementsAre(Target(""), Source("f")));
}

// -clean

TEST_F(VCopyFileListIniTest, CleanRemovesTheBackupsOnly) {
    Install("f", "new");
    Install("f.bak", "old");
    Install("g", "new");
    Install("h.bak", "not named by any list");
    const std::string list = WriteList("[Server]\nL=@\n[L]\nf=d/f,g\n");

    EXPECT_EQ(CleanOperator(list), 0);

    EXPECT_THAT(InstalledNames(), ElementsAre("f", "g", "h.bak"));
    EXPECT_THAT(
        LogRecorder::Lines(),
        ElementsAre(InstallTypeLine("Server"),
                    Line("CleanOperator", kInformation, "%s , %s", "L , " + Target("")),
                    Line("CleanOperator", kInformation, "%s ", Target("f.bak ")),
                    Line("CleanOperator", kInformation, "RemoveFile:%s ", "RemoveFile:" + Target("f.bak ")),
                    Line("CleanOperator", kInformation, "%s ", Target("g.bak "))));
}

TEST_F(VCopyFileListIniTest, CleanOfTheSameNameTwicePassesOverTheSecond) {
    Install("f.bak", "old");
    const std::string list = WriteList("[Server]\nL=@\n[L]\nf=a/f,b/f\n");

    EXPECT_EQ(CleanOperator(list), 0);

    EXPECT_THAT(InstalledNames(), IsEmpty());
}

TEST_F(VCopyFileListIniTest, CleanOfAnEmptyEntryRemovesAFileNamedBak) {
    Install(".bak", "");
    const std::string list = WriteList("[Server]\nL=@\n[L]\nf=a,\n");

    EXPECT_EQ(CleanOperator(list), 0);

    EXPECT_THAT(InstalledNames(), IsEmpty());
    EXPECT_EQ(LogRecorder::Texts().back(), "RemoveFile:" + Target(".bak "));
}

TEST_F(VCopyFileListIniTest, CleanStopsAtTheFirstBackupThatCannotBeRemoved) {
    Install("a.bak", "old");
    scratch_.Write("installed/b.bak/not empty", "");
    Install("c.bak", "old");
    const std::string list = WriteList("[Server]\nL=@\n[L]\nf=a,b,c\n");

    EXPECT_EQ(CleanOperator(list), -10000);

    EXPECT_THAT(InstalledNames(), ElementsAre("b.bak", "c.bak"));
    EXPECT_EQ(LogRecorder::Lines().back(), Line("CleanOperator", kHardError, "Failed:RemoveFile %s",
                                                "Failed:RemoveFile " + Target("b.bak")));
}

TEST_F(VCopyFileListIniTest, CleanNeedsNoPackageAndMakesNoDirectory) {
    const std::string list = WriteList("[Server]\nL=@/missing\n[L]\nf=a,b\n");

    EXPECT_EQ(CleanOperator(list), 0);

    EXPECT_FALSE(scratch_.Has("installed"));
    EXPECT_FALSE(scratch_.Has("pkg/Common"));
}

// main

class VCopyFileListIniMainTest : public VCopyFileListIniTest {
protected:
    // Runs main with the tool's name and `arguments`.
    static int Run(std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), "/opt/tool");
        std::vector<char*> argv;
        for (std::string& argument : arguments) argv.push_back(argument.data());
        argv.push_back(nullptr);
        return VCopyFileListIniMain(static_cast<int>(arguments.size()), argv.data());
    }

    static LogLine MainLine(const std::string& format, const std::string& text) {
        return Line("main", kInformation, format, text);
    }
    static LogLine RuleLine() { return MainLine(kRule, kRule); }
    static LogLine SuccessLine() {
        return MainLine("            Successfully completed", "            Successfully completed");
    }
    static LogLine FailureLine() { return MainLine("            Failed", "            Failed"); }
};

TEST_F(VCopyFileListIniMainTest, LogsItsUsageWithoutABannerForTooFewArguments) {
    for (const std::vector<std::string>& arguments :
         {std::vector<std::string>{}, std::vector<std::string>{"-copy"},
          std::vector<std::string>{"-wrong"}}) {
        LogRecorder::Clear();

        EXPECT_EQ(Run(arguments), -10000);

        EXPECT_THAT(
            LogRecorder::Lines(),
            ElementsAre(MainLine("Usage: %s <operator> <filelist.ini path>",
                                 "Usage: /opt/tool <operator> <filelist.ini path>"),
                        MainLine("<operator>: -rename/-copy/-clean", "<operator>: -rename/-copy/-clean")));
    }
}

TEST_F(VCopyFileListIniMainTest, LogsItsUsageWithoutAProgramName) {
    char* noArguments[] = {nullptr};

    EXPECT_EQ(VCopyFileListIniMain(0, noArguments), -10000);

    EXPECT_EQ(LogRecorder::Texts().front(), "Usage:  <operator> <filelist.ini path>");
}

TEST_F(VCopyFileListIniMainTest, RefusesOperatorsThatDoNotMatchExactly) {
    for (const char* const wrong :
         {"-Copy", "copy", "-copy ", "", "-rename-copy", "-clean ", "-copyx", "--clean", "%s"}) {
        SCOPED_TRACE(wrong);
        LogRecorder::Clear();

        EXPECT_EQ(Run({wrong, "list.ini"}), -10000);

        EXPECT_THAT(LogRecorder::Lines(),
                    ElementsAre(MainLine("[error] Wrong Operator = %s",
                                         std::string("[error] Wrong Operator = ") + wrong),
                                RuleLine(), FailureLine()));
    }
}

TEST_F(VCopyFileListIniMainTest, RunsEachOperatorAndEndsWithTheBanner) {
    WriteSource("f", "new");
    Install("f", "old");
    const std::string list = WriteList("[Server]\nL=@\n[L]\nf=f\n");

    EXPECT_EQ(Run({"-rename", list}), 0);
    EXPECT_THAT(InstalledNames(), ElementsAre("f.bak"));
    EXPECT_EQ(Run({"-copy", list, "further", "arguments", "are ignored"}), 0);
    EXPECT_THAT(InstalledNames(), ElementsAre("f", "f.bak"));
    EXPECT_EQ(Installed("f"), "new");
    LogRecorder::Clear();
    EXPECT_EQ(Run({"-clean", list}), 0);
    EXPECT_THAT(InstalledNames(), ElementsAre("f"));

    EXPECT_THAT(LogRecorder::Lines(), ElementsAre(InstallTypeLine("Server"), testing::_, testing::_,
                                                  testing::_, RuleLine(), SuccessLine()));
}

TEST_F(VCopyFileListIniMainTest, PassesAFailureOnBehindTheFailedBanner) {
    const std::string list = WriteList("[Server]\nL=@\n[L]\nf=missing\n");

    EXPECT_EQ(Run({"-copy", list}), -10000);

    const std::vector<LogLine> lines = LogRecorder::Lines();
    ASSERT_GE(lines.size(), 3U);
    EXPECT_EQ(lines[lines.size() - 3],
              Line("CopyFile", kHardError, "Does Not Exist:%s", "Does Not Exist:" + Source("missing")));
    EXPECT_EQ(lines[lines.size() - 2], RuleLine());
    EXPECT_EQ(lines[lines.size() - 1], FailureLine());
}

TEST_F(VCopyFileListIniMainTest, StartsTheLogFirstAndStopsItLastOnEveryPath) {
    const std::string started =
        "StartSystem(TarnFramework_upgrade.log, /var/log/tarnlog/serverlog/upgradelog/node/, 3, 2, 3, 2048, "
        "false)";
    const std::string list = WriteList("[Server]\nL=@\n");
    for (const std::vector<std::string>& arguments :
         {std::vector<std::string>{}, std::vector<std::string>{"-wrong", list},
          std::vector<std::string>{"-copy", list}}) {
        LogRecorder::Clear();
        Run(arguments);

        const std::vector<std::string> called = LogRecorder::Calls();
        ASSERT_GE(called.size(), 4U);
        EXPECT_EQ(called.front(), started);
        EXPECT_EQ(called.back(), "StopSystem()");
        EXPECT_EQ(std::count(called.begin(), called.end(), "Log"), static_cast<long>(called.size()) - 2);
    }
}

TEST_F(VCopyFileListIniMainTest, TurnsALackOfMemoryIntoAFailedRun) {
    if (!heap::IsCounted()) GTEST_SKIP() << "the heap belongs to a sanitizer here";
    const std::string entry(3210, 'e');
    const std::string list = WriteList("[Server]\nL=@\n[L]\nf=" + entry + "\n");
    const Replaced replaced(calls::failingMallocSize, entry.size() + 1);

    testing::internal::CaptureStderr();
    EXPECT_EQ(Run({"-rename", list}), -10000);

    EXPECT_EQ(testing::internal::GetCapturedStderr(), "VCopyFileListIni: std::bad_alloc\n");
    const std::vector<LogLine> lines = LogRecorder::Lines();
    ASSERT_GE(lines.size(), 2U);
    EXPECT_EQ(lines[lines.size() - 2], RuleLine());
    EXPECT_EQ(lines[lines.size() - 1], FailureLine());
    EXPECT_EQ(LogRecorder::Calls().back(), "StopSystem()");
}

TEST_F(VCopyFileListIniMainTest, TurnsAnyOtherExceptionIntoAFailedRun) {
    const std::string list = WriteList("[Server]\nL=@\n");
    // Opened by the INI reader, which lets pass what is no exception of the standard library.
    testing::internal::CaptureStderr();
    {
        const Replaced replaced(calls::fopen, [](const char*, const char*) -> FILE* { throw 1; });
        EXPECT_EQ(Run({"-rename", list}), -10000);
    }

    EXPECT_EQ(testing::internal::GetCapturedStderr(), "VCopyFileListIni: unknown exception\n");
    EXPECT_EQ(LogRecorder::Lines().back(), FailureLine());
    EXPECT_EQ(LogRecorder::Calls().back(), "StopSystem()");
}

TEST_F(VCopyFileListIniMainTest, FailsWithoutTouchingAFileWhenTheLogsStartThrows) {
    Install("f", "old");
    const std::string list = WriteList("[Server]\nL=@\n[L]\nf=f\n");
    const Replaced throwing(LogRecorder::throwingCall, "StartSystem");

    testing::internal::CaptureStderr();
    EXPECT_EQ(Run({"-rename", list}), -10000);

    EXPECT_EQ(testing::internal::GetCapturedStderr(), "VCopyFileListIni: std::bad_alloc\n");
    EXPECT_THAT(LogRecorder::Calls(), ElementsAre("StopSystem()"));
    EXPECT_THAT(InstalledNames(), ElementsAre("f"));
}

TEST_F(VCopyFileListIniMainTest, FailsWhenAnyLineOfItsOwnThrowsAndStopsTheLog) {
    const std::string list = WriteList("[Server]\nL=@\n");
    const struct {
        const char* format;
        std::vector<std::string> arguments;
    } rows[] = {
        {"Usage: %s <operator> <filelist.ini path>", {}},
        {"<operator>: -rename/-copy/-clean", {"-copy"}},
        {"[error] Wrong Operator = %s", {"-wrong", list}},
        {kRule, {"-clean", list}},
        {"            Successfully completed", {"-clean", list}},
        {"            Failed", {"-wrong", list}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.format);
        LogRecorder::Clear();
        const Replaced throwing(LogRecorder::throwingCall, row.format);

        testing::internal::CaptureStderr();
        EXPECT_EQ(Run(row.arguments), -10000);

        EXPECT_EQ(testing::internal::GetCapturedStderr(), "VCopyFileListIni: std::bad_alloc\n");
        EXPECT_EQ(LogRecorder::Calls().back(), "StopSystem()");
    }
}

TEST_F(VCopyFileListIniMainTest, KeepsTheResultOfARunWhenTheLogsEndThrows) {
    const std::string list = WriteList("[Server]\nL=@\n");
    const Replaced throwing(LogRecorder::throwingCall, "StopSystem");

    testing::internal::CaptureStderr();
    EXPECT_EQ(Run({"-clean", list}), 0);
    EXPECT_EQ(Run({"-wrong", list}), -10000);

    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "VCopyFileListIni: std::bad_alloc\nVCopyFileListIni: std::bad_alloc\n");
}

TEST_F(VCopyFileListIniMainTest, ThrowsNothingThoughNoMemoryIsLeftAtAll) {
    if (!heap::IsCounted()) GTEST_SKIP() << "the heap belongs to a sanitizer here";
    char* const arguments[] = {const_cast<char*>("/opt/tool"), const_cast<char*>("-copy"),
                               const_cast<char*>("list.ini"), nullptr};

    testing::internal::CaptureStderr();
    int result = 0;
    {
        const Replaced noMemory(calls::newFails, true);
        result = VCopyFileListIniMain(3, const_cast<char**>(arguments));
    }

    EXPECT_EQ(result, -10000);
    EXPECT_THAT(testing::internal::GetCapturedStderr(), testing::StartsWith("VCopyFileListIni: "));
}

}  // namespace
