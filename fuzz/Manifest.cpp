// The reader of manifests: whatever it accepts has the form that is promised, and is printed and read as
// itself. The input is the manifest.
#include "Manifest.h"

#include <filesystem>
#include <string>

#include "Input.h"
#include "Judge.h"

namespace {

void JudgeEntry(const ManifestEntry& entry) {
    const std::filesystem::path path = entry.path;
    judge::Holds("a path is absolute", path.is_absolute());
    judge::Equal("a path", entry.path, path.lexically_normal().string());
    judge::Holds("an entry has an owner", !entry.user.empty() && !entry.group.empty());
    judge::Holds("a mode has no other bits", (entry.mode & ~07777U) == 0);
    judge::Holds("a file has a digest", entry.isDirectory || entry.digest != Digest{});
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const ExactBlock text(BytesOf(data, size));
    Manifest manifest;
    if (const Trouble trouble = Parse(text.Bytes(), manifest)) {
        judge::Holds("it is said why", !trouble->empty());
        return 0;
    }
    for (const ManifestEntry& entry : manifest.entries) {
        JudgeEntry(entry);
        const ManifestEntry* const found = manifest.Find(entry.path);
        judge::Holds("each entry is found", found != nullptr && found->path == entry.path);
    }
    const std::string printed = Print(manifest);
    Manifest again;
    judge::Equal("what is printed, read again,", Parse(printed, again).value_or(""), std::string());
    judge::Equal("what is printed twice", Print(again), printed);
    return 0;
}
