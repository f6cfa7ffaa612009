// SplitString and GetFileName of the upgrade tool's module, against the model. The input is a text, and the
// delimiter as a second field; without one it is a comma.
#include <string>
#include <vector>

#include "Input.h"
#include "Judge.h"
#include "ListModel.h"
#include "VCopyFileListIni.h"

namespace {

std::string Joined(const std::vector<std::string>& pieces, const std::string& delimiter) {
    std::string text;
    for (const std::string& piece : pieces) text += (&piece == pieces.data() ? "" : delimiter) + piece;
    return text;
}

void JudgeSplit(const std::string& text, const std::string& delimiter) {
    std::vector<std::string> pieces = {"before"};
    SplitString(text, delimiter, pieces);

    std::vector<std::string> expected = ModelOfSplit(text, delimiter);
    if (delimiter.size() == 1) judge::Equal("the pieces, joined again", Joined(expected, delimiter), text);
    expected.insert(expected.begin(), "before");
    judge::Equal("the list of pieces", pieces, expected);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::vector<std::string> fields = FieldsOf(data, size);
    JudgeSplit(fields[0], fields.size() > 1 ? fields[1] : ",");
    judge::Equal("the file name", GetFileName(fields[0]), ModelOfFileName(fields[0]));
    return 0;
}
