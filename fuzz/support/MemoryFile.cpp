#include "MemoryFile.h"

#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Judge.h"

MemoryFile::MemoryFile() : fd_(memfd_create("fuzz", MFD_CLOEXEC)) {
    if (fd_ < 0) judge::Fail("memfd_create does not work here");
}

MemoryFile::~MemoryFile() {
    (void)close(fd_);
}

void MemoryFile::Write(const std::string& content) const {
    const bool isWritten = ftruncate(fd_, 0) == 0 && pwrite(fd_, content.data(), content.size(), 0) ==
                                                         static_cast<ssize_t>(content.size());
    if (!isWritten) judge::Fail("a file in memory can't be written");
}

std::string MemoryFile::Read() const {
    struct stat status = {};
    if (fstat(fd_, &status) != 0) judge::Fail("a file in memory has no size");
    std::string content(static_cast<std::size_t>(status.st_size), '\0');
    if (pread(fd_, content.data(), content.size(), 0) != status.st_size) {
        judge::Fail("a file in memory can't be read");
    }
    return content;
}
