#include "TracedProcess.h"

#include <fcntl.h>
#include <sys/ptrace.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <stdexcept>

namespace {

// The status of a child that could not ask for being traced: a sandbox or an emulator stands against it.
constexpr int kMayNotBeTraced = 126;

std::vector<char*> Pointers(const std::vector<std::string>& texts) {
    std::vector<char*> pointers;
    for (const std::string& text : texts) pointers.push_back(const_cast<char*>(text.c_str()));
    pointers.push_back(nullptr);
    return pointers;
}

[[noreturn]] void RunChild(const std::vector<char*>& arguments, const std::vector<std::string>& environment) {
    const int nothing = open("/dev/null", O_RDWR | O_CLOEXEC);
    for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) (void)dup2(nothing, stream);
    for (const std::string& variable : environment) (void)putenv(const_cast<char*>(variable.c_str()));
    if (ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) != 0) _exit(kMayNotBeTraced);
    (void)execv(arguments[0], arguments.data());
    _exit(127);
}

int Wait(pid_t child) {
    int status = 0;
    while (waitpid(child, &status, 0) < 0) {
        if (errno != EINTR) throw std::runtime_error("no child to wait for");
    }
    return status;
}

// Lets the child go on to the next border of a system call. A signal on its way is handed on.
int Continue(pid_t child, int signal) {
    if (ptrace(PTRACE_SYSCALL, child, nullptr, static_cast<long>(signal)) != 0) {
        throw std::runtime_error("can't trace");
    }
    return Wait(child);
}

bool IsSystemCallStop(int status) {
    return WIFSTOPPED(status) && WSTOPSIG(status) == (SIGTRAP | 0x80);
}

}  // namespace

TracedRun RunTraced(const std::vector<std::string>& command, const std::vector<std::string>& environment,
                    long killAt) {
    const std::vector<char*> arguments = Pointers(command);
    const pid_t child = fork();
    if (child < 0) throw std::runtime_error("no process");
    if (child == 0) RunChild(arguments, environment);

    int status = Wait(child);  // for the trap behind exec
    if (WIFEXITED(status) && WEXITSTATUS(status) == kMayNotBeTraced) {
        throw std::runtime_error("ptrace is refused");
    }
    if (!WIFSTOPPED(status)) throw std::runtime_error("can't run " + command[0]);
    (void)ptrace(PTRACE_SETOPTIONS, child, nullptr, PTRACE_O_TRACESYSGOOD | PTRACE_O_EXITKILL);

    TracedRun run{0, false, -1};
    bool isInside = false;
    int signal = 0;
    while (true) {
        status = Continue(child, signal);
        if (!WIFSTOPPED(status)) break;
        signal = IsSystemCallStop(status) || WSTOPSIG(status) == SIGTRAP ? 0 : WSTOPSIG(status);
        if (!IsSystemCallStop(status)) continue;
        isInside = !isInside;
        if (!isInside || ++run.systemCalls != killAt) continue;
        (void)kill(child, SIGKILL);
        status = Wait(child);
        run.wasKilled = true;
        break;
    }
    if (WIFEXITED(status)) run.exitStatus = WEXITSTATUS(status);
    return run;
}

bool CanTrace(std::string& why) {
    try {
        const TracedRun run = RunTraced({"/bin/true"}, {}, 0);
        if (run.exitStatus == 0 && run.systemCalls > 0) return true;
        why = "a traced program did not run";
    } catch (const std::exception& error) {
        why = error.what();
    }
    return false;
}
