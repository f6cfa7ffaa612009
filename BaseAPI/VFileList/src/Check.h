// `vfilelist check`: what is wrong with a file list, its package and its targets before the first pass.
#ifndef VFILELIST_CHECK_H
#define VFILELIST_CHECK_H

#include <string>
#include <vector>

#include "FileList.h"
#include "Findings.h"
#include "Output.h"
#include "Provenance.h"
#include "Signature.h"
#include "StateDirectory.h"

struct CheckOptions {
    std::string iniPath;
    std::string root;  // targets are looked at below it; empty: on this machine
    bool isErrorsOnly = false;
    std::string trustedDirectory = kUsualTrustedDirectory;
    std::string stateDirectory = kUsualStateDirectory;
};

// What is known besides the list and the files.
struct Evidence {
    Provenance provenance;
    Receipt receipt;
    // Whether contents are compared: of the package's files with the manifest, of installed ones with the
    // receipt.
    bool isThorough = false;
};

// Everything that is found, in the order of the list. Reads only. A list that is read already has to be one
// that can be relied on.
std::vector<Finding> FindTrouble(const CheckOptions& options, Output& output);
std::vector<Finding> FindTrouble(const FileList& list, const Evidence& evidence, Output& output);

// Shows it. Returns the exit status.
int Check(const CheckOptions& options, Output& output);

#endif
