#include "TracedTree.h"

#include <fcntl.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <sys/user.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <map>
#include <set>
#include <stdexcept>

namespace {

// So many that only a program which goes round in circles makes them.
constexpr std::size_t kMostCalls = 60000;

[[noreturn]] void BecomeTraced(const std::vector<char*>& arguments,
                               const std::vector<std::string>& environment, const std::string& output) {
    const int nothing = open("/dev/null", O_RDWR | O_CLOEXEC);
    for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) (void)dup2(nothing, stream);
    if (!output.empty()) {
        const int file = open(output.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
        if (dup2(file, STDOUT_FILENO) < 0) _exit(125);
    }
    for (const std::string& variable : environment) (void)putenv(const_cast<char*>(variable.c_str()));
    if (ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) != 0) _exit(126);
    (void)execv(arguments[0], arguments.data());
    _exit(127);
}

// These never fail in such a way (the C library gives up when a futex does), or what they end has to end.
bool CanFail(long call) {
    return call != SYS_exit && call != SYS_exit_group && call != SYS_rt_sigreturn && call != SYS_futex &&
           call != SYS_umask;
}

// The text at an address of the process, as far as it is there; empty when nothing is.
std::string TextAt(pid_t process, unsigned long address) {
    constexpr unsigned long kPage = 4096;
    std::array<char, kPage> block{};
    const iovec here = {block.data(), kPage - address % kPage};  // the next page may not be there
    const iovec there = {reinterpret_cast<void*>(address), here.iov_len};
    const ssize_t length = process_vm_readv(process, &here, 1, &there, 1, 0);
    if (length <= 0) return "";
    std::string text(block.data(), strnlen(block.data(), static_cast<std::size_t>(length)));
    if (static_cast<std::size_t>(length) == text.size()) text += TextAt(process, address + text.size());
    return text;
}

std::string PathOfDescriptor(pid_t process, unsigned long descriptor) {
    constexpr unsigned long kMostDescriptors = 1024;
    if (descriptor >= kMostDescriptors) return "";
    const std::string link = "/proc/" + std::to_string(process) + "/fd/" + std::to_string(descriptor);
    std::array<char, 4096> text{};
    const ssize_t length = readlink(link.c_str(), text.data(), text.size());
    return {text.data(), static_cast<std::size_t>(std::max<ssize_t>(length, 0))};
}

bool IsBelow(const std::string& path, const TreeEvent& event) {
    if (path == event.except) return false;
    return std::any_of(
        event.directories.begin(), event.directories.end(),
        [&path](const std::string& directory) { return path.compare(0, directory.size(), directory) == 0; });
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
    void ExpectChild(pid_t parent);
    TreeCall CallOf(pid_t process, const user_regs_struct& registers) const;
    bool Counts(const TreeCall& call) const;
    void KillAll();

    const pid_t program_;
    const TreeEvent& event_;
    TreeRun run_;
    std::map<pid_t, bool> isInside_;
    std::map<pid_t, bool> isFailing_;
    std::set<pid_t> announced_;  // by their parents; they have not stopped yet
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
    const bool isNew = announced_.erase(process) == 1 || isInside_.count(process) == 0;
    if (isNew) isInside_[process] = false;
    if (status >> 8 == (SIGTRAP | PTRACE_EVENT_FORK << 8)) ExpectChild(process);
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
    TreeCall found = CallOf(process, registers);
    if (!Counts(found)) return;
    run_.calls.push_back(std::move(found));
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

// It may be at work before it is first heard of.
void Tracer::ExpectChild(pid_t parent) {
    unsigned long child = 0;
    if (ptrace(PTRACE_GETEVENTMSG, parent, nullptr, &child) != 0) return;
    const auto process = static_cast<pid_t>(child);
    if (isInside_.emplace(process, false).second) announced_.insert(process);
}

TreeCall Tracer::CallOf(pid_t process, const user_regs_struct& registers) const {
    TreeCall call;
    call.number = static_cast<long>(registers.orig_rax);
    call.isOfProgram = process == program_;
    call.arguments = {static_cast<unsigned long>(registers.rdi), static_cast<unsigned long>(registers.rsi),
                      static_cast<unsigned long>(registers.rdx), static_cast<unsigned long>(registers.r10),
                      static_cast<unsigned long>(registers.r8),  static_cast<unsigned long>(registers.r9)};
    if (event_.directories.empty()) return call;
    // In every call the paths are among these.
    for (const std::size_t argument : {0U, 1U, 3U}) {
        const std::string text = TextAt(process, call.arguments[argument]);
        if (IsBelow(text, event_)) call.paths.push_back(text);
    }
    if (!call.paths.empty()) return call;
    const std::string path = PathOfDescriptor(process, call.arguments[0]);
    call.isByDescriptor = IsBelow(path, event_);
    if (call.isByDescriptor) call.paths.push_back(path);
    return call;
}

bool Tracer::Counts(const TreeCall& call) const {
    if (event_.directories.empty()) return true;
    const bool onlyWatches = call.isOfProgram && isInside_.size() > 1;
    return !call.paths.empty() && !onlyWatches;
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
    if (program == 0) BecomeTraced(arguments, environment, event.output);

    int status = 0;
    if (waitpid(program, &status, 0) != program || !WIFSTOPPED(status))
        throw std::runtime_error("can't trace");
    constexpr long kOptions = PTRACE_O_TRACESYSGOOD | PTRACE_O_EXITKILL | PTRACE_O_TRACEFORK |
                              PTRACE_O_TRACEVFORK | PTRACE_O_TRACECLONE;
    (void)ptrace(PTRACE_SETOPTIONS, program, nullptr, kOptions);
    (void)ptrace(PTRACE_SYSCALL, program, nullptr, nullptr);
    return Tracer(program, event).Run();
}
