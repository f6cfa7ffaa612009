// The installed files of a file list, looked at one by one.
#ifndef VFILELIST_TARGETFACTS_H
#define VFILELIST_TARGETFACTS_H

#include <sys/stat.h>

#include <string>

#include "FileList.h"
#include "Files.h"
#include "Passes.h"

struct TargetFacts : TargetObservation {
    bool isOccupied = false;     // something bears the name, if only a dangling symlink
    std::string detail;          // what else there is to say; may be empty
    struct stat status {};       // of NAME itself, if it is occupied
    struct stat backup {};       // of NAME.bak itself, if there is a backup
    struct stat reference {};    // of the file that the backup is or, being a link, leads to
    bool hasReference = false;   // it is a regular file
    long long packageSize = -1;  // of the package's file; -1 when it can't be read
    timespec packageChanged{};   // its change time; that of the file list when it can't be read

    // NAME holds the package's content, or a beginning of it.
    bool IsFromPackage() const { return state == TargetState::kNew || state == TargetState::kPartial; }
    // The new file has not the mode, or not the owner, of the backup.
    bool IsModeDifferent() const;
    bool IsOwnerDifferent() const;
};

TargetFacts Examine(const FileList& list, const Target& target);

const char* NameOf(TargetState state);
std::string ShownOwner(const struct stat& status);

#endif
