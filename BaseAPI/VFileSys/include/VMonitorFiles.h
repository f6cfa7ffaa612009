#ifndef VMONITORFILES_H
#define VMONITORFILES_H

/// Waits until something happens to a file or directory, with inotify(7). There are no objects of this class;
/// the caller holds the descriptor of the inotify instance.
///
///     const int fd = VMonitorFiles::InotifyInit(nullptr);
///     if (fd != -1) {
///         if (VMonitorFiles::InotifyFileChange(fd, "/etc/app.conf", 3))
///             ReloadConfiguration();  // 3: IN_CLOSE_WRITE
///         VMonitorFiles::Inotifyclose(fd);
///     }
///
/// Child processes inherit the descriptor: set FD_CLOEXEC on it if the program starts any, or uses a class of
/// the library that does. The operations may be called from any thread.
class __attribute__((visibility("default"))) VMonitorFiles {
public:
    /// Creates an inotify instance; `path` is not used and may be null. Returns its descriptor, which the
    /// caller closes with Inotifyclose. Returns -1 on failure.
    ///
    /// Details: a failure logs "inotify_init failed, error = %d" with the errno of inotify_init(2), function
    /// name "InotifyInit", level 1. EMFILE: the user has too many instances or the process too many
    /// descriptors; ENFILE, ENOMEM.
    ///
    /// Hazard (reliability.md): endless-wait.
    static int InotifyInit(const char* path);

    /// Watches `name`, a file or directory, for one kind of event and blocks until `fd` has an event to
    /// deliver. Returns true once an event was read, **whichever it was**: one of this watch, of any other
    /// watch on `fd`, or one that was queued before the call. Returns false on failure.
    ///
    /// **There is no time-out, and closing `fd` in another thread does not wake the call.** To be able to
    /// stop a waiting thread, watch a private file on the same descriptor as well and write to it.
    ///
    /// Details: there are these kinds of events:
    ///
    /// | kind | event            |  | kind | event          |  | kind | event          |
    /// |------|------------------|--|------|----------------|--|------|----------------|
    /// | 0    | IN_ACCESS        |  | 4    | IN_CLOSE_NOWRITE |  | 8    | IN_CREATE      |
    /// | 1    | IN_MODIFY        |  | 5    | IN_OPEN        |  | 9    | IN_DELETE      |
    /// | 2    | IN_ATTRIB        |  | 6    | IN_MOVED_FROM  |  | 10   | IN_DELETE_SELF |
    /// | 3    | IN_CLOSE_WRITE   |  | 7    | IN_MOVED_TO    |  | 11   | IN_MOVE_SELF   |
    ///
    /// Returns false at once, without a log line, when `fd` is negative, `name` is null or `kind` is none of
    /// these. Returns false and logs, function name "InotifyFileChange", level 1:
    ///  - "could not add watch %s, error = %d": With `name` and the errno of inotify_add_watch(2): ENOENT,
    ///    EACCES, ENOSPC (too many watches), EBADF, EINVAL (not an inotify descriptor), or another errno of
    ///    path resolution.
    ///  - "could not get event error": Reading failed, or a signal handler without SA_RESTART interrupted it.
    ///
    /// Up to 512 bytes of events are read and discarded. If more events are queued, the next call returns at
    /// once. Some events end the wait without being asked for: the watched file is gone, its file system was
    /// unmounted, or the queue overflowed. A watch is never removed; a later call for the same file with
    /// another kind changes the kind of its watch. A watch belongs to the file, not to its name: when another
    /// file is renamed to the name, only the next call watches that file.
    ///
    /// Hazards (reliability.md): endless-wait, names-in-log.
    static bool InotifyFileChange(int fd, const char* name, int kind);

    /// Closes the inotify instance with its watches and unread events. **A successful close logs "close
    /// failed error = %d"**; a failed one logs nothing.
    ///
    /// Details: the inversion is kept on purpose; those who read the log rely on it. The number is the value
    /// that errno happens to have, function name "Inotifyclose", level 1.
    ///
    /// Hazard (reliability.md): inverted-log.
    static void Inotifyclose(int fd);

    explicit VMonitorFiles() = delete;
};

#endif
