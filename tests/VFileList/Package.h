// An upgrade package and an installed release in a scratch directory, and the two programs that work on them.
#ifndef TESTS_VFILELIST_PACKAGE_H
#define TESTS_VFILELIST_PACKAGE_H

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "Process.h"
#include "ScratchDirectory.h"

class Package {
public:
    Package();
    // Writes the file list with the install type "Server"; `rest` has the directory list [Server] and the
    // lists. "@" stands for the directory of the installed release.
    std::string WriteList(const std::string& rest) const;
    std::string WriteRawList(std::string text) const;
    // One list, [Bin], with one key, f, that goes to the installed release's directory itself.
    std::string WriteEntries(const std::string& entries) const;

    std::string ListPath() const { return scratch_.Path("package/filelist.ini"); }
    std::string SourcePath(const std::string& name) const { return scratch_.Path("package/Common/" + name); }
    std::string InstalledPath(const std::string& name = "") const {
        return scratch_.Path("installed" + (name.empty() ? "" : "/" + name));
    }

    // Writes a file of the package, or an installed one.
    std::string Bring(const std::string& name, const std::string& content) const;
    std::string Install(const std::string& name, const std::string& content) const;
    std::string Installed(const std::string& name) const { return scratch_.Read("installed/" + name); }
    std::vector<std::string> InstalledNames() const { return scratch_.List("installed"); }

    // Runs one pass of the upgrade tool: "-rename", "-copy" or "-clean". Returns its exit status.
    int RunPass(const std::string& pass) const;

    // Runs `vfilelist COMMAND LIST OPTIONS...`.
    ProcessResult Run(const std::string& command, const std::vector<std::string>& options = {}) const;
    // The same with --json; the status goes to `exitStatus`, if that is not null.
    nlohmann::json RunJson(const std::string& command, const std::vector<std::string>& options = {},
                           int* exitStatus = nullptr) const;

    const ScratchDirectory& scratch() const { return scratch_; }

private:
    ScratchDirectory scratch_;
};

#endif
