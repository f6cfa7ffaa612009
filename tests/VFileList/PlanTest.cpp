#include "Plan.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "FileSystem.h"
#include "Locked.h"
#include "Package.h"
#include "Process.h"
#include "RecordedOpens.h"
#include "Report.h"
#include "SystemCalls.h"

namespace {

namespace fs = std::filesystem;

using testing::ElementsAre;

// What a plan says of a step: "-copy copy bin/tool 3", the path below the installed release.
std::vector<std::string> StepsOf(const Package& package) {
    std::vector<std::string> steps;
    const nlohmann::json report = package.RunJson("plan");
    for (const auto& step : report["steps"]) {
        const std::string path = step["path"];
        const std::string size = step["size"].is_null() ? "-" : std::to_string(step["size"].get<int>());
        steps.push_back(step["pass"].get<std::string>() + " " + step["step"].get<std::string>() + " " +
                        path.substr(package.InstalledPath().size() + 1) + " " + size);
    }
    return steps;
}

// Why the plan's last step fails; the empty text when it does not.
std::string WhyItFails(const Package& package) {
    const nlohmann::json report =
        ReportOf([&package](Output& output) { return Plan(FileList(package.ListPath()), output); });
    const auto& last = report["steps"].back();
    return last["step"] == "fail" ? last["pass"].get<std::string>() + ": " + last["detail"].get<std::string>()
                                  : "";
}

class PlanTest : public testing::Test {
protected:
    PlanTest() {
        package_.Bring("bin/tool", "the new tool");
        package_.Install("tool", "old");
        package_.WriteEntries("bin/tool");
    }

    const Package package_;
};

TEST_F(PlanTest, NamesEveryStepWithItsSize) {
    package_.Bring("fresh", "fresh");
    package_.WriteEntries("bin/tool,fresh");

    EXPECT_THAT(StepsOf(package_),
                ElementsAre("-rename rename tool 3", "-rename skip fresh -", "-copy copy tool 12",
                            "-copy copy fresh 5", "-clean remove tool.bak 3", "-clean skip fresh.bak -"));
    EXPECT_EQ(package_.Run("plan").exitStatus, 0);
}

TEST_F(PlanTest, GoesInTheOrderOfTheTool) {
    package_.WriteList("[Server]\nb=@/b\nB=@/B\n[b]\nz=bin/tool\n[B]\nk2=x/2,x/1\nK1=x/3\nk10=x/4\n");
    for (const char* const name : {"x/1", "x/2", "x/3", "x/4"}) package_.Bring(name, "1");

    std::vector<std::string> copies;
    for (const std::string& step : StepsOf(package_)) {
        if (step.rfind("-copy ", 0) == 0) copies.push_back(step);
    }
    EXPECT_THAT(copies,
                ElementsAre("-copy mkdir B/ -", "-copy copy B/3 1", "-copy copy B/4 1", "-copy copy B/2 1",
                            "-copy copy B/1 1", "-copy mkdir b/ -", "-copy copy b/tool 12"));
}

TEST_F(PlanTest, KnowsWhatAnEarlierEntryHasDone) {
    // Under another spelling of its directory, too, and to a link.
    fs::rename(package_.InstalledPath("tool"), package_.InstalledPath("tool-1.0"));
    fs::create_symlink("tool-1.0", package_.InstalledPath("tool"));
    package_.WriteList("[Server]\nA=@\nB=@/../installed\n[A]\nf=bin/tool,bin/tool\n[B]\nf=bin/tool\n");

    EXPECT_THAT(StepsOf(package_),
                ElementsAre("-rename rename tool 3", "-rename skip tool -",
                            "-rename skip ../installed/tool -", "-copy copy tool 12", "-copy copy tool 12",
                            "-copy copy ../installed/tool 12", "-clean remove tool.bak 3",
                            "-clean skip tool.bak -", "-clean skip ../installed/tool.bak -"));
}

TEST_F(PlanTest, PassesOverAFileThatIsItsOwnBackup) {
    fs::create_hard_link(package_.InstalledPath("tool"), package_.InstalledPath("tool.bak"));
    package_.Bring("fresh", "fresh");
    package_.WriteEntries("bin/tool,fresh");

    const nlohmann::json report = package_.RunJson("plan");

    EXPECT_EQ(report["steps"][0]["step"], "skip");
    EXPECT_EQ(report["steps"][0]["detail"], "NAME.bak is the same file: nothing happens");
    EXPECT_EQ(report["steps"][1]["entry"], "fresh");
}

TEST_F(PlanTest, TellsThePassThatWillStopAndThoseThatAreNotReached) {
    package_.WriteEntries("bin/tool,lost,bin/tool");

    int status = 0;
    const nlohmann::json report = package_.RunJson("plan", {}, &status);

    EXPECT_EQ(status, 1);
    EXPECT_EQ(report["steps"].back()["step"], "fail");
    EXPECT_EQ(report["steps"].back()["pass"], "-copy");
    EXPECT_EQ(report["steps"].back()["entry"], "lost");
    EXPECT_EQ(report["passes"]["rename"]["succeeds"], true);
    EXPECT_EQ(report["passes"]["copy"]["reached"], true);
    EXPECT_EQ(report["passes"]["copy"]["succeeds"], false);
    EXPECT_EQ(report["passes"]["copy"]["files"], 1);
    EXPECT_EQ(report["passes"]["copy"]["bytes"], 12);
    EXPECT_EQ(report["passes"]["clean"]["reached"], false);
}

TEST_F(PlanTest, NamesTheKeysThatEveryPassSkips) {
    package_.WriteList("[Server]\nBin=@\n[Bin]\nf=bin/tool\nlong=" + std::string(4799, 'x') + "\n");

    int status = 0;
    const nlohmann::json report = package_.RunJson("plan", {}, &status);

    EXPECT_EQ(status, 1);
    ASSERT_EQ(report["skippedKeys"].size(), 1u);
    EXPECT_EQ(report["skippedKeys"][0]["key"], "long");
    EXPECT_EQ(report["skippedKeys"][0]["bytes"], 4799);
}

TEST_F(PlanTest, ChangesNothing) {
    const auto look = [this] {
        return RunProcess({"find", package_.scratch().Path(), "-printf", "%p %i %s %m %U %T@ %C@\n"}).out;
    };
    const std::string before = look();

    EXPECT_EQ(package_.Run("plan").exitStatus, 0);

    EXPECT_EQ(look(), before);
}

// The files, with a file or a directory moved.
std::map<std::string, std::uintmax_t> Moved(const std::map<std::string, std::uintmax_t>& files,
                                            const std::string& from, const std::string& to) {
    std::map<std::string, std::uintmax_t> before;
    std::map<std::string, std::uintmax_t> moved;
    for (const auto& [name, size] : files) {
        const bool isMoved = (name + "/").compare(0, from.size() + 1, from + "/") == 0;
        (isMoved ? moved[to + name.substr(from.size())] : before[name]) = size;
    }
    moved.merge(before);
    return moved;
}

// What the plan leads to: the names that exist, with their sizes, when every step is taken.
std::map<std::string, std::uintmax_t> FilesAfter(const Package& package, const nlohmann::json& plan,
                                                 std::map<std::string, std::uintmax_t> files) {
    for (const auto& step : plan["steps"]) {
        const std::string path =
            fs::path(step["path"].get<std::string>()).lexically_relative(package.InstalledPath());
        if (step["step"] == "rename") {
            files = Moved(files, path, path + ".bak");
        } else if (step["step"] == "copy") {
            files[path] = step["size"];
        } else if (step["step"] == "remove") {
            files.erase(path);
        }
    }
    return files;
}

std::map<std::string, std::uintmax_t> FilesOf(const Package& package) {
    std::map<std::string, std::uintmax_t> files;
    for (const auto& entry : fs::recursive_directory_iterator(package.InstalledPath())) {
        if (entry.is_regular_file()) {
            files[entry.path().lexically_relative(package.InstalledPath())] = entry.file_size();
        }
    }
    return files;
}

// The passes do what the plan says, for good and for bad packages.
TEST_F(PlanTest, ForetellsWhatThePassesDo) {
    const std::vector<std::pair<const char*, std::function<void(const Package&)>>> packages = {
        {"nothing special", [](const Package&) {}},
        {"a new file", [](const Package& p) { fs::remove(p.InstalledPath("tool")); }},
        {"a missing source", [](const Package& p) { p.WriteEntries("bin/tool,lost"); }},
        {"an empty entry", [](const Package& p) { p.WriteEntries("bin/tool,,bin/tool"); }},
        {"an empty entry for a missing directory",
         [](const Package& p) { p.WriteList("[Server]\nBin=@/missing\n[Bin]\nf=bin/tool,\n"); }},
        {"an entry that is a directory", [](const Package& p) { p.WriteEntries("bin"); }},
        {"an entry that ends in ..", [](const Package& p) { p.WriteEntries("bin/.."); }},
        {"the same name twice",
         [](const Package& p) {
             p.Bring("other/tool", "from elsewhere");
             p.WriteEntries("bin/tool,other/tool");
         }},
        {"an old backup", [](const Package& p) { p.Install("tool.bak", "older than old"); }},
        {"an old backup of a new file",
         [](const Package& p) {
             fs::remove(p.InstalledPath("tool"));
             p.Install("tool.bak", "older than old");
         }},
        {"a backup that is a directory", [](const Package& p) { p.Install("tool.bak/inside", ""); }},
        {"a name without room for .bak",
         [](const Package& p) {
             const std::string name(252, 'n');
             p.Bring(name, "new");
             p.Install(name, "old");
             p.WriteEntries(name);
         }},
        {"a directory where the package has a file",
         [](const Package& p) {
             fs::remove(p.InstalledPath("tool"));
             p.Install("tool/inside", "kept");
         }},
        {"a directory with a file for a backup",
         [](const Package& p) {
             fs::remove(p.InstalledPath("tool"));
             fs::create_directory(p.InstalledPath("tool"));
             p.Install("tool.bak", "older than old");
         }},
        {"missing target directories",
         [](const Package& p) {
             p.WriteList("[Server]\nA=@/a/b\nB=@/a/b/\n[A]\nf=bin/tool\n[B]\nf=bin/tool\n");
         }},
        {"a target directory that is a file",
         [](const Package& p) { p.WriteList("[Server]\nA=@/tool\n[A]\nf=bin/tool\n"); }},
        {"an entry with backslashes",
         [](const Package& p) {
             p.Bring("lib\\one.so", "one");
             p.WriteEntries("lib\\one.so");
         }},
        {"a key that is too long",
         [](const Package& p) {
             p.WriteList("[Server]\nBin=@\n[Bin]\nf=bin/tool\nlong=" + std::string(5000, 'x') + "\n");
         }},
        {"no entries at all", [](const Package& p) { p.WriteList("[Server]\nBin=@\n"); }},
        {"a target directory that is a link into nothing",
         [](const Package& p) {
             p.scratch().Link("installed/link", "nowhere");
             p.WriteList("[Server]\nA=@/link\n[A]\nf=bin/tool\n");
         }},
        {"a target directory behind one that is missing",
         [](const Package& p) { p.WriteList("[Server]\nA=@/missing/../d\n[A]\nf=bin/tool\n"); }},
        {"a target that is the directory of another list",
         [](const Package& p) {
             p.Bring("d", "a file");
             p.WriteList("[Server]\nA=@/d\nB=@\n[A]\nf=bin/tool\n[B]\nf=d\n");
         }},
        {"a file and its backup",
         [](const Package& p) {
             p.Bring("tool.bak", "the new backup");
             p.WriteEntries("bin/tool,tool.bak");
         }},
        {"a file where the directory of a later list is wanted",
         [](const Package& p) {
             p.Bring("d", "a file");
             p.WriteList("[Server]\nA=@\nB=@/d\n[A]\nf=d\n[B]\nf=bin/tool\n");
         }},
        {"an installed file where the directory of a list is wanted",
         [](const Package& p) {
             p.Bring("d", "a file");
             p.Install("d", "an old file");
             p.WriteList("[Server]\nA=@/d/e\nB=@\n[A]\nf=bin/tool\n[B]\nf=d\n");
         }},
        {"a directory beside one that a later list makes",
         [](const Package& p) {
             p.WriteList("[Server]\nA=@/new/../b\nB=@/new\n[A]\nf=bin/tool\n[B]\nf=bin/tool\n");
         }},
        {"a directory behind a link and \"..\"",
         [](const Package& p) {
             p.Install("real/sub/kept", "");
             p.scratch().Link("installed/link", "real/sub");
             p.WriteList("[Server]\nA=@/link/../new\n[A]\nf=bin/tool\n");
         }},
        {"an empty entry whose directory is a file",
         [](const Package& p) { p.WriteList("[Server]\nA=@/tool\n[A]\nf=,bin/tool\n"); }},
        {"a list's directory that -rename moves, with its files",
         [](const Package& p) {
             p.Install("d/tool", "old");
             p.Install("d/kept", "kept");
             p.Bring("d", "a file");
             p.WriteList("[Server]\nA=@/d\nB=@\n[A]\nf=bin/tool\n[B]\nf=d\n");
         }},
        {"a file below one that a step makes",
         [](const Package& p) {
             p.Bring("d", "a file");
             p.WriteList("[Server]\nA=@\nB=@/d/e\n[A]\nf=d\n[B]\nf=bin/tool\n");
         }},
        {"a hard link for a backup",
         [](const Package& p) {
             fs::create_hard_link(p.InstalledPath("tool"), p.InstalledPath("tool.bak"));
             fs::remove(p.SourcePath("bin/tool"));
         }},
    };
    for (const auto& [name, change] : packages) {
        SCOPED_TRACE(name);
        const Package package;
        package.Bring("bin/tool", "the new tool");
        package.Install("tool", "old");
        package.WriteEntries("bin/tool");
        change(package);

        const nlohmann::json plan = package.RunJson("plan");
        const auto foretold = FilesAfter(package, plan, FilesOf(package));
        for (const char* const pass : {"rename", "copy", "clean"}) {
            SCOPED_TRACE(pass);
            const nlohmann::json& report = plan["passes"][pass];
            if (!report["reached"].get<bool>()) break;
            EXPECT_EQ(package.RunPass(std::string("-") + pass), report["succeeds"].get<bool>() ? 0 : 240);
        }

        auto found = FilesOf(package);
        // -copy leaves an empty file where it failed on a directory; a plan does not go that far.
        for (auto file = found.begin(); file != found.end();) {
            file =
                foretold.count(file->first) == 0 && file->second == 0 ? found.erase(file) : std::next(file);
        }
        EXPECT_EQ(found, foretold);
    }
}

TEST_F(PlanTest, SaysWhyRenameWillFail) {
    fs::remove(package_.InstalledPath("tool"));
    fs::create_directory(package_.InstalledPath("tool"));
    package_.Install("tool.bak", "older");
    EXPECT_EQ(WhyItFails(package_), "-rename: NAME is a directory, NAME.bak is not");
    fs::remove(package_.InstalledPath("tool.bak"));
    fs::rename(package_.InstalledPath("tool"), package_.InstalledPath("tool.bak"));
    package_.Install("tool", "old");
    EXPECT_EQ(WhyItFails(package_), "-rename: NAME.bak is a directory");
}

TEST_F(PlanTest, KnowsTheLongestNameThatHasRoomForItsBackup) {
    for (const std::size_t length : {std::size_t{251}, std::size_t{252}}) {
        const std::string name(length, 'n');
        package_.Bring(name, "new");
        package_.Install(name, "old");
        package_.WriteEntries(name);
        EXPECT_EQ(WhyItFails(package_), length == 251 ? "" : "-rename: the name is too long for its backup");
    }
}

TEST_F(PlanTest, SaysWhichDirectoryCannotBeWritten) {
    const Replaced replaced(calls::faccessat, [](int, const char*, int, int) {
        errno = EROFS;
        return -1;
    });

    EXPECT_EQ(WhyItFails(package_), "-rename: " + package_.InstalledPath() + ": Read-only file system");
    fs::remove(package_.InstalledPath("tool"));
    EXPECT_EQ(WhyItFails(package_), "-copy: " + package_.InstalledPath() + ": Read-only file system");
}

TEST_F(PlanTest, AsksForTheRightsOfTheEffectiveUser) {
    std::vector<std::string> asked;
    const Replaced replaced(calls::faccessat, [&](int directory, const char* path, int mode, int flags) {
        EXPECT_EQ(mode, W_OK | X_OK);
        EXPECT_EQ(flags, AT_EACCESS);
        asked.emplace_back(path);
        return calls::real::faccessat(directory, path, mode, flags);
    });

    EXPECT_EQ(WhyItFails(package_), "");

    const std::string directory = package_.InstalledPath();
    EXPECT_THAT(asked, ElementsAre(directory, directory)) << "for -rename, and for -copy";
}

TEST_F(PlanTest, OpensThePackagesFileSoThatAPipeInItsPlaceHoldsNothingUp) {
    const RecordedOpens opens;

    EXPECT_EQ(WhyItFails(package_), "");

    EXPECT_EQ(opens.FlagsOf(package_.SourcePath("bin/tool")), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
}

TEST_F(PlanTest, TakesABackupOfTheSameInodeNumberOnAnotherFileSystemForAnotherFile) {
    package_.Install("tool.bak", "older");
    const auto details = [this](dev_t step) {
        const struct stat installed = StatusOf(package_.InstalledPath("tool"));
        const std::string backup = package_.InstalledPath("tool.bak");
        const Replaced replaced(calls::lstat, [&](const char* path, struct stat* status) {
            const int result = calls::real::lstat(path, status);
            if (path == backup) {
                status->st_ino = installed.st_ino;
                status->st_dev = installed.st_dev + step;
            }
            return result;
        });
        const nlohmann::json report =
            ReportOf([this](Output& output) { return Plan(FileList(package_.ListPath()), output); });
        return report["steps"][0]["detail"].get<std::string>();
    };

    EXPECT_EQ(details(0), "NAME.bak is the same file: nothing happens");
    EXPECT_EQ(details(1), "to NAME.bak, replacing an older one");
}

TEST_F(PlanTest, SaysThatThePackagesFileCannotBeOpened) {
    const std::string source = package_.SourcePath("bin/tool");
    const Replaced replaced(calls::open, [&source](const char* path, int flags, mode_t mode) {
        if (path != source) return calls::real::open(path, flags, mode);
        errno = EACCES;
        return -1;
    });

    EXPECT_EQ(WhyItFails(package_), "-copy: bin/tool: Permission denied");
}

TEST_F(PlanTest, SaysThatThePackagesFileIsASpecialOne) {
    fs::remove(package_.SourcePath("bin/tool"));
    ASSERT_EQ(mkfifo(package_.SourcePath("bin/tool").c_str(), 0600), 0);

    EXPECT_EQ(WhyItFails(package_), "-copy: bin/tool is a special file");
}

TEST_F(PlanTest, TakesAFileWhoseStatusCannotBeToldForARegularOne) {
    const Replaced replaced(calls::fstat, [this](int fd, struct stat* status) {
        const fs::path path = fs::read_symlink("/proc/self/fd/" + std::to_string(fd));
        if (path != package_.SourcePath("bin/tool")) return calls::real::fstat(fd, status);
        errno = EIO;
        return -1;
    });

    EXPECT_EQ(WhyItFails(package_), "");
}

TEST_F(PlanTest, SaysThatCleanWillNotRemoveADirectory) {
    fs::remove(package_.InstalledPath("tool"));
    package_.Install("tool/inside", "keeps the directory");

    EXPECT_EQ(WhyItFails(package_), "-clean: a directory, which goes only if it is empty");
}

// "tool" is the first of so many links, and the last one leads to a file.
void LinkInAChain(const Package& package, int links) {
    std::string pointee = package.Install("end", "5 old");
    for (int i = links; i > 1; --i) {
        const std::string link = package.InstalledPath("link" + std::to_string(i));
        fs::create_symlink(pointee, link);
        pointee = link;
    }
    fs::create_symlink(pointee, package.InstalledPath("tool"));
}

// Where links stand for files: the results of the passes, and what is there at the end.
TEST_F(PlanTest, ForetellsWhatThePassesDoWithLinks) {
    const struct {
        const char* name;
        std::function<void(const Package&)> change;
        std::vector<std::string> steps;
    } packages[] = {
        {"a link behind the file that it leads to",
         [](const Package& p) {
             p.Install("lib.so.1", "old");
             p.scratch().Link("installed/lib.so", "lib.so.1");
             p.Bring("lib.so.1", "new");
             p.Bring("lib.so", "newer");
             p.WriteEntries("lib.so.1,lib.so");
         },
         {"-rename rename lib.so.1 3", "-rename skip lib.so -", "-copy copy lib.so.1 3",
          "-copy copy lib.so 5", "-clean remove lib.so.1.bak 3", "-clean skip lib.so.bak -"}},
        {"a link before the file that it leads to",
         [](const Package& p) {
             p.Install("lib.so.1", "old");
             p.scratch().Link("installed/lib.so", "lib.so.1");
             p.Bring("lib.so.1", "new");
             p.Bring("lib.so", "newer");
             p.WriteEntries("lib.so,lib.so.1");
         },
         {"-rename rename lib.so 3", "-rename rename lib.so.1 3", "-copy copy lib.so 5",
          "-copy copy lib.so.1 3", "-clean remove lib.so.bak 3", "-clean remove lib.so.1.bak 3"}},
        {"an empty directory",
         [](const Package& p) {
             p.scratch().MakeDirectory("installed/empty");
             p.Bring("empty", "1");
             p.WriteEntries("empty");
         },
         {}},
        {"a link to a directory",
         [](const Package& p) {
             p.Install("real/inside", "kept");
             p.scratch().Link("installed/link", "real");
             p.Bring("link", "1");
             p.WriteEntries("link");
         },
         {}},
        {"a backup that is a link to a directory",
         [](const Package& p) {
             p.Install("real/inside", "kept");
             p.scratch().Link("installed/tool.bak", "real");
         },
         {"-rename rename tool 3", "-copy copy tool 12", "-clean remove tool.bak 3"}},
        {"the package's own file",
         [](const Package& p) { p.WriteList("[Server]\nA=" + p.SourcePath("bin") + "\n[A]\nf=bin/tool\n"); },
         {}},
        {"an entry that an earlier one makes, through links from both sides",
         [](const Package& p) {
             p.Bring("made", "content");
             fs::create_symlink(p.InstalledPath("made"), p.SourcePath("link"));
             p.scratch().Link("installed/link", "made");
             p.WriteEntries("made,link");
         },
         {"-rename skip made -", "-rename skip link -", "-copy copy made 7", "-copy copy link 0",
          "-clean skip made.bak -", "-clean skip link.bak -"}},
        {"a link in the package that leads in a circle",
         [](const Package& p) {
             fs::create_symlink("circle", p.SourcePath("circle"));
             p.WriteEntries("circle");
         },
         {"-rename skip circle -", "-copy fail circle -"}},
        {"a backup that is a link in a circle",
         [](const Package& p) {
             fs::remove(p.InstalledPath("tool"));
             p.scratch().Link("installed/tool.bak", "tool.bak");
         },
         {"-rename skip tool -", "-copy copy tool 12", "-clean skip tool.bak -"}},
        {"an empty directory over an empty backup",
         [](const Package& p) {
             p.scratch().MakeDirectory("installed/empty");
             p.scratch().MakeDirectory("installed/empty.bak");
             p.Bring("empty", "1");
             p.WriteEntries("empty");
         },
         {}},
        {"an empty directory over a backup that is not empty",
         [](const Package& p) {
             p.scratch().MakeDirectory("installed/empty");
             p.Install("empty.bak/inside", "kept");
             p.Bring("empty", "1");
             p.WriteEntries("empty");
         },
         {"-rename fail empty -"}},
        {"a list's directory that has the name of a backup",
         [](const Package& p) {
             fs::remove(p.InstalledPath("tool"));
             p.WriteList("[Server]\nA=@/tool.bak\nB=@\n[A]\nf=bin/tool\n[B]\nf=bin/tool\n");
         },
         {"-rename skip tool.bak/tool -", "-rename skip tool -", "-copy mkdir tool.bak/ -",
          "-copy copy tool.bak/tool 12", "-copy copy tool 12", "-clean skip tool.bak/tool.bak -",
          "-clean fail tool.bak -"}},
        {"a link in a circle",
         [](const Package& p) {
             fs::remove(p.InstalledPath("tool"));
             p.scratch().Link("installed/tool", "tool");
         },
         {"-rename skip tool -", "-copy fail tool -"}},
        {"as many links as the kernel follows",
         [](const Package& p) {
             fs::remove(p.InstalledPath("tool"));
             LinkInAChain(p, 40);
         },
         {"-rename rename tool 5", "-copy copy tool 12", "-clean remove tool.bak 5"}},
        {"a link more than the kernel follows",
         [](const Package& p) {
             fs::remove(p.InstalledPath("tool"));
             LinkInAChain(p, 41);
         },
         {"-rename skip tool -", "-copy fail tool -"}},
        {"a directory beside one that an earlier list makes",
         [](const Package& p) {
             p.WriteList("[Server]\nA=@/new\nB=@/new/../b\n[A]\nf=bin/tool\n[B]\nf=bin/tool\n");
         },
         {"-rename skip new/tool -", "-rename skip new/../b/tool -", "-copy mkdir new/ -",
          "-copy copy new/tool 12", "-copy mkdir new/../b/ -", "-copy copy new/../b/tool 12",
          "-clean skip new/tool.bak -", "-clean skip new/../b/tool.bak -"}},
        {"a link to a directory that an earlier list makes",
         [](const Package& p) {
             p.scratch().Link("installed/link", "real");
             p.WriteList("[Server]\nA=@/real\nB=@/link\n[A]\nf=bin/tool\n[B]\nf=other\n");
             p.Bring("other", "new");
         },
         {"-rename skip real/tool -", "-rename skip link/other -", "-copy mkdir real/ -",
          "-copy copy real/tool 12", "-copy copy link/other 3", "-clean skip real/tool.bak -",
          "-clean skip link/other.bak -"}},
        {"a link into a missing directory",
         [](const Package& p) {
             fs::remove(p.InstalledPath("tool"));
             p.scratch().Link("installed/tool", "missing/tool");
         },
         {"-rename skip tool -", "-copy fail tool -"}},
    };
    for (const auto& row : packages) {
        SCOPED_TRACE(row.name);
        const Package package;
        package.Bring("bin/tool", "the new tool");
        package.Install("tool", "old");
        package.WriteEntries("bin/tool");
        row.change(package);

        const nlohmann::json plan = package.RunJson("plan");
        if (!row.steps.empty()) {
            EXPECT_EQ(StepsOf(package), row.steps);
        }
        for (const char* const pass : {"rename", "copy", "clean"}) {
            SCOPED_TRACE(pass);
            const nlohmann::json& report = plan["passes"][pass];
            if (!report["reached"].get<bool>()) break;
            EXPECT_EQ(package.RunPass(std::string("-") + pass), report["succeeds"].get<bool>() ? 0 : 240);
        }
    }
}

std::string ShownPlanOf(const Package& package) {
    return ShownOnATerminal(
        package, [&package](Output& output) { return Plan(FileList(package.ListPath()), output); });
}

TEST_F(PlanTest, ShowsPeopleEachStepAndTheSumOfEachPass) {
    package_.Bring("fresh", "fresh");
    package_.Install("tool.bak", "older");
    package_.WriteList("[Server]\nA=@\nB=@/new\n[A]\nf=bin/tool,fresh\n[B]\nf=fresh\n");

    EXPECT_EQ(ShownPlanOf(package_),
              "{bold}LIST{}  install type Server\n"
              "\n"
              "{bold}-rename{}\n"
              "  rename         3 B  @/tool{dim}  (to NAME.bak, replacing an older one){}\n"
              "  {dim}skip  {}           -  @/fresh{dim}  (not there){}\n"
              "  {dim}skip  {}           -  @/new/fresh{dim}  (not there){}\n"
              "{dim}  1 file, 3 B{}\n"
              "\n"
              "{bold}-copy{}\n"
              "  copy          12 B  @/tool{dim}  (from Common/bin/tool){}\n"
              "  copy           5 B  @/fresh{dim}  (from Common/fresh){}\n"
              "  mkdir            -  @/new/{dim}  (mode 0750 minus the umask){}\n"
              "  copy           5 B  @/new/fresh{dim}  (from Common/fresh){}\n"
              "{dim}  3 files, 22 B{}\n"
              "\n"
              "{bold}-clean{}\n"
              "  remove         3 B  @/tool.bak\n"
              "  {dim}skip  {}           -  @/fresh.bak{dim}  (not there){}\n"
              "  {dim}skip  {}           -  @/new/fresh.bak{dim}  (not there){}\n"
              "{dim}  1 file, 3 B{}\n");
}

TEST_F(PlanTest, ShowsPeopleWhereItStopsAndWhatIsSkipped) {
    package_.WriteList("[Server]\nBin=@\n[Bin]\nf=bin/tool,lost\nlong=" + std::string(4799, 'x') + "\n");

    EXPECT_EQ(ShownPlanOf(package_),
              "{bold}LIST{}  install type Server\n"
              "\n"
              "{bold}-rename{}\n"
              "  rename         3 B  @/tool{dim}  (to NAME.bak){}\n"
              "  {dim}skip  {}           -  @/lost{dim}  (not there){}\n"
              "{dim}  1 file, 3 B{}\n"
              "\n"
              "{bold}-copy{}\n"
              "  copy          12 B  @/tool{dim}  (from Common/bin/tool){}\n"
              "  {error}FAIL  {}           -  @/lost{dim}  (the package lacks lost){}\n"
              "{error}  stops here, exit status 240{}\n"
              "\n"
              "{bold}-clean{}\n"
              "  not reached\n"
              "\n"
              "{error}Every pass skips [Bin] long: a value of 4799 bytes.{}\n");
}

TEST_F(PlanTest, ReportsEachStepWithItsEntryAndEachPass) {
    package_.Bring("bin/other", "new");
    package_.WriteList("[Server]\nBin=@/new\n[Bin]\nf=bin/other,lost\n");
    const auto step = [this](const char* pass, const char* kind, const std::string& name, const char* entry) {
        return nlohmann::json{
            {"pass", pass},    {"step", kind},          {"path", package_.InstalledPath("new/" + name)},
            {"size", nullptr}, {"detail", "not there"}, {"section", "Bin"},
            {"key", "f"},      {"entry", entry}};
    };
    nlohmann::json made = step("-copy", "mkdir", "", "");
    made.update({{"section", ""}, {"key", ""}, {"detail", "mode 0750 minus the umask"}});
    nlohmann::json copied = step("-copy", "copy", "other", "bin/other");
    copied.update({{"size", 3}, {"detail", "from Common/bin/other"}});
    nlohmann::json failed = step("-copy", "fail", "lost", "lost");
    failed["detail"] = "the package lacks lost";

    const nlohmann::json report =
        ReportOf([this](Output& output) { return Plan(FileList(package_.ListPath()), output); });

    EXPECT_EQ(report["command"], "plan");
    EXPECT_EQ(report["fileList"], package_.ListPath());
    EXPECT_EQ(report["installType"], "Server");
    EXPECT_EQ(report["steps"],
              (nlohmann::json{step("-rename", "skip", "other", "bin/other"),
                              step("-rename", "skip", "lost", "lost"), made, copied, failed}));
    EXPECT_EQ(report["skippedKeys"], nlohmann::json::array());
    EXPECT_EQ(
        report["passes"],
        (nlohmann::json{{"rename", {{"reached", true}, {"succeeds", true}, {"files", 0}, {"bytes", 0}}},
                        {"copy", {{"reached", true}, {"succeeds", false}, {"files", 1}, {"bytes", 3}}},
                        {"clean", {{"reached", false}, {"succeeds", false}, {"files", 0}, {"bytes", 0}}}}));
}

TEST_F(PlanTest, TakesARelativeDirectoryFromWhereItIsStarted) {
    package_.WriteRawList(
        "[Package_Intall_Type]\nPackageIntallType=Server\n[Server]\nA=nowhere/at/all\n[A]\nf=bin/tool\n");
    const WorkingDirectory inside(package_.scratch().Path());

    const nlohmann::json report =
        ReportOf([this](Output& output) { return Plan(FileList(package_.ListPath()), output); });

    std::vector<std::string> paths;
    for (const auto& step : report["steps"]) paths.push_back(step["path"]);
    EXPECT_THAT(paths, ElementsAre("nowhere/at/all/tool", "nowhere/at/all/", "nowhere/at/all/tool",
                                   "nowhere/at/all/tool.bak"));
}

TEST_F(PlanTest, WarnsThatRenameWillDestroyTheBackupOfAnUnfinishedUpgrade) {
    package_.Install("tool.bak", "older");
    EXPECT_EQ(package_.Run("plan").exitStatus, 0);

    package_.Install("tool", "the new");
    int status = 0;
    const nlohmann::json report = package_.RunJson("plan", {}, &status);
    EXPECT_EQ(status, 1);
    EXPECT_EQ(report["steps"][0]["step"], "rename");
    EXPECT_EQ(report["steps"][0]["detail"],
              "to NAME.bak, replacing the backup of an unfinished upgrade: it is lost");
    EXPECT_EQ(report["passes"]["rename"]["succeeds"], true);
    EXPECT_THAT(ShownPlanOf(package_),
                testing::HasSubstr("@/tool{error}  (to NAME.bak, replacing the backup"));
}

TEST_F(PlanTest, SaysThatRenameCannotMoveWhatIsImmutableOrAppendOnly) {
    const std::string directory = package_.InstalledPath();
    const struct {
        std::string path;
        unsigned flag;
        std::string why;
    } rows[] = {{directory + "/tool", FS_IMMUTABLE_FL, "it is immutable"},
                {directory + "/tool", FS_APPEND_FL, "it is append-only"},
                {directory, FS_IMMUTABLE_FL, directory + " is immutable"},
                {directory, FS_APPEND_FL, directory + " is append-only"}};
    for (const auto& row : rows) {
        const Locked locked(row.path, row.flag);
        if (!locked.isSet()) GTEST_SKIP() << "no such attributes here, or no right to set them";
        EXPECT_EQ(WhyItFails(package_), "-rename: " + row.why);
        EXPECT_EQ(package_.RunPass("-rename"), 240) << row.why;
    }
    EXPECT_EQ(WhyItFails(package_), "");
}

TEST_F(PlanTest, SaysThatRenameCannotMoveAMountPoint) {
    CONTINUE_IN_PRIVATE_NAMESPACE(
        (std::vector<std::string>{"--tmpfs", "/mnt", "--bind", "/etc/hostname", "/mnt/tool"}));
    package_.WriteList("[Server]\nBin=/mnt\n[Bin]\nf=bin/tool\n");

    EXPECT_EQ(WhyItFails(package_), "-rename: it is a mount point");
    EXPECT_EQ(package_.RunPass("-rename"), 240);
}

TEST_F(PlanTest, WarnsThatRenameWillTakeAwayWhatTheNextPassNeeds) {
    const auto plan = [this](int& status) {
        return ReportOf([this](Output& output) { return Plan(FileList(package_.ListPath()), output); },
                        &status)["steps"][0]["detail"];
    };
    const std::string detail = "to NAME.bak; the next pass needs it, and fails";
    int status = 0;
    package_.Bring("VCopyFileListIni", "new");
    package_.Install("VCopyFileListIni", "old");
    package_.WriteEntries("VCopyFileListIni");
    EXPECT_EQ(plan(status), "to NAME.bak");
    EXPECT_EQ(status, 0);
    {
        const Variable path("PATH", package_.InstalledPath().c_str());
        EXPECT_EQ(plan(status), detail);
        EXPECT_EQ(status, 1);
    }
    fs::copy_file(package_.ListPath(), package_.SourcePath("filelist.ini"));
    package_.WriteList("[Server]\nBin=" + package_.scratch().Path("package") + "\n[Bin]\nf=filelist.ini\n");
    EXPECT_EQ(plan(status), detail);
    EXPECT_EQ(status, 1);
    EXPECT_EQ(package_.RunPass("-rename"), 0);
    EXPECT_EQ(package_.RunPass("-copy"), 240);
}

TEST_F(PlanTest, WarnsThatALinkToItsBackupWillReplaceTheFile) {
    fs::rename(package_.InstalledPath("tool"), package_.InstalledPath("tool.bak"));
    fs::create_symlink("tool.bak", package_.InstalledPath("tool"));
    int status = 0;

    const nlohmann::json report = package_.RunJson("plan", {}, &status);

    EXPECT_EQ(status, 1);
    EXPECT_EQ(report["steps"][0]["detail"], "to NAME.bak, replacing the file that it leads to: it is lost");
    EXPECT_EQ(package_.RunPass("-rename"), 0);
    EXPECT_EQ(fs::read_symlink(package_.InstalledPath("tool.bak")), "tool.bak") << "it leads to itself";
}

TEST_F(PlanTest, WarnsThatCopyWillEmptyThePackagesOwnFile) {
    fs::remove(package_.InstalledPath("tool"));
    fs::create_symlink(package_.SourcePath("bin/tool"), package_.InstalledPath("other"));
    package_.WriteList("[Server]\nA=@\n[A]\nf=bin/tool\n");
    EXPECT_EQ(package_.Run("plan").exitStatus, 0);

    fs::rename(package_.InstalledPath("other"), package_.InstalledPath("tool.bak"));
    fs::create_directory_symlink(package_.SourcePath("bin"), package_.InstalledPath("link"));
    package_.WriteList("[Server]\nA=@\nB=@/link\n[A]\nf=bin/tool\n[B]\nf=lost\n");
    EXPECT_EQ(package_.Run("plan").exitStatus, 1);
}

}  // namespace
