#include "Judge.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>

namespace {

constexpr std::size_t kMostShown = 500;

}  // namespace

void judge::Fail(const std::string& message) {
    // The descriptor, since a target may have put something else in the place of the stream.
    (void)dprintf(STDERR_FILENO, "Judge: %s\n", message.c_str());
    std::abort();
}

std::string judge::Shown(const std::string& text) {
    std::string shown = "\"";
    for (const char character : text.substr(0, kMostShown)) {
        const auto byte = static_cast<unsigned char>(character);
        char escape[5];
        (void)std::snprintf(escape, sizeof(escape), "\\x%02x", static_cast<unsigned>(byte));
        if (byte < 0x20 || byte > 0x7e) {
            shown += escape;
        } else {
            if (byte == '"' || byte == '\\') shown += '\\';
            shown += character;
        }
    }
    shown += '"';
    if (text.size() > kMostShown) shown += "... (" + std::to_string(text.size()) + " bytes)";
    return shown;
}
