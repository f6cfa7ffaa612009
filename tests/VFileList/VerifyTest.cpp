#include "Verify.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <vector>

#include "FileSystem.h"
#include "Package.h"
#include "Process.h"
#include "Receipt.h"
#include "Report.h"
#include "Sanitizer.h"
#include "Signer.h"
#include "StateDirectory.h"
#include "SystemCalls.h"

namespace {

namespace fs = std::filesystem;

using testing::ElementsAre;
using testing::HasSubstr;

class VerifyTest : public testing::Test {
protected:
    VerifyTest() {
        package_.Bring("tool", "the new tool");
        package_.Install("tool", "old");
        package_.WriteEntries("tool");
    }

    void RunPasses(const std::vector<std::string>& passes) const {
        for (const std::string& pass : passes) ASSERT_EQ(package_.RunPass(pass), 0) << pass;
    }

    // The report on the first target.
    nlohmann::json Target() const { return package_.RunJson("verify")["targets"][0]; }
    std::string State() const { return Target()["state"]; }
    int Verify(const std::vector<std::string>& options = {}) const {
        return package_.Run("verify", options).exitStatus;
    }

    const Umask umask_{022};
    const Package package_;
};

TEST_F(VerifyTest, TellsTheStateByTheContent) {
    const std::string wanted = "the new tool";
    const struct {
        std::string content;
        const char* state;
    } cases[] = {
        {wanted, "new"},
        {"the new tooL", "old"},
        {"The new tool", "old"},
        {"the new tool!", "old"},
        {"old", "old"},
        {"", "partial"},
        {"the new too", "partial"},
        {std::string("the new\0\0\0\0\0", 12), "partial"},
        {std::string("the new\0\0\0\0\0\0", 13), "old"},
        {std::string("the\0\0\0\0tool", 11), "old"},
    };
    for (const auto& row : cases) {
        SCOPED_TRACE(row.content);
        package_.Install("tool", row.content);
        EXPECT_EQ(State(), row.state);
    }
    fs::remove(package_.InstalledPath("tool"));
    EXPECT_EQ(State(), "missing");
}

TEST_F(VerifyTest, ComparesEveryByteOfLongFiles) {
    constexpr std::size_t kBlock = 256 * 1024;
    for (const std::size_t size : {kBlock - 1, kBlock, kBlock + 1, 2 * kBlock, 3 * kBlock + 5}) {
        std::string content(size, 'x');
        package_.Bring("tool", content);
        package_.Install("tool", content);
        EXPECT_EQ(State(), "new") << size;
        for (const std::size_t at : {std::size_t{0}, kBlock - 2, size / 2, size - 1}) {
            content[at] = 'y';
            package_.Install("tool", content);
            EXPECT_EQ(State(), "old") << size << " at " << at;
            content[at] = 'x';
        }
        package_.Install("tool", content.substr(0, size - 1));
        EXPECT_EQ(State(), "partial") << size;
        package_.Install("tool", content.substr(0, size / 2) + std::string(size - size / 2, '\0'));
        EXPECT_EQ(State(), "partial") << size;
    }
}

TEST_F(VerifyTest, TellsHowManyFilesItHasCompared) {
    package_.Bring("other", "");
    package_.WriteEntries("tool,other");
    const FileList list(package_.ListPath());

    EXPECT_THAT(ProgressOf([&list](Output& output) { return ::Verify(list, {}, output); }),
                ElementsAre("verify: 0 of 2 files", "verify: 1 of 2 files"));
}

TEST_F(VerifyTest, CallsUnknownWhatCannotBeCompared) {
    fs::remove(package_.InstalledPath("tool"));
    fs::create_directory(package_.InstalledPath("tool"));
    EXPECT_EQ(State(), "unknown");
    fs::remove(package_.InstalledPath("tool"));
    ASSERT_EQ(mkfifo(package_.InstalledPath("tool").c_str(), 0600), 0);
    EXPECT_EQ(State(), "unknown") << "and does not wait for a writer";
    fs::remove(package_.InstalledPath("tool"));
    package_.Install("tool", "old");
    fs::remove(package_.SourcePath("tool"));
    EXPECT_EQ(State(), "unknown");
    EXPECT_EQ(package_.RunJson("verify")["summary"]["sourcesLacking"], 1);
}

TEST_F(VerifyTest, FollowsALinkAndCallsADanglingOneMissing) {
    fs::rename(package_.InstalledPath("tool"), package_.InstalledPath("tool-1.0"));
    fs::create_symlink("tool-1.0", package_.InstalledPath("tool"));
    package_.Install("tool-1.0", "the new tool");
    EXPECT_EQ(State(), "new");
    fs::remove(package_.InstalledPath("tool-1.0"));
    EXPECT_EQ(State(), "missing");
}

TEST_F(VerifyTest, ComparesModesWithThoseOfTheBackups) {
    ASSERT_EQ(chmod(package_.InstalledPath("tool").c_str(), 0755), 0);
    RunPasses({"-rename", "-copy"});

    const nlohmann::json target = Target();
    EXPECT_EQ(target["mode"], "0644");
    EXPECT_EQ(target["backupMode"], "0755");
    EXPECT_EQ(target["modeDiffers"], true);
    EXPECT_EQ(Verify(), 1);
    EXPECT_EQ(Verify({"--ignore-modes"}), 0);
    EXPECT_THAT(package_.Run("verify").out, HasSubstr("vfilelist rollback --only-modes"));

    ASSERT_EQ(chmod(package_.InstalledPath("tool").c_str(), 0755), 0);
    EXPECT_EQ(Verify(), 0);
}

TEST_F(VerifyTest, ComparesOwnersWithThoseOfTheBackups) {
    SKIP_UNLESS_ROOT();
    ASSERT_EQ(chown(package_.InstalledPath("tool").c_str(), 65534, 65533), 0);
    RunPasses({"-rename", "-copy"});

    const nlohmann::json target = Target();
    EXPECT_EQ(target["owner"], "0:0");
    EXPECT_EQ(target["backupOwner"], "65534:65533");
    EXPECT_EQ(target["ownerDiffers"], true);
    EXPECT_EQ(Verify(), 1);
    EXPECT_EQ(Verify({"--ignore-modes"}), 0);
}

TEST_F(VerifyTest, ExitsWith0OnlyInTheExpectedState) {
    const std::vector<std::string> states = {"renamed", "copied", "cleaned", "restored"};
    const auto expect = [&](const char* when, const std::vector<int>& statuses) {
        for (std::size_t i = 0; i < states.size(); ++i) {
            EXPECT_EQ(Verify({"--expect", states[i]}), statuses[i]) << when << ", " << states[i];
        }
        EXPECT_EQ(Verify(), statuses[1]) << when;
    };
    expect("before", {1, 1, 1, 0});
    RunPasses({"-rename"});
    expect("after -rename", {0, 1, 1, 1});
    RunPasses({"-copy"});
    expect("after -copy", {1, 0, 1, 1});
    EXPECT_EQ(package_.Run("rollback").exitStatus, 0);
    expect("after the rollback", {1, 1, 1, 0});
    RunPasses({"-rename", "-copy", "-clean"});
    expect("after -clean", {1, 0, 0, 0});
}

TEST_F(VerifyTest, IsNotContentWhileThePassesSkipAKey) {
    package_.WriteList("[Server]\nBin=@\n[Bin]\nf=tool\nlong=" + std::string(4096, 'x') + "\n");
    RunPasses({"-rename", "-copy"});

    int status = 0;
    const nlohmann::json report = package_.RunJson("verify", {}, &status);

    EXPECT_EQ(status, 1);
    ASSERT_EQ(report["problems"].size(), 1u);
    EXPECT_EQ(report["problems"][0]["code"], "E-LIST-TOO-LONG");
    EXPECT_EQ(report["problems"][0]["key"], "long");
}

TEST_F(VerifyTest, IsNotContentWithAListThatInstallsNothing) {
    package_.WriteList("[Server]\nBin=@\nLib=@\n[Bin]\nf=tool\n[lib]\nf=tool\n");
    RunPasses({"-rename", "-copy", "-clean"});

    int status = 0;
    const nlohmann::json report = package_.RunJson("verify", {"--expect", "cleaned"}, &status);

    EXPECT_EQ(status, 1);
    ASSERT_EQ(report["problems"].size(), 1u);
    EXPECT_EQ(report["problems"][0]["code"], "W-LIST-EMPTY");
    EXPECT_EQ(report["problems"][0]["section"], "Lib");
    EXPECT_THAT(package_.Run("verify").out, HasSubstr("W-LIST-EMPTY  [Lib]: no entries"));
}

TEST_F(VerifyTest, IsNotContentWithADirectoryThatThePassesTakeForTheRootDirectory) {
    for (const std::string& directory : {std::string(), "/" + std::string(300, 'x')}) {
        package_.WriteList("[Server]\nBin=" + directory + "\n[Bin]\nf=no-such-file-of-vfilelist\n");

        const nlohmann::json problems = package_.RunJson("verify")["problems"];

        ASSERT_EQ(problems.size(), 1u);
        EXPECT_EQ(problems[0]["code"], directory.empty() ? "E-DIR-EMPTY" : "E-DIR-TOO-LONG");
        EXPECT_EQ(problems[0]["section"], "Server");
        EXPECT_EQ(problems[0]["key"], "Bin");
    }
}

TEST_F(VerifyTest, KnowsTheLongestDirectoryThatThePassesTake) {
    for (const std::size_t length : {std::size_t{259}, std::size_t{260}}) {
        package_.WriteList("[Server]\nBin=/" + std::string(length - 1, 'x') + "\n[Bin]\nf=tool\n");
        EXPECT_EQ(package_.RunJson("verify")["problems"].size(), length - 259);
    }
}

TEST_F(VerifyTest, DoesNotMissAFileThatIsEmpty) {
    package_.Bring("tool", "");

    const nlohmann::json report = package_.RunJson("verify");

    EXPECT_EQ(report["targets"][0]["packageSize"], 0);
    EXPECT_EQ(report["summary"]["sourcesLacking"], 0);
}

TEST_F(VerifyTest, IsNotContentWithAnEntryThatHasNoFileName) {
    RunPasses({"-rename", "-copy"});
    package_.WriteEntries("tool,");

    int status = 0;
    const nlohmann::json report = package_.RunJson("verify", {}, &status);

    EXPECT_EQ(status, 1);
    ASSERT_EQ(report["problems"].size(), 1u);
    EXPECT_EQ(report["problems"][0]["code"], "E-ENTRY-EMPTY");
}

TEST_F(VerifyTest, NamesEveryEntryOfATarget) {
    package_.Bring("other/tool", "from the other one");
    package_.WriteEntries("tool,other/tool");
    RunPasses({"-rename", "-copy"});

    const nlohmann::json target = Target();
    EXPECT_EQ(target["state"], "new");
    ASSERT_EQ(target["entries"].size(), 2u);
    EXPECT_EQ(target["entries"][0]["entry"], "tool");
    EXPECT_EQ(target["entries"][1]["entry"], "other/tool");

    package_.Install("tool", "the new tool");
    EXPECT_EQ(State(), "partial") << "the second entry has not been copied yet";
}

TEST_F(VerifyTest, SaysWhatToRunNext) {
    EXPECT_THAT(package_.Run("verify").out,
                HasSubstr("Next:    VCopyFileListIni -rename " + package_.ListPath()));
    RunPasses({"-rename"});
    EXPECT_THAT(package_.Run("verify").out,
                HasSubstr("Next:    VCopyFileListIni -copy " + package_.ListPath()));
    RunPasses({"-copy"});
    EXPECT_THAT(package_.Run("verify").out,
                HasSubstr("Next:    VCopyFileListIni -clean " + package_.ListPath()));
    RunPasses({"-clean"});
    EXPECT_THAT(package_.Run("verify").out, HasSubstr("Next:    nothing\n"));
}

TEST_F(VerifyTest, NamesNoPassWhereAServiceChangedTheNewFile) {
    RunPasses({"-rename", "-copy"});
    package_.Install("tool", "the new tool, configured");

    const nlohmann::json summary = package_.RunJson("verify")["summary"];

    EXPECT_EQ(summary["next"], nullptr) << "-rename would destroy the backup";
    EXPECT_THAT(summary["reason"].get<std::string>(),
                HasSubstr(package_.InstalledPath("tool") + ": it is not the package's file and has"));
}

TEST_F(VerifyTest, NamesNoPassThatWritesOverAFileThatARollbackRestored) {
    package_.Bring("other", "new");
    package_.Install("other", "old");
    package_.Install("tool", "the new");
    package_.WriteEntries("tool,other");
    RunPasses({"-rename", "-copy"});
    fs::rename(package_.InstalledPath("tool.bak"), package_.InstalledPath("tool"));

    const nlohmann::json summary = package_.RunJson("verify")["summary"];

    EXPECT_EQ(summary["states"]["partial"], 1);
    EXPECT_EQ(summary["next"], nullptr);
    EXPECT_THAT(summary["reason"].get<std::string>(),
                testing::StartsWith(package_.InstalledPath("tool") + ": it holds a beginning"));
}

TEST_F(VerifyTest, NamesNoPassBesideABackupThatIsOlderThanThePackage) {
    package_.Install("tool.bak", "much older");
    const timespec before = StatusOf(package_.InstalledPath("tool.bak")).st_ctim;
    timespec now = before;
    while (now.tv_sec == before.tv_sec && now.tv_nsec == before.tv_nsec) {
        now = StatusOf(package_.Bring("tool", "the new tool")).st_ctim;
    }
    package_.Install("tool", "the new tool");

    const nlohmann::json report = package_.RunJson("verify");

    EXPECT_EQ(report["targets"][0]["backup"], true);
    EXPECT_EQ(report["targets"][0]["detail"], "NAME.bak is older than the package");
    EXPECT_EQ(report["summary"]["next"], nullptr);
    EXPECT_EQ(report["summary"]["passes"]["copy"], "unknown");
    EXPECT_EQ(report["summary"]["isExpected"], true) << "every file is new, whatever else there is";
    EXPECT_EQ(Verify({"--expect", "cleaned"}), 1);
    EXPECT_EQ(Verify({"--expect", "restored"}), 1);
}

TEST_F(VerifyTest, DoesNotTakeABackupThatItCannotLookAtForNone) {
    fs::create_symlink("loop", package_.InstalledPath("loop"));
    package_.WriteList("[Server]\nBin=@/loop\n[Bin]\nf=tool\n");

    const nlohmann::json target = Target();
    EXPECT_EQ(target["state"], "unknown");
    EXPECT_EQ(target["backup"], nullptr);
    EXPECT_EQ(target["mode"], nullptr);
    EXPECT_EQ(target["size"], nullptr);
    EXPECT_EQ(Verify({"--expect", "restored"}), 1);
    EXPECT_THAT(package_.Run("verify").out, HasSubstr("unknown  ?       -     -              -  "));
}

TEST_F(VerifyTest, ChangesNothing) {
    RunPasses({"-rename", "-copy"});
    const auto look = [this] {
        return RunProcess({"find", package_.scratch().Path(), "-printf", "%p %i %s %m %U %T@ %C@\n"}).out;
    };
    const std::string before = look();

    EXPECT_EQ(Verify(), 0);

    EXPECT_EQ(look(), before);
}

TEST_F(VerifyTest, ShowsEachStateToPeople) {
    package_.Bring("fresh", "fresh");
    package_.Bring("half", "half of it");
    package_.Install("half", "half");
    package_.Install("same", "same");
    package_.Bring("same", "same");
    fs::create_directory(package_.InstalledPath("directory"));
    package_.Bring("directory", "a file");
    package_.WriteEntries("tool,fresh,half,same,directory");

    const std::string out = package_.Run("verify").out;

    EXPECT_THAT(out, HasSubstr("old      -       "));
    EXPECT_THAT(out,
                HasSubstr("missing  -       -     -              -  " + package_.InstalledPath("fresh")));
    EXPECT_THAT(out, HasSubstr("partial  -       "));
    EXPECT_THAT(out, HasSubstr("new      -       "));
    EXPECT_THAT(out, HasSubstr("unknown  -       "));
    EXPECT_THAT(out, HasSubstr(package_.InstalledPath("directory") + "  (a directory)\n"));
    EXPECT_THAT(out, HasSubstr("5 files: 1 new, 1 partial, 1 old, 1 missing, 1 unknown, 0 backups.\n"));
}

TEST_F(VerifyTest, LeavesTheDecisionToPeopleWhereNoPassIsTheNext) {
    package_.Bring("other", "the other new tool");
    package_.WriteEntries("tool,other");
    RunPasses({"-rename", "-copy"});
    package_.Install("other", "somebody's own");

    EXPECT_THAT(package_.Run("verify").out,
                HasSubstr("Look at this file before you run a pass: " + package_.InstalledPath("other")));
}

TEST_F(VerifyTest, IsNotRenamedWhileOneOfTheFilesIsThere) {
    package_.Install("other", "old");
    package_.WriteEntries("tool,other");
    RunPasses({"-rename"});
    EXPECT_EQ(Verify({"--expect", "renamed"}), 0);
    package_.Bring("other", "the other new tool");
    package_.Install("other", "the other new tool");

    EXPECT_EQ(Verify({"--expect", "renamed"}), 1);
}

// Lets every backup belong to somebody else.
int StatusWithForeignBackups(const char* path, struct stat* status) {
    const int result = calls::real::stat(path, status);
    if (fs::path(path).extension() == ".bak") ++status->st_gid;
    return result;
}

TEST_F(VerifyTest, ShowsAnotherOwnerBehindWhatElseThereIsToSay) {
    RunPasses({"-rename", "-copy"});
    const struct stat owner = StatusOf(package_.InstalledPath("tool"));
    const std::string user = std::to_string(owner.st_uid) + ":";
    const std::string detail = "owner " + user + std::to_string(owner.st_gid) + ", was " + user +
                               std::to_string(owner.st_gid + 1) + ")\n";
    const Replaced replaced(calls::stat, StatusWithForeignBackups);
    const auto show = [this] {
        testing::internal::CaptureStdout();
        Output output(false);
        EXPECT_EQ(::Verify(FileList(package_.ListPath()), {}, output), 1);
        EXPECT_TRUE(output.Finish());
        return testing::internal::GetCapturedStdout();
    };

    EXPECT_THAT(show(), HasSubstr(package_.InstalledPath("tool") + "  (" + detail));
    fs::rename(package_.InstalledPath("tool"), package_.InstalledPath("tool-2.0"));
    fs::create_symlink("tool-2.0", package_.InstalledPath("tool"));
    EXPECT_THAT(show(), HasSubstr(package_.InstalledPath("tool") + "  (a link, " + detail));
}

std::string ShownStateOf(const Package& package) {
    return ShownOnATerminal(
        package, [&package](Output& output) { return Verify(FileList(package.ListPath()), {}, output); });
}

TEST_F(VerifyTest, ShowsPeopleEachFileAndEachPass) {
    package_.Bring("fresh", "fresh");
    package_.Bring("half", "half of it");
    package_.WriteEntries("tool,fresh,half");
    ASSERT_EQ(chmod(package_.InstalledPath("tool").c_str(), 0755), 0);
    RunPasses({"-rename", "-copy"});
    package_.Install("half", "half");
    fs::remove(package_.InstalledPath("fresh"));

    EXPECT_EQ(
        ShownStateOf(package_),
        "{bold}LIST{}  install type Server\n"
        "\n"
        "{dim}STATE    BACKUP  MODE  WAS         SIZE  FILE{}\n"
        "{good}new      {}yes     0644  {warning}0755  {}      12 B  @/tool\n"
        "missing  -       -     -              -  @/fresh\n"
        "{error}partial  {}-       0644  -            4 B  @/half\n"
        "\n"
        "3 files: 1 new, 1 partial, 1 missing, 1 backup.\n"
        "{warning}1 new file with another mode or owner than the backup: vfilelist rollback --only-modes{}\n"
        "\n"
        "-rename  unknown\n"
        "-copy    unknown\n"
        "-clean   unknown\n"
        "Look at this file before you run a pass: @/half: it holds a beginning of the package's file and has "
        "no "
        "NAME.bak: -copy has not finished it, or it was installed before.\n"
        "\n"
        "{error}Not as expected: copied.{}\n");
}

TEST_F(VerifyTest, ShowsPeopleWhatThePassesWillNotDo) {
    package_.WriteList("[Server]\nBin=@\n[Bin]\nf=tool,lost,\nlong=" + std::string(4096, 'x') + "\n");

    EXPECT_EQ(ShownStateOf(package_),
              "{bold}LIST{}  install type Server\n"
              "\n"
              "{dim}STATE    BACKUP  MODE  WAS         SIZE  FILE{}\n"
              "old      -       0644  -            3 B  @/tool\n"
              "missing  -       -     -              -  @/lost  (the package lacks lost)\n"
              "\n"
              "{error}E-LIST-TOO-LONG{}  [Bin] long: a value of 4096 bytes; every pass skips the key\n"
              "{error}E-ENTRY-EMPTY{}  [Bin] f: an entry without a file name; -rename and -copy fail there\n"
              "\n"
              "2 files: 1 old, 1 missing, 0 backups.\n"
              "{error}The package lacks 1 file: -copy stops at the first.{}\n"
              "\n"
              "-rename  incomplete\n"
              "-copy    incomplete\n"
              "-clean   incomplete\n"
              "Next:    VCopyFileListIni -rename LIST\n"
              "\n"
              "{error}Not as expected: copied.{}\n");
}

TEST_F(VerifyTest, ShowsPeopleThatAllIsAsExpected) {
    RunPasses({"-rename", "-copy", "-clean"});

    EXPECT_EQ(ShownStateOf(package_),
              "{bold}LIST{}  install type Server\n"
              "\n"
              "{dim}STATE    BACKUP  MODE  WAS         SIZE  FILE{}\n"
              "{good}new      {}-       0644  -           12 B  @/tool\n"
              "\n"
              "1 file: 1 new, 0 backups.\n"
              "\n"
              "-rename  complete\n"
              "-copy    complete\n"
              "-clean   complete\n"
              "Next:    nothing\n"
              "\n"
              "{good}As expected: copied.{}\n");
}

TEST_F(VerifyTest, ReportsAllThatItKnowsOfAFile) {
    ASSERT_EQ(chmod(package_.InstalledPath("tool").c_str(), 0755), 0);
    RunPasses({"-rename", "-copy"});
    const struct stat status = StatusOf(package_.InstalledPath("tool"));
    const std::string owner = std::to_string(status.st_uid) + ":" + std::to_string(status.st_gid);

    const nlohmann::json report =
        ReportOf([this](Output& output) { return ::Verify(FileList(package_.ListPath()), {}, output); });

    EXPECT_EQ(report["command"], "verify");
    EXPECT_EQ(report["fileList"], package_.ListPath());
    EXPECT_EQ(report["installType"], "Server");
    EXPECT_EQ(report["targets"], (nlohmann::json{{{"target", package_.InstalledPath("tool")},
                                                  {"state", "new"},
                                                  {"size", 12},
                                                  {"packageSize", 12},
                                                  {"mode", "0644"},
                                                  {"owner", owner},
                                                  {"backup", true},
                                                  {"backupMode", "0755"},
                                                  {"backupOwner", owner},
                                                  {"modeDiffers", true},
                                                  {"ownerDiffers", false},
                                                  {"detail", ""},
                                                  {"entries",
                                                   {{{"section", "Bin"},
                                                     {"key", "f"},
                                                     {"entry", "tool"},
                                                     {"source", package_.SourcePath("tool")}}}}}}));
    EXPECT_EQ(report["problems"], nlohmann::json::array());
    EXPECT_EQ(
        report["summary"],
        (nlohmann::json{{"targets", 1},
                        {"states", {{"new", 1}, {"partial", 0}, {"old", 0}, {"missing", 0}, {"unknown", 0}}},
                        {"backups", 1},
                        {"modesDiffering", 1},
                        {"manifestDiffering", 0},
                        {"sourcesLacking", 0},
                        {"passes", {{"rename", "complete"}, {"copy", "complete"}, {"clean", "incomplete"}}},
                        {"next", "-clean"},
                        {"reason", ""},
                        {"expected", "copied"},
                        {"isExpected", false}}));
}

TEST_F(VerifyTest, ReportsNothingOfAFileThatIsNotThere) {
    fs::remove(package_.InstalledPath("tool"));
    fs::remove(package_.SourcePath("tool"));

    const nlohmann::json target = Target();

    for (const char* const name : {"size", "packageSize", "mode", "owner", "backupMode", "backupOwner"}) {
        EXPECT_EQ(target[name], nullptr) << name;
    }
    EXPECT_EQ(package_.RunJson("verify")["summary"]["next"], "-copy");
}

// The most memory, in KiB, that `vfilelist verify` has at once; run in a child whose children it alone is.
long PeakMemory(const Package& package) {
    int ends[2];
    EXPECT_EQ(pipe(ends), 0);
    const pid_t child = fork();
    if (child == 0) {
        (void)close(ends[0]);
        (void)RunProcess({VFILELIST_PATH, "verify", package.ListPath()});
        rusage usage{};
        (void)getrusage(RUSAGE_CHILDREN, &usage);
        (void)!write(ends[1], &usage.ru_maxrss, sizeof(usage.ru_maxrss));
        (void)close(ends[1]);
        _exit(0);
    }
    long kibibytes = -1;
    EXPECT_EQ(read(ends[0], &kibibytes, sizeof(kibibytes)), static_cast<ssize_t>(sizeof(kibibytes)));
    EXPECT_EQ(waitpid(child, nullptr, 0), child);
    (void)close(ends[0]);
    (void)close(ends[1]);
    return kibibytes;
}

TEST_F(VerifyTest, NeedsNoMoreMemoryForLargeFiles) {
    if (VFS_TEST_ADDRESS_SANITIZER || VFS_TEST_THREAD_SANITIZER)
        GTEST_SKIP() << "the sanitizer's memory counts";
    const long small = PeakMemory(package_);
    for (const std::string& path : {package_.SourcePath("tool"), package_.InstalledPath("tool")}) {
        fs::resize_file(path, std::uintmax_t{1} << 28);
    }
    package_.Install("tool", "the new tool");
    fs::resize_file(package_.InstalledPath("tool"), std::uintmax_t{1} << 28);
    ASSERT_EQ(State(), "new");

    EXPECT_LT(PeakMemory(package_), small + 16 * 1024) << "an emulator's own memory varies by one or two MiB";
}

TEST_F(VerifyTest, NeedsLittleMoreMemoryForManyFiles) {
    if (VFS_TEST_ADDRESS_SANITIZER || VFS_TEST_THREAD_SANITIZER)
        GTEST_SKIP() << "the sanitizer's memory counts";
    const long small = PeakMemory(package_);
    std::string list = "[Server]\nBin=@\n[Bin]\n";
    for (int i = 0; i < 10000; ++i) {
        const std::string name = "file" + std::to_string(i);
        list += name + "=" + name + "\n";
    }
    package_.WriteList(list);

    EXPECT_LT(PeakMemory(package_), small + 16 * 1024) << "the list itself, and a little for each file";
}

TEST_F(VerifyTest, HoldsANewFileWithoutABackupAgainstTheManifest) {
    SKIP_UNLESS_ROOT();
    package_.Bring("fresh", "fresh");
    package_.WriteEntries("tool,fresh");
    RunPasses({"-rename", "-copy"});
    ASSERT_EQ(chmod(package_.InstalledPath("tool").c_str(), 0644), 0);
    Manifest manifest = ManifestOf(package_);
    const auto verify = [&](int* status = nullptr) {
        VerifyOptions options;
        options.manifest = manifest;
        return ReportOf(
            [&](Output& output) { return ::Verify(FileList(package_.ListPath()), options, output); }, status);
    };
    const auto expect = [&](int differing, const std::string& detail) {
        int status = -1;
        const nlohmann::json report = verify(&status);
        EXPECT_EQ(status, differing == 0 ? 0 : 1) << report;
        EXPECT_EQ(report["summary"]["manifestDiffering"], differing);
        EXPECT_EQ(report["targets"][1]["detail"], detail);
    };
    expect(0, "");
    manifest.entries[2].mode = 0600;  // of tool, which has a backup
    expect(0, "");
    manifest.entries[1].mode = 0755;
    expect(1, "the manifest says mode 0755, owner root:root");
    manifest.entries[1].mode = 0644;
    manifest.entries[1].user = "daemon";
    expect(1, "the manifest says mode 0644, owner daemon:root");
    manifest.entries[1].user = "nosuchuser";
    expect(1, "the manifest says mode 0644, owner nosuchuser:root");
    manifest.entries[1].user = "root";
    manifest.entries[1].group = "daemon";
    expect(1, "the manifest says mode 0644, owner root:daemon");
    VerifyOptions options;
    options.manifest = manifest;
    EXPECT_THAT(
        WrittenBy([&](Output& output) { return ::Verify(FileList(package_.ListPath()), options, output); },
                  false, nullptr),
        HasSubstr("\n1 new file with another mode or owner than the manifest says.\n"));
    options.areModesIgnored = true;
    int status = -1;
    (void)ReportOf([&](Output& output) { return ::Verify(FileList(package_.ListPath()), options, output); },
                   &status);
    EXPECT_EQ(status, 0);
    manifest.entries[1].group = "root";
    manifest.entries[1].mode = 0755;
    fs::rename(package_.InstalledPath("fresh"), package_.InstalledPath("elsewhere"));
    package_.scratch().Link("installed/fresh", "elsewhere");
    expect(1, "a link, the manifest says mode 0755, owner root:root");
    fs::remove(package_.InstalledPath("fresh"));
    EXPECT_EQ(verify()["summary"]["manifestDiffering"], 0) << "it is not there at all";
    fs::rename(package_.InstalledPath("elsewhere"), package_.InstalledPath("fresh"));
    manifest.entries.erase(manifest.entries.begin() + 1);
    expect(0, "");
}

class VerifyInstalledTest : public testing::Test {
protected:
    VerifyInstalledTest() {
        Journal journal;
        journal.release = "2.0";
        for (const char* const name : {"a", "b\n"}) {
            package_.Install(name, "content");
            journal.targets.push_back({package_.InstalledPath(name), {"", 7, 0644, DigestOf("content")}, {}});
        }
        Receipt receipt;
        Add(journal, receipt);
        StateDirectory directory(state_);
        EXPECT_EQ(directory.Enter(), std::nullopt);
        EXPECT_EQ(directory.WriteReceipt(receipt), std::nullopt);
    }

    nlohmann::json Report(int* status) const {
        return ReportOf([this](Output& output) { return VerifyInstalled(state_, output); }, status);
    }
    std::string Text() const {
        return ShownOnATerminal(package_, [this](Output& output) { return VerifyInstalled(state_, output); });
    }

    const Package package_;
    const std::string state_ = package_.scratch().Path("state");
};

TEST_F(VerifyInstalledTest, FindsNothingWhereAllIsAsItWasInstalled) {
    int status = -1;
    EXPECT_EQ(Report(&status), nlohmann::json::parse(R"({"command": "verify", "stateDirectory": ")" + state_ +
                                                     R"(", "release": "2.0", "error": null, "changed": [],
                                                     "files": 2})"));
    EXPECT_EQ(status, 0);
    EXPECT_EQ(Text(), "{good}2 installed files, none changed.{}\n");
}

TEST_F(VerifyInstalledTest, NamesEachFileThatHasChanged) {
    package_.Install("b\n", "contend");
    int status = -1;
    const nlohmann::json report = Report(&status);

    EXPECT_EQ(status, 1);
    EXPECT_EQ(report["changed"], nlohmann::json::parse(R"([{"path": ")" + package_.InstalledPath() +
                                                       R"(/b\n", "text": "its content has changed"}])"));
    EXPECT_EQ(Text(), "{error}@/b\\x0a{}: its content has changed\n{error}2 installed files, 1 changed.{}\n");
}

TEST_F(VerifyInstalledTest, SaysWhenNothingWasInstalledOrTheReceiptCanNotBeRead) {
    int status = -1;
    package_.scratch().Write("state/receipt", "no receipt");
    const std::string trouble = state_ + "/receipt: it is no file of vfilelist, or one of another version";
    EXPECT_EQ(Report(&status)["error"], trouble);
    EXPECT_EQ(status, 2);
    EXPECT_EQ(Text(), "{error}" + trouble + "{}\n");

    package_.scratch().Write("state/receipt", "vfilelist-receipt 1\n");
    EXPECT_EQ(Report(&status)["error"], state_ + ": no upgrade was committed");
    EXPECT_EQ(status, 2);
}

TEST_F(VerifyInstalledTest, ShowsItsProgress) {
    EXPECT_THAT(ProgressOf([this](Output& output) { return VerifyInstalled(state_, output); }),
                testing::ElementsAre("verify: 0 of 2 files", "verify: 1 of 2 files"));
}

}  // namespace
