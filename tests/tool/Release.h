// An installed release with all that files may have, a signed package that upgrades it, and what the tree has
// to be before, during and after.
#ifndef TESTS_TOOL_RELEASE_H
#define TESTS_TOOL_RELEASE_H

#include <sys/types.h>

#include <string>
#include <vector>

#include "Package.h"
#include "TreeSnapshot.h"

enum class Entries { k3, k4, k40 };

class Release {
public:
    explicit Release(Entries entries);

    // Installs the old release anew, as if nothing had ever happened.
    void Restore() const;

    const TreeSnapshot& oldTree() const { return old_; }
    const TreeSnapshot& newTree() const { return new_; }                 // after commit
    const TreeSnapshot& newTreeWithBackups() const { return between_; }  // after upgrade
    std::string InstalledPath() const { return package_.InstalledPath(); }
    const Package& package() const { return package_; }
    TreeSnapshot Now() const { return TakeSnapshot(package_.InstalledPath()); }

    std::string StatePath() const { return package_.scratch().Path("state"); }
    // The list that the passes read. How often they do depends on how long ago it was written.
    std::string PassedList() const { return StatePath() + "/package/filelist.ini"; }
    std::vector<std::string> Command(const std::string& command) const;
    std::vector<std::string> Environment() const;
    // Runs it without a tracer. Returns its exit status.
    int Run(const std::string& command) const;
    // Brings about the state in which the command is given: but for upgrade, one that is upgraded.
    void PrepareFor(const std::string& command) const;
    // What the command makes of it: upgrade, commit or rollback.
    const TreeSnapshot& TreeAfter(const std::string& command) const;

private:
    struct Listed {
        std::string entry;
        std::string target;
    };

    void ListLong();
    void InstallLong() const;
    void List(const std::string& section, const std::string& directory,
              const std::vector<std::string>& entries);
    void InstallOld() const;
    std::string InstallOne(const std::string& name, const std::string& content, mode_t mode) const;
    void Expect();
    TreeNode Successor(const Listed& listed) const;

    Package package_;
    Entries entries_;
    std::string listText_;
    std::string sections_;
    std::vector<Listed> listed_;
    TreeSnapshot old_;
    TreeSnapshot new_;
    TreeSnapshot between_;
};

// Each on a line of its own, for messages.
std::string Joined(const std::vector<std::string>& lines);

#endif
