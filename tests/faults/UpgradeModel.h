// What the three passes of an upgrade do, thought through once more, step by step and with one call failing:
// the log, the result and the files that are to be expected.
#ifndef TESTS_FAULTS_UPGRADEMODEL_H
#define TESTS_FAULTS_UPGRADEMODEL_H

#include <map>
#include <string>
#include <vector>

#include "FaultGate.h"

struct ModelEntry {
    std::string source;  // below Common
    std::string name;    // in the target directory
};

struct ModelKey {
    std::string name;
    std::vector<ModelEntry> entries;
};

struct ModelList {
    std::string section;
    std::string directory;  // ends in '/'
    std::vector<ModelKey> keys;
};

// The package and what is installed.
struct ModelPackage {
    std::string installType;
    std::vector<ModelList> lists;              // in order of their sections
    std::map<std::string, std::string> files;  // all files, by path
    std::vector<std::string> directories;      // all directories, without a '/' at the end
    long ancestors;                            // directories above the working directory, itself included
};

struct ModelOutcome {
    int result;
    std::vector<std::string> log;
    std::map<std::string, std::string> files;
};

// `pass`: "-rename", "-copy" or "-clean".
ModelOutcome RunModel(const std::string& pass, const ModelPackage& package, const Fault& fault);

#endif
