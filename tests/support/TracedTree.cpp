#include "TracedTree.h"

#include <fcntl.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/user.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <map>
#include <stdexcept>

namespace {

// So many that only a program which goes round in circles makes them.
constexpr std::size_t kMostCalls = 60000;

[[noreturn]] void BecomeTraced(const std::vector<char*>& arguments,
                               const std::vector<std::string>& environment) {
    const int nothing = open("/dev/null", O_RDWR | O_CLOEXEC);
    for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) (void)dup2(nothing, stream);
    for (const std::string& variable : environment) (void)putenv(const_cast<char*>(variable.c_str()));
    if (ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) != 0) _exit(126);
    (void)execv(arguments[0], arguments.data());
    _exit(127);
}

// These never fail in such a way (the C library gives up when a futex does), or what they end has to end.
bool CanFail(long call) {
    return call != SYS_exit && call != SYS_exit_group && call != SYS_rt_sigreturn && call != SYS_futex;
}

class Tracer {
public:
    Tracer(pid_t program, const TreeEvent& event) : program_(program), event_(event) {
        isInside_[program] = false;
    }

    TreeRun Run();

private:
    void Stop(pid_t process, int status);
    void EnterCall(pid_t process);
    void LeaveCall(pid_t process);
    void KillAll();

    const pid_t program_;
    const TreeEvent& event_;
    TreeRun run_;
    std::map<pid_t, bool> isInside_;
    std::map<pid_t, bool> isFailing_;
};

TreeRun Tracer::Run() {
    while (!isInside_.empty()) {
        int status = 0;
        const pid_t process = waitpid(-1, &status, __WALL);
        if (process < 0) {
            if (errno == EINTR) continue;
            break;
        }
        if (WIFSTOPPED(status)) {
            Stop(process, status);
            continue;
        }
        if (process == program_ && WIFEXITED(status)) run_.exitStatus = WEXITSTATUS(status);
        isInside_.erase(process);
    }
    return run_;
}

void Tracer::Stop(pid_t process, int status) {
    const bool isNew = isInside_.count(process) == 0;
    if (isNew) isInside_[process] = false;
    int signal = WSTOPSIG(status);
    if (signal == (SIGTRAP | 0x80)) {
        signal = 0;
        isInside_[process] = !isInside_[process];
        if (isInside_[process]) {
            EnterCall(process);
        } else {
            LeaveCall(process);
        }
    } else if (signal == SIGTRAP || (isNew && signal == SIGSTOP)) {
        signal = 0;
    }
    (void)ptrace(PTRACE_SYSCALL, process, nullptr, static_cast<long>(signal));
}

void Tracer::EnterCall(pid_t process) {
    user_regs_struct registers{};
    if (ptrace(PTRACE_GETREGS, process, nullptr, &registers) != 0) return;
    const auto call = static_cast<long>(registers.orig_rax);
    run_.calls.push_back(call);
    if (run_.calls.size() > kMostCalls) KillAll();

    const auto number = static_cast<long>(run_.calls.size());
    const bool isHit = number == event_.at || (event_.isOnwards && run_.hasHappened);
    if (event_.at == 0 || !isHit) return;
    run_.hasHappened = true;
    if (event_.interfere) {
        event_.interfere();
    } else if (event_.error == 0) {
        KillAll();
    } else if (CanFail(call)) {
        registers.orig_rax = static_cast<unsigned long long>(-1);
        (void)ptrace(PTRACE_SETREGS, process, nullptr, &registers);
        isFailing_[process] = true;
    }
}

void Tracer::LeaveCall(pid_t process) {
    if (!isFailing_[process]) return;
    isFailing_[process] = false;
    user_regs_struct registers{};
    if (ptrace(PTRACE_GETREGS, process, nullptr, &registers) != 0) return;
    registers.rax = static_cast<unsigned long long>(-static_cast<long long>(event_.error));
    (void)ptrace(PTRACE_SETREGS, process, nullptr, &registers);
}

void Tracer::KillAll() {
    for (const auto& [process, isInside] : isInside_) (void)kill(process, SIGKILL);
}

}  // namespace

TreeRun RunTracedTree(const std::vector<std::string>& command, const std::vector<std::string>& environment,
                      const TreeEvent& event) {
    std::vector<char*> arguments;
    for (const std::string& text : command) arguments.push_back(const_cast<char*>(text.c_str()));
    arguments.push_back(nullptr);
    const pid_t program = fork();
    if (program < 0) throw std::runtime_error("no process");
    if (program == 0) BecomeTraced(arguments, environment);

    int status = 0;
    if (waitpid(program, &status, 0) != program || !WIFSTOPPED(status))
        throw std::runtime_error("can't trace");
    constexpr long kOptions = PTRACE_O_TRACESYSGOOD | PTRACE_O_EXITKILL | PTRACE_O_TRACEFORK |
                              PTRACE_O_TRACEVFORK | PTRACE_O_TRACECLONE;
    (void)ptrace(PTRACE_SETOPTIONS, program, nullptr, kOptions);
    (void)ptrace(PTRACE_SYSCALL, program, nullptr, nullptr);
    return Tracer(program, event).Run();
}
