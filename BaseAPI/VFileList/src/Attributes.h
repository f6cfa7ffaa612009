// What a file is besides its content, as far as an upgrade keeps it: mode, owner, capabilities, access
// control lists and the users' own attributes. What a security policy labels files with is the policy's
// business.
#ifndef VFILELIST_ATTRIBUTES_H
#define VFILELIST_ATTRIBUTES_H

#include <sys/stat.h>

#include <string>
#include <vector>

#include "Trouble.h"

// Of a mode, those bits that are not the kind of the file.
constexpr mode_t kPermissions = 07777;

struct ExtendedAttribute {
    std::string name;
    std::string value;

    bool operator==(const ExtendedAttribute& other) const {
        return name == other.name && value == other.value;
    }
};

struct Owner {
    uid_t user = 0;
    gid_t group = 0;
};

struct Attributes {
    mode_t mode = 0;  // the permissions, with the set-id bits
    uid_t user = 0;
    gid_t group = 0;
    std::vector<ExtendedAttribute> extended;  // in the order of their names
};

bool operator==(const Attributes& left, const Attributes& right);

// Whether an upgrade keeps the extended attributes of this name.
bool IsKept(const std::string& name);

// What the open file has. The trouble has no path.
Trouble ReadAttributes(int fd, Attributes& attributes);

// Makes the open file have exactly these.
Trouble WriteAttributes(int fd, const Attributes& attributes);

#endif
