// How the stand-ins show texts that come from outside: names of files, lines of files.
#ifndef PLATFORM_ESCAPE_H
#define PLATFORM_ESCAPE_H

#include <algorithm>
#include <array>
#include <cstdio>
#include <exception>
#include <string>
#include <string_view>

// The bytes of the printable UTF-8 character at the beginning of `text`. 0 for a control character, and for
// what is not UTF-8: a terminal that expects another encoding takes the bytes 0x80 to 0x9f for control
// characters.
inline std::size_t PrintableLength(std::string_view text) {
    // The first bytes of characters of one length, and the second bytes that may follow them.
    struct Form {
        unsigned char first, last;
        std::size_t length;
        unsigned char secondFirst, secondLast;
    };
    constexpr std::array<Form, 10> forms = {{{0x20, 0x7e, 1, 0, 0},
                                             {0xc2, 0xc2, 2, 0xa0, 0xbf},  // before: U+0080 to U+009F
                                             {0xc3, 0xdf, 2, 0x80, 0xbf},
                                             {0xe0, 0xe0, 3, 0xa0, 0xbf},
                                             {0xe1, 0xec, 3, 0x80, 0xbf},
                                             {0xed, 0xed, 3, 0x80, 0x9f},  // behind: surrogates
                                             {0xee, 0xef, 3, 0x80, 0xbf},
                                             {0xf0, 0xf0, 4, 0x90, 0xbf},
                                             {0xf1, 0xf3, 4, 0x80, 0xbf},
                                             {0xf4, 0xf4, 4, 0x80, 0x8f}}};
    const auto isWithin = [text](std::size_t index, unsigned char first, unsigned char last) {
        const auto byte = static_cast<unsigned char>(text[index]);
        return byte >= first && byte <= last;
    };
    const Form* const form = std::find_if(forms.begin(), forms.end(), [&isWithin](const Form& candidate) {
        return isWithin(0, candidate.first, candidate.last);
    });
    if (form == forms.end() || form->length > text.size()) return 0;
    if (form->length > 1 && !isWithin(1, form->secondFirst, form->secondLast)) return 0;
    for (std::size_t at = 2; at < form->length; ++at) {
        if (!isWithin(at, 0x80, 0xbf)) return 0;
    }
    return form->length;
}

inline void AppendEscaped(std::string& out, unsigned char byte) {
    switch (byte) {
        case '\n':
            out += "\\n";
            return;
        case '\r':
            out += "\\r";
            return;
        case '\t':
            out += "\\t";
            return;
        case '\\':
            out += "\\\\";
            return;
        default:
            break;
    }
    char escape[5];
    (void)std::snprintf(escape, sizeof(escape), "\\x%02x", static_cast<unsigned>(byte));
    out += escape;
}

// The text with its control characters and the bytes that are not UTF-8 shown, so that nothing in it can end
// the line or steer a terminal. Its backslashes are doubled: what is shown stands for one text only.
inline std::string Escaped(std::string_view text) {
    const auto isPlain = [](char character) {
        const auto byte = static_cast<unsigned char>(character);
        return byte >= 0x20 && byte < 0x7f && byte != '\\';
    };
    // Nearly every line has nothing to escape.
    if (std::all_of(text.begin(), text.end(), isPlain)) return std::string(text);

    std::string shown;
    shown.reserve(text.size());
    while (!text.empty()) {
        const std::size_t length = text[0] == '\\' ? 0 : PrintableLength(text);
        if (length == 0) AppendEscaped(shown, static_cast<unsigned char>(text[0]));
        shown += text.substr(0, length);
        text.remove_prefix(std::max<std::size_t>(length, 1));
    }
    return shown;
}

// One line on standard error, under the name of who has the trouble.
inline void ReportTrouble(const char* owner, std::string_view trouble) noexcept {
    try {
        (void)std::fprintf(stderr, "%s: %s\n", owner, Escaped(trouble).c_str());
    } catch (const std::exception& error) {  // the trouble may be that there is no memory, nor any to tell it
        (void)std::fprintf(stderr, "%s: %s\n", owner, error.what());
    }
}

#endif
