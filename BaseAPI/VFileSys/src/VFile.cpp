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

// Copies blocks until the source gives no more; a read error is not told apart from its end.
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

// The kind of what `path` leads to, as the S_IF... bits; 0, which is no kind, when there is nothing.
mode_t FileKind(const std::string& path) {
    struct stat status;
    return stat(path.c_str(), &status) == 0 ? status.st_mode & S_IFMT : 0;
}

// Calls `handleEntry` with the path and the kind of each entry of the directory, in the order of its stream;
// not at all when it does not open.
template <typename HandleEntry>
void ForEachEntry(const std::string& directory, HandleEntry handleEntry) {
    const DirHandle dir(opendir(directory.c_str()));
    if (!dir) return;

    // Made before the first call: `directory` may lie in a vector that the calls append to. It ends at its
    // first NUL, as when it was opened: otherwise each entry would lead back to the directory itself.
    const std::string prefix = directory.substr(0, directory.find('\0')) + "/";
    while (const dirent* const entry = readdir(dir.get())) {
        if (IsSelfOrParent(entry->d_name)) continue;
        const std::string entryPath = prefix + entry->d_name;
        handleEntry(entryPath, FileKind(entryPath));
    }
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
    FileHandle source = fopen_s(sourcePath, "rb");
    if (!source) {
        VFS_LOG("VCopyFile", kLogInfo, "Not Exist:srcFilename=%s", sourcePath);
        return kFailure;
    }

    const char* const destinationPath = TextOrEmpty(dstFilename);
    FileHandle destination = fopen_s(destinationPath, "wb");
    if (!destination) {
        source.reset();
        VFS_LOG("VCopyFile", kLogInfo, "Not fopen_s:dstFilename=%s", destinationPath);
        return kFailure;
    }

    const int status = CopyBlocks(source.get(), destination.get());
    // Callers rely on the buffering of the destination's stream and on these two being unchecked: what does
    // not fit at the last flush is not reported.
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
    ForEachEntry(path, [&subDirs](const std::string& entryPath, mode_t kind) {
        if (kind == S_IFDIR) subDirs.push_back(entryPath);
    });
}

void VFile::ScanDirectoriesFiles(std::string path, std::vector<std::string>& files) {
    ForEachEntry(path, [&files](const std::string& entryPath, mode_t kind) {
        if (kind == S_IFDIR) ScanDirectoriesFiles(entryPath, files);
        if (kind == S_IFREG) files.push_back(entryPath);
    });
}
