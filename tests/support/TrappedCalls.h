// A place in front of read, write and sendfile at the border of the kernel, where the calls that the C
// library makes inside its streams pass, too.
#ifndef TESTS_SUPPORT_TRAPPEDCALLS_H
#define TESTS_SUPPORT_TRAPPEDCALLS_H

#include <functional>
#include <string>

struct TrappedCall {
    long number;  // SYS_read, SYS_write or SYS_sendfile
    long arguments[4];
};

// Answers a call in the kernel's place: its result, or a negated errno. Runs inside a signal handler.
using CallAnswer = long (*)(const TrappedCall& call);

// Makes the call after all and returns what the kernel does.
long PassOn(const TrappedCall& call);

// Runs `work` on a thread of its own. While `answer` is not null there, it answers that thread's calls.
void RunTrapped(const std::function<void()>& work);
void SetCallAnswer(CallAnswer answer);

// True when this machine lets a thread trap its calls; otherwise `why` says what prevents it.
bool CanTrapCalls(std::string& why);

#endif
