// The thread that has the helper tool repair the firewall, and the runner of its shell command.
#include "VFixFirewall.h"

#include <atomic>
#include <cstddef>
#include <cstdio>
#include <ctime>
#include <thread>

#include "Constants.h"
#include "Log.h"
#include "PipeStream.h"
#include "safestr.h"

namespace {

const char kHelperTool[] = "/usr/local/tarnserver/bin/tarnfileprotect";
constexpr std::size_t kCommandCapacity = 4096;
constexpr std::size_t kOutputCapacity = 4096;
constexpr timespec kRepairPeriod = {300, 0};

// Set to false once and never back. Nothing else is published through it.
std::atomic<bool> fixFirewallRunning{true};

// The parts of a wait status as pclose gives it.
bool EndedByExit(int waitStatus) {
    return (waitStatus & 0x7f) == 0;
}
int ExitCode(int waitStatus) {
    return (waitStatus >> 8) & 0xff;
}

int ProcessCmd(const char* cmd) {
    VFS_LOG("ProcessCmd", kLogInfo, "ProcessCmd in VFileSys");
    VFS_LOG("ProcessCmd", kLogInfo, "%s", cmd);

    char output[kOutputCapacity] = {};
    PipeStream command(cmd);
    if (!command) {
        VFS_LOG("ProcessCmd", kLogError, "popen failed");
        return kFailure;
    }
    // One byte less than there is: where a long line is cut is what log readers know.
    while (fgets(output, sizeof(output) - 1, command.Get()) != nullptr) {
        VFS_LOG("ProcessCmd", kLogInfo, "%s", output);
    }

    const int waitStatus = command.Close();
    if (!EndedByExit(waitStatus)) {
        VFS_LOG("ProcessCmd", kLogInfo, "ProcessCmd in VFileSys, rs = %d", waitStatus);
        return kFailure;
    }
    const int exitCode = ExitCode(waitStatus);
    VFS_LOG("ProcessCmd", kLogInfo, "ProcessCmd in VFileSys, rs = %d", exitCode);
    return exitCode == 0 ? kSuccess : kFailure;
}

void FixFirewall() {
    VFS_LOG("FixFirewall", kLogInfo, "FixFirewall");
    char command[kCommandCapacity];
    if (sprintf_s(command, sizeof(command), "%s Firewall", kHelperTool) < 0) {
        VFS_LOG("FixFirewall", kLogError, "sprintf_s failed!");
        return;
    }
    (void)ProcessCmd(command);  // a failed pass is in the log, and the next one comes anyway
    VFS_LOG("FixFirewall", kLogInfo, "FixFirewall end");
}

// Touches nothing that ends with the process's static objects: it may still run while the process exits.
void FixFirewallThread() {
    VFS_LOG("FixFirewallThread", kLogInfo, "FixFirewallThread");
    while (fixFirewallRunning.load(std::memory_order_relaxed)) {
        FixFirewall();
        (void)nanosleep(&kRepairPeriod, nullptr);  // a signal may shorten it
    }
    VFS_LOG("FixFirewallThread", kLogInfo, "FixFirewallThread exit");
}

}  // namespace

void VFixFirewall::FixFirewallStart() {
    VFS_LOG("FixFirewallStart", kLogInfo, "FixFirewallStart");
    std::thread(FixFirewallThread).detach();
}

void VFixFirewall::FixFirewallStop() {
    VFS_LOG("FixFirewallStop", kLogInfo, "FixFirewallStop");
    fixFirewallRunning.store(false, std::memory_order_relaxed);
}
