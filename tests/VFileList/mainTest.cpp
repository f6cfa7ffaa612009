// The command line of vfilelist, and what it writes as JSON.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "Package.h"
#include "Sanitizer.h"
#include "Signer.h"

namespace {

using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

const char* const kCommands[] = {"check", "plan", "verify", "rollback"};

class VFileListMainTest : public testing::Test {
protected:
    VFileListMainTest() {
        package_.Bring("tool", "new");
        package_.Install("tool", "old");
        package_.WriteEntries("tool");
    }

    // Holds the JSON against docs/vfilelist.schema.json.
    void ExpectMatchesSchema(const std::string& json) const {
        const std::string document = package_.scratch().Write("document.json", json);
        // Debian's own Python, which has the validator; another one may be the first in PATH.
        const ProcessResult result = RunProcess({"/usr/bin/python3", "/usr/bin/jsonschema", "-i", document,
                                                 VFS_SOURCE_DIRECTORY "/docs/vfilelist.schema.json"});
        EXPECT_EQ(result.exitStatus, 0) << result.out << result.err << json;
    }

    Package package_;
};

TEST_F(VFileListMainTest, ExitsWith2AndSaysWhyWhenUsedWrongly) {
    const std::vector<std::vector<std::string>> wrong = {
        {},
        {"check"},
        {"Check", package_.ListPath()},
        {"verify", package_.ListPath(), "--expect", "done"},
        {"verify", package_.ListPath(), "--root", "/"},
        {"verify", package_.ListPath(), "--color=sometimes"},
        {"check", package_.ListPath(), "--root", package_.scratch().Path("nowhere")},
        {"rollback", package_.ListPath(), "--only-modes", "--partial"},
        {"rollback", package_.ListPath(), "--force"},
        {"plan", package_.ListPath(), "another.ini"},
        {"verify"},
        {"verify", package_.ListPath(), "--installed"},
        {"verify", "--installed", "--expect", "cleaned"},
        {"verify", "--installed", "--ignore-modes"},
    };
    for (const std::vector<std::string>& arguments : wrong) {
        const ProcessResult result = RunProcess(Concatenate({VFILELIST_PATH}, arguments));

        SCOPED_TRACE(testing::PrintToString(arguments));
        EXPECT_EQ(result.exitStatus, 2);
        EXPECT_THAT(result.out, IsEmpty());
        EXPECT_THAT(result.err, HasSubstr("vfilelist: "));
    }
    EXPECT_THAT(package_.InstalledNames(), testing::ElementsAre("tool"));
}

TEST_F(VFileListMainTest, NamesWhatIsUnknownWithoutACommandAndTheCommandsThatThereAre) {
    const std::string commands =
        "; there are upgrade, commit, resume, status, rollback, make, check, plan, verify\n";
    EXPECT_EQ(RunProcess({VFILELIST_PATH, "verfy", package_.ListPath()}).err,
              "vfilelist: unknown command 'verfy'" + commands);
    EXPECT_EQ(RunProcess({VFILELIST_PATH, ""}).err, "vfilelist: unknown command ''" + commands);
    EXPECT_EQ(RunProcess({VFILELIST_PATH, "a\033[2J"}).err,
              "vfilelist: unknown command 'a\\x1b[2J'" + commands);
    EXPECT_EQ(RunProcess({VFILELIST_PATH, "--verfy"}).err, "vfilelist: unknown option '--verfy'" + commands);
    EXPECT_EQ(RunProcess({VFILELIST_PATH}).err, "vfilelist: no command" + commands);
    for (const std::vector<std::string>& known :
         {std::vector<std::string>{"plan", package_.ListPath(), "ver\033fy"},
          {"plan", "--verfy"},
          {"check"}}) {
        const ProcessResult result = RunProcess(Concatenate({VFILELIST_PATH}, known));
        EXPECT_THAT(result.err, HasSubstr("; vfilelist --help shows the usage\n"));
        EXPECT_THAT(result.err, Not(HasSubstr("unknown")));
        EXPECT_THAT(result.err, Not(HasSubstr("\033")));
    }
}

TEST_F(VFileListMainTest, ExitsWith2WhenTheFileListCannotBeRead) {
    const std::string directory = package_.scratch().MakeDirectory("directory");
    const std::string pipe = package_.scratch().Path("pipe");
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    for (const std::string& path : {package_.scratch().Path("nowhere.ini"), directory, pipe}) {
        for (const char* const command : kCommands) {
            SCOPED_TRACE(command + (" " + path));
            const ProcessResult result = RunProcess({VFILELIST_PATH, command, path, "--json"});

            EXPECT_EQ(result.exitStatus, 2);
            ExpectMatchesSchema(result.out);
        }
    }
}

TEST_F(VFileListMainTest, ExitsWith2WithoutADirectoryListExceptForCheck) {
    package_.WriteRawList("[Package_Intall_Type]\nPackageIntallType=Nowhere\n");

    EXPECT_EQ(package_.Run("check").exitStatus, 1);
    for (const char* const command : {"plan", "verify", "rollback"}) {
        const ProcessResult result = package_.Run(command);
        EXPECT_EQ(result.exitStatus, 2) << command;
        EXPECT_THAT(result.err, HasSubstr("vfilelist check")) << command;
        ExpectMatchesSchema(package_.Run(command, {"--json"}).out);
    }
}

TEST_F(VFileListMainTest, RollsBackNothingWithoutAFileListOrAnOpenUpgrade) {
    const std::string state = package_.scratch().Path("state");
    for (const std::vector<std::string>& options :
         {std::vector<std::string>{}, {"--dry-run"}, {"--only-modes"}}) {
        const ProcessResult result =
            RunProcess(Concatenate({VFILELIST_PATH, "rollback", "--state", state}, options));
        EXPECT_EQ(result.exitStatus, 2);
        EXPECT_THAT(result.err, HasSubstr("no upgrade is open; name a file list to put its backups back"));
    }
}

TEST_F(VFileListMainTest, RollsBackTheOthersWhenPartial) {
    package_.Bring("other", "new");
    package_.Install("other", "old");
    package_.WriteEntries("tool,other");
    ASSERT_EQ(package_.RunPass("-rename"), 0);
    package_.Install("tool", "configured");

    EXPECT_EQ(package_.Run("rollback").exitStatus, 1);
    EXPECT_THAT(package_.InstalledNames(), testing::ElementsAre("other.bak", "tool", "tool.bak"));
    EXPECT_EQ(package_.Run("rollback", {"--partial"}).exitStatus, 1);
    EXPECT_THAT(package_.InstalledNames(), testing::ElementsAre("other", "tool", "tool.bak"));
}

// An open upgrade whose backup is gone can't be taken back whole.
TEST_F(VFileListMainTest, ClosesAnOpenUpgradeThatIsPartlyTakenBack) {
    const std::string state = package_.scratch().Path("state");
    const auto run = [&](const std::vector<std::string>& arguments) {
        return RunProcess(Concatenate({VFILELIST_PATH}, Concatenate(arguments, {"--state", state})))
            .exitStatus;
    };
    ASSERT_EQ(run({"upgrade", package_.ListPath(), "--json"}), 0);
    std::filesystem::remove(package_.InstalledPath("tool.bak"));

    EXPECT_EQ(run({"rollback", "--partial"}), 3);
    EXPECT_EQ(run({"status"}), 0) << "nothing is open any more";
}

TEST_F(VFileListMainTest, HelpIsFineAndNamesTheExitStatuses) {
    for (const std::vector<std::string>& command :
         {std::vector<std::string>{}, {"check"}, {"plan"}, {"verify"}, {"rollback"}}) {
        const ProcessResult result =
            RunProcess(Concatenate(Concatenate({VFILELIST_PATH}, command), {"--help"}));

        SCOPED_TRACE(testing::PrintToString(command));
        EXPECT_EQ(result.exitStatus, 0);
        EXPECT_THAT(result.out, HasSubstr("Exit status: 0 done, or nothing found; 1 "));
        EXPECT_THAT(result.err, IsEmpty());
    }
}

TEST_F(VFileListMainTest, TellsItsVersion) {
    const ProcessResult result = RunProcess({VFILELIST_PATH, "--version"});

    EXPECT_EQ(result.exitStatus, 0);
    EXPECT_THAT(result.out, testing::MatchesRegex("vfilelist [0-9]+\\.[0-9]+\\.[0-9]+\n"));
}

TEST_F(VFileListMainTest, WritesJsonAsItsSchemaHasItThroughoutAnUpgrade) {
    package_.Install("tool.bak", "older");
    package_.Bring("unlisted", "");
    package_.Bring("fresh", "new");
    package_.WriteList("[Server]\nBin=@\nBad=\n[Bin]\nf=tool,fresh,missing,\ng=tool, x\\y\nlong=" +
                       std::string(5000, 'x') + "\n[Bad]\nf=tool\n");
    for (const char* const command : kCommands) {
        ExpectMatchesSchema(package_.Run(command, {"--json"}).out);
    }

    package_.Install("tool", "old");
    package_.WriteEntries("tool,fresh");
    for (const char* const pass : {"-rename", "-copy", "-clean"}) {
        SCOPED_TRACE(pass);
        ASSERT_EQ(package_.RunPass(pass), 0);
        for (const char* const command : {"check", "plan", "verify"}) {
            ExpectMatchesSchema(package_.Run(command, {"--json"}).out);
        }
        ExpectMatchesSchema(package_.Run("rollback", {"--json", "--dry-run", "--partial"}).out);
        ExpectMatchesSchema(package_.Run("rollback", {"--json", "--only-modes"}).out);
    }
}

TEST_F(VFileListMainTest, TheSchemaRefusesOtherDocuments) {
    const std::string document = package_.scratch().Write("document.json", R"({"command": "check"})");

    const ProcessResult result = RunProcess({"/usr/bin/python3", "/usr/bin/jsonschema", "-i", document,
                                             VFS_SOURCE_DIRECTORY "/docs/vfilelist.schema.json"});

    EXPECT_EQ(result.exitStatus, 1);
}

TEST_F(VFileListMainTest, WritesValidJsonForNamesThatAreNotUtf8) {
    package_.WriteEntries(
        "a\xff"
        "b,line\x01");

    for (const char* const command : kCommands) ExpectMatchesSchema(package_.Run(command, {"--json"}).out);
}

TEST_F(VFileListMainTest, HasNoColourAndNoProgressLineWithoutATerminal) {
    for (const char* const command : {"check", "plan", "verify"}) {
        const ProcessResult result = package_.Run(command);
        EXPECT_THAT(result.out, Not(HasSubstr("\033"))) << command;
        EXPECT_THAT(result.err, IsEmpty()) << command;
    }
}

TEST_F(VFileListMainTest, IsColouredOnATerminalUnlessNoColorIsSet) {
    // script(1) gives the program a terminal of its own.
    const std::string command = std::string(VFILELIST_PATH) + " verify " + package_.ListPath();
    const auto run = [&command](const std::vector<std::string>& environment) {
        return RunProcess({"script", "--quiet", "--return", "--command", command, "/dev/null"}, environment);
    };

    EXPECT_THAT(run({"TERM=xterm", "NO_COLOR="}).out, HasSubstr("\033["));
    EXPECT_THAT(run({"TERM=xterm", "NO_COLOR=1"}).out, Not(HasSubstr("\033[")));
    EXPECT_THAT(run({"TERM=dumb", "NO_COLOR="}).out, Not(HasSubstr("\033[")));
}

TEST_F(VFileListMainTest, EveryCommandIsColouredWhenItIsAskedFor) {
    const std::string state = package_.scratch().Path("state");
    const std::string tree = package_.scratch().MakeDirectory("tree");
    std::filesystem::create_symlink("a", tree + "/no package has it");
    for (const std::vector<std::string>& command :
         {std::vector<std::string>{"check", package_.ListPath()},
          {"plan", package_.ListPath()},
          {"verify", package_.ListPath()},
          {"rollback", package_.ListPath(), "--state", state},
          {"upgrade", package_.ListPath(), "--state", state},
          {"status", "--state", state},
          {"resume", "--state", state},
          {"commit", "--state", state},
          {"make", "--tree", tree, package_.scratch().Path("made")}}) {
        SCOPED_TRACE(testing::PrintToString(command));
        const std::vector<std::string> words = Concatenate({VFILELIST_PATH}, command);
        EXPECT_THAT(RunProcess(Concatenate(words, {"--color=always"}), {"NO_COLOR=1"}).out,
                    HasSubstr("\033["));
    }
}

TEST_F(VFileListMainTest, ExitsWith2WhenItsReportCannotBeWritten) {
    for (const char* const command : {"check", "plan", "verify"}) {
        const ProcessResult result =
            RunProcess({"sh", "-c", std::string(VFILELIST_PATH) + " " + command + " \"$1\" >/dev/full", "sh",
                        package_.ListPath()});
        EXPECT_EQ(result.exitStatus, 2) << command;
        EXPECT_THAT(result.err, HasSubstr("can't write the report")) << command;
    }
}

TEST_F(VFileListMainTest, RollsBackToTheEndThoughNobodyReadsTheReport) {
    std::string list = "[Server]\nBin=@\n[Bin]\n";
    for (int i = 0; i < 2000; ++i) {
        const std::string name = "file" + std::to_string(i);
        list += name + "=" + name + "\n";
    }
    package_.WriteList(list);
    for (int i = 0; i < 2000; ++i) package_.Install("file" + std::to_string(i) + ".bak", "old");

    (void)RunProcess({"bash", "-c", std::string(VFILELIST_PATH) + " rollback \"$1\" | head -n 1", "bash",
                      package_.ListPath()});

    for (const std::string& name : package_.InstalledNames()) EXPECT_THAT(name, Not(HasSubstr(".bak")));
}

TEST_F(VFileListMainTest, WritesNothingToTheUpgradeLog) {
    for (const char* const command : {"check", "plan", "verify"}) {
        (void)RunProcess({VFILELIST_PATH, command, package_.ListPath()},
                         {"VLOGGER_DIRECTORY=" + package_.scratch().Path("log")});
    }

    EXPECT_FALSE(package_.scratch().Has("log"));
}

TEST_F(VFileListMainTest, ExitsWith2WhenItRunsOutOfMemory) {
    if (VFS_TEST_ADDRESS_SANITIZER || VFS_TEST_THREAD_SANITIZER)
        GTEST_SKIP() << "a sanitizer needs more addresses than a limit would leave";
    // A file of 4 GiB that takes no room on the disk, and 1 GiB of memory to read it into.
    package_.WriteEntries("tool");
    std::filesystem::resize_file(package_.ListPath(), std::uintmax_t{1} << 32);

    const ProcessResult result = RunProcess({"sh", "-c", "ulimit -v 1048576 && exec \"$@\"", "sh",
                                             VFILELIST_PATH, "verify", package_.ListPath()});

    EXPECT_EQ(result.exitStatus, 2) << result.out;
    EXPECT_THAT(result.err, HasSubstr("vfilelist: std::bad_alloc\n"));
}

// The commands of the transaction, with a state directory and a log of the test's own.
class VFileListTransactionMainTest : public VFileListMainTest {
protected:
    ProcessResult Run(const std::vector<std::string>& arguments) const {
        return RunProcess(Concatenate(Concatenate({VFILELIST_PATH}, arguments),
                                      {"--state", package_.scratch().Path("state")}),
                          {"VLOGGER_DIRECTORY=" + package_.scratch().Path("log")});
    }
    int StatusOf(const std::vector<std::string>& arguments) const { return Run(arguments).exitStatus; }
};

TEST_F(VFileListTransactionMainTest, UpgradesAndCommits) {
    EXPECT_EQ(StatusOf({"status"}), 0);
    EXPECT_EQ(StatusOf({"upgrade", package_.ListPath()}), 0);
    EXPECT_EQ(package_.Installed("tool"), "new");
    EXPECT_EQ(StatusOf({"status"}), 1) << "one is open";
    EXPECT_EQ(StatusOf({"resume"}), 0);
    EXPECT_EQ(StatusOf({"commit"}), 0);
    EXPECT_THAT(package_.InstalledNames(), testing::ElementsAre("tool"));
    EXPECT_EQ(StatusOf({"status"}), 0);
    EXPECT_EQ(StatusOf({"commit"}), 1);
}

TEST_F(VFileListTransactionMainTest, UpgradesAndRollsBack) {
    EXPECT_EQ(StatusOf({"upgrade", package_.ListPath()}), 0);
    EXPECT_EQ(StatusOf({"rollback"}), 0);
    EXPECT_EQ(package_.Installed("tool"), "old");
    EXPECT_THAT(package_.InstalledNames(), testing::ElementsAre("tool"));

    const ProcessResult again = Run({"rollback"});
    EXPECT_EQ(again.exitStatus, 2);
    EXPECT_THAT(again.err, HasSubstr("no upgrade is open; name a file list"));
}

TEST_F(VFileListTransactionMainTest, DoesNothingForPassesByHandWhileAnUpgradeIsOpen) {
    EXPECT_EQ(StatusOf({"upgrade", package_.ListPath()}), 0);
    for (const char* const option : {"--dry-run", "--only-modes"}) {
        const ProcessResult result = Run({"rollback", package_.ListPath(), option});
        EXPECT_EQ(result.exitStatus, 1) << option;
        EXPECT_THAT(result.out, HasSubstr("an upgrade is open: --dry-run and --only-modes are for"));
    }
    EXPECT_EQ(package_.Installed("tool"), "new");
}

TEST_F(VFileListTransactionMainTest, WritesJsonAsItsSchemaHasIt) {
    const std::vector<std::vector<std::string>> commands = {
        {"upgrade", package_.scratch().Path("nowhere.ini")},
        {"commit"},
        {"rollback"},
        {"upgrade", package_.ListPath()},
        {"status"},
        {"upgrade", package_.ListPath()},
        {"resume"},
        {"rollback"},
    };
    for (const std::vector<std::string>& command : commands) {
        SCOPED_TRACE(testing::PrintToString(command));
        ExpectMatchesSchema(Run(Concatenate(command, {"--json"})).out);
    }
}

TEST_F(VFileListTransactionMainTest, NeedsAFileListOnlyToUpgrade) {
    EXPECT_EQ(StatusOf({"upgrade"}), 2);
    EXPECT_EQ(StatusOf({"upgrade", package_.scratch().Path("nowhere.ini")}), 2);
    EXPECT_EQ(StatusOf({"commit", package_.ListPath()}), 2);
}

TEST_F(VFileListMainTest, RefusesAPackageThatIsNotSignedWhereOneIsAskedFor) {
    const std::string state = package_.scratch().Path("state");
    const std::string trusted = package_.scratch().MakeDirectory("trusted");
    for (const char* const command : {"check", "plan", "verify", "upgrade"}) {
        SCOPED_TRACE(command);
        std::vector<std::string> options = {"--trusted", trusted};
        if (command != std::string("plan")) options.insert(options.end(), {"--state", state});
        const ProcessResult result = package_.Run(command, options);
        EXPECT_EQ(result.exitStatus, 1);
        EXPECT_THAT(result.out + result.err, HasSubstr("the package has no signature of a trusted key"));
        options.emplace_back("--json");
        ExpectMatchesSchema(package_.Run(command, options).out);
    }
    EXPECT_EQ(package_.Installed("tool"), "old");
    EXPECT_EQ(package_.Run("rollback", {"--state", state}).exitStatus, 0)
        << "has nothing to do with the package";

    const Signer signer;
    WriteManifest(package_, ManifestOf(package_), &signer);
    EXPECT_EQ(package_.Run("plan", {"--trusted", trusted}).exitStatus, 0);
}

TEST_F(VFileListMainTest, NeitherPlansNorComparesAPackageThatDiffersFromItsManifest) {
    WriteManifest(package_, ManifestOf(package_));
    package_.Bring("a\033[2J", "of nobody");
    for (const char* const command : {"plan", "verify"}) {
        const ProcessResult result = package_.Run(command, {});
        EXPECT_EQ(result.exitStatus, 1);
        EXPECT_THAT(result.out, IsEmpty());
        EXPECT_THAT(result.err, HasSubstr("the package differs from its manifest (" +
                                          package_.SourcePath("a\\x1b[2J: not listed)\n")));
    }
}

TEST_F(VFileListMainTest, VerifiesWhatWasInstalledWithThePackageLongGone) {
    const std::string state = package_.scratch().Path("state");
    const auto verify = [&](int status) {
        const ProcessResult result =
            RunProcess({VFILELIST_PATH, "verify", "--installed", "--state", state, "--json"});
        EXPECT_EQ(result.exitStatus, status) << result.out << result.err;
        ExpectMatchesSchema(result.out);
    };
    verify(2);
    ASSERT_EQ(package_.Run("upgrade", {"--state", state}).exitStatus, 0);
    ASSERT_EQ(RunProcess({VFILELIST_PATH, "commit", "--state", state}).exitStatus, 0);
    std::filesystem::remove_all(package_.scratch().Path("package"));
    verify(0);
    package_.Install("tool", "edited");
    verify(1);

    const ProcessResult status = RunProcess({VFILELIST_PATH, "status", "--state", state, "--json"});
    ExpectMatchesSchema(status.out);
    EXPECT_EQ(nlohmann::json::parse(status.out)["history"].size(), 1U);
}

TEST_F(VFileListMainTest, ChecksAgainstTheManifestAndTheReceipt) {
    const std::string state = package_.scratch().Path("state");
    Manifest manifest = ManifestOf(package_);
    manifest.release = "2.0";
    WriteManifest(package_, manifest);
    ASSERT_EQ(package_.Run("upgrade", {"--state", state}).exitStatus, 0);
    ASSERT_EQ(RunProcess({VFILELIST_PATH, "commit", "--state", state}).exitStatus, 0);
    package_.Install("tool", "edited");
    manifest.release = "1.9";
    WriteManifest(package_, manifest);

    const nlohmann::json report = package_.RunJson("check", {"--state", state});
    std::vector<std::string> codes;
    for (const auto& finding : report["findings"]) codes.push_back(finding["code"]);
    EXPECT_THAT(codes, testing::IsSupersetOf({"E-RELEASE-ORDER", "W-INSTALLED-CHANGED"}));
}

}  // namespace
