// `vfilelist verify`: where an upgrade stands.
#ifndef VFILELIST_VERIFY_H
#define VFILELIST_VERIFY_H

#include <optional>
#include <string>

#include "FileList.h"
#include "Manifest.h"
#include "Output.h"

struct VerifyOptions {
    std::string expected = "copied";  // or "renamed", "cleaned", "restored"
    bool areModesIgnored = false;
    std::optional<Manifest> manifest = {};  // of the package, if it has one
};

// Returns the exit status: fine when the expected state is reached and nothing is wrong.
int Verify(const FileList& list, const VerifyOptions& options, Output& output);

#endif
