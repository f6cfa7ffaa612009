#ifndef VFILE_H
#define VFILE_H

#include <ctime>
#include <string>
#include <vector>

/// Work on whole files, and listings of directory trees. There are no objects of this class.
///
/// Paths are taken as given: they are not resolved, and symlinks are followed. **Writing or copying to a
/// symlink writes to its target**, and makes that file if it is missing: work in directories that only your
/// user can write. Nothing is synced to the disk.
///
/// Buffers belong to the caller. No operation keeps a pointer after it returns, and each closes its streams
/// whatever fails. Only the two listings may throw, for lack of memory.
class __attribute__((visibility("default"))) VFile {
public:
    /// Switches the product's file protection on (`enableFlag` true) or off, by running the product's helper
    /// tool through /bin/sh with the environment of the process. Blocks until the tool has ended. Returns
    /// nothing: a failure shows in the log only. May be called from any thread.
    ///
    /// Details: the command is "/usr/local/tarnserver/bin/tarnfileprotect 1 > /tmp/tmphfpenable.log" or
    /// "/usr/local/tarnserver/bin/tarnfileprotect 0 > /tmp/tmphfpdisable.log". The shell replaces the log
    /// file, through a symlink if one lies there, with the rights of the process.
    ///
    /// Logs "enableFlag=%d" before and "Done return: %d" after, with function name "FileProtect" at level 3.
    /// The number is the raw wait status of system(3): 256 times the exit status; -1 when nothing could be
    /// started or the process ignores SIGCHLD.
    ///
    /// Hazards (reliability.md): no-time-out, fixed-tmp-names, inherited-environment.
    static void FileProtect(bool enableFlag);

    /// Removes the file, or the empty directory, `path`; of a symlink the symlink itself. Returns 0, -1 for a
    /// null path, or -10000 when it could not be removed, with the errno of remove(3). Never logs; may be
    /// called from any thread.
    static long RemoveFile(const char* path);

    /// Returns the size of the regular file `path` in bytes. Returns -10000 when `path` is null or the file
    /// does not open for reading, -1 when its end can't be determined. Never logs; may be called from any
    /// thread.
    ///
    /// Details: a directory gives whatever the file system makes of its end (9223372036854775807 on ext4,
    /// -10000 on tmpfs), a file under /proc gives -10000, and a named pipe blocks until it has a writer.
    ///
    /// Hazard (reliability.md): regular-files-only.
    static long FileSize(const char* path);

    /// Reads the whole file at `path` into `buf`, the caller's buffer of `bufLen` bytes (at least 1). The
    /// bytes are not NUL-terminated. Returns their number. Returns -10000, with `buf` unchanged, when the
    /// file does not open or is longer than `bufLen`; -1 when its size can't be determined. Never logs; may
    /// be called from any thread.
    ///
    ///     char text[4096];
    ///     const long size = VFile::ReadBinFile("/etc/hostname", text, 4096);
    ///     if (size >= 0) fwrite(text, 1, static_cast<size_t>(size), stdout);
    ///
    /// Details: an empty file gives 0. The bytes of `buf` after the data keep their old values. Returns
    /// -10000 as well when `path` or `buf` is null or `bufLen` is below 1. The result is the size before the
    /// read: a read error, or a file that shrinks meanwhile, is not noticed.
    ///
    /// Hazards (reliability.md): unchecked-errors, regular-files-only.
    static long ReadBinFile(const char* path, char* buf, long bufLen);

    /// Writes the `len` bytes at `data` (at least 1) to the file `path`, which is created or emptied first.
    /// Returns `len` when the file has that size afterwards, otherwise -10000. Never logs; may be called from
    /// any thread.
    ///
    /// Details: a partial write gives -10000; the bytes that were written stay. Returns -10000, without
    /// touching the file, when `path` or `data` is null or `len` is below 1 (so it can't make an empty file).
    /// Returns -10000 as well when the file does not open.
    ///
    /// Hazards (reliability.md): overwrite-in-place, no-sync.
    static long WriteBinFile(const char* path, const char* data, long len);

    /// Appends the `len` bytes at `data` (at least 1) to the file `path`, which is created when missing.
    /// Returns 0 when the file opened, **also when the write failed**, for instance on a full disk; compare
    /// sizes where that matters. Returns -10000 when `path` or `data` is null, `len` is below 1 or the file
    /// does not open. Never logs; may be called from any thread.
    ///
    /// Hazards (reliability.md): overwrite-in-place, unchecked-errors, no-sync.
    static int AppendWriteFile(const char* path, const char* data, long len);

    /// Copies the content of `srcFilename` to `dstFilename`, which is created or emptied first. Returns 0, or
    /// -10000 with what was written so far left in place. **A copy onto itself empties the file**, with
    /// result 0. **The last flush and close are not checked**: compare the sizes or the content afterwards
    /// where that matters. May be called from any thread.
    ///
    /// Details: only the content is copied. The mode of a new file is 0666 minus the umask, a set-user-ID bit
    /// is lost, and an existing file keeps its own mode and owner. Processes that have an existing file open
    /// or mapped see it change. A running program's file can't be opened for writing (ETXTBSY). Symlinks are
    /// followed on both sides. Nothing is synced to the disk.
    ///
    /// Logs with function name "VCopyFile", where a failed open is first logged by "fopen_s" as "open file %s
    /// errno %d" (level 3):
    ///  - "Not Exist:srcFilename=%s": Level 3. The source did not open, for whatever reason; a null path is
    ///    treated as the empty text. The destination is unchanged.
    ///  - "Not fopen_s:dstFilename=%s": Level 3. The destination did not open.
    ///  - "ret=%d,len=%d": Level 1. Of `len` bytes only `ret` were written.
    ///
    /// Data passes through the buffer of the destination's stream (4096 bytes on most file systems, 8192 at
    /// most). On a full disk the last buffer of data may be lost with result 0: copying 4096 bytes or less to
    /// /dev/full gives 0, copying more gives -10000. A read error counts as the end of the source: a copy of
    /// a directory is an empty file.
    ///
    /// Between regular files the kernel moves most of the data, if the source has 128 KiB or more and the
    /// destination's file system has blocks of more than 2048 bytes. The streams copy the rest, at least the
    /// last 16 KiB. When the move fails, the streams go on from there. They meet the error again, or complete
    /// the copy.
    ///
    /// Hazards (reliability.md): overwrite-in-place, unchecked-errors, copy-onto-itself, no-sync,
    /// names-in-log.
    static int VCopyFile(const char* srcFilename, const char* dstFilename);

    /// Returns the time of the last modification of `path` in seconds since the epoch, or -1 with the errno
    /// of stat(2). Never logs; may be called from any thread.
    static time_t GetFileLastModifiedTime(const std::string& path);

    /// Appends to `subDirs` the path of every directory directly in `path`, symlinks to directories included,
    /// as `path` + "/" + name. Returns nothing: a directory that does not open adds nothing. Never logs; may
    /// be called from any thread if no other thread uses `subDirs`.
    ///
    /// Details: after a `path` that ends in '/', the results have "//". The order is that of readdir(3); what
    /// `subDirs` held stays in front. `path` may be an element of `subDirs`, and ends at its first NUL if it
    /// holds one. Lets std::bad_alloc through.
    ///
    /// Hazard (reliability.md): silent-listing.
    static void ListSubDirectories(const std::string& path, std::vector<std::string>& subDirs);

    /// Appends to `files` the path of every regular file in the tree below `path`, symlinks to regular files
    /// included. **For trusted trees only: symlinks to directories are entered and nothing limits the
    /// depth.** Returns nothing: a directory that does not open adds nothing, and the walk goes on with the
    /// next. Never logs; may be called from any thread if no other thread uses `files`.
    ///
    /// Details: the form and the order are those of ListSubDirectories; the files of a subdirectory stand
    /// where that subdirectory was met. Other kinds of entries, and those whose stat(2) fails, are skipped.
    /// Lets std::bad_alloc through.
    ///
    /// A symlink to a directory above it is followed again and again until the system refuses the path. With
    /// two such symlinks the walk never ends in practice. Each level keeps one descriptor open; when they run
    /// out, deeper directories are silently missing. Each level also takes up to 300 bytes of stack.
    ///
    /// Hazard (reliability.md): endless-walk.
    static void ScanDirectoriesFiles(std::string path, std::vector<std::string>& files);

    explicit VFile() = delete;
};

#endif
