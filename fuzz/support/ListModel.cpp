#include "ListModel.h"

#include <cstddef>

std::vector<std::string> ModelOfSplit(const std::string& text, const std::string& delimiter) {
    if (delimiter.empty()) return text.empty() ? std::vector<std::string>() : std::vector<std::string>{text};

    std::vector<std::string> pieces;
    std::string piece;
    // The text is read as if a delimiter stood at its end; what is left behind the last one met is no piece.
    const std::string whole = text + delimiter;
    for (std::size_t at = 0; at < whole.size();) {
        if (whole.compare(at, delimiter.size(), delimiter) == 0) {
            pieces.push_back(piece);
            piece.clear();
            at += delimiter.size();
        } else {
            piece += whole[at];
            ++at;
        }
    }
    return pieces;
}

std::string ModelOfFileName(const std::string& path) {
    std::string name;
    for (const char character : path) {
        if (character == '/' || character == '\\') {
            name.clear();
        } else {
            name += character;
        }
    }
    return name;
}
