// Loads libVFileSys.so, as a host loads a plug-in, gives it back with dlclose, and prints what the library
// logs. The program must not be linked with the library: dlclose has to drop the last reference.
//
//     LoadAndUnload LIBRARY stopped    stops the firewall fixer, reloads the library, and starts the fixer
//     LoadAndUnload LIBRARY started    starts the fixer, and unloads the library below its thread
#include <dlfcn.h>
#include <time.h>
#include <unistd.h>

#include <condition_variable>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string>

#include "VLogger.h"

namespace {

// How far the fixer's thread has come. Never destroyed: the thread may outlive main.
struct Progress {
    std::mutex mutex;
    std::condition_variable changed;
    int sleeps = 0;
    int sleepsAllowed = 0;
    bool hasEnded = false;
};
Progress& TheProgress() {
    static Progress& progress = *new Progress;
    return progress;
}

template <typename Condition>
void WaitUntil(Condition isMet) {
    std::unique_lock<std::mutex> lock(TheProgress().mutex);
    TheProgress().changed.wait(lock, isMet);
}

void* Load(const char* library) {
    void* const handle = dlopen(library, RTLD_NOW | RTLD_LOCAL);
    if (handle == nullptr) {
        std::fprintf(stderr, "%s\n", dlerror());
        std::exit(2);
    }
    return handle;
}

void Call(void* library, const char* name) {
    const auto function = reinterpret_cast<void (*)()>(dlsym(library, name));
    if (function == nullptr) {
        std::fprintf(stderr, "%s\n", dlerror());
        std::exit(2);
    }
    function();
}

const char kStart[] = "_ZN12VFixFirewall16FixFirewallStartEv";
const char kStop[] = "_ZN12VFixFirewall15FixFirewallStopEv";

void StopAndReload(const char* path) {
    void* const first = Load(path);
    Call(first, kStop);
    dlclose(first);
    Call(Load(path), kStart);
    WaitUntil([] { return TheProgress().hasEnded || TheProgress().sleeps > 0; });
}

void UnloadBelowTheThread(const char* path) {
    void* const library = Load(path);
    Call(library, kStart);
    WaitUntil([] { return TheProgress().sleeps == 1; });
    dlclose(library);
    {
        const std::lock_guard<std::mutex> lock(TheProgress().mutex);
        TheProgress().sleepsAllowed = 1;
    }
    TheProgress().changed.notify_all();
    WaitUntil([] { return TheProgress().sleeps == 2; });
}

}  // namespace

// In front of the platform's and the logger's: the dynamic linker finds these first.

extern "C" __attribute__((visibility("default"))) FILE* popen(const char* /*command*/, const char* /*mode*/) {
    return nullptr;
}

extern "C" __attribute__((visibility("default"))) int nanosleep(const timespec* /*request*/,
                                                                timespec* /*left*/) {
    Progress& progress = TheProgress();
    std::unique_lock<std::mutex> lock(progress.mutex);
    const int sleeps = ++progress.sleeps;
    progress.changed.notify_all();
    progress.changed.wait(lock, [&progress, sleeps] { return progress.sleepsAllowed >= sleeps; });
    return 0;
}

VLogger* VLogger::GetInstance() {
    static VLogger* const instance = new VLogger;
    return instance;
}

void VLogger::StartSystem(const char*, const char*, int, int, LogLevel, unsigned long, bool) {}

void VLogger::Log(const char*, int, const char*, const char*, const char*, LogLevel, const char* format,
                  ...) {
    Progress& progress = TheProgress();
    const std::lock_guard<std::mutex> lock(progress.mutex);
    va_list arguments;
    va_start(arguments, format);
    std::vprintf(format, arguments);
    std::printf("\n");
    va_end(arguments);
    if (std::string(format) == "FixFirewallThread exit") progress.hasEnded = true;
    progress.changed.notify_all();
}

void VLogger::StopSystem() {}

int main(int argc, char* argv[]) {
    if (argc != 3) return 2;
    if (std::string(argv[2]) == "stopped") {
        StopAndReload(argv[1]);
    } else {
        UnloadBelowTheThread(argv[1]);
    }
    std::fflush(stdout);
    // Not exit(): the thread may still be in its sleep.
    _exit(0);
}
