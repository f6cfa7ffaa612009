// Runs programs the way a shell would, and private views of the file system to run them in.
#ifndef TESTS_SUPPORT_PROCESS_H
#define TESTS_SUPPORT_PROCESS_H

#include <string>
#include <vector>

#include "ScratchDirectory.h"

struct ProcessResult {
    int waitStatus;  // as waitpid gives it
    int exitStatus;  // 0 to 255, or -1 when it did not exit by itself
    std::string out;
    std::string err;
};

// Runs `command` (a program, looked up in PATH, and its arguments) with the variables NAME=VALUE of
// `environment` added, no standard input, and waits for its end.
ProcessResult RunProcess(const std::vector<std::string>& command,
                         const std::vector<std::string>& environment = {});

// True when this machine lets the user make a private mount namespace with bubblewrap; otherwise `why` tells
// what stands against it.
bool CanUsePrivateNamespace(std::string& why);

// The bubblewrap command that sees the whole host read-only, and of its own: /dev, /proc, an empty /tmp, and
// whatever `options` add (for instance {"--tmpfs", "/var/log"}). What is to be run follows it.
std::vector<std::string> PrivateNamespace(const std::vector<std::string>& options);

// The options of a private namespace in which the product's helper tool is the shell's `script`, which is
// kept in `scratch`, and of one in which there is no helper tool.
std::vector<std::string> WithHelperTool(const ScratchDirectory& scratch, const std::string& script);
std::vector<std::string> WithoutHelperTool();

// The options that put the program `shell` in the place of /bin/sh.
std::vector<std::string> WithShell(const std::string& shell);

// True inside a test that CONTINUE_IN_PRIVATE_NAMESPACE has started again.
bool IsInPrivateNamespace();

// Runs the current test once more, as a process of its own in a private namespace with `options`, and fails
// when it fails there.
void RunThisTestInPrivateNamespace(const std::vector<std::string>& options);

std::vector<std::string> Concatenate(std::vector<std::string> left, const std::vector<std::string>& right);

// Leaves the test as skipped, aloud, where there is no private namespace.
#define SKIP_WITHOUT_PRIVATE_NAMESPACE()                                                         \
    do {                                                                                         \
        std::string why;                                                                         \
        if (!CanUsePrivateNamespace(why)) GTEST_SKIP() << "no private mount namespace: " << why; \
    } while (false)

// Lets the rest of the test, and its fixture anew, run in a private namespace with `options`, for what has
// fixed paths. Stands first in the test.
#define CONTINUE_IN_PRIVATE_NAMESPACE(options)      \
    do {                                            \
        if (!IsInPrivateNamespace()) {              \
            SKIP_WITHOUT_PRIVATE_NAMESPACE();       \
            RunThisTestInPrivateNamespace(options); \
            return;                                 \
        }                                           \
    } while (false)

// Leaves the test as skipped, aloud, where the program is not installed.
#define SKIP_WITHOUT_PROGRAM(path)                                                     \
    do {                                                                               \
        if (access(path, X_OK) != 0) GTEST_SKIP() << "this machine has no " << (path); \
    } while (false)

// Leaves the test as skipped, aloud, for an ordinary user.
#define SKIP_UNLESS_ROOT()                                           \
    do {                                                             \
        if (geteuid() != 0) GTEST_SKIP() << "only root can do this"; \
    } while (false)

#endif
