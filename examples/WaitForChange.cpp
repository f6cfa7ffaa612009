// Tells each time something happened to a file, until somebody types Enter or closes standard input.
//
// Written with the file in mind: once it is removed or replaced, the next wait looks its name up again, and
// the program ends its watch when the name is gone. The waiting thread can't be stopped by closing its
// descriptor. So a second, private file is watched on the same descriptor: writing to it wakes the thread,
// which then finds that it is to end.
//
//     c++ -std=c++17 -o WaitForChange WaitForChange.cpp $(pkg-config --cflags --libs VFileSys) -pthread
//     WaitForChange /etc/app.conf
#include <fcntl.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>

#include "VMonitorFiles.h"

namespace {

constexpr int kCloseWrite = 3;

std::atomic<bool> isStopping{false};

void Watch(int fd, const char* path) {
    while (VMonitorFiles::InotifyFileChange(fd, path, kCloseWrite) && !isStopping) {
        // Any event ends the wait: the file was written, but perhaps removed or replaced.
        std::printf("something happened to %s\n", path);
        std::fflush(stdout);
    }
    if (isStopping) return;
    std::printf("%s can't be watched any more\n", path);
    std::fflush(stdout);
}

// Waits for Enter while a thread watches; `wakeUpFile` is watched on `fd`, too.
bool WatchUntilEnter(int fd, const char* path, int wakeUpFile) {
    std::printf("watching %s; Enter ends it\n", path);
    std::fflush(stdout);
    std::thread watcher(Watch, fd, path);
    (void)std::getchar();

    isStopping = true;
    const bool isWoken = write(wakeUpFile, "x", 1) == 1;
    if (isWoken) {
        watcher.join();
    } else {
        watcher.detach();
    }
    return isWoken;
}

}  // namespace

int main(int argc, char* argv[]) {
    if (argc != 2 || access(argv[1], F_OK) != 0) {
        std::fprintf(stderr, "usage: %s FILE\n", argv[0]);
        return 2;
    }

    const int fd = VMonitorFiles::InotifyInit(nullptr);
    if (fd == -1) {
        std::perror("no inotify instance");
        return 1;
    }
    // The library's descriptor would be inherited by every program that this one starts.
    (void)fcntl(fd, F_SETFD, FD_CLOEXEC);

    std::string wakeUpPath = "/tmp/wait-for-change-XXXXXX";
    const int wakeUpFile = mkstemp(wakeUpPath.data());
    bool isDone = false;
    if (wakeUpFile == -1 || inotify_add_watch(fd, wakeUpPath.c_str(), IN_MODIFY) == -1) {
        std::perror(wakeUpPath.c_str());
    } else {
        isDone = WatchUntilEnter(fd, argv[1], wakeUpFile);
    }
    if (wakeUpFile != -1) {
        (void)unlink(wakeUpPath.c_str());
        close(wakeUpFile);
    }
    VMonitorFiles::Inotifyclose(fd);  // logs "close failed", as it does whenever it succeeds
    if (isDone) std::printf("done\n");
    return isDone ? 0 : 1;
}
