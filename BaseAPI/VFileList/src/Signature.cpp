// Checks signatures with OpenSSL's libcrypto.
#include "Signature.h"

#include <openssl/evp.h>
#include <openssl/pem.h>
#include <sys/stat.h>
#include <sys/xattr.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <memory>
#include <system_error>
#include <vector>

#include "CheckParts.h"
#include "Files.h"

namespace fs = std::filesystem;

namespace {

constexpr char kAccessList[] = "system.posix_acl_access";
constexpr off_t kSignatureSize = 64;  // nothing longer is even read

using Key = std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)>;

Key KeyFrom(const std::string& pem) {
    const std::unique_ptr<BIO, decltype(&BIO_free)> text(
        BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())), &BIO_free);
    const auto noPassword = [](char*, int, int, void*) { return 0; };
    return {PEM_read_bio_PUBKEY(text.get(), nullptr, noPassword, nullptr), &EVP_PKEY_free};
}

// Trouble also with what is no such key: whoever has put it there expects it to be used.
Trouble ReadKey(const fs::path& path, std::vector<Key>& keys) {
    std::string pem;
    const int error = ReadWhole(path, pem);
    if (error != 0) return TroubleWith(path, error);
    Key key = KeyFrom(pem);
    if (!key || EVP_PKEY_get_id(key.get()) != EVP_PKEY_ED25519)
        return path.string() + ": no Ed25519 public key";
    keys.push_back(std::move(key));
    return std::nullopt;
}

// Whoever can write a key, or the directory, decides who is trusted. What an access control list allows at
// most stands in the place of the group's permissions.
Trouble ExpectOurs(const std::string& path) {
    struct stat status {};
    if (stat(path.c_str(), &status) != 0) return TroubleWith(path, errno);
    if ((status.st_mode & S_IWGRP) != 0 && getxattr(path.c_str(), kAccessList, nullptr, 0) > 0)
        return path + ": others can write it (an access control list)";
    const std::string others = WhoElseWrites(status);
    if (!others.empty()) return path + ": others can write it (" + others + ")";
    return std::nullopt;
}

Trouble ReadKeys(const std::string& directory, std::vector<Key>& keys) {
    if (Trouble trouble = ExpectOurs(directory)) return trouble;
    std::error_code error;
    for (fs::directory_iterator file(directory, error), end; !error && file != end; file.increment(error)) {
        if (file->path().extension() != ".pem") continue;
        if (Trouble trouble = ExpectOurs(file->path())) return trouble;
        if (Trouble trouble = ReadKey(file->path(), keys)) return trouble;
    }
    if (error) return directory + ": " + error.message();
    if (keys.empty()) return directory + ": it has no trusted key";
    return std::nullopt;
}

bool HasSigned(EVP_PKEY* key, const std::string& text, const std::string& signature) {
    const std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> context(EVP_MD_CTX_new(), &EVP_MD_CTX_free);
    const auto bytes = [](const std::string& data) {
        return reinterpret_cast<const unsigned char*>(data.data());
    };
    return context && EVP_DigestVerifyInit(context.get(), nullptr, nullptr, nullptr, key) == 1 &&
           EVP_DigestVerify(context.get(), bytes(signature), signature.size(), bytes(text), text.size()) == 1;
}

}  // namespace

bool IsSignatureWanted(const std::string& trustedDirectory) {
    struct stat status {};
    const auto isThere = [&](const char* path) { return lstat(path, &status) == 0 || errno != ENOENT; };
    if (trustedDirectory != kUsualTrustedDirectory || isThere(kUsualTrustedDirectory)) return true;
    // A link that leads nowhere: to a disk that is not mounted, perhaps.
    const std::string above = fs::path(kUsualTrustedDirectory).parent_path();
    return isThere(above.c_str()) && stat(above.c_str(), &status) != 0;
}

Trouble ExpectSignature(const std::string& text, const std::string& signaturePath,
                        const std::string& trustedDirectory) {
    std::vector<Key> keys;
    if (Trouble trouble = ReadKeys(trustedDirectory, keys)) return trouble;
    std::string signature;
    struct stat status {};
    const bool isLong = stat(signaturePath.c_str(), &status) == 0 && status.st_size > kSignatureSize;
    const int error = isLong ? 0 : ReadWhole(signaturePath, signature);
    if (error != 0) return TroubleWith(signaturePath, error);
    const auto hasSigned = [&](const Key& key) { return HasSigned(key.get(), text, signature); };
    if (std::any_of(keys.begin(), keys.end(), hasSigned)) return std::nullopt;
    return signaturePath + ": not the signature of a trusted key";
}
