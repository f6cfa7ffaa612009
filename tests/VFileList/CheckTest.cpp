#include "Check.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <filesystem>
#include <functional>
#include <set>
#include <string>
#include <vector>

#include "FileSystem.h"
#include "Package.h"
#include "Report.h"
#include "Sanitizer.h"
#include "SystemCalls.h"

namespace {

namespace fs = std::filesystem;

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

std::vector<Finding> Find(const Package& package, const std::string& root = "", bool isErrorsOnly = false) {
    Output output(true);  // JSON, of which FindTrouble writes nothing
    return FindTrouble({package.ListPath(), root, isErrorsOnly}, output);
}

std::vector<std::string> CodesOf(const std::vector<Finding>& findings) {
    std::vector<std::string> codes;
    for (const Finding& finding : findings) codes.emplace_back(finding.kind->code);
    return codes;
}

// What is said of the findings with this code.
std::vector<std::string> DetailsOf(const std::string& code, const Package& package) {
    std::vector<std::string> details;
    for (const Finding& finding : Find(package)) {
        if (finding.kind->code == code) details.push_back(finding.detail);
    }
    return details;
}

std::vector<std::string> FindCodes(const Package& package) {
    return CodesOf(Find(package));
}

// A package with which nothing is wrong, on a server where nothing is wrong.
void MakeFaultless(const Package& package) {
    package.Bring("bin/tool", "new");
    package.Install("tool", "old");
    EXPECT_EQ(chmod(package.InstalledPath("tool").c_str(), 0644), 0);
    package.WriteEntries("bin/tool");
}

std::string WithDirectory(const std::string& directory) {
    return "[Server]\nBin=" + directory + "\n[Bin]\nf=bin/tool\n";
}

// A directory's path of `length` bytes, below the package's own.
std::string LongDirectory(const Package& package, std::size_t length) {
    return PathOfLength(package.scratch().Path("long"), length);
}

// So many entries that the value of their key has `length` bytes: all name the same file, in different ways.
std::string EntriesOfLength(std::size_t length) {
    std::string value = "bin/tool";
    while (value.size() + 2 <= length) value.insert(0, "./");
    if (value.size() < length) value.insert(value.rfind('/'), "/");
    return value;
}

std::string MakePipe(const std::string& path) {
    EXPECT_EQ(mkfifo(path.c_str(), 0644), 0);
    return path;
}

// A finding, what brings it about, and what looks much like that and is harmless.
struct Case {
    const char* code;
    std::function<void(const Package&)> provoke;
    std::function<void(const Package&)> comeNear;
};

const std::vector<Case>& Cases() {
    static const std::vector<Case> cases = {
        {"E-INI-UNREADABLE", [](const Package& p) { fs::remove(p.ListPath()); },
         [](const Package& p) {
             fs::rename(p.ListPath(), p.ListPath() + ".real");
             fs::create_symlink("filelist.ini.real", p.ListPath());
         }},
        {"E-TYPE-MISSING", [](const Package& p) { p.WriteRawList(WithDirectory("@")); },
         [](const Package& p) {
             p.WriteRawList("[Package_Intall_Type]\nPackageIntallType = Server \n" + WithDirectory("@"));
         }},
        {"E-TYPE-TOO-LONG",
         [](const Package& p) {
             const std::string type(260, 't');
             p.WriteRawList("[Package_Intall_Type]\nPackageIntallType=" + type + "\n[" + type +
                            "]\nBin=@\n[Bin]\nf=bin/tool\n");
         },
         [](const Package& p) {
             const std::string type(259, 't');
             p.WriteRawList("[Package_Intall_Type]\nPackageIntallType=" + type + "\n[" + type +
                            "]\nBin=@\n[Bin]\nf=bin/tool\n");
         }},
        {"E-TYPE-UNKNOWN", [](const Package& p) { p.WriteList("[server]\nBin=@\n[Bin]\nf=bin/tool\n"); },
         [](const Package& p) { p.WriteList(WithDirectory("@")); }},
        {"E-DIR-TOO-LONG", [](const Package& p) { p.WriteList(WithDirectory(LongDirectory(p, 260))); },
         [](const Package& p) { p.WriteList(WithDirectory(LongDirectory(p, 259))); }},
        {"E-DIR-EMPTY", [](const Package& p) { p.WriteList(WithDirectory("")); },
         [](const Package& p) { p.WriteList(WithDirectory("  @  ")); }},
        {"E-TARGET-ROOT", [](const Package& p) { p.WriteList(WithDirectory("/usr/..//.")); },
         [](const Package& p) { p.WriteList(WithDirectory("/.." + p.InstalledPath())); }},
        {"E-TARGET-RELATIVE", [](const Package& p) { p.WriteList(WithDirectory("installed")); },
         [](const Package& p) { p.WriteList(WithDirectory("/" + p.InstalledPath())); }},
        {"E-DIR-NOT-DIRECTORY", [](const Package& p) { p.WriteList(WithDirectory("@/tool")); },
         [](const Package& p) { p.WriteList(WithDirectory("@/missing")); }},
        {"E-LIST-TOO-LONG", [](const Package& p) { p.WriteEntries(EntriesOfLength(4096)); },
         [](const Package& p) { p.WriteEntries(EntriesOfLength(4095)); }},
        {"E-ENTRY-EMPTY", [](const Package& p) { p.WriteEntries("bin/tool,"); },
         [](const Package& p) { p.WriteEntries("bin//tool"); }},
        {"E-ENTRY-OUTSIDE", [](const Package& p) { p.WriteEntries("bin/../../filelist.ini"); },
         [](const Package& p) { p.WriteEntries("bin/../bin/tool"); }},
        {"E-NAME-BAK",
         [](const Package& p) {
             p.Bring("bin/tool.bak", "");
             p.WriteEntries("bin/tool.bak");
         },
         [](const Package& p) {
             p.Bring("bin/tool.bakery", "");
             p.WriteEntries("bin/tool.bakery");
         }},
        {"E-NAME-TOO-LONG",
         [](const Package& p) {
             p.Bring(std::string(252, 'n'), "");
             p.WriteEntries(std::string(252, 'n'));
         },
         [](const Package& p) {
             p.Bring(std::string(251, 'n'), "");
             p.WriteEntries(std::string(251, 'n'));
         }},
        {"E-DUPLICATE-NAME",
         [](const Package& p) {
             p.Bring("sbin/tool", "");
             p.WriteList("[Server]\nA=@\nB=@/../installed/\n[A]\nf=bin/tool\n[B]\nf=sbin/tool\n");
         },
         [](const Package& p) {
             p.Bring("sbin/tool", "");
             p.WriteList("[Server]\nA=@\nB=@/sbin\n[A]\nf=bin/tool\n[B]\nf=sbin/tool\n");
         }},
        {"E-SOURCE-MISSING", [](const Package& p) { p.WriteEntries("bin/tools"); },
         [](const Package& p) {
             fs::create_symlink("tool", p.SourcePath("bin/link"));
             p.WriteEntries("bin/link");
         }},
        {"E-SOURCE-UNREADABLE",
         [](const Package& p) {
             fs::create_symlink("loop", p.SourcePath("bin/loop"));  // no rights keep root from reading
             p.WriteEntries("bin/loop");
         },
         [](const Package& p) { EXPECT_EQ(chmod(p.SourcePath("bin/tool").c_str(), 0444), 0); }},
        {"E-SOURCE-NOT-REGULAR", [](const Package& p) { p.WriteEntries("bin"); },
         [](const Package& p) {
             p.Bring("bin/empty", "");
             p.WriteEntries("bin/empty");
         }},
        {"E-TARGET-DIRECTORY",
         [](const Package& p) {
             fs::remove(p.InstalledPath("tool"));
             fs::create_directory(p.InstalledPath("tool"));
         },
         [](const Package& p) { fs::create_directory(p.InstalledPath("tool.d")); }},
        {"E-TARGET-DANGLING",
         [](const Package& p) {
             fs::remove(p.InstalledPath("tool"));
             fs::create_symlink("nowhere", p.InstalledPath("tool"));
         },
         [](const Package& p) {
             fs::rename(p.InstalledPath("tool"), p.InstalledPath("tool-1.0"));
             fs::create_symlink("tool-1.0", p.InstalledPath("tool"));
         }},
        {"E-TARGET-SPECIAL",
         [](const Package& p) {
             fs::remove(p.InstalledPath("tool"));
             MakePipe(p.InstalledPath("tool"));
         },
         [](const Package& p) { MakePipe(p.InstalledPath("pipe")); }},
        {"E-TARGET-IN-PACKAGE",
         [](const Package& p) {
             fs::remove(p.InstalledPath("tool"));
             fs::create_symlink(p.SourcePath("bin/tool"), p.InstalledPath("tool"));
         },
         [](const Package& p) { p.Install("tool", "new"); }},
        {"E-BACKUP-SAME-FILE",
         [](const Package& p) { fs::create_hard_link(p.InstalledPath("tool"), p.InstalledPath("tool.bak")); },
         [](const Package& p) {
             fs::create_hard_link(p.InstalledPath("tool"), p.InstalledPath("tool.old"));
         }},
        {"W-LIST-EMPTY", [](const Package& p) { p.WriteList("[Server]\nBin=@\n[bin]\nf=bin/tool\n"); },
         [](const Package& p) { p.WriteList("[Server]\nBin=@\n[Bin]\ne=\nf=bin/tool\n"); }},
        {"W-ENTRY-BLANKS",
         [](const Package& p) {
             p.Bring(" tool", "");
             p.WriteEntries("bin/tool, tool");
         },
         [](const Package& p) {
             p.Bring("a tool", "");
             p.WriteEntries("bin/tool,a tool");
         }},
        {"W-ENTRY-BACKSLASH",
         [](const Package& p) {
             p.Bring("bin\\tool", "");
             p.WriteEntries("bin\\tool");
         },
         [](const Package& p) { p.WriteEntries("bin/tool"); }},
        {"W-SOURCE-UNLISTED", [](const Package& p) { p.Bring("bin/forgotten", ""); },
         [](const Package& p) {
             fs::create_directory(p.SourcePath("empty"));
             p.WriteEntries("./bin//tool");
         }},
        {"W-MODE-LOST", [](const Package& p) { EXPECT_EQ(chmod(p.InstalledPath("tool").c_str(), 0755), 0); },
         [](const Package& p) { EXPECT_EQ(chmod(p.SourcePath("bin/tool").c_str(), 0755), 0); }},
        {"W-OLD-BACKUP", [](const Package& p) { p.Install("tool.bak", "older"); },
         [](const Package& p) { p.Install("tool.bak.old", "older"); }},
    };
    return cases;
}

// Those that need a namespace or a process of their own; each has tests below.
const std::set<std::string> kOtherCases = {"W-TARGET-BUSY", "W-SPACE", "W-TARGET-NOT-WRITABLE"};

class CheckTest : public testing::Test {
protected:
    CheckTest() { MakeFaultless(package_); }

    const Umask umask_{022};
    const Package package_;
};

TEST_F(CheckTest, FindsNothingInAFaultlessPackage) {
    EXPECT_THAT(FindCodes(package_), IsEmpty());
}

TEST_F(CheckTest, FindsEachKindWhereItIsAndNotWhereItOnlySeemsToBe) {
    for (const Case& one : Cases()) {
        SCOPED_TRACE(one.code);
        const Package bad;
        MakeFaultless(bad);
        one.provoke(bad);
        EXPECT_THAT(FindCodes(bad), Contains(one.code));

        const Package good;
        MakeFaultless(good);
        one.comeNear(good);
        EXPECT_THAT(FindCodes(good), Not(Contains(one.code)));
    }
}

TEST_F(CheckTest, HasACaseForEveryKind) {
    std::set<std::string> tried = kOtherCases;
    for (const Case& one : Cases()) tried.insert(one.code);
    std::set<std::string> known;
    for (const FindingKind& kind : FindingKinds()) known.insert(kind.code);

    EXPECT_EQ(tried, known);
}

TEST_F(CheckTest, FindsAProgramThatRunsFromATarget) {
    fs::copy_file("/bin/sleep", package_.InstalledPath("tool"), fs::copy_options::overwrite_existing);
    fs::copy_file("/bin/sleep", package_.InstalledPath("other"));
    const auto start = [this](const char* name) {
        const std::string path = package_.InstalledPath(name);
        EXPECT_EQ(chmod(path.c_str(), 0755), 0);
        int ready[2];
        EXPECT_EQ(pipe2(ready, O_CLOEXEC), 0);
        const pid_t child = fork();
        if (child == 0) {
            (void)execl(path.c_str(), name, "1000", nullptr);
            _exit(127);
        }
        // The pipe is closed by the exec, and not before.
        (void)close(ready[1]);
        char byte;
        EXPECT_EQ(read(ready[0], &byte, 1), 0);
        (void)close(ready[0]);
        return child;
    };
    const auto stop = [](pid_t child) {
        EXPECT_EQ(kill(child, SIGKILL), 0);
        EXPECT_EQ(waitpid(child, nullptr, 0), child);
    };

    const pid_t other = start("other");
    EXPECT_THAT(FindCodes(package_), Not(Contains("W-TARGET-BUSY")));
    const pid_t child = start("tool");
    EXPECT_THAT(FindCodes(package_), Contains("W-TARGET-BUSY"));

    stop(child);
    stop(other);
    EXPECT_THAT(FindCodes(package_), Not(Contains("W-TARGET-BUSY")));
}

TEST_F(CheckTest, FindsTooLittleSpace) {
    CONTINUE_IN_PRIVATE_NAMESPACE((std::vector<std::string>{"--size", "65536", "--tmpfs", "/mnt"}));
    package_.WriteList(WithDirectory("/mnt"));

    package_.Bring("bin/tool", std::string(65536, 'x'));
    EXPECT_THAT(FindCodes(package_), Not(Contains("W-SPACE")));
    package_.Bring("bin/tool", std::string(65537, 'x'));
    EXPECT_THAT(FindCodes(package_), Contains("W-SPACE"));
    // Where it goes need not be there yet.
    package_.WriteList(WithDirectory("/mnt/a/b"));
    EXPECT_THAT(FindCodes(package_), Contains("W-SPACE"));
}

TEST_F(CheckTest, FindsADirectoryThatCannotBeWritten) {
    CONTINUE_IN_PRIVATE_NAMESPACE((std::vector<std::string>{"--tmpfs", "/mnt"}));
    package_.WriteList(WithDirectory("/usr/lib"));  // the host's, which is bound read-only
    EXPECT_THAT(FindCodes(package_), Contains("W-TARGET-NOT-WRITABLE"));
    package_.WriteList(WithDirectory("/mnt/missing"));
    EXPECT_THAT(FindCodes(package_), Not(Contains("W-TARGET-NOT-WRITABLE")));
}

TEST_F(CheckTest, FindsTheOwnerThatWillBeLost) {
    SKIP_UNLESS_ROOT();
    ASSERT_EQ(chown(package_.InstalledPath("tool").c_str(), 65534, 65534), 0);

    EXPECT_THAT(FindCodes(package_), Contains("W-MODE-LOST"));
}

TEST_F(CheckTest, FindsTheModeOfANewFileThatWillBeLost) {
    fs::remove(package_.InstalledPath("tool"));
    EXPECT_EQ(chmod(package_.SourcePath("bin/tool").c_str(), 0755), 0);

    EXPECT_THAT(DetailsOf("W-MODE-LOST", package_), ElementsAre("0755 becomes 0644, new in this package"));
}

TEST_F(CheckTest, SaysNothingOfTheModeOfAFileThatThePackageLacks) {
    package_.Bring("script", "");
    EXPECT_EQ(chmod(package_.SourcePath("script").c_str(), 0755), 0);
    package_.WriteEntries("script,lost,bin/tool");

    const std::vector<std::string> codes = FindCodes(package_);
    EXPECT_EQ(std::count(codes.begin(), codes.end(), "W-MODE-LOST"), 1);
}

TEST_F(CheckTest, FindsEntriesThatLeaveCommonInOtherWays) {
    for (const char* const entry : {"/etc/passwd", "..", "../secret", "bin/../../../secret", "bin/.."}) {
        package_.WriteEntries(entry);
        const std::vector<std::string> codes = FindCodes(package_);
        const bool staysInside = std::string(entry) == "bin/.." || std::string(entry) == "/etc/passwd";
        EXPECT_EQ(std::count(codes.begin(), codes.end(), "E-ENTRY-OUTSIDE"), staysInside ? 0 : 1) << entry;
        EXPECT_THAT(codes, Not(IsEmpty())) << entry;
    }
    package_.scratch().Write("secret", "");
    fs::create_symlink("../../secret", package_.SourcePath("link"));
    package_.WriteEntries("link");
    EXPECT_THAT(FindCodes(package_), Contains("E-ENTRY-OUTSIDE"));
}

TEST_F(CheckTest, SaysNothingElseOfAnEntryWithoutAFileInCommon) {
    const struct {
        const char* entry;
        const char* code;
    } rows[] = {{"../secret", "E-ENTRY-OUTSIDE"},
                {"../..", "E-ENTRY-OUTSIDE"},
                {"lost/..", "E-SOURCE-MISSING"},
                {"bin/..", "E-SOURCE-NOT-REGULAR"}};
    for (const auto& row : rows) {
        package_.WriteEntries("bin/tool," + std::string(row.entry));
        EXPECT_THAT(FindCodes(package_), ElementsAre(row.code)) << row.entry;
    }
    package_.scratch().MakeDirectory("elsewhere");
    fs::create_directory_symlink("../../elsewhere", package_.SourcePath("link"));
    package_.WriteEntries("bin/tool,link");
    EXPECT_THAT(FindCodes(package_), ElementsAre("E-ENTRY-OUTSIDE"));
}

TEST_F(CheckTest, SaysNothingOfTheFilesOfADirectoryThatIsNone) {
    // The warning that their mode will be lost.
    EXPECT_EQ(chmod(package_.SourcePath("bin/tool").c_str(), 0755), 0);
    const std::pair<std::string, const char*> rows[] = {{"", "E-DIR-EMPTY"},
                                                        {LongDirectory(package_, 260), "E-DIR-TOO-LONG"},
                                                        {"relative", "E-TARGET-RELATIVE"},
                                                        {"/usr/..", "E-TARGET-ROOT"},
                                                        {"@/tool", "E-DIR-NOT-DIRECTORY"}};
    for (const auto& [directory, code] : rows) {
        package_.WriteList(WithDirectory(directory));
        EXPECT_THAT(FindCodes(package_), ElementsAre(code));
    }
}

TEST_F(CheckTest, TakesANameOfNothingButTheSuffixForABackup) {
    package_.Bring("bin/.bak", "");
    package_.WriteEntries("bin/tool,bin/.bak");

    EXPECT_THAT(FindCodes(package_), Contains("E-NAME-BAK"));
}

TEST_F(CheckTest, FindsAPathThatIsTooLong) {
    const std::string directory = package_.SourcePath("");
    const auto entryOf = [&directory](std::size_t length) {
        return PathOfLength(directory + "lost", length).substr(directory.size());
    };

    package_.WriteEntries(entryOf(4095));
    EXPECT_THAT(FindCodes(package_), Not(Contains("E-NAME-TOO-LONG")));
    package_.WriteEntries(entryOf(4096));
    EXPECT_THAT(DetailsOf("E-NAME-TOO-LONG", package_), ElementsAre("a path of 4096 bytes"));
}

TEST_F(CheckTest, FindsAListWhoseKeysHaveNoValues) {
    package_.WriteList("[Server]\nBin=@\nLib=@\n[Bin]\nf=bin/tool\n[Lib]\nf=\n");

    EXPECT_THAT(FindCodes(package_), ElementsAre("W-LIST-EMPTY"));
}

TEST_F(CheckTest, TakesAnEntryWithASlashInFrontForOneBelowCommon) {
    package_.WriteEntries("/bin/tool");
    EXPECT_THAT(FindCodes(package_), IsEmpty());
    package_.WriteEntries("/bin/lost,/bin/tool");
    EXPECT_THAT(FindCodes(package_), testing::ElementsAre("E-SOURCE-MISSING"));
}

TEST_F(CheckTest, TakesAFileForListedThatAnEntryReachesThroughALink) {
    package_.Bring("v1/tool", "new");
    fs::remove_all(package_.SourcePath("bin"));
    fs::create_directory_symlink("v1", package_.SourcePath("current"));
    package_.WriteEntries("current/tool");

    EXPECT_THAT(FindCodes(package_), IsEmpty());
}

TEST_F(CheckTest, ExpectsTheGroupOfASetGroupIdDirectory) {
    SKIP_UNLESS_ROOT();
    ASSERT_EQ(chown(package_.InstalledPath().c_str(), 0, 65533), 0);
    ASSERT_EQ(chown(package_.InstalledPath("tool").c_str(), 0, 65533), 0);
    EXPECT_THAT(FindCodes(package_), testing::ElementsAre("W-MODE-LOST"));

    ASSERT_EQ(chmod(package_.InstalledPath().c_str(), 02755), 0);
    EXPECT_THAT(FindCodes(package_), IsEmpty());
}

TEST_F(CheckTest, FindsAFileInCommonThatHasNoNameOnTheTargetSide) {
    package_.Bring("a\\..", "new");
    package_.WriteEntries("bin/tool,a\\..");

    EXPECT_THAT(FindCodes(package_), Contains("E-ENTRY-EMPTY"));
    EXPECT_EQ(package_.RunPass("-copy"), 240);
}

TEST_F(CheckTest, SaysThatKeysBeforeTheFirstSectionAreTakenForTheDirectories) {
    package_.WriteRawList("Bin=@\n[Bin]\nf=bin/tool\n");

    const std::vector<Finding> findings = Find(package_);

    ASSERT_THAT(CodesOf(findings), testing::ElementsAre("E-TYPE-MISSING"));
    EXPECT_EQ(findings[0].detail, "the keys before the first section are taken");
    EXPECT_EQ(package_.RunPass("-copy"), 0);
}

TEST_F(CheckTest, SaysWhereItFoundSomething) {
    package_.WriteList("[Server]\nBin=@\nLib=\n[Bin]\nf=bin/tool,bin/lost\n[Lib]\n");
    std::vector<Finding> findings = Find(package_, "", true);

    ASSERT_EQ(findings.size(), 2u);
    EXPECT_STREQ(findings[0].kind->code, "E-DIR-EMPTY");
    EXPECT_EQ(findings[0].section, "Server");
    EXPECT_EQ(findings[0].key, "Lib");
    EXPECT_STREQ(findings[1].kind->code, "E-SOURCE-MISSING");
    EXPECT_EQ(findings[1].section, "Bin");
    EXPECT_EQ(findings[1].key, "f");
    EXPECT_EQ(findings[1].entry, "bin/lost");
    EXPECT_EQ(findings[1].path, package_.SourcePath("bin/lost"));
}

TEST_F(CheckTest, LeavesWarningsOutWhenOnlyErrorsAreAskedFor) {
    package_.Bring("unlisted", "");
    EXPECT_EQ(package_.Run("check").exitStatus, 1);
    EXPECT_EQ(package_.Run("check", {"--errors-only"}).exitStatus, 0);

    package_.WriteEntries("bin/tool,lost");
    EXPECT_EQ(package_.Run("check", {"--errors-only"}).exitStatus, 1);
    EXPECT_THAT(CodesOf(Find(package_, "", true)), testing::ElementsAre("E-SOURCE-MISSING"));
}

TEST_F(CheckTest, ExitsWithTheStatusOfWhatItFound) {
    EXPECT_EQ(package_.Run("check").exitStatus, 0);
    package_.WriteEntries("lost");
    EXPECT_EQ(package_.Run("check").exitStatus, 1);
    fs::remove(package_.ListPath());
    EXPECT_EQ(package_.Run("check").exitStatus, 2);
}

TEST_F(CheckTest, LooksForTargetsBelowTheRoot) {
    // In the image /opt/app is a link to /data/app, the image's own.
    package_.scratch().Write("image/data/app/tool.bak", "");
    package_.scratch().Link("image/opt/app", "/data/app");
    package_.WriteList(WithDirectory("/opt/app"));
    const std::string root = package_.scratch().Path("image");

    EXPECT_THAT(CodesOf(Find(package_, root)), testing::ElementsAre("W-OLD-BACKUP"));
    package_.scratch().Link("image/data/app/tool", "/data/tool-1.0");
    EXPECT_THAT(CodesOf(Find(package_, root)), Contains("E-TARGET-DANGLING"));
    EXPECT_THAT(CodesOf(Find(package_, root + "/")), Contains("E-TARGET-DANGLING"));
    package_.WriteList(WithDirectory("/opt/../../data/app"));
    EXPECT_THAT(CodesOf(Find(package_, root + "/")), Contains("E-TARGET-DANGLING"))
        << "nothing leaves the root";
    package_.scratch().Write("image/data/tool-1.0", "");
    EXPECT_THAT(CodesOf(Find(package_, root)), Not(Contains("E-TARGET-DANGLING")));
}

TEST_F(CheckTest, AnEmptyRootChecksTheListAndThePackageAlone) {
    package_.Install("tool.bak", "older");
    const std::string root = package_.scratch().MakeDirectory("empty");

    EXPECT_THAT(CodesOf(Find(package_, root)), IsEmpty());
    package_.WriteEntries("lost");
    EXPECT_THAT(CodesOf(Find(package_, root)), Contains("E-SOURCE-MISSING"));
}

TEST_F(CheckTest, ChangesNothing) {
    package_.Install("tool.bak", "older");
    package_.WriteEntries("bin/tool,lost,,x\\y");
    const auto look = [this] {
        return RunProcess({"find", package_.scratch().Path(), "-printf", "%p %i %s %m %U %T@ %C@\n"}).out;
    };
    const std::string before = look();

    EXPECT_EQ(package_.Run("check").exitStatus, 1);

    EXPECT_EQ(look(), before);
}

TEST_F(CheckTest, ShowsControlCharactersEscaped) {
    package_.WriteEntries("bin/to\033[2Jol");

    const ProcessResult result = package_.Run("check");

    EXPECT_THAT(result.out, Not(HasSubstr("\033")));
    EXPECT_THAT(result.out, HasSubstr("bin/to\\x1b[2Jol"));
}

TEST_F(CheckTest, ShowsAKindOnceWithAllItsPlaces) {
    package_.WriteEntries("lost,gone");

    const std::string text = package_.Run("check").out;

    EXPECT_EQ(text.find("E-SOURCE-MISSING"), text.rfind("E-SOURCE-MISSING"));
    EXPECT_THAT(text, HasSubstr("[Bin] f: lost -> " + package_.SourcePath("lost")));
    EXPECT_THAT(text, HasSubstr("[Bin] f: gone -> " + package_.SourcePath("gone")));
    EXPECT_THAT(text, HasSubstr("What happens: -copy fails there"));
    EXPECT_THAT(text, HasSubstr("What to do:   Add the file"));
}

TEST_F(CheckTest, SeesBlanksOnEitherSideOfAnEntry) {
    for (const char* const entry : {" tool", "\ttool", "tool ", "tool\t"}) {
        package_.WriteEntries("bin/tool," + std::string(entry) + ",bin/tool");
        EXPECT_THAT(DetailsOf("W-ENTRY-BLANKS", package_), ElementsAre("\"" + std::string(entry) + "\""));
    }
}

TEST_F(CheckTest, TakesAFileBelowAFileForMissing) {
    package_.WriteEntries("bin/tool/below");

    EXPECT_THAT(DetailsOf("E-SOURCE-MISSING", package_), ElementsAre(""));
}

TEST_F(CheckTest, SaysWhatIsNoRegularFile) {
    package_.WriteEntries("bin");
    EXPECT_THAT(DetailsOf("E-SOURCE-NOT-REGULAR", package_), ElementsAre("a directory"));
    MakePipe(package_.SourcePath("pipe"));
    package_.WriteEntries("pipe");
    EXPECT_THAT(DetailsOf("E-SOURCE-NOT-REGULAR", package_), ElementsAre("a special file"));
}

TEST_F(CheckTest, FindsAPackagesFileThatCannotBeOpened) {
    const std::string source = package_.SourcePath("bin/tool");
    const Replaced replaced(calls::open, [&source](const char* path, int flags, mode_t mode) {
        if (path != source) return calls::real::open(path, flags, mode);
        errno = EACCES;
        return -1;
    });

    EXPECT_THAT(DetailsOf("E-SOURCE-UNREADABLE", package_), ElementsAre("Permission denied"));
}

TEST_F(CheckTest, FindsNoEntryOutsideOfAPackageWithoutCommon) {
    fs::remove_all(package_.SourcePath(""));

    EXPECT_THAT(FindCodes(package_), ElementsAre("E-SOURCE-MISSING"));
}

TEST_F(CheckTest, SaysNothingOfATargetThatGoesAwayMeanwhile) {
    ASSERT_EQ(chmod(package_.InstalledPath("tool").c_str(), 0755), 0);
    const std::string target = package_.InstalledPath("tool");
    for (const int lastLook : {0, 1}) {
        int looks = 0;
        const Replaced replaced(calls::stat, [&](const char* path, struct stat* status) {
            if (path != target || looks++ < lastLook) return calls::real::stat(path, status);
            errno = ENOENT;
            return -1;
        });
        EXPECT_THAT(FindCodes(package_), IsEmpty()) << lastLook;
    }
}

TEST_F(CheckTest, SaysEachThingThatAFileWillLose) {
    const auto detailWith = [this](mode_t mode, uid_t user, gid_t group) {
        EXPECT_EQ(chmod(package_.InstalledPath("tool").c_str(), mode), 0);
        const Replaced replacedUser(calls::geteuid, [user] { return user; });
        const Replaced replacedGroup(calls::getegid, [group] { return group; });
        return DetailsOf("W-MODE-LOST", package_);
    };
    const struct stat status = StatusOf(package_.InstalledPath("tool"));
    const uid_t user = status.st_uid;
    const gid_t group = status.st_gid;
    const std::string owner =
        "owner " + std::to_string(user) + ":" + std::to_string(group) + " becomes " + std::to_string(user);

    EXPECT_THAT(detailWith(0644, user, group), IsEmpty());
    EXPECT_THAT(detailWith(0755, user, group), ElementsAre("0755 becomes 0644"));
    EXPECT_THAT(detailWith(0644, user, group + 1), ElementsAre(owner + ":" + std::to_string(group + 1)));
    EXPECT_THAT(detailWith(0755, user, group + 1),
                ElementsAre("0755 becomes 0644, " + owner + ":" + std::to_string(group + 1)));
    EXPECT_THAT(detailWith(0644, user + 1, group),
                ElementsAre("owner " + std::to_string(user) + ":" + std::to_string(group) + " becomes " +
                            std::to_string(user + 1) + ":" + std::to_string(group)));
}

TEST_F(CheckTest, FindsAnUnlistedLinkToADirectoryAndNothingInIt) {
    package_.Bring("elsewhere/file", "");
    fs::rename(package_.SourcePath("elsewhere"), package_.scratch().Path("elsewhere"));
    fs::create_directory_symlink(package_.scratch().Path("elsewhere"), package_.SourcePath("link"));

    std::vector<std::string> unlisted;
    for (const Finding& finding : Find(package_)) unlisted.push_back(finding.entry);
    EXPECT_THAT(unlisted, ElementsAre("link"));
}

TEST_F(CheckTest, EndsTheSearchForUnlistedFilesWhereADirectoryCannotBeRead) {
    package_.Bring("forgotten", "");
    const Replaced replaced(calls::readdir, [](DIR*) -> dirent* {
        errno = EIO;
        return nullptr;
    });

    EXPECT_THAT(FindCodes(package_), Not(Contains("W-SOURCE-UNLISTED")));
}

// A file system with 4 KiB blocks.
auto FileSystemWith(unsigned long forRoot, unsigned long forOthers, unsigned long files,
                    unsigned long freeFiles) {
    return [=](const char*, struct statvfs* status) {
        *status = {};
        status->f_frsize = 4096;
        status->f_bfree = forRoot;
        status->f_bavail = forOthers;
        status->f_files = files;
        status->f_favail = freeFiles;
        return 0;
    };
}

TEST_F(CheckTest, LeavesTheReserveToRoot) {
    package_.Bring("bin/tool", std::string(4097, 'x'));
    const auto detailsFor = [this](uid_t user) {
        const Replaced replacedUser(calls::geteuid, [user] { return user; });
        const Replaced replaced(calls::statvfs, FileSystemWith(2, 1, 10, 10));
        return DetailsOf("W-SPACE", package_);
    };

    EXPECT_THAT(detailsFor(0), IsEmpty());
    EXPECT_THAT(detailsFor(1000), ElementsAre("8.0 KiB are needed, 4.0 KiB are free"));
}

TEST_F(CheckTest, FindsTooFewFreeFiles) {
    package_.Bring("bin/fresh", "");
    package_.WriteEntries("bin/tool,bin/fresh");
    const auto detailsWith = [this](unsigned long files, unsigned long freeFiles) {
        const Replaced replaced(calls::statvfs, FileSystemWith(100, 100, files, freeFiles));
        return DetailsOf("W-SPACE", package_);
    };

    EXPECT_THAT(detailsWith(10, 2), IsEmpty());
    EXPECT_THAT(detailsWith(10, 1), ElementsAre("2 files are to be made, 1 are possible"));
    EXPECT_THAT(detailsWith(0, 0), IsEmpty()) << "a file system that does not count them";
}

TEST_F(CheckTest, SaysNothingOfSpaceThatCannotBeTold) {
    for (const int answers : {0, 1}) {
        int questions = 0;
        const Replaced replaced(calls::statvfs, [&](const char* path, struct statvfs* status) {
            if (questions++ < answers) return FileSystemWith(0, 0, 0, 0)(path, status);
            errno = ENOSYS;
            return -1;
        });
        EXPECT_THAT(FindCodes(package_), Not(Contains("W-SPACE"))) << answers;
        EXPECT_EQ(questions, answers + 1);
    }
}

TEST_F(CheckTest, SaysNothingOfADirectoryThatCannotBeLookedAt) {
    // Not even the root directory: nothing on the way there.
    const std::string target = package_.InstalledPath("tool");
    const Replaced replaced(calls::stat, [&target](const char* path, struct stat* status) {
        if (target.compare(0, std::string(path).size(), path) != 0) return calls::real::stat(path, status);
        errno = EIO;
        return -1;
    });

    EXPECT_THAT(FindCodes(package_), Not(Contains("E-DIR-NOT-DIRECTORY")));
    EXPECT_THAT(FindCodes(package_), Not(Contains("W-SPACE")));
}

TEST_F(CheckTest, LooksForRunningProgramsAmongTheProcessesAlone) {
    if (VFS_TEST_ADDRESS_SANITIZER || VFS_TEST_THREAD_SANITIZER) GTEST_SKIP() << "a sanitizer reads /proc";
    SKIP_WITHOUT_PRIVATE_NAMESPACE();
    const auto find = [this](const std::string& name) {
        // The loader looks for the program's libraries beside what /proc/self/exe leads to.
        const std::vector<std::string> inside = PrivateNamespace(
            {"--ro-bind", package_.scratch().Path(), package_.scratch().Path(), "--tmpfs", "/proc", "--dir",
             "/proc/self", "--symlink", VFILELIST_PATH, "/proc/self/exe", "--dir", "/proc/" + name,
             "--symlink", package_.InstalledPath("tool"), "/proc/" + name + "/exe"});
        return RunProcess(Concatenate(inside, {VFILELIST_PATH, "check", package_.ListPath()})).out;
    };

    EXPECT_THAT(find("1908"), HasSubstr("(process 1908)"));
    for (const char* const name : {"19-08", "1908x"}) {
        EXPECT_THAT(find(name), Not(HasSubstr("W-TARGET-BUSY"))) << name;
    }
}

TEST_F(CheckTest, FindsALinkThatWillPointNowhereOnceRenameHasMovedItsFile) {
    package_.Install("lib.so.1.2", "old");
    fs::create_symlink("lib.so.1.2", package_.InstalledPath("lib.so.1"));
    fs::create_symlink("lib.so.1", package_.InstalledPath("lib.so"));
    for (const char* const name : {"lib.so", "lib.so.1", "lib.so.1.2"}) package_.Bring(name, "new");

    package_.WriteEntries("lib.so,lib.so.1,lib.so.1.2");
    EXPECT_THAT(FindCodes(package_), Not(Contains("E-TARGET-DANGLING")));
    package_.WriteEntries("lib.so.1,lib.so.1.2,lib.so");
    EXPECT_THAT(FindCodes(package_), Contains("E-TARGET-DANGLING"));
    EXPECT_THAT(package_.Run("check", {"--root", "/"}).out, HasSubstr("(once -rename has moved "));
}

TEST_F(CheckTest, FindsATargetThatIsTheDirectoryOfAList) {
    package_.Bring("d", "a file");
    package_.WriteList("[Server]\nA=@/d\nB=@\n[A]\nf=bin/tool\n[B]\nf=d\n");

    EXPECT_THAT(FindCodes(package_), Contains("E-TARGET-DIRECTORY"));
}

TEST_F(CheckTest, FindsADirectoryThatCannotBeMade) {
    fs::create_symlink("nowhere", package_.InstalledPath("link"));
    for (const char* const directory : {"@/link", "@/link/below", "@/missing/../d"}) {
        package_.WriteList("[Server]\nBin=" + std::string(directory) + "\n[Bin]\nf=bin/tool\n");
        EXPECT_THAT(FindCodes(package_), Contains("E-DIR-NOT-DIRECTORY")) << directory;
    }
    package_.WriteList("[Server]\nBin=@/../new\n[Bin]\nf=bin/tool\n");
    EXPECT_THAT(FindCodes(package_), Not(Contains("E-DIR-NOT-DIRECTORY")));
}

TEST_F(CheckTest, FindsALinkBetweenAFileAndItsBackup) {
    fs::create_symlink("tool", package_.InstalledPath("tool.bak"));
    EXPECT_THAT(FindCodes(package_), Contains("E-BACKUP-SAME-FILE"));
    EXPECT_THAT(package_.Run("check", {"--root", "/"}).out, HasSubstr("E-BACKUP-SAME-FILE"));

    fs::remove(package_.InstalledPath("tool.bak"));
    fs::rename(package_.InstalledPath("tool"), package_.InstalledPath("tool.bak"));
    fs::create_symlink("tool.bak", package_.InstalledPath("tool"));
    EXPECT_THAT(FindCodes(package_), Contains("E-BACKUP-SAME-FILE"));
}

TEST_F(CheckTest, TakesALinkToAThirdFileForABackup) {
    package_.Install("other", "");
    fs::create_symlink("other", package_.InstalledPath("tool.bak"));
    EXPECT_THAT(FindCodes(package_), ElementsAre("W-OLD-BACKUP"));

    fs::remove(package_.InstalledPath("tool"));
    fs::create_symlink("other", package_.InstalledPath("tool"));
    EXPECT_THAT(FindCodes(package_), Contains("W-OLD-BACKUP"));
    EXPECT_THAT(FindCodes(package_), Not(Contains("E-BACKUP-SAME-FILE")));
}

TEST_F(CheckTest, SaysNothingElseOfATargetThatIsNoFile) {
    fs::remove(package_.InstalledPath("tool"));
    fs::create_directory(package_.InstalledPath("tool"));
    EXPECT_THAT(FindCodes(package_), ElementsAre("E-TARGET-DIRECTORY"));

    fs::remove(package_.InstalledPath("tool"));
    package_.Bring("bin/other", "");
    package_.WriteEntries("bin/other,bin/tool");
    fs::create_symlink("nowhere", package_.InstalledPath("other"));
    fs::create_symlink("other", package_.InstalledPath("tool"));
    EXPECT_THAT(FindCodes(package_), ElementsAre("E-TARGET-DANGLING", "E-TARGET-DANGLING"));
}

TEST_F(CheckTest, TellsHowManyFilesItHasLookedAt) {
    package_.WriteEntries("bin/tool,lost");

    EXPECT_THAT(ProgressOf([this](Output& output) {
                    return Check({package_.ListPath(), "", false}, output);
                }),
                ElementsAre("check: 1 of 2 files", "check: 2 of 2 files"));
}

TEST_F(CheckTest, ShowsPeopleEachKindWithItsPlacesAndWhatItMeans) {
    package_.Bring("unlisted", "");
    package_.Bring("also", "");
    ASSERT_EQ(chmod(package_.InstalledPath("tool").c_str(), 0755), 0);
    package_.WriteEntries("bin/tool,lost");
    int status = 0;

    EXPECT_EQ(ShownOnATerminal(
                  package_,
                  [this](Output& output) {
                      return Check({package_.ListPath(), "", false}, output);
                  },
                  &status),
              "{bold}LIST{}\n"
              "\n"
              "{error}error   E-SOURCE-MISSING{}  {bold}the package lacks a listed file{}\n"
              "  [Bin] f: lost -> Common/lost\n"
              "{dim}  What happens: -copy fails there and stops; what is listed behind it stays missing.{}\n"
              "{dim}  What to do:   Add the file to Common, or remove the entry.{}\n"
              "\n"
              "{warning}warning W-SOURCE-UNLISTED{}  {bold}a file in Common is on no list{}\n"
              "  also -> Common/also\n"
              "  unlisted -> Common/unlisted\n"
              "{dim}  What happens: It is not installed.{}\n"
              "{dim}  What to do:   List it, or leave it out of the package.{}\n"
              "\n"
              "{warning}warning W-MODE-LOST{}  {bold}a file's mode or owner will be lost{}\n"
              "  [Bin] f: bin/tool -> @/tool (0755 becomes 0644)\n"
              "{dim}  What happens: -copy makes the new file with mode 0666 less the umask, owned by whoever "
              "runs it.{}\n"
              "{dim}  What to do:   After -copy run `vfilelist rollback --only-modes`; set the mode of files "
              "without a predecessor yourself.{}\n"
              "\n"
              "1 error, 3 warnings.\n");
    EXPECT_EQ(status, 1);
}

TEST_F(CheckTest, TellsPeopleThatThereIsNothing) {
    EXPECT_EQ(ShownOnATerminal(package_,
                               [this](Output& output) {
                                   return Check({package_.ListPath(), "", false}, output);
                               }),
              "{bold}LIST{}\n\n{good}Nothing found.{}\n");
}

TEST_F(CheckTest, ReportsWhereAndWhat) {
    package_.WriteEntries("bin/tool,lost");

    const nlohmann::json report = ReportOf([this](Output& output) {
        return Check({package_.ListPath(), "/", false}, output);
    });

    EXPECT_EQ(report["command"], "check");
    EXPECT_EQ(report["fileList"], package_.ListPath());
    EXPECT_EQ(report["root"], "/");
    EXPECT_EQ(report["summary"], (nlohmann::json{{"errors", 1}, {"warnings", 0}}));
    EXPECT_EQ(
        report["findings"],
        (nlohmann::json{{{"severity", "error"},
                         {"code", "E-SOURCE-MISSING"},
                         {"section", "Bin"},
                         {"key", "f"},
                         {"entry", "lost"},
                         {"path", package_.SourcePath("lost")},
                         {"detail", ""},
                         {"title", "the package lacks a listed file"},
                         {"effect", "-copy fails there and stops; what is listed behind it stays missing."},
                         {"advice", "Add the file to Common, or remove the entry."}}}));
}

TEST_F(CheckTest, SaysOfATooLongInstallTypeWhichKeysAreTakenInstead) {
    package_.WriteRawList("Bin=@\n[Package_Intall_Type]\nPackageIntallType=" + std::string(260, 'x') +
                          "\n[Bin]\nf=bin/tool\n");

    EXPECT_THAT(package_.Run("check").out, HasSubstr("; the keys before the first section are taken"));
}

TEST_F(CheckTest, FindsALinkThatLeadsInACircle) {
    fs::remove(package_.InstalledPath("tool"));
    fs::create_symlink("tool", package_.InstalledPath("tool"));

    EXPECT_THAT(package_.Run("check").out, HasSubstr("(in a circle: -copy fails)"));
}

TEST_F(CheckTest, SaysThatAListCannotBeReliedOnThatIsReadDifferentlyTheSecondTime) {
    int looks = 0;
    const Replaced replaced(calls::stat, [&](const char* path, struct stat* status) {
        if (path != package_.ListPath() || ++looks != 4) return calls::real::stat(path, status);
        errno = EIO;
        return -1;
    });

    EXPECT_THAT(DetailsOf("E-INI-UNREADABLE", package_),
                ElementsAre(package_.ListPath() + ": it can't be read twice with the same result"));
}

}  // namespace
