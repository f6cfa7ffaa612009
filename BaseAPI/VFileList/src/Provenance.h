// Where a package comes from: its manifest, and whether somebody who is trusted has signed that.
#ifndef VFILELIST_PROVENANCE_H
#define VFILELIST_PROVENANCE_H

#include <optional>
#include <string>
#include <vector>

#include "CheckParts.h"
#include "FileList.h"
#include "Findings.h"
#include "Manifest.h"
#include "Receipt.h"

struct Provenance {
    std::optional<Manifest> manifest;  // one that can be relied on
    std::vector<Finding> findings;     // why the package is to be refused
};

// Reads the manifest beside the file list, which may well have none, unless signatures are asked for. A
// manifest that nobody has signed is not even read then.
Provenance ReadProvenance(const std::string& iniPath, const std::string& trustedDirectory);

// Whether the list and the package are those of the manifest. The contents of the package's files are read if
// `isThorough`.
void CheckManifest(Inspection& inspection, const Manifest& manifest, bool isThorough);

// Whether the release may follow the one that is installed, and who has changed installed files since.
void CheckReceipt(Inspection& inspection, const std::optional<Manifest>& manifest, const Receipt& receipt,
                  bool isThorough);

#endif
