#include "Inventory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>
#include <filesystem>
#include <set>
#include <string>
#include <vector>

#include "FileSystem.h"
#include "Package.h"
#include "Report.h"
#include "SystemCalls.h"
#include "Targets.h"

namespace {

namespace fs = std::filesystem;

using testing::ElementsAre;
using testing::IsEmpty;

class InventoryTest : public testing::Test {
protected:
    InventoryTest() {
        tool_ = package_.Install("tool", "old");
        source_ = package_.Bring("tool", "the new tool");
        EXPECT_EQ(chmod(tool_.c_str(), 04750), 0);
        EXPECT_EQ(chmod(source_.c_str(), 0711), 0);
        package_.WriteEntries("tool");
    }

    Trouble Take() {
        journal_ = {};
        Output output(true);
        return TakeInventory(FileList(package_.ListPath()), manifest_, output, journal_);
    }
    // The trouble when this call fails for `path`, and not for others.
    template <typename... Parameters>
    Trouble TakeWithout(calls::Hook<int(const char*, Parameters...)>& hook,
                        int (*real)(const char*, Parameters...), const std::string& path, int error = EIO) {
        const FileList list(package_.ListPath());
        const Replaced replaced(hook, [&](const char* used, Parameters... rest) {
            if (used != path) return real(used, rest...);
            errno = error;
            return -1;
        });
        Output output(true);
        return TakeInventory(list, manifest_, output, journal_);
    }
    std::vector<std::string> OldDirectories() const {
        std::vector<std::string> paths;
        for (const OldDirectory& directory : journal_.oldDirectories) {
            paths.push_back(directory.path);
            EXPECT_EQ(directory.inode, StatusOf(directory.path).st_ino);
        }
        return paths;
    }

    const Umask umask_{022};
    const Package package_;
    std::string tool_;
    std::string source_;
    std::optional<Manifest> manifest_;
    Journal journal_;
};

TEST_F(InventoryTest, HasTheListAndWhatItIsFor) {
    const std::time_t before = std::time(nullptr);
    EXPECT_EQ(Take(), std::nullopt);

    EXPECT_EQ(journal_.fileList, package_.ListPath());
    EXPECT_EQ(journal_.installType, "Server");
    EXPECT_GE(journal_.begun, before);
    EXPECT_LE(journal_.begun, std::time(nullptr));
}

TEST_F(InventoryTest, HasTheOldFileAndThePackagesFile) {
    EXPECT_EQ(Take(), std::nullopt);

    ASSERT_EQ(journal_.targets.size(), 1u);
    const JournalTarget target = AllOf(journal_.targets)[0];
    const struct stat status = StatusOf(tool_);
    EXPECT_EQ(target.path, tool_);
    EXPECT_EQ(target.package.source, source_);
    EXPECT_EQ(target.package.size, 12);
    EXPECT_EQ(target.package.mode, 0711u);
    EXPECT_EQ(target.package.digest, DigestOf("the new tool"));
    ASSERT_TRUE(target.old);
    EXPECT_FALSE(target.old->isLink);
    EXPECT_EQ(target.old->inode, status.st_ino);
    EXPECT_EQ(target.old->size, 3);
    EXPECT_EQ(target.old->modified.tv_sec, status.st_mtim.tv_sec);
    EXPECT_EQ(target.old->modified.tv_nsec, status.st_mtim.tv_nsec);
    EXPECT_EQ(target.old->attributes, (Attributes{04750, geteuid(), getegid(), {}}));
}

TEST_F(InventoryTest, OfALinkHasTheLinkWithTheModeOfTheFileThatItLeadsTo) {
    package_.Bring("link", "new");
    package_.scratch().Link("installed/link", "tool");
    package_.WriteEntries("link");

    EXPECT_EQ(Take(), std::nullopt);

    const JournalTarget target = AllOf(journal_.targets).at(0);
    ASSERT_TRUE(target.old);
    const OldFile& old = *target.old;
    EXPECT_TRUE(old.isLink);
    EXPECT_EQ(old.inode, StatusOf(package_.InstalledPath("link")).st_ino);
    EXPECT_EQ(old.attributes.mode, 04750u);
}

TEST_F(InventoryTest, HasTheTargetsInTheOrderOfThePassesAndNoOldFileWhereThereIsNone) {
    package_.Bring("a", "");
    package_.Bring("z", "");
    package_.WriteEntries("z,tool,a");

    EXPECT_EQ(Take(), std::nullopt);

    std::vector<std::string> paths;
    for (const JournalTarget& target : journal_.targets) paths.push_back(target.path);
    EXPECT_THAT(paths, ElementsAre(package_.InstalledPath("z"), tool_, package_.InstalledPath("a")));
    EXPECT_FALSE(AllOf(journal_.targets)[0].old);
}

TEST_F(InventoryTest, HasTheDirectoriesAndThoseThatCopyWillMakeWithWhatTheyAreMadeIn) {
    package_.scratch().MakeDirectory("installed/other");
    package_.WriteList(
        "[Server]\nA=@/a/b/c\nB=@/a/b/../b/d/\nC=@//\nD=@/other\n[A]\nf=\n[B]\n[C]\nf=tool\n[D]\n");

    EXPECT_EQ(Take(), std::nullopt);

    const std::string installed = package_.InstalledPath();
    EXPECT_THAT(journal_.newDirectories, ElementsAre(installed + "/a", installed + "/a/b",
                                                     installed + "/a/b/c", installed + "/a/b/d"));
    EXPECT_THAT(OldDirectories(), ElementsAre(installed, installed, installed, installed + "/other"));
}

// What can't be looked at for a moment is no directory that the upgrade makes, and removes again.
TEST_F(InventoryTest, RemembersNoDirectoryAsMadeThatIsThere) {
    const std::string directory = package_.scratch().MakeDirectory("installed/other");
    package_.WriteList("[Server]\nA=@/other\n[A]\nf=tool\n");
    std::set<std::string> troubles;
    for (const int failing : {1, 2, 3, 4, 5, 6}) {
        const Replaced replaced(calls::lstat, [&, looks = 0](const char* path, struct stat* status) mutable {
            if (path != directory || ++looks > failing) return calls::real::lstat(path, status);
            errno = EIO;
            return -1;
        });
        journal_ = {};
        troubles.insert(Take().value_or(""));
        EXPECT_THAT(journal_.newDirectories, IsEmpty());
    }
    EXPECT_THAT(troubles,
                testing::IsSupersetOf({directory + ": File exists", directory + ": Input/output error"}));
}

TEST_F(InventoryTest, IsNotTakenWhereADirectoryCannotBeLookedAt) {
    const std::string directory = package_.InstalledPath();
    EXPECT_EQ(TakeWithout(calls::stat, calls::real::stat, directory), directory + ": Input/output error");
    EXPECT_THAT(journal_.newDirectories, IsEmpty()) << "it is there, and would be removed";

    const FileList list(package_.ListPath());
    const Replaced replaced(calls::stat, [](const char*, struct stat*) {
        errno = ENOENT;
        return -1;
    });
    Output output(true);
    EXPECT_EQ(TakeInventory(list, manifest_, output, journal_), "/: No such file or directory")
        << "and comes to an end";
}

TEST_F(InventoryTest, IsNotTakenWhereABackupIsInTheWay) {
    package_.scratch().Link("installed/tool.bak", "nowhere");

    EXPECT_EQ(Take(), tool_ + ".bak: it is there already, from an earlier upgrade perhaps");

    fs::remove(tool_ + ".bak");
    EXPECT_EQ(TakeWithout(calls::lstat, calls::real::lstat, tool_ + ".bak"),
              tool_ + ".bak: Input/output error");
}

TEST_F(InventoryTest, IsNotTakenOfWhatIsNoFile) {
    fs::remove(tool_);
    fs::create_directory(tool_);
    EXPECT_EQ(Take(), tool_ + ": not a regular file");
    fs::remove(tool_);
    ASSERT_EQ(mkfifo(tool_.c_str(), 0600), 0);
    EXPECT_EQ(Take(), tool_ + ": not a regular file") << "and does not wait";
    fs::remove(tool_);
    package_.scratch().Link("installed/tool", "nowhere");
    EXPECT_EQ(Take(), tool_ + ": No such file or directory");
    fs::remove(tool_);

    fs::remove(source_);
    EXPECT_EQ(Take(), source_ + ": No such file or directory");
    fs::create_directory(source_);
    EXPECT_EQ(Take(), source_ + ": not a regular file");
}

TEST_F(InventoryTest, SaysWhatCannotBeLookedAt) {
    EXPECT_EQ(TakeWithout(calls::lstat, calls::real::lstat, tool_), tool_ + ": Input/output error");
    EXPECT_EQ(TakeWithout(calls::open, calls::real::open, tool_), tool_ + ": Input/output error");
    EXPECT_EQ(TakeWithout(calls::open, calls::real::open, source_), source_ + ": Input/output error");

    const auto isOpenAt = [](int fd, const std::string& path) {
        return fs::read_symlink("/proc/self/fd/" + std::to_string(fd)) == path;
    };
    const FileList list(package_.ListPath());
    Output output(true);
    for (const std::string& path : {tool_, source_}) {
        const Replaced replaced(calls::fstat, [&](int fd, struct stat* status) {
            if (!isOpenAt(fd, path)) return calls::real::fstat(fd, status);
            errno = EIO;
            return -1;
        });
        EXPECT_EQ(TakeInventory(list, manifest_, output, journal_), path + ": Input/output error");
    }
    {
        const Replaced replaced(calls::read, [&](int fd, void* data, size_t size) -> ssize_t {
            if (!isOpenAt(fd, source_)) return calls::real::read(fd, data, size);
            errno = EIO;
            return -1;
        });
        EXPECT_EQ(TakeInventory(list, manifest_, output, journal_), source_ + ": Input/output error");
    }
    const Replaced replaced(calls::flistxattr, [](int, char*, size_t) -> ssize_t {
        errno = EIO;
        return -1;
    });
    EXPECT_EQ(TakeInventory(list, manifest_, output, journal_), tool_ + ": Input/output error");
}

TEST_F(InventoryTest, ShowsItsProgress) {
    const FileList list(package_.ListPath());

    EXPECT_THAT(
        ProgressOf([&](Output& output) { return TakeInventory(list, manifest_, output, journal_) ? 1 : 0; }),
        ElementsAre("record: 0 of 1 files"));
}

class ManifestInventoryTest : public InventoryTest {
protected:
    ManifestInventoryTest() {
        manifest_.emplace();
        manifest_->release = "2.0";
        manifest_->entries = {FileEntry(tool_, "the new tool")};
    }

    static ManifestEntry FileEntry(const std::string& path, const std::string& content) {
        return {path, false, 04751, "root", "root", 0, DigestOf(content)};
    }
};

TEST_F(ManifestInventoryTest, TakesModesAndOwnersOfWhatIsNewFromTheManifest) {
    package_.Bring("fresh", "fresh");
    package_.WriteList("[Server]\nBin=@\nNew=@/a/b\n[Bin]\nf=tool\n[New]\nf=fresh\n");
    manifest_->entries = {{package_.InstalledPath("a/b"), true, 02775, "root", "root", 0, {}},
                          FileEntry(package_.InstalledPath("a/b/fresh"), "fresh"),
                          FileEntry(tool_, "the new tool")};
    ASSERT_EQ(Take(), std::nullopt);

    EXPECT_EQ(journal_.release, "2.0");
    const std::vector<JournalTarget> targets = AllOf(journal_.targets);
    ASSERT_EQ(targets.size(), 2u);
    EXPECT_EQ(targets[0].path, tool_);
    EXPECT_EQ(targets[0].package.mode, 0711u) << "it has a predecessor";
    EXPECT_FALSE(targets[0].package.owner);
    EXPECT_EQ(targets[1].package.mode, 04751u);
    ASSERT_TRUE(targets[1].package.owner);
    EXPECT_EQ(targets[1].package.owner->user, 0u);
    EXPECT_THAT(journal_.newDirectories,
                ElementsAre(package_.InstalledPath("a"), package_.InstalledPath("a/b")));
    ASSERT_EQ(journal_.directoryModes.size(), 1u) << "the manifest says nothing of the other one";
    EXPECT_EQ(journal_.directoryModes[0].path, package_.InstalledPath("a/b"));
    EXPECT_EQ(journal_.directoryModes[0].mode, 02775u);
}

TEST_F(ManifestInventoryTest, RefusesAnotherList) {
    manifest_->fileListDigest = DigestOf("another list");
    EXPECT_EQ(Take(), package_.ListPath() + ": it is not the one of the manifest");
}

TEST_F(ManifestInventoryTest, RefusesWhatTheManifestDoesNotKnow) {
    const std::string unknown = source_ + ": it is not what the manifest says of " + tool_;
    manifest_->entries = {FileEntry(tool_, "another tool")};
    EXPECT_EQ(Take(), unknown);
    manifest_->entries.clear();
    EXPECT_EQ(Take(), unknown);
}

TEST_F(ManifestInventoryTest, RefusesOwnersThatTheMachineDoesNotKnow) {
    manifest_->entries[0].user = "nosuchuser";
    EXPECT_EQ(Take(), std::nullopt) << "an old file keeps its owner";
    fs::remove(tool_);
    EXPECT_EQ(Take(), tool_ + ": this machine has no user nosuchuser or no group root");

    package_.WriteList("[Server]\nNew=@/a\n[New]\nf=tool\n");
    const std::string directory = package_.InstalledPath("a");
    manifest_->entries = {{directory, true, 0755, "root", "nosuchgroup", 0, {}},
                          FileEntry(directory + "/tool", "the new tool")};
    EXPECT_EQ(Take(), directory + ": this machine has no user root or no group nosuchgroup");
}

}  // namespace
