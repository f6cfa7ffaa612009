// Decides what goes into a package.
#include "TreeDifference.h"

#include <algorithm>
#include <cctype>
#include <climits>
#include <map>
#include <optional>
#include <tuple>
#include <utility>

#include "ListText.h"
#include "VCopyFileListIni.h"

namespace {

struct Reason {
    const char* code;
    std::string text;
};
using MaybeReason = std::optional<Reason>;

constexpr std::size_t kMaxNameLength = NAME_MAX - (sizeof(kBackupSuffix) - 1);
constexpr std::size_t kMaxDirectoryLength = kDirectoryValueCapacity - 1;

std::string ShownPath(const std::string& path) {
    return path.empty() ? "." : path;
}

bool IsSameKind(const TreeFile& left, const TreeFile& right) {
    return (left.status.st_mode & S_IFMT) == (right.status.st_mode & S_IFMT);
}

const char* KindOf(const TreeFile& file) {
    if (S_ISREG(file.status.st_mode)) return "a file";
    if (S_ISDIR(file.status.st_mode)) return "a directory";
    return S_ISLNK(file.status.st_mode) ? "a symlink" : "a device, pipe or socket";
}

std::string Numbers(const TreeFile& file) {
    return std::to_string(file.attributes.user) + ":" + std::to_string(file.attributes.group);
}

MaybeReason WhyNoName(const std::string& name) {
    if (name.find_first_of(",\\\n\r") != std::string::npos)
        return Reason{"name", "a list can't hold a name with a comma, a backslash or a line end"};
    const auto isBlank = [](char byte) { return std::isspace(static_cast<unsigned char>(byte)) != 0; };
    if (isBlank(name.front()) || isBlank(name.back()))
        return Reason{"name", "a list can't hold a name with blanks at its ends"};
    if ((name + "/").find(std::string(kBackupSuffix) + "/") != std::string::npos)
        return Reason{"backup-name", "the name ends in .bak: it would be treated as a backup"};
    if (name.size() > kMaxNameLength) {
        return Reason{"long-name", "a name of " + std::to_string(name.size()) + " bytes, " +
                                       std::to_string(kMaxNameLength) + " at most leave room for .bak"};
    }
    return std::nullopt;
}

class Decision {
public:
    Decision(const TreeFacts& facts, const std::string& prefix, bool areOwnersCompared)
        : facts_(facts), prefix_(prefix), areOwnersCompared_(areOwnersCompared) {}

    PackagePlan Make();

private:
    const TreeFile* OldAt(const std::string& path) const {
        const auto old = facts_.old.find(path);
        return old == facts_.old.end() ? nullptr : &old->second;
    }
    bool IsKept(const std::string& path) const { return facts_.same.count(path) != 0; }
    void Add(const std::string& path, const Reason& reason) {
        plan_.unsaid.push_back({ShownPath(path), reason.code, reason.text});
    }

    MaybeReason WhyInTheWay(const std::string& path, const TreeFile& file) const;
    MaybeReason WhyNoOwner(const std::string& path, const TreeFile& file) const;
    MaybeReason WhyNoDirectory(const std::string& path, const TreeFile& file) const;
    MaybeReason WhyNotListed(const std::string& path, const TreeFile& file) const;
    void DecideDirectory(const std::string& path, const TreeFile& file);
    void DecideFile(const std::string& path, const TreeFile& file);
    void DecideOther(const std::string& path, const TreeFile& file);
    void FindEmptyDirectories();
    void CompareAttributes(const std::string& path, const TreeFile& file);
    void CompareLinks();

    const TreeFacts& facts_;
    const std::string& prefix_;
    const bool areOwnersCompared_;
    std::map<std::string, MaybeReason> directories_;  // why nothing can be installed there
    PackagePlan plan_;
};

MaybeReason Decision::WhyInTheWay(const std::string& path, const TreeFile& file) const {
    const TreeFile* const old = OldAt(path);
    if (old == nullptr || IsSameKind(*old, file)) return std::nullopt;
    return Reason{"in-the-way", std::string("the base has ") + KindOf(*old) + " here"};
}

MaybeReason Decision::WhyNoOwner(const std::string& path, const TreeFile& file) const {
    if (!file.user.empty() && !file.group.empty()) return std::nullopt;
    return Reason{"owner-name", "a manifest can't name the owner " + Numbers(file) + " of " +
                                    ShownPath(path) + "; --owner names one"};
}

MaybeReason Decision::WhyNoDirectory(const std::string& path, const TreeFile& file) const {
    if (path.empty() && prefix_.empty()) return std::nullopt;  // the root directory stays as it is
    if (path.find_first_of("\n\r") != std::string::npos)
        return Reason{"name", "a list can't hold a directory with a line end in its name"};
    const std::size_t length = prefix_.size() + 1 + (path.empty() ? 0 : path.size() + 1);
    if (length > kMaxDirectoryLength) {
        return Reason{"long-directory", "a target directory of " + std::to_string(length) + " bytes, " +
                                            std::to_string(kMaxDirectoryLength) + " are the most"};
    }
    return WhyNoOwner(path, file);
}

void Decision::DecideDirectory(const std::string& path, const TreeFile& file) {
    const MaybeReason inTheWay = WhyInTheWay(path, file);
    if (inTheWay) Add(path, *inTheWay);
    MaybeReason& reason = directories_[path];
    if (!path.empty()) reason = directories_.at(DirectoryOf(path));
    if (!reason) reason = inTheWay ? inTheWay : WhyNoDirectory(path, file);
}

MaybeReason Decision::WhyNotListed(const std::string& path, const TreeFile& file) const {
    const std::string directory = DirectoryOf(path);
    if (const MaybeReason& reason = directories_.at(directory)) return reason;
    if (prefix_.empty() && directory.empty())
        return Reason{"root-directory", "it would go into the server's root directory"};
    if (MaybeReason reason = WhyNoName(path.substr(directory.empty() ? 0 : directory.size() + 1)))
        return reason;
    if (MaybeReason reason = WhyInTheWay(path, file)) return reason;
    const std::string backup = path + kBackupSuffix;
    const auto beside = facts_.files.find(backup);
    const bool isMade = beside != facts_.files.end() && S_ISDIR(beside->second.status.st_mode);
    if (isMade || OldAt(backup) != nullptr)
        return Reason{"backup-in-the-way", "its backup could not be made: there is a " + backup};
    return WhyNoOwner(path, file);
}

void Decision::DecideFile(const std::string& path, const TreeFile& file) {
    if (IsKept(path)) return;
    if (const MaybeReason reason = WhyNotListed(path, file)) {
        Add(path, *reason);
        return;
    }
    plan_.files.insert(path);
    plan_.lists.insert(DirectoryOf(path));
    for (std::string above = path; !above.empty();) {
        above = DirectoryOf(above);
        if (!above.empty() || !prefix_.empty()) plan_.directories.insert(above);
    }
}

void Decision::DecideOther(const std::string& path, const TreeFile& file) {
    const TreeFile* const old = OldAt(path);
    const bool isSame = old != nullptr && IsSameKind(*old, file) && old->link == file.link &&
                        old->status.st_rdev == file.status.st_rdev;
    if (!isSame) Add(path, {S_ISLNK(file.status.st_mode) ? "link" : "special", KindOf(file)});
}

void Decision::FindEmptyDirectories() {
    for (const auto& [path, reason] : directories_) {
        if (path.empty() || OldAt(path) != nullptr || plan_.directories.count(path) != 0) continue;
        Add(path, {"empty-directory", "a directory in which nothing is installed"});
    }
}

void Decision::CompareAttributes(const std::string& path, const TreeFile& file) {
    const Attributes& attributes = file.attributes;
    const TreeFile* const old = OldAt(path);
    if (old == nullptr) {
        const bool isMade = plan_.files.count(path) != 0 || plan_.directories.count(path) != 0;
        if (isMade && !attributes.extended.empty())
            Add(path, {"attributes", "capabilities, access lists and user attributes are not installed"});
        return;
    }
    if (!IsSameKind(*old, file) || (path.empty() && prefix_.empty())) return;

    const std::string kept = " in the base: an upgrade keeps it";
    if (old->attributes.mode != attributes.mode) {
        Add(path, {"mode",
                   "mode " + ShownMode(attributes.mode) + ", but " + ShownMode(old->attributes.mode) + kept});
    }
    const bool isSameOwner =
        old->attributes.user == attributes.user && old->attributes.group == attributes.group;
    if (areOwnersCompared_ && !isSameOwner)
        Add(path, {"owner", "owner " + Numbers(file) + ", but " + Numbers(*old) + kept});
    if (!(old->attributes.extended == attributes.extended)) {
        Add(path, {"attributes",
                   "other capabilities, access lists or user attributes than in the base: an "
                   "upgrade keeps those"});
    }
}

// The first name of a file stands for the file: as the tree has it, and as it will be.
void Decision::CompareLinks() {
    using FileId = std::pair<dev_t, ino_t>;
    std::map<FileId, std::string> wanted;
    std::map<FileId, std::string> kept;
    const auto firstOf = [](std::map<FileId, std::string>& names, const TreeFile& file,
                            const std::string& path) {
        return names.try_emplace({file.status.st_dev, file.status.st_ino}, path).first->second;
    };
    for (const auto& [path, file] : facts_.files) {
        const bool isListed = plan_.files.count(path) != 0;
        if (!isListed && !IsKept(path)) continue;
        const std::string first = firstOf(wanted, file, path);
        const std::string firstKept = isListed ? path : firstOf(kept, *OldAt(path), path);
        if (first == firstKept) continue;
        const bool isLost = first != path;
        Add(path, {"hard-link", isLost ? "a hard link of " + first + ", but will be a file of its own"
                                       : "no hard link of " + firstKept + ", but stays one as in the base"});
    }
}

PackagePlan Decision::Make() {
    for (const auto& [path, file] : facts_.files) {
        if (S_ISDIR(file.status.st_mode)) {
            DecideDirectory(path, file);
        } else if (S_ISREG(file.status.st_mode)) {
            DecideFile(path, file);
        } else {
            DecideOther(path, file);
        }
    }
    FindEmptyDirectories();
    for (const auto& [path, file] : facts_.files) CompareAttributes(path, file);
    CompareLinks();
    for (const auto& [path, file] : facts_.old) {
        if (facts_.files.count(path) == 0) Add(path, {"removed", "only the base has it: nothing is removed"});
    }
    std::sort(plan_.unsaid.begin(), plan_.unsaid.end(), [](const Unsaid& left, const Unsaid& right) {
        return std::tie(left.path, left.code) < std::tie(right.path, right.code);
    });
    return std::move(plan_);
}

}  // namespace

PackagePlan Decide(const TreeFacts& facts, const std::string& prefix, bool areOwnersCompared) {
    return Decision(facts, prefix, areOwnersCompared).Make();
}
