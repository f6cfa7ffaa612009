// What the targets make of the engine's bytes. Inputs are texts where that is possible, so that a seed, and a
// finding, can be read and written by hand.
#ifndef FUZZ_SUPPORT_INPUT_H
#define FUZZ_SUPPORT_INPUT_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

// All the bytes.
std::string BytesOf(const std::uint8_t* data, std::size_t size);

// The bytes but for one line feed at the end, which editors put there.
std::string TextOf(const std::uint8_t* data, std::size_t size);

// The pieces of `text` between the `separator`s.
std::vector<std::string> PiecesOf(const std::string& text, char separator);

// The fields of an input: lines that are "--" separate them. Never empty.
std::vector<std::string> FieldsOf(const std::uint8_t* data, std::size_t size);

// The text as C sees it, up to its first NUL.
inline std::string CText(const std::string& text) {
    return text.c_str();
}

// A block on the heap of exactly `size` bytes: the sanitizer sees every access beyond it.
class ExactBlock {
public:
    explicit ExactBlock(std::size_t size) : data_(new char[size]), size_(size) {}
    explicit ExactBlock(std::string_view bytes) : ExactBlock(bytes.size()) {
        bytes.copy(data_.get(), bytes.size());
    }

    char* Data() const { return data_.get(); }
    std::size_t Size() const { return size_; }
    int Length() const { return static_cast<int>(size_); }
    std::string Bytes() const { return std::string(data_.get(), size_); }

private:
    std::unique_ptr<char[]> data_;
    std::size_t size_;
};

// The same for a text: its NUL is the last byte of the block.
inline ExactBlock ExactText(const std::string& text) {
    return ExactBlock(std::string_view(text.c_str(), text.size() + 1));
}

#endif
