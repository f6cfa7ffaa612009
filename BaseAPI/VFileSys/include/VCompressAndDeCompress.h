#ifndef VCOMPRESSANDDECOMPRESS_H
#define VCOMPRESSANDDECOMPRESS_H

/// Compression of memory buffers with zlib, and .tar.gz archives made by the system's tar(1). There are no
/// objects of this class.
///
/// The memory functions work between two buffers of the caller, keep nothing, and may be called from any
/// thread.
///
/// The archive functions paste their arguments unquoted into a command line for /bin/sh and block until it
/// has ended and no process holds its output open any more; there is no time-out. **Pass only paths that the
/// product itself made: their guard is no defence against a hostile path.**
///
/// Their result 0 means that a file of the archive's name exists afterwards, nothing more: an archive from an
/// earlier run, or one that tar(1) wrote only in part, counts too. Remove an old archive first and test the
/// new one afterwards. (GNU tar leaves an archive behind even when the path to pack is missing. A signal
/// whose handler does not restart calls ends the reading of its output, so that it may stop half-way: install
/// handlers with SA_RESTART.)
///
/// Details: the guard refuses a command with ';', '|', "&&", '$' or a backquote anywhere in it, quotes or
/// not: nothing is run. It lets everything else through to the shell and to tar(1):
///  - a single '&', a line feed: What follows is a command of its own.
///  - '<', '>': A file is read, or made or emptied.
///  - `( ) * ? [ ] ~ # \`, quotes: They mean to the shell what they always mean.
///  - a blank or tab: One path becomes two.
///  - a name that begins with '-': It is an option: --checkpoint-action runs a program, --remove-files deletes
///    the sources.
///  - an archive's name with ':' before its first '/': It names a remote host.
///
/// tar(1) is looked up in PATH, and reads TAR_OPTIONS.
class __attribute__((visibility("default"))) VCompressAndDeCompress {
public:
    /// Compresses the text `src` of `srcLen` bytes (at least 1) into `dst` as a zlib stream of the default
    /// level, as uncompress() reads it. Deliberately **srcLen + 1 bytes** go in: `src[srcLen]`, a text's NUL,
    /// must be readable and is part of the result.
    ///
    /// With `dst` null, `*dstLen` receives the capacity that a second call needs (compressBound of srcLen +
    /// 1, as an int), and the result is 0. Otherwise `*dstLen` holds the capacity of `dst` on entry, which
    /// must be that much even if the result would be shorter, and the compressed length on success.
    ///
    ///     int length = 0;
    ///     VCompressAndDeCompress::CompressString(text, textLength, nullptr,
    ///                                            &length);
    ///     std::vector<char> packed(length);
    ///     if (VCompressAndDeCompress::CompressString(
    ///             text, textLength, packed.data(), &length) == 0)
    ///         packed.resize(length);
    ///
    /// Returns 0 on success, which is not logged. Returns -10000 without a log line when `src` or `dstLen` is
    /// null or `srcLen` below 1 (an empty text can't be compressed). Returns -10000 and logs with function
    /// name "CompressString" at level 1:
    ///  - "need more memory, given len=%d, need len=%d": The capacity is too small or negative; `*dstLen` is
    ///    unchanged.
    ///  - "compress str error, srcLen=%d,dstLen=%d": zlib failed; `*dstLen` is as zlib left it.
    ///
    /// Details: from `srcLen` 2146828411 on, the needed capacity does not fit an int and wraps to a negative
    /// number.
    ///
    /// Hazard 19 of docs/reliability.md.
    static int CompressString(const char* src, int srcLen, char* dst, int* dstLen);

    /// Compresses the `srcLen` bytes at `src` (at least 1) into `dst`, a buffer of `dstLen` bytes, as one
    /// gzip member of the default level. Give it a buffer of compressBound(srcLen) + 18 bytes, which is
    /// always enough.
    ///
    /// Returns the member's length. When the buffer fills before all input is read, the result is the number
    /// of input bytes **left over**, which can't be distinguished from a length; with `dstLen` 0 or negative
    /// that is all of `srcLen`. Returns -10000 when `src` is null, `srcLen` is below 1, the buffer fills
    /// while the member is finished, or zlib fails; the content of `dst` is then of no use.
    ///
    /// Logs "gzip compress success." with function name "GzipCompress" at level 3; failures are not logged.
    ///
    /// Hazard 20 of docs/reliability.md.
    static int GzipCompress(const char* src, int srcLen, char* dst, int dstLen);

    /// Decompresses the gzip member in the `srcLen` bytes at `src` into `dst`, a buffer of `dstLen` bytes, in
    /// one call. **No argument is checked**: lengths go to zlib unchanged, a negative one as a huge one, with
    /// reads and writes beyond the buffers. What follows the first member is ignored.
    ///
    /// Returns the decompressed length and logs "gzip decompress success." with function name
    /// "GzipDecompress" at level 3. Returns zlib's code unchanged on failure, with no log line:
    ///  - Z_BUF_ERROR (-5): `dst` is too small or the input ends early.
    ///  - Z_DATA_ERROR (-3): It is no intact gzip member (a zlib stream is none).
    ///  - Z_STREAM_ERROR (-2): `dst` is null, also with length 0, or `src` is null with a length above 0.
    ///  - Z_MEM_ERROR (-4), Z_VERSION_ERROR (-6): There is no memory, or zlib is of another version.
    ///
    /// Hazards 19 and 21 of docs/reliability.md.
    static int GzipDecompress(const char* src, int srcLen, char* dst, int dstLen);

    /// Packs the file or directory `path` into the archive `path` + ".tar.gz" beside it, with the command
    /// "tar -zcvf PATH.tar.gz PATH".
    ///
    /// Returns 0 when a file of the archive's name exists afterwards, otherwise -10000, also when the command
    /// is refused or can't be started. A null path throws the standard library's std::logic_error, lack of
    /// memory std::bad_alloc. Logs at level 3:
    ///  - "command %s": Function name "CompressFile": the command, before the guard sees it.
    ///  - `not support ";" or "|" or "&&" in cmd, cmd = %s`: Function name "Compress": the guard refused the
    ///    command. The text ends in a line feed.
    ///
    /// Hazards 1, 2, 3, 8 and 27 of docs/reliability.md.
    static int CompressFile(const char* path);

    /// Packs the directory `path` into an archive named after it **inside that directory**: "/srv/logs" and
    /// "/srv/logs/" into "/srv/logs/logs.tar.gz".
    ///
    /// Results, exceptions and log lines as of CompressFile, with function name "CompressFilePath". A regular
    /// file gives -10000. An empty path throws std::out_of_range, a null one std::logic_error; neither runs
    /// or logs anything.
    ///
    /// Details: tar(1) meets its own growing archive there, may pack a part of it, and may end with status 1,
    /// "file changed as we read it"; the result is still 0. One '/' at the end is removed for the name, no
    /// more; "/" has an empty name and gives "/.tar.gz".
    ///
    /// Hazards 1, 2, 3, 8 and 27 of docs/reliability.md.
    static int CompressFilePath(const char* path);

    /// Packs `files`, one path or several separated by blanks, into the archive `archiveBase` + ".tar.gz",
    /// with the command "tar -zcvf ARCHIVEBASE.tar.gz FILES". What is packed comes first, where it goes
    /// second.
    ///
    ///     VCompressAndDeCompress::CompressFileGroup(
    ///         "/etc/app/a.conf /etc/app/b.conf", "/var/backups/app");
    ///
    /// Results, exceptions and log lines as of CompressFile, with function name "CompressFileGroup". A null
    /// argument throws std::logic_error.
    ///
    /// Hazards 1, 2, 3, 8 and 27 of docs/reliability.md.
    static int CompressFileGroup(const char* files, const char* archiveBase);

    explicit VCompressAndDeCompress() = delete;
};

#endif
