#include "Release.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <array>
#include <filesystem>
#include <set>
#include <stdexcept>

#include "Attributes.h"
#include "Signer.h"

namespace fs = std::filesystem;

namespace {

// cap_net_raw+ep, as the kernel keeps it.
const std::string kCapability("\1\0\0\2\0\40\0\0\0\0\0\0\0\0\0\0\0\0\0\0", 20);
// user::rwx, user:1234:r--, group::r-x, mask::r-x, other::---
const std::string kAccessList(
    "\2\0\0\0"
    "\1\0\7\0\377\377\377\377"
    "\2\0\4\0\322\4\0\0"
    "\4\0\5\0\377\377\377\377"
    "\20\0\5\0\377\377\377\377"
    "\40\0\0\0\377\377\377\377",
    44);

std::string NameOfEntry(const std::string& entry) {
    return entry.substr(entry.find_last_of("/\\") + 1);
}

std::string ContentOf(const std::string& name, std::size_t size) {
    std::string content;
    while (content.size() < size) content += name + "\n";
    content.resize(size);
    return content;
}

void SetAttribute(const std::string& path, const char* name, const std::string& value) {
    if (setxattr(path.c_str(), name, value.data(), value.size(), 0) != 0) {
        throw std::runtime_error(std::string("no ") + name + " for " + path);
    }
}

void SetOwnerAndMode(const std::string& path, uid_t user, gid_t group, mode_t mode) {
    if (chown(path.c_str(), user, group) != 0 || chmod(path.c_str(), mode) != 0) {
        throw std::runtime_error("no mode or owner for " + path);
    }
}

}  // namespace

Release::Release(Entries entries) : entries_(entries) {
    switch (entries) {
        case Entries::k3:
            List("A", "bin", {"bin/kept", "bin/added"});
            List("B", "made", {"m1"});
            break;
        case Entries::k4:
            List("A", "bin", {"bin/kept", "bin/other", "bin/added"});
            List("B", "made", {"m1"});
            break;
        case Entries::k40:
            ListLong();
            break;
    }
    (void)package_.WriteList("[Server]\n" + listText_ + sections_);
    const Signer signer;
    WriteManifest(package_, ManifestOf(package_), &signer);
    Restore();
    Expect();
}

void Release::List(const std::string& section, const std::string& directory,
                   const std::vector<std::string>& entries) {
    listText_ += section + "=@/" + directory + "\n";
    sections_ += "[" + section + "]\n";
    int key = 10;
    for (const std::string& entry : entries) {
        sections_ += "k" + std::to_string(key++) + "=" + entry + "\n";
        listed_.push_back({entry, directory + "/" + NameOfEntry(entry)});
        const std::size_t sizes[] = {300, 5000, 0, 1, 70000};
        (void)package_.Bring(entry, ContentOf("new " + entry, sizes[listed_.size() % 5]));
        const mode_t mode = listed_.size() % 3 == 0 ? 0755 : 0640;
        SetOwnerAndMode(package_.SourcePath(entry), geteuid(), getegid(), mode);
    }
}

// One file stands there twice, which check warns of and no more.
void Release::ListLong() {
    List("A", "bin",
         {"bin/a01", "bin/a02", "bin/a03", "bin/a05", "bin/a06", "bin/a07", "bin/a08", "bin/capable",
          "bin/listed", "bin/attributed", "bin/setuid", "./bin//a03"});
    List("B", "lib",
         {"lib/b01", "lib/b02", "lib/b03", "lib/b04", "lib/b05", "lib/link", "lib/unchanged", "lib/prefix",
          "lib/empty", "lib/emptied", "lib/unreadable"});
    List("C", "etc",
         {"etc/c01", "etc/c02", "etc/c03", "etc/\x80\xff name", "etc/tab\there", "etc/100%", "etc/'q'"});
    List("D", "made/deep/er", {"made/d01", "made/d02", "made/d03"});
    List("E", "made/deep", {"made/e01", "made/e02"});
    List("F", "lib", {"more/f01", "more/f02", "more/f03", "more/f04", "more/f05"});
    (void)package_.Bring("lib/unchanged", "the same in both\n");
    (void)package_.Bring("lib/prefix", ContentOf("prefix", 9000));
    (void)package_.Bring("lib/emptied", "");
}

void Release::Restore() const {
    InstallOld();
    // A tree that is restored is the same again.
    constexpr timespec kLongAgo = {1700000000, 123456789};
    const std::array<timespec, 2> times = {kLongAgo, kLongAgo};
    for (const fs::directory_entry& file : fs::recursive_directory_iterator(package_.InstalledPath())) {
        (void)utimensat(AT_FDCWD, file.path().c_str(), times.data(), AT_SYMLINK_NOFOLLOW);
    }
}

std::string Release::InstallOne(const std::string& name, const std::string& content, mode_t mode) const {
    std::string path = package_.Install(name, content);
    SetOwnerAndMode(path, geteuid(), getegid(), mode);
    return path;
}

void Release::InstallOld() const {
    fs::remove_all(package_.InstalledPath());
    fs::remove_all(StatePath());
    (void)InstallOne("bin/kept", "the old one\n", 0755);
    (void)InstallOne("bin/unlisted", "nobody's business\n", 0600);
    if (entries_ == Entries::k4) {
        const std::string other = InstallOne("bin/other", ContentOf("other", 6000), 0644);
        SetOwnerAndMode(other, 1001, 1002, 04711);
    }
    if (entries_ == Entries::k40) InstallLong();
}

void Release::InstallLong() const {
    for (const char* const name : {"a01", "a02", "a03", "a05", "a06", "a08"}) {
        (void)InstallOne(std::string("bin/") + name, ContentOf(name, 2500), 0750);
    }
    SetAttribute(InstallOne("bin/capable", "may ping\n", 0755), "security.capability", kCapability);
    SetAttribute(InstallOne("bin/listed", "has a list\n", 0750), "system.posix_acl_access", kAccessList);
    SetAttribute(InstallOne("bin/attributed", "has a note\n", 0644), "user.note", std::string("a\0b", 3));
    SetOwnerAndMode(InstallOne("bin/setuid", "for others\n", 0644), 1001, 1002, 06711);
    for (const char* const name : {"b01", "b02", "b04", "f01", "f03", "f04"}) {
        (void)InstallOne(std::string("lib/") + name, ContentOf(name, 100), 0444);
    }
    (void)InstallOne("lib/pointee", "what the link leads to\n", 0604);
    (void)package_.scratch().Link("installed/lib/link", "pointee");
    (void)InstallOne("lib/unchanged", "the same in both\n", 0644);
    (void)InstallOne("lib/prefix", ContentOf("prefix", 4000), 0644);
    (void)InstallOne("lib/empty", "", 0644);
    (void)InstallOne("lib/emptied", "not empty\n", 0644);
    (void)InstallOne("lib/unreadable", "for nobody\n", 0000);
    for (const char* const name : {"c01", "\x80\xff name", "100%"}) {
        (void)InstallOne(std::string("etc/") + name, ContentOf(name, 10), 0600);
    }
    (void)InstallOne("etc/c02.backup", "not a backup of ours\n", 0644);
}

TreeNode Release::Successor(const Listed& listed) const {
    struct stat status {};
    if (stat(package_.SourcePath(listed.entry).c_str(), &status) != 0) throw std::runtime_error(listed.entry);
    TreeNode node{S_IFREG | (status.st_mode & kPermissions), geteuid(), getegid(), "", {}, std::nullopt};
    const auto old = old_.find(listed.target);
    if (old != old_.end()) {
        node = S_ISLNK(old->second.mode)
                   ? old_.at(fs::path(listed.target).parent_path() / old->second.content)
                   : old->second;
        node.modified.reset();
    }
    node.content = ReadWholeFile(package_.SourcePath(listed.entry));
    return node;
}

// Told from the old tree and the package, in the words of the promise.
void Release::Expect() {
    old_ = Now();
    new_ = old_;
    between_ = old_;
    std::set<fs::path> inManifest;
    for (const Listed& listed : listed_) inManifest.insert(fs::path(listed.target).parent_path());
    for (const Listed& listed : listed_) {
        for (fs::path directory = fs::path(listed.target).parent_path();
             !directory.empty() && old_.count(directory) == 0; directory = directory.parent_path()) {
            const mode_t mode = S_IFDIR | (inManifest.count(directory) != 0 ? 0755 : 0750);
            new_[directory] = between_[directory] = {mode, geteuid(), getegid(), "", {}, std::nullopt};
        }
        const auto old = old_.find(listed.target);
        if (old != old_.end()) between_[listed.target + ".bak"] = old->second;
        new_[listed.target] = between_[listed.target] = Successor(listed);
    }
}

std::vector<std::string> Release::Command(const std::string& command) const {
    std::vector<std::string> words = {VFILELIST_PATH, command, "--state", StatePath()};
    if (command == "upgrade") {
        words.insert(words.end(), {package_.ListPath(), "--trusted", TrustedDirectory(package_)});
    }
    return words;
}

std::vector<std::string> Release::Environment() const {
    return {"VLOGGER_DIRECTORY=" + package_.scratch().Path("log")};
}

int Release::Run(const std::string& command) const {
    return RunProcess(Command(command), Environment()).exitStatus;
}

void Release::PrepareFor(const std::string& command) const {
    Restore();
    if (command != "upgrade" && Run("upgrade") != 0) throw std::runtime_error("it can't be upgraded");
}

const TreeSnapshot& Release::TreeAfter(const std::string& command) const {
    if (command == "upgrade") return between_;
    return command == "commit" ? new_ : old_;
}

std::string Joined(const std::vector<std::string>& lines) {
    std::string text;
    for (const std::string& line : lines) text += "\n  " + line;
    return text;
}
