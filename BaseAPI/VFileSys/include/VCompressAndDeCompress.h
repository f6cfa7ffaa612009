#ifndef VCOMPRESSANDDECOMPRESS_H
#define VCOMPRESSANDDECOMPRESS_H

/// Compression of memory buffers with zlib, and .tar.gz archives made by the system's `tar`. There are no
/// objects of this class.
///
/// The memory functions work between two buffers of the caller, keep nothing, and may be called from any
/// thread.
///
/// The archive functions paste their arguments unquoted into a command line for /bin/sh and block until
/// `tar` has ended and nobody holds its output open any more; there is no time-out. **Their guard is no
/// defence against a hostile path; pass only paths that the product itself made.** It refuses a command with
/// ';', '|', "&&", '$' or a backquote anywhere in it, quotes or not, and lets everything else through to the
/// shell: a single '&', '<', '>', a line feed, '*', '[', blanks, which split a path in two, names that begin
/// with '-', which `tar` takes as options, and a ':' before the first '/' of an archive's name, which `tar`
/// takes for a remote host. `tar` is looked up in PATH, and reads TAR_OPTIONS.
///
/// Their result 0 means that a file of the archive's name exists afterwards, nothing more: an archive from an
/// earlier run or one that `tar` wrote only in part counts too. (GNU tar leaves an archive behind even when
/// the path to pack is missing, and a signal whose handler does not restart calls ends the reading of its
/// output, so that it may stop half-way.) Remove an old archive first and test the new one afterwards.
class __attribute__((visibility("default"))) VCompressAndDeCompress {
public:
    /// Compresses the text `src` of `srcLen` bytes (at least 1) into `dst` as a zlib stream of the default
    /// level, as uncompress() reads it. Deliberately **srcLen + 1 bytes** go in: `src[srcLen]`, a text's NUL,
    /// must be readable and comes back with the text.
    ///
    /// With `dst` null, `*dstLen` receives the capacity that a second call needs (compressBound of
    /// srcLen + 1, as an int), and the result is 0. Otherwise `*dstLen` holds the capacity of `dst` on entry,
    /// which must be that much even if the result would be shorter, and the compressed length on success.
    ///
    ///     int length = 0;
    ///     VCompressAndDeCompress::CompressString(text, textLength, nullptr, &length);
    ///     std::vector<char> packed(length);
    ///     if (VCompressAndDeCompress::CompressString(text, textLength, packed.data(), &length) == 0)
    ///         packed.resize(length);
    ///
    /// Returns 0 on success. Returns -10000 without a log line when `src` or `dstLen` is null or `srcLen`
    /// below 1 (no empty text can be compressed). Returns -10000 and logs with function name
    /// "CompressString" at level 1: "need more memory, given len=%d, need len=%d" when the capacity is too
    /// small or negative, `*dstLen` unchanged; "compress str error, srcLen=%d,dstLen=%d" when zlib fails,
    /// with `*dstLen` as zlib left it. Success is not logged. Sizes near the end of int do not fit it: from
    /// `srcLen` 2146828411 on, the needed capacity wraps to a negative number.
    ///
    /// Hazard 19 of docs/reliability.md.
    static int CompressString(const char* src, int srcLen, char* dst, int* dstLen);

    /// Compresses the `srcLen` bytes at `src` (at least 1) into `dst`, a buffer of `dstLen` bytes, as one
    /// gzip member of the default level.
    ///
    /// Returns the member's length. When the buffer fills before all input is taken in, the result is the
    /// number of input bytes **left over**, which can't be told from a length: give a buffer of
    /// compressBound(srcLen) + 18 bytes, which is always enough. With `dstLen` 0 or negative all of `srcLen`
    /// is left. Returns -10000 when `src` is null, `srcLen` is below 1, the buffer fills while the member is
    /// finished, or zlib fails; what `dst` then holds is of no use.
    ///
    /// Logs "gzip compress success." with function name "GzipCompress" at level 3; failures are not logged.
    ///
    /// Hazard 20 of docs/reliability.md.
    static int GzipCompress(const char* src, int srcLen, char* dst, int dstLen);

    /// Decompresses the gzip member in the `srcLen` bytes at `src` into `dst`, a buffer of `dstLen` bytes,
    /// in one go. **No argument is checked**: lengths go to zlib as they are, a negative one as a huge one,
    /// with reads and writes beyond the buffers. What follows the first member is ignored.
    ///
    /// Returns the decompressed length, or zlib's code as it is, with no log line: Z_BUF_ERROR (-5) when
    /// `dst` is too small or the input ends early, Z_DATA_ERROR (-3) when it is no intact gzip member (a zlib
    /// stream is none), Z_STREAM_ERROR (-2) for a null `dst`, also with length 0, and for a null `src` of a
    /// length above 0, Z_MEM_ERROR (-4), Z_VERSION_ERROR (-6).
    ///
    /// Logs "gzip decompress success." with function name "GzipDecompress" at level 3.
    ///
    /// Hazards 19 and 21 of docs/reliability.md.
    static int GzipDecompress(const char* src, int srcLen, char* dst, int dstLen);

    /// Packs the file or directory `path` into the archive `path` + ".tar.gz" beside it, with the command
    /// "tar -zcvf PATH.tar.gz PATH".
    ///
    /// Returns 0 when a file of the archive's name exists afterwards, otherwise -10000, also when the command
    /// is refused or can't be started. A null path throws the standard library's std::logic_error, lack of
    /// memory std::bad_alloc. Logs the command as "command %s", function name "CompressFile", level 3; and
    /// when it is refused "not support \";\" or \"|\" or \"&&\" in cmd, cmd = %s\n", function name
    /// "Compress", level 3.
    ///
    /// Hazards 1, 2, 3, 8 and 27 of docs/reliability.md.
    static int CompressFile(const char* path);

    /// Packs the directory `path` into an archive named after it **inside that directory**: "/srv/logs" and
    /// "/srv/logs/" into "/srv/logs/logs.tar.gz". (`tar` meets its own growing archive there, may pack a part
    /// of it, and may end with status 1, "file changed as we read it"; the result is 0 all the same.) One '/'
    /// at the end is taken off for the name, no more; "/" has an empty name and gives "/.tar.gz".
    ///
    /// Results, exceptions and log lines as of CompressFile, with function name "CompressFilePath". A regular
    /// file gives -10000. An empty path throws std::out_of_range, a null one std::logic_error; neither runs
    /// or logs anything.
    ///
    /// Hazards 1, 2, 3, 8 and 27 of docs/reliability.md.
    static int CompressFilePath(const char* path);

    /// Packs `files`, one path or several separated by blanks, into the archive `archiveBase` + ".tar.gz",
    /// with the command "tar -zcvf ARCHIVEBASE.tar.gz FILES". What is packed comes first, where it goes
    /// second.
    ///
    /// Results, exceptions and log lines as of CompressFile, with function name "CompressFileGroup". A null
    /// argument throws std::logic_error.
    ///
    ///     VCompressAndDeCompress::CompressFileGroup("/etc/app/a.conf /etc/app/b.conf", "/var/backups/app");
    ///
    /// Hazards 1, 2, 3, 8 and 27 of docs/reliability.md.
    static int CompressFileGroup(const char* files, const char* archiveBase);

    explicit VCompressAndDeCompress() = delete;
};

#endif
