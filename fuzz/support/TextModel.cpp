#include "TextModel.h"

#include <cstddef>

namespace {

// A character as UTF-8 writes it.
std::string Encoded(unsigned code) {
    const auto tail = [code](unsigned shift) { return static_cast<char>(0x80U | (code >> shift & 0x3fU)); };
    if (code < 0x80) return {static_cast<char>(code)};
    if (code < 0x800) return {static_cast<char>(0xc0U | code >> 6), tail(0)};
    if (code < 0x10000) return {static_cast<char>(0xe0U | code >> 12), tail(6), tail(0)};
    return {static_cast<char>(0xf0U | code >> 18), tail(12), tail(6), tail(0)};
}

bool IsPrintable(unsigned code) {
    const bool isControl = code < 0x20 || (code >= 0x7f && code < 0xa0);
    const bool isSurrogate = code >= 0xd800 && code < 0xe000;
    return !isControl && !isSurrogate && code < 0x110000;
}

// The code that `length` bytes stand for if they are a character of UTF-8.
unsigned Decoded(const std::string& bytes) {
    unsigned code = static_cast<unsigned char>(bytes[0]);
    if (bytes.size() > 1) code &= 0x7fU >> bytes.size();
    for (std::size_t i = 1; i < bytes.size(); ++i) {
        code = code << 6 | (static_cast<unsigned char>(bytes[i]) & 0x3fU);
    }
    return code;
}

// The printable character at `begin`; empty when there is none.
std::string CharacterAt(const std::string& text, std::size_t begin) {
    for (std::size_t length = 1; length <= 4; ++length) {
        const std::string bytes = text.substr(begin, length);
        const unsigned code = Decoded(bytes);
        if (IsPrintable(code) && Encoded(code) == bytes) return bytes;
    }
    return "";
}

std::string EscapedByte(unsigned char byte) {
    const char digits[] = "0123456789abcdef";
    if (byte == '\n') return "\\n";
    if (byte == '\r') return "\\r";
    if (byte == '\t') return "\\t";
    return std::string("\\x") + digits[byte / 16] + digits[byte % 16];
}

}  // namespace

std::string ModelOfEscaping(const std::string& text) {
    std::string shown;
    for (std::size_t i = 0; i < text.size();) {
        const std::string character = CharacterAt(text, i);
        shown += character == "\\" ? "\\\\" : character;
        if (character.empty()) shown += EscapedByte(static_cast<unsigned char>(text[i]));
        i += character.empty() ? 1 : character.size();
    }
    return shown;
}

std::string WithoutUnprintable(const std::string& text) {
    std::string rest;
    for (std::size_t i = 0; i < text.size();) {
        const std::string character = CharacterAt(text, i);
        rest += character;
        i += character.empty() ? 1 : character.size();
    }
    return rest;
}
