// Holds a package against its manifest, and the manifest against the keys that are trusted.
#include "Provenance.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <set>

#include "Signature.h"

namespace {

// Opening what is no file may never end, or set a device to work.
std::string Mismatch(const std::string& source, const ManifestEntry& entry) {
    struct stat status {};
    if (stat(source.c_str(), &status) == 0 && !S_ISREG(status.st_mode)) return "not a regular file";
    const Descriptor file(open(source.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    const std::optional<Digest> digest = file ? DigestOfFile(file.get()) : std::nullopt;
    if (!digest) return std::strerror(errno);
    return *digest == entry.digest ? "" : "its content is another one";
}

void CheckListed(Inspection& inspection, const Manifest& manifest, const Entry& entry, bool isThorough) {
    const FileList& list = inspection.list;
    const std::string path = list.TargetOf(entry);
    const ManifestEntry* const recorded = manifest.Find(path);
    if (recorded == nullptr || recorded->isDirectory) {
        inspection.Add("E-MANIFEST-DIFFERS", entry, path, "no file of the manifest");
        return;
    }
    const std::string mismatch = isThorough ? Mismatch(list.SourceOf(entry), *recorded) : "";
    if (!mismatch.empty()) inspection.Add("E-MANIFEST-DIFFERS", entry, list.SourceOf(entry), mismatch);
}

// What is there keeps its owner. The manifest's names mean nothing below another root directory.
void CheckOwner(Inspection& inspection, const ManifestEntry& entry) {
    const bool isNew = inspection.files.At(entry.path).origin.empty();
    if (!isNew || !inspection.list.root().empty() || OwnerOf(entry)) return;
    inspection.findings.push_back(FindingOf("E-MANIFEST-INVALID", entry.path, WhyNoOwner(entry)));
}

}  // namespace

Provenance ReadProvenance(const std::string& iniPath, const std::string& trustedDirectory) {
    const std::string path = ManifestPath(CanonicalPath(iniPath).value_or(iniPath));
    const auto refused = [&path](const char* code, const std::string& why) -> Provenance {
        return {std::nullopt, {FindingOf(code, path, why)}};
    };
    const bool isSignatureWanted = IsSignatureWanted(trustedDirectory);
    std::string text;
    const int error = ReadWhole(path, text);
    if (error == ENOENT && !isSignatureWanted) return {};
    if (error != 0) {
        return refused(isSignatureWanted ? "E-PACKAGE-UNSIGNED" : "E-MANIFEST-INVALID", std::strerror(error));
    }
    if (isSignatureWanted) {
        const Trouble trouble = ExpectSignature(text, path + ".sig", trustedDirectory);
        if (trouble) return refused("E-PACKAGE-UNSIGNED", *trouble);
    }
    Manifest manifest;
    if (const Trouble trouble = Parse(text, manifest)) return refused("E-MANIFEST-INVALID", *trouble);
    return {std::move(manifest), {}};
}

void CheckManifest(Inspection& inspection, const Manifest& manifest, bool isThorough) {
    const FileList& list = inspection.list;
    std::string text;
    const int error = ReadWhole(CanonicalPath(list.iniPath()).value_or(list.iniPath()), text);
    if (error != 0 || DigestOf(text) != manifest.fileListDigest) {
        const std::string why = error != 0 ? std::strerror(error) : "its content is another one";
        inspection.findings.push_back(FindingOf("E-MANIFEST-DIFFERS", list.iniPath(), why));
    }
    std::set<std::string> targets;
    for (const Target& target : list.Targets()) {
        const Entry& entry = list.EntryOf(target);
        targets.insert(list.TargetOf(entry));
        CheckListed(inspection, manifest, entry, isThorough);
    }
    for (const ManifestEntry& entry : manifest.entries) {
        CheckOwner(inspection, entry);
        if (entry.isDirectory || targets.count(entry.path) != 0) continue;
        inspection.findings.push_back(
            FindingOf("E-MANIFEST-DIFFERS", entry.path, "no entry of the list installs it"));
    }
}

void CheckReceipt(Inspection& inspection, const std::optional<Manifest>& manifest, const Receipt& receipt,
                  bool isThorough) {
    const std::string installed = receipt.Release();
    const auto refuse = [&](const std::string& why) {
        inspection.findings.push_back(
            FindingOf("E-RELEASE-ORDER", ManifestPath(inspection.list.iniPath()), why));
    };
    if (manifest && !installed.empty()) {
        const std::string than = ", and " + installed + " is installed";
        if (manifest->release.empty()) {
            refuse("the package names no release" + than);
        } else if (IsOlder(manifest->release, installed)) {
            refuse("the package is " + manifest->release + than);
        } else if (IsOlder(installed, manifest->lowest)) {
            refuse("the package replaces " + manifest->lowest + " and later ones" + than);
        }
    }
    if (!isThorough) return;
    for (const Target& target : inspection.list.Targets()) {
        const Entry& entry = inspection.list.EntryOf(target);
        const std::string path = inspection.list.TargetOf(entry);
        const InstalledFile* const file = receipt.Find(path);
        if (file == nullptr) continue;
        const std::string difference = DifferenceOf(path, *file);
        if (!difference.empty()) inspection.Add("W-INSTALLED-CHANGED", entry, path, difference);
    }
}
