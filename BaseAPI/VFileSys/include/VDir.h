#ifndef VDIR_H
#define VDIR_H

#include <string>

/// Operations on directories. Paths are NUL-terminated and, if relative, belong to the process's working
/// directory; only VMkDir resolves them first. There are no objects of this class.
class __attribute__((visibility("default"))) VDir {
public:
    /// Makes the directory `path` with all its missing parents, each with the permission bits `mode` less
    /// the process's umask (the parents too: without owner write and search permission in `mode` nobody but
    /// root can make the next level in them). The path is resolved as by VPath: "." and ".." go lexically,
    /// except as the last component.
    ///
    /// Returns 0 when the directory was made or is there already; nothing that exists is changed. (0 as well
    /// when anything else appears under its name while the parents are made.) Returns -1 with errno EEXIST
    /// when `path` is there but no directory, ENOENT when it is no valid VPath (null, empty, too long, or
    /// relative to a working directory that can't be read), ENAMETOOLONG when its canonical text does not fit
    /// 4096 bytes, and otherwise the errno of the mkdir that failed (ENOTDIR, EACCES, ENOSPC, and EEXIST for
    /// a dangling link); parents already made then stay. When another thread or process makes one of the
    /// levels at the same moment, the result may be -1 with EEXIST, too: a second call tells. Links on the
    /// way are followed, those of others too: make directories only where nobody else can write.
    ///
    /// Never logs. May be called from any thread.
    ///
    ///     if (VDir::VMkDir("/var/lib/app/cache", 0750) != 0) perror("/var/lib/app/cache");
    ///
    /// Hazard 16 of docs/reliability.md.
    static int VMkDir(const char* path, unsigned short mode);

    /// Removes the empty directory `path`, taken as given.
    ///
    /// Returns 0, or -1 with the errno of rmdir (ENOTEMPTY, ENOENT, ENOTDIR, ...; a null path gives ENOENT).
    /// Never logs. May be called from any thread.
    static int VRmDir(const char* path);

    /// Hands the directory `dirPath`, and what lies directly in it except subdirectories, to the user
    /// `userName` and the user's primary group. Needs the right to change owners (root).
    ///
    /// A symbolic link is itself given away, never what it points to; a link to a directory, and an
    /// entry whose stat fails, such as a dangling link, are passed over, as are subdirectories and all in
    /// them. Between the look at an entry and the change of its owner another user may replace it, so use it
    /// only on directories which that user can't write yet; a hard link planted there changes the file's
    /// owner everywhere (fs.protected_hardlinks=1 lets users plant none to files that are not theirs).
    ///
    /// Returns 0 on success. Returns -10000 and stops at the first failure, which it logs with function name
    /// "VChownDirAndFirstDepthFiles" at level 1; entries already changed stay changed:
    ///  - "Can't get user name id, errno: %d": there is no such user. The number is the errno after the
    ///    lookup; a lookup that works and finds no user may leave an older one. A null name is not looked up,
    ///    and gives ENOENT;
    ///  - "Failed to lchown to user, error:%d": the owner of the directory or of an entry could not be
    ///    changed (a null `dirPath` gives ENOENT here);
    ///  - "Failed open dir,path=%s": the directory could not be opened; it has its new owner.
    ///
    /// Lets std::bad_alloc through; entries already changed stay changed then, too.
    ///
    /// Not for two threads at once: the user lookup keeps its result in storage that the process shares.
    ///
    /// Hazards 17 and 27 of docs/reliability.md.
    static int VChownDirAndFirstDepthFiles(const char* dirPath, const char* userName);

    /// Tells whether the system can canonicalise `path`, or the path is merely missing.
    ///
    /// Returns true when realpath succeeds or fails with ENOENT (so for a dangling link and the empty text,
    /// too); false for every other failure, with its errno (ENOTDIR, EACCES, ELOOP, ENAMETOOLONG; EINVAL for
    /// null). Returns false without a look at the file system, and without an errno, when `length` is above
    /// 4096; zero and negative values pass. Never logs. May be called from any thread.
    ///
    /// Hazard 29 of docs/reliability.md.
    static bool VRealPath(const char* path, int length);

    /// Replaces `output` by the canonical absolute path of `input`, with all links followed, and returns
    /// true. When something of it is missing (ENOENT), `output` becomes `input` as it stands, possibly
    /// relative, and the result is true as well. For every other failure the result is false with realpath's
    /// errno and `output` is untouched. `input` ends at its first NUL if it holds one; the two may be one
    /// object. Never logs. May be called from any thread.
    ///
    /// Hazard 29 of docs/reliability.md.
    static bool VRealPath(const std::string& input, std::string& output);

    explicit VDir() = delete;
};

#endif
