// What a package installs, as its maker recorded it: an mtree(5) file beside the file list, whose paths begin
// at the root directory. Comments before the first path tell what that format has no words for.
#ifndef VFILELIST_MANIFEST_H
#define VFILELIST_MANIFEST_H

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

#include "Attributes.h"
#include "Digest.h"
#include "Trouble.h"

struct ManifestEntry {
    std::string path;  // absolute, where it is installed
    bool isDirectory = false;
    mode_t mode = 0;  // the permissions, with the set-id bits
    std::string user;
    std::string group;
    off_t size = 0;  // of a file, as the next
    Digest digest{};
};

struct Manifest {
    std::string release;  // both may be empty
    std::string lowest;   // the lowest release that this one may replace
    Digest fileListDigest{};
    std::vector<ManifestEntry> entries;  // in the order of their paths

    // The entry of that path; nullptr when there is none.
    const ManifestEntry* Find(const std::string& path) const;
};

// Where the manifest of a file list is.
std::string ManifestPath(const std::string& iniPath);

// Whether the text can name a release: 1 to 64 letters, digits and "+-._~".
bool IsRelease(const std::string& text);
// Whether the first release is older: numbers in them count as numbers.
bool IsOlder(const std::string& release, const std::string& other);

std::string Print(const Manifest& manifest);
// Reads what Print has written. Trouble with anything that it does not know for certain.
Trouble Parse(const std::string& text, Manifest& manifest);

// The owner by the numbers that this machine has for the names; nothing when it does not know them.
std::optional<Owner> OwnerOf(const ManifestEntry& entry);
std::string WhyNoOwner(const ManifestEntry& entry);

#endif
