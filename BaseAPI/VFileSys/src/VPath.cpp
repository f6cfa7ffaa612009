// The path value: resolving, joining and splitting path texts.
#include "VPath.h"

#include <unistd.h>

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
    std::string joined;
    joined.reserve(std::strlen(path) + 1 + tail.size());
    joined.append(path).append(1, '/').append(tail);
    return joined;
}

const char* FindSlash(const char* begin, const char* end) {
    if (begin >= end) return nullptr;
    return static_cast<const char*>(std::memchr(begin, '/', static_cast<std::size_t>(end - begin)));
}

// The '/' that opens the component before the ".." at `dotDot`, or the leading '/' when there is none.
char* OpenerOfPreviousComponent(char* path, char* dotDot) {
    char* opener = dotDot - 1;
    if (opener == path) return path;
    do --opener;
    while (*opener != '/');
    return opener;
}

// Canonicalises the absolute text from `path` to its NUL at `end`, in place and from left to right; the last
// component is never looked at. Returns the new end, or null when a block could not be moved.
char* RemoveDotsAndRuns(char* path, char* end) {
    char* cursor = path;
    while (const char* found = FindSlash(cursor, end)) {
        char* const slash = path + (found - path);
        char* after = slash;
        while (*after == '/') ++after;
        char* const lastSlash = after - 1;

        const std::ptrdiff_t length = slash - cursor;
        char* dest = nullptr;
        if (length == 1 && cursor[0] == '.') {
            dest = cursor - 1;
        } else if (length == 2 && cursor[0] == '.' && cursor[1] == '.') {
            dest = OpenerOfPreviousComponent(path, cursor);
        } else if (lastSlash > slash) {
            dest = slash;
        } else {
            cursor = after;
            continue;
        }

        const std::size_t moved = static_cast<std::size_t>(end - lastSlash) + 1;
        if (memmove_s(dest, moved, lastSlash, moved) != 0) return nullptr;
        end -= lastSlash - dest;
        cursor = dest + 1;
    }
    return end;
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

VPath::VPath(const VPath& other) : VPath(other.valid, other.path, nullptr) {}

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
    if (!before(text, path) && before(text, path + kPathCapacity)) {
        // The text is (part of) this path's own, which is about to be overwritten.
        char ownText[kPathCapacity];
        if (strcpy_s(ownText, sizeof(ownText), text) == 0) ResolvePath(ownText);
        return;
    }

    if (text[0] == '/') {
        if (strcpy_s(path, kPathCapacity, text) != 0) return;
    } else {
        length = PutWorkingDirectoryBefore(text, length, path);
        if (length == 0) return;
    }

    char* const end = RemoveDotsAndRuns(path, path + StripTrailingSlashes(path, length));
    valid = true;
    // A failed move leaves the text as the step reached it; callers see a valid path all the same.
    if (end != nullptr) *end = '\0';
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
