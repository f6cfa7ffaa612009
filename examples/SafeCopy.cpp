// Copies a file so that a reader of the destination sees either the old content or the whole new one, and
// nothing is reported as done that is not.
//
// VFile::VCopyFile alone writes into the destination in place, keeps no mode, and may lose the last few
// kilobytes on a full disk without a word. Here the copy goes to a name of its own, is checked, gets the
// source's mode and is then renamed.
//
//     SafeCopy app.conf.new /etc/app.conf
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <string>

#include "VFile.h"

namespace {

bool SyncAndTakeModeOf(const std::string& source, const std::string& copy) {
    struct stat status;
    if (stat(source.c_str(), &status) != 0) return false;

    const int fd = open(copy.c_str(), O_WRONLY | O_CLOEXEC);
    if (fd < 0) return false;
    const bool isDone = fchmod(fd, status.st_mode & 07777) == 0 && fsync(fd) == 0;
    return close(fd) == 0 && isDone;
}

}  // namespace

int main(int argc, char* argv[]) {
    if (argc != 3) {
        std::fprintf(stderr, "usage: %s SOURCE DESTINATION\n", argv[0]);
        return 2;
    }
    const std::string source = argv[1];
    const std::string destination = argv[2];
    const std::string copy = destination + ".new";

    const bool isCopied = VFile::VCopyFile(source.c_str(), copy.c_str()) == 0 &&
                          VFile::FileSize(source.c_str()) == VFile::FileSize(copy.c_str());
    if (!isCopied || !SyncAndTakeModeOf(source, copy) ||
        std::rename(copy.c_str(), destination.c_str()) != 0) {
        std::perror(destination.c_str());
        VFile::RemoveFile(copy.c_str());
        return 1;
    }

    std::printf("%s: %ld bytes\n", destination.c_str(), VFile::FileSize(destination.c_str()));
    return 0;
}
