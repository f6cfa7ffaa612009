// vfilelist's transaction as a process where the terminal goes, nobody reads what it says, or the state
// directory is of no use: it goes on to the end, or refuses and changes nothing.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include "Process.h"
#include "Release.h"

namespace fs = std::filesystem;

using testing::HasSubstr;

namespace {

const std::vector<std::string> kNoDifferences;
const char* const kCommands[] = {"upgrade", "commit", "rollback"};

// A process with `stream` for its three standard streams; a terminal is then its controlling one.
pid_t Start(std::vector<std::string> command, const std::vector<std::string>& environment,
            const std::function<int()>& openStream) {
    const pid_t process = fork();
    if (process != 0) return process;
    (void)setsid();
    const int stream = openStream();
    for (const int standard : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) (void)dup2(stream, standard);
    for (const std::string& variable : environment) (void)putenv(const_cast<char*>(variable.c_str()));
    std::vector<char*> arguments;
    for (std::string& text : command) arguments.push_back(text.data());
    arguments.push_back(nullptr);
    (void)execv(arguments[0], arguments.data());
    _exit(127);
}

// False when a signal ended it.
bool Exits(pid_t process) {
    int status = 0;
    return waitpid(process, &status, 0) == process && WIFEXITED(status);
}

void ReadUntil(int fd, const std::string& text) {
    std::string read;
    std::array<char, 256> block{};
    while (read.find(text) == std::string::npos) {
        const ssize_t count = ::read(fd, block.data(), block.size());
        if (count <= 0) throw std::runtime_error("it has never said " + text + ", but " + read);
        read.append(block.data(), static_cast<std::size_t>(count));
    }
}

std::string Words(const std::vector<std::string>& command) {
    std::string text;
    for (const std::string& word : command) text += "'" + word + "' ";
    return text;
}

class TransactionSurroundingsTest : public testing::Test {
protected:
    void ExpectTree(const TreeSnapshot& expected) const {
        EXPECT_EQ(DifferencesBetween(expected, release_.Now()), kNoDifferences);
    }
    // The command has done its work.
    void ExpectDone(const std::string& command) const {
        ExpectTree(release_.TreeAfter(command));
        EXPECT_EQ(release_.Run("status"), command == "upgrade" ? 1 : 0);
    }

    // Where the scratch directory is mounted anew, with `options`. The shell's `script` is given the command.
    ProcessResult RunInside(const std::vector<std::string>& options, const std::string& script,
                            const std::string& command) const {
        const std::string scratch = release_.package().scratch().Path();
        const std::vector<std::string> inside =
            Concatenate(PrivateNamespace({"--bind", scratch, scratch}), options);
        return RunProcess(
            Concatenate(Concatenate(inside, {"sh", "-c", script, "sh"}), release_.Command(command)),
            release_.Environment());
    }
    static void ExpectRefused(const ProcessResult& result, int status, const std::string& reason) {
        EXPECT_EQ(result.exitStatus, status) << result.err;
        EXPECT_THAT(result.out, HasSubstr(reason));
        EXPECT_THAT(result.out, HasSubstr("Nothing was changed."));
    }
    // By every command that would do anything.
    void ExpectAllRefused(const std::string& reason) const {
        const TreeSnapshot before = release_.Now();
        for (const char* const command : {"upgrade", "commit", "rollback", "resume", "status"}) {
            SCOPED_TRACE(command);
            ExpectRefused(RunProcess(release_.Command(command), release_.Environment()), 3, reason);
            ExpectTree(before);
        }
    }

    std::string State(const std::string& name) const { return release_.StatePath() + "/" + name; }
    void Write(const std::string& name, const std::string& content) const {
        std::ofstream(State(name), std::ios::binary) << content;
    }
    std::string DigestOf(const std::string& name) const {
        return RunProcess({"sha256sum", State(name)}).out.substr(0, 64);
    }

    const Release release_{Entries::k4};
};

// As it is the one that the terminal belongs to it gets HUP then, and what it says from there on can't be
// written.
TEST_F(TransactionSurroundingsTest, AnUpgradeGoesOnToTheEndWithoutTheTerminalThatItBeganOn) {
    const int terminal = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    ASSERT_GE(terminal, 0);
    ASSERT_EQ(grantpt(terminal), 0);
    ASSERT_EQ(unlockpt(terminal), 0);
    const std::string name = ptsname(terminal);

    const pid_t process = Start(release_.Command("upgrade"), release_.Environment(),
                                [&name] { return open(name.c_str(), O_RDWR | O_CLOEXEC); });
    ReadUntil(terminal, "are renamed to NAME.bak");
    (void)close(terminal);

    EXPECT_TRUE(Exits(process));
    ExpectDone("upgrade");
}

TEST_F(TransactionSurroundingsTest, GoesOnToTheEndThoughNobodyReadsWhatItSays) {
    for (const char* const command : kCommands) {
        SCOPED_TRACE(command);
        release_.PrepareFor(command);
        std::array<int, 2> ends{};
        ASSERT_EQ(pipe2(ends.data(), O_CLOEXEC), 0);
        (void)close(ends[0]);
        const pid_t process =
            Start(release_.Command(command), release_.Environment(), [&ends] { return ends[1]; });
        (void)close(ends[1]);

        EXPECT_TRUE(Exits(process));
        ExpectDone(command);
    }
}

// No file gets the number of a standard stream, and with it what is said: the lock is open all the time.
TEST_F(TransactionSurroundingsTest, GoesOnToTheEndWithoutStandardStreams) {
    for (const char* const command : kCommands) {
        for (const std::string closed : {"<&-", ">&-", "2>&-", "<&- >&- 2>&-"}) {
            SCOPED_TRACE(testing::Message() << command << closed);
            release_.PrepareFor(command);
            const std::vector<std::string> shell = {"sh", "-c", "exec \"$@\" " + closed, "sh"};
            (void)RunProcess(Concatenate(shell, release_.Command(command)), release_.Environment());
            ExpectDone(command);
            EXPECT_EQ(ReadWholeFile(State("lock")), "");
        }
    }
}

TEST_F(TransactionSurroundingsTest, ChangesNothingWhereTheStateDirectoryIsFull) {
    if (VFS_TEST_EMULATED)
        GTEST_SKIP() << "the copy that is kept would be that of the emulator, a larger one";
    SKIP_WITHOUT_PRIVATE_NAMESPACE();
    const std::vector<std::string> small = {"--size", "65536", "--tmpfs", release_.StatePath()};
    ExpectRefused(RunInside(small, "\"$@\"", "upgrade"), 1,
                  State("rescue/vfilelist") + ": No space left on device");
    ExpectTree(release_.oldTree());

    const std::string fillAndRun = Words(release_.Command("upgrade")) + " >&2 && { cat /dev/zero >" +
                                   State("filler") + " 2>&-; \"$@\"; }";
    const auto size = 3 * fs::file_size(VFILELIST_PATH) + (1U << 24);  // the rescue copies have room
    const std::vector<std::string> large = {"--size", std::to_string(size), "--tmpfs", release_.StatePath()};
    ExpectRefused(RunInside(large, fillAndRun, "commit"), 1, "state.new: No space left on device");
    ExpectTree(release_.newTreeWithBackups());

    release_.Restore();
    const ProcessResult rollback = RunInside(large, fillAndRun, "rollback");
    EXPECT_EQ(rollback.exitStatus, 3) << rollback.err;
    EXPECT_THAT(rollback.out, HasSubstr("state.new: No space left on device"));
    EXPECT_THAT(rollback.out, HasSubstr("The state can't be written: nothing was taken back yet."));
    ExpectTree(release_.newTreeWithBackups());
}

TEST_F(TransactionSurroundingsTest, ChangesNothingWhereTheStateDirectoryIsReadOnly) {
    SKIP_WITHOUT_PRIVATE_NAMESPACE();
    const std::string reason = State("lock") + ": Read-only file system";
    fs::create_directory(release_.StatePath());
    const std::vector<std::string> readOnly = {"--ro-bind", release_.StatePath(), release_.StatePath()};
    ExpectRefused(RunInside(readOnly, "\"$@\"", "upgrade"), 1, reason);
    ExpectTree(release_.oldTree());

    ASSERT_EQ(release_.Run("upgrade"), 0);
    ExpectRefused(RunInside(readOnly, "\"$@\"", "rollback"), 1, reason);
    ExpectRefused(RunInside(readOnly, "\"$@\"", "commit"), 1, reason);
    ExpectRefused(RunInside(readOnly, "\"$@\"", "resume"), 1, reason);
    ExpectTree(release_.newTreeWithBackups());
}

TEST_F(TransactionSurroundingsTest, ChangesNothingWithAJournalThatItCannotBelieve) {
    ASSERT_EQ(release_.Run("upgrade"), 0);
    const std::string state = ReadWholeFile(State("state"));
    const std::string journal = ReadWholeFile(State("journal"));
    const std::string unbelieved = State("state") + ": changed, of another version, or not of this journal";

    Write("journal", journal.substr(0, journal.size() / 2));
    ExpectAllRefused(unbelieved);
    Write("journal", "");
    ExpectAllRefused(unbelieved);
    std::string changed = journal;
    changed[changed.size() / 2] ^= 1;
    Write("journal", changed);
    ExpectAllRefused(unbelieved);
    fs::remove(State("journal"));
    ExpectAllRefused(State("journal") + ": No such file or directory");

    // The state names this one.
    std::string later = journal;
    later.replace(later.find(" 1\n"), 3, " 2\n");
    Write("journal", journal);
    const std::string digest = DigestOf("journal");
    Write("journal", later);
    std::string stateOfLater = state;
    stateOfLater.replace(stateOfLater.find(digest), digest.size(), DigestOf("journal"));
    Write("state", stateOfLater);
    ExpectAllRefused(State("journal") + ": it is no file of vfilelist, or one of another version");

    Write("journal", journal);
    Write("state", "vfilelist-state 2" + state.substr(state.find(" 1 ") + 2));
    ExpectAllRefused(unbelieved);
    Write("state", state.substr(0, state.size() / 2));
    ExpectAllRefused(unbelieved);

    Write("state", state);
    EXPECT_EQ(release_.Run("rollback"), 0) << "nothing has happened to it";
    ExpectTree(release_.oldTree());
}

}  // namespace
