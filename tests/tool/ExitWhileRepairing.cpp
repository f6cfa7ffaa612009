// Starts the firewall fixer and exits while its thread is at work; stops the log before if there is an
// argument.
#include "VFixFirewall.h"
#include "VLogger.h"

int main(int argc, char* /*argv*/[]) {
    VLogger::GetInstance()->StartSystem("exit.log", "/tmp/log", 1, 2, kLogLevelInformation, 1024, false);
    VFixFirewall::FixFirewallStart();
    if (argc > 1) VLogger::GetInstance()->StopSystem();
    return 0;
}
