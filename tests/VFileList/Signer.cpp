#include "Signer.h"

#include <grp.h>
#include <gtest/gtest.h>
#include <openssl/pem.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <set>
#include <stdexcept>

#include "FileList.h"
#include "Files.h"

namespace {

void Expect(bool isDone) {
    if (!isDone) throw std::runtime_error("libcrypto");
}

}  // namespace

std::string PublicKeyOf(EVP_PKEY* key) {
    const std::unique_ptr<BIO, decltype(&BIO_free)> text(BIO_new(BIO_s_mem()), &BIO_free);
    Expect(PEM_write_bio_PUBKEY(text.get(), key) == 1);
    char* data = nullptr;
    const long length = BIO_get_mem_data(text.get(), &data);
    return {data, static_cast<std::size_t>(length)};
}

Signer::Signer() : key_(EVP_PKEY_Q_keygen(nullptr, nullptr, "ED25519"), &EVP_PKEY_free) {
    Expect(key_ != nullptr);
}

std::string Signer::Signature(const std::string& text) const {
    const std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> context(EVP_MD_CTX_new(), &EVP_MD_CTX_free);
    std::array<unsigned char, 64> signature{};
    std::size_t length = signature.size();
    Expect(EVP_DigestSignInit(context.get(), nullptr, nullptr, nullptr, key_.get()) == 1);
    Expect(EVP_DigestSign(context.get(), signature.data(), &length,
                          reinterpret_cast<const unsigned char*>(text.data()), text.size()) == 1);
    return {signature.begin(), signature.end()};
}

Manifest ManifestOf(const Package& package) {
    const std::string user = getpwuid(geteuid())->pw_name;
    const std::string group = getgrgid(getegid())->gr_name;
    const FileList list(package.ListPath());
    Manifest manifest;
    manifest.fileListDigest = DigestOf(ReadWholeFile(package.ListPath()));
    for (const Target& target : list.Targets()) {
        const Entry& entry = list.entries()[target.entries.back()];
        const std::string content = ReadWholeFile(list.SourceOf(entry));
        struct stat status {};
        EXPECT_EQ(stat(list.SourceOf(entry).c_str(), &status), 0);
        manifest.entries.push_back({list.TargetOf(entry), false, status.st_mode & 07777, user, group,
                                    static_cast<off_t>(content.size()), DigestOf(content)});
    }
    std::set<std::string> directories;
    for (const TargetList& target : list.lists())
        directories.insert(WithoutTrailingSlashes(target.directory));
    for (const std::string& directory : directories) {
        manifest.entries.push_back({directory, true, 0755, user, group, 0, {}});
    }
    std::sort(manifest.entries.begin(), manifest.entries.end(),
              [](const ManifestEntry& left, const ManifestEntry& right) { return left.path < right.path; });
    return manifest;
}

void WriteManifest(const Package& package, const Manifest& manifest, const Signer* signer) {
    const std::string text = Print(manifest);
    package.scratch().Write("package/filelist.ini.mtree", text);
    if (signer == nullptr) return;
    package.scratch().Write("package/filelist.ini.mtree.sig", signer->Signature(text));
    package.scratch().Write("trusted/maker.pem", signer->PublicKey());
}

std::string TrustedDirectory(const Package& package) {
    return package.scratch().Path("trusted");
}
