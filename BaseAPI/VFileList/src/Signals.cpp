// Blocks the signals that are asked for, so that none can come between a question and a step.
#include "Signals.h"

#include <ctime>
#include <initializer_list>

Signals::Signals() {
    (void)sigemptyset(&waited_);
    for (const int signal : {SIGINT, SIGTERM, SIGCHLD}) (void)sigaddset(&waited_, signal);
    (void)sigprocmask(SIG_BLOCK, &waited_, &oldMask_);
    struct sigaction ignored {};
    ignored.sa_handler = SIG_IGN;
    (void)sigaction(SIGHUP, &ignored, &oldHangup_);
    // Where it is ignored, nobody would be told how a child ended.
    struct sigaction usual {};
    usual.sa_handler = SIG_DFL;
    (void)sigaction(SIGCHLD, &usual, &oldChild_);
}

Signals::~Signals() {
    (void)sigaction(SIGHUP, &oldHangup_, nullptr);
    (void)IsEndWanted();  // one that came too late would end the process otherwise
    (void)sigaction(SIGCHLD, &oldChild_, nullptr);
    (void)sigprocmask(SIG_SETMASK, &oldMask_, nullptr);
}

bool Signals::IsEndWanted() {
    while (Take({})) {
    }
    return isEndWanted_;
}

void Signals::Wait() {
    constexpr long kFifthOfASecond = 200'000'000;
    (void)Take({0, kFifthOfASecond});
}

// False when none has come.
bool Signals::Take(const timespec& time) {
    const int signal = sigtimedwait(&waited_, nullptr, &time);
    isEndWanted_ = isEndWanted_ || signal == SIGINT || signal == SIGTERM;
    return signal > 0;
}
