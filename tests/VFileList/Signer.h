// A maker of packages: a key pair, and what is signed with it.
#ifndef TESTS_VFILELIST_SIGNER_H
#define TESTS_VFILELIST_SIGNER_H

#include <openssl/evp.h>

#include <memory>
#include <string>

#include "Manifest.h"
#include "Package.h"

std::string PublicKeyOf(EVP_PKEY* key);  // as PEM

class Signer {
public:
    // Another key pair each time.
    Signer();
    std::string PublicKey() const { return PublicKeyOf(key_.get()); }
    std::string Signature(const std::string& text) const;

private:
    std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)> key_;
};

// What the package says of itself: its files have the owner of this process and the modes that they have in
// Common. The directories that the list names have mode 0755.
Manifest ManifestOf(const Package& package);

// Writes the manifest beside the list; with a signer, the signature beside that, and the signer's key into
// the directory of trusted keys.
void WriteManifest(const Package& package, const Manifest& manifest, const Signer* signer = nullptr);
std::string TrustedDirectory(const Package& package);

#endif
