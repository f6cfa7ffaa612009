// Runs a program with all processes that it starts, counts their system calls together, and does something to
// them at one of these calls.
#ifndef TESTS_SUPPORT_TRACEDTREE_H
#define TESTS_SUPPORT_TRACEDTREE_H

#include <array>
#include <functional>
#include <string>
#include <vector>

struct TreeEvent {
    long at = 0;  // the number of the call, from 1 on; 0: nothing happens
    // Unless there is an error: every process is killed before the call is made.
    int error = 0;                              // the call is not made and fails with this number
    bool isOnwards = false;                     // so do all calls that follow it, in all processes
    std::function<void()> interfere = nullptr;  // is done before the call instead; nothing fails
    // Unless it is empty, only calls that have to do with a file below one of these directories count: the
    // others leave them as they are. Nor does what the program does while a child of it is at work, which
    // only watches it, at moments that are different each time.
    std::vector<std::string> directories = {};
    std::string except = {};  // but for this file
    std::string output = {};  // the file that standard output goes to; empty: nowhere
};

struct TreeCall {
    long number = 0;                 // of the system call
    bool isOfProgram = false;        // and not of a child
    bool isByDescriptor = false;     // the path is that of the descriptor that the call was given
    std::vector<std::string> paths;  // below one of the directories
    std::array<unsigned long, 6> arguments{};
};

struct TreeRun {
    bool hasHappened = false;
    int exitStatus = -1;          // of the program; -1 when it was killed
    std::vector<TreeCall> calls;  // those that count, in their order
};

TreeRun RunTracedTree(const std::vector<std::string>& command, const std::vector<std::string>& environment,
                      const TreeEvent& event);

#endif
