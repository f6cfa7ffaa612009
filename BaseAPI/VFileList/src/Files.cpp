// Looks at single files and compares their contents.
#include "Files.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <vector>

namespace fs = std::filesystem;

namespace {

// Two of them fit into a processor's second-level cache, which makes comparing as fast as reading.
constexpr std::size_t kBlockSize = std::size_t{256} * 1024;
// Blocks are kept: to clear one for each file takes longer than to compare small files.
using Block = std::array<char, kBlockSize>;

// Opens a regular file. Fails, with the cause in `trouble`, for everything else: reading a pipe may never
// end, and opening a device may set it to work.
int OpenRegular(const std::string& path, struct stat& status, std::string& trouble) {
    if (stat(path.c_str(), &status) == 0 && !S_ISREG(status.st_mode)) {
        trouble = path + ": not a regular file";
        return -1;
    }
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0 || fstat(fd, &status) != 0) {
        trouble = TroubleWith(path, errno);
    } else if (!S_ISREG(status.st_mode)) {
        trouble = path + ": not a regular file";
    } else {
        (void)posix_fadvise(fd, 0, 0, POSIX_FADV_SEQUENTIAL);  // only advice
        return fd;
    }
    if (fd >= 0) (void)close(fd);
    return -1;
}

// Fills the block, unless the file ends before. Nothing, with errno set, when reading fails.
std::optional<std::size_t> Fill(int fd, Block& block) {
    std::size_t length = 0;
    while (length < block.size()) {
        const ssize_t count = read(fd, block.data() + length, block.size() - length);
        if (count == 0) break;
        if (count > 0) length += static_cast<std::size_t>(count);
        if (count < 0) return std::nullopt;
    }
    return length;
}

// As Fill, but says what can't be read.
std::optional<std::size_t> Fill(const Descriptor& file, const std::string& path, Block& block,
                                std::string& trouble) {
    const std::optional<std::size_t> length = Fill(file.get(), block);
    if (!length) trouble = TroubleWith(path, errno);
    return length;
}

// How many bytes two blocks have in common at their beginnings.
std::size_t SameBytes(const Block& block, const Block& other, std::size_t length) {
    if (std::memcmp(block.data(), other.data(), length) == 0) return length;
    const auto* const end = block.begin() + length;
    return static_cast<std::size_t>(std::mismatch(block.begin(), end, other.begin()).first - block.begin());
}

// A part, if the file has nothing but zeros from `begin` of the block on, which is filled so far.
Content CompareWithZeros(const Descriptor& file, const std::string& path, Block& block, std::size_t begin,
                         std::optional<std::size_t> length, std::string& trouble) {
    const auto isZero = [](char byte) { return byte == '\0'; };
    for (; length; length = Fill(file, path, block, trouble), begin = 0) {
        if (!std::all_of(block.begin() + begin, block.begin() + *length, isZero)) return Content::kOther;
        if (*length < block.size()) return Content::kPart;
    }
    return Content::kUnreadable;
}

}  // namespace

Content Compare(const std::string& path, const std::string& packagePath, std::string& trouble) {
    struct stat status {};
    struct stat packageStatus {};
    const Descriptor package(OpenRegular(packagePath, packageStatus, trouble));
    if (!package) return Content::kUnreadable;
    const Descriptor file(OpenRegular(path, status, trouble));
    if (!file) return Content::kUnreadable;

    // A copy is never longer than what it copies.
    if (status.st_size > packageStatus.st_size) return Content::kOther;
    static Block block;
    static Block packageBlock;
    for (;;) {
        const std::optional<std::size_t> length = Fill(file, path, block, trouble);
        if (!length) return Content::kUnreadable;
        const std::optional<std::size_t> packageLength = Fill(package, packagePath, packageBlock, trouble);
        if (!packageLength) return Content::kUnreadable;
        const std::size_t common = std::min(*length, *packageLength);
        const std::size_t same = SameBytes(block, packageBlock, common);
        if (same < common) return CompareWithZeros(file, path, block, same, length, trouble);
        if (*length != *packageLength) return *length < *packageLength ? Content::kPart : Content::kOther;
        if (*length < block.size()) return Content::kSame;
    }
}

int ReadBlocks(const std::string& path, const std::function<void(std::string_view)>& take) {
    struct stat status {};
    const bool isFound = lstat(path.c_str(), &status) == 0;
    if (isFound && (S_ISCHR(status.st_mode) || S_ISBLK(status.st_mode))) return ENOTSUP;
    const Descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
    if (!file) return errno;
    std::vector<char> block(kBlockSize);
    for (;;) {
        const ssize_t count = read(file.get(), block.data(), block.size());
        if (count == 0) return 0;
        if (count < 0) return errno;
        take({block.data(), static_cast<std::size_t>(count)});
    }
}

int ReadWhole(const std::string& path, std::string& content) {
    return ReadBlocks(path, [&content](std::string_view block) { content += block; });
}

Trouble WriteAll(int fd, const std::string& path, std::string_view text) {
    for (std::size_t done = 0; done < text.size();) {
        const ssize_t count = write(fd, text.data() + done, text.size() - done);
        if (count < 0) return TroubleWith(path, errno);
        done += static_cast<std::size_t>(count);
    }
    return std::nullopt;
}

Trouble Sync(const std::string& path) {
    const Descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (!file || fsync(file.get()) != 0) return TroubleWith(path, errno);
    return std::nullopt;
}

std::optional<bool> IsUnfinishedCopy(const std::string& path, const std::string& packagePath,
                                     std::string& trouble) {
    struct stat status {};
    if (stat(packagePath.c_str(), &status) != 0 && (errno == ENOENT || errno == ENOTDIR)) return false;
    const Descriptor file(OpenRegular(path, status, trouble));
    const Descriptor package(OpenRegular(packagePath, status, trouble));
    if (!file || !package) return std::nullopt;

    static Block block;
    static Block packageBlock;
    for (;;) {
        const std::optional<std::size_t> length = Fill(file.get(), block);
        const std::optional<std::size_t> packageLength = Fill(package.get(), packageBlock);
        if (!length || !packageLength) {
            trouble = TroubleWith(std::string(path).append(" or ").append(packagePath), errno);
            return std::nullopt;
        }
        if (*length > *packageLength) return false;
        for (std::size_t i = 0; i < *length; ++i) {
            if (block[i] != packageBlock[i] && block[i] != '\0') return false;
        }
        if (*length < block.size()) return true;
    }
}

bool IsUpgradeBegun(const std::string& path, const std::string& backupPath, const std::string& packagePath) {
    std::string trouble;
    const Content content = Compare(path, packagePath, trouble);
    return (content == Content::kSame || content == Content::kPart) &&
           Compare(path, backupPath, trouble) != Content::kSame;
}

bool IsSameMoment(const timespec& left, const timespec& right) {
    return left.tv_sec == right.tv_sec && left.tv_nsec == right.tv_nsec;
}

bool IsSameFile(const struct stat& left, const struct stat& right) {
    return left.st_dev == right.st_dev && left.st_ino == right.st_ino;
}

FileMarks MarksOf(const std::string& path) {
    struct statx status {};
    if (statx(AT_FDCWD, path.c_str(), AT_SYMLINK_NOFOLLOW, STATX_TYPE, &status) != 0) return {};
    FileMarks marks;
    if ((status.stx_attributes & STATX_ATTR_APPEND) != 0) marks.lock = "append-only";
    if ((status.stx_attributes & STATX_ATTR_IMMUTABLE) != 0) marks.lock = "immutable";
    marks.isMountPoint = (status.stx_attributes & STATX_ATTR_MOUNT_ROOT) != 0;
    return marks;
}

mode_t CurrentUmask() {
    const mode_t mask = umask(0);
    (void)umask(mask);
    return mask;
}

bool IsUnchanged(const struct stat& before, const struct stat& now) {
    // A file that gains or loses another name has a new time of change, but is what it was.
    const bool isSameChange = IsSameMoment(before.st_ctim, now.st_ctim) || before.st_nlink != now.st_nlink;
    return IsSameFile(before, now) && before.st_size == now.st_size && before.st_mode == now.st_mode &&
           IsSameMoment(before.st_mtim, now.st_mtim) && isSameChange;
}

std::string WithoutTrailingSlashes(std::string path) {
    while (path.size() > 1 && path.back() == '/') path.pop_back();
    return path;
}

bool StaysBelow(const std::string& relativePath) {
    const fs::path normal = fs::path(relativePath).lexically_normal();
    return normal.is_relative() && (normal.empty() || *normal.begin() != "..");
}

std::optional<std::string> CanonicalPath(const std::string& path) {
    const std::unique_ptr<char, decltype(&std::free)> resolved(realpath(path.c_str(), nullptr), &std::free);
    if (!resolved) return std::nullopt;
    return resolved.get();
}
