// SHA-256 digests: which bytes were checked, and whether these are the bytes that were installed.
#ifndef VFILELIST_DIGEST_H
#define VFILELIST_DIGEST_H

#include <openssl/evp.h>

#include <array>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

using Digest = std::array<unsigned char, 32>;

// Digests what comes piece by piece.
class Hasher {
public:
    Hasher();
    void Add(std::string_view bytes);
    // To be called once, at the end.
    Digest Finish();

private:
    std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> context_;
    bool isGood_;
};

Digest DigestOf(std::string_view bytes);
// Of the rest of the open file. Nothing, with errno set, when reading fails.
std::optional<Digest> DigestOfFile(int fd);

// Bytes as lower-case hexadecimal digits, and back; nothing for what is no such text.
std::string HexOf(std::string_view bytes);
std::string HexOf(const Digest& digest);
std::optional<std::string> BytesFromHex(std::string_view text);
std::optional<Digest> DigestFromHex(std::string_view text);

#endif
