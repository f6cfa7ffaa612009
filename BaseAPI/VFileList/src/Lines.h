// The text of the files in the state directory: a line for each fact, its words separated by blanks. Bytes
// that are no printable ASCII, and '%', stand as %XX, so that it can be read on any terminal whatever the
// files are called. An empty word is a single '%'.
#ifndef VFILELIST_LINES_H
#define VFILELIST_LINES_H

#include <charconv>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "Attributes.h"
#include "Digest.h"
#include "Trouble.h"

std::string Word(std::string_view text);

// Adds lines to a text.
class LinePrinter {
public:
    explicit LinePrinter(std::string& text) : text_(text) {}

    // The values are texts, numbers, digests and owners.
    template <typename... Values>
    void Line(std::string_view name, const Values&... values) {
        text_ += name;
        (Append(values), ...);
        text_ += '\n';
    }
    // A line for each attribute.
    void Attributes(const std::vector<ExtendedAttribute>& extended);

private:
    void Append(const std::string& text) { (text_ += ' ') += Word(text); }
    void Append(const Digest& digest) { Append(HexOf(digest)); }
    void Append(const Owner& owner) {
        Append(owner.user);
        Append(owner.group);
    }
    template <typename Number>
    void Append(Number number) {
        Append(std::to_string(number));
    }

    std::string& text_;
};

// Takes a line apart into words. What does not fit is noted, and asked for once at the end.
class LineScanner {
public:
    explicit LineScanner(std::string_view line) : line_(line) {}

    std::string_view Next();
    // What Word has made a word of.
    std::string Text();
    // The next values, as Line has written them.
    template <typename... Values>
    void Into(Values&... values) {
        (Take(values), ...);
    }

    void Fail() { isGood_ = false; }
    // Whether all was as expected, and no word is left over.
    bool IsDone() const { return isGood_ && line_.empty(); }

private:
    void Take(std::string& text) { text = Text(); }
    void Take(Digest& digest) { digest = Expect(DigestFromHex(Next())); }
    void Take(Owner& owner) { Into(owner.user, owner.group); }
    void Take(ExtendedAttribute& attribute) { Into(attribute.name, attribute.value); }
    template <typename Number>
    void Take(Number& number) {
        const std::string_view word = Next();
        const auto [end, error] = std::from_chars(word.data(), word.data() + word.size(), number);
        isGood_ = isGood_ && error == std::errc() && end == word.data() + word.size();
    }
    template <typename Value>
    Value Expect(std::optional<Value> value) {
        isGood_ = isGood_ && value.has_value();
        return value.value_or(Value{});
    }

    std::string_view line_;
    bool isGood_ = true;
};

// Hands out the lines of a text that comes block by block, but for the first, which has to be the given one.
class LineReader {
public:
    LineReader(std::string_view firstLine, std::function<void(LineScanner&)> take)
        : firstLine_(firstLine), take_(std::move(take)) {}

    void Add(std::string_view text);
    // Why the text was no such text.
    Trouble Finish() const;

private:
    void AddLine(std::string_view line);

    const std::string_view firstLine_;
    const std::function<void(LineScanner&)> take_;
    std::string rest_;  // the beginning of a line
    bool isVersionKnown_ = false;
    bool isGood_ = true;
};

#endif
