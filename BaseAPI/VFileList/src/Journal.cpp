// The journal's text.
#include "Journal.h"

#include <utility>

namespace {

constexpr std::string_view kFirstLine = "vfilelist-journal 1";

}  // namespace

std::vector<std::string_view> Print(const Journal& journal, std::string& head) {
    LinePrinter printer(head);
    printer.Line(kFirstLine);
    if (!journal.release.empty()) printer.Line("release", journal.release);
    printer.Line("filelist", journal.fileList, journal.fileListDigest, journal.installType, journal.begun);
    for (const auto& [path, inode] : journal.oldDirectories) printer.Line("olddirectory", path, inode);
    for (const std::string& path : journal.newDirectories) printer.Line("newdirectory", path);
    for (const auto& [path, mode, owner] : journal.directoryModes)
        printer.Line("directory", path, mode, owner);
    std::vector<std::string_view> blocks = {head};
    blocks.insert(blocks.end(), journal.targets.blocks().begin(), journal.targets.blocks().end());
    return blocks;
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
        scanner.Into(journal_.fileList, journal_.fileListDigest, journal_.installType, journal_.begun);
    } else if (name == "olddirectory") {
        OldDirectory& directory = journal_.oldDirectories.emplace_back();
        scanner.Into(directory.path, directory.inode);
    } else if (name == "newdirectory") {
        scanner.Into(journal_.newDirectories.emplace_back());
    } else if (name == "directory") {
        DirectoryMode& directory = journal_.directoryModes.emplace_back();
        scanner.Into(directory.path, directory.mode, directory.owner);
    } else if (name == "release") {
        scanner.Into(journal_.release);
    } else {
        AddTargetLine(name, scanner);
    }
}

void JournalParser::AddTargetLine(std::string_view name, LineScanner& scanner) {
    if (name == kTargetLine) {
        AddTarget();
        target_.emplace();
    }
    target_ ? ReadLine(name, scanner, *target_) : scanner.Fail();
}

void JournalParser::AddTarget() {
    if (target_) journal_.targets.push_back(*target_);
}
