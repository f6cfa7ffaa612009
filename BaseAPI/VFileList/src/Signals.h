// Signals while files are moved: a lost terminal is ignored, and the wish to end is asked for between two
// steps.
#ifndef VFILELIST_SIGNALS_H
#define VFILELIST_SIGNALS_H

#include <csignal>

class Signals {
public:
    Signals();
    ~Signals();
    Signals(const Signals&) = delete;
    Signals& operator=(const Signals&) = delete;

    // True once INT or TERM has come.
    bool IsEndWanted();
    // Waits for the end of a child or the wish to end, for a fifth of a second at most.
    void Wait();

private:
    bool Take(const timespec& time);

    sigset_t waited_{};
    sigset_t oldMask_{};
    struct sigaction oldHangup_ {};
    struct sigaction oldChild_ {};
    bool isEndWanted_ = false;
};

#endif
