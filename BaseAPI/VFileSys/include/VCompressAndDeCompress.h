#ifndef VCOMPRESSANDDECOMPRESS_H
#define VCOMPRESSANDDECOMPRESS_H

/// Compression of memory buffers with zlib, and .tar.gz archives made by the system's tar(1). There are no
/// objects of this class.
///
/// The memory functions work between two buffers of the caller, keep nothing, and may be called from any
/// thread.
///
/// The archive functions put their arguments unquoted into a command line for /bin/sh. **Pass only paths that
/// the product itself made: the guard is no defence against a hostile path.** They block until the command
/// has ended and no process holds its output open; there is no time-out.
///
/// Their result 0 only means that a file of the archive's name exists afterwards. An archive from an earlier
/// run counts, and so does one that tar(1) wrote only in part. Remove an old archive first and test the new
/// one afterwards.
///
/// Details: install signal handlers with SA_RESTART: without it a signal ends the reading of tar(1)'s output,
/// and tar(1) may stop half-way. GNU tar leaves an archive even when the path to pack is missing. tar(1) is
/// looked up in PATH, and reads TAR_OPTIONS.
///
/// The guard refuses a command with ';', '|', "&&", '$' or a backquote anywhere in it, in quotes too; nothing
/// is run then. Everything else reaches the shell and tar(1):
///  - a single '&', a line feed: What follows is a command of its own.
///  - '<', '>': A file is read, or made or emptied.
///  - `( ) * ? [ ] ~ # \`, quotes: They have their usual meaning in the shell.
///  - a blank or tab: One path becomes two.
///  - a name that begins with '-': It is an option: --checkpoint-action runs a program, --remove-files
///    deletes the sources.
///  - an archive's name with ':' before its first '/': It names a remote host.
class __attribute__((visibility("default"))) VCompressAndDeCompress {
public:
    /// Compresses the text `src` of `srcLen` bytes (at least 1) **and its NUL** into `dst` as a zlib stream.
    /// With `dst` null, only sets `*dstLen` to the capacity that it needs. Returns 0, or -10000.
    ///
    ///     int length = 0;
    ///     VCompressAndDeCompress::CompressString(text, size, nullptr, &length);
    ///     std::vector<char> packed(length);
    ///     if (VCompressAndDeCompress::CompressString(
    ///             text, size, packed.data(), &length) == 0)
    ///         packed.resize(length);
    ///
    /// Details: `srcLen` + 1 bytes are compressed: `src[srcLen]` must be readable. The level is zlib's
    /// default; uncompress() reads the stream. On entry `*dstLen` is the size of `dst`. It must be
    /// at least the needed capacity, compressBound(srcLen + 1) as an int, even if the result would be
    /// shorter. On success it becomes the compressed length. Success is not logged.
    ///
    /// Returns -10000 without a log line when `src` or `dstLen` is null or `srcLen` is below 1: an empty text
    /// can't be compressed. Returns -10000 and logs with function name "CompressString" at level 1:
    ///  - "need more memory, given len=%d, need len=%d": The capacity is too small or negative; `*dstLen` is
    ///    unchanged.
    ///  - "compress str error, srcLen=%d,dstLen=%d": zlib failed; `*dstLen` is as zlib left it.
    ///
    /// From `srcLen` 2146828411 on, the needed capacity does not fit an int and wraps to a negative number.
    ///
    /// Hazard (reliability.md): unchecked-lengths.
    static int CompressString(const char* src, int srcLen, char* dst, int* dstLen);

    /// Compresses the `srcLen` bytes at `src` (at least 1) into `dst`, a buffer of `dstLen` bytes, as one
    /// gzip member of the default level. **Give it compressBound(srcLen) + 18 bytes**, which is always
    /// enough. Returns the member's length, or -10000.
    ///
    /// Details: if a smaller buffer fills before all input is read, the result is the number of input bytes
    /// **left over**, which can't be distinguished from a length. With `dstLen` 0 or negative that is
    /// `srcLen`. If it fills after all input is read, the result is -10000.
    ///
    /// Also returns -10000 when `src` is null, `srcLen` is below 1, or zlib fails. After -10000 the content
    /// of `dst` is of no use. Success logs "gzip compress success." with function name "GzipCompress" at
    /// level 3. Failures are not logged.
    ///
    /// Hazard (reliability.md): bytes-left.
    static int GzipCompress(const char* src, int srcLen, char* dst, int dstLen);

    /// Decompresses the gzip member in the `srcLen` bytes at `src` into `dst`, a buffer of `dstLen` bytes, in
    /// one call. **No argument is checked**: a negative length makes zlib read or write beyond the buffers.
    /// Returns the decompressed length, or a negative code of zlib.
    ///
    /// Details: zlib treats a negative length as a huge one. What follows the first member is ignored.
    /// Success logs "gzip decompress success." with function name "GzipDecompress" at level 3. A failure is
    /// not logged, and returns zlib's code unchanged:
    ///  - Z_BUF_ERROR (-5): `dst` is too small or the input ends early.
    ///  - Z_DATA_ERROR (-3): The input is damaged or no gzip member; a zlib stream gives this, too.
    ///  - Z_STREAM_ERROR (-2): `dst` is null, also with length 0, or `src` is null with a length above 0.
    ///  - Z_MEM_ERROR (-4): There is no memory.
    ///  - Z_VERSION_ERROR (-6): zlib has an incompatible version.
    ///
    /// Hazards (reliability.md): unchecked-lengths, one-member.
    static int GzipDecompress(const char* src, int srcLen, char* dst, int dstLen);

    /// Packs the file or directory `path` into the archive `path` + ".tar.gz" beside it, with the command
    /// "tar -zcvf PATH.tar.gz PATH". Returns 0 when a file of the archive's name exists afterwards, otherwise
    /// -10000.
    ///
    /// Details: the result is also -10000 when the guard refuses the command or it can't be started. A null
    /// path throws the standard library's std::logic_error, lack of memory std::bad_alloc. Logs at level 3:
    ///  - "command %s": Function name "CompressFile": the command, before the guard sees it.
    ///  - `not support ";" or "|" or "&&" in cmd, cmd = %s`: Function name "Compress": the guard refused the
    ///    command. The text ends in a line feed.
    ///
    /// Hazards (reliability.md): unquoted-paths, stale-archive, no-time-out, no-sync, names-in-log.
    static int CompressFile(const char* path);

    /// Packs the directory `path` into an archive named after it **inside that directory**: "/srv/logs" and
    /// "/srv/logs/" into "/srv/logs/logs.tar.gz". Returns 0 when a file of the archive's name exists
    /// afterwards, otherwise -10000, also for a regular file.
    ///
    /// Details: exceptions and log lines are those of CompressFile; the line with the command has function
    /// name "CompressFilePath". An empty path throws std::out_of_range, a null one std::logic_error; neither
    /// runs or logs anything.
    ///
    /// The archive grows inside the directory that tar(1) packs. tar(1) may pack a part of it, and end with
    /// status 1, "file changed as we read it"; the result is still 0. One '/' at the end is removed for the
    /// name, no more; "/" has an empty name and gives "/.tar.gz".
    ///
    /// Hazards (reliability.md): unquoted-paths, stale-archive, no-time-out, no-sync, names-in-log.
    static int CompressFilePath(const char* path);

    /// Packs `files`, one path or several separated by blanks, into the archive `archiveBase` + ".tar.gz".
    /// The sources come first, the archive second. Returns 0 when a file of the archive's name exists
    /// afterwards, otherwise -10000.
    ///
    ///     VCompressAndDeCompress::CompressFileGroup(
    ///         "/etc/app/a.conf /etc/app/b.conf", "/var/backups/app");
    ///
    /// Details: the command is "tar -zcvf ARCHIVEBASE.tar.gz FILES". Exceptions and log lines are those of
    /// CompressFile; the line with the command has function name "CompressFileGroup". A null argument throws
    /// std::logic_error.
    ///
    /// Hazards (reliability.md): unquoted-paths, stale-archive, no-time-out, no-sync, names-in-log.
    static int CompressFileGroup(const char* files, const char* archiveBase);

    explicit VCompressAndDeCompress() = delete;
};

#endif
