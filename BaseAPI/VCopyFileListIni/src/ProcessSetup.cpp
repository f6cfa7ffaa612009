// Prepares the process before main, which in the upgrade tool starts the log first of all. Only the
// programs have this: in the library and in its tests signals and descriptors belong to others. What fails
// here is ignored; the pass runs as it would without.
#include <fcntl.h>
#include <unistd.h>

#include <csignal>

namespace {

// A pass must not end halfway because no process reads standard error any more, or because the log has
// reached the limit for the size of files. With the signals ignored the write fails instead.
void IgnoreSignalsOfFailedWrites() {
    (void)std::signal(SIGPIPE, SIG_IGN);
    (void)std::signal(SIGXFSZ, SIG_IGN);
}

// Reading from it and writing to it change nothing. A root directory exists even where devices are missing.
int OpenNothing() {
    const int fd = open("/dev/null", O_RDWR);
    return fd != -1 ? fd : open("/", O_RDONLY);
}

// The log or an installed file that got the descriptor of a closed standard stream would receive what is
// written to that stream: a report on standard error would become part of the file.
void OpenClosedStandardStreams() {
    int fd = OpenNothing();
    while (fd == STDIN_FILENO || fd == STDOUT_FILENO) fd = OpenNothing();
    if (fd > STDERR_FILENO) (void)close(fd);
}

[[gnu::constructor]] void PrepareProcess() {
    IgnoreSignalsOfFailedWrites();
    OpenClosedStandardStreams();
}

}  // namespace
