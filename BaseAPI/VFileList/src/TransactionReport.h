// What a command of the transaction has to say, as data, and the one writer that shows it.
#ifndef VFILELIST_TRANSACTIONREPORT_H
#define VFILELIST_TRANSACTIONREPORT_H

#include <string>
#include <vector>

#include "Journal.h"
#include "Output.h"
#include "StateDirectory.h"
#include "Undo.h"

struct TransactionReport {
    const char* command;
    std::string stateDirectory;
    std::string message = {};  // how it ended, for people
    std::string error = {};    // why it was refused or taken back; empty when it was not
    Phase phase = Phase::kNone;
    bool isAtWork = false;
    std::vector<Installation> history = {};  // of `status`
    std::vector<Remark> remarks = {};
    int status = kFine;
};

// `journal` counts while an upgrade is open.
int Show(const TransactionReport& report, const Journal& journal, Output& output);

#endif
