// A service that keeps the host's firewall repaired until it is told to end.
//
// FixFirewallStart is called once: a second call would start a second thread. FixFirewallStop does not wait;
// the thread ends with the process.
//
//     c++ -std=c++17 -o FirewallService FirewallService.cpp $(pkg-config --cflags --libs VFileSys) -lVLogger
//     FirewallService            ends with SIGTERM or SIGINT
#include <signal.h>

#include <cstdio>
#include <system_error>

#include "VFixFirewall.h"
#include "VLogger.h"

int main() {
    // Blocked before any thread is made, so that the repairing thread inherits it and sigwait gets the
    // signals.
    sigset_t ending;
    sigemptyset(&ending);
    sigaddset(&ending, SIGTERM);
    sigaddset(&ending, SIGINT);
    pthread_sigmask(SIG_BLOCK, &ending, nullptr);

    VLogger::GetInstance()->StartSystem("firewall.log", "/var/log/firewall-service", 3, 2,
                                        kLogLevelInformation, 2048, false);
    try {
        VFixFirewall::FixFirewallStart();
    } catch (const std::system_error& error) {
        std::fprintf(stderr, "no thread: %s\n", error.what());
        return 1;
    }
    std::printf("repairing every five minutes\n");
    std::fflush(stdout);

    int signalNumber = 0;
    sigwait(&ending, &signalNumber);

    VFixFirewall::FixFirewallStop();
    VLogger::GetInstance()->StopSystem();
    std::printf("ended\n");
    return 0;
}
