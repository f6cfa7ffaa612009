// The journal's text.
#include "Journal.h"

#include <utility>

namespace {

constexpr std::string_view kFirstLine = "vfilelist-journal 1";

void PrintTarget(const JournalTarget& target, LinePrinter& printer) {
    const NewFile& package = target.package;
    printer.Line("target", Word(target.path));
    printer.Line("new", Word(package.source), package.size, package.mode, HexOf(package.digest));
    if (package.owner) printer.Line("owner", package.owner->user, package.owner->group);
    if (!target.old) return;

    const OldFile& old = *target.old;
    printer.Line("old", std::string(old.isLink ? "link" : "file"), old.inode, old.size, old.modified.tv_sec,
                 old.modified.tv_nsec, old.attributes.mode, old.attributes.user, old.attributes.group);
    printer.Attributes(old.attributes.extended);
}

void ParseOld(LineScanner& scanner, OldFile& old) {
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

void ParseNew(LineScanner& scanner, NewFile& package) {
    package.source = scanner.Text();
    scanner.Into(package.size);
    scanner.Into(package.mode);
    package.digest = scanner.Expect(DigestFromHex(scanner.Next()));
}

// The lines that belong to a target, which comes first.
void ParseTargetLine(std::string_view name, LineScanner& scanner, JournalTarget& target) {
    if (name == "new") {
        ParseNew(scanner, target.package);
    } else if (name == "owner") {
        Owner& owner = target.package.owner.emplace();
        scanner.Into(owner.user);
        scanner.Into(owner.group);
    } else if (name == "old") {
        ParseOld(scanner, target.old.emplace());
    } else if (name == "attribute" && target.old) {
        target.old->attributes.extended.push_back(scanner.Attribute());
    } else {
        scanner.Fail();
    }
}

}  // namespace

Trouble Print(const Journal& journal, const Sink& sink) {
    LinePrinter printer(sink);
    printer.Line(kFirstLine);
    if (!journal.release.empty()) printer.Line("release", Word(journal.release));
    printer.Line("filelist", Word(journal.fileList), HexOf(journal.fileListDigest), Word(journal.installType),
                 journal.begun);
    for (const OldDirectory& directory : journal.oldDirectories) {
        printer.Line("olddirectory", Word(directory.path), directory.inode);
    }
    for (const std::string& directory : journal.newDirectories) printer.Line("newdirectory", Word(directory));
    for (const DirectoryMode& directory : journal.directoryModes) {
        printer.Line("directory", Word(directory.path), directory.mode, directory.owner.user,
                     directory.owner.group);
    }
    for (const JournalTarget& target : journal.targets) PrintTarget(target, printer);
    return printer.Finish();
}

JournalParser::JournalParser() : reader_(kFirstLine, [this](LineScanner& scanner) { AddLine(scanner); }) {}

Trouble JournalParser::Finish(Journal& journal) {
    if (Trouble trouble = reader_.Finish()) return trouble;
    AddTarget();
    journal = std::move(journal_);
    return std::nullopt;
}

void JournalParser::AddLine(LineScanner& scanner) {
    const std::string_view name = scanner.Next();
    if (name == "filelist") {
        journal_.fileList = scanner.Text();
        journal_.fileListDigest = scanner.Expect(DigestFromHex(scanner.Next()));
        journal_.installType = scanner.Text();
        scanner.Into(journal_.begun);
    } else if (name == "olddirectory") {
        OldDirectory& directory = journal_.oldDirectories.emplace_back();
        directory.path = scanner.Text();
        scanner.Into(directory.inode);
    } else if (name == "newdirectory") {
        journal_.newDirectories.push_back(scanner.Text());
    } else if (name == "directory") {
        DirectoryMode& directory = journal_.directoryModes.emplace_back();
        directory.path = scanner.Text();
        scanner.Into(directory.mode);
        scanner.Into(directory.owner.user);
        scanner.Into(directory.owner.group);
    } else if (name == "release") {
        journal_.release = scanner.Text();
    } else if (name == "target") {
        AddTarget();
        target_ = JournalTarget{scanner.Text(), {}, std::nullopt};
    } else if (target_) {
        ParseTargetLine(name, scanner, *target_);
    } else {
        scanner.Fail();
    }
}

void JournalParser::AddTarget() {
    if (target_) journal_.targets.push_back(*target_);
}
