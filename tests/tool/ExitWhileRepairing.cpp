// Starts the firewall fixer and exits while its thread is at work, after as many microseconds as the first
// argument says.
#include <chrono>
#include <cstdlib>
#include <thread>

#include "VFixFirewall.h"
#include "VLogger.h"

int main(int argc, char* argv[]) {
    VLogger::GetInstance()->StartSystem("exit.log", "/tmp/log", 1, 2, kLogLevelInformation, 1024, false);
    VFixFirewall::FixFirewallStart();
    // Not to wait for anything, but to meet the thread at another point of its work each time.
    std::this_thread::sleep_for(std::chrono::microseconds(argc > 1 ? std::atoi(argv[1]) : 0));
    if (argc > 2) VLogger::GetInstance()->StopSystem();
    return 0;
}
