#include "WorkingDirectory.h"

#include <unistd.h>

#include <cerrno>

#include "Input.h"

namespace {

// Never destroyed: whatever still runs while the process exits may ask.
std::string& TheDirectory() {
    static std::string& directory = *new std::string("/");
    return directory;
}

}  // namespace

extern "C" char* getcwd(char* buffer, size_t size) noexcept {
    const std::string& directory = TheDirectory();
    if (directory.size() >= size) {
        errno = ERANGE;
        return nullptr;
    }
    directory.copy(buffer, directory.size());
    buffer[directory.size()] = '\0';
    return buffer;
}

std::string PretendWorkingDirectory(const std::string& text) {
    std::string directory;
    for (const std::string& name : PiecesOf(text, '/')) {
        if (!name.empty() && name != "." && name != "..") directory += "/" + name;
    }
    TheDirectory() = directory.empty() ? "/" : directory;
    return TheDirectory();
}
