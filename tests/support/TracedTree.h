// Runs a program with all processes that it starts, counts their system calls together, and does something to
// them at one of these calls.
#ifndef TESTS_SUPPORT_TRACEDTREE_H
#define TESTS_SUPPORT_TRACEDTREE_H

#include <functional>
#include <string>
#include <vector>

struct TreeEvent {
    long at = 0;  // the number of the call, from 1 on; 0: nothing happens
    // Unless there is an error: every process is killed before the call is made.
    int error = 0;                              // the call is not made and fails with this number
    bool isOnwards = false;                     // so do all calls that follow it, in all processes
    std::function<void()> interfere = nullptr;  // is done before the call instead; nothing fails
};

struct TreeRun {
    bool hasHappened = false;
    int exitStatus = -1;      // of the program; -1 when it was killed
    std::vector<long> calls;  // the numbers of the system calls in their order
};

TreeRun RunTracedTree(const std::vector<std::string>& command, const std::vector<std::string>& environment,
                      const TreeEvent& event);

#endif
