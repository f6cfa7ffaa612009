// Looks at everything that an upgrade will touch, before it touches anything.
#ifndef VFILELIST_INVENTORY_H
#define VFILELIST_INVENTORY_H

#include "FileList.h"
#include "Journal.h"
#include "Manifest.h"
#include "Output.h"
#include "Trouble.h"

// Fills the journal in. Trouble when something can't be looked at, or is not such that an upgrade could be
// taken back: a NAME.bak is there already, or NAME is no file.
Trouble TakeInventory(const FileList& list, Output& output, Journal& journal);

// Takes from the manifest what the new files and directories without a predecessor shall be. Trouble when the
// journal has something that the manifest does not know, or knows with another content.
Trouble FollowManifest(const Manifest& manifest, Journal& journal);

#endif
