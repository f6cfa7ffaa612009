#ifndef VDIR_H
#define VDIR_H

#include <string>

/// Operations on directories. There are no objects of this class.
///
/// Paths are NUL-terminated. A relative one is resolved against the process's working directory. Only VMkDir
/// canonicalises it first.
class __attribute__((visibility("default"))) VDir {
public:
    /// Makes the directory `path` with all its missing parents, each with the permission bits `mode` minus
    /// the umask. Returns 0 when the directory was made or exists already; nothing that exists is changed.
    /// Returns -1 with errno otherwise; parents already made then stay. Never logs. May be called from any
    /// thread.
    ///
    ///     if (VDir::VMkDir("/var/lib/app/cache", 0750) != 0)
    ///         perror("/var/lib/app/cache");
    ///
    /// Details: make directories only where no other user can write, since symlinks in the path are followed,
    /// whoever made them. The errno is one of these:
    ///  - EEXIST: `path` exists but is no directory, or is a dangling symlink. Or another thread or process
    ///    made one of the missing directories at the same moment: call again.
    ///  - ENOENT: `path` is no valid VPath: null, empty, too long, or relative to a working directory that
    ///    can't be read.
    ///  - ENAMETOOLONG: The canonical text of `path` does not fit 4096 bytes.
    ///  - others: As mkdir(2) set them (ENOTDIR, EACCES, ENOSPC, ...).
    ///
    /// If `mode` lacks owner write or search permission, only root can make directories in the new parents.
    /// The path is resolved as by VPath: "." and ".." are removed lexically, except as the last component;
    /// "x/y/.." makes x and x/y. If another thread or process makes a file at `path` while the parents
    /// are made, the result is 0.
    ///
    /// Hazard (reliability.md): make-directory-race.
    static int VMkDir(const char* path, unsigned short mode);

    /// Removes the empty directory `path`, taken as given. Returns 0, or -1 with the errno of rmdir(2)
    /// (ENOTEMPTY, ENOENT, ENOTDIR, ...; a null path gives ENOENT). Never logs. May be called from any
    /// thread.
    static int VRmDir(const char* path);

    /// Changes the owner of the directory `dirPath`, and of what lies directly in it except subdirectories,
    /// to the user `userName` and the user's primary group. **Use it only on a directory that this user can't
    /// write before the call**: otherwise the user may replace an entry after its check. Needs the right to
    /// change owners (root). Returns 0. Returns -10000 and stops at the first failure; entries already
    /// changed stay changed. Only one thread at a time may call it.
    ///
    /// Details: the user lookup keeps its result in storage that the process shares. A failure is logged with
    /// function name "VChownDirAndFirstDepthFiles" at level 1:
    ///  - "Can't get user name id, errno: %d": There is no such user. The number is errno after getpwnam(3),
    ///    possibly left by an earlier call. A null name is not looked up, and gives ENOENT.
    ///  - "Failed to lchown to user, error:%d": The owner of the directory or of an entry could not be
    ///    changed. A null `dirPath` gives ENOENT here.
    ///  - "Failed open dir,path=%s": The directory could not be opened; it has its new owner.
    ///
    /// The owner of a symlink itself changes, never that of its target. Symlinks to directories are skipped,
    /// and so are entries whose stat(2) fails, such as dangling symlinks. A hard link planted in the
    /// directory changes the file's owner under all its names (with fs.protected_hardlinks=1 users can't make
    /// one to a file of another user). Lets std::bad_alloc through; entries already changed stay changed.
    ///
    /// Hazards (reliability.md): change-owner-race, names-in-log.
    static int VChownDirAndFirstDepthFiles(const char* dirPath, const char* userName);

    /// Returns true when the system can canonicalise `path`, **and also when the path is missing**. Returns
    /// false with errno for every other failure. `length` is only compared with 4096. Never logs. May be
    /// called from any thread.
    ///
    /// Details: the result is true when realpath(3) succeeds or fails with ENOENT. A dangling symlink and the
    /// empty text give ENOENT, too. Every other errno gives false (ENOTDIR, EACCES, ELOOP, ENAMETOOLONG;
    /// EINVAL for null). A `length` above 4096 gives false without access to the file system, and without an
    /// errno. Zero and negative values are accepted.
    ///
    /// Hazard (reliability.md): missing-is-success.
    static bool VRealPath(const char* path, int length);

    /// Replaces `output` by the canonical absolute path of `input`, with all symlinks followed, and returns
    /// true. **When a component is missing (ENOENT), `output` becomes `input` unchanged**, possibly relative,
    /// and the result is also true. For every other failure the result is false with the errno of
    /// realpath(3), and `output` is unchanged. Never logs. May be called from any thread.
    ///
    /// Details: `input` and `output` may be the same object. realpath(3) reads `input` up to its first NUL.
    ///
    /// Hazard (reliability.md): missing-is-success.
    static bool VRealPath(const std::string& input, std::string& output);

    explicit VDir() = delete;
};

#endif
