// VPath's canonical text, against the model. The input is a text, and the working directory as a second
// field.
#include <optional>
#include <string>
#include <vector>

#include "Input.h"
#include "Judge.h"
#include "PathModel.h"
#include "VPath.h"
#include "WorkingDirectory.h"

namespace {

// The path's text; nothing when it is invalid.
std::optional<std::string> ResultOf(const VPath& path) {
    const PathText text = path.RealPath();
    if (text.text[0] == '\0') return std::nullopt;
    return text.text;
}

void JudgePath(const char* what, const VPath& path, const std::optional<std::string>& expected) {
    judge::Equal(what, ResultOf(path), expected);
    judge::Holds("IsRootDir is true of \"/\" alone",
                 !expected.has_value() || path.IsRootDir() == (*expected == "/"));
}

// A part of the path's own text as the text to resolve.
void JudgeOwnText(VPath path, const std::string& directory) {
    const std::optional<std::string> before = ResultOf(path);
    if (!before) return;
    const std::size_t offset = before->size() / 2;

    path.ResolvePath(path.RealPath().text + offset);

    JudgePath("the path resolved from its own text", path, ModelOfResolve(before->substr(offset), directory));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::vector<std::string> fields = FieldsOf(data, size);
    const std::string directory = PretendWorkingDirectory(fields.size() > 1 ? CText(fields[1]) : "/");
    const std::optional<std::string> expected = ModelOfResolve(CText(fields[0]), directory);
    const ExactBlock text = ExactText(fields[0]);

    const VPath path(text.Data());
    JudgePath("the path made from the text", path, expected);
    JudgePath("the path made from the string", VPath(fields[0]), expected);
    JudgePath("the copy", VPath(path), expected);

    VPath other("/some/other/path");
    other.ResolvePath(text.Data());
    JudgePath("the path resolved anew", other, expected);
    JudgeOwnText(path, directory);
    return 0;
}
