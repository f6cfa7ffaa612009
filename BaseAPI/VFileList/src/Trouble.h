// What can go wrong, as a text for people; nothing when all went well.
#ifndef VFILELIST_TROUBLE_H
#define VFILELIST_TROUBLE_H

#include <cerrno>
#include <cstring>
#include <optional>
#include <string>

using Trouble = std::optional<std::string>;

// "PATH: CAUSE", the cause being that of `error`.
inline std::string TroubleWith(const std::string& path, int error) {
    return path + ": " + std::strerror(error);
}

#endif
