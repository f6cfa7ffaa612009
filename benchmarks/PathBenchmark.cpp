// VPath beside std::filesystem and beside the plainest code that could do the same.
#include "VPath.h"

#include <unistd.h>

#include <array>
#include <cstring>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

#include "Plain.h"
#include "Rows.h"

namespace {

namespace fs = std::filesystem;

// Absolute paths of 20 to 80 bytes, half of them with ".", ".." or "//"; the same ones in every run.
std::vector<std::string> TypicalPaths() {
    std::mt19937 random(20261121);
    const std::vector<std::string> names = {
        "usr",   "share", "local",  "var", "lib", "application", "data", "config", "x86_64-linux-gnu",
        "cache", "etc",   "service"};
    const std::vector<std::string> dots = {"/.", "/..", "/"};
    std::vector<std::string> paths;
    while (paths.size() < 64) {
        std::string path;
        const std::size_t length = 20 + random() % 40;
        while (path.size() < length) path += "/" + names[random() % names.size()];
        if (paths.size() % 2 == 1) {
            const std::size_t slash = path.find('/', 1 + random() % (path.size() / 2));
            path.insert(slash == std::string::npos ? 0 : slash, dots[random() % dots.size()]);
        }
        if (path.size() <= 80) paths.push_back(path);
    }
    return paths;
}

// Hands out texts in turn.
class Turn {
public:
    explicit Turn(std::vector<std::string> texts) : texts_(std::move(texts)) {}
    const std::string& Next() { return texts_[next_++ & (texts_.size() - 1)]; }

private:
    std::vector<std::string> texts_;  // a power of two
    std::size_t next_ = 0;
};

std::string Repeated(const std::string& unit, std::size_t length) {
    std::string text;
    while (text.size() + unit.size() <= length) text += unit;
    return text;
}

std::string CleanPath(std::size_t length) {
    std::string text = Repeated("/component", length);
    text.resize(length, 'x');
    return text;
}

template <typename Path>
void Resolve(const Path& text) {
    const VPath path(text.c_str());
    benchmark::DoNotOptimize(path.IsRootDir());
    benchmark::ClobberMemory();
}

void Normalise(const std::string& text) {
    benchmark::DoNotOptimize(fs::path(text).lexically_normal());
}

void CleanCopy(const std::string& text) {
    char buffer[4096];
    plain::CleanCopy(text.c_str(), buffer);
    benchmark::DoNotOptimize(buffer);
    benchmark::ClobberMemory();
}

void CopyText(const std::string& text) {
    char buffer[4096];
    std::memcpy(buffer, text.c_str(), std::strlen(text.c_str()) + 1);
    benchmark::DoNotOptimize(buffer);
    benchmark::ClobberMemory();
}

[[maybe_unused]] const bool kTypicalRow = [] {
    Turn paths(TypicalPaths());
    AddRow("VPath", "resolve typical absolute paths")
        .Ours([paths]() mutable { Resolve(paths.Next()); })
        .Beside("path::lexically_normal", 0.1, [paths]() mutable { Normalise(paths.Next()); })
        .Beside("single-pass copying canonicaliser", 2.0, [paths]() mutable { CleanCopy(paths.Next()); })
        .AtMostAllocations(0);
    return true;
}();

[[maybe_unused]] const bool kCleanRows = [] {
    const struct {
        std::size_t length;
        double target;
    } cases[] = {{20, 0}, {45, 6}, {300, 0}, {1200, 0}, {4095, 20}};
    for (const auto& row : cases) {
        const std::string text = CleanPath(row.length);
        AddRow("VPath", "resolve a clean path of " + std::to_string(row.length) + " bytes")
            .Ours([text] { Resolve(text); })
            .Beside("strlen and memcpy", row.target, [text] { CopyText(text); })
            .Growing("VPath of a clean path, bytes", static_cast<double>(row.length))
            .AtMostAllocations(0);
    }
    return true;
}();

[[maybe_unused]] const bool kRelativeRow = [] {
    const std::string text = "share/application/data.conf";
    AddRow("VPath", "resolve a relative path")
        .Ours([text] { Resolve(text); })
        .Beside("getcwd and memcpy", 1.6,
                [text] {
                    char buffer[4096];
                    const char* const directory = getcwd(buffer, sizeof(buffer));
                    std::memcpy(buffer + std::strlen(directory), text.c_str(), text.size() + 1);
                    benchmark::DoNotOptimize(buffer);
                    benchmark::ClobberMemory();
                })
        .AtMostAllocations(0);
    return true;
}();

[[maybe_unused]] const bool kWorstRows = [] {
    std::string upAndDown;
    for (int i = 0; i < 585; ++i) upAndDown += "/aa";
    for (int i = 0; i < 585; ++i) upAndDown += "/..";
    const std::vector<std::pair<const char*, std::string>> cases = {
        {"\"/a/..\"", Repeated("/a/..", 4095)},
        {"\"/./\"", Repeated("/./", 4095)},
        {"\"////\"", Repeated("////", 4092) + "a"},
        {"585 levels up and down", upAndDown},
        {"all of these mixed", Repeated("/a/..//./b/c/../..", 4095)},
    };
    for (const auto& [name, text] : cases) {
        AddRow("VPath", std::string("worst case: ") + name)
            .Ours([text = text] { Resolve(text); })
            .Beside("path::lexically_normal", 0.75, [text = text] { Normalise(text); })
            .Beside("plain", 1.0,
                    [text = text] {
                        char buffer[4096];
                        plain::Resolve(text.c_str(), buffer);
                        benchmark::DoNotOptimize(buffer);
                        benchmark::ClobberMemory();
                    })
            .AtMostAllocations(0);
    }
    return true;
}();

const char kTypicalPath[] = "/usr/share/application/config/service.conf";

[[maybe_unused]] const bool kOperationRows = [] {
    const VPath path(kTypicalPath);
    const fs::path peer(kTypicalPath);
    AddRow("VPath", "join")
        .Ours([path] { benchmark::DoNotOptimize((path + "cache/data").RealPath().text); })
        .Beside("path / and lexically_normal", 0.1,
                [peer] { benchmark::DoNotOptimize((peer / "cache/data").lexically_normal()); })
        .AtMostAllocations(1);
    const auto copyText = [] {
        char buffer[4097];
        benchmark::DoNotOptimize(buffer);
        std::memcpy(buffer, kTypicalPath, sizeof(kTypicalPath));
        benchmark::ClobberMemory();
    };
    AddRow("VPath", "copy")
        .Ours([path] {
            const VPath copy(path);
            benchmark::DoNotOptimize(copy.IsRootDir());
            benchmark::ClobberMemory();
        })
        .Beside("memcpy", 2.4, copyText)
        .AtMostAllocations(0);
    AddRow("VPath", "DirPath")
        .Ours([path] {
            const VPath parent = path.DirPath();
            benchmark::DoNotOptimize(parent.IsRootDir());
            benchmark::ClobberMemory();
        })
        .Beside("memcpy", 2.5, copyText)
        .AtMostAllocations(0);
    AddRow("VPath", "BaseName")
        .Ours([path] { benchmark::DoNotOptimize(path.BaseName().text); })
        .Beside("path::filename", 0.8, [peer] { benchmark::DoNotOptimize(peer.filename()); })
        .AtMostAllocations(0);
    AddRow("VPath", "DirName")
        .Ours([path] { benchmark::DoNotOptimize(path.DirName().text); })
        .Beside("path::parent_path", 0.2, [peer] { benchmark::DoNotOptimize(peer.parent_path()); })
        .AtMostAllocations(1);
    return true;
}();

}  // namespace
