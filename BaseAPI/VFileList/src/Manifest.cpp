// Writes manifests, and reads them with libarchive.
#include "Manifest.h"

#include <archive.h>
#include <archive_entry.h>
#include <grp.h>
#include <pwd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <memory>
#include <regex>
#include <sstream>

#include "Output.h"

namespace fs = std::filesystem;

namespace {

constexpr std::string_view kFirstLine = "#mtree";

// Bytes that are no printable ASCII, or mean something in the format, as three octal digits.
std::string Escaped(const std::string& text) {
    constexpr std::string_view kSpecial = "\\#=*?[";
    std::string escaped;
    for (const char character : text) {
        if (character > ' ' && character < 0x7f && kSpecial.find(character) == std::string_view::npos) {
            escaped += character;
            continue;
        }
        const auto byte = static_cast<unsigned char>(character);
        escaped += '\\';
        for (const unsigned shift : {6U, 3U, 0U}) escaped += static_cast<char>('0' + (byte >> shift & 7U));
    }
    return escaped;
}

std::string LineOf(const ManifestEntry& entry) {
    std::string line = "." + Escaped(entry.path) + (entry.isDirectory ? " type=dir" : " type=file") +
                       " mode=" + ShownMode(entry.mode) + " uname=" + entry.user + " gname=" + entry.group;
    if (!entry.isDirectory) {
        line += " size=" + std::to_string(entry.size) + " sha256digest=" + HexOf(entry.digest);
    }
    return line + "\n";
}

// A comment "# WORD VALUE". An unknown word may ask for something that this program does not do.
bool ReadComment(const std::string& line, Manifest& manifest) {
    std::istringstream words(line);
    std::string mark;
    std::string name;
    std::string value;
    words >> mark >> name >> value;
    if (mark != "#" || !words.eof()) return false;
    if (name == "release" && IsRelease(value)) {
        manifest.release = value;
    } else if (name == "lowest" && IsRelease(value)) {
        manifest.lowest = value;
    } else if (name == "filelist" && DigestFromHex(value)) {
        manifest.fileListDigest = *DigestFromHex(value);
    } else {
        return false;
    }
    return true;
}

Trouble ReadComments(const std::string& text, Manifest& manifest) {
    std::istringstream lines(text);
    std::string line;
    if (!std::getline(lines, line) || line != kFirstLine) return "it does not begin with \"#mtree\"";
    while (lines.peek() == '#') {
        (void)std::getline(lines, line);
        if (!ReadComment(line, manifest)) return "it is for another version of vfilelist: " + line;
    }
    if (manifest.fileListDigest == Digest{}) return "it lacks the digest of the file list";
    return std::nullopt;
}

Trouble ReadEntry(archive_entry* found, ManifestEntry& entry) {
    const auto text = [](const char* field) { return std::string(field == nullptr ? "" : field); };
    const std::string path = text(archive_entry_pathname(found));
    if (path.rfind("./", 0) != 0 || path.back() == '/' ||
        path != "." + fs::path(path.substr(1)).lexically_normal().string())
        return path + ": not a path below the root directory";
    entry.path = path.substr(1);
    entry.isDirectory = archive_entry_filetype(found) == AE_IFDIR;
    entry.mode = archive_entry_perm(found) & kPermissions;
    entry.user = text(archive_entry_uname(found));
    entry.group = text(archive_entry_gname(found));
    if (entry.user.empty() || entry.group.empty()) return entry.path + ": it has no owner";
    if (entry.isDirectory) return std::nullopt;

    if (archive_entry_filetype(found) != AE_IFREG) return entry.path + ": neither a file nor a directory";
    entry.size = archive_entry_size(found);
    if (entry.size < 0) return entry.path + ": its size is negative";
    const unsigned char* const digest = archive_entry_digest(found, ARCHIVE_ENTRY_DIGEST_SHA256);
    std::copy_n(digest, entry.digest.size(), entry.digest.begin());
    if (entry.digest == Digest{}) return entry.path + ": it has no SHA-256 digest";
    return std::nullopt;
}

Trouble ReadEntries(const std::string& text, std::vector<ManifestEntry>& entries) {
    const std::unique_ptr<archive, decltype(&archive_read_free)> reader(archive_read_new(),
                                                                        &archive_read_free);
    (void)archive_read_support_format_mtree(reader.get());
    (void)archive_read_open_memory(reader.get(), text.data(), text.size());  // the next call tells
    archive_entry* found = nullptr;
    int result = ARCHIVE_OK;
    while ((result = archive_read_next_header(reader.get(), &found)) == ARCHIVE_OK) {
        if (Trouble trouble = ReadEntry(found, entries.emplace_back())) return trouble;
    }
    if (result == ARCHIVE_EOF) return std::nullopt;
    return archive_error_string(reader.get());
}

// strverscmp takes numbers with zeros in front for fractions.
std::string WithoutLeadingZeros(const std::string& release) {
    return std::regex_replace(release, std::regex("(^|[^0-9])0+(?=[0-9])"), "$1");
}

bool IsBefore(const ManifestEntry& left, const ManifestEntry& right) {
    return left.path < right.path;
}

}  // namespace

const ManifestEntry* Manifest::Find(const std::string& path) const {
    const auto isBefore = [](const ManifestEntry& entry, const std::string& wanted) {
        return entry.path < wanted;
    };
    const auto found = std::lower_bound(entries.begin(), entries.end(), path, isBefore);
    return found != entries.end() && found->path == path ? &*found : nullptr;
}

std::string ManifestPath(const std::string& iniPath) {
    return iniPath + ".mtree";
}

bool IsRelease(const std::string& text) {
    constexpr std::size_t kLongest = 64;
    constexpr char kCharacters[] =
        "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz"
        "+-._~";
    return !text.empty() && text.size() <= kLongest &&
           text.find_first_not_of(kCharacters) == std::string::npos;
}

bool IsOlder(const std::string& release, const std::string& other) {
    return strverscmp(WithoutLeadingZeros(release).c_str(), WithoutLeadingZeros(other).c_str()) < 0;
}

std::string Print(const Manifest& manifest) {
    std::string text = std::string(kFirstLine) + "\n";
    if (!manifest.release.empty()) text += "# release " + manifest.release + "\n";
    if (!manifest.lowest.empty()) text += "# lowest " + manifest.lowest + "\n";
    text += "# filelist " + HexOf(manifest.fileListDigest) + "\n";
    for (const ManifestEntry& entry : manifest.entries) text += LineOf(entry);
    return text;
}

Trouble Parse(const std::string& text, Manifest& manifest) {
    manifest = {};
    if (Trouble trouble = ReadComments(text, manifest)) return trouble;
    if (Trouble trouble = ReadEntries(text, manifest.entries)) return trouble;
    std::sort(manifest.entries.begin(), manifest.entries.end(), IsBefore);
    // What can be written in another way could be understood in another way.
    if (Print(manifest) != text) return "it is not as vfilelist make writes it";
    return std::nullopt;
}

std::optional<Owner> OwnerOf(const ManifestEntry& entry) {
    const passwd* const user = getpwnam(entry.user.c_str());
    const group* const group = getgrnam(entry.group.c_str());
    if (user == nullptr || group == nullptr) return std::nullopt;
    return Owner{user->pw_uid, group->gr_gid};
}

std::string WhyNoOwner(const ManifestEntry& entry) {
    return "this machine has no user " + entry.user + " or no group " + entry.group;
}
