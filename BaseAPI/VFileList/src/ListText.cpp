// Writes file lists.
#include "ListText.h"

#include <array>
#include <cctype>
#include <cstdio>
#include <cstring>
#include <map>
#include <vector>

#include "VCopyFileListIni.h"

namespace {

// A directory's name as file lists can hold it everywhere: other bytes are written as "%2C". What is changed
// ends in ".bak", as no file's name in Common does: a file may be called "%2C", too. A long one is cut, since
// it becomes up to three times as long.
std::string EncodedName(const std::string& name) {
    constexpr char kPlain[] = "+-.:@_~";
    constexpr std::size_t kLongest = 240;
    std::string encoded;
    std::size_t begin = 0;
    for (const char character : name) {
        const auto byte = static_cast<unsigned char>(character);
        if (byte >= 0x80 || std::isalnum(byte) != 0 || std::strchr(kPlain, character) != nullptr) {
            encoded += character;
        } else {
            std::array<char, 4> hexadecimal{};
            (void)std::snprintf(hexadecimal.data(), hexadecimal.size(), "%%%02X", byte);
            encoded += hexadecimal.data();
        }
        if (encoded.size() - begin < kLongest) continue;
        encoded += std::string("%") + kBackupSuffix + "/";
        begin = encoded.size();
    }
    return encoded == name ? name : encoded + kBackupSuffix;
}

std::string Encoded(const std::string& directory) {
    if (directory.empty()) return "";
    const std::string above = DirectoryOf(directory);
    const std::string name = directory.substr(above.empty() ? 0 : above.size() + 1);
    return (above.empty() ? "" : Encoded(above) + "/") + EncodedName(name);
}

// One key after the other, each as long as the tool can read it.
std::string PrintEntries(const std::vector<std::string>& entries) {
    constexpr std::size_t kLongest = kListValueCapacity - 2;
    std::string text;
    std::size_t keys = 0;
    std::size_t length = kLongest;
    for (const std::string& entry : entries) {
        if (length + 1 + entry.size() > kLongest) {
            std::array<char, 32> key{};
            (void)std::snprintf(key.data(), key.size(), "\nf%04zu=", ++keys);
            text += key.data() + entry;
            length = entry.size();
        } else {
            text += "," + entry;
            length += 1 + entry.size();
        }
    }
    return text + "\n";
}

}  // namespace

std::string DirectoryOf(const std::string& path) {
    const std::size_t slash = path.rfind('/');
    return slash == std::string::npos ? "" : path.substr(0, slash);
}

std::string EntryFor(const std::string& path) {
    const std::string directory = DirectoryOf(path);
    if (directory.empty()) return "./" + path;
    return Encoded(directory) + path.substr(directory.size());
}

std::string PrintFileList(const std::set<std::string>& files, const std::string& prefix) {
    std::map<std::string, std::vector<std::string>> lists;
    for (const std::string& path : files) lists[DirectoryOf(path)].push_back(EntryFor(path));
    std::string directories;
    std::string sections;
    for (const auto& [directory, entries] : lists) {
        const std::string section = "/" + Encoded(directory);
        directories.append(section).append("=").append(prefix).append("/").append(directory);
        directories += directory.empty() ? "\n" : "/\n";
        sections += "\n[" + section + "]" + PrintEntries(entries);
    }
    return std::string("[") + kInstallTypeSection + "]\n" + kInstallTypeKey + "=Server\n\n[Server]\n" +
           directories + sections;
}
