// `vfilelist upgrade`, `commit`, `rollback`, `resume` and `status`: the three passes as one transaction.
// Whatever is killed or fails, the installed files are those from before or the package's in the end, never a
// mixture.
#ifndef VFILELIST_TRANSACTION_H
#define VFILELIST_TRANSACTION_H

#include <string>

#include "Output.h"
#include "Signature.h"
#include "StateDirectory.h"

struct TransactionOptions {
    std::string iniPath;  // for Upgrade; for RollbackTransaction empty, or the list of the open upgrade
    std::string stateDirectory = kUsualStateDirectory;
    // For RollbackTransaction: closes the upgrade also when some files can't be brought back.
    bool isPartial = false;
    bool isByHand = false;  // the same: refused, since something is asked for that is for passes by hand
    std::string trustedDirectory = kUsualTrustedDirectory;  // for Upgrade
};

// Each returns the exit status.
int Upgrade(const TransactionOptions& options, Output& output);
int Commit(const TransactionOptions& options, Output& output);
int Resume(const TransactionOptions& options, Output& output);
int ShowStatus(const TransactionOptions& options, Output& output);

// Of the open upgrade. `isOpen` says whether there was one; without one nothing is done nor shown.
int RollbackTransaction(const TransactionOptions& options, Output& output, bool& isOpen);

#endif
