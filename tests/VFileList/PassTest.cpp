#include "Pass.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <string>

#include "Package.h"
#include "Report.h"
#include "SystemCalls.h"

namespace {

using testing::ElementsAre;

class PassTest : public testing::Test {
protected:
    PassTest() {
        package_.Bring("tool", "new");
        package_.Install("tool", "old");
        package_.WriteEntries("tool");
    }

    Trouble Run(
        const char* pass, const std::function<void()>& watch = [] {}) {
        return RunPass(pass, package_.ListPath(), signals_, watch, [] {});
    }

    const Package package_;
    const Variable logDirectory_{"VLOGGER_DIRECTORY", package_.scratch().Path("log").c_str()};
    Signals signals_;
};

TEST_F(PassTest, RunsEachPassOfTheTool) {
    EXPECT_EQ(Run("-rename"), std::nullopt);
    EXPECT_THAT(package_.InstalledNames(), ElementsAre("tool.bak"));
    EXPECT_EQ(Run("-copy"), std::nullopt);
    EXPECT_EQ(package_.Installed("tool"), "new");
    EXPECT_EQ(Run("-clean"), std::nullopt);
    EXPECT_THAT(package_.InstalledNames(), ElementsAre("tool"));

    EXPECT_THAT(package_.scratch().Read("log/TarnFramework_upgrade.log"),
                testing::HasSubstr("Successfully completed"));
}

TEST_F(PassTest, SaysHowAPassFailed) {
    EXPECT_EQ(Run("-what"), "-what ended with status 240; the upgrade log names the file");

    const Replaced replaced(calls::access, [](const char*, int) { return raise(SIGKILL); });
    EXPECT_EQ(Run("-rename"), "-rename was ended by a signal: Killed");
    EXPECT_EQ(package_.Installed("tool"), "old");
}

TEST_F(PassTest, DoesNotBeginUnlessItWouldDieWithItsParent) {
    const std::string trouble = "-rename ended with status 1; the upgrade log names the file";
    {
        const Replaced replaced(calls::prctl, [](auto...) { return -1; });
        EXPECT_EQ(Run("-rename"), trouble);
    }
    {
        const Replaced replaced(calls::getppid, [] { return 1; });
        EXPECT_EQ(Run("-rename"), trouble) << "the parent has died already";
    }
    EXPECT_THAT(package_.InstalledNames(), ElementsAre("tool"));
}

TEST_F(PassTest, DiesWithItsParent) {
    const Replaced replaced(calls::prctl, [](int operation, unsigned long argument, auto...) {
        _exit(operation == PR_SET_PDEATHSIG ? static_cast<int>(argument) : 1);
        return 0;
    });

    EXPECT_EQ(Run("-rename"), "-rename ended with status 9; the upgrade log names the file");
}

TEST_F(PassTest, SaysThatItCannotFork) {
    const Replaced replaced(calls::fork, [] {
        errno = EAGAIN;
        return -1;
    });

    EXPECT_EQ(Run("-rename"), "-rename: Resource temporarily unavailable");
}

TEST_F(PassTest, LeavesNoPassBehindOfWhichNothingCanBeLearnt) {
    pid_t child = 0;
    const Replaced forked(calls::fork, [&child] { return child = calls::real::fork(); });
    const Replaced replaced(calls::waitpid, [](pid_t process, int* status, int options) {
        if ((options & WNOHANG) == 0) return calls::real::waitpid(process, status, options);
        errno = ECHILD;
        return -1;
    });

    EXPECT_EQ(Run("-rename"), "-rename: No child processes");

    EXPECT_EQ(kill(child, 0), -1);
    EXPECT_EQ(errno, ESRCH);
}

TEST_F(PassTest, IsEndedByTheWishToEnd) {
    // The pass asks for its end itself, and waits for it.
    const Replaced replaced(calls::access, [](const char*, int) {
        (void)kill(getppid(), SIGTERM);
        for (;;) (void)pause();
        return 0;
    });
    int looks = 0;

    EXPECT_EQ(Run("-rename", [&looks] { ++looks; }), "-rename was ended by a signal");

    EXPECT_GT(looks, 0);
    EXPECT_TRUE(signals_.IsEndWanted());
    EXPECT_EQ(package_.Installed("tool"), "old");
}

TEST_F(PassTest, IsEndedOnceHoweverOftenItIsAskedFor) {
    int asked = 0;
    const Replaced forked(calls::waitpid, [&asked](pid_t process, int* status, int options) {
        if (++asked < 4) return pid_t{0};
        return calls::real::waitpid(process, status, options & ~WNOHANG);
    });
    ASSERT_EQ(kill(getpid(), SIGINT), 0);

    EXPECT_EQ(Run("-rename"), "-rename was ended by a signal");
    EXPECT_EQ(asked, 4);
}

TEST_F(PassTest, MakesRoomInTheChildBeforeItBegins) {
    int made = 0;
    const auto makeRoom = [&made] { _exit(++made); };
    EXPECT_EQ(RunPass(
                  "-rename", package_.ListPath(), signals_, [] {}, makeRoom),
              "-rename ended with status 1; the upgrade log names the file");

    EXPECT_EQ(made, 0);
    EXPECT_EQ(package_.Installed("tool"), "old");
}

TEST_F(PassTest, ShowsWhatWasReportedBeforeItBegins) {
    std::FILE* const report = std::fopen(package_.scratch().Path("report").c_str(), "w");
    ASSERT_NE(report, nullptr);
    (void)std::fputs("what was done before", report);
    EXPECT_EQ(Run("-rename"), std::nullopt);

    EXPECT_EQ(package_.scratch().Read("report"), "what was done before");
    (void)std::fclose(report);
}

}  // namespace
