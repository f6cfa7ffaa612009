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
#include "Trouble.h"

// Takes the next block of a text.
using Sink = std::function<Trouble(std::string_view)>;

std::string Word(std::string_view text);

// Writes lines, and hands them to the sink block by block.
class LinePrinter {
public:
    explicit LinePrinter(const Sink& sink) : sink_(sink) {}

    template <typename... Words>
    void Line(std::string_view name, const Words&... words) {
        text_ += name;
        (Append(words), ...);
        text_ += '\n';
        if (text_.size() >= kBlockSize) Flush();
    }
    // A line for each attribute.
    void Attributes(const std::vector<ExtendedAttribute>& extended);

    // The sink's first trouble.
    Trouble Finish();

private:
    static constexpr std::size_t kBlockSize = std::size_t{64} * 1024;

    void Append(const std::string& word) { (text_ += ' ') += word; }
    template <typename Number>
    void Append(Number number) {
        Append(std::to_string(number));
    }
    void Flush();

    const Sink& sink_;
    std::string text_;
    Trouble trouble_;
};

// Takes a line apart into words. What does not fit is noted, and asked for once at the end.
class LineScanner {
public:
    explicit LineScanner(std::string_view line) : line_(line) {}

    std::string_view Next();
    // What Word has made a word of.
    std::string Text();
    ExtendedAttribute Attribute();

    template <typename Number>
    void Into(Number& number) {
        const std::string_view word = Next();
        const auto [end, error] = std::from_chars(word.data(), word.data() + word.size(), number);
        isGood_ = isGood_ && error == std::errc() && end == word.data() + word.size();
    }

    template <typename Value>
    Value Expect(std::optional<Value> value) {
        isGood_ = isGood_ && value.has_value();
        return value.value_or(Value{});
    }

    void Fail() { isGood_ = false; }
    // Whether all was as expected, and no word is left over.
    bool IsDone() const { return isGood_ && line_.empty(); }

private:
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
