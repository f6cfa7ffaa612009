// A library to load in libVLogger.so's place, which holds the end of the process up: libVFileSys.so stands on
// it, so its own end comes after all of libVFileSys.so's static objects are gone. There it lets the firewall
// fixer's thread out of its sleep for one more pass.
#include <time.h>

#include <condition_variable>
#include <mutex>

#include "VLogger.h"

namespace {

struct Gate {
    std::mutex mutex;
    std::condition_variable changed;
    int sleeps = 0;
    bool isOpen = false;
};

// Never destroyed; the thread goes on until the process is gone.
Gate& TheGate() {
    static Gate& gate = *new Gate;
    return gate;
}

void WaitForSleeps(int count) {
    std::unique_lock<std::mutex> lock(TheGate().mutex);
    TheGate().changed.wait(lock, [count] { return TheGate().sleeps >= count; });
}

__attribute__((destructor)) void LetOneMorePassRun() {
    WaitForSleeps(1);
    {
        const std::lock_guard<std::mutex> lock(TheGate().mutex);
        TheGate().isOpen = true;
    }
    TheGate().changed.notify_all();
    WaitForSleeps(2);
}

}  // namespace

extern "C" __attribute__((visibility("default"))) int nanosleep(const timespec* /*request*/,
                                                                timespec* /*left*/) {
    std::unique_lock<std::mutex> lock(TheGate().mutex);
    const int sleeps = ++TheGate().sleeps;
    TheGate().changed.notify_all();
    TheGate().changed.wait(lock, [sleeps] { return TheGate().isOpen && sleeps < 2; });
    return 0;
}

VLogger* VLogger::GetInstance() {
    static VLogger instance;
    return &instance;
}

void VLogger::StartSystem(const char*, const char*, int, int, LogLevel, unsigned long, bool) {}

void VLogger::Log(const char*, int, const char*, const char*, const char*, LogLevel, const char*, ...) {}

void VLogger::StopSystem() {}
