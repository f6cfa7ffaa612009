// Forks, and waits.
#include "Pass.h"

#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>

extern "C" int VCopyFileListIniMain(int argc, char* argv[]);

namespace {

// An exception ends the child here: whoever catches one further up is the upgrade, which is the parent's.
[[noreturn]] void BeThePass(const std::string& pass, const std::string& iniPath, pid_t parent,
                            const std::function<void()>& makeRoom) noexcept {
    makeRoom();
    std::string program = "VCopyFileListIni";
    std::array<std::string, 2> texts = {pass, iniPath};
    std::array<char*, 4> arguments = {program.data(), texts[0].data(), texts[1].data(), nullptr};
    const bool diesWithParent = prctl(PR_SET_PDEATHSIG, SIGKILL) == 0 && getppid() == parent;
    _exit(diesWithParent ? VCopyFileListIniMain(3, arguments.data()) : 1);
}

Trouble Judge(const char* pass, int waitStatus) {
    if (waitStatus == 0) return std::nullopt;
    if (WIFSIGNALED(waitStatus)) {
        return std::string(pass) + " was ended by a signal: " + strsignal(WTERMSIG(waitStatus));
    }
    return std::string(pass) + " ended with status " + std::to_string(WEXITSTATUS(waitStatus)) +
           "; the upgrade log names the file";
}

// A child of which nothing can be learnt must not go on.
Trouble AbandonedBy(pid_t child, const char* pass) {
    Trouble trouble = TroubleWith(pass, errno);
    (void)kill(child, SIGKILL);
    (void)waitpid(child, nullptr, 0);
    return trouble;
}

}  // namespace

Trouble RunPass(const char* pass, const std::string& iniPath, Signals& signals,
                const std::function<void()>& watch, const std::function<void()>& makeRoom) {
    (void)std::fflush(nullptr);  // a pass may take long: who reads the report sees what was done before
    const pid_t parent = getpid();
    const pid_t child = fork();
    if (child < 0) return TroubleWith(pass, errno);
    if (child == 0) BeThePass(pass, iniPath, parent, makeRoom);

    int waitStatus = 0;
    bool isStopped = false;
    for (;;) {
        const pid_t ended = waitpid(child, &waitStatus, WNOHANG);
        if (ended == child) break;
        if (ended < 0) return AbandonedBy(child, pass);
        if (signals.IsEndWanted() && !isStopped) {
            isStopped = true;
            (void)kill(child, SIGKILL);
        }
        watch();
        signals.Wait();
    }
    if (isStopped) return std::string(pass) + " was ended by a signal";
    return Judge(pass, waitStatus);
}
