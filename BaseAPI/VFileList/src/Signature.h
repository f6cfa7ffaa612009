// Whether somebody who is trusted has signed a text. The signature is Ed25519's, 64 bytes in a file of their
// own; who is trusted has a public key in a directory: PEM files, NAME.pem.
#ifndef VFILELIST_SIGNATURE_H
#define VFILELIST_SIGNATURE_H

#include <string>

#include "Trouble.h"

constexpr char kUsualTrustedDirectory[] = "/etc/vfilelist/trusted";

// Whether signatures are asked for: without the usual directory of trusted keys nobody has asked. Any other
// directory has to be there.
bool IsSignatureWanted(const std::string& trustedDirectory);

// Trouble unless one of the trusted keys has signed the text: also when there is no key, or one that can't be
// read.
Trouble ExpectSignature(const std::string& text, const std::string& signaturePath,
                        const std::string& trustedDirectory);

#endif
