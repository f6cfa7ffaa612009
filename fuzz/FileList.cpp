// The file list as the upgrade tool's module reads it, against the sections, keys and values that were
// written. The input describes an INI file. Its first line says how the lines are written, a letter each,
// over and over (see Style); of the other lines those with a '[' begin a section, those with a '=' are a key
// with its value, and the rest are comments. A value "*N" stands for a list of N characters.
#include <cstdlib>
#include <map>
#include <string>
#include <vector>

#include "CapturedErrorStream.h"
#include "Input.h"
#include "Judge.h"
#include "ListModel.h"
#include "MemoryFile.h"
#include "VCopyFileListIni.h"

namespace {

using Section = std::map<std::string, std::string>;
using Sections = std::map<std::string, Section>;

constexpr std::size_t kLongestDirectory = 259;
constexpr std::size_t kLongestList = 4095;
constexpr int kLongestGeneratedValue = 5000;
const std::string kMark = "\xef\xbb\xbf";

// How a line is written.
enum Style : char {
    kBlanks = 'b',          // blanks around everything
    kTabs = 't',            // tabs around everything
    kSemicolon = 'c',       // a comment before it
    kHash = 'h',            // a comment of the other kind before it
    kEmptyLine = 'e',       // an empty line before it
    kNoise = 'j',           // a line before it that has no '='
    kCrLf = 'r',            // ends as on Windows
    kCr = 'm',              // ends as on old Macs
    kTwice = 'd',           // the key stands there twice, with another value first
    kByteOrderMark = 'u',   // as the first letter: begins with the mark
    kNoLastLineFeed = 'n',  // as the last letter: the last line does not end
};

// What a name or a value can be: on one line, without blanks around it.
std::string Trimmed(const std::string& text, const std::string& forbidden) {
    std::string kept;
    for (const char character : text) {
        if (character != '\0' && character != '\r' && forbidden.find(character) == std::string::npos) {
            kept += character;
        }
    }
    const std::size_t begin = kept.find_first_not_of(" \t");
    return begin == std::string::npos ? "" : kept.substr(begin, kept.find_last_not_of(" \t") - begin + 1);
}

std::string ListOf(int characters) {
    std::string list;
    while (list.size() < static_cast<std::size_t>(characters)) list += "lib/a.so,";
    list.resize(static_cast<std::size_t>(characters));
    return list;
}

std::string ValueOf(const std::string& text) {
    if (text.empty() || text[0] != '*') return Trimmed(text, "");
    const long characters = std::strtol(text.c_str() + 1, nullptr, 10);
    return ListOf(static_cast<int>(characters < 0 ? 0 : characters % kLongestGeneratedValue));
}

// Writes an INI file, and remembers what is in it.
class IniWriter {
public:
    explicit IniWriter(const std::string& styles) : styles_(styles.empty() ? "." : styles) {
        if (styles_.front() == kByteOrderMark) text_ = kMark;
    }

    void AddLine(const std::string& line) {
        style_ = styles_[++lines_ % styles_.size()];
        const std::size_t equals = line.find('=');
        if (!line.empty() && line[0] == '[') {
            AddSection(Trimmed(line.substr(1), "]"));
        } else if (equals != std::string::npos) {
            AddKey(Trimmed(line.substr(0, equals), ""), ValueOf(line.substr(equals + 1)));
        } else {
            Write("; " + Trimmed(line, ""));
        }
    }

    std::string Text() const {
        const bool isCut = styles_.back() == kNoLastLineFeed && !text_.empty() && text_.back() == '\n';
        return isCut ? text_.substr(0, text_.size() - 1) : text_;
    }
    const Sections& Content() const { return sections_; }

private:
    void AddSection(const std::string& name) {
        WriteWhatComesBefore();
        Write("[" + Surrounded(name) + "]" + (style_ == kBlanks ? " not read=1" : ""));
        section_ = name;
        sections_[name];
    }

    void AddKey(const std::string& key, const std::string& value) {
        // A line that begins so is something else.
        if (key.empty() || key[0] == ';' || key[0] == '#' || key[0] == '[') return;
        // At the beginning of a file the mark would not be the key's.
        if (text_.empty() && key.compare(0, kMark.size(), kMark) == 0) return;
        WriteWhatComesBefore();
        if (style_ == kTwice) Write(key + "=other" + value);
        Write(Surrounded(key) + "=" + Surrounded(value));
        sections_[section_][key] = value;
    }

    void WriteWhatComesBefore() {
        if (style_ == kSemicolon) Write("  ; key=value");
        if (style_ == kHash) Write("# [section]");
        if (style_ == kEmptyLine) Write("");
        if (style_ == kNoise) Write("no key stands here");
    }

    std::string Surrounded(const std::string& text) const {
        if (style_ == kBlanks) return "  " + text + " ";
        return style_ == kTabs ? "\t" + text + " \t" : text;
    }

    void Write(const std::string& line) {
        text_ += line + (style_ == kCrLf ? "\r\n" : style_ == kCr ? "\r" : "\n");
    }

    const std::string styles_;
    char style_ = '.';
    std::size_t lines_ = 0;
    std::string text_;
    std::string section_;
    Sections sections_;
};

Section SectionOf(const Sections& sections, const std::string& name) {
    const auto found = sections.find(name);
    return found != sections.end() ? found->second : Section();
}

// A directory value that is too long counts as empty.
std::string ReadableDirectory(const std::string& value) {
    return value.size() <= kLongestDirectory ? value : "";
}

DirectoryMap ModelOfDirectories(const Sections& sections) {
    const std::string type =
        ReadableDirectory(SectionOf(sections, "Package_Intall_Type")["PackageIntallType"]);
    DirectoryMap directories;
    for (const auto& [key, value] : SectionOf(sections, type)) {
        const std::string directory = ReadableDirectory(value);
        directories[key] = directory.empty() || directory.back() != '/' ? directory + "/" : directory;
    }
    return directories;
}

std::vector<std::string> ModelOfEntries(const Section& section) {
    std::vector<std::string> entries;
    for (const auto& [key, value] : section) {
        if (value.empty() || value.size() > kLongestList) continue;
        for (const std::string& entry : ModelOfSplit(value, ",")) entries.push_back(entry);
    }
    return entries;
}

void JudgeFileList(const Sections& sections, const std::string& path) {
    const DirectoryMap expected = ModelOfDirectories(sections);
    DirectoryMap directories = {{"old", "/old/"}};
    judge::Equal("the result of GetPathSectionMap", GetPathSectionMap(directories, path),
                 expected.empty() ? -10000 : 0);
    judge::Equal("the directory map", directories, expected);

    for (const auto& [name, directory] : expected) {
        std::vector<std::string> entries;
        GetSectionItemList(name, path, entries);
        judge::Equal("the list of entries", entries, ModelOfEntries(SectionOf(sections, name)));
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const MemoryFile file;
    const std::vector<std::string> lines = PiecesOf(TextOf(data, size), '\n');
    IniWriter writer(lines[0]);
    for (std::size_t i = 1; i < lines.size(); ++i) writer.AddLine(lines[i]);
    file.Write(writer.Text());

    const CapturedErrorStream captured;
    JudgeFileList(writer.Content(), file.Path());
    return 0;
}
