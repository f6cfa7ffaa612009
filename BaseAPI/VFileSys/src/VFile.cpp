// Whole-file operations, the switch of the file protection, and listings of directory trees.
#include "VFile.h"

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
constexpr off_t kLargeBufferSize = off_t{64} * 1024;

struct FileCloser {
    void operator()(FILE* file) const { (void)fclose(file); }  // nobody is promised the status of closing
};
using FileHandle = std::unique_ptr<FILE, FileCloser>;

// A file stream with a buffer that is not on the heap: nothing here may throw for lack of memory.
template <typename Stream>
struct BufferedFile {
    BufferedFile(const char* path, std::ios::openmode mode) {
        stream.rdbuf()->pubsetbuf(buffer, sizeof(buffer));
        stream.open(path, mode);
    }
    char buffer[BUFSIZ];
    Stream stream;
};
using InputFile = BufferedFile<std::ifstream>;
using OutputFile = BufferedFile<std::ofstream>;

constexpr std::ios::openmode kReadFromEnd = std::ios::in | std::ios::binary | std::ios::ate;

// The size that the position at the end of the stream tells; -1 where the stream can't tell it.
long SizeAtEnd(std::ifstream& stream) {
    return static_cast<long>(static_cast<std::streamoff>(stream.tellg()));
}

bool IsWritable(const char* path, const char* data, long len) {
    return data != nullptr && len > 0 && path != nullptr;
}

FileHandle fopen_s(const char* path, const char* mode) {
    FileHandle file(fopen(path, mode));
    if (!file) {
        const int error = errno;
        VFS_LOG("fopen_s", kLogInfo, "open file %s errno %d", path, error);
    }
    return file;
}

// Copies blocks until the source gives no more; a read error is not told apart from its end. With `isTrial`
// an error of the destination is not logged.
int CopyBlocks(FILE* source, FILE* destination, bool isTrial) {
    char block[kCopyBlockSize] = {};
    while (const std::size_t bytesRead = fread(block, 1, sizeof(block), source)) {
        const std::size_t bytesWritten = fwrite(block, 1, bytesRead, destination);
        if (bytesWritten != bytesRead) {
            if (isTrial && ferror(destination) != 0) return kFailure;
            VFS_LOG("VCopyFile", kLogError, "ret=%d,len=%d", static_cast<int>(bytesWritten),
                    static_cast<int>(bytesRead));
            return kFailure;
        }
    }
    return kSuccess;
}

// Copies and closes the streams. `hasFailed` tells an error of the destination, also one that shows only when
// the stream is flushed; without it nobody asks.
int CopyAndClose(FileHandle& source, FileHandle& destination, bool* hasFailed) {
    const int status = CopyBlocks(source.get(), destination.get(), hasFailed != nullptr);
    // Callers rely on these two being unchecked: what does not fit at the last flush is not reported.
    (void)fflush(source.get());
    (void)fflush(destination.get());
    if (hasFailed != nullptr) *hasFailed = ferror(destination.get()) != 0;
    source.reset();
    destination.reset();
    return status;
}

// Large buffers are for two regular files; short copies would gain nothing.
bool IsWorthLargeBuffers(FILE* source, FILE* destination) {
    struct stat status;
    return fstat(fileno(source), &status) == 0 && S_ISREG(status.st_mode) &&
           status.st_size > kLargeBufferSize && fstat(fileno(destination), &status) == 0 &&
           S_ISREG(status.st_mode);
}

// The same with fewer, larger system calls.
int CopyOnLargeBuffers(FileHandle& source, FileHandle& destination, bool& hasFailed) {
    char sourceBuffer[kLargeBufferSize];
    char destinationBuffer[kLargeBufferSize];
    (void)setvbuf(source.get(), sourceBuffer, _IOFBF, sizeof(sourceBuffer));
    (void)setvbuf(destination.get(), destinationBuffer, _IOFBF, sizeof(destinationBuffer));
    return CopyAndClose(source, destination, &hasFailed);
}

// The kind of what `path` leads to, as the S_IF... bits; 0, which is no kind, when there is nothing.
mode_t FileKind(const std::string& path) {
    struct stat status;
    return stat(path.c_str(), &status) == 0 ? status.st_mode & S_IFMT : 0;
}

// Calls `handleEntry` with the path and the kind of each entry of the directory, in the order of its stream;
// not at all when it does not open. The path of the entry is built in `path`, behind that of the directory,
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

// The directory's path, which ends at its first NUL, as for opendir: otherwise each entry behind it would
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
    OutputFile file(path, std::ios::out | std::ios::trunc | std::ios::binary);
    if (!file.stream.is_open()) return kFailure;

    file.stream.write(data, len);
    file.stream.close();
    // The size on the disk tells of a short write, whatever the stream thinks.
    return FileSize(path) == len ? len : kFailure;
}

int VFile::AppendWriteFile(const char* path, const char* data, long len) {
    if (!IsWritable(path, data, len)) return kFailure;
    OutputFile file(path, std::ios::out | std::ios::app);
    if (!file.stream.is_open()) return kFailure;

    // Deliberately unchecked, unlike WriteBinFile: a file that opened is all that the result promises.
    file.stream.write(data, len);
    return kSuccess;
}

int VFile::VCopyFile(const char* srcFilename, const char* dstFilename) {
    const char* const sourcePath = TextOrEmpty(srcFilename);
    const char* const destinationPath = TextOrEmpty(dstFilename);
    // Callers rely on how the default buffering of the destination shows a write error, or does not. A copy
    // on large buffers that meets one is therefore done again from the beginning, on the default ones.
    for (bool isFirst = true;; isFirst = false) {
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
        if (!isFirst || !IsWorthLargeBuffers(source.get(), destination.get())) {
            return CopyAndClose(source, destination, nullptr);
        }

        bool hasFailed = false;
        const int status = CopyOnLargeBuffers(source, destination, hasFailed);
        if (!hasFailed) return status;
    }
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
