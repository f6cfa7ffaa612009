// An installed release, the package of the next one, and the commands of the transaction in this process,
// where calls can be replaced.
#ifndef TESTS_VFILELIST_RELEASE_H
#define TESTS_VFILELIST_RELEASE_H

#include <map>
#include <nlohmann/json.hpp>
#include <string>

#include "FileSystem.h"
#include "Package.h"
#include "Report.h"
#include "SmallProgram.h"
#include "SystemCalls.h"
#include "Transaction.h"

// What there is below a directory: kind, mode, owner, attributes and content of each name.
using Tree = std::map<std::string, std::string>;

// What came of a command.
struct Ending {
    int status;
    nlohmann::json report;

    std::string error() const { return report["error"].is_null() ? "" : report["error"]; }
    std::string message() const { return report["message"]; }
    std::string state() const { return report["state"]; }
    // "name: text" of each remark, "! " before what is serious.
    std::vector<std::string> remarks() const;
};

class Release {
public:
    using Command = int (*)(const TransactionOptions&, Output&);

    // bin/: tool (set-user-ID, with an attribute), conf, same (which does not change), link (to real/data),
    // empty, and a file that is not listed. The package brings new/sub/fresh as well.
    Release();

    Ending Run(Command command, bool isPartial = false) const;
    // The same without looking at the report.
    int StatusOf(Command command) const;
    // Of the open upgrade.
    Ending Rollback(bool isPartial = false) const;

    // Upgrades in a process of its own, which ends at once when `path` is opened to be looked at after -copy:
    // the state is "copying".
    void DieBeforeInstalling(const std::string& path) const;

    Tree Now() const;
    // Before, after the upgrade (with backups), and after the commit.
    const Tree& Old() const { return old_; }
    static Tree WithBackups(const Tree& old, Tree committed);

    // From now on the package has a manifest, whose new directories have mode 0755, and is signed.
    void Sign();

    TransactionOptions Options() const;
    std::string StatePath(const std::string& name = "") const {
        return package_.scratch().Path("state" + (name.empty() ? "" : "/" + name));
    }
    std::string Path(const std::string& name) const { return package_.InstalledPath(name); }
    const Package& package() const { return package_; }

private:
    const Umask umask_{022};
    const Package package_;
    const Variable logDirectory_{"VLOGGER_DIRECTORY", package_.scratch().Path("log").c_str()};
    const SmallProgram program_{package_.scratch()};
    Tree old_;
    bool isSigned_ = false;
};

// `command`, the rollback of the open upgrade, in the form of the others.
int RollbackOpen(const TransactionOptions& options, Output& output);

#endif
