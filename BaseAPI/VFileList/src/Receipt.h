// What the upgrades of this machine have installed: the last of them is the release, and every file stands
// there as the last upgrade with it has left it. Written when an upgrade is closed.
#ifndef VFILELIST_RECEIPT_H
#define VFILELIST_RECEIPT_H

#include <sys/types.h>

#include <ctime>
#include <map>
#include <string>
#include <vector>

#include "Attributes.h"
#include "Digest.h"
#include "Journal.h"
#include "Lines.h"
#include "Trouble.h"

struct Installation {
    std::string release;  // that the manifest named; may be empty
    std::string fileList;
    std::time_t begun = 0;
    std::size_t files = 0;
};

struct InstalledFile {
    off_t size = 0;
    Digest digest{};
    Attributes attributes;
};

struct Receipt {
    std::vector<Installation> history;           // the oldest first
    std::map<std::string, InstalledFile> files;  // by their paths, in canonical directories

    // The last release that was named; empty when there was none.
    std::string Release() const;
    // The file, however its directory is spelt; nullptr when there is none.
    const InstalledFile* Find(const std::string& path) const;
};

std::string Print(const Receipt& receipt);
// Reads what Print has written.
Trouble Parse(const std::string& text, Receipt& receipt);

// Adds the upgrade of the journal: what it has installed. New files of which no manifest names the owner are
// taken as they are. Leaves out files that nothing is left of. A second time changes nothing.
void Add(const Journal& journal, Receipt& receipt);

// What of the file is not as it was installed, for people; the empty text when all is. Reads the whole file.
std::string DifferenceOf(const std::string& path, const InstalledFile& installed);

#endif
