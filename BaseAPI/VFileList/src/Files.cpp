// Looks at single files and compares their contents.
#include "Files.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>

namespace fs = std::filesystem;

namespace {

// Two of them fit into a processor's second-level cache, which makes comparing as fast as reading.
constexpr std::size_t kBlockSize = std::size_t{256} * 1024;

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
std::optional<std::size_t> Fill(int fd, std::vector<char>& block) {
    std::size_t length = 0;
    while (length < block.size()) {
        const ssize_t count = read(fd, block.data() + length, block.size() - length);
        if (count == 0) break;
        if (count > 0) length += static_cast<std::size_t>(count);
        if (count < 0) return std::nullopt;
    }
    return length;
}

}  // namespace

ContentComparer::ContentComparer() : block_(kBlockSize), packageBlock_(kBlockSize) {}

Content ContentComparer::Compare(const std::string& path, const std::string& packagePath,
                                 std::string& trouble) {
    struct stat status {};
    struct stat packageStatus {};
    const Descriptor package(OpenRegular(packagePath, packageStatus, trouble));
    if (!package) return Content::kUnreadable;
    const Descriptor file(OpenRegular(path, status, trouble));
    if (!file) return Content::kUnreadable;

    // A copy is never longer than what it copies.
    if (status.st_size > packageStatus.st_size) return Content::kOther;
    const Content content = CompareOpen(file.get(), package.get());
    if (content == Content::kUnreadable) {
        trouble = TroubleWith(unreadable_ == file.get() ? path : packagePath, errno);
    }
    return content;
}

Content ContentComparer::CompareOpen(int fd, int packageFd) {
    for (;;) {
        std::size_t length = 0;
        std::size_t packageLength = 0;
        if (!Fill(fd, block_, length) || !Fill(packageFd, packageBlock_, packageLength)) {
            return Content::kUnreadable;
        }
        const std::size_t common = std::min(length, packageLength);
        if (std::memcmp(block_.data(), packageBlock_.data(), common) != 0) {
            const char* const difference =
                std::mismatch(block_.data(), block_.data() + common, packageBlock_.data()).first;
            const auto begin = static_cast<std::size_t>(difference - block_.data());
            return CompareRestWithZero(fd, begin, length);
        }
        if (length != packageLength) return length < packageLength ? Content::kPart : Content::kOther;
        if (length < kBlockSize) return Content::kSame;
    }
}

bool ContentComparer::Fill(int fd, std::vector<char>& block, std::size_t& length) {
    const std::optional<std::size_t> filled = ::Fill(fd, block);
    if (!filled) {
        unreadable_ = fd;
        return false;
    }
    length = *filled;
    bytesRead_ += length;
    return true;
}

// Looks at what the block holds from `begin` on, and at the rest of the file.
Content ContentComparer::CompareRestWithZero(int fd, std::size_t begin, std::size_t length) {
    for (;;) {
        const auto isZero = [](char byte) { return byte == '\0'; };
        if (!std::all_of(block_.data() + begin, block_.data() + length, isZero)) return Content::kOther;
        if (length < block_.size()) return Content::kPart;
        begin = 0;
        length = 0;
        if (!Fill(fd, block_, length)) return Content::kUnreadable;
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

    std::vector<char> block(kBlockSize);
    std::vector<char> packageBlock(kBlockSize);
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

bool IsUpgradeBegun(ContentComparer& comparer, const std::string& path, const std::string& backupPath,
                    const std::string& packagePath) {
    std::string trouble;
    const Content content = comparer.Compare(path, packagePath, trouble);
    return (content == Content::kSame || content == Content::kPart) &&
           comparer.Compare(path, backupPath, trouble) != Content::kSame;
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
