// Tells each time a file was written, until somebody types Enter or closes standard input.
//
// The waiting thread can't be stopped by closing its descriptor. So a second, private file is watched on the
// same descriptor: writing to it wakes the thread, which then finds that it is to end.
//
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
        std::printf("%s was written\n", path);
        std::fflush(stdout);
    }
}

}  // namespace

int main(int argc, char* argv[]) {
    if (argc != 2 || access(argv[1], F_OK) != 0) {
        std::fprintf(stderr, "usage: %s FILE\n", argv[0]);
        return 2;
    }

    const int fd = VMonitorFiles::InotifyInit(nullptr);
    std::string wakeUpPath = "/tmp/wait-for-change-XXXXXX";
    const int wakeUpFile = mkstemp(wakeUpPath.data());
    if (fd == -1 || wakeUpFile == -1) {
        std::perror("can't watch");
        return 1;
    }
    // The library's descriptor would be inherited by every program that this one starts.
    (void)fcntl(fd, F_SETFD, FD_CLOEXEC);
    (void)inotify_add_watch(fd, wakeUpPath.c_str(), IN_MODIFY);

    std::printf("watching %s; Enter ends it\n", argv[1]);
    std::fflush(stdout);
    std::thread watcher(Watch, fd, argv[1]);
    (void)std::getchar();

    isStopping = true;
    const bool isWoken = write(wakeUpFile, "x", 1) == 1;
    if (isWoken) {
        watcher.join();
    } else {
        watcher.detach();
    }
    (void)unlink(wakeUpPath.c_str());
    close(wakeUpFile);
    VMonitorFiles::Inotifyclose(fd);  // logs "close failed", as it does whenever it succeeds
    std::printf("done\n");
    return isWoken ? 0 : 1;
}
