#include "KilledUpgrade.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <iostream>
#include <tuple>

#include "FileSystem.h"

namespace fs = std::filesystem;

namespace {

const std::vector<std::string> kPasses = {"-rename", "-copy", "-clean"};
const std::string kBackup = ".bak";

bool IsDirectory(const std::string& name) {
    return name.back() == '/';
}

}  // namespace

bool File::operator==(const File& other) const {
    return std::tie(content, mode, user, group) ==
           std::tie(other.content, other.mode, other.user, other.group);
}

bool File::operator<(const File& other) const {
    return std::tie(content, mode, user, group) <
           std::tie(other.content, other.mode, other.user, other.group);
}

std::ostream& operator<<(std::ostream& out, const File& file) {
    return out << file.content.size() << " bytes \"" << file.content.substr(0, 20) << "\", mode " << std::oct
               << file.mode << std::dec << ", owner " << file.user << ':' << file.group;
}

Tree ReadTree(const std::string& directory) {
    Tree tree;
    for (const auto& entry : fs::recursive_directory_iterator(directory)) {
        const struct stat status = StatusOf(entry.path());
        const bool isDirectory = entry.is_directory();
        const std::string name = entry.path().lexically_relative(directory);
        tree[isDirectory ? name + '/' : name] = {isDirectory ? "" : ReadWholeFile(entry.path()),
                                                 status.st_mode & 07777, status.st_uid, status.st_gid};
    }
    return tree;
}

std::string Pattern(std::size_t size, int step) {
    std::string bytes(size, '\0');
    for (std::size_t i = 0; i < size; ++i)
        bytes[i] = static_cast<char>('a' + (i * static_cast<std::size_t>(step)) % 23);
    return bytes;
}

void KilledUpgrade::Restore(const Tree& tree) const {
    fs::remove_all(package_.InstalledPath());
    for (const auto& [name, file] : tree) {
        if (IsDirectory(name)) {
            (void)package_.scratch().MakeDirectory("installed/" + name);
        } else {
            package_.Install(name, file.content);
        }
        if (file.user != geteuid()) {
            ASSERT_EQ(chown(PathOf(name).c_str(), file.user, file.group), 0);
        }
        ASSERT_EQ(chmod(PathOf(name).c_str(), file.mode), 0);
    }
}

std::vector<std::string> KilledUpgrade::Pass(const std::string& pass) const {
    return {TOOL_PATH, pass, package_.ListPath()};
}

void KilledUpgrade::RunPassWhole(const std::string& pass) const {
    ASSERT_EQ(package_.RunPass(pass), 0) << pass;
}

TracedRun KilledUpgrade::RunKilled(const std::vector<std::string>& command, long killAt) const {
    return RunTraced(command, {"VLOGGER_DIRECTORY=" + package_.scratch().Path("log")}, killAt);
}

bool KilledUpgrade::KillOnce(const Killing& killing, long killAt, std::set<Tree>& seen) const {
    SCOPED_TRACE(testing::Message() << killing.command[1] << " killed before system call " << killAt);
    const auto prepareAndKill = [&] {
        killing.prepare();
        return RunKilled(killing.command, killAt).wasKilled;
    };
    const bool wasKilled = prepareAndKill();
    const Tree tree = Installed();
    ExpectInvariantsSince(killing.command[1], tree);
    if (seen.insert(tree).second) killing.check(prepareAndKill);
    return wasKilled;
}

KilledUpgrade::Swept KilledUpgrade::Sweep(const Killing& killing, long firstKill) const {
    std::set<Tree> seen;
    long killAt = firstKill;
    while (!HasFailure() && KillOnce(killing, killAt, seen)) ++killAt;
    std::cout << killing.command[1] << ": killed at system calls " << firstKill << " to " << killAt - 1
              << ", " << seen.size() << " different states\n";
    return {killAt - 1, seen.size()};
}

bool KilledUpgrade::HasListedBackup(const Tree& tree) const {
    return std::any_of(new_.begin(), new_.end(),
                       [&tree](const auto& file) { return tree.count(file.first + kBackup) == 1; });
}

void KilledUpgrade::ExpectNothingLost(const Tree& tree) const {
    for (const auto& [name, file] : old_) {
        if (!IsListed(name)) continue;
        const auto here = tree.find(name);
        const auto backup = tree.find(name + kBackup);
        const bool isHere = here != tree.end() && here->second == file;
        // A new file may have got the owner and mode already; the old content is in the backup then.
        const bool isBackedUp = backup != tree.end() && backup->second == file;
        EXPECT_TRUE(isHere || isBackedUp) << name << " is lost";
    }
}

void KilledUpgrade::ExpectNewFiles(const Tree& tree) const {
    for (const auto& [name, content] : new_) {
        const auto here = tree.find(name);
        EXPECT_TRUE(here != tree.end() && here->second.content == content) << name << " is not the new one";
    }
}

void KilledUpgrade::ExpectRepeatEndsWell(const std::string& pass) const {
    for (auto next = std::find(kPasses.begin(), kPasses.end(), pass); next != kPasses.end(); ++next) {
        SCOPED_TRACE(testing::Message() << *next << " behind the killed " << pass);
        EXPECT_EQ(package_.RunPass(*next), 0);
        ExpectInvariantsSince(*next, Installed());
    }
    ExpectNewRelease();
}

void KilledUpgrade::ExpectUnlistedUntouched(const Tree& tree) const {
    std::set<std::string> mayBeThere = made_;
    for (const auto& [name, content] : new_) mayBeThere.insert(name);
    for (const auto& [name, file] : old_) {
        mayBeThere.insert(IsListed(name) ? name + kBackup : name);
        if (IsListed(name)) continue;
        const auto here = tree.find(name);
        EXPECT_TRUE(here != tree.end() && here->second == file) << name << " is not as it was";
    }
    for (const auto& [name, file] : tree) {
        EXPECT_EQ(mayBeThere.count(name), 1u) << name << " has come from nowhere";
    }
}

void KilledUpgrade::ExpectInvariantsSince(const std::string& command, const Tree& tree) const {
    ExpectUnlistedUntouched(tree);
    if (command == "-clean") {
        ExpectNewFiles(tree);
    } else {
        ExpectNothingLost(tree);
    }
}

void KilledUpgrade::ExpectNewRelease() const {
    const Tree tree = Installed();
    ExpectNewFiles(tree);
    ExpectUnlistedUntouched(tree);
    EXPECT_FALSE(HasListedBackup(tree));
}
