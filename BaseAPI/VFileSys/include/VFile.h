#ifndef VFILE_H
#define VFILE_H

#include <ctime>
#include <string>
#include <vector>

/// Work on whole files, and listings of directory trees. Paths are taken as given: not resolved, links
/// followed. Buffers belong to the caller; nothing keeps a pointer after it returns, and every stream is
/// closed again on every way out. What is written is not synced to the disk. Only the two listings may throw,
/// for lack of memory. There are no objects of this class.
class __attribute__((visibility("default"))) VFile {
public:
    /// Switches the product's file protection on (`enableFlag` true) or off, by running
    /// "/usr/local/tarnserver/bin/tarnfileprotect 1 > /tmp/tmphfpenable.log" or
    /// "/usr/local/tarnserver/bin/tarnfileprotect 0 > /tmp/tmphfpdisable.log" through /bin/sh with the
    /// environment of the process; blocks until it has ended. The shell replaces the log file, through a link
    /// if one lies there.
    ///
    /// Gives no result: a failure is seen in the log only. Logs "enableFlag=%d" before and "Done return: %d"
    /// with the raw wait status of system() after (256 times the exit code; -1 when nothing could be started
    /// or the process ignores SIGCHLD), with function name "FileProtect" at level 3. May be called from any
    /// thread; each call of its kind replaces the log file of the one before.
    ///
    /// Hazards 3, 4 and 26 of docs/reliability.md.
    static void FileProtect(bool enableFlag);

    /// Removes the file, or the empty directory, `path`; of a link the link itself.
    ///
    /// Returns 0, -1 for a null path, or -10000 when it could not be removed, with the errno of remove().
    /// Never logs; may be called from any thread.
    static long RemoveFile(const char* path);

    /// Returns the size of the file `path` in bytes. Returns -10000 when `path` is null or the file does not
    /// open for reading, -1 when its end can't be told.
    ///
    /// Meant for regular files. A directory gives whatever the file system makes of its end
    /// (9223372036854775807 on ext4, -10000 on tmpfs), a file under /proc gives -10000, and a named pipe
    /// blocks until it has a writer. Never logs; may be called from any thread.
    ///
    /// Hazard 28 of docs/reliability.md.
    static long FileSize(const char* path);

    /// Reads the whole file at `path` into `buf`, the caller's buffer of `bufLen` bytes (at least 1).
    /// The bytes are not NUL-terminated; those behind the data keep their old values.
    ///
    /// Returns the number of bytes read, 0 for an empty file. Returns -10000 when `path` or `buf` is
    /// null, `bufLen` is below 1, the file does not open, or it is longer than `bufLen`; `buf` is then
    /// unchanged. The size is taken first and returned as it is, -1 where it can't be told: an error while
    /// reading, or a file that shrinks meanwhile, is not noticed. Never logs; may be called from any thread.
    ///
    ///     char text[4096];
    ///     const long length = VFile::ReadBinFile("/etc/hostname", text, sizeof(text));
    ///     if (length >= 0) fwrite(text, 1, static_cast<size_t>(length), stdout);
    ///
    /// Hazards 6 and 28 of docs/reliability.md.
    static long ReadBinFile(const char* path, char* buf, long bufLen);

    /// Writes the `len` bytes at `data` (at least 1) to the file `path`, which is created or emptied first.
    ///
    /// Returns `len` when the file has that size afterwards; a short write is thus noticed. Returns -10000
    /// when it has not, and also, without touching the file, when `path` or `data` is null or `len` is below
    /// 1 (so no empty file can be made with it), or when the file does not open. What was written in part
    /// stays. Never logs; may be called from any thread.
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

    /// Copies the content of `srcFilename` to `dstFilename`, which is created or emptied first.
    ///
    /// The content only: the mode of a new file is 0666 less the umask, an existing file keeps its own mode
    /// and owner, and the source's is not looked at. An existing file changes under whoever has it open or
    /// mapped; that of a running program does not open (ETXTBSY). Links are followed on both sides. **A copy
    /// onto itself empties the file**, with result 0. Nothing is synced to the disk.
    ///
    /// Returns 0, or -10000 with what was written so far left in place. Data passes through the buffer of the
    /// destination's stream (4096 bytes on most file systems, 8192 at the most), whose last flush and close
    /// are not checked: on a full disk up to a buffer of data may be lost with result 0 (copying at most 4096
    /// bytes to /dev/full gives 0; more is noticed). A read error counts as the end of the source, so that
    /// copying a directory makes an empty file. Compare the sizes or the content afterwards where that
    /// matters.
    ///
    /// The kernel moves most of a regular file of 128 KiB or more to a regular file, unless that one's file
    /// system has blocks of 2048 bytes or less; the streams copy the rest, at least the last 16 KiB. An error
    /// of the move is left to the streams: it shows as in a copy that they make alone, or not at all when it
    /// does not come again, and the copy is whole then.
    ///
    /// Logs with function name "VCopyFile", where a failed open is first logged by "fopen_s" as
    /// "open file %s errno %d" (level 3):
    ///  - "Not Exist:srcFilename=%s" (level 3): the source did not open, for whatever reason; a null path is
    ///    taken as the empty text. The destination is untouched;
    ///  - "Not fopen_s:dstFilename=%s" (level 3): the destination did not open;
    ///  - "ret=%d,len=%d" (level 1): of `len` bytes only `ret` were written.
    ///
    /// May be called from any thread.
    ///
    /// Hazards 5, 6, 7, 8 and 27 of docs/reliability.md.
    static int VCopyFile(const char* srcFilename, const char* dstFilename);

    /// Returns the time of the last modification of `path` in seconds since the epoch, or -1 with the errno
    /// of stat. Never logs; may be called from any thread.
    static time_t GetFileLastModifiedTime(const std::string& path);

    /// Appends to `subDirs` the path of every directory directly in `path`, links to directories included, as
    /// `path` + "/" + name: a `path` that ends in '/' gives two. The order is the directory stream's; what
    /// `subDirs` held stays in front.
    ///
    /// There is no result: a directory that does not open adds nothing. `path` may be an element of
    /// `subDirs`, and ends at its first NUL if it holds one. Lets std::bad_alloc through. Never logs; may be
    /// called from any thread that has `subDirs` to itself.
    ///
    /// Hazard 30 of docs/reliability.md.
    static void ListSubDirectories(const std::string& path, std::vector<std::string>& subDirs);

    /// Appends to `files` the path of every regular file in the tree below `path`, links to regular files
    /// included, in the form and order of ListSubDirectories; the files of a subdirectory stand where that
    /// subdirectory was met. Other kinds of entries, and those whose stat fails, are passed over.
    ///
    /// There is no result: a directory that does not open adds nothing, and the walk goes on with the next.
    /// Links to directories are entered and **nothing limits the depth**: a link that points back up the tree
    /// is followed until the system refuses the path, and two such links make a walk that never ends in
    /// practice. Each level keeps one descriptor open; where they run out, deeper directories are silently
    /// missing. Each level also takes up to 300 bytes of stack. For trusted trees only. Lets std::bad_alloc
    /// through. Never logs; may be called from any thread that has `files` to itself.
    ///
    /// Hazard 18 of docs/reliability.md.
    static void ScanDirectoriesFiles(std::string path, std::vector<std::string>& files);

    explicit VFile() = delete;
};

#endif
