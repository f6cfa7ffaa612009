// What the tests of killed upgrades share: a package, the release that is installed before, runs that are
// killed before one of their system calls, and what must hold behind each of them.
#ifndef TESTS_TOOL_KILLEDUPGRADE_H
#define TESTS_TOOL_KILLEDUPGRADE_H

#include <gtest/gtest.h>
#include <sys/types.h>

#include <cstddef>
#include <functional>
#include <iosfwd>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "Package.h"
#include "Sanitizer.h"
#include "TracedProcess.h"

struct File {
    std::string content;
    mode_t mode;
    uid_t user;
    gid_t group;

    bool operator==(const File& other) const;
    bool operator<(const File& other) const;
};

std::ostream& operator<<(std::ostream& out, const File& file);

// Files by their names, "bin/tool" for example, and directories, "bin/".
using Tree = std::map<std::string, File>;

Tree ReadTree(const std::string& directory);

// `size` bytes that follow from `step`.
std::string Pattern(std::size_t size, int step);

class KilledUpgrade : public testing::Test {
protected:
    // A program that is killed, again and again.
    struct Killing {
        std::vector<std::string> command;
        std::function<void()> prepare;  // brings about the state that the program finds
        // Called where the kill has left a state that was not seen before; `again` brings it about once more.
        std::function<void(const std::function<void()>& again)> check;
    };
    struct Swept {
        long systemCalls;    // the number of the last one, or how many of a sample
        std::size_t states;  // how many different ones the kills have left
    };

    std::string PathOf(const std::string& name) const { return package_.InstalledPath(name); }
    Tree Installed() const { return ReadTree(package_.InstalledPath()); }
    // Makes the installed release what `tree` says, all of it.
    void Restore(const Tree& tree) const;

    std::vector<std::string> Pass(const std::string& pass) const;
    void RunPassWhole(const std::string& pass) const;
    TracedRun RunKilled(const std::vector<std::string>& command, long killAt) const;

    // Kills before the one system call, judges what is there by A, B and E, and what was not `seen` before by
    // the check. Returns false if the program came to its end instead.
    bool KillOnce(const Killing& killing, long killAt, std::set<Tree>& seen) const;
    // Kills before each of the system calls from `firstKill` on.
    Swept Sweep(const Killing& killing, long firstKill = 1) const;

    bool IsListed(const std::string& name) const { return new_.count(name) == 1; }
    bool HasListedBackup(const Tree& tree) const;

    // The invariants of an upgrade, by the letters that docs/reliability.md gives them.
    // A: the old content is here or in the backup, up to the start of -clean.
    void ExpectNothingLost(const Tree& tree) const;
    // B: the new content is here, from the start of -clean on.
    void ExpectNewFiles(const Tree& tree) const;
    // D: the pass once more, then the later ones, end in the new release.
    void ExpectRepeatEndsWell(const std::string& pass) const;
    // E: what no entry names is as it was.
    void ExpectUnlistedUntouched(const Tree& tree) const;

    // A or B, and E, as they have to hold since `command` was begun.
    void ExpectInvariantsSince(const std::string& command, const Tree& tree) const;
    void ExpectNewRelease() const;

    Package package_;
    std::map<std::string, std::string> new_;  // what the listed files hold in the end
    std::set<std::string> made_;              // the directories that -copy makes
    Tree old_;                                // all that is installed before
};

#define SKIP_WITHOUT_TRACING()                                            \
    do {                                                                  \
        std::string why;                                                  \
        if (!CanTrace(why)) GTEST_SKIP() << "no tracing: " << why;        \
        if (VFS_TEST_ADDRESS_SANITIZER || VFS_TEST_THREAD_SANITIZER) {    \
            GTEST_SKIP() << "most system calls would be the sanitizer's"; \
        }                                                                 \
    } while (false)

#endif
