// The journal's text: a line for each fact, its words separated by blanks. Bytes that are no printable ASCII,
// and '%', stand as %XX, so that a journal can be read on any terminal whatever the files are called. The
// last line has the digest of all before it: a journal that was cut off or changed is none.
#include "Journal.h"

#include <algorithm>
#include <charconv>

namespace {

constexpr std::string_view kFirstLine = "vfilelist-journal 1\n";
constexpr std::string_view kLastLineStart = "sha256 ";
constexpr std::size_t kLastLineLength = kLastLineStart.size() + 2 * sizeof(Digest) + 1;

// An empty word is a single '%'.
std::string Word(std::string_view text) {
    std::string word;
    for (const char character : text) {
        if (character > ' ' && character < 0x7f && character != '%') {
            word += character;
        } else {
            word += '%' + HexOf(std::string_view(&character, 1));
        }
    }
    return word.empty() ? "%" : word;
}

class Printer {
public:
    explicit Printer(std::string_view firstLine) : text_(firstLine) {}

    template <typename... Words>
    void Line(std::string_view name, const Words&... words) {
        text_ += name;
        ((text_ += ' ', text_ += words), ...);
        text_ += '\n';
    }

    std::string Finish() {
        Line("sha256", HexOf(DigestOf(text_)));
        return std::move(text_);
    }

private:
    std::string text_;
};

template <typename Number>
std::string Shown(Number number) {
    return std::to_string(number);
}

void PrintTarget(const JournalTarget& target, Printer& printer) {
    const NewFile& package = target.package;
    printer.Line("target", Word(target.path));
    printer.Line("new", Word(package.source), Shown(package.size), Shown(package.mode),
                 HexOf(package.digest));
    if (!target.old) return;

    const OldFile& old = *target.old;
    printer.Line("old", old.isLink ? "link" : "file", Shown(old.inode), Shown(old.size),
                 Shown(old.modified.tv_sec), Shown(old.modified.tv_nsec), Shown(old.attributes.mode),
                 Shown(old.attributes.user), Shown(old.attributes.group));
    for (const ExtendedAttribute& attribute : old.attributes.extended) {
        printer.Line("attribute", Word(attribute.name), Word(attribute.value));
    }
}

// Takes a text apart into lines of words. What does not fit is noted, and asked for once at the end.
class Scanner {
public:
    explicit Scanner(std::string_view text) : rest_(text) {}

    // The name of the next line; empty at the end.
    std::string_view NextLine() {
        isGood_ = isGood_ && line_.empty();  // no word was left over
        const std::size_t end = std::min(rest_.find('\n'), rest_.size());
        line_ = rest_.substr(0, end);
        rest_.remove_prefix(std::min(end + 1, rest_.size()));
        return Next();
    }

    std::string_view Next() {
        const std::size_t end = std::min(line_.find(' '), line_.size());
        const std::string_view word = line_.substr(0, end);
        line_.remove_prefix(std::min(end + 1, line_.size()));
        return word;
    }

    std::string Text() {
        const std::string_view word = Next();
        std::string text;
        for (std::size_t i = 0; i < word.size(); ++i) {
            if (word[i] != '%') {
                text += word[i];
            } else if (word.size() > 1) {
                const std::string_view digits = word.substr(i + 1, 2);
                isGood_ = isGood_ && digits.size() == 2;
                text += Expect(BytesFromHex(digits));
                i += 2;
            }
        }
        isGood_ = isGood_ && !word.empty();
        return text;
    }

    template <typename Number>
    void Into(Number& number) {
        const std::string_view word = Next();
        const auto [end, error] = std::from_chars(word.data(), word.data() + word.size(), number);
        isGood_ = isGood_ && error == std::errc() && end == word.data() + word.size();
    }

    template <typename Value>
    Value Expect(std::optional<Value> value) {
        isGood_ = isGood_ && value.has_value();
        return value.value_or(Value{});
    }

    void Fail() { isGood_ = false; }
    bool IsDone() const { return isGood_ && line_.empty() && rest_.empty(); }

private:
    std::string_view rest_;
    std::string_view line_;
    bool isGood_ = true;
};

void ParseOld(Scanner& scanner, OldFile& old) {
    const std::string_view kind = scanner.Next();
    old.isLink = kind == "link";
    if (!old.isLink && kind != "file") scanner.Fail();
    scanner.Into(old.inode);
    scanner.Into(old.size);
    scanner.Into(old.modified.tv_sec);
    scanner.Into(old.modified.tv_nsec);
    scanner.Into(old.attributes.mode);
    scanner.Into(old.attributes.user);
    scanner.Into(old.attributes.group);
}

void ParseNew(Scanner& scanner, NewFile& package) {
    package.source = scanner.Text();
    scanner.Into(package.size);
    scanner.Into(package.mode);
    package.digest = scanner.Expect(DigestFromHex(scanner.Next()));
}

// The lines that belong to a target, which comes first.
void ParseTargetLine(std::string_view name, Scanner& scanner, std::vector<JournalTarget>& targets) {
    if (targets.empty()) return scanner.Fail();
    JournalTarget& target = targets.back();
    if (name == "new") {
        ParseNew(scanner, target.package);
    } else if (name == "old") {
        ParseOld(scanner, target.old.emplace());
    } else if (name == "attribute" && target.old) {
        std::string attribute = scanner.Text();
        target.old->attributes.extended.push_back({std::move(attribute), scanner.Text()});
    } else {
        scanner.Fail();
    }
}

void ParseLine(std::string_view name, Scanner& scanner, Journal& journal) {
    if (name == "filelist") {
        journal.fileList = scanner.Text();
        journal.fileListDigest = scanner.Expect(DigestFromHex(scanner.Next()));
        journal.installType = scanner.Text();
        scanner.Into(journal.begun);
    } else if (name == "olddirectory") {
        OldDirectory& directory = journal.oldDirectories.emplace_back();
        directory.path = scanner.Text();
        scanner.Into(directory.inode);
    } else if (name == "newdirectory") {
        journal.newDirectories.push_back(scanner.Text());
    } else if (name == "target") {
        journal.targets.push_back({scanner.Text(), {}, std::nullopt});
    } else {
        ParseTargetLine(name, scanner, journal.targets);
    }
}

// The lines between the first and the last one; nothing when the text is no whole journal.
std::optional<std::string_view> BodyOf(std::string_view text) {
    if (text.size() < kFirstLine.size() + kLastLineLength) return std::nullopt;
    const std::string_view all = text.substr(0, text.size() - kLastLineLength);
    const std::string_view last = text.substr(all.size());
    if (last != std::string(kLastLineStart) + HexOf(DigestOf(all)) + "\n") return std::nullopt;
    return all.substr(kFirstLine.size());
}

}  // namespace

std::string Print(const Journal& journal) {
    Printer printer(kFirstLine);
    printer.Line("filelist", Word(journal.fileList), HexOf(journal.fileListDigest), Word(journal.installType),
                 Shown(journal.begun));
    for (const OldDirectory& directory : journal.oldDirectories) {
        printer.Line("olddirectory", Word(directory.path), Shown(directory.inode));
    }
    for (const std::string& directory : journal.newDirectories) printer.Line("newdirectory", Word(directory));
    for (const JournalTarget& target : journal.targets) PrintTarget(target, printer);
    return printer.Finish();
}

Trouble Parse(std::string_view text, Journal& journal) {
    if (text.substr(0, kFirstLine.size()) != kFirstLine) {
        return "it is no journal, or one of another version of vfilelist";
    }
    const std::optional<std::string_view> body = BodyOf(text);
    if (!body) return "it was cut off or changed";

    journal = {};
    Scanner scanner(*body);
    for (std::string_view name = scanner.NextLine(); !name.empty(); name = scanner.NextLine()) {
        ParseLine(name, scanner, journal);
    }
    if (!scanner.IsDone()) return "it does not have the form of a journal";
    return std::nullopt;
}
