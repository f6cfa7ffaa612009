// vfilelist: the command line.

#include <CLI/CLI.hpp>
#include <cstdio>
#include <exception>
#include <string>
#include <vector>

#include "Check.h"
#include "FileList.h"
#include "Make.h"
#include "Output.h"
#include "Plan.h"
#include "Rollback.h"
#include "Transaction.h"
#include "Verify.h"

namespace {

const char kDescription[] =
    "vfilelist upgrades a server with an upgrade package, whole or not at all, and looks at the\n"
    "package's file list: what is wrong with it, what the passes of VCopyFileListIni will do,\n"
    "and how far they have come.";

const char kFooter[] =
    "Exit status: 0 done, or nothing found; 1 something was found, or is not as expected, or the\n"
    "command was refused or rolled back; 2 a usage error, a file list that can't be read, or a\n"
    "report that can't be written; 3 vfilelist has lost nothing, but a person should look at the\n"
    "files that it names.\n";

struct Arguments {
    std::string iniPath;
    bool isJson = false;
    std::string colour = "auto";
    CheckOptions check;
    MakeOptions make;
    VerifyOptions verify;
    RollbackOptions rollback;
    TransactionOptions transaction;
    bool isInstalled = false;  // of verify: no list is compared, but what was installed
};

CLI::App* AddCommand(CLI::App& app, const char* name, const char* description, Arguments& arguments) {
    CLI::App* const command = app.add_subcommand(name, description);
    command->add_flag("--json", arguments.isJson, "Write JSON (docs/vfilelist.md has the schema)");
    command
        ->add_option("--color", arguments.colour, "Colour the report; auto: on a terminal, without NO_COLOR")
        ->capture_default_str()
        ->type_name("WHEN")
        ->check(CLI::IsMember({"always", "never", "auto"}));
    return command;
}

CLI::Option* AddFileList(CLI::App& command, Arguments& arguments) {
    return command.add_option("FILELIST", arguments.iniPath,
                              "The file list; the package's Common lies beside it");
}

CLI::App* AddListCommand(CLI::App& app, const char* name, const char* description, Arguments& arguments) {
    CLI::App* const command = AddCommand(app, name, description, arguments);
    AddFileList(*command, arguments)->required();
    return command;
}

void AddState(CLI::App& command, Arguments& arguments) {
    command
        .add_option("--state", arguments.transaction.stateDirectory,
                    "The open upgrade and the receipt are in DIR")
        ->capture_default_str()
        ->type_name("DIR");
}

void AddTrusted(CLI::App& command, Arguments& arguments) {
    command
        .add_option("--trusted", arguments.transaction.trustedDirectory,
                    "Ask for a package that one of the public keys in DIR has signed")
        ->capture_default_str()
        ->type_name("DIR");
}

void AddTransactionCommands(CLI::App& app, Arguments& arguments) {
    CLI::App* const upgrade = AddListCommand(
        app, "upgrade", "Install the new files; when anything fails, bring the old ones back", arguments);
    AddState(*upgrade, arguments);
    AddTrusted(*upgrade, arguments);
    AddState(*AddCommand(app, "commit", "Keep the new files: remove the backups, and close the upgrade",
                         arguments),
             arguments);
    AddState(*AddCommand(app, "resume", "After a crash or a power cut: finish what was cut off", arguments),
             arguments);
    AddState(*AddCommand(app, "status", "Say which upgrade is open, and what to do next", arguments),
             arguments);
}

void AddRollback(CLI::App& app, Arguments& arguments) {
    CLI::App* const rollback = AddCommand(
        app, "rollback",
        "Bring the old files back, and close the upgrade; or put every backup NAME.bak of FILELIST back",
        arguments);
    AddFileList(*rollback, arguments);
    AddState(*rollback, arguments);
    rollback->add_flag("--dry-run", arguments.rollback.isDryRun, "Change nothing, say what would be done");
    CLI::Option* const onlyModes = rollback->add_flag(
        "--only-modes", arguments.rollback.isOnlyModes,
        "Restore nothing; give the new files the modes and owners of their backups (after -copy)");
    rollback
        ->add_flag("--partial", arguments.rollback.isPartial,
                   "Restore what can be restored, though other files can't be")
        ->excludes(onlyModes);
}

void AddVerify(CLI::App& app, Arguments& arguments) {
    CLI::App* const verify =
        AddCommand(app, "verify", "Say how far the passes have come, comparing every file", arguments);
    CLI::Option* const fileList = AddFileList(*verify, arguments);
    CLI::Option* const installed =
        verify
            ->add_flag("--installed", arguments.isInstalled,
                       "Say which installed files are not as their upgrades have left them")
            ->excludes(fileList);
    AddState(*verify, arguments);
    AddTrusted(*verify, arguments);
    verify
        ->add_option(
            "--expect", arguments.verify.expected,
            "The state that makes the exit status 0: renamed, copied (the default), cleaned or restored")
        ->type_name("STATE")
        ->check(CLI::IsMember({"renamed", "copied", "cleaned", "restored"}))
        ->excludes(installed);
    verify
        ->add_flag("--ignore-modes", arguments.verify.areModesIgnored,
                   "New files may have other modes and owners than their backups")
        ->excludes(installed);
}

void AddMake(CLI::App& app, Arguments& arguments) {
    CLI::App* const make = AddCommand(
        app, "make", "Make a package of a directory tree, and say what can't be packaged", arguments);
    MakeOptions& options = arguments.make;
    const auto addText = [make](const char* name, std::string& value, const char* type,
                                const char* description) {
        return make->add_option(name, value, description)->type_name(type);
    };
    addText("--tree", options.tree, "NEW", "What the server shall have below the prefix")
        ->required()
        ->check(CLI::ExistingDirectory);
    addText("--base", options.base, "OLD", "What it has: only files that differ from it are put in")
        ->check(CLI::ExistingDirectory);
    addText("--prefix", options.prefix, "DIR", "Where the tree is on the server")->capture_default_str();
    addText("--release", options.release, "R", "The release that the package brings");
    addText("--lowest", options.lowest, "R", "The lowest release that the package may replace");
    addText("--owner", options.owner, "USER:GROUP", "Record this owner for everything, not the tree's own");
    make->add_flag("--allow", options.isAllowed, "Exit with 0 though some items can't be packaged");
    make->add_option("PACKAGE", options.package, "The directory to make; it may be there if it is empty")
        ->required();
}

void AddCommands(CLI::App& app, Arguments& arguments) {
    AddTransactionCommands(app, arguments);
    AddRollback(app, arguments);
    AddMake(app, arguments);
    CLI::App* const check = AddListCommand(
        app, "check", "Say what is wrong with a file list, its package and its targets", arguments);
    check->add_option("--root", arguments.check.root, "Look for the targets below DIR instead of /")
        ->type_name("DIR")
        ->check(CLI::ExistingDirectory);
    check->add_flag("--errors-only", arguments.check.isErrorsOnly, "Leave warnings out");
    AddState(*check, arguments);
    AddTrusted(*check, arguments);

    AddTrusted(
        *AddListCommand(app, "plan", "Say what each pass will do, file by file, in its order", arguments),
        arguments);
    AddVerify(app, arguments);
}

// Without a command, the parser itself names neither what is unknown nor the commands that there are.
std::string UsageError(const CLI::App* app, const CLI::Error& error) {
    if (!app->get_subcommands().empty())
        return "vfilelist: " + Shown(error.what()) + "; vfilelist --help shows the usage\n";
    const std::vector<std::string> unused = app->remaining();
    std::string what = "no command";
    if (!unused.empty()) {
        what = unused.front()[0] == '-' ? "unknown option" : "unknown command";
        what += " '" + Shown(unused.front()) + "'";
    }
    std::string commands;
    for (const CLI::App* const command : app->get_subcommands({})) commands += ", " + command->get_name();
    return "vfilelist: " + what + "; there are " + commands.substr(2) + "\n";
}

int Refuse(const Arguments& arguments, const std::string& command, const std::string& trouble,
           Output& output) {
    output.Member("command", command);
    output.Member("fileList", arguments.iniPath);
    output.Member("error", trouble);
    const std::string place = arguments.iniPath.empty() ? "" : Shown(arguments.iniPath) + ": ";
    (void)std::fprintf(stderr, "vfilelist: %s%s\n", place.c_str(), Shown(trouble).c_str());
    return kWrongUse;
}

// Why the package is no base for a plan or a comparison.
std::vector<Finding> FindForgeries(const FileList& list, const Provenance& provenance) {
    Inspection inspection(list);
    inspection.findings = provenance.findings;
    if (!provenance.manifest) return inspection.findings;
    inspection.manifest = &*provenance.manifest;
    CheckManifest(inspection, *provenance.manifest, true);
    CheckUnlisted(inspection);
    return inspection.findings;
}

int RefuseForged(const Arguments& arguments, const std::string& command, const Finding& finding,
                 Output& output) {
    (void)Refuse(arguments, command,
                 std::string(finding.kind->title) + " (" + finding.path + ": " + finding.detail + ")",
                 output);
    return kFindings;
}

// What makes no sense on a file list without a directory list.
int RunOnList(const Arguments& arguments, const std::string& command, Output& output) {
    if (const Trouble trouble = FileList::WhyUnreadable(arguments.iniPath))
        return Refuse(arguments, command, *trouble, output);
    const FileList list(arguments.iniPath);
    if (list.trouble()) return Refuse(arguments, command, *list.trouble(), output);
    if (list.lists().empty()) {
        return Refuse(arguments, command, "no install type with a directory list; vfilelist check says more",
                      output);
    }
    // Putting backups back has nothing to do with where the package came from.
    if (command == "rollback") return Rollback(list, arguments.rollback, output);
    const Provenance provenance = ReadProvenance(arguments.iniPath, arguments.transaction.trustedDirectory);
    const std::vector<Finding> forgeries = FindForgeries(list, provenance);
    if (!forgeries.empty()) return RefuseForged(arguments, command, forgeries.front(), output);
    if (command == "plan") return Plan(list, output);
    return Verify(list, {arguments.verify.expected, arguments.verify.areModesIgnored, provenance.manifest},
                  output);
}

// With an open upgrade that one is taken back; otherwise the backups of the list are put back.
int RunRollback(const Arguments& arguments, Output& output) {
    bool isOpen = false;
    const int status = RollbackTransaction(arguments.transaction, output, isOpen);
    if (isOpen) return status;
    if (!arguments.iniPath.empty()) return RunOnList(arguments, "rollback", output);
    return Refuse(arguments, "rollback", "no upgrade is open; name a file list to put its backups back",
                  output);
}

int RunCommand(const Arguments& arguments, const std::string& command, Output& output) {
    if (command == "check") return Check(arguments.check, output);
    if (command == "make") return Make(arguments.make, output);
    if (command == "upgrade") return Upgrade(arguments.transaction, output);
    if (command == "commit") return Commit(arguments.transaction, output);
    if (command == "resume") return Resume(arguments.transaction, output);
    if (command == "status") return ShowStatus(arguments.transaction, output);
    if (command == "rollback") return RunRollback(arguments, output);
    if (arguments.isInstalled) return VerifyInstalled(arguments.transaction.stateDirectory, output);
    if (arguments.iniPath.empty())
        return Refuse(arguments, command, "name a file list, or say --installed", output);
    return RunOnList(arguments, command, output);
}

int Run(Arguments& arguments, const std::string& command) {
    Output output(arguments.isJson, arguments.colour);
    arguments.check.iniPath = arguments.iniPath;
    arguments.check.stateDirectory = arguments.transaction.stateDirectory;
    arguments.check.trustedDirectory = arguments.transaction.trustedDirectory;
    arguments.transaction.iniPath = arguments.iniPath;
    arguments.transaction.isPartial = arguments.rollback.isPartial;
    arguments.transaction.isByHand = arguments.rollback.isDryRun || arguments.rollback.isOnlyModes;
    const int status = RunCommand(arguments, command, output);
    output.EndJson();
    if (output.Finish()) return status;
    (void)std::fprintf(stderr, "vfilelist: can't write the report\n");
    return kWrongUse;
}

}  // namespace

int main(int argc, char* argv[]) {
    try {
        CLI::App app(kDescription, "vfilelist");
        Arguments arguments;
        app.require_subcommand(1);
        app.failure_message(UsageError);
        app.set_version_flag("--version", "vfilelist " VFILELIST_VERSION);
        app.footer(kFooter);
        AddCommands(app, arguments);
        try {
            app.parse(argc, argv);
        } catch (const CLI::ParseError& error) {
            return app.exit(error) == 0 ? kFine : kWrongUse;
        }
        return Run(arguments, app.get_subcommands().front()->get_name());
    } catch (const std::exception& error) {
        (void)std::fprintf(stderr, "vfilelist: %s\n", error.what());
        return kWrongUse;
    }
}
