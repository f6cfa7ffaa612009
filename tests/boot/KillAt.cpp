// Loaded ahead of the C library: kills the process, with all others of its group, at the moment when it is
// about to rename or remove the file KILL_AT for the KILL_TIME-th time.
#include <dlfcn.h>

#include <csignal>
#include <cstdlib>
#include <cstring>

namespace {

void Watch(const char* path) {
    static int timesLeft = std::atoi(std::getenv("KILL_TIME"));
    if (std::strcmp(path, std::getenv("KILL_AT")) == 0 && --timesLeft == 0) (void)kill(0, SIGKILL);
}

template <typename Function>
Function* Next(const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

}  // namespace

extern "C" {

int rename(const char* path, const char* newPath) {
    Watch(path);
    return Next<int(const char*, const char*)>("rename")(path, newPath);
}

int unlink(const char* path) {
    Watch(path);
    return Next<int(const char*)>("unlink")(path);
}

int remove(const char* path) {
    Watch(path);
    return Next<int(const char*)>("remove")(path);
}
}
