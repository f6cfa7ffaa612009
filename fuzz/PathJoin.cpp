// Joining paths, against the model, and taking them apart again. The input is the path that is begun with,
// and the tails, a field each.
#include <optional>
#include <string>
#include <vector>

#include "Input.h"
#include "Judge.h"
#include "PathModel.h"
#include "VPath.h"
#include "WorkingDirectory.h"

namespace {

const char kWorkingDirectory[] = "/srv/app";
constexpr std::size_t kMostTails = 8;

// A valid path may have the empty text: DirPath of "/a".
struct Expected {
    bool isValid;
    std::string text;
};

Expected Maybe(const std::optional<std::string>& text) {
    return {text.has_value(), text.value_or("")};
}

Expected Joined(const Expected& path, const std::string& tail) {
    return path.isValid ? Maybe(ModelOfJoin(path.text, tail)) : path;
}

void JudgeText(const char* what, const VPath& path, const Expected& expected) {
    judge::Equal(what, std::string(path.RealPath().text), expected.text);
    if (!expected.text.empty()) return;
    // Only a valid path can be joined.
    judge::Equal("the empty path + \"x\"", std::string((path + "x").RealPath().text),
                 expected.isValid ? "/x" : "");
}

// DirName and BaseName are the two halves of the text.
void JudgeParts(const VPath& path, const Expected& expected) {
    const PathText directory = path.DirName();
    const PathText base = path.BaseName();
    const std::size_t slash = expected.text.rfind('/');
    std::string before;
    std::string behind;
    if (expected.text == "/") {
        before = behind = "/";
    } else if (slash != std::string::npos) {
        before = expected.text.substr(0, slash);
        behind = expected.text.substr(slash + 1);
    }
    judge::Equal("DirName", std::string(directory.text), before);
    judge::Equal("BaseName", std::string(base.text), behind);
    judge::Holds("DirName is owned unless it is the root's or an invalid path's",
                 directory.owned == (slash != std::string::npos && expected.text != "/"));
    judge::Holds("BaseName is not owned", !base.owned);
    JudgeText("DirPath", path.DirPath(), {expected.isValid, before});
}

void JudgeJoin(VPath& path, Expected& expected, const std::string& tail) {
    const ExactBlock text = ExactText(tail);
    const Expected sum = Joined(expected, CText(tail));
    const Expected underParent = Joined({expected.isValid, std::string(path.DirName().text)}, CText(tail));

    JudgeText("path + text", path + text.Data(), sum);
    JudgeText("path + string", path + tail, sum);
    JudgeText("DirPath + text", path.DirPath() + text.Data(), underParent);
    JudgeText("the path after +", path, expected);

    VPath other(path);
    other += tail;
    JudgeText("path += string", other, sum);
    path += text.Data();
    JudgeText("path += text", path, sum);
    expected = sum;
    JudgeParts(path, expected);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::vector<std::string> fields = FieldsOf(data, size);
    const std::string directory = PretendWorkingDirectory(kWorkingDirectory);

    VPath path(fields[0].c_str());
    Expected expected = Maybe(ModelOfResolve(CText(fields[0]), directory));
    JudgeText("the path made from the text", path, expected);
    JudgeParts(path, expected);

    for (std::size_t i = 1; i < fields.size() && i <= kMostTails; ++i) JudgeJoin(path, expected, fields[i]);
    return 0;
}
