#include "Check.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <link.h>
#include <linux/fs.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <sys/xattr.h>
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
#include "Locked.h"
#include "Package.h"
#include "RecordedOpens.h"
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
             p.Install(std::string(252, 'n'), "");
             p.WriteEntries(std::string(252, 'n'));
         },
         [](const Package& p) {
             p.Bring(std::string(251, 'n'), "");
             p.Install(std::string(251, 'n'), "");
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
        {"E-UPGRADE-UNFINISHED",
         [](const Package& p) {
             p.Install("tool", "new");
             p.Install("tool.bak", "old");
         },
         [](const Package& p) {
             p.Install("tool", "new");
             p.Install("tool.bak", "new");
         }},
        {"E-BACKUP-DIRECTORY", [](const Package& p) { fs::create_directory(p.InstalledPath("tool.bak")); },
         [](const Package& p) { fs::create_directory_symlink(".", p.InstalledPath("tool.bak")); }},
        {"E-TARGET-TOOL",
         [](const Package& p) {
             fs::remove(p.InstalledPath("tool"));
             fs::create_symlink(fs::read_symlink("/proc/self/exe"), p.InstalledPath("tool"));
         },
         [](const Package& p) {
             fs::remove(p.InstalledPath("tool"));
             fs::create_symlink("/bin/true", p.InstalledPath("tool"));
         }},
        {"W-DUPLICATE-ENTRY", [](const Package& p) { p.WriteEntries("bin/tool,./bin//tool"); },
         [](const Package& p) {
             p.Bring("sbin/tool", "new");
             p.WriteEntries("bin/tool,sbin/tool");
         }},
        {"W-NAME-LONG",
         [](const Package& p) {
             p.Bring(std::string(252, 'n'), "");
             p.WriteEntries(std::string(252, 'n'));
         },
         [](const Package& p) {
             p.Bring(std::string(251, 'n'), "");
             p.WriteEntries(std::string(251, 'n'));
         }},
        {"W-DIR-MADE", [](const Package& p) { p.WriteList(WithDirectory("@/new")); },
         [](const Package& p) { p.WriteList(WithDirectory("@/.")); }},
        {"W-TARGET-LINKED",
         [](const Package& p) { fs::create_hard_link(p.InstalledPath("tool"), p.InstalledPath("other")); },
         [](const Package& p) { fs::create_symlink("tool", p.InstalledPath("other")); }},
        {"W-OTHERS-WRITE", [](const Package& p) { EXPECT_EQ(chmod(p.InstalledPath().c_str(), 0757), 0); },
         [](const Package& p) { EXPECT_EQ(chmod(p.InstalledPath("tool").c_str(), 0666), 0); }},
    };
    return cases;
}

// Those that need a namespace, a process or a file system of their own; each has tests below.
// Those of the manifest and the receipt are in their own tests.
const std::set<std::string> kOtherCases = {
    "E-PACKAGE-UNSIGNED",    "E-MANIFEST-INVALID",  "E-MANIFEST-DIFFERS", "E-RELEASE-ORDER",
    "E-RECEIPT-UNREADABLE",  "W-INSTALLED-CHANGED", "W-TARGET-BUSY",      "W-SPACE",
    "W-TARGET-NOT-WRITABLE", "E-TARGET-LOCKED",     "E-TARGET-MOUNT",     "W-ATTRIBUTES-LOST"};

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

TEST_F(CheckTest, OpensAPackagesFileSoThatAPipeInItsPlaceHoldsNothingUp) {
    const RecordedOpens opens;

    EXPECT_THAT(FindCodes(package_), IsEmpty());

    EXPECT_EQ(opens.FlagsOf(package_.SourcePath("bin/tool")), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
}

TEST_F(CheckTest, AsksForTheRightsOfTheEffectiveUser) {
    std::vector<std::string> asked;
    const Replaced replaced(calls::faccessat, [&](int directory, const char* path, int mode, int flags) {
        EXPECT_EQ(directory, AT_FDCWD);
        EXPECT_EQ(mode, W_OK | X_OK);
        EXPECT_EQ(flags, AT_EACCESS);
        asked.emplace_back(path);
        return calls::real::faccessat(directory, path, mode, flags);
    });

    EXPECT_THAT(FindCodes(package_), IsEmpty());

    EXPECT_THAT(asked, ElementsAre(package_.InstalledPath()));
}

TEST_F(CheckTest, LeavesTheUmaskAsItWas) {
    const Umask umask(027);

    (void)FindCodes(package_);

    const Umask now(0);
    EXPECT_EQ(now.old(), 027u);
}

TEST_F(CheckTest, TakesAProgramOfTheSameInodeNumberOnAnotherFileSystemForAnother) {
    const std::string program = "/proc/" + std::to_string(getppid()) + "/exe";
    const auto codes = [&](dev_t step) {
        const Replaced replaced(calls::stat, [&](const char* path, struct stat* status) {
            if (path != program) return calls::real::stat(path, status);
            const int result = calls::real::stat(package_.InstalledPath("tool").c_str(), status);
            status->st_dev += step;
            return result;
        });
        return FindCodes(package_);
    };

    EXPECT_THAT(codes(0), ElementsAre("W-TARGET-BUSY"));
    EXPECT_THAT(codes(1), IsEmpty());
}

TEST_F(CheckTest, FindsNoEntryOutsideOfAPackageWithoutCommon) {
    fs::remove_all(package_.SourcePath(""));

    EXPECT_THAT(FindCodes(package_), ElementsAre("E-SOURCE-MISSING"));
}

TEST_F(CheckTest, SaysNothingOfATargetThatGoesAwayMeanwhile) {
    const std::string target = package_.InstalledPath("tool");
    for (const int lastLook : {0, 1, 2, 3}) {
        int looks = 0;
        const Replaced replaced(calls::lstat, [&](const char* path, struct stat* status) {
            if (path != target || looks++ < lastLook) return calls::real::lstat(path, status);
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
    EXPECT_THAT(detailsFor(1000),
                ElementsAre("8.0 KiB and 1 inode are needed, 4.0 KiB and 10 inodes are free"));
}

TEST_F(CheckTest, FindsTooFewFreeFiles) {
    package_.Bring("bin/fresh", "");
    package_.WriteEntries("bin/tool,bin/fresh");
    const auto detailsWith = [this](unsigned long files, unsigned long freeFiles) {
        const Replaced replaced(calls::statvfs, FileSystemWith(100, 100, files, freeFiles));
        return DetailsOf("W-SPACE", package_);
    };

    EXPECT_THAT(detailsWith(10, 2), IsEmpty());
    EXPECT_THAT(detailsWith(10, 1),
                ElementsAre("4.0 KiB and 2 inodes are needed, 400.0 KiB and 1 inode are free"));
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
    package_.WriteEntries("lib.so.1.2,lib.so");
    EXPECT_THAT(FindCodes(package_), Contains("E-TARGET-DANGLING"));
    EXPECT_THAT(package_.Run("check", {"--root", "/"}).out, HasSubstr("(once -rename has moved "));
}

TEST_F(CheckTest, LooksAtATargetThoughAnotherListNamesItsDirectoryByARelativePath) {
    package_.Bring("tool", "new");
    package_.Install("tool", "old");
    package_.Install("tool.bak", "older");
    const std::string relative = fs::relative(package_.InstalledPath());

    package_.WriteList("[Server]\nA=" + relative + "\nB=@\n[A]\nf=tool\n[B]\nf=tool\n");

    EXPECT_THAT(FindCodes(package_), Contains("E-TARGET-RELATIVE"));
    EXPECT_THAT(FindCodes(package_), Contains("W-OLD-BACKUP"));
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
    fs::rename(package_.InstalledPath("tool"), package_.InstalledPath("tool.bak"));
    fs::create_symlink("tool.bak", package_.InstalledPath("tool"));
    EXPECT_THAT(FindCodes(package_), Contains("E-BACKUP-SAME-FILE"));
    EXPECT_THAT(package_.Run("check", {"--root", "/"}).out, HasSubstr("E-BACKUP-SAME-FILE"));

    ASSERT_EQ(package_.RunPass("-rename"), 0);
    EXPECT_EQ(package_.InstalledNames(), std::vector<std::string>{"tool.bak"});
    EXPECT_EQ(fs::read_symlink(package_.InstalledPath("tool.bak")), "tool.bak") << "the old content is lost";
}

TEST_F(CheckTest, TakesABackupThatIsALinkToItsFileForAnOldOne) {
    fs::create_symlink("tool", package_.InstalledPath("tool.bak"));
    EXPECT_THAT(FindCodes(package_), ElementsAre("W-OLD-BACKUP"));

    ASSERT_EQ(package_.RunPass("-rename"), 0);
    ASSERT_EQ(package_.RunPass("-copy"), 0);
    EXPECT_EQ(package_.Installed("tool.bak"), "old") << "-rename has replaced the link";
    EXPECT_EQ(package_.Installed("tool"), "new");
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
              "{dim}  What happens: -copy fails there and stops; the files listed after it stay missing.{}\n"
              "{dim}  What to do:   Add the file to Common, or remove the entry.{}\n"
              "\n"
              "{warning}warning W-SOURCE-UNLISTED{}  {bold}a file in Common is not listed{}\n"
              "  also -> Common/also\n"
              "  unlisted -> Common/unlisted\n"
              "{dim}  What happens: It is not installed.{}\n"
              "{dim}  What to do:   List it, or leave it out of the package.{}\n"
              "\n"
              "{warning}warning W-MODE-LOST{}  {bold}a file's mode or owner will be lost{}\n"
              "  [Bin] f: bin/tool -> @/tool (0755 becomes 0644)\n"
              "{dim}  What happens: -copy makes the new file with mode 0666 minus the umask, owned by "
              "the user who runs it.{}\n"
              "{dim}  What to do:   Use `vfilelist upgrade`. Or run `vfilelist rollback --only-modes` after "
              "-copy, and set the modes of files without a backup yourself.{}\n"
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
                         {"effect", "-copy fails there and stops; the files listed after it stay missing."},
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

    EXPECT_THAT(package_.Run("check").out, HasSubstr("(-copy can't follow it and fails)"));
}

TEST_F(CheckTest, FindsAnUpgradeThatHasBeenBegun) {
    // A copy that was cut off: shorter, or with room made for the rest.
    const std::string halves[] = {"n", std::string("n\0\0", 3), ""};
    package_.Install("tool.bak", "old");
    for (const std::string& half : halves) {
        package_.Install("tool", half);
        EXPECT_THAT(FindCodes(package_), ElementsAre("E-UPGRADE-UNFINISHED")) << half.size();
    }
    package_.Install("tool", "old, too");
    EXPECT_THAT(FindCodes(package_), ElementsAre("W-OLD-BACKUP"));
    fs::remove(package_.InstalledPath("tool"));
    EXPECT_THAT(FindCodes(package_), ElementsAre("W-OLD-BACKUP"));

    // What it warns of.
    package_.Install("tool", "new");
    ASSERT_EQ(package_.RunPass("-rename"), 0);
    EXPECT_EQ(package_.Installed("tool.bak"), "new");
}

TEST_F(CheckTest, NamesEveryDirectoryThatWillBeMadeWithItsModeAndOwner) {
    package_.WriteList(
        "[Server]\nA=@/a/b\nB=@/a/c/\nC=@/a/b/../../d\n[A]\nf=bin/tool\n[B]\nf=bin/tool\n[C]\nf=bin/tool\n");
    const Umask umask(027);
    std::vector<std::string> made;
    for (const Finding& finding : Find(package_)) {
        if (std::string(finding.kind->code) != "W-DIR-MADE") continue;
        made.push_back(finding.key + " " + finding.path + " " + finding.detail);
    }

    const std::string owner =
        " mode 0750, owner " + std::to_string(geteuid()) + ":" + std::to_string(getegid());
    const auto line = [&](const char* list, const char* path) {
        return std::string(list) + " " + package_.InstalledPath(path) + owner;
    };
    EXPECT_THAT(made, ElementsAre(line("A", "a"), line("A", "a/b"), line("B", "a/c"), line("C", "d")));
    ASSERT_EQ(package_.RunPass("-copy"), 0);
    EXPECT_EQ(PermissionsOf(package_.InstalledPath("a/b")), 0750u);
    const Umask narrow(077);
    fs::remove_all(package_.InstalledPath("d"));
    EXPECT_THAT(DetailsOf("W-DIR-MADE", package_), ElementsAre(HasSubstr("mode 0700, ")));
}

TEST_F(CheckTest, KnowsTheDirectoriesThatEarlierListsMake) {
    const auto codesOf = [this](const char* first, const char* second) {
        package_.WriteList("[Server]\nA=@/" + std::string(first) + "\nB=@/" + second +
                           "\n[A]\nf=bin/tool\n[B]\nf=bin/other\n");
        package_.Bring("bin/other", "");
        return FindCodes(package_);
    };
    fs::create_symlink("real", package_.InstalledPath("link"));

    EXPECT_THAT(codesOf("real", "link"), ElementsAre("W-DIR-MADE"));
    EXPECT_THAT(codesOf("new", "new/../b"), ElementsAre("W-DIR-MADE", "W-DIR-MADE"));
    EXPECT_THAT(codesOf("new/../b", "new"), Contains("E-DIR-NOT-DIRECTORY"));
    EXPECT_THAT(codesOf("link", "real"), Contains("E-DIR-NOT-DIRECTORY"));
    EXPECT_EQ(package_.RunPass("-copy"), 240);
    EXPECT_THAT(codesOf("real", "link"), Not(Contains("E-DIR-NOT-DIRECTORY")));
    EXPECT_EQ(package_.RunPass("-copy"), 0);
}

TEST_F(CheckTest, FindsATargetAboveTheDirectoryOfAList) {
    package_.Bring("lib", "a file");
    package_.WriteList("[Server]\nA=@/lib/plugins\nB=@\n[A]\nf=bin/tool\n[B]\nf=lib\n");

    EXPECT_THAT(DetailsOf("E-TARGET-DIRECTORY", package_),
                ElementsAre("of a list, and not there yet: -copy fails"));
    EXPECT_EQ(package_.RunPass("-rename"), 0);
    EXPECT_EQ(package_.RunPass("-copy"), 240);
    fs::create_directories(package_.InstalledPath("lib/plugins"));
    EXPECT_THAT(DetailsOf("E-TARGET-DIRECTORY", package_), ElementsAre(""));
}

TEST_F(CheckTest, FindsADanglingDirectoryBelowTheRoot) {
    const std::string root = package_.scratch().MakeDirectory("image");
    package_.scratch().Link("image/opt", "/data/opt");
    package_.WriteList(WithDirectory("/opt/app"));

    EXPECT_THAT(CodesOf(Find(package_, root)), Contains("E-DIR-NOT-DIRECTORY"));
    package_.scratch().MakeDirectory("image/data/opt");
    EXPECT_THAT(CodesOf(Find(package_, root)), ElementsAre("W-DIR-MADE"));
}

TEST_F(CheckTest, FindsWhatIsImmutableOrAppendOnly) {
    const struct {
        std::string path;
        unsigned flag;
        const char* detail;
    } rows[] = {{package_.InstalledPath("tool"), FS_IMMUTABLE_FL, "immutable"},
                {package_.InstalledPath("tool"), FS_APPEND_FL, "append-only"},
                {package_.InstalledPath(), FS_IMMUTABLE_FL, "the directory is immutable"},
                {package_.InstalledPath(), FS_APPEND_FL, "the directory is append-only"}};
    for (const auto& row : rows) {
        const Locked locked(row.path, row.flag);
        if (!locked.isSet()) GTEST_SKIP() << "no such attributes here, or no right to set them";
        EXPECT_THAT(DetailsOf("E-TARGET-LOCKED", package_), ElementsAre(row.detail));
        EXPECT_EQ(package_.RunPass("-rename"), 240) << row.detail;
    }
    EXPECT_THAT(FindCodes(package_), IsEmpty());
}

TEST_F(CheckTest, SaysNothingOfAttributesThatTheFileSystemDoesNotTell) {
    const Replaced replaced(calls::statx, [](int, const char*, int, unsigned, struct statx*) {
        errno = ENOSYS;
        return -1;
    });

    EXPECT_THAT(FindCodes(package_), IsEmpty());
}

TEST_F(CheckTest, FindsATargetThatIsAMountPoint) {
    CONTINUE_IN_PRIVATE_NAMESPACE(
        (std::vector<std::string>{"--tmpfs", "/mnt", "--bind", "/etc/hostname", "/mnt/tool"}));
    package_.WriteList(WithDirectory("/mnt"));

    EXPECT_THAT(FindCodes(package_), Contains("E-TARGET-MOUNT"));
    EXPECT_EQ(package_.RunPass("-rename"), 240);
}

TEST_F(CheckTest, FindsABackupThatIsADirectory) {
    fs::create_directory(package_.InstalledPath("tool.bak"));
    EXPECT_THAT(FindCodes(package_), ElementsAre("E-BACKUP-DIRECTORY"));
    EXPECT_EQ(package_.RunPass("-rename"), 240);

    package_.Install("tool.bak/inside", "");
    fs::remove(package_.InstalledPath("tool"));
    EXPECT_THAT(FindCodes(package_), ElementsAre("E-BACKUP-DIRECTORY"));
    EXPECT_EQ(package_.RunPass("-clean"), 240);
}

TEST_F(CheckTest, FindsOtherNamesThatKeepTheOldContent) {
    fs::create_hard_link(package_.InstalledPath("tool"), package_.InstalledPath("other"));
    EXPECT_THAT(DetailsOf("W-TARGET-LINKED", package_), ElementsAre("2 hard links"));
    // Its backup is told of as such.
    fs::rename(package_.InstalledPath("other"), package_.InstalledPath("tool.bak"));
    EXPECT_THAT(FindCodes(package_), ElementsAre("E-BACKUP-SAME-FILE"));

    fs::rename(package_.InstalledPath("tool.bak"), package_.InstalledPath("tool-1.0"));
    fs::remove(package_.InstalledPath("tool"));
    fs::create_symlink("tool-1.0", package_.InstalledPath("tool"));
    EXPECT_THAT(DetailsOf("W-TARGET-LINKED", package_), ElementsAre("a link to tool-1.0"));
    ASSERT_EQ(package_.RunPass("-rename"), 0);
    ASSERT_EQ(package_.RunPass("-copy"), 0);
    EXPECT_EQ(package_.Installed("tool-1.0"), "old");
}

TEST_F(CheckTest, FindsWhoElseMayWriteTheDirectoriesAndTheList) {
    const std::string paths[] = {package_.InstalledPath() + "/", package_.ListPath(),
                                 package_.scratch().Path("package"),
                                 package_.scratch().Path("package/Common")};
    for (const std::string& path : paths) {
        const mode_t mode = PermissionsOf(path);
        ASSERT_EQ(chmod(path.c_str(), mode | S_IWOTH), 0);
        const std::vector<Finding> findings = Find(package_);
        ASSERT_THAT(CodesOf(findings), ElementsAre("W-OTHERS-WRITE")) << path;
        EXPECT_EQ(findings[0].path, path);
        ASSERT_EQ(chmod(path.c_str(), mode), 0);
    }
    const WorkingDirectory inside(package_.scratch().Path("package"));
    ASSERT_EQ(chmod(".", 0757), 0);
    Output output(true);
    EXPECT_THAT(CodesOf(FindTrouble({"filelist.ini", "", false}, output)), ElementsAre("W-OTHERS-WRITE"));
}

TEST_F(CheckTest, CountsNeitherRootNorTheCallerAsOthers) {
    SKIP_UNLESS_ROOT();
    const std::string path = package_.InstalledPath();
    const auto detailsOf = [&](uid_t user, gid_t group, mode_t mode) {
        EXPECT_EQ(chown(path.c_str(), user, group), 0);
        EXPECT_EQ(chmod(path.c_str(), mode), 0);
        return DetailsOf("W-OTHERS-WRITE", package_);
    };

    EXPECT_THAT(detailsOf(0, 0, 0775), IsEmpty());
    EXPECT_THAT(detailsOf(0, 65534, 0755), IsEmpty());
    EXPECT_THAT(detailsOf(0, 65534, 0775), ElementsAre("mode 0775, owner 0:65534"));
    EXPECT_THAT(detailsOf(65534, 0, 0755), ElementsAre("mode 0755, owner 65534:0"));
    const Replaced user(calls::geteuid, [] { return uid_t{65534}; });
    const Replaced group(calls::getegid, [] { return gid_t{65534}; });
    EXPECT_THAT(detailsOf(65534, 65534, 0775), IsEmpty());
}

TEST_F(CheckTest, CallsTwoEntriesForTheSameFileHarmless) {
    fs::create_symlink("tool", package_.SourcePath("bin/link"));
    fs::create_directory_symlink("bin", package_.SourcePath("sbin"));
    for (const char* const entries : {"bin/tool,bin/tool", "bin/tool,sbin/tool", "lost,./lost"}) {
        package_.WriteEntries(entries);
        EXPECT_THAT(FindCodes(package_), Contains("W-DUPLICATE-ENTRY")) << entries;
        EXPECT_THAT(FindCodes(package_), Not(Contains("E-DUPLICATE-NAME"))) << entries;
    }
    package_.Bring("other/tool", "other");
    package_.WriteEntries("bin/tool,other/tool,lost/tool");
    EXPECT_THAT(DetailsOf("E-DUPLICATE-NAME", package_),
                ElementsAre("[Bin] f has it from bin/tool", "[Bin] f has it from bin/tool"));
    package_.WriteEntries("lost/tool,bin/tool");
    EXPECT_THAT(FindCodes(package_), Contains("E-DUPLICATE-NAME"));
}

TEST_F(CheckTest, WarnsOfANameThatOnlyTheNextUpgradeFailsOn) {
    const std::string name(255, 'n');
    package_.Bring(name, "new");
    package_.WriteEntries("bin/tool," + name);
    EXPECT_THAT(FindCodes(package_), ElementsAre("W-NAME-LONG"));
    for (const char* const pass : {"-rename", "-copy", "-clean"})
        EXPECT_EQ(package_.RunPass(pass), 0) << pass;

    EXPECT_THAT(FindCodes(package_), Contains("E-NAME-TOO-LONG"));
    EXPECT_EQ(package_.RunPass("-rename"), 240);
    package_.WriteEntries(std::string(256, 'n'));
    EXPECT_THAT(FindCodes(package_), Contains("E-NAME-TOO-LONG"));
}

TEST_F(CheckTest, SaysOnceWhatSeveralFilesLose) {
    for (const char* const name : {"a", "b", "c", "d"}) {
        package_.Bring(name, "new");
        ASSERT_EQ(chmod(package_.Install(name, "old").c_str(), *name == 'd' ? 0600 : 0755), 0);
    }
    package_.WriteEntries("bin/tool,a,b,d,c,a");

    EXPECT_THAT(DetailsOf("W-MODE-LOST", package_),
                ElementsAre("0755 becomes 0644; 3 files, this is the first", "0600 becomes 0644"));
    for (const Finding& finding : Find(package_)) {
        if (finding.detail.find("0755") == 0) {
            EXPECT_EQ(finding.entry, "a");
        }
    }
}

TEST_F(CheckTest, FindsTheAttributesThatAFileWillLose) {
    SKIP_UNLESS_ROOT();
    const std::string path = package_.InstalledPath("tool");
    const char capability[20] = {0, 0, 0, 2, 0, 4};
    if (setxattr(path.c_str(), "user.origin", "x", 1, 0) != 0 ||
        setxattr(path.c_str(), "security.capability", capability, sizeof(capability), 0) != 0) {
        GTEST_SKIP() << "no such attributes here";
    }
    EXPECT_THAT(
        DetailsOf("W-ATTRIBUTES-LOST", package_),
        ElementsAre(testing::AnyOf("security.capability, user.origin", "user.origin, security.capability")));
    fs::rename(path, package_.InstalledPath("tool-1.0"));
    fs::create_symlink("tool-1.0", path);
    EXPECT_THAT(FindCodes(package_), Contains("W-ATTRIBUTES-LOST"));
    ASSERT_EQ(package_.RunPass("-rename"), 0);
    ASSERT_EQ(package_.RunPass("-copy"), 0);
    EXPECT_EQ(listxattr(path.c_str(), nullptr, 0), 0);
}

TEST_F(CheckTest, NamesTheAttributesThatCountAndNoOthers) {
    const std::string names("system.posix_acl_access\0security.selinux\0trusted.user.x\0user.\0user.y\0",
                            sizeof("system.posix_acl_access,security.selinux,trusted.user.x,user.,user.y"));
    const auto detailsWhen = [&](ssize_t secondAnswer) {
        const Replaced replaced(calls::listxattr, [&](const char*, char* buffer, size_t size) {
            if (size == 0) return static_cast<ssize_t>(names.size());
            names.copy(buffer, size);
            return secondAnswer;
        });
        return DetailsOf("W-ATTRIBUTES-LOST", package_);
    };

    EXPECT_THAT(detailsWhen(static_cast<ssize_t>(names.size())),
                ElementsAre("system.posix_acl_access, user., user.y"));
    EXPECT_THAT(detailsWhen(24), ElementsAre("system.posix_acl_access")) << "one has gone away meanwhile";
    EXPECT_THAT(detailsWhen(-1), IsEmpty());
}

TEST_F(CheckTest, FindsTheListAmongItsOwnTargets) {
    fs::copy_file(package_.ListPath(), package_.SourcePath("filelist.ini"));
    package_.WriteList("[Server]\nBin=" + package_.scratch().Path("package") + "\n[Bin]\nf=filelist.ini\n");

    EXPECT_THAT(DetailsOf("E-TARGET-IN-PACKAGE", package_), ElementsAre("the file list"));
    EXPECT_EQ(package_.RunPass("-rename"), 0);
    EXPECT_EQ(package_.RunPass("-copy"), 240) << "the list is gone";
}

TEST_F(CheckTest, FindsTheFilesThatTheToolIsStartedFrom) {
    // A library of vfilelist's, and the tool in PATH.
    fs::remove(package_.InstalledPath("tool"));
    const auto find = [](dl_phdr_info* info, std::size_t, void* library) {
        const std::string path = info->dlpi_name;
        if (path.find("/libVFileSys.so") != std::string::npos) *static_cast<std::string*>(library) = path;
        return 0;
    };
    std::string library;
    (void)dl_iterate_phdr(find, &library);
    fs::create_symlink(library, package_.InstalledPath("tool"));
    EXPECT_THAT(package_.Run("check").out, HasSubstr("E-TARGET-TOOL"));

    fs::remove(package_.InstalledPath("tool"));
    package_.Bring("VCopyFileListIni", "new");
    package_.Install("VCopyFileListIni", "old");
    package_.WriteEntries("VCopyFileListIni");
    EXPECT_THAT(FindCodes(package_), Not(Contains("E-TARGET-TOOL")));
    const Variable none("PATH", nullptr);
    EXPECT_THAT(FindCodes(package_), Not(Contains("E-TARGET-TOOL")));
    const Variable path("PATH", ("/nowhere:" + package_.InstalledPath()).c_str());
    EXPECT_THAT(FindCodes(package_), Contains("E-TARGET-TOOL"));
}

TEST_F(CheckTest, FindsWhatVfilelistUpgradePrevents) {
    const Variable path("PATH", package_.InstalledPath().c_str());
    package_.Bring("VCopyFileListIni", "new");
    ASSERT_EQ(chmod(package_.Install("VCopyFileListIni", "old").c_str(), 0755), 0);
    package_.WriteEntries("bin/tool,VCopyFileListIni,lost");
    const Replaced attributes(calls::listxattr, [](const char*, char* buffer, size_t size) {
        (void)std::string("user.x", 7).copy(buffer, size);
        return ssize_t{7};
    });

    EXPECT_THAT(FindCodes(package_),
                ElementsAre("W-ATTRIBUTES-LOST", "W-MODE-LOST", "E-TARGET-TOOL", "E-SOURCE-MISSING"));
}

TEST_F(CheckTest, CountsAnInodeForEachNewFileAndDirectory) {
    package_.Bring("bin/other", std::string(5000, 'x'));
    package_.Bring("sbin/tool", std::string(4097, 'x'));
    package_.WriteList(
        "[Server]\nA=@/a/b\nB=@\n[A]\nf=bin/other,\n[B]\nf=bin/tool,lost,sbin/tool,bin/tool\n");
    const Replaced replaced(calls::statvfs, FileSystemWith(0, 0, 10, 3));

    // Two directories, 5000 bytes, and of the three for one target the largest.
    EXPECT_THAT(DetailsOf("W-SPACE", package_),
                ElementsAre("24.0 KiB and 4 inodes are needed, 0 B and 3 inodes are free"));
}

TEST_F(CheckTest, SaysNothingOfInodesThatAreNotCounted) {
    const Replaced replaced(calls::statvfs, FileSystemWith(0, 0, 0, 0));

    EXPECT_THAT(DetailsOf("W-SPACE", package_), ElementsAre("4.0 KiB and 1 inode are needed, 0 B are free"));
}

TEST_F(CheckTest, TakesADotForNoFileName) {
    package_.WriteEntries("bin/tool,bin/.");

    EXPECT_THAT(FindCodes(package_), ElementsAre("E-ENTRY-EMPTY"));
}

TEST_F(CheckTest, SaysThatAListCannotBeReliedOnThatIsReadDifferentlyTheSecondTime) {
    int looks = 0;
    const Replaced replaced(calls::stat, [&](const char* path, struct stat* status) {
        if (path != package_.ListPath() || ++looks != 4) return calls::real::stat(path, status);
        errno = EIO;
        return -1;
    });

    EXPECT_THAT(DetailsOf("E-INI-UNREADABLE", package_),
                ElementsAre("it can't be read twice with the same result"));
}

}  // namespace
