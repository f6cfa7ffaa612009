// Keeps what is installed, and compares files with it.
#include "Receipt.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

#include "Files.h"
#include "Output.h"

namespace fs = std::filesystem;

namespace {

constexpr std::string_view kFirstLine = "vfilelist-receipt 1";

Descriptor Open(const std::string& path) {
    return Descriptor(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
}

std::string Shown(const Attributes& attributes) {
    return ShownMode(attributes.mode) + " " + std::to_string(attributes.user) + ":" +
           std::to_string(attributes.group);
}

void ParseLine(LineScanner& scanner, Receipt& receipt, InstalledFile*& last) {
    const std::string_view name = scanner.Next();
    if (name == "upgrade") {
        Installation& installation = receipt.history.emplace_back();
        scanner.Into(installation.release, installation.fileList, installation.begun, installation.files);
    } else if (name == "file") {
        last = &receipt.files[scanner.Text()];
        Attributes& attributes = last->attributes;
        scanner.Into(last->size, last->digest, attributes.mode, attributes.user, attributes.group);
    } else if (name == "attribute" && last != nullptr) {
        scanner.Into(last->attributes.extended.emplace_back());
    } else {
        scanner.Fail();
    }
}

// However the list spells the directory.
std::string KeyOf(const fs::path& path) {
    const std::optional<std::string> directory = CanonicalPath(path.parent_path());
    return directory ? fs::path(*directory) / path.filename() : path;
}

bool Exists(const std::string& path) {
    struct stat status {};
    return lstat(path.c_str(), &status) == 0 || (errno != ENOENT && errno != ENOTDIR);
}

}  // namespace

std::string Receipt::Release() const {
    for (auto installation = history.rbegin(); installation != history.rend(); ++installation) {
        if (!installation->release.empty()) return installation->release;
    }
    return "";
}

const InstalledFile* Receipt::Find(const std::string& path) const {
    const auto found = files.find(KeyOf(path));
    return found == files.end() ? nullptr : &found->second;
}

std::string Print(const Receipt& receipt) {
    std::string text;
    LinePrinter printer(text);
    printer.Line(kFirstLine);
    for (const Installation& installation : receipt.history) {
        printer.Line("upgrade", installation.release, installation.fileList, installation.begun,
                     installation.files);
    }
    for (const auto& [path, file] : receipt.files) {
        printer.Line("file", path, file.size, file.digest, file.attributes.mode, file.attributes.user,
                     file.attributes.group);
        printer.Attributes(file.attributes.extended);
    }
    return text;
}

Trouble Parse(const std::string& text, Receipt& receipt) {
    receipt = {};
    InstalledFile* last = nullptr;
    LineReader reader(kFirstLine, [&](LineScanner& scanner) { ParseLine(scanner, receipt, last); });
    reader.Add(text);
    return reader.Finish();
}

void Add(const Journal& journal, Receipt& receipt) {
    for (auto file = receipt.files.begin(); file != receipt.files.end();) {
        file = Exists(file->first) ? std::next(file) : receipt.files.erase(file);
    }
    for (const JournalTarget& target : journal.targets) {
        InstalledFile installed{target.package.size, target.package.digest, {}};
        if (const std::optional<Attributes> wanted = target.Wanted()) {
            installed.attributes = *wanted;
        } else if (const Descriptor file = Open(target.path)) {
            (void)ReadAttributes(file.get(), installed.attributes);  // or it counts as changed
        }
        receipt.files[KeyOf(target.path)] = std::move(installed);
    }
    const auto isSame = [&journal](const Installation& last) {
        return last.begun == journal.begun && last.fileList == journal.fileList &&
               last.release == journal.release;
    };
    if (!receipt.history.empty() && isSame(receipt.history.back())) return;
    receipt.history.push_back({journal.release, journal.fileList, journal.begun, journal.targets.size()});
}

std::string DifferenceOf(const std::string& path, const InstalledFile& installed) {
    struct stat status {};
    if (lstat(path.c_str(), &status) == 0 && !S_ISREG(status.st_mode))
        return "it is no regular file any more";
    const Descriptor file = Open(path);
    Attributes attributes;
    const std::optional<Digest> digest = file ? DigestOfFile(file.get()) : std::nullopt;
    if (!digest) return std::strerror(errno);
    if (const Trouble trouble = ReadAttributes(file.get(), attributes)) return *trouble;
    if (*digest != installed.digest) return "its content has changed";
    if (attributes == installed.attributes) return "";
    const std::string now = Shown(attributes);
    const std::string was = Shown(installed.attributes);
    return now == was ? "its extended attributes have changed"
                      : "its mode and owner are " + now + ", and were " + was;
}
