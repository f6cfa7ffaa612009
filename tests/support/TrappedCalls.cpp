#include "TrappedCalls.h"

#include <gtest/gtest.h>
#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <ucontext.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <thread>

namespace {

// In the last argument, which none of the calls has: not to be trapped again.
constexpr std::uint32_t kPass = 0x56465370;

thread_local CallAnswer callAnswer = nullptr;

#if defined(__x86_64__)
constexpr std::uint32_t kProcessor = AUDIT_ARCH_X86_64;

TrappedCall CallOf(const ucontext_t& context) {
    const auto& registers = context.uc_mcontext.gregs;
    return {registers[REG_RAX],
            {registers[REG_RDI], registers[REG_RSI], registers[REG_RDX], registers[REG_R10]}};
}

void SetResult(ucontext_t& context, long result) {
    context.uc_mcontext.gregs[REG_RAX] = result;
}
#elif defined(__aarch64__)
constexpr std::uint32_t kProcessor = AUDIT_ARCH_AARCH64;

TrappedCall CallOf(const ucontext_t& context) {
    const auto& registers = context.uc_mcontext.regs;
    return {static_cast<long>(registers[8]),
            {static_cast<long>(registers[0]), static_cast<long>(registers[1]),
             static_cast<long>(registers[2]), static_cast<long>(registers[3])}};
}

void SetResult(ucontext_t& context, long result) {
    context.uc_mcontext.regs[0] = static_cast<unsigned long>(result);
}
#endif

void HandleTrap(int /*signal*/, siginfo_t* /*info*/, void* given) {
    const int error = errno;
    ucontext_t& context = *static_cast<ucontext_t*>(given);
    const TrappedCall call = CallOf(context);
    SetResult(context, callAnswer != nullptr ? callAnswer(call) : PassOn(call));
    errno = error;
}

constexpr sock_filter Load(std::size_t offset) {
    return {BPF_LD | BPF_W | BPF_ABS, 0, 0, static_cast<std::uint32_t>(offset)};
}

constexpr sock_filter Jump(std::uint32_t value, std::uint8_t ifEqual, std::uint8_t ifNot) {
    return {BPF_JMP | BPF_JEQ | BPF_K, ifEqual, ifNot, value};
}

// For the rest of the thread's life; there is no way to take a filter away.
bool TrapThisThread() {
    sock_filter filter[] = {
        Load(offsetof(seccomp_data, arch)),
        Jump(kProcessor, 0, 6),
        Load(offsetof(seccomp_data, nr)),
        Jump(SYS_read, 2, 0),
        Jump(SYS_write, 1, 0),
        Jump(SYS_sendfile, 0, 2),
        Load(offsetof(seccomp_data, args[5])),
        Jump(kPass, 0, 1),
        {BPF_RET | BPF_K, 0, 0, SECCOMP_RET_ALLOW},
        {BPF_RET | BPF_K, 0, 0, SECCOMP_RET_TRAP},
    };
    const sock_fprog program = {sizeof(filter) / sizeof(filter[0]), filter};
    return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
           prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0;
}

}  // namespace

long PassOn(const TrappedCall& call) {
    const long* const given = call.arguments;
    const long result = syscall(call.number, given[0], given[1], given[2], given[3], 0L, long{kPass});
    return result == -1 ? -errno : result;
}

void SetCallAnswer(CallAnswer answer) {
    callAnswer = answer;
}

void RunTrapped(const std::function<void()>& work) {
    struct sigaction handling = {};
    struct sigaction old = {};
    handling.sa_sigaction = HandleTrap;
    handling.sa_flags = SA_SIGINFO;
    ASSERT_EQ(sigaction(SIGSYS, &handling, &old), 0);
    std::thread([&work] {
        ASSERT_TRUE(TrapThisThread()) << std::strerror(errno);
        work();
    }).join();
    ASSERT_EQ(sigaction(SIGSYS, &old, nullptr), 0);
}

bool CanTrapCalls(std::string& why) {
    const pid_t child = fork();
    if (child == 0) {
        bool hasTrapped = false;
        RunTrapped([&hasTrapped] {
            SetCallAnswer([](const TrappedCall&) { return long{-EDOM}; });
            hasTrapped = write(-1, "", 1) == -1 && errno == EDOM;
            SetCallAnswer(nullptr);
            hasTrapped = hasTrapped && write(-1, "", 1) == -1 && errno == EBADF;
        });
        _exit(hasTrapped ? 0 : 1);
    }
    int status = 0;
    const bool hasEnded = waitpid(child, &status, 0) == child;
    // What runs the program, such as valgrind, an emulator or a sanitizer, makes calls of its own.
    why = "a process that tries to ends with " + std::to_string(status);
    return hasEnded && status == 0;
}
