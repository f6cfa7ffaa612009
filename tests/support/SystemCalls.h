// Platform calls that a test can stand in front of. The test program defines them under their own names; the
// dynamic linker binds the library's calls to these definitions, which pass them on unless a test has put
// something in their place.
//
//     const Replaced replaced(calls::getcwd, [](char*, size_t) -> char* { errno = ENOENT; return nullptr; });
#ifndef TESTS_SUPPORT_SYSTEMCALLS_H
#define TESTS_SUPPORT_SYSTEMCALLS_H

#include <dirent.h>
#include <grp.h>
#include <pthread.h>
#include <pwd.h>
#include <signal.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/types.h>
#include <sys/uio.h>
#include <zlib.h>

#include <cstdint>
#include <cstdio>
#include <ctime>
#include <functional>
#include <utility>

// Result, name, parameters, the parameters' names.
#define VFS_TEST_SYSTEM_CALLS(X)                                                                            \
    X(int, access, (const char* path, int mode), (path, mode))                                              \
    X(int, close, (int fd), (fd))                                                                           \
    X(int, closedir, (DIR * dir), (dir))                                                                    \
    X(int, compress, (Bytef * dest, uLongf * destLength, const Bytef* source, uLong length),                \
      (dest, destLength, source, length))                                                                   \
    X(int, deflate, (z_streamp stream, int flush), (stream, flush))                                         \
    X(int, deflateEnd, (z_streamp stream), (stream))                                                        \
    X(int, deflateInit2_,                                                                                   \
      (z_streamp stream, int level, int method, int windowBits, int memLevel, int strategy,                 \
       const char* version, int size),                                                                      \
      (stream, level, method, windowBits, memLevel, strategy, version, size))                               \
    X(int, fclose, (FILE * file), (file))                                                                   \
    X(int, fflush, (FILE * file), (file))                                                                   \
    X(char*, fgets, (char* line, int size, FILE* file), (line, size, file))                                 \
    X(FILE*, fopen, (const char* path, const char* mode), (path, mode))                                     \
    X(FILE*, fopen64, (const char* path, const char* mode), (path, mode))                                   \
    X(size_t, fread, (void* data, size_t size, size_t count, FILE* file), (data, size, count, file))        \
    X(int, fstat, (int fd, struct stat* status), (fd, status))                                              \
    X(size_t, fwrite, (const void* data, size_t size, size_t count, FILE* file), (data, size, count, file)) \
    X(char*, getcwd, (char* buffer, size_t size), (buffer, size))                                           \
    X(ssize_t, getline, (char** line, size_t* capacity, FILE* file), (line, capacity, file))                \
    X(passwd*, getpwnam, (const char* name), (name))                                                        \
    X(int, inflate, (z_streamp stream, int flush), (stream, flush))                                         \
    X(int, inflateEnd, (z_streamp stream), (stream))                                                        \
    X(int, inflateInit2_, (z_streamp stream, int windowBits, const char* version, int size),                \
      (stream, windowBits, version, size))                                                                  \
    X(int, inotify_add_watch, (int fd, const char* path, uint32_t mask), (fd, path, mask))                  \
    X(int, inotify_init, (), ())                                                                            \
    X(int, lchown, (const char* path, uid_t user, gid_t group), (path, user, group))                        \
    X(off64_t, lseek64, (int fd, off64_t offset, int whence), (fd, offset, whence))                         \
    X(int, memmove_s, (void* dest, size_t destMax, const void* src, size_t count),                          \
      (dest, destMax, src, count))                                                                          \
    X(int, memset_s, (void* dest, size_t destMax, int value, size_t count), (dest, destMax, value, count))  \
    X(int, mkdir, (const char* path, mode_t mode), (path, mode))                                            \
    X(int, nanosleep, (const timespec* request, timespec* remainder), (request, remainder))                 \
    X(DIR*, opendir, (const char* path), (path))                                                            \
    X(int, pclose, (FILE * stream), (stream))                                                               \
    X(FILE*, popen, (const char* command, const char* mode), (command, mode))                               \
    X(ssize_t, read, (int fd, void* data, size_t size), (fd, data, size))                                   \
    X(int, pthread_create,                                                                                  \
      (pthread_t * thread, const pthread_attr_t* attributes, void* (*start)(void*), void* argument),        \
      (thread, attributes, start, argument))                                                                \
    X(dirent*, readdir, (DIR * dir), (dir))                                                                 \
    X(char*, realpath, (const char* path, char* resolved), (path, resolved))                                \
    X(int, remove, (const char* path), (path))                                                              \
    X(int, rename, (const char* from, const char* to), (from, to))                                          \
    X(int, rmdir, (const char* path), (path))                                                               \
    X(ssize_t, sendfile, (int to, int from, off_t* offset, size_t count), (to, from, offset, count))        \
    X(int, stat, (const char* path, struct stat* status), (path, status))                                   \
    X(int, strcpy_s, (char* dest, size_t destMax, const char* src), (dest, destMax, src))                   \
    X(int, strncpy_s, (char* dest, size_t destMax, const char* src, size_t count),                          \
      (dest, destMax, src, count))                                                                          \
    X(int, system, (const char* command), (command))                                                        \
    X(ssize_t, write, (int fd, const void* data, size_t size), (fd, data, size))                            \
    X(ssize_t, writev, (int fd, const iovec* blocks, int count), (fd, blocks, count))

// What only vfilelist calls. libcrypto's types are of no interest here.
#define VFS_TEST_FILE_LIST_CALLS(X)                                                                          \
    X(int, EVP_DigestFinal_ex, (void* context, unsigned char* digest, unsigned* size),                       \
      (context, digest, size))                                                                               \
    X(int, EVP_DigestInit_ex, (void* context, const void* type, void* engine), (context, type, engine))      \
    X(int, EVP_DigestUpdate, (void* context, const void* data, size_t size), (context, data, size))          \
    X(int, EVP_DigestVerify,                                                                                 \
      (void* context, const unsigned char* signature, size_t signatureSize, const unsigned char* data,       \
       size_t size),                                                                                         \
      (context, signature, signatureSize, data, size))                                                       \
    X(int, EVP_DigestVerifyInit,                                                                             \
      (void* context, void* keyContext, const void* type, void* engine, void* key),                          \
      (context, keyContext, type, engine, key))                                                              \
    X(void*, EVP_MD_CTX_new, (), ())                                                                         \
    X(int, clock_gettime, (clockid_t clock, timespec * time), (clock, time))                                 \
    X(int, faccessat, (int directory, const char* path, int mode, int flags),                                \
      (directory, path, mode, flags))                                                                        \
    X(int, fchmod, (int fd, mode_t mode), (fd, mode))                                                        \
    X(int, fchown, (int fd, uid_t user, gid_t group), (fd, user, group))                                     \
    X(ssize_t, fgetxattr, (int fd, const char* name, void* value, size_t size), (fd, name, value, size))     \
    X(ssize_t, flistxattr, (int fd, char* names, size_t size), (fd, names, size))                            \
    X(int, flock, (int fd, int operation), (fd, operation))                                                  \
    X(pid_t, fork, (), ())                                                                                   \
    X(int, fremovexattr, (int fd, const char* name), (fd, name))                                             \
    X(int, fsetxattr, (int fd, const char* name, const void* value, size_t size, int flags),                 \
      (fd, name, value, size, flags))                                                                        \
    X(int, fsync, (int fd), (fd))                                                                            \
    X(gid_t, getegid, (), ())                                                                                \
    X(uid_t, geteuid, (), ())                                                                                \
    X(pid_t, getppid, (), ())                                                                                \
    X(group*, getgrgid, (gid_t gid), (gid))                                                                  \
    X(passwd*, getpwuid, (uid_t user), (user))                                                               \
    X(int, isatty, (int fd), (fd))                                                                           \
    X(int, linkat, (int directory, const char* path, int newDirectory, const char* newPath, int flags),      \
      (directory, path, newDirectory, newPath, flags))                                                       \
    X(ssize_t, listxattr, (const char* path, char* names, size_t size), (path, names, size))                 \
    X(int, lstat, (const char* path, struct stat* status), (path, status))                                   \
    X(int, open, (const char* path, int flags, mode_t mode), (path, flags, mode))                            \
    X(int, prctl,                                                                                            \
      (int operation, unsigned long first, unsigned long second, unsigned long third, unsigned long fourth), \
      (operation, first, second, third, fourth))                                                             \
    X(int, renameat2,                                                                                        \
      (int fromDirectory, const char* from, int toDirectory, const char* to, unsigned flags),                \
      (fromDirectory, from, toDirectory, to, flags))                                                         \
    X(int, sigtimedwait, (const sigset_t* signals, siginfo_t* info, const timespec* time),                   \
      (signals, info, time))                                                                                 \
    X(int, statvfs, (const char* path, struct statvfs* status), (path, status))                              \
    X(int, statx, (int directory, const char* path, int flags, unsigned mask, struct statx* status),         \
      (directory, path, flags, mask, status))                                                                \
    X(int, unlink, (const char* path), (path))                                                               \
    X(pid_t, waitpid, (pid_t process, int* status, int options), (process, status, options))

namespace calls {

// What stands in the place of a call, if anything. Constant from the start and never destroyed: calls come
// from other static objects, and from threads that outlive main.
template <typename Signature>
struct Hook {
    const std::function<Signature>* replacement;

    // For a replacement that passes on to the one before it.
    template <typename... Arguments>
    auto operator()(Arguments... arguments) const {
        return (*replacement)(arguments...);
    }
};

#define VFS_TEST_DECLARE_HOOK(result, name, parameters, arguments) extern Hook<result parameters> name;
VFS_TEST_SYSTEM_CALLS(VFS_TEST_DECLARE_HOOK)
VFS_TEST_FILE_LIST_CALLS(VFS_TEST_DECLARE_HOOK)
#undef VFS_TEST_DECLARE_HOOK

// The platform's own, whatever is in front of it.
namespace real {
#define VFS_TEST_DECLARE_REAL(result, name, parameters, arguments) result name parameters;
VFS_TEST_SYSTEM_CALLS(VFS_TEST_DECLARE_REAL)
VFS_TEST_FILE_LIST_CALLS(VFS_TEST_DECLARE_REAL)
#undef VFS_TEST_DECLARE_REAL
}  // namespace real

// The formatting functions of the bounds-checked library take variable lists; they can only be made to fail.
extern bool snprintfFails;
extern bool sprintfFails;

// Makes every operator new throw std::bad_alloc.
extern bool newFails;

// Asked by every allocation, by the two formatting functions, and by whatever else a test lets ask it: true
// makes the call fail. It must not allocate.
extern bool (*failsNow)(const char* call);
// What failsNow says; false while it is null or this thread does not ask.
bool FailsNow(const char* call);

// What a test double needs does not fail with what the library needs: while it lives, its thread does not
// ask failsNow.
class WithoutFaults {
public:
    WithoutFaults();
    ~WithoutFaults();
    WithoutFaults(const WithoutFaults&) = delete;
    WithoutFaults& operator=(const WithoutFaults&) = delete;
};

// Makes the allocation of exactly `size` bytes by malloc fail while it is not 0.
extern size_t failingMallocSize;

}  // namespace calls

// Puts `replacement` in the place of a call, or a value in the place of a setting, for as long as it lives.
template <typename Place>
class Replaced {
public:
    Replaced(Place& place, Place value) : place_(place), old_(std::exchange(place, value)) {}
    ~Replaced() { place_ = old_; }
    Replaced(const Replaced&) = delete;
    Replaced& operator=(const Replaced&) = delete;

private:
    Place& place_;
    const Place old_;
};

template <typename Signature>
class Replaced<calls::Hook<Signature>> {
public:
    Replaced(calls::Hook<Signature>& hook, std::function<Signature> replacement)
        : replacement_(std::move(replacement)), replaced_(hook.replacement, &replacement_) {}

private:
    const std::function<Signature> replacement_;
    const Replaced<const std::function<Signature>*> replaced_;
};

template <typename Place, typename Replacement>
Replaced(Place&, Replacement&&) -> Replaced<Place>;

#endif
