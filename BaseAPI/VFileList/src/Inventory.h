// Looks at everything that an upgrade will touch, before it touches anything.
#ifndef VFILELIST_INVENTORY_H
#define VFILELIST_INVENTORY_H

#include <optional>

#include "FileList.h"
#include "Journal.h"
#include "Manifest.h"
#include "Output.h"
#include "Trouble.h"

// Fills the journal in, but for the digest of the file list, which it has already. The manifest, if there is
// one, says what files and directories without a predecessor shall be. Trouble when something can't be looked
// at, is not such that an upgrade could be taken back (a NAME.bak is there already, or NAME is no file), or
// is not in the manifest as it is.
Trouble TakeInventory(const FileList& list, const std::optional<Manifest>& manifest, Output& output,
                      Journal& journal);

#endif
