// Waiting for changes of files with inotify.
#include "VMonitorFiles.h"

#include <sys/inotify.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>

#include "Log.h"
#include "safestr.h"

namespace {

constexpr std::size_t kEventBufferSize = 512;

// By the kind that callers ask for; always a single event.
constexpr std::uint32_t kEventMasks[] = {
    IN_ACCESS,     IN_MODIFY,   IN_ATTRIB, IN_CLOSE_WRITE, IN_CLOSE_NOWRITE, IN_OPEN,
    IN_MOVED_FROM, IN_MOVED_TO, IN_CREATE, IN_DELETE,      IN_DELETE_SELF,   IN_MOVE_SELF,
};
constexpr std::size_t kKindCount = sizeof(kEventMasks) / sizeof(kEventMasks[0]);

}  // namespace

int VMonitorFiles::InotifyInit(const char* /*path*/) {
    const int fd = inotify_init();
    if (fd >= 0) return fd;

    const int error = errno;
    VFS_LOG("InotifyInit", kLogError, "inotify_init failed, error = %d", error);
    return -1;
}

bool VMonitorFiles::InotifyFileChange(int fd, const char* name, int kind) {
    if (fd < 0 || name == nullptr || static_cast<unsigned>(kind) >= kKindCount) return false;

    if (inotify_add_watch(fd, name, kEventMasks[kind]) < 0) {
        const int error = errno;
        VFS_LOG("InotifyFileChange", kLogError, "could not add watch %s, error = %d", name, error);
        return false;
    }

    char events[kEventBufferSize];
    (void)memset_s(events, sizeof(events), 0, sizeof(events));  // can't fail: the whole of a buffer
    if (read(fd, events, sizeof(events)) < 0) {
        VFS_LOG("InotifyFileChange", kLogError, "could not get event error");
        return false;
    }
    return true;
}

void VMonitorFiles::Inotifyclose(int fd) {
    // Deliberate, and promised by the header: logged when close() succeeds, not when it fails.
    if (close(fd) == 0) {
        const int error = errno;
        VFS_LOG("Inotifyclose", kLogError, "close failed error = %d", error);
    }
}
