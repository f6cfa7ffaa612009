#include "Signals.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <initializer_list>
#include <vector>

#include "SystemCalls.h"

namespace {

void SetHandler(int signal, void (*handler)(int)) {
    struct sigaction action {};
    action.sa_handler = handler;
    ASSERT_EQ(sigaction(signal, &action, nullptr), 0);
}

void (*HandlerOf(int signal))(int) {
    struct sigaction action {};
    EXPECT_EQ(sigaction(signal, nullptr, &action), 0);
    return action.sa_handler;
}

bool IsBlocked(int signal) {
    sigset_t mask{};
    EXPECT_EQ(sigprocmask(SIG_BLOCK, nullptr, &mask), 0);
    return sigismember(&mask, signal) == 1;
}

void Send(int signal) {
    ASSERT_EQ(kill(getpid(), signal), 0);
}

TEST(SignalsTest, WantNoEndByThemselves) {
    Signals signals;

    EXPECT_FALSE(signals.IsEndWanted());
}

TEST(SignalsTest, ThatAskForTheEndAreRemembered) {
    for (const int signal : {SIGINT, SIGTERM}) {
        Signals signals;
        Send(signal);
        EXPECT_TRUE(signals.IsEndWanted());
        EXPECT_TRUE(signals.IsEndWanted()) << "asked again";
    }
}

TEST(SignalsTest, AreAllTakenAtOnce) {
    Signals signals;
    for (const int signal : {SIGCHLD, SIGTERM, SIGINT}) Send(signal);
    EXPECT_TRUE(signals.IsEndWanted());

    sigset_t pending{};
    ASSERT_EQ(sigpending(&pending), 0);
    for (const int signal : {SIGCHLD, SIGTERM, SIGINT}) EXPECT_EQ(sigismember(&pending, signal), 0);
}

TEST(SignalsTest, OfAChildOrALostTerminalWantNoEnd) {
    Signals signals;
    Send(SIGHUP);
    Send(SIGCHLD);
    signals.Wait();

    EXPECT_FALSE(signals.IsEndWanted());
}

TEST(SignalsTest, AreWaitedForAFifthOfASecond) {
    Signals signals;
    std::vector<long> waits;
    const Replaced replaced(calls::sigtimedwait, [&](const sigset_t*, siginfo_t*, const timespec* time) {
        waits.push_back(time->tv_nsec);
        return -1;
    });
    signals.Wait();

    EXPECT_EQ(waits, std::vector<long>{200'000'000});
}

TEST(SignalsTest, ThatEndAWaitAreRemembered) {
    Signals signals;
    Send(SIGTERM);
    signals.Wait();

    EXPECT_TRUE(signals.IsEndWanted());
}

TEST(SignalsTest, AreWaitedForOnlyForAWhile) {
    Signals signals;
    signals.Wait();

    EXPECT_FALSE(signals.IsEndWanted());
}

TEST(SignalsTest, AreAfterwardsAsBefore) {
    SetHandler(SIGHUP, [](int) {});
    const auto handler = HandlerOf(SIGHUP);
    SetHandler(SIGCHLD, SIG_IGN);
    {
        const Signals signals;
        EXPECT_EQ(HandlerOf(SIGHUP), SIG_IGN);
        EXPECT_EQ(HandlerOf(SIGCHLD), SIG_DFL) << "else nobody would be told how a child ended";
        for (const int signal : {SIGINT, SIGTERM, SIGCHLD}) EXPECT_TRUE(IsBlocked(signal));
    }

    EXPECT_EQ(HandlerOf(SIGHUP), handler);
    EXPECT_EQ(HandlerOf(SIGCHLD), SIG_IGN);
    for (const int signal : {SIGINT, SIGTERM, SIGCHLD}) EXPECT_FALSE(IsBlocked(signal));
    SetHandler(SIGHUP, SIG_DFL);
    SetHandler(SIGCHLD, SIG_DFL);
}

TEST(SignalsTest, ThatComeTooLateDoNotEndTheProcess) {
    {
        const Signals signals;
        Send(SIGTERM);
    }

    EXPECT_FALSE(IsBlocked(SIGTERM)) << "this process is still here";
}

}  // namespace
