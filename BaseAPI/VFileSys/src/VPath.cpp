// The path value: resolving, joining and splitting path texts.
#include "VPath.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string_view>
#include <utility>

#include "Constants.h"
#include "safestr.h"

namespace {

const char kEmptyText[] = "";

PathText EmptyText() {
    return PathText(kEmptyText, false);
}

// Shortens the text of `length` characters by its trailing '/', down to one character at the least.
std::size_t StripTrailingSlashes(char* text, std::size_t length) {
    while (length >= 2 && text[length - 1] == '/') text[--length] = '\0';
    return length;
}

// Puts the working directory and a '/' before the relative `text` of `length` characters, in `path` of
// kPathCapacity bytes. Returns the length of the whole, 0 when it does not fit or there is no directory.
std::size_t PutWorkingDirectoryBefore(const char* text, std::size_t length, char* path) {
    if (getcwd(path, kPathCapacity) == nullptr) return 0;

    const std::size_t dirLength = StripTrailingSlashes(path, std::strlen(path));
    if (length + 1 + dirLength > kPathCapacity - 1) return 0;

    const std::size_t room = kPathCapacity - dirLength;
    const int appended = snprintf_s(path + dirLength, room, room - 1, "%c%s", '/', text);
    return appended < 0 ? 0 : dirLength + static_cast<std::size_t>(appended);
}

std::string Join(const char* path, std::string_view tail) {
    const std::size_t length = std::strlen(path);
    std::string joined;
    joined.reserve(length + 1 + tail.size());
    joined.append(path, length).append(1, '/').append(tail);
    return joined;
}

// Characters that are examined together, in one register. The compilers know such types; a loop over as many
// bytes took up to three times as long for a path of 120 bytes, and six times for one of 4095.
using Block = unsigned char __attribute__((vector_size(16)));
constexpr std::ptrdiff_t kBlockSize = sizeof(Block);

Block BlockAt(const char* text) {
    Block block;
    std::memcpy(&block, text, sizeof(block));
    return block;
}

template <typename Bytes>
bool IsAnySet(Bytes block) {
    std::array<std::uint64_t, 2> halves;
    std::memcpy(halves.data(), &block, sizeof(halves));
    return (halves[0] | halves[1]) != 0;
}

bool IsRemovalAt(const char* slash) {
    return slash[0] == '/' && (slash[1] == '/' || slash[1] == '.');
}

// True when one of the block's characters is a '/' with another one or a '.' after it.
bool HasRemoval(const char* text) {
    // A '.' differs from a '/' in the lowest bit alone.
    return IsAnySet((BlockAt(text) == '/') & ((BlockAt(text + 1) | 1) == '/'));
}

// The first '/' from `text` on that has another one or a '.' after it, `end` when there is none: what stands
// before it is canonical. The text goes on to a NUL at `end`.
const char* FindRemoval(const char* text, const char* end) {
    const bool isLong = end - text >= kBlockSize;
    while (end - text >= kBlockSize && !HasRemoval(text)) text += kBlockSize;
    // The rest is shorter than a block: the block that ends with it will do.
    if (isLong && end - text < kBlockSize && !HasRemoval(end - kBlockSize)) return end;
    while (text < end && !IsRemovalAt(text)) ++text;
    return text;
}

// The same where the next one is likely to be near, and the text to have been moved a moment ago: single
// characters can be read before a move is all done.
char* FindNextRemoval(char* text, char* end) {
    char* const near = text + std::min(end - text, kBlockSize);
    while (text < near && !IsRemovalAt(text)) ++text;
    return text < near ? text : text + (FindRemoval(text, end) - text);
}

// The last '/' of the run that begins at `slash`, before `end`.
char* EndOfRun(char* slash, const char* end) {
    if (slash[1] != '/') return slash;
    while (end - slash > kBlockSize && !IsAnySet(BlockAt(slash + 1) != '/')) slash += kBlockSize;
    while (slash[1] == '/') ++slash;
    return slash;
}

// The '/' that opens the component before the ".." at `dotDot`, or the leading '/' when there is none.
char* OpenerOfPreviousComponent(char* path, char* dotDot) {
    char* opener = dotDot - 1;
    if (opener == path) return path;
    do --opener;
    while (*opener != '/');
    return opener;
}

// Where the text has to be moved to that begins with the last '/' after the component [begin, slash); that
// '/' itself when the component stays.
char* DestinationBehind(char* path, char* begin, char* slash, char* lastSlash) {
    const std::ptrdiff_t length = slash - begin;
    if (length == 1 && begin[0] == '.') return begin - 1;
    if (length == 2 && begin[0] == '.' && begin[1] == '.') return OpenerOfPreviousComponent(path, begin);
    return lastSlash > slash ? slash : lastSlash;
}

// Canonicalises the absolute text from `path` to its NUL at `end`, in place and from left to right; the last
// component is never examined. Nothing is to be removed before the '/' at `cursor`. Ends early, with the
// text as it is then, when a block could not be moved.
void RemoveDotsAndRuns(char* path, char* cursor, char* end) {
    while (true) {
        cursor = FindNextRemoval(cursor, end);
        if (cursor == end) return;
        // A run of '/' ends the ordinary component before it, a '.' begins the one after it.
        char* const begin = cursor[1] == '.' ? cursor + 1 : cursor;
        char* slash = begin;
        while (slash < end && *slash != '/') ++slash;
        if (slash >= end) return;
        char* const lastSlash = EndOfRun(slash, end);
        char* const dest = DestinationBehind(path, begin, slash, lastSlash);
        cursor = dest;
        if (dest == lastSlash) continue;
        const std::size_t moved = static_cast<std::size_t>(end - lastSlash) + 1;
        if (memmove_s(dest, moved, lastSlash, moved) != 0) return;
        end -= lastSlash - dest;
    }
}

// Resolves a text that is (part of) the path's own, and that resolving overwrites. Never inlined: only these
// calls need the copy on their stack, and callers have threads with stacks of a few pages.
__attribute__((noinline)) void ResolveCopy(VPath& path, const char* text) {
    char copy[kPathCapacity];
    if (strcpy_s(copy, sizeof(copy), text) == 0) path.ResolvePath(copy);
}

}  // namespace

PathText::PathText(PathText&& other) noexcept
    : text(std::exchange(other.text, kEmptyText)), owned(std::exchange(other.owned, false)) {}

PathText& PathText::operator=(PathText&& other) noexcept {
    std::swap(text, other.text);
    std::swap(owned, other.owned);
    return *this;
}

PathText::~PathText() {
    if (owned) std::free(const_cast<char*>(text));
}

VPath::VPath(bool isValid, const char* begin, const char* end) : valid(isValid) {
    path[0] = '\0';
    int error = 0;
    if (end == nullptr) {
        error = strcpy_s(path, kPathCapacity, begin);
    } else if (begin == nullptr || std::less<const char*>()(end, begin)) {
        error = -1;
    } else {
        error = strncpy_s(path, kPathCapacity, begin, static_cast<std::size_t>(end - begin));
    }
    if (error != 0) valid = false;
}

VPath::VPath(const char* text) : valid(false) {
    path[0] = '\0';
    ResolvePath(text);
}

VPath::VPath(const std::string& text) : VPath(text.c_str()) {}

VPath::VPath(const VPath& other) : valid(other.valid) {
    path[0] = '\0';
    if (strcpy_s(path, kPathCapacity, other.path) != 0) valid = false;
}

VPath& VPath::operator=(const VPath& other) {
    if (this == &other) return *this;

    valid = other.valid;
    if (strcpy_s(path, kPathCapacity, other.path) != 0) valid = false;
    return *this;
}

VPath::~VPath() = default;

void VPath::ResolvePath(const char* text) {
    valid = false;
    std::size_t length = text == nullptr ? 0 : strnlen(text, kPathCapacity);
    if (length == 0 || length >= kPathCapacity) return;

    const std::less<const char*> before;
    if (!before(text, path) && before(text, path + kPathCapacity)) return ResolveCopy(*this, text);

    std::size_t canonical = 0;  // characters at the beginning, up to a '/', that stay as they are
    if (text[0] == '/') {
        // The caller's text, not the fresh copy, which the processor may still be writing.
        canonical = static_cast<std::size_t>(FindRemoval(text, text + length) - text);
        if (strcpy_s(path, kPathCapacity, text) != 0) return;
    } else {
        length = PutWorkingDirectoryBefore(text, length, path);
        if (length == 0) return;
    }

    length = StripTrailingSlashes(path, length);
    if (canonical < length) RemoveDotsAndRuns(path, path + canonical, path + length);
    // Also when a move has failed: callers see the text that it left as a valid path.
    valid = true;
}

VPath& VPath::operator+=(const char* tail) {
    if (valid) ResolvePath(Join(path, TextOrEmpty(tail)).c_str());
    return *this;
}

VPath& VPath::operator+=(const std::string& tail) {
    if (valid) ResolvePath(Join(path, tail).c_str());
    return *this;
}

VPath VPath::operator+(const char* tail) const {
    VPath sum(valid, kEmptyText, nullptr);
    if (valid) sum.ResolvePath(Join(path, TextOrEmpty(tail)).c_str());
    return sum;
}

VPath VPath::operator+(const std::string& tail) const {
    VPath sum(valid, kEmptyText, nullptr);
    if (valid) sum.ResolvePath(Join(path, tail).c_str());
    return sum;
}

bool VPath::IsRootDir() const {
    return path[0] == '/' && path[1] == '\0';
}

PathText VPath::RealPath() const {
    return PathText(valid ? path : kEmptyText, false);
}

PathText VPath::DirName() const {
    if (!valid) return EmptyText();
    if (IsRootDir()) return PathText(path, false);
    const char* const lastSlash = std::strrchr(path, '/');
    if (lastSlash == nullptr) return EmptyText();

    const std::size_t length = static_cast<std::size_t>(lastSlash - path);
    char* const parent = static_cast<char*>(std::malloc(length + 1));
    if (parent == nullptr) return EmptyText();
    if (strncpy_s(parent, length + 1, path, length) != 0) {
        std::free(parent);
        return EmptyText();
    }
    return PathText(parent, true);
}

PathText VPath::BaseName() const {
    if (!valid) return EmptyText();
    if (IsRootDir()) return PathText(path, false);

    const char* const lastSlash = std::strrchr(path, '/');
    return lastSlash == nullptr ? EmptyText() : PathText(lastSlash + 1, false);
}

VPath VPath::DirPath() const {
    if (!valid) return VPath(false, kEmptyText, nullptr);
    if (IsRootDir()) return VPath(true, path, nullptr);

    const char* const lastSlash = std::strrchr(path, '/');
    return lastSlash == nullptr ? VPath(false, kEmptyText, nullptr) : VPath(true, path, lastSlash);
}

bool VPath::FileExist(const char* name) {
    return name != nullptr && access(name, F_OK) != -1;
}
