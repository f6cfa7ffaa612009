// Looks for keys, directories and entries that the passes don't handle.
#include "Problems.h"

#include "VCopyFileListIni.h"

std::vector<Problem> ProblemsOf(const FileList& list) {
    std::vector<Problem> problems;
    for (const TargetList& targets : list.lists()) {
        if (targets.directoryValueLength >= kDirectoryValueCapacity) {
            problems.push_back({"E-DIR-TOO-LONG", list.installType(), targets.section, "",
                                "a directory of " + std::to_string(targets.directoryValueLength) +
                                    " bytes; every pass takes /"});
        } else if (targets.directoryValueLength == 0) {
            problems.push_back(
                {"E-DIR-EMPTY", list.installType(), targets.section, "", "no directory; every pass takes /"});
        }
        if (HasValues(targets)) continue;
        problems.push_back(
            {"W-LIST-EMPTY", targets.section, "", "", "no entries; nothing is installed for it"});
    }
    for (const FileList::SkippedKey& skipped : list.SkippedKeys()) {
        problems.push_back(
            {"E-LIST-TOO-LONG", skipped.section, skipped.key.name, "",
             "a value of " + std::to_string(skipped.key.valueLength) + " bytes; every pass skips the key"});
    }
    for (const Entry& entry : list.entries()) {
        if (HasFileName(entry)) continue;
        problems.push_back({"E-ENTRY-EMPTY", list.ListOf(entry).section, list.KeyOf(entry), entry.text,
                            "an entry without a file name; -rename and -copy fail there"});
    }
    return problems;
}
