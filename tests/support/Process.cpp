#include "Process.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <stdexcept>

namespace {

const char kInsideVariable[] = "VFILESYS_TEST_IN_PRIVATE_NAMESPACE";

// What stands in the environment of whoever runs the tests must not decide one.
const bool kEnvironmentIsClean = [] {
    for (const char* const name : {"TAR_OPTIONS", "VLOGGER_DIRECTORY", "VLOGGER_STDERR"}) unsetenv(name);
    return true;
}();

std::vector<char*> Pointers(const std::vector<std::string>& texts) {
    std::vector<char*> pointers;
    for (const std::string& text : texts) pointers.push_back(const_cast<char*>(text.c_str()));
    pointers.push_back(nullptr);
    return pointers;
}

std::vector<std::string> WholeEnvironment(const std::vector<std::string>& added) {
    std::vector<std::string> whole;
    for (char** variable = environ; *variable != nullptr; ++variable) {
        const std::string text = *variable;
        const std::string name = text.substr(0, text.find('=') + 1);
        bool isReplaced = false;
        for (const std::string& other : added)
            isReplaced = isReplaced || other.compare(0, name.size(), name) == 0;
        if (!isReplaced) whole.push_back(text);
    }
    return Concatenate(whole, added);
}

struct Pipe {
    Pipe() {
        if (pipe2(ends.data(), O_CLOEXEC) != 0) throw std::runtime_error("no pipe");
    }
    std::array<int, 2> ends;
};

// Reads both pipes until their writers are gone.
void Drain(int out, int err, ProcessResult& result) {
    std::array<pollfd, 2> sources = {{{out, POLLIN, 0}, {err, POLLIN, 0}}};
    const std::array<std::string*, 2> texts = {&result.out, &result.err};
    while (sources[0].fd >= 0 || sources[1].fd >= 0) {
        if (poll(sources.data(), sources.size(), -1) < 0 && errno != EINTR) break;
        for (std::size_t i = 0; i < sources.size(); ++i) {
            if (sources[i].fd < 0 || sources[i].revents == 0) continue;
            std::array<char, 65536> block;
            const ssize_t bytesRead = read(sources[i].fd, block.data(), block.size());
            if (bytesRead > 0) {
                texts[i]->append(block.data(), static_cast<std::size_t>(bytesRead));
            } else {
                close(sources[i].fd);
                sources[i].fd = -1;
            }
        }
    }
}

}  // namespace

ProcessResult RunProcess(const std::vector<std::string>& command,
                         const std::vector<std::string>& environment) {
    const Pipe out;
    const Pipe err;
    const std::vector<std::string> variables = WholeEnvironment(environment);
    const std::vector<char*> arguments = Pointers(command);
    const std::vector<char*> variablePointers = Pointers(variables);

    const pid_t child = fork();
    if (child < 0) throw std::runtime_error("no process");
    if (child == 0) {
        const int nothing = open("/dev/null", O_RDONLY | O_CLOEXEC);
        dup2(nothing, STDIN_FILENO);
        dup2(out.ends[1], STDOUT_FILENO);
        dup2(err.ends[1], STDERR_FILENO);
        execvpe(arguments[0], arguments.data(), variablePointers.data());
        _exit(127);
    }
    close(out.ends[1]);
    close(err.ends[1]);

    ProcessResult result{0, -1, "", ""};
    Drain(out.ends[0], err.ends[0], result);
    while (waitpid(child, &result.waitStatus, 0) < 0 && errno == EINTR) {
    }
    if (WIFEXITED(result.waitStatus)) result.exitStatus = WEXITSTATUS(result.waitStatus);
    return result;
}

bool CanUsePrivateNamespace(std::string& why) {
    static const ProcessResult trial = RunProcess(Concatenate(PrivateNamespace({}), {"true"}));
    why = trial.exitStatus == 127 ? "bubblewrap is not installed" : trial.err;
    return trial.exitStatus == 0;
}

std::vector<std::string> PrivateNamespace(const std::vector<std::string>& options) {
    // The source and build trees may themselves lie under /tmp. The latter is writable where programs leave
    // counters in it.
    return Concatenate({"bwrap", "--ro-bind", "/", "/", "--dev", "/dev", "--proc", "/proc", "--tmpfs", "/tmp",
                        "--ro-bind", VFS_SOURCE_DIRECTORY, VFS_SOURCE_DIRECTORY, VFS_BUILD_DIRECTORY_BIND,
                        VFS_BUILD_DIRECTORY, VFS_BUILD_DIRECTORY, "--die-with-parent"},
                       options);
}

std::vector<std::string> WithHelperTool(const ScratchDirectory& scratch, const std::string& script) {
    const std::string path = scratch.Write("helper", "#!/bin/sh\n" + script);
    EXPECT_EQ(chmod(path.c_str(), 0755), 0);
    return Concatenate(WithoutHelperTool(), {"--ro-bind", path, "/usr/local/tarnserver/bin/tarnfileprotect"});
}

std::vector<std::string> WithoutHelperTool() {
    return {"--tmpfs", "/usr/local"};
}

std::vector<std::string> WithShell(const std::string& shell) {
    // Where /bin/sh is a link, what it leads to.
    return {"--ro-bind", shell, std::filesystem::canonical("/bin/sh")};
}

bool IsInPrivateNamespace() {
    return std::getenv(kInsideVariable) != nullptr;
}

void RunThisTestInPrivateNamespace(const std::vector<std::string>& options) {
    const testing::TestInfo& test = *testing::UnitTest::GetInstance()->current_test_info();
    const std::string name = std::string(test.test_suite_name()) + "." + test.name();
    const std::vector<std::string> command = {THIS_PROGRAM_PATH, "--gtest_filter=" + name};

    const ProcessResult run =
        RunProcess(Concatenate(PrivateNamespace(options), command),
                   {"TMPDIR=/tmp", "GTEST_OUTPUT=", std::string(kInsideVariable) + "=1"});

    std::cout << run.out;
    EXPECT_EQ(run.exitStatus, 0) << run.err;
    EXPECT_NE(run.out.find("[       OK ] " + name), std::string::npos) << run.err;
}

std::vector<std::string> Concatenate(std::vector<std::string> left, const std::vector<std::string>& right) {
    left.insert(left.end(), right.begin(), right.end());
    return left;
}
