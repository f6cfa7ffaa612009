// Compares every file of the receipt with what is there.
#include "Installed.h"

#include "Receipt.h"
#include "StateDirectory.h"

int VerifyInstalled(const std::string& stateDirectory, Output& output) {
    Receipt receipt;
    Trouble trouble = StateDirectory(stateDirectory).ReadReceipt(receipt);
    if (!trouble && receipt.history.empty()) trouble = stateDirectory + ": no upgrade was committed";
    output.Member("command", "verify");
    output.Member("stateDirectory", stateDirectory);
    output.Member("release", receipt.Release());
    output.Member("error", trouble ? Json(*trouble) : Json(nullptr));
    if (trouble) {
        output.Line(output.Paint(Style::kError, Shown(*trouble)));
        return kWrongUse;
    }

    std::size_t changed = 0;
    std::size_t done = 0;
    output.BeginList("changed");
    for (const auto& [path, file] : receipt.files) {
        output.Progress("verify", done++, receipt.files.size());
        const std::string difference = DifferenceOf(path, file);
        if (difference.empty()) continue;
        ++changed;
        output.Item({{"path", path}, {"text", difference}});
        output.Line(output.Paint(Style::kError, Shown(path)) + ": " + Shown(difference));
    }
    output.EndList();
    output.Member("files", receipt.files.size());
    const std::string summary = Counted(receipt.files.size(), "installed file") + ", " +
                                (changed == 0 ? "none" : std::to_string(changed)) + " changed.";
    output.Line(output.Paint(changed == 0 ? Style::kGood : Style::kError, summary));
    return changed == 0 ? kFine : kFindings;
}
