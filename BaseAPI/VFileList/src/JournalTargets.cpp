// Writes targets down as lines, and reads them again.
#include "JournalTargets.h"

namespace {

constexpr std::size_t kBlockSize = std::size_t{64} * 1024;

void PrintTarget(const JournalTarget& target, LinePrinter& printer) {
    const NewFile& package = target.package;
    printer.Line(kTargetLine, target.path);
    printer.Line("new", package.source, package.size, package.mode, package.digest);
    if (package.owner) printer.Line("owner", *package.owner);
    if (!target.old) return;

    const OldFile& old = *target.old;
    printer.Line("old", std::string(old.isLink ? "link" : "file"), old.inode, old.size, old.modified.tv_sec,
                 old.modified.tv_nsec, old.attributes.mode, old.attributes.user, old.attributes.group);
    printer.Attributes(old.attributes.extended);
}

void ReadOld(LineScanner& scanner, OldFile& old) {
    const std::string_view kind = scanner.Next();
    old.isLink = kind == "link";
    if (!old.isLink && kind != "file") scanner.Fail();
    scanner.Into(old.inode, old.size, old.modified.tv_sec, old.modified.tv_nsec, old.attributes.mode,
                 old.attributes.user, old.attributes.group);
}

}  // namespace

void ReadLine(std::string_view name, LineScanner& scanner, JournalTarget& target) {
    NewFile& package = target.package;
    if (name == kTargetLine) {
        scanner.Into(target.path);
    } else if (name == "new") {
        scanner.Into(package.source, package.size, package.mode, package.digest);
    } else if (name == "owner") {
        scanner.Into(package.owner.emplace());
    } else if (name == "old") {
        ReadOld(scanner, target.old.emplace());
    } else if (name == "attribute" && target.old) {
        scanner.Into(target.old->attributes.extended.emplace_back());
    } else {
        scanner.Fail();
    }
}

std::optional<Attributes> JournalTarget::Wanted() const {
    if (old) return old->attributes;
    if (!package.owner) return std::nullopt;
    return Attributes{package.mode, package.owner->user, package.owner->group, {}};
}

JournalTargets::JournalTargets(std::initializer_list<JournalTarget> targets) {
    for (const JournalTarget& target : targets) push_back(target);
}

void JournalTargets::push_back(const JournalTarget& target) {
    if (blocks_.empty() || blocks_.back().size() >= kBlockSize) {
        if (!blocks_.empty()) blocks_.back().shrink_to_fit();
        blocks_.emplace_back();
    }
    LinePrinter printer(blocks_.back());
    PrintTarget(target, printer);
    ++size_;
}

JournalTargets::Iterator::Iterator(const std::vector<std::string>& blocks, std::size_t block)
    : blocks_(blocks), block_(block) {
    if (block_ < blocks_.size()) ++*this;
}

JournalTargets::Iterator& JournalTargets::Iterator::operator++() {
    if (next_ == blocks_[block_].size()) {
        ++block_;
        next_ = 0;
    }
    if (block_ == blocks_.size()) return *this;
    target_ = {};
    std::string_view rest = std::string_view(blocks_[block_]).substr(next_);
    do {
        const std::size_t end = rest.find('\n');
        LineScanner scanner(rest.substr(0, end));
        ReadLine(scanner.Next(), scanner, target_);
        rest.remove_prefix(end + 1);
    } while (!rest.empty() && rest.substr(0, kTargetLine.size()) != kTargetLine);
    next_ = blocks_[block_].size() - rest.size();
    return *this;
}
