#include "Input.h"

std::string BytesOf(const std::uint8_t* data, std::size_t size) {
    return std::string(data, data + size);
}

std::string TextOf(const std::uint8_t* data, std::size_t size) {
    std::string text = BytesOf(data, size);
    if (!text.empty() && text.back() == '\n') text.pop_back();
    return text;
}

std::vector<std::string> PiecesOf(const std::string& text, char separator) {
    std::vector<std::string> pieces(1);
    for (const char character : text) {
        if (character == separator) {
            pieces.emplace_back();
        } else {
            pieces.back() += character;
        }
    }
    return pieces;
}

std::vector<std::string> FieldsOf(const std::uint8_t* data, std::size_t size) {
    std::vector<std::string> fields(1);
    bool isFirstLine = true;
    for (const std::string& line : PiecesOf(TextOf(data, size), '\n')) {
        if (line == "--") {
            fields.emplace_back();
            isFirstLine = true;
            continue;
        }
        fields.back() += (isFirstLine ? "" : "\n") + line;
        isFirstLine = false;
    }
    return fields;
}
