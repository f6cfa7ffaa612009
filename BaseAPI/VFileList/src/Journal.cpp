// The journal's text: a line for each fact, its words separated by blanks. Bytes that are no printable ASCII,
// and '%', stand as %XX, so that a journal can be read on any terminal whatever the files are called.
#include "Journal.h"

#include <algorithm>
#include <charconv>

namespace {

constexpr std::string_view kFirstLine = "vfilelist-journal 1";
constexpr std::size_t kBlockSize = std::size_t{64} * 1024;

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
    explicit Printer(const Sink& sink) : sink_(sink) {}

    template <typename... Words>
    void Line(std::string_view name, const Words&... words) {
        text_ += name;
        ((text_ += ' ', text_ += words), ...);
        text_ += '\n';
        if (text_.size() >= kBlockSize) Flush();
    }

    Trouble Finish() {
        Flush();
        return trouble_;
    }

private:
    void Flush() {
        if (!trouble_) trouble_ = sink_(text_);
        text_.clear();
    }

    const Sink& sink_;
    std::string text_;
    Trouble trouble_;
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

// Takes a line apart into words. What does not fit is noted, and asked for once at the end.
class Scanner {
public:
    explicit Scanner(std::string_view line) : line_(line) {}

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
    // Whether all was as expected, and no word is left over.
    bool IsDone() const { return isGood_ && line_.empty(); }

private:
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

void ParseLine(Scanner& scanner, Journal& journal) {
    const std::string_view name = scanner.Next();
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

}  // namespace

Trouble Print(const Journal& journal, const Sink& sink) {
    Printer printer(sink);
    printer.Line(kFirstLine);
    printer.Line("filelist", Word(journal.fileList), HexOf(journal.fileListDigest), Word(journal.installType),
                 Shown(journal.begun));
    for (const OldDirectory& directory : journal.oldDirectories) {
        printer.Line("olddirectory", Word(directory.path), Shown(directory.inode));
    }
    for (const std::string& directory : journal.newDirectories) printer.Line("newdirectory", Word(directory));
    for (const JournalTarget& target : journal.targets) PrintTarget(target, printer);
    return printer.Finish();
}

void JournalParser::Add(std::string_view text) {
    for (std::size_t end = 0; (end = text.find('\n')) != std::string_view::npos;) {
        rest_ += text.substr(0, end);
        AddLine(rest_);
        rest_.clear();
        text.remove_prefix(end + 1);
    }
    rest_ += text;
}

Trouble JournalParser::Finish(Journal& journal) {
    if (!isVersionKnown_) return "it is no journal, or one of another version of vfilelist";
    if (!isGood_ || !rest_.empty()) return "it does not have the form of a journal";
    journal = std::move(journal_);
    return std::nullopt;
}

void JournalParser::AddLine(std::string_view line) {
    if (!isVersionKnown_) {
        isVersionKnown_ = line == kFirstLine;
        isGood_ = isGood_ && isVersionKnown_;
        return;
    }
    Scanner scanner(line);
    ParseLine(scanner, journal_);
    isGood_ = isGood_ && scanner.IsDone();
}
