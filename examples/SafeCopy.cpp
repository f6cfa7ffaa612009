// Copies a file so that a reader of the destination sees either the old content or the whole new one, and
// nothing is reported as done that is not.
//
// VFile::VCopyFile alone writes into the destination in place, keeps no mode, and may lose the last few
// kilobytes on a full disk without a word. Here the copy goes into a file of its own beside the destination,
// is checked, gets the source's mode, is put on the disk and then renamed.
//
//     c++ -std=c++17 -o SafeCopy SafeCopy.cpp $(pkg-config --cflags --libs VFileSys)
//     SafeCopy app.conf.new /etc/app.conf
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "VFile.h"

namespace {

// Copies into the empty file `copy`, which is open as `fd`. VCopyFile leaves the mode of a file that exists
// alone, so nobody else can read the copy before it has its own.
bool FillCopy(const std::string& source, const std::string& copy, int fd) {
    struct stat status;
    return VFile::VCopyFile(source.c_str(), copy.c_str()) == 0 &&
           VFile::FileSize(source.c_str()) == VFile::FileSize(copy.c_str()) &&
           stat(source.c_str(), &status) == 0 && fchmod(fd, status.st_mode & 07777) == 0 && fsync(fd) == 0;
}

bool SyncDirectoryOf(const std::string& path) {
    const std::size_t slash = path.rfind('/');
    const std::string directory = slash == std::string::npos ? "." : path.substr(0, slash + 1);
    const int fd = open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) return false;
    const bool isSynced = fsync(fd) == 0;
    close(fd);
    return isSynced;
}

}  // namespace

int main(int argc, char* argv[]) {
    if (argc != 3) {
        std::fprintf(stderr, "usage: %s SOURCE DESTINATION\n", argv[0]);
        return 2;
    }
    const std::string source = argv[1];
    const std::string destination = argv[2];

    std::string copy = destination + ".XXXXXX";
    const int fd = mkstemp(copy.data());
    if (fd < 0) {
        std::perror(copy.c_str());
        return 1;
    }
    const bool isReady = FillCopy(source, copy, fd);
    close(fd);
    if (!isReady || std::rename(copy.c_str(), destination.c_str()) != 0) {
        std::fprintf(stderr, "%s could not be copied; %s is as it was\n", source.c_str(),
                     destination.c_str());
        VFile::RemoveFile(copy.c_str());
        return 1;
    }
    if (!SyncDirectoryOf(destination)) {
        std::perror(destination.c_str());
        return 1;
    }

    std::printf("%s: %ld bytes\n", destination.c_str(), VFile::FileSize(destination.c_str()));
    return 0;
}
