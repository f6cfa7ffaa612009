// Random pairs of trees with hostile names: a package is made of each and installed over the old tree. What
// is there then, beside the new tree, is compared by other means than those of the program.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <map>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "Check.h"
#include "FileSystem.h"
#include "Make.h"
#include "Manifest.h"
#include "Report.h"
#include "Scale.h"
#include "SmallProgram.h"
#include "SystemCalls.h"
#include "Transaction.h"
#include "TreeSnapshot.h"

namespace {

namespace fs = std::filesystem;

// What is to be at a path. Of several names of one file, the first in order has what the file has.
struct Wanted {
    char kind = 'f';  // f: file, d: directory, l: link, p: pipe
    std::string content;
    mode_t mode = 0644;
    uid_t owner = 0;
    std::string note;   // a user attribute
    std::string first;  // for another name of a file
};
using Wood = std::map<std::string, Wanted>;

class Grower {
public:
    explicit Grower(unsigned seed) : random_(seed) {}

    Wood Grow();
    Wood Change(const Wood& old);
    bool Chance(int percent) { return Below(100) < static_cast<std::size_t>(percent); }

private:
    std::size_t Below(std::size_t end) {
        return std::uniform_int_distribution<std::size_t>(0, end - 1)(random_);
    }
    template <typename Item>
    const Item& One(const std::vector<Item>& items) {
        return items[Below(items.size())];
    }
    std::string Name();
    Wanted Something();
    void Add(Wood& wood);
    void Link(Wood& wood);

    std::mt19937 random_;
};

std::string Grower::Name() {
    static const std::vector<std::string> names = {"a",         "b",         "c",
                                                   "a.bak",     "b.bak",     ".bak",
                                                   "a.bak.bak", " a",        "a ",
                                                   "\ta",       "a\v",       "a b",
                                                   "a,b",       ",",         "a\\b",
                                                   "\\",        "a\nb",      "\r",
                                                   "-a",        "--json",    "[",
                                                   "]",         "[a]",       "[a",
                                                   ";a",        "#a",        "=",
                                                   "a=b",       "%",         "%2C",
                                                   "a%2Cb",     "a%2Cb.bak", "%.bak",
                                                   "<<<a",      "\"a\"",     "'",
                                                   "$(a)",      "*",         "?",
                                                   "~",         "...",       ".a",
                                                   "\xc3\xbc",  "\xff\xfe",  "\xef\xbb\xbf",
                                                   "\x01\x7f",  "Common",    "filelist.ini",
                                                   "f0001",     "Server",    "Package_Intall_Type"};
    // Those that have to do with each other, more often.
    static const std::vector<std::string> related = {"a", "b", "a.bak", "b.bak", "a,b", "a%2Cb"};
    if (Chance(35)) return One(related);
    if (Chance(70)) return One(names);
    if (Chance(20))
        return std::string(One(std::vector<std::size_t>{240, 247, 251, 252, 255}),
                           One(std::vector<char>{'x', ',', '%'}));
    std::string name;
    for (std::size_t length = 1 + Below(6); name.size() < length;) {
        const char byte = static_cast<char>(1 + Below(255));
        if (byte != '/') name += byte;
    }
    return name == "." || name == ".." ? "dots" : name;
}

Wanted Grower::Something() {
    const bool isRoot = geteuid() == 0;
    Wanted wanted;
    wanted.kind = One(std::vector<char>{'f', 'f', 'f', 'f', 'f', 'd', 'd', 'd', 'l', 'p'});
    wanted.content = One(std::vector<std::string>{"", "a", "b", "ab", "ba", std::string("\0\n", 2)});
    wanted.mode = One(std::vector<mode_t>{0644, 0644, 0644, 0755, 0600, 04755});
    if (wanted.kind == 'd') wanted.mode = One(std::vector<mode_t>{0755, 0755, 0755, 0700, 01777, 02775});
    if (isRoot && Chance(3)) wanted.mode = 0;
    if (isRoot && Chance(8)) wanted.owner = One(std::vector<uid_t>{1, 1, 54321});
    if (Chance(5)) wanted.note = One(std::vector<std::string>{"x", "y"});
    return wanted;
}

// Anywhere below a directory that is there.
void Grower::Add(Wood& wood) {
    std::vector<std::string> places = {""};
    for (const auto& [path, wanted] : wood) {
        if (wanted.kind == 'd' && path.size() < 600) places.push_back(path + "/");
    }
    wood.try_emplace(One(places) + Name(), Something());
}

// Gives a file the name of another one.
void Grower::Link(Wood& wood) {
    std::vector<std::string> files;
    for (const auto& [path, wanted] : wood) {
        if (wanted.kind == 'f' && wanted.first.empty()) files.push_back(path);
    }
    if (files.size() < 2) return;
    const std::string first = One(files);
    const std::string other = One(files);
    for (const auto& [path, wanted] : wood) {
        if (wanted.first == other) return;
    }
    if (first < other) wood[other].first = first;
}

Wood Grower::Grow() {
    Wood wood;
    for (std::size_t count = Below(14); count > 0; --count) Add(wood);
    if (Chance(30)) Link(wood);
    return wood;
}

Wood Grower::Change(const Wood& old) {
    Wood wood;
    for (const auto& [path, wanted] : old) {
        const std::string above = fs::path(path).parent_path();
        const bool isBelow = above.empty() || (wood.count(above) != 0 && wood[above].kind == 'd');
        if (!isBelow || Chance(10)) continue;
        Wanted changed = Chance(10) ? Something() : wanted;
        const Wanted other = Something();
        if (Chance(25)) changed.content = other.content;
        if (Chance(5)) changed.mode = wanted.kind == other.kind ? other.mode : changed.mode;
        if (Chance(5)) changed.owner = other.owner;
        if (Chance(5)) changed.note = other.note;
        if (Chance(20) || wood.count(changed.first) == 0 || wood[changed.first].kind != 'f')
            changed.first = "";
        wood[path] = changed;
    }
    for (std::size_t count = 1 + Below(8); count > 0; --count) Add(wood);
    if (Chance(20)) Link(wood);
    return wood;
}

void Plant(const Wanted& wanted, const std::string& path) {
    bool isDone = true;
    if (wanted.kind == 'd') isDone = mkdir(path.c_str(), 0700) == 0;
    if (wanted.kind == 'l') isDone = symlink(("to " + wanted.content).c_str(), path.c_str()) == 0;
    if (wanted.kind == 'p') isDone = mkfifo(path.c_str(), 0600) == 0;
    if (wanted.kind == 'f') {
        FILE* const file = std::fopen(path.c_str(), "wbxe");
        isDone =
            file != nullptr &&
            std::fwrite(wanted.content.data(), 1, wanted.content.size(), file) == wanted.content.size() &&
            std::fclose(file) == 0;
    }
    ASSERT_TRUE(isDone) << Shown(path) << ": " << std::strerror(errno);
}

void Plant(const Wood& wood, const std::string& directory) {
    for (const auto& [path, wanted] : wood) {
        const std::string place = directory + "/" + path;
        if (wanted.first.empty()) {
            Plant(wanted, place);
        } else {
            ASSERT_EQ(link((directory + "/" + wanted.first).c_str(), place.c_str()), 0)
                << std::strerror(errno);
        }
    }
    for (const auto& [path, wanted] : wood) {
        const std::string place = directory + "/" + path;
        if (!wanted.first.empty()) continue;
        const uid_t owner = wanted.owner != 0 ? wanted.owner : geteuid();
        ASSERT_EQ(lchown(place.c_str(), owner, static_cast<gid_t>(wanted.owner != 0 ? owner : getegid())), 0);
        if (wanted.kind == 'l') continue;
        // Where the file system has no such attributes, both trees lack them.
        if (wanted.kind != 'p' && !wanted.note.empty())
            (void)setxattr(place.c_str(), "user.note", wanted.note.data(), wanted.note.size(), 0);
        ASSERT_EQ(chmod(place.c_str(), wanted.mode), 0);
    }
}

// A path and what of it differs: "there", "mode", "owner", "attributes" or "hard-link".
using Differences = std::multiset<std::pair<std::string, std::string>>;

bool IsRegular(const TreeNode& node) {
    return S_ISREG(node.mode);
}

// The first name of each file that both trees have with the same content.
std::map<std::string, std::string> FirstNames(const std::string& directory, const TreeSnapshot& tree,
                                              const TreeSnapshot& other) {
    std::map<std::string, std::string> firsts;
    std::map<ino_t, std::string> names;
    for (const auto& [path, node] : tree) {
        const auto counterpart = other.find(path);
        if (!IsRegular(node) || counterpart == other.end() || !IsRegular(counterpart->second)) continue;
        if (node.content != counterpart->second.content) continue;
        firsts[path] = names.try_emplace(StatusOf(directory + "/" + path).st_ino, path).first->second;
    }
    return firsts;
}

// How the server differs from the new tree. What was new has no mode and owner to keep: these are compared
// with the manifest.
Differences Compare(const std::string& newDirectory, const TreeSnapshot& wanted, const std::string& directory,
                    const TreeSnapshot& server, const TreeSnapshot& old) {
    Differences differences;
    for (const auto& [path, node] : server) {
        if (wanted.count(path) == 0) differences.emplace(path, "there");
    }
    for (const auto& [path, node] : wanted) {
        const auto found = server.find(path);
        if (found == server.end()) {
            differences.emplace(path, "there");
            continue;
        }
        const TreeNode& now = found->second;
        const bool isSameKind = (now.mode & S_IFMT) == (node.mode & S_IFMT);
        if (!isSameKind || now.content != node.content) differences.emplace(path, "there");
        if (!isSameKind) continue;
        const bool isNew = old.count(path) == 0;
        if ((!isNew || IsRegular(node)) && now.mode != node.mode) differences.emplace(path, "mode");
        if (!isNew && (now.user != node.user || now.group != node.group)) differences.emplace(path, "owner");
        if (now.attributes != node.attributes) differences.emplace(path, "attributes");
    }
    const std::map<std::string, std::string> serverNames = FirstNames(directory, server, wanted);
    for (const auto& [path, first] : FirstNames(newDirectory, wanted, server)) {
        if (serverNames.at(path) != first) differences.emplace(path, "hard-link");
    }
    return differences;
}

// As JSON has it.
std::string InJson(const std::string& text) {
    return Json::parse(Json(text).dump(-1, ' ', false, Json::error_handler_t::replace)).get<std::string>();
}

std::string Lines(const Differences& differences) {
    std::string text;
    for (const auto& [path, what] : differences) text += "  " + Shown(path) + "  " + what + "\n";
    return text;
}

Differences ReportedBy(const nlohmann::json& report) {
    const std::set<std::string> aspects = {"mode", "owner", "attributes", "hard-link"};
    Differences reported;
    for (const nlohmann::json& item : report["items"]) {
        const std::string code = item["code"];
        reported.emplace(item["path"], aspects.count(code) != 0 ? code : "there");
    }
    return reported;
}

class MakeAgreementTest : public testing::Test {
protected:
    void ExpectAgreement(unsigned seed);

private:
    void Install(const std::string& list, const std::string& state);

    const Umask umask_{022};
    const ScratchDirectory scratch_;
    const Variable logDirectory_{"VLOGGER_DIRECTORY", scratch_.Path("log").c_str()};
    const SmallProgram program_{scratch_};
    const Replaced<calls::Hook<int(int)>> fsync_{calls::fsync, [](int) { return 0; }};
};

// Without what it says on standard error, which the report has as well.
nlohmann::json MakeQuietly(const MakeOptions& options, int& status) {
    testing::internal::CaptureStderr();
    nlohmann::json report = ReportOf([&](Output& output) { return Make(options, output); }, &status);
    (void)testing::internal::GetCapturedStderr();
    return report;
}

void ExpectNoErrors(const std::string& list) {
    Output quiet(false);
    for (const Finding& finding : FindTrouble(CheckOptions{list, "", false}, quiet))
        EXPECT_FALSE(finding.kind->IsError()) << finding.kind->code << " " << finding.path << finding.detail;
}

void MakeAgreementTest::Install(const std::string& list, const std::string& state) {
    ExpectNoErrors(list);
    const TransactionOptions upgrade{list, state, false, false};
    int status = -1;
    nlohmann::json report = ReportOf([&](Output& output) { return Upgrade(upgrade, output); }, &status);
    ASSERT_EQ(status, 0) << report.dump(1);
    const TransactionOptions commit{"", state, false, false};
    report = ReportOf([&](Output& output) { return Commit(commit, output); }, &status);
    ASSERT_EQ(status, 0) << report.dump(1);
}

// The manifest has what came and changed, as the new tree has it, and the directories above.
void ExpectManifest(const std::string& path, const std::string& prefix, const TreeSnapshot& wanted,
                    const TreeSnapshot& server, const TreeSnapshot& old) {
    Manifest manifest;
    ASSERT_EQ(Parse(ReadWholeFile(path), manifest), std::nullopt);
    std::set<std::string> expected;
    for (const auto& [name, node] : server) {
        const auto before = old.find(name);
        const bool isSame =
            before != old.end() && IsRegular(before->second) && before->second.content == node.content;
        if (!IsRegular(node) || isSame) continue;
        std::string above = "/" + name;
        while (!above.empty()) {
            expected.insert(prefix + above);
            above.resize(above.rfind('/'));
        }
        expected.insert(prefix);
    }
    std::set<std::string> found;
    for (const ManifestEntry& entry : manifest.entries) {
        SCOPED_TRACE(Shown(entry.path));
        found.insert(entry.path);
        const std::string name = entry.path == prefix ? "." : entry.path.substr(prefix.size() + 1);
        ASSERT_EQ(wanted.count(name), 1U);
        const TreeNode& node = wanted.at(name);
        EXPECT_EQ(entry.mode, node.mode & 07777U);
        const std::optional<Owner> owner = OwnerOf(entry);
        ASSERT_TRUE(owner.has_value());
        EXPECT_EQ(owner->user, node.user);
        EXPECT_EQ(owner->group, node.group);
        EXPECT_EQ(entry.isDirectory, S_ISDIR(node.mode));
        if (entry.isDirectory) continue;
        EXPECT_EQ(entry.size, static_cast<off_t>(node.content.size()));
        EXPECT_EQ(entry.digest, DigestOf(node.content));
    }
    EXPECT_EQ(found, expected);
}

void MakeAgreementTest::ExpectAgreement(unsigned seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    Grower grower(seed);
    const std::string name = std::to_string(seed);
    const std::string top = scratch_.MakeDirectory(name);
    const std::string newTree = scratch_.MakeDirectory(name + "/new");
    const std::string prefix = scratch_.MakeDirectory(name + "/installed, 100%");
    const bool hasBase = grower.Chance(80);
    const Wood old = hasBase ? grower.Grow() : Wood();
    ASSERT_NO_FATAL_FAILURE(Plant(grower.Change(old), newTree));
    MakeOptions options;
    options.tree = newTree;
    options.prefix = prefix;
    options.package = top + "/package";
    if (hasBase) {
        options.base = scratch_.MakeDirectory(name + "/old");
        ASSERT_NO_FATAL_FAILURE(Plant(old, options.base));
        ASSERT_NO_FATAL_FAILURE(Plant(old, prefix));
    } else {
        fs::remove(prefix);
    }
    const TreeSnapshot before = hasBase ? TakeSnapshot(prefix) : TreeSnapshot();

    int status = -1;
    const nlohmann::json report = MakeQuietly(options, status);
    ASSERT_NE(status, 2) << report.dump(1);
    const bool isMade = report["files"] > 0;
    EXPECT_EQ(fs::exists(options.package), isMade);
    EXPECT_EQ(status, !isMade || !report["items"].empty() ? 1 : 0);
    if (isMade) {
        ASSERT_NO_FATAL_FAILURE(Install(options.package + "/filelist.ini", top + "/state"));
    }
    const TreeSnapshot wanted = TakeSnapshot(newTree);
    const TreeSnapshot after = isMade || hasBase ? TakeSnapshot(prefix) : TreeSnapshot();
    if (isMade) ExpectManifest(options.package + "/filelist.ini.mtree", prefix, wanted, after, before);

    Differences found;
    for (const auto& [path, what] : Compare(newTree, wanted, prefix, after, before)) {
        if (path != "." || isMade || hasBase) found.emplace(InJson(path), what);
    }
    const Differences reported = ReportedBy(report);
    EXPECT_EQ(found, reported) << "found:\n"
                               << Lines(found) << "reported:\n"
                               << Lines(reported) << report.dump(1);
    fs::remove_all(top);
}

TEST_F(MakeAgreementTest, NamesExactlyWhatAnUpgradeDoesNotBring) {
    const unsigned pairs = static_cast<unsigned>(100 * TestScale());
    for (unsigned seed = 1; seed <= pairs && !HasFailure(); ++seed) ExpectAgreement(seed);
}

}  // namespace
