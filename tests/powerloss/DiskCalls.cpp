// Loaded ahead of the C library, looks at what a program changes, and does what a kernel may do meanwhile:
//   WRITE_BACK   a seed: after each change the kernel writes back all that it keeps of the disks with the
//   DISKS        directories DISKS (PATH:PATH), of each with even chances; of both when the seed is 0
//   CHANGES      a fifo that is told of each change (an empty line) and each sync (the path, or "all");
//   SEEN         the program goes on when this fifo is written to
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <sstream>
#include <string>

namespace {

template <typename Function>
Function* Next(const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

void Close(int fd) {
    (void)Next<int(int)>("close")(fd);
}

void WriteBack() {
    const char* const seed = std::getenv("WRITE_BACK");
    if (seed == nullptr) return;
    static std::minstd_rand random(static_cast<unsigned>(std::atoi(seed)));
    std::istringstream disks(std::getenv("DISKS"));
    for (std::string disk; std::getline(disks, disk, ':');) {
        if (std::atoi(seed) != 0 && random() % 2 == 0) continue;
        const int fd = open(disk.c_str(), O_RDONLY | O_CLOEXEC);
        if (fd < 0 || Next<int(int)>("syncfs")(fd) != 0) std::abort();
        Close(fd);
    }
}

void Tell(const std::string& text) {
    if (std::getenv("CHANGES") == nullptr) return;
    const int changes = open(std::getenv("CHANGES"), O_WRONLY | O_CLOEXEC);
    if (changes < 0 || dprintf(changes, "%s\n", text.c_str()) < 0) std::abort();
    Close(changes);
    const int seen = open(std::getenv("SEEN"), O_RDONLY | O_CLOEXEC);
    char byte = 0;
    if (seen < 0 || read(seen, &byte, 1) != 1) std::abort();
    Close(seen);
}

int Changed(int result) {
    const int error = errno;
    WriteBack();
    Tell("");
    errno = error;
    return result;
}

bool IsWritten(int fd) {
    return (fcntl(fd, F_GETFL) & O_ACCMODE) != O_RDONLY;
}

std::string PathOf(int fd) {
    std::string path(4096, '\0');
    const ssize_t length =
        readlink(("/proc/self/fd/" + std::to_string(fd)).c_str(), path.data(), path.size());
    if (length < 0) std::abort();
    return path.substr(0, static_cast<std::size_t>(length));
}

}  // namespace

extern "C" {

int fsync(int fd) {
    Tell("");
    const int result = Next<int(int)>("fsync")(fd);
    Tell(PathOf(fd));
    return result;
}

int syncfs(int fd) {
    const int result = Next<int(int)>("syncfs")(fd);
    Tell("all");
    return result;
}

int rename(const char* path, const char* newPath) {
    return Changed(Next<int(const char*, const char*)>("rename")(path, newPath));
}

int renameat2(int at, const char* path, int newAt, const char* newPath, unsigned flags) {
    return Changed(Next<int(int, const char*, int, const char*, unsigned)>("renameat2")(at, path, newAt,
                                                                                        newPath, flags));
}

int linkat(int at, const char* path, int newAt, const char* newPath, int flags) {
    return Changed(
        Next<int(int, const char*, int, const char*, int)>("linkat")(at, path, newAt, newPath, flags));
}

int unlink(const char* path) {
    return Changed(Next<int(const char*)>("unlink")(path));
}

int remove(const char* path) {
    return Changed(Next<int(const char*)>("remove")(path));
}

int mkdir(const char* path, mode_t mode) {
    return Changed(Next<int(const char*, mode_t)>("mkdir")(path, mode));
}

int rmdir(const char* path) {
    return Changed(Next<int(const char*)>("rmdir")(path));
}

int fchown(int fd, uid_t user, gid_t group) {
    return Changed(Next<int(int, uid_t, gid_t)>("fchown")(fd, user, group));
}

int fchmod(int fd, mode_t mode) {
    return Changed(Next<int(int, mode_t)>("fchmod")(fd, mode));
}

int close(int fd) {
    const bool isWritten = IsWritten(fd);
    const int result = Next<int(int)>("close")(fd);
    return isWritten ? Changed(result) : result;
}

int fclose(FILE* file) {
    const bool isWritten = IsWritten(fileno(file));
    const int result = Next<int(FILE*)>("fclose")(file);
    return isWritten ? Changed(result) : result;
}
}
