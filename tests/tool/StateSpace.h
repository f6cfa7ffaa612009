// What an upgrade, a pass or a kill may leave on a host, as values: few enough to be counted and searched,
// and what every command of the two programs makes of each of them, told from the documents alone.
#ifndef TESTS_TOOL_STATESPACE_H
#define TESTS_TOOL_STATESPACE_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <set>
#include <string>
#include <vector>

// Contents are classes. kPart is any beginning of the package's file, the empty one too: no command tells
// them apart.
enum class What : std::uint8_t { kNothing, kOld, kNew, kPart, kOther, kLink, kDirectory };

// Which file it is. The old one is what stood at NAME before the upgrade; of passes by hand nobody knows it
// but the test. A backup of an earlier upgrade is older than the package.
enum class Mark : std::uint8_t { kNone, kOld, kWritten, kEarlier };

struct Node {
    What what = What::kNothing;
    Mark mark = Mark::kNone;

    bool operator==(const Node& other) const { return what == other.what && mark == other.mark; }
};

struct Place {
    Node name;
    Node backup;                     // a link is one to NAME
    What origin = What::kNothing;    // with an open upgrade: what the journal remembers
    What setAside = What::kNothing;  // by the command that is running
};

enum class Stage : std::uint8_t { kClosed, kRenaming, kCopying, kInstalled, kUndoing, kCleaning };

constexpr std::size_t kMostTargets = 3;

// The last target is alone in a directory, which -copy makes when it is missing.
struct Host {
    std::array<Place, kMostTargets> targets;
    std::uint8_t count = 0;  // of targets
    Stage stage = Stage::kClosed;
    Stage undone = Stage::kClosed;
    bool hasDirectory = true;
    bool hadDirectory = true;  // before the open upgrade
    bool isStrange = false;    // something is there that nothing explains

    bool operator==(const Host& other) const;
    bool operator<(const Host& other) const;
    bool IsOpen() const { return stage != Stage::kClosed; }
};

std::ostream& operator<<(std::ostream& out, const Host& host);

enum class Command { kRename, kCopy, kClean, kUpgrade, kCommit, kRollback, kPartialRollback, kResume };
constexpr std::array<Command, 8> kCommands = {Command::kRename,          Command::kCopy,   Command::kClean,
                                              Command::kUpgrade,         Command::kCommit, Command::kRollback,
                                              Command::kPartialRollback, Command::kResume};
const char* NameOf(Command command);

// What a command does: the state before it, and that behind each of its changes. A kill leaves one of them.
struct Outcome {
    int status = 0;
    std::vector<Host> states;

    const Host& before() const { return states.front(); }
    const Host& end() const { return states.back(); }
};

// What is named as the next command. Nothing and no doubt: nothing is left to do.
struct Advice {
    std::vector<Command> next;
    bool isInDoubt = false;

    bool operator==(const Advice& other) const { return next == other.next && isInDoubt == other.isInDoubt; }
};

// Leaves out what nobody can know, or nobody needs to.
Host Canonical(Host host);
// The same for the next command: what was set aside is an unlisted file, in nobody's way.
Host Settled(Host host);

Outcome ModelOf(Command command, const Host& host);
Advice ModelOfAdvice(const Host& host);

// Every state without an open upgrade from which people may begin.
std::vector<Host> Beginnings(std::size_t count);

// All that can come of `beginnings` by these commands, killed or not, over and over.
std::set<Host> StatesFrom(std::vector<Host> beginnings, const std::vector<Command>& commands);
std::set<Host> AllStates(std::size_t count);

#endif
