#ifndef VFILE_H
#define VFILE_H

#include <ctime>
#include <string>
#include <vector>

/// Work on whole files, and listings of directory trees. There are no objects of this class.
///
/// Paths are taken as given: they are not resolved, and symlinks are followed. Writing or copying to a
/// symlink writes to its target, and makes that file if it is missing: work in directories that only your
/// user can write. Nothing is synced to the disk. Buffers belong to the caller; nothing keeps a pointer after
/// it returns, and every stream is closed again whatever fails. Only the two listings may throw, for lack of
/// memory.
class __attribute__((visibility("default"))) VFile {
public:
    /// Switches the product's file protection on (`enableFlag` true) or off, by running
    /// "/usr/local/tarnserver/bin/tarnfileprotect 1 > /tmp/tmphfpenable.log" or
    /// "/usr/local/tarnserver/bin/tarnfileprotect 0 > /tmp/tmphfpdisable.log" through /bin/sh with the
    /// environment of the process. Blocks until it has ended.
    ///
    /// Returns nothing: a failure shows in the log only. Logs "enableFlag=%d" before and "Done return: %d"
    /// after, with function name "FileProtect" at level 3. The number is the raw wait status of system(3):
    /// 256 times the exit status; -1 when nothing could be started or the process ignores SIGCHLD. May be
    /// called from any thread.
    ///
    /// Details: the shell replaces the log file, through a symlink if one lies there, with the rights of the
    /// process. Each call of the same kind replaces the file of the one before.
    ///
    /// Hazards 3, 4 and 26 of docs/reliability.md.
    static void FileProtect(bool enableFlag);

    /// Removes the file, or the empty directory, `path`; of a symlink the symlink itself.
    ///
    /// Returns 0, -1 for a null path, or -10000 when it could not be removed, with the errno of remove(3).
    /// Never logs; may be called from any thread.
    static long RemoveFile(const char* path);

    /// Returns the size of the file `path` in bytes. Returns -10000 when `path` is null or the file does not
    /// open for reading, -1 when its end can't be determined. Never logs; may be called from any thread.
    ///
    /// Meant for regular files. A directory gives whatever the file system makes of its end
    /// (9223372036854775807 on ext4, -10000 on tmpfs), a file under /proc gives -10000, and a named pipe
    /// blocks until it has a writer.
    ///
    /// Hazard 28 of docs/reliability.md.
    static long FileSize(const char* path);

    /// Reads the whole file at `path` into `buf`, the caller's buffer of `bufLen` bytes (at least 1). The
    /// bytes are not NUL-terminated; those after the data keep their old values.
    ///
    ///     char text[4096];
    ///     const long length =
    ///         VFile::ReadBinFile("/etc/hostname", text, sizeof(text));
    ///     if (length >= 0)
    ///         fwrite(text, 1, static_cast<size_t>(length), stdout);
    ///
    /// Returns the number of bytes read, 0 for an empty file. Returns -10000 when `path` or `buf` is null,
    /// `bufLen` is below 1, the file does not open, or it is longer than `bufLen`; `buf` is then unchanged.
    /// Never logs; may be called from any thread.
    ///
    /// Details: the size is taken first and returned unchanged, -1 where it can't be determined. An error
    /// while reading, or a file that shrinks meanwhile, is not noticed.
    ///
    /// Hazards 6 and 28 of docs/reliability.md.
    static long ReadBinFile(const char* path, char* buf, long bufLen);

    /// Writes the `len` bytes at `data` (at least 1) to the file `path`, which is created or emptied first.
    ///
    /// Returns `len` when the file has that size afterwards; a short write is thus noticed. Returns -10000
    /// when it has a different size; what was written in part stays. Returns -10000 as well, without touching
    /// the file, when `path` or `data` is null or `len` is below 1 (so it can't make an empty file), or when
    /// the file does not open. Never logs; may be called from any thread.
    ///
    /// Hazards 5 and 8 of docs/reliability.md.
    static long WriteBinFile(const char* path, const char* data, long len);

    /// Appends the `len` bytes at `data` (at least 1) to the file `path`, which is created when missing.
    ///
    /// Returns 0 when the file opened, deliberately **also when the write failed**, for instance on a full
    /// disk; compare sizes where that matters. Returns -10000 when `path` or `data` is null, `len` is below 1
    /// or the file does not open. Never logs; may be called from any thread.
    ///
    /// Hazards 5, 6 and 8 of docs/reliability.md.
    static int AppendWriteFile(const char* path, const char* data, long len);

    /// Copies the content of `srcFilename` to `dstFilename`, which is created or emptied first. **A copy onto
    /// itself empties the file**, with result 0.
    ///
    /// The content only: the mode of a new file is 0666 minus the umask, a set-user-ID bit is lost, and an
    /// existing file keeps its own mode and owner. Processes that have an existing file open or mapped see it
    /// change. A running program's file can't be opened for writing (ETXTBSY).
    ///
    /// Returns 0, or -10000 with what was written so far left in place. Compare the sizes or the content
    /// afterwards where that matters: the last flush and close are not checked. Logs with function name
    /// "VCopyFile", where a failed open is first logged by "fopen_s" as "open file %s errno %d" (level 3):
    ///  - "Not Exist:srcFilename=%s": Level 3. The source did not open, for whatever reason; a null path is
    ///    treated as the empty text. The destination is unchanged.
    ///  - "Not fopen_s:dstFilename=%s": Level 3. The destination did not open.
    ///  - "ret=%d,len=%d": Level 1. Of `len` bytes only `ret` were written.
    ///
    /// May be called from any thread.
    ///
    /// Details: data passes through the buffer of the destination's stream (4096 bytes on most file systems,
    /// 8192 at the most). On a full disk up to a buffer of data may be lost with result 0: copying at most
    /// 4096 bytes to /dev/full gives 0, more is noticed. A read error counts as the end of the source, so
    /// that copying a directory makes an empty file. Symlinks are followed on both sides. Nothing is synced
    /// to the disk.
    ///
    /// The kernel moves most of a regular file of 128 KiB or more to a regular file, unless that one's file
    /// system has blocks of 2048 bytes or less; the streams copy the rest, at least the last 16 KiB. When the
    /// move fails, the streams go on: the error then shows as in a copy by the streams alone. If it does not
    /// occur again, the copy is whole.
    ///
    /// Hazards 5, 6, 7, 8 and 27 of docs/reliability.md.
    static int VCopyFile(const char* srcFilename, const char* dstFilename);

    /// Returns the time of the last modification of `path` in seconds since the epoch, or -1 with the errno
    /// of stat(2). Never logs; may be called from any thread.
    static time_t GetFileLastModifiedTime(const std::string& path);

    /// Appends to `subDirs` the path of every directory directly in `path`, symlinks to directories included,
    /// as `path` + "/" + name: a `path` that ends in '/' gives two. The order is the directory stream's; what
    /// `subDirs` held stays in front.
    ///
    /// Returns nothing: a directory that does not open adds nothing. `path` may be an element of `subDirs`,
    /// and ends at its first NUL if it holds one. Lets std::bad_alloc through. Never logs; may be called from
    /// any thread that has `subDirs` to itself.
    ///
    /// Hazard 30 of docs/reliability.md.
    static void ListSubDirectories(const std::string& path, std::vector<std::string>& subDirs);

    /// Appends to `files` the path of every regular file in the tree below `path`, symlinks to regular files
    /// included, in the form and order of ListSubDirectories; the files of a subdirectory stand where that
    /// subdirectory was met. Other kinds of entries, and those whose stat(2) fails, are skipped.
    ///
    /// For trusted trees only: symlinks to directories are entered and **nothing limits the depth**. A
    /// symlink that points back up the tree is followed until the system refuses the path, and two such
    /// symlinks make a walk that never ends in practice.
    ///
    /// Returns nothing: a directory that does not open adds nothing, and the walk goes on with the next. Each
    /// level keeps one descriptor open; where they run out, deeper directories are silently missing. Each
    /// level also takes up to 300 bytes of stack. Lets std::bad_alloc through. Never logs; may be called from
    /// any thread that has `files` to itself.
    ///
    /// Hazard 18 of docs/reliability.md.
    static void ScanDirectoriesFiles(std::string path, std::vector<std::string>& files);

    explicit VFile() = delete;
};

#endif
