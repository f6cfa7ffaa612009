// `vfilelist verify --installed`: whether the installed files are still what the upgrades have installed. The
// packages may be long gone.
#ifndef VFILELIST_INSTALLED_H
#define VFILELIST_INSTALLED_H

#include <string>

#include "Output.h"

// Returns the exit status.
int VerifyInstalled(const std::string& stateDirectory, Output& output);

#endif
