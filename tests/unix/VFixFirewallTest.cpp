#include "VFixFirewall.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <iostream>
#include <string>
#include <system_error>
#include <thread>
#include <type_traits>
#include <vector>

#include "Process.h"
#include "Resources.h"
#include "Scale.h"
#include "ScratchDirectory.h"
#include "SystemCalls.h"

namespace {

using testing::ElementsAreArray;

static_assert(std::is_same_v<decltype(&VFixFirewall::FixFirewallStart), void (*)()>);
static_assert(std::is_same_v<decltype(&VFixFirewall::FixFirewallStop), void (*)()>);
static_assert(!std::is_default_constructible_v<VFixFirewall> && !std::is_aggregate_v<VFixFirewall>);

const char kHelperCommand[] = "/usr/local/tarnserver/bin/tarnfileprotect Firewall";

LogLine Line(const std::string& function, int level, const std::string& format, const std::string& text) {
    return {"BaseAPI/VFileSys/src/unix/VFixFirewall", function, level, format, text};
}
LogLine Said(const std::string& function, const std::string& text) {
    return Line(function, 3, text, text);
}
LogLine Output(const std::string& text) {
    return Line("ProcessCmd", 3, "%s", text);
}
LogLine Status(int status) {
    return Line("ProcessCmd", 3, "ProcessCmd in VFileSys, rs = %d",
                "ProcessCmd in VFileSys, rs = " + std::to_string(status));
}

std::vector<LogLine> Joined(const std::vector<std::vector<LogLine>>& parts) {
    std::vector<LogLine> lines;
    for (const std::vector<LogLine>& part : parts) lines.insert(lines.end(), part.begin(), part.end());
    return lines;
}

// The lines of one pass, with those of the command in the middle.
std::vector<LogLine> PassLines(const std::vector<LogLine>& ofTheCommand) {
    return Joined({{Said("FixFirewall", "FixFirewall"), Said("ProcessCmd", "ProcessCmd in VFileSys"),
                    Output(kHelperCommand)},
                   ofTheCommand,
                   {Said("FixFirewall", "FixFirewall end")}});
}

// The lines of a thread that was started, made `passes` and was stopped in its last sleep.
std::vector<LogLine> RunLines(const std::vector<LogLine>& passes) {
    return Joined(
        {{Said("FixFirewallStart", "FixFirewallStart"), Said("FixFirewallThread", "FixFirewallThread")},
         passes,
         {Said("FixFirewallStop", "FixFirewallStop"), Said("FixFirewallThread", "FixFirewallThread exit")}});
}

// A test here ends with the fixer stopped for the rest of the process's life, so each runs in a child of its
// own. Its failures are printed there and fail the test here.
void InChild(const std::function<void()>& test) {
    fflush(nullptr);
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        test();
        // Not _exit(): the counters of a coverage build are written on the way out.
        std::exit(testing::Test::HasFailure() ? 1 : 0);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0) << "see above";
}

// Starts the fixer, lets it sleep `passes` times, stops it in the last of its sleeps and waits for its end.
void RunPasses(int passes) {
    std::atomic<int> sleeps{0};
    const Replaced replaced(calls::nanosleep, [&](const timespec* request, timespec* remainder) {
        EXPECT_EQ(request->tv_sec, 300);
        EXPECT_EQ(request->tv_nsec, 0);
        EXPECT_EQ(remainder, nullptr);
        if (++sleeps == passes) VFixFirewall::FixFirewallStop();
        return 0;
    });

    VFixFirewall::FixFirewallStart();
    EXPECT_TRUE(LogRecorder::WaitFor("FixFirewallThread exit"));
    EXPECT_EQ(sleeps, passes);
}

// Has the shell run `script` in the helper tool's place.
auto InHelpersPlace(const std::string& script) {
    return [script](const char* command, const char* mode) {
        EXPECT_STREQ(command, kHelperCommand);
        EXPECT_STREQ(mode, "r");
        return calls::real::popen(script.c_str(), mode);
    };
}

void ExpectOnePass(const std::string& script, const std::vector<LogLine>& ofTheCommand) {
    InChild([&] {
        const Replaced replaced(calls::popen, InHelpersPlace(script));
        RunPasses(1);
        EXPECT_THAT(LogRecorder::Lines(), ElementsAreArray(RunLines(PassLines(ofTheCommand))));
    });
}

class VFixFirewallTest : public ResourceTest {};

TEST_F(VFixFirewallTest, LogsEveryLineOfTheHelperWithItsLineFeed) {
    ExpectOnePass("printf 'one\\ntwo\\n'", {Output("one\n"), Output("two\n"), Status(0)});
}

TEST_F(VFixFirewallTest, LogsALastLineWithoutALineFeed) {
    ExpectOnePass("printf 'one\\n\\ntwo'", {Output("one\n"), Output("\n"), Output("two"), Status(0)});
}

TEST_F(VFixFirewallTest, TakesOutputForNoFormat) {
    ExpectOnePass("printf '%%s%%n%%d\\n'", {Output("%s%n%d\n"), Status(0)});
}

TEST_F(VFixFirewallTest, LogsLongLinesInPiecesOf4094Characters) {
    ExpectOnePass(
        "head -c 4093 /dev/zero | tr '\\0' a; echo; head -c 4094 /dev/zero | tr '\\0' b; echo;"
        "head -c 9000 /dev/zero | tr '\\0' c; echo",
        {Output(std::string(4093, 'a') + "\n"), Output(std::string(4094, 'b')), Output("\n"),
         Output(std::string(4094, 'c')), Output(std::string(4094, 'c')), Output(std::string(812, 'c') + "\n"),
         Status(0)});
}

TEST_F(VFixFirewallTest, LogsTheExitStatusOfAHelperThatFails) {
    ExpectOnePass("exit 3", {Status(3)});
    ExpectOnePass("exit 255", {Status(255)});
}

TEST_F(VFixFirewallTest, LogsTheRawStatusOfAHelperThatWasKilled) {
    ExpectOnePass("kill -9 $$", {Status(9)});
}

TEST_F(VFixFirewallTest, ReadsMoreOutputThanAPipeHolds) {
    InChild([] {
        const Replaced replaced(calls::popen, InHelpersPlace("yes 0123456789 | head -n 20000"));
        RunPasses(1);
        const std::vector<std::string> texts = LogRecorder::Texts();
        EXPECT_EQ(std::count(texts.begin(), texts.end(), "0123456789\n"), 20000);
        EXPECT_EQ(texts[texts.size() - 4], "ProcessCmd in VFileSys, rs = 0");
    });
}

TEST_F(VFixFirewallTest, LogsTheRawStatusWhenTheHelperCannotBeWaitedFor) {
    InChild([] {
        const Replaced start(calls::popen, InHelpersPlace("true"));
        const Replaced end(calls::pclose, [](FILE* stream) {
            calls::real::pclose(stream);
            errno = ECHILD;
            return -1;
        });
        RunPasses(1);
        EXPECT_THAT(LogRecorder::Lines(), ElementsAreArray(RunLines(PassLines({Status(-1)}))));
    });
}

TEST_F(VFixFirewallTest, TriesAgainAfterAHelperThatCannotBeStarted) {
    InChild([] {
        const Replaced replaced(calls::popen, [](const char*, const char*) -> FILE* {
            errno = EMFILE;
            return nullptr;
        });
        RunPasses(2);
        const std::vector<LogLine> pass = PassLines({Line("ProcessCmd", 1, "popen failed", "popen failed")});
        EXPECT_THAT(LogRecorder::Lines(), ElementsAreArray(RunLines(Joined({pass, pass}))));
    });
}

TEST_F(VFixFirewallTest, EndsAPassWhoseCommandCannotBeFormatted) {
    InChild([] {
        const Replaced format(calls::sprintfFails, true);
        const Replaced start(calls::popen, [](const char*, const char*) -> FILE* {
            ADD_FAILURE() << "started";
            return nullptr;
        });
        RunPasses(1);
        EXPECT_THAT(
            LogRecorder::Lines(),
            ElementsAreArray(RunLines({Said("FixFirewall", "FixFirewall"),
                                       Line("FixFirewall", 1, "sprintf_s failed!", "sprintf_s failed!")})));
    });
}

TEST_F(VFixFirewallTest, RepairsUntilItIsStopped) {
    InChild([] {
        const Replaced replaced(calls::popen, InHelpersPlace("echo repaired"));
        RunPasses(5);
        const std::vector<LogLine> pass = PassLines({Output("repaired\n"), Status(0)});
        EXPECT_THAT(LogRecorder::Lines(), ElementsAreArray(RunLines(Joined({pass, pass, pass, pass, pass}))));
    });
}

TEST_F(VFixFirewallTest, GoesOnForAnyNumberOfPassesWithoutGrowing) {
    const long passes = 1000 * TestScale();
    InChild([passes] {
        const Replaced start(calls::popen, InHelpersPlace("echo repaired"));
        std::atomic<long> sleeps{0};
        long blocks = 0;
        int descriptors = 0;
        const Replaced sleep(calls::nanosleep, [&](const timespec*, timespec*) {
            LogRecorder::Clear();
            ++sleeps;
            if (sleeps == 10) {
                blocks = heap::LiveBlocks();
                descriptors = OpenDescriptors();
            }
            if (sleeps < passes) return 0;
            EXPECT_EQ(heap::LiveBlocks(), blocks);
            EXPECT_EQ(OpenDescriptors(), descriptors);
            VFixFirewall::FixFirewallStop();
            return 0;
        });
        VFixFirewall::FixFirewallStart();
        while (sleeps < passes) std::this_thread::yield();
        EXPECT_TRUE(LogRecorder::WaitFor("FixFirewallThread exit"));
    });
    std::cout << "Soak: " << passes << " passes of the firewall fixer\n";
}

TEST_F(VFixFirewallTest, GoesOnWhenASignalShortensItsSleep) {
    InChild([] {
        const Replaced start(calls::popen, InHelpersPlace("true"));
        std::atomic<int> sleeps{0};
        const Replaced sleep(calls::nanosleep, [&](const timespec*, timespec*) {
            if (++sleeps == 2) VFixFirewall::FixFirewallStop();
            errno = EINTR;
            return -1;
        });
        VFixFirewall::FixFirewallStart();
        EXPECT_TRUE(LogRecorder::WaitFor("FixFirewallThread exit"));
        EXPECT_EQ(sleeps, 2);
    });
}

// Counts the signals that are handled; without SA_RESTART, so that calls end with EINTR.
std::atomic<int> handled{0};

void HandleWithoutRestart(int number) {
    struct sigaction action = {};
    action.sa_handler = [](int) { ++handled; };
    ASSERT_EQ(sigaction(number, &action, nullptr), 0);
}

void BlockHere(int number) {
    sigset_t blocked;
    sigemptyset(&blocked);
    sigaddset(&blocked, number);
    ASSERT_EQ(pthread_sigmask(SIG_BLOCK, &blocked, nullptr), 0);
}

TEST_F(VFixFirewallTest, EndsTheHelperInMidRepairWhenASignalIsHandledWithoutRestart) {
    InChild([] {
        const ScratchDirectory scratch;
        const std::string isCut = scratch.Path("isCut");
        HandleWithoutRestart(SIGUSR1);
        signal(SIGPIPE, SIG_DFL);  // whoever runs the tests may ignore it
        // Sends signals until the reading has ended, and would then write for ever.
        const std::string send = "kill -USR1 " + std::to_string(getpid());
        const Replaced start(calls::popen,
                             InHelpersPlace("echo one; while [ ! -e " + isCut + " ] && " + send +
                                            "; do :; done; while echo more; do :; done"));
        const Replaced end(calls::pclose, [&](FILE* stream) {
            scratch.Write("isCut", "");
            return calls::real::pclose(stream);
        });
        const Replaced sleep(calls::nanosleep, [](const timespec*, timespec*) {
            VFixFirewall::FixFirewallStop();
            return 0;
        });

        VFixFirewall::FixFirewallStart();
        // From here on only the new thread gets the signals; it has a mask of its own.
        BlockHere(SIGUSR1);
        EXPECT_TRUE(LogRecorder::WaitFor("FixFirewallThread exit"));

        EXPECT_GT(handled, 0);
        EXPECT_THAT(LogRecorder::Lines(),
                    ElementsAreArray(RunLines(PassLines({Output("one\n"), Status(SIGPIPE)}))));
    });
}

TEST_F(VFixFirewallTest, IsNotDisturbedBySignalsThatWereBlockedBeforeItsStart) {
    InChild([] {
        HandleWithoutRestart(SIGUSR1);
        // The helper would die of the second signal if it had another mask than the thread.
        const Replaced start(calls::popen, InHelpersPlace("echo one; kill -USR1 " + std::to_string(getpid()) +
                                                          "; kill -USR1 $$; echo two"));
        sigset_t ofTheThread;
        sigemptyset(&ofTheThread);
        const Replaced sleep(calls::nanosleep, [&](const timespec*, timespec*) {
            pthread_sigmask(SIG_BLOCK, nullptr, &ofTheThread);
            VFixFirewall::FixFirewallStop();
            return 0;
        });

        BlockHere(SIGUSR1);
        VFixFirewall::FixFirewallStart();
        EXPECT_TRUE(LogRecorder::WaitFor("FixFirewallThread exit"));

        EXPECT_EQ(sigismember(&ofTheThread, SIGUSR1), 1);
        EXPECT_EQ(handled, 0);
        EXPECT_THAT(LogRecorder::Lines(),
                    ElementsAreArray(RunLines(PassLines({Output("one\n"), Output("two\n"), Status(0)}))));
    });
}

TEST_F(VFixFirewallTest, RunsNoPassWhenItWasStoppedBefore) {
    InChild([] {
        VFixFirewall::FixFirewallStop();
        VFixFirewall::FixFirewallStart();
        EXPECT_TRUE(LogRecorder::WaitFor("FixFirewallThread exit"));

        EXPECT_THAT(LogRecorder::Lines(),
                    ElementsAreArray({Said("FixFirewallStop", "FixFirewallStop"),
                                      Said("FixFirewallStart", "FixFirewallStart"),
                                      Said("FixFirewallThread", "FixFirewallThread"),
                                      Said("FixFirewallThread", "FixFirewallThread exit")}));
    });
}

TEST_F(VFixFirewallTest, SleepsOnceMoreWhenItIsStoppedDuringAPass) {
    InChild([] {
        const Replaced start(calls::popen, [](const char*, const char* mode) {
            VFixFirewall::FixFirewallStop();
            return calls::real::popen("true", mode);
        });
        std::atomic<int> sleeps{0};
        const Replaced sleep(calls::nanosleep, [&](const timespec*, timespec*) {
            ++sleeps;
            return 0;
        });
        VFixFirewall::FixFirewallStart();
        EXPECT_TRUE(LogRecorder::WaitFor("FixFirewallThread exit"));
        EXPECT_EQ(sleeps, 1);
    });
}

TEST_F(VFixFirewallTest, ThrowsWhenNoThreadCanBeHadAndCanBeStartedLater) {
    InChild([] {
        {
            const Replaced create(calls::pthread_create, [](pthread_t*, const pthread_attr_t*,
                                                            void* (*)(void*), void*) { return EAGAIN; });
            EXPECT_THROW(VFixFirewall::FixFirewallStart(), std::system_error);
        }
        EXPECT_THAT(LogRecorder::Texts(), testing::ElementsAre("FixFirewallStart"));

        LogRecorder::Clear();
        const Replaced start(calls::popen, InHelpersPlace("true"));
        RunPasses(1);
        EXPECT_THAT(LogRecorder::Lines(), ElementsAreArray(RunLines(PassLines({Status(0)}))));
    });
}

TEST_F(VFixFirewallTest, DeliberatelyRepairsTwiceWhenStartedTwice) {
    InChild([] {
        const Replaced start(calls::popen, InHelpersPlace("echo line"));
        // Each thread waits in its sleep until the other is in its own.
        std::atomic<int> sleeping{0};
        const Replaced sleep(calls::nanosleep, [&](const timespec*, timespec*) {
            ++sleeping;
            while (sleeping < 2) sched_yield();
            VFixFirewall::FixFirewallStop();
            return 0;
        });
        VFixFirewall::FixFirewallStart();
        VFixFirewall::FixFirewallStart();
        EXPECT_TRUE(LogRecorder::WaitFor("FixFirewallThread exit", 2));

        const std::vector<std::string> texts = LogRecorder::Texts();
        EXPECT_EQ(std::count(texts.begin(), texts.end(), "FixFirewallThread"), 2);
        EXPECT_EQ(std::count(texts.begin(), texts.end(), kHelperCommand), 2);
        EXPECT_EQ(std::count(texts.begin(), texts.end(), "FixFirewall end"), 2);
    });
}

TEST_F(VFixFirewallTest, LeavesNothingOpenBetweenThePasses) {
    InChild([] {
        const Replaced start(calls::popen, InHelpersPlace("echo line; exit 1"));
        std::vector<int> descriptors;
        std::vector<long> blocks;
        const Replaced sleep(calls::nanosleep, [&](const timespec*, timespec*) {
            LogRecorder::Clear();
            descriptors.push_back(OpenDescriptors());
            blocks.push_back(heap::LiveBlocks());
            if (descriptors.size() == 8) VFixFirewall::FixFirewallStop();
            return 0;
        });
        descriptors.reserve(8);
        blocks.reserve(8);
        // Made before the thread counts blocks.
        const std::string end = "FixFirewallThread exit";
        VFixFirewall::FixFirewallStart();
        EXPECT_TRUE(LogRecorder::WaitFor(end));

        EXPECT_EQ(descriptors.back(), descriptors[1]);
        EXPECT_EQ(blocks.back(), blocks[1]);
    });
}

// The helper tool at its place, in a private view of the file system.

TEST_F(VFixFirewallTest, RunsTheHelperToolWithTheArgumentFirewall) {
    const ScratchDirectory scratch;
    CONTINUE_IN_PRIVATE_NAMESPACE(WithHelperTool(scratch, "echo \"told $# $*\"\n"));

    RunPasses(1);

    EXPECT_THAT(LogRecorder::Lines(),
                ElementsAreArray(RunLines(PassLines({Output("told 1 Firewall\n"), Status(0)}))));
}

TEST_F(VFixFirewallTest, LogsTheShellsStatusForAHelperToolThatWasKilled) {
    SKIP_WITHOUT_PROGRAM("/bin/dash");
    const ScratchDirectory scratch;
    CONTINUE_IN_PRIVATE_NAMESPACE(
        Concatenate(WithHelperTool(scratch, "kill -9 $$\n"), WithShell("/bin/dash")));

    RunPasses(1);

    EXPECT_THAT(LogRecorder::Lines(), ElementsAreArray(RunLines(PassLines({Status(137)}))));
}

TEST_F(VFixFirewallTest, LogsTheRawStatusWhereTheShellReplacedItselfByAHelperToolThatWasKilled) {
    SKIP_WITHOUT_PROGRAM("/bin/bash");
    const ScratchDirectory scratch;
    CONTINUE_IN_PRIVATE_NAMESPACE(
        Concatenate(WithHelperTool(scratch, "kill -9 $$\n"), WithShell("/bin/bash")));

    RunPasses(1);

    EXPECT_THAT(LogRecorder::Lines(), ElementsAreArray(RunLines(PassLines({Status(9)}))));
}

TEST_F(VFixFirewallTest, LogsTheShellsStatusForAMissingHelperTool) {
    CONTINUE_IN_PRIVATE_NAMESPACE(WithoutHelperTool());

    RunPasses(2);

    const std::vector<LogLine> pass = PassLines({Status(127)});
    EXPECT_THAT(LogRecorder::Lines(), ElementsAreArray(RunLines(Joined({pass, pass}))));
}

TEST_F(VFixFirewallTest, LetsTheProcessExitWhileItRepairs) {
    const ScratchDirectory scratch;
    CONTINUE_IN_PRIVATE_NAMESPACE(WithHelperTool(scratch, "echo line\n"));

    for (int round = 0; round < 20; ++round) {
        InChild([] {
            VFixFirewall::FixFirewallStart();
            exit(0);  // destroys the static objects, unlike a child's usual way out
        });
    }
}

TEST_F(VFixFirewallTest, LogsTheRawStatusWhereTheProcessIgnoresItsChildren) {
    InChild([] {
        signal(SIGCHLD, SIG_IGN);
        const Replaced start(calls::popen, InHelpersPlace("echo line"));
        RunPasses(1);
        EXPECT_THAT(LogRecorder::Lines(),
                    ElementsAreArray(RunLines(PassLines({Output("line\n"), Status(-1)}))));
    });
}

}  // namespace
