// Runs a program under a tracer that counts its system calls and can kill it before any one of them.
#ifndef TESTS_SUPPORT_TRACEDPROCESS_H
#define TESTS_SUPPORT_TRACEDPROCESS_H

#include <string>
#include <vector>

struct TracedRun {
    long systemCalls;
    bool wasKilled;
    int exitStatus;  // -1 when it was killed
};

// Runs `command` with the variables NAME=VALUE of `environment` added, standard streams on /dev/null. Kills
// it with SIGKILL before its `killAt`th system call, counted from 1 since exec; 0 lets it run to its end.
TracedRun RunTraced(const std::vector<std::string>& command, const std::vector<std::string>& environment,
                    long killAt);

// True when this machine lets a process trace its child; otherwise `why` tells what stands against it.
bool CanTrace(std::string& why);

#endif
