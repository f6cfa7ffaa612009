// Puts words together into lines, and takes lines apart.
#include "Lines.h"

#include <algorithm>

std::string Word(std::string_view text) {
    std::string word;
    for (const char character : text) {
        if (character > ' ' && character < 0x7f && character != '%') {
            word += character;
        } else {
            word += '%' + HexOf(std::string_view(&character, 1));
        }
    }
    return word.empty() ? "%" : word;
}

void LinePrinter::Attributes(const std::vector<ExtendedAttribute>& extended) {
    for (const ExtendedAttribute& attribute : extended) {
        Line("attribute", attribute.name, attribute.value);
    }
}

std::string_view LineScanner::Next() {
    const std::size_t end = std::min(line_.find(' '), line_.size());
    const std::string_view word = line_.substr(0, end);
    line_.remove_prefix(std::min(end + 1, line_.size()));
    return word;
}

std::string LineScanner::Text() {
    const std::string_view word = Next();
    std::string text;
    for (std::size_t i = 0; i < word.size(); ++i) {
        if (word[i] != '%') {
            text += word[i];
        } else if (word.size() > 1) {
            const std::string_view digits = word.substr(i + 1, 2);
            isGood_ = isGood_ && digits.size() == 2;
            text += Expect(BytesFromHex(digits));
            i += 2;
        }
    }
    isGood_ = isGood_ && !word.empty();
    return text;
}

void LineReader::Add(std::string_view text) {
    for (std::size_t end = 0; (end = text.find('\n')) != std::string_view::npos;) {
        rest_ += text.substr(0, end);
        AddLine(rest_);
        rest_.clear();
        text.remove_prefix(end + 1);
    }
    rest_ += text;
}

Trouble LineReader::Finish() const {
    if (!isVersionKnown_) return "it is no file of vfilelist, or one of another version";
    if (!isGood_ || !rest_.empty()) return "it is cut off, or was changed";
    return std::nullopt;
}

void LineReader::AddLine(std::string_view line) {
    if (!isVersionKnown_) {
        isVersionKnown_ = line == firstLine_;
        isGood_ = isGood_ && isVersionKnown_;
        return;
    }
    LineScanner scanner(line);
    take_(scanner);
    isGood_ = isGood_ && scanner.IsDone();
}
