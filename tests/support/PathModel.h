// What VPath promises of a path's text, thought through once more in a slow and obvious way: a list of
// components instead of block moves.
#ifndef TESTS_SUPPORT_PATHMODEL_H
#define TESTS_SUPPORT_PATHMODEL_H

#include <optional>
#include <string>

// The canonical text of `text` with `workingDirectory` as the process's; nothing when the path is invalid.
std::optional<std::string> ModelOfResolve(const std::string& text, const std::string& workingDirectory);

// The same for `tail` appended to the valid path text `path`.
std::optional<std::string> ModelOfJoin(const std::string& path, const std::string& tail);

#endif
