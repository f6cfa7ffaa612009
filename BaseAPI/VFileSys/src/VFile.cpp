// Whole-file operations, the switch of the file protection, and listings of directory trees.
#include "VFile.h"

#include <sys/sendfile.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>

#include "Constants.h"
#include "Directory.h"
#include "Log.h"

namespace {

constexpr std::size_t kCopyBlockSize = 2048;

// From this size on, the kernel moves all of a file but a tail, which the streams copy. The tail is longer
// than a stream's buffer (at most BUFSIZ bytes) and a block: a write error before the tail then still shows
// in fwrite, and not only in the unchecked flush.
constexpr off_t kLargeFileSize = off_t{128} * 1024;
constexpr off_t kMinTailSize = off_t{2} * BUFSIZ;

struct FileCloser {
    void operator()(FILE* file) const { (void)fclose(file); }  // the status of closing is not promised
};
using FileHandle = std::unique_ptr<FILE, FileCloser>;

// Smaller than BUFSIZ, which is half of the smallest stack that a thread may have. The calls that write are
// the same: 1024 bytes and more are written past the buffer, and less is written when the stream is closed.
constexpr std::size_t kStreamBufferSize = 2048;

// A file stream with a buffer that is not on the heap: nothing here may throw for lack of memory.
template <typename Stream>
struct BufferedFile {
    BufferedFile(const char* path, std::ios::openmode mode) {
        stream.rdbuf()->pubsetbuf(buffer, sizeof(buffer));
        stream.open(path, mode);
    }
    char buffer[kStreamBufferSize];
    Stream stream;
};
using InputFile = BufferedFile<std::ifstream>;
using OutputFile = BufferedFile<std::ofstream>;

constexpr std::ios::openmode kReadFromEnd = std::ios::in | std::ios::binary | std::ios::ate;

// The size, which is the position at the end of the stream; -1 where the stream can't determine it.
long SizeAtEnd(std::ifstream& stream) {
    return static_cast<long>(static_cast<std::streamoff>(stream.tellg()));
}

bool IsWritable(const char* path, const char* data, long len) {
    return data != nullptr && len > 0 && path != nullptr;
}

// Writes and closes the file. Returns whether it opened, not whether all was written. Never inlined, so that
// its buffer is off the stack before FileSize needs one: a thread may have no room for two.
__attribute__((noinline)) bool WriteFile(const char* path, std::ios::openmode mode, const char* data,
                                         long len) {
    OutputFile file(path, mode);
    if (!file.stream.is_open()) return false;
    file.stream.write(data, len);
    return true;
}

FileHandle fopen_s(const char* path, const char* mode) {
    FileHandle file(fopen(path, mode));
    if (!file) {
        const int error = errno;
        VFS_LOG("fopen_s", kLogInfo, "open file %s errno %d", path, error);
    }
    return file;
}

// How many bytes the kernel is to move; 0 unless both are regular files and the source is a large one. Whole
// buffers, so that the streams flush the tail at the offsets at which they flush a copy of their own. A
// stream whose buffer holds no more than a block does not buffer its first one: it has to write the whole
// copy.
off_t BulkSize(int source, int destination) {
    struct stat status;
    if (fstat(source, &status) != 0 || !S_ISREG(status.st_mode) || status.st_size < kLargeFileSize) return 0;
    const off_t size = status.st_size;
    if (fstat(destination, &status) != 0 || !S_ISREG(status.st_mode)) return 0;
    if (status.st_blksize <= blksize_t{kCopyBlockSize}) return 0;
    return (size - kMinTailSize) / BUFSIZ * BUFSIZ;
}

// Moves the bulk of a large file from descriptor to descriptor, before the streams have read or written.
// Errors are ignored: the streams continue where the descriptors stand, and meet them there.
void MoveBulk(int source, int destination) {
    off_t left = BulkSize(source, destination);
    while (left > 0) {
        const ssize_t moved = sendfile(destination, source, nullptr, static_cast<std::size_t>(left));
        if (moved <= 0) return;
        left -= moved;
    }
}

// Copies blocks until the source gives no more; a read error is treated as its end.
int CopyBlocks(FILE* source, FILE* destination) {
    char block[kCopyBlockSize] = {};
    while (const std::size_t bytesRead = fread(block, 1, sizeof(block), source)) {
        const std::size_t bytesWritten = fwrite(block, 1, bytesRead, destination);
        if (bytesWritten != bytesRead) {
            VFS_LOG("VCopyFile", kLogError, "ret=%d,len=%d", static_cast<int>(bytesWritten),
                    static_cast<int>(bytesRead));
            return kFailure;
        }
    }
    return kSuccess;
}

// The kind of the file at `path`, as the S_IF... bits; 0, which is no kind, when there is none.
mode_t FileKind(const std::string& path) {
    struct stat status;
    return stat(path.c_str(), &status) == 0 ? status.st_mode & S_IFMT : 0;
}

// Calls `handleEntry` with the path and the kind of each entry of the directory, in the order of its stream;
// not at all when it does not open. The path of the entry is built in `path`, after that of the directory,
// so that a walk needs no memory of its own for each entry; the last one's is left there.
template <typename HandleEntry>
void ForEachEntry(std::string& path, HandleEntry handleEntry) {
    const DirHandle dir(opendir(path.c_str()));
    if (!dir) return;

    path += '/';
    const std::size_t length = path.size();
    while (const dirent* const entry = readdir(dir.get())) {
        if (IsSelfOrParent(entry->d_name)) continue;
        path.resize(length);
        path += entry->d_name;
        handleEntry(FileKind(path));
    }
}

void ScanBelow(std::string& path, std::vector<std::string>& files) {
    ForEachEntry(path, [&path, &files](mode_t kind) {
        if (kind == S_IFDIR) ScanBelow(path, files);
        if (kind == S_IFREG) files.push_back(path);
    });
}

// The directory's path, which ends at its first NUL, as for opendir: otherwise each entry after it would
// lead back to the directory itself.
std::string WithoutNul(const std::string& path) {
    return path.substr(0, path.find('\0'));
}

}  // namespace

void VFile::FileProtect(bool enableFlag) {
    VFS_LOG("FileProtect", kLogInfo, "enableFlag=%d", enableFlag ? 1 : 0);
    const int waitStatus =
        system(enableFlag ? "/usr/local/tarnserver/bin/tarnfileprotect 1 > /tmp/tmphfpenable.log"
                          : "/usr/local/tarnserver/bin/tarnfileprotect 0 > /tmp/tmphfpdisable.log");
    VFS_LOG("FileProtect", kLogInfo, "Done return: %d", waitStatus);
}

long VFile::RemoveFile(const char* path) {
    if (path == nullptr) return -1;
    return remove(path) == 0 ? kSuccess : kFailure;
}

long VFile::FileSize(const char* path) {
    if (path == nullptr) return kFailure;

    InputFile file(path, kReadFromEnd);
    return file.stream.is_open() ? SizeAtEnd(file.stream) : kFailure;
}

long VFile::ReadBinFile(const char* path, char* buf, long bufLen) {
    if (buf == nullptr || bufLen <= 0 || path == nullptr) return kFailure;
    InputFile file(path, kReadFromEnd);
    if (!file.stream.is_open()) return kFailure;

    const long size = SizeAtEnd(file.stream);
    if (size > bufLen) return kFailure;
    file.stream.seekg(0);
    file.stream.read(buf, size);
    return size;
}

long VFile::WriteBinFile(const char* path, const char* data, long len) {
    if (!IsWritable(path, data, len)) return kFailure;
    if (!WriteFile(path, std::ios::out | std::ios::trunc | std::ios::binary, data, len)) return kFailure;
    // The size on the disk shows a partial write, whatever the stream reports.
    return FileSize(path) == len ? len : kFailure;
}

int VFile::AppendWriteFile(const char* path, const char* data, long len) {
    if (!IsWritable(path, data, len)) return kFailure;
    // Deliberately unchecked, unlike WriteBinFile: a file that opened is all that the result promises.
    return WriteFile(path, std::ios::out | std::ios::app, data, len) ? kSuccess : kFailure;
}

int VFile::VCopyFile(const char* srcFilename, const char* dstFilename) {
    const char* const sourcePath = TextOrEmpty(srcFilename);
    const char* const destinationPath = TextOrEmpty(dstFilename);
    FileHandle source = fopen_s(sourcePath, "rb");
    if (!source) {
        VFS_LOG("VCopyFile", kLogInfo, "Not Exist:srcFilename=%s", sourcePath);
        return kFailure;
    }
    FileHandle destination = fopen_s(destinationPath, "wb");
    if (!destination) {
        source.reset();
        VFS_LOG("VCopyFile", kLogInfo, "Not fopen_s:dstFilename=%s", destinationPath);
        return kFailure;
    }

    MoveBulk(fileno(source.get()), fileno(destination.get()));
    const int status = CopyBlocks(source.get(), destination.get());
    // Callers rely on these two being unchecked: what does not fit at the last flush is not reported.
    (void)fflush(source.get());
    (void)fflush(destination.get());
    source.reset();
    destination.reset();
    return status;
}

time_t VFile::GetFileLastModifiedTime(const std::string& path) {
    struct stat status;
    return stat(path.c_str(), &status) == 0 ? status.st_mtime : -1;
}

void VFile::ListSubDirectories(const std::string& path, std::vector<std::string>& subDirs) {
    // A copy also because `path` may lie in the vector that grows.
    std::string entryPath = WithoutNul(path);
    ForEachEntry(entryPath, [&entryPath, &subDirs](mode_t kind) {
        if (kind == S_IFDIR) subDirs.push_back(entryPath);
    });
}

void VFile::ScanDirectoriesFiles(std::string path, std::vector<std::string>& files) {
    path = WithoutNul(path);
    ScanBelow(path, files);
}
