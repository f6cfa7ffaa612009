#include "Install.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "FileSystem.h"
#include "Process.h"
#include "ScratchDirectory.h"
#include "SystemCalls.h"

namespace {

namespace fs = std::filesystem;

using testing::ElementsAre;
using testing::IsEmpty;

const auto kFails = [](auto...) {
    errno = EIO;
    return -1;
};

// "known", which was installed before, and "fresh", which was not; both new files hold "new".
class InstallTest : public testing::Test {
protected:
    InstallTest() {
        scratch_.Write("known.bak", "old");
        struct stat status {};
        EXPECT_EQ(stat(scratch_.Path("known.bak").c_str(), &status), 0);
        known_.old =
            OldFile{false, status.st_ino, status.st_size, status.st_mtim, {0750, geteuid(), getegid(), {}}};
    }

    JournalTarget TargetFor(const std::string& name) const {
        return {
            scratch_.Path(name), {scratch_.Path("package/" + name), 3, 0711, DigestOf("new")}, std::nullopt};
    }

    Journal Both() const {
        Journal journal;
        journal.targets = {known_, fresh_};
        return journal;
    }

    void Copy() const {
        scratch_.Write("known", "new");
        scratch_.Write("fresh", "new");
    }
    std::vector<Stamp> InstallAll() {
        std::vector<Stamp> stamps(2);
        EXPECT_EQ(Install(known_, stamps[0]), std::nullopt);
        EXPECT_EQ(Install(fresh_, stamps[1]), std::nullopt);
        return stamps;
    }
    Trouble InstallKnown() {
        Stamp stamp;
        return Install(known_, stamp);
    }

    // "name: what is said" of each remark of `ask`, which returns whether all is well.
    template <typename Ask>
    std::vector<std::string> SaidBy(Ask ask) const {
        std::vector<Remark> remarks = {{"from before", "", false}};
        const bool isWell = ask(remarks);
        EXPECT_EQ(isWell, remarks.size() == 1);
        std::vector<std::string> said;
        for (std::size_t i = 1; i < remarks.size(); ++i) {
            EXPECT_TRUE(remarks[i].isSerious);
            said.push_back(fs::path(remarks[i].path).filename().string() + ": " + remarks[i].text);
        }
        return said;
    }
    std::vector<std::string> SaidAfterRename() const {
        return SaidBy([this](auto& remarks) { return IsRenamed(Both(), remarks); });
    }
    std::vector<std::string> SaidAfterInstall(const std::vector<Stamp>& stamps) const {
        return SaidBy([&](auto& remarks) { return IsInstalled(Both(), stamps, remarks); });
    }
    std::vector<std::string> SaidOfBackups() const {
        return SaidBy([this](auto& remarks) { return AreBackupsOurs(Both(), remarks); });
    }

    const Umask umask_{022};
    const ScratchDirectory scratch_;
    JournalTarget known_ = TargetFor("known");
    JournalTarget fresh_ = TargetFor("fresh");
    Journal journal_;
};

TEST_F(InstallTest, FindsEverythingRenamed) {
    EXPECT_THAT(SaidAfterRename(), IsEmpty());
}

TEST_F(InstallTest, NamesWhatIsNotAsRenameLeavesIt) {
    const std::string text = ": another process changed it, or NAME.bak, during -rename";
    scratch_.Write("known", "made since");
    scratch_.Write("fresh.bak", "made since");
    EXPECT_THAT(SaidAfterRename(), ElementsAre("known" + text, "fresh" + text));

    fs::remove(scratch_.Path("known"));
    fs::remove(scratch_.Path("fresh.bak"));
    scratch_.Write("known.bak", "longer");
    EXPECT_THAT(SaidAfterRename(), ElementsAre("known" + text)) << "the old file itself was written to";
    fs::remove(scratch_.Path("known.bak"));
    EXPECT_THAT(SaidAfterRename(), ElementsAre("known" + text));
}

TEST_F(InstallTest, GivesASuccessorTheModeAndAttributesOfItsPredecessorAndANewFileThePackagesMode) {
    Copy();
    const std::string path = scratch_.Path("known");
    const bool hasAttributes = setxattr(path.c_str(), "user.a", "x", 1, 0) == 0;
    if (hasAttributes) known_.old->attributes.extended = {{"user.b", "kept"}};

    (void)InstallAll();

    EXPECT_EQ(PermissionsOf(path), 0750u);
    EXPECT_EQ(PermissionsOf(scratch_.Path("fresh")), 0711u);
    char value[8] = {};
    if (hasAttributes) {
        EXPECT_EQ(getxattr(path.c_str(), "user.b", value, sizeof value), 4);
    }
    EXPECT_EQ(getxattr(path.c_str(), "user.a", value, sizeof value), -1);
}

TEST_F(InstallTest, GivesANewFileThePackagesModeWhateverListItInheritsFromItsDirectory) {
    // Version 2; owner rwx, user 1 rwx, group r-x, mask r-x, others r-x.
    const char list[] =
        "\2\0\0\0\1\0\7\0\377\377\377\377\2\0\7\0\1\0\0\0\4\0\5\0\377\377\377\377"
        "\20\0\5\0\377\377\377\377\40\0\5\0\377\377\377\377";
    if (setxattr(scratch_.Path().c_str(), "system.posix_acl_default", list, sizeof list - 1, 0) != 0)
        GTEST_SKIP() << "the file system has no access control lists";
    fresh_.package.mode = 0771;
    Copy();

    (void)InstallAll();

    EXPECT_EQ(PermissionsOf(scratch_.Path("fresh")), 0771u);
    EXPECT_EQ(PermissionsOf(scratch_.Path("known")), 0750u);
    char value[64] = {};
    EXPECT_EQ(getxattr(scratch_.Path("known").c_str(), "system.posix_acl_access", value, sizeof value), -1)
        << "its predecessor had none";
}

TEST_F(InstallTest, PutsEveryFileOnTheDiskAfterItsMode) {
    Copy();
    std::vector<mode_t> modes;
    const Replaced replaced(calls::fsync, [&modes](int fd) {
        struct stat status {};
        EXPECT_EQ(fstat(fd, &status), 0);
        modes.push_back(status.st_mode & 07777);
        return 0;
    });

    (void)InstallAll();

    EXPECT_THAT(modes, ElementsAre(0750, 0711));
}

TEST_F(InstallTest, RefusesWhatIsNotThePackagesFile) {
    const std::string path = scratch_.Write("known", "NEW");
    EXPECT_EQ(InstallKnown(), path + ": it does not hold what the package's file held");
    fs::remove(path);
    EXPECT_EQ(InstallKnown(), path + ": No such file or directory");
    scratch_.Link("known", scratch_.Write("package/known", "new"));
    EXPECT_EQ(InstallKnown(), path + ": Too many levels of symbolic links");
    fs::remove(path);
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    EXPECT_EQ(InstallKnown(), path + ": it does not hold what the package's file held")
        << "and does not wait";
}

TEST_F(InstallTest, SaysWhatFails) {
    Copy();
    const std::string known = scratch_.Path("known") + ": Input/output error";
    const std::string fresh = scratch_.Path("fresh") + ": Input/output error";
    Stamp stamp;
    {
        const Replaced replaced(calls::read, [](int, void*, size_t) -> ssize_t { return kFails(); });
        EXPECT_EQ(InstallKnown(), known);
    }
    {
        const Replaced replaced(calls::fchmod, kFails);
        EXPECT_EQ(InstallKnown(), known);
        EXPECT_EQ(Install(fresh_, stamp), fresh);
    }
    {
        const Replaced replaced(calls::fsync, kFails);
        EXPECT_EQ(InstallKnown(), known);
    }
    {
        const Replaced replaced(calls::fstat, kFails);
        EXPECT_EQ(Install(fresh_, stamp), fresh);
    }
}

TEST_F(InstallTest, FindsEverythingInstalled) {
    Copy();

    EXPECT_THAT(SaidAfterInstall(InstallAll()), IsEmpty());
}

TEST_F(InstallTest, NamesWhatWasTouchedAfterwards) {
    const std::string text = ": another process changed it after -copy";
    Copy();
    std::vector<Stamp> stamps = InstallAll();
    const std::vector<Stamp> installed = stamps;
    ++stamps[0].inode;
    ++stamps[1].size;
    EXPECT_THAT(SaidAfterInstall(stamps), ElementsAre("known" + text, "fresh" + text));
    stamps = installed;
    ++stamps[0].changed.tv_sec;
    ++stamps[1].changed.tv_nsec;
    EXPECT_THAT(SaidAfterInstall(stamps), ElementsAre("known" + text, "fresh" + text));

    fs::remove(scratch_.Path("fresh"));
    fs::remove(scratch_.Path("known.bak"));
    scratch_.Write("known.bak", "foreign");
    EXPECT_THAT(
        SaidAfterInstall(installed),
        ElementsAre("fresh" + text, "known: NAME.bak is not, or no longer, what the upgrade left there"));
    fs::remove(scratch_.Path("known.bak"));
    EXPECT_THAT(
        SaidAfterInstall(installed),
        ElementsAre("fresh" + text, "known: NAME.bak is not, or no longer, what the upgrade left there"));
}

TEST_F(InstallTest, TakesBackupsForOursWhileTheyAreTheOldFilesOrGone) {
    const std::string text = ": NAME.bak is not, or no longer, what the upgrade left there";
    EXPECT_THAT(SaidOfBackups(), IsEmpty());
    scratch_.Write("known.bak", "written to");
    EXPECT_THAT(SaidOfBackups(), ElementsAre("known" + text));
    fs::remove(scratch_.Path("known.bak"));
    EXPECT_THAT(SaidOfBackups(), IsEmpty());
    scratch_.Write("fresh.bak", "foreign");
    EXPECT_THAT(SaidOfBackups(), ElementsAre("fresh" + text));
}

TEST_F(InstallTest, RemovesTheOldFilesAndNothingElse) {
    scratch_.Write("fresh.bak", "foreign");
    const auto remove = [this](auto& remarks) { return RemoveBackups(Both(), remarks); };

    EXPECT_THAT(SaidBy(remove), IsEmpty());
    EXPECT_THAT(SaidBy(remove), IsEmpty()) << "again";

    EXPECT_THAT(scratch_.List(), ElementsAre("fresh.bak"));
}

TEST_F(InstallTest, RemovesNoFileThatOnlyBearsTheNumberOfTheOldOne) {
    known_.old->modified = {1, 0};

    EXPECT_THAT(SaidBy([this](auto& remarks) { return RemoveBackups(Both(), remarks); }),
                ElementsAre("known.bak: NAME.bak is not, or no longer, what the upgrade left there"));

    EXPECT_THAT(scratch_.List(), ElementsAre("known.bak"));
}

TEST_F(InstallTest, SaysWhichBackupCannotBeRemoved) {
    const Replaced replaced(calls::unlink, kFails);

    EXPECT_THAT(SaidBy([this](auto& remarks) { return RemoveBackups(Both(), remarks); }),
                ElementsAre("known.bak: can't be removed: Input/output error"));
}

TEST_F(InstallTest, GivesANewFileTheOwnerAndModeOfTheManifest) {
    SKIP_UNLESS_ROOT();
    Copy();
    fresh_.package.mode = 04711;
    fresh_.package.owner = Owner{1234, 5678};
    (void)InstallAll();

    const struct stat status = StatusOf(scratch_.Path("fresh"));
    EXPECT_EQ(status.st_mode & 07777, 04711U)
        << "a change of the owner takes set-id bits away, so it comes first";
    EXPECT_EQ(status.st_uid, 1234U);
    EXPECT_EQ(status.st_gid, 5678U);
}

TEST_F(InstallTest, SaysWhenANewFileCanNotHaveTheOwnerOfTheManifest) {
    Copy();
    fresh_.package.owner = Owner{};
    const Replaced replaced(calls::fchown, kFails);
    Stamp stamp;
    EXPECT_EQ(Install(fresh_, stamp), scratch_.Path("fresh") + ": Input/output error");
}

TEST_F(InstallTest, TakesAnInheritedListAwayFromANewFileOfTheManifest) {
    Copy();
    // user::rw-, user:1234:rwx, group::r--, mask::rwx, other::r--
    const std::string list(
        "\2\0\0\0\1\0\6\0\377\377\377\377\2\0\7\0\322\4\0\0\4\0\4\0\377\377\377\377"
        "\20\0\7\0\377\377\377\377\40\0\4\0\377\377\377\377",
        44);
    const std::string path = scratch_.Path("fresh");
    ASSERT_EQ(setxattr(path.c_str(), "system.posix_acl_access", list.data(), list.size(), 0), 0);
    fresh_.package.owner = Owner{geteuid(), getegid()};
    fresh_.package.mode = 0664;
    (void)InstallAll();

    EXPECT_EQ(getxattr(path.c_str(), "system.posix_acl_access", nullptr, 0), -1);
    EXPECT_EQ(StatusOf(path).st_mode & 07777, 0664U);
}

TEST_F(InstallTest, RefusesAFileThatIsWrittenToAfterItWasCompared) {
    for (const char* const content : {"evil", "bad"}) {
        Copy();
        const auto write = [&](int fd, mode_t mode) {
            std::ofstream(scratch_.Path("fresh")) << content;
            return calls::real::fchmod(fd, mode);
        };
        const Replaced replaced(calls::fchmod, write);
        Stamp stamp;
        EXPECT_EQ(Install(fresh_, stamp), scratch_.Path("fresh") + ": another process has written to it");
    }
}

TEST_F(InstallTest, SaysWhenAFileCanNotBeLookedAtInTheEnd) {
    Copy();
    int calls = 0;
    const Replaced replaced(calls::fstat, [&calls](int fd, struct stat* status) {
        if (++calls < 2) return calls::real::fstat(fd, status);
        errno = EIO;
        return -1;
    });
    Stamp stamp;
    EXPECT_EQ(Install(fresh_, stamp), scratch_.Path("fresh") + ": Input/output error");
}

TEST_F(InstallTest, GivesDirectoriesTheirModesFromTheInnermostOutwards) {
    const std::string outer = scratch_.MakeDirectory("outer");
    const std::string inner = scratch_.MakeDirectory("outer/inner");
    journal_.directoryModes = {{outer, 01555, {geteuid(), getegid()}},
                               {inner, 02700, {geteuid(), getegid()}}};
    std::vector<std::string> opened;
    const Replaced replaced(calls::open, [&](const char* path, int flags, mode_t mode) {
        opened.emplace_back(path);
        return calls::real::open(path, flags, mode);
    });
    int synced = 0;
    const Replaced sync(calls::fsync, [&synced](int) {
        ++synced;
        return 0;
    });

    EXPECT_EQ(InstallDirectories(journal_), std::nullopt);
    EXPECT_THAT(opened, ElementsAre(inner, outer));
    EXPECT_EQ(StatusOf(outer).st_mode & 07777, 01555U);
    EXPECT_EQ(StatusOf(inner).st_mode & 07777, 02700U);
    EXPECT_EQ(synced, 2);
}

TEST_F(InstallTest, SaysWhichDirectoryCanNotHaveItsMode) {
    const std::string path = scratch_.MakeDirectory("directory");
    journal_.directoryModes = {{path, 0711, {geteuid(), getegid()}}};
    {
        const Replaced replaced(calls::fchown, kFails);
        EXPECT_EQ(InstallDirectories(journal_), path + ": Input/output error");
    }
    {
        const Replaced replaced(calls::fchmod, kFails);
        EXPECT_EQ(InstallDirectories(journal_), path + ": Input/output error");
    }
    {
        const Replaced replaced(calls::fsync, kFails);
        EXPECT_EQ(InstallDirectories(journal_), path + ": Input/output error");
    }
    ASSERT_EQ(rmdir(path.c_str()), 0);
    EXPECT_EQ(InstallDirectories(journal_), path + ": No such file or directory");
    scratch_.Link("directory", ".");
    EXPECT_EQ(InstallDirectories(journal_), path + ": Not a directory") << "no link is followed";
}

}  // namespace
