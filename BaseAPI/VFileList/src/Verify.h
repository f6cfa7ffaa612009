// `vfilelist verify`: where an upgrade stands, and what was changed since the last.
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

// `vfilelist verify --installed`: whether the installed files are still what the upgrades have installed. The
// packages may be long gone. Returns the exit status.
int VerifyInstalled(const std::string& stateDirectory, Output& output);

#endif
