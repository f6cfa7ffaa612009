// Digests by OpenSSL's libcrypto.
#include "Digest.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstddef>
#include <new>
#include <vector>

namespace {

constexpr std::size_t kBlockSize = std::size_t{128} * 1024;

}  // namespace

Hasher::Hasher()
    : context_(EVP_MD_CTX_new(), &EVP_MD_CTX_free),
      isGood_(context_ != nullptr && EVP_DigestInit_ex(context_.get(), EVP_sha256(), nullptr) == 1) {}

void Hasher::Add(std::string_view bytes) {
    isGood_ = isGood_ && EVP_DigestUpdate(context_.get(), bytes.data(), bytes.size()) == 1;
}

Digest Hasher::Finish() {
    Digest digest{};
    isGood_ = isGood_ && EVP_DigestFinal_ex(context_.get(), digest.data(), nullptr) == 1;
    if (!isGood_) throw std::bad_alloc();  // nothing but memory can be missing
    return digest;
}

Digest DigestOf(std::string_view bytes) {
    Hasher hasher;
    hasher.Add(bytes);
    return hasher.Finish();
}

std::optional<Digest> DigestOfFile(int fd) {
    Hasher hasher;
    std::vector<char> block(kBlockSize);
    ssize_t count = 0;
    do {
        count = read(fd, block.data(), block.size());
        if (count > 0) hasher.Add({block.data(), static_cast<std::size_t>(count)});
    } while (count > 0);
    if (count < 0) return std::nullopt;
    return hasher.Finish();
}

std::string HexOf(std::string_view bytes) {
    constexpr char kDigits[] = "0123456789abcdef";
    std::string text;
    text.reserve(2 * bytes.size());
    for (const char character : bytes) {
        const auto byte = static_cast<unsigned char>(character);
        text += kDigits[byte >> 4U];
        text += kDigits[byte & 0xfU];
    }
    return text;
}

std::string HexOf(const Digest& digest) {
    std::string bytes(digest.size(), '\0');
    std::copy(digest.begin(), digest.end(), bytes.begin());
    return HexOf(bytes);
}

std::optional<std::string> BytesFromHex(std::string_view text) {
    std::string bytes(text.size() / 2, '\0');
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        const char* const begin = text.data() + 2 * i;
        unsigned char byte = 0;
        if (std::from_chars(begin, begin + 2, byte, 16).ptr != begin + 2) return std::nullopt;
        bytes[i] = static_cast<char>(byte);
    }
    if (text.size() % 2 != 0) return std::nullopt;
    return bytes;
}

std::optional<Digest> DigestFromHex(std::string_view text) {
    const std::optional<std::string> bytes = BytesFromHex(text);
    Digest digest{};
    if (!bytes || bytes->size() != digest.size()) return std::nullopt;
    std::copy(bytes->begin(), bytes->end(), digest.begin());
    return digest;
}
