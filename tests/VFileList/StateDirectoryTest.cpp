#include "StateDirectory.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <link.h>
#include <sys/file.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <regex>
#include <string>
#include <vector>

#include "FileSystem.h"
#include "ScratchDirectory.h"
#include "SystemCalls.h"

namespace {

namespace fs = std::filesystem;

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

const auto kFails = [](auto...) {
    errno = EIO;
    return -1;
};
const std::string kCause = ": Input/output error";

// As between two file systems.
int LinksNothing(int /*directory*/, const char* /*path*/, int /*newDirectory*/, const char* /*newPath*/,
                 int /*flags*/) {
    errno = EXDEV;
    return -1;
}

class StateDirectoryTest : public testing::Test {
protected:
    StateDirectoryTest() {
        journal_.fileList = "/list";
        journal_.installType = "Server";
        directory_.emplace(path_);
    }

    void Begin() {
        ASSERT_EQ(directory_->Enter(), std::nullopt);
        ASSERT_EQ(directory_->Begin(journal_), std::nullopt);
    }
    // What another process finds there; the phases, and the journal's list.
    std::string Found() const {
        StateDirectory directory(path_);
        State state;
        Journal journal;
        if (const Trouble trouble = directory.Read(state, journal)) {
            EXPECT_EQ(state.phase, Phase::kNone);
            return *trouble;
        }
        return std::string(NameOf(state.phase)) + " " + NameOf(state.undone) + " " + journal.fileList;
    }
    // Every call on the file `name` of the directory fails that is of this kind.
    template <typename Hook>
    void ExpectTroubleOfBegin(Hook& hook, const std::string& trouble) {
        const Replaced replaced(hook, kFails);
        EXPECT_EQ(directory_->Begin(journal_), trouble);
    }
    std::string File(const char* name) const { return path_ + "/" + name; }

    const Umask umask_{022};
    const ScratchDirectory scratch_;
    const std::string path_ = scratch_.Path("lib/state");
    std::optional<StateDirectory> directory_;
    Journal journal_;
};

TEST_F(StateDirectoryTest, IsMadeForItsOwnerAlone) {
    EXPECT_EQ(directory_->path(), path_);
    EXPECT_EQ(directory_->Enter(), std::nullopt);

    EXPECT_EQ(PermissionsOf(path_), 0700u);
    EXPECT_EQ(PermissionsOf(File("lock")), 0600u);
}

TEST_F(StateDirectoryTest, KeepsOthersOutWhileItsProcessLives) {
    StateDirectory other(path_);
    EXPECT_FALSE(other.IsOccupied()) << "there is none yet";
    EXPECT_EQ(directory_->Enter(), std::nullopt);
    EXPECT_TRUE(other.IsOccupied());
    EXPECT_EQ(other.Enter(), path_ + ": another vfilelist is at work");

    directory_.reset();
    EXPECT_FALSE(other.IsOccupied());
    EXPECT_EQ(other.Enter(), std::nullopt);
}

TEST_F(StateDirectoryTest, KeepsOthersOutWhileAProcessLivesThatItsOwnHasForked) {
    EXPECT_EQ(directory_->Enter(), std::nullopt);
    int wait[2];
    ASSERT_EQ(pipe2(wait, O_CLOEXEC), 0);
    const pid_t child = fork();
    if (child == 0) {
        char byte = 0;
        (void)close(wait[1]);
        _exit(static_cast<int>(read(wait[0], &byte, 1)));
    }
    directory_.reset();
    const bool isOccupied = StateDirectory(path_).IsOccupied();
    (void)close(wait[1]);
    ASSERT_EQ(waitpid(child, nullptr, 0), child);
    (void)close(wait[0]);

    EXPECT_TRUE(isOccupied);
    EXPECT_FALSE(StateDirectory(path_).IsOccupied());
}

TEST_F(StateDirectoryTest, SaysWhyItCannotBeEntered) {
    {
        const Replaced replaced(calls::flock, kFails);
        EXPECT_EQ(directory_->Enter(), File("lock") + kCause);
        EXPECT_FALSE(directory_->IsOccupied()) << "nobody knows";
    }
    {
        const Replaced replaced(calls::open, kFails);
        EXPECT_EQ(directory_->Enter(), File("lock") + kCause);
    }
    const std::string below = scratch_.Write("file", "") + "/state";
    EXPECT_EQ(StateDirectory(below).Enter(), below + ": Not a directory");
}

TEST_F(StateDirectoryTest, HasNothingOpenAtFirst) {
    EXPECT_EQ(Found(), "none none ");
}

TEST_F(StateDirectoryTest, TellsOthersHowFarTheUpgradeHasCome) {
    Begin();
    EXPECT_EQ(Found(), "renaming none /list");
    for (const Phase phase : {Phase::kRenaming, Phase::kCopying, Phase::kInstalled, Phase::kCleaning}) {
        EXPECT_EQ(directory_->Write({phase, Phase::kNone}), std::nullopt);
        EXPECT_EQ(Found(), std::string(NameOf(phase)) + " none /list");
    }
    for (const Phase undone : {Phase::kRenaming, Phase::kCopying, Phase::kInstalled}) {
        EXPECT_EQ(directory_->Write({Phase::kUndoing, undone}), std::nullopt);
        EXPECT_EQ(Found(), std::string("undoing ") + NameOf(undone) + " /list");
    }
    EXPECT_THAT(scratch_.List("lib/state"), ElementsAre("journal", "lock", "state"));
}

TEST_F(StateDirectoryTest, NamesThePhases) {
    EXPECT_STREQ(NameOf(Phase::kNone), "none");
    EXPECT_STREQ(NameOf(Phase::kRenaming), "renaming");
    EXPECT_STREQ(NameOf(Phase::kCopying), "copying");
    EXPECT_STREQ(NameOf(Phase::kInstalled), "installed");
    EXPECT_STREQ(NameOf(Phase::kUndoing), "undoing");
    EXPECT_STREQ(NameOf(Phase::kCleaning), "cleaning");
}

TEST_F(StateDirectoryTest, CanBeWrittenToByThoseWhoHaveReadWhatIsOpen) {
    Begin();
    StateDirectory other(path_);
    State state;
    Journal journal;
    ASSERT_EQ(other.Read(state, journal), std::nullopt);
    EXPECT_EQ(other.Write({Phase::kCopying, Phase::kNone}), std::nullopt);

    EXPECT_EQ(Found(), "copying none /list");
}

TEST_F(StateDirectoryTest, KeepsNothingWhenTheUpgradeIsClosed) {
    Begin();
    scratch_.Write("lib/state/rescue/vfilelist", "");
    EXPECT_EQ(directory_->Close(), std::nullopt);
    EXPECT_EQ(Found(), "none none ");
    EXPECT_THAT(scratch_.List("lib/state"), ElementsAre("lock"));
    EXPECT_EQ(directory_->Close(), std::nullopt) << "again";
}

TEST_F(StateDirectoryTest, SaysWhyTheUpgradeCannotBeClosed) {
    Begin();
    {
        const Replaced replaced(calls::unlink, kFails);
        EXPECT_EQ(directory_->Close(), File("state") + kCause);
    }
    EXPECT_EQ(Found(), "renaming none /list");
    const Replaced replaced(calls::fsync, kFails);
    EXPECT_EQ(directory_->Close(), path_ + kCause);
}

TEST_F(StateDirectoryTest, BelievesNoStateThatIsNotWhole) {
    Begin();
    const std::string state = scratch_.Read("lib/state/state");
    const std::string trouble = File("state") + ": changed, of another version, or not of this journal";
    for (std::string wrong :
         {std::string(), state.substr(1), state + "\n", state.substr(0, state.size() - 1)}) {
        scratch_.Write("lib/state/state", wrong);
        EXPECT_EQ(Found(), trouble) << wrong;
    }
    scratch_.Write("lib/state/state", state);
    EXPECT_EQ(Found(), "renaming none /list");

    const std::string journal = scratch_.Read("lib/state/journal");
    scratch_.Write("lib/state/journal", std::regex_replace(journal, std::regex("/list"), "/other"));
    EXPECT_EQ(Found(), trouble) << "whole, but not of this upgrade";
}

TEST_F(StateDirectoryTest, BelievesNoJournalThatWasCutOffOrChangedAnywhere) {
    journal_.targets = {{"/file", {"/package/file", 1, 0644, DigestOf("new")}, OldFile{}}};
    Begin();
    const std::string trouble = File("state") + ": changed, of another version, or not of this journal";
    const std::string journal = scratch_.Read("lib/state/journal");
    for (std::size_t i = 0; i < journal.size(); ++i) {
        scratch_.Write("lib/state/journal", journal.substr(0, i));
        EXPECT_EQ(Found(), trouble) << i;
        std::string changed = journal;
        changed[i] = static_cast<char>(changed[i] ^ 1);
        scratch_.Write("lib/state/journal", changed);
        EXPECT_EQ(Found(), trouble) << i;
    }
    scratch_.Write("lib/state/journal", journal + "\n");
    EXPECT_EQ(Found(), trouble);
    scratch_.Write("lib/state/journal", journal);
    EXPECT_EQ(Found(), "renaming none /list");
}

TEST_F(StateDirectoryTest, BelievesNoJournalOfAnotherVersionThoughTheStateNamesIt) {
    Begin();
    std::string state = scratch_.Read("lib/state/state");
    const std::string text = "vfilelist-journal 2\n";
    const std::string old = HexOf(DigestOf(scratch_.Read("lib/state/journal")));
    state.replace(state.find(old), old.size(), HexOf(DigestOf(text)));
    scratch_.Write("lib/state/state", state);
    scratch_.Write("lib/state/journal", text);

    EXPECT_EQ(Found(), File("journal") + ": it is no file of vfilelist, or one of another version");
}

TEST_F(StateDirectoryTest, SaysWhatCannotBeRead) {
    Begin();
    fs::remove(File("journal"));
    EXPECT_EQ(Found(), File("journal") + ": No such file or directory");
    const Replaced replaced(calls::open, kFails);
    EXPECT_EQ(Found(), File("state") + kCause);
}

TEST_F(StateDirectoryTest, SyncsEachFileBeforeItHasItsNameAndTheNameAfterwards) {
    ASSERT_EQ(directory_->Enter(), std::nullopt);
    std::vector<std::string> steps;
    const Replaced sync(calls::fsync, [&steps](int fd) {
        const fs::path path = fs::read_symlink("/proc/self/fd/" + std::to_string(fd));
        steps.push_back("sync " + (path == "/" ? "/" : path.filename().string()));
        return 0;
    });
    const Replaced rename(calls::rename, [&steps](const char* from, const char* to) {
        steps.push_back("rename to " + fs::path(to).filename().string());
        return calls::real::rename(from, to);
    });

    EXPECT_EQ(directory_->Begin(journal_), std::nullopt);

    // The state's directories may be new, up to the root.
    std::vector<std::string> expected;
    for (fs::path above = fs::canonical(File("..")); above != "/"; above = above.parent_path())
        expected.push_back("sync " + above.filename().string());
    for (const char* const step : {"sync /", "sync journal.new", "rename to journal", "sync state",
                                   "sync state.new", "rename to state", "sync state"})
        expected.emplace_back(step);
    EXPECT_EQ(steps, expected);
}

TEST_F(StateDirectoryTest, NeedNotSyncDirectoriesThatItCannotHaveMade) {
    ASSERT_EQ(directory_->Enter(), std::nullopt);
    for (const int error : {EACCES, EINVAL, EIO}) {
        const Replaced replaced(calls::fsync, [error](int fd) {
            if (fs::read_symlink("/proc/self/fd/" + std::to_string(fd)) != "/") return 0;
            errno = error;
            return -1;
        });
        EXPECT_EQ(directory_->Begin(journal_).value_or("begun"),
                  error == EIO ? "/: Input/output error" : "begun");
    }
}

TEST_F(StateDirectoryTest, SaysWhatCannotBeWritten) {
    ASSERT_EQ(directory_->Enter(), std::nullopt);
    ExpectTroubleOfBegin(calls::fsync, fs::canonical(File("..")).string() + kCause);
    ExpectTroubleOfBegin(calls::rename, File("journal") + kCause);
    {
        const Replaced replaced(calls::write, [](int, const void*, size_t) -> ssize_t { return kFails(); });
        EXPECT_EQ(directory_->Begin(journal_), File("journal.new") + kCause);
    }
    {
        const Replaced replaced(calls::open, [this](const char* path, int flags, mode_t mode) {
            return path == File("journal.new") ? kFails() : calls::real::open(path, flags, mode);
        });
        EXPECT_EQ(directory_->Begin(journal_), File("journal.new") + kCause);
    }
    {
        const Replaced replaced(calls::fsync, [](int fd) {
            struct stat status {};
            EXPECT_EQ(fstat(fd, &status), 0);
            return S_ISREG(status.st_mode) ? kFails() : 0;
        });
        EXPECT_EQ(directory_->Begin(journal_), File("journal.new") + kCause);
    }
    EXPECT_EQ(Found(), "none none ");
}

TEST_F(StateDirectoryTest, WritesOnAfterAPart) {
    ASSERT_EQ(directory_->Enter(), std::nullopt);
    const Replaced replaced(calls::write, [](int fd, const void* data, size_t size) -> ssize_t {
        return calls::real::write(fd, data, size < 5 ? size : 5);
    });
    EXPECT_EQ(directory_->Begin(journal_), std::nullopt);

    EXPECT_EQ(Found(), "renaming none /list");
}

TEST_F(StateDirectoryTest, KeepsAnotherNameOfThisProgramWhereThatCanBe) {
    ASSERT_EQ(directory_->Enter(), std::nullopt);

    EXPECT_EQ(directory_->KeepRescue(journal_), std::nullopt);

    const std::string link = scratch_.Path("link");
    if (linkat(AT_FDCWD, "/proc/self/exe", AT_FDCWD, link.c_str(), AT_SYMLINK_FOLLOW) != 0)
        GTEST_SKIP() << "the program lies on another file system";
    EXPECT_TRUE(fs::equivalent(path_ + "/rescue/vfilelist", "/proc/self/exe"));
}

TEST_F(StateDirectoryTest, KeepsACopyOfThisProgramWithItsMode) {
    if (VFS_TEST_EMULATED) GTEST_SKIP() << "the program is not the one that the emulator shows as its own";
    const Replaced linking(calls::linkat, LinksNothing);
    ASSERT_EQ(directory_->Enter(), std::nullopt);
    scratch_.Write("lib/state/rescue/left", "");

    EXPECT_EQ(directory_->KeepRescue(journal_), std::nullopt);

    const std::vector<std::string> kept = scratch_.List("lib/state/rescue");
    EXPECT_THAT(kept, testing::Contains("vfilelist"));
    EXPECT_THAT(kept, testing::Not(testing::Contains("left")));
    EXPECT_EQ(access((path_ + "/rescue/vfilelist").c_str(), X_OK), 0);
    EXPECT_EQ(fs::file_size(path_ + "/rescue/vfilelist"), fs::file_size("/proc/self/exe"));
}

TEST_F(StateDirectoryTest, KeepsThoseOfItsLibrariesThatTheUpgradeWillMove) {
    // Of the loaded files, the one by this name is the installed file.
    std::string library;
    const auto find = [](dl_phdr_info* object, std::size_t, void* found) {
        const bool isIt = std::strstr(object->dlpi_name, "libVFileSys.so") != nullptr;
        if (isIt) *static_cast<std::string*>(found) = object->dlpi_name;
        return isIt ? 1 : 0;
    };
    ASSERT_EQ(dl_iterate_phdr(find, &library), 1);
    struct stat status {};
    ASSERT_EQ(stat(library.c_str(), &status), 0);
    journal_.targets = {{"/fresh", {}, std::nullopt}, {"/library", {}, OldFile{false, status.st_ino}}};
    ASSERT_EQ(directory_->Enter(), std::nullopt);

    EXPECT_EQ(directory_->KeepRescue(journal_), std::nullopt);

    const std::string name = fs::path(library).filename();
    EXPECT_THAT(scratch_.List("lib/state/rescue"), testing::IsSupersetOf({name, std::string("vfilelist")}));

    if (VFS_TEST_EMULATED) GTEST_SKIP() << "the program is not the one that the emulator shows as its own";
    const Replaced linking(calls::linkat, LinksNothing);
    const Replaced replaced(calls::open, [&library](const char* path, int flags, mode_t mode) {
        return path == library ? kFails() : calls::real::open(path, flags, mode);
    });
    EXPECT_THAT(directory_->KeepRescue(journal_).value_or(""), HasSubstr(name + kCause));
}

TEST_F(StateDirectoryTest, KeepsTheSystemsOwnLibrariesOnlyWhenTheUpgradeMovesThem) {
    std::string library;
    const auto find = [](dl_phdr_info* object, std::size_t, void* found) {
        const bool isIt = std::strstr(object->dlpi_name, "libstdc++.so.6") != nullptr;
        if (isIt) *static_cast<std::string*>(found) = object->dlpi_name;
        return isIt ? 1 : 0;
    };
    ASSERT_EQ(dl_iterate_phdr(find, &library), 1);
    struct stat status {};
    ASSERT_EQ(stat(library.c_str(), &status), 0);
    ASSERT_EQ(directory_->Enter(), std::nullopt);

    EXPECT_EQ(directory_->KeepRescue(journal_), std::nullopt);
    EXPECT_THAT(scratch_.List("lib/state/rescue"), testing::Not(testing::Contains("libstdc++.so.6")));

    journal_.targets = {{"/library", {}, OldFile{false, status.st_ino}}};
    EXPECT_EQ(directory_->KeepRescue(journal_), std::nullopt);
    EXPECT_THAT(scratch_.List("lib/state/rescue"), testing::Contains("libstdc++.so.6"));
}

TEST_F(StateDirectoryTest, PassesOverLibrariesThatAreGone) {
    ASSERT_EQ(directory_->Enter(), std::nullopt);
    const Replaced replaced(calls::stat, [](const char* path, struct stat* status) {
        return std::strstr(path, ".so") != nullptr ? kFails() : calls::real::stat(path, status);
    });

    EXPECT_EQ(directory_->KeepRescue(journal_), std::nullopt);
}

TEST_F(StateDirectoryTest, SaysWhyItCannotKeepACopyOfTheProgram) {
    const Replaced linking(calls::linkat, LinksNothing);
    const std::string below = scratch_.Write("file", "");
    EXPECT_EQ(StateDirectory(below).KeepRescue(journal_), below + "/rescue: Not a directory");
    const std::string rescue = File("rescue");
    EXPECT_EQ(directory_->KeepRescue(journal_), rescue + ": No such file or directory");
    ASSERT_EQ(directory_->Enter(), std::nullopt);
    {
        const Replaced replaced(calls::open, [](const char* path, int flags, mode_t mode) {
            const bool isProgram = std::strcmp(path, "/proc/self/exe") == 0;
            return isProgram ? kFails() : calls::real::open(path, flags, mode);
        });
        EXPECT_EQ(directory_->KeepRescue(journal_), rescue + "/vfilelist" + kCause);
    }
    {
        const Replaced replaced(calls::open, [&](const char* path, int flags, mode_t mode) {
            if (path != rescue + "/vfilelist") return calls::real::open(path, flags, mode);
            errno = ENOSPC;
            return -1;
        });
        EXPECT_EQ(directory_->KeepRescue(journal_), rescue + "/vfilelist: No space left on device");
    }
    if (!VFS_TEST_EMULATED) {  // there the program's size is that of the emulator, and the copy fails before
        const Replaced replaced(calls::fsync, kFails);
        EXPECT_EQ(directory_->KeepRescue(journal_), rescue + "/vfilelist" + kCause);
    }
    ASSERT_EQ(chmod(rescue.c_str(), 0700), 0);
    const Replaced replaced(calls::mkdir, kFails);
    EXPECT_EQ(directory_->KeepRescue(journal_), rescue + kCause);
}

TEST_F(StateDirectoryTest, KeepsTheListForThePassesBesideALinkToCommon) {
    ASSERT_EQ(directory_->Enter(), std::nullopt);
    const std::string common = scratch_.MakeDirectory("package/Common");
    scratch_.Write("package/Common/file", "content");
    scratch_.Write("lib/state/package/left/over", "");
    ASSERT_EQ(directory_->KeepList("the text", common + "/"), std::nullopt);

    EXPECT_EQ(directory_->ListPath(), File("package/filelist.ini"));
    EXPECT_EQ(ReadWholeFile(directory_->ListPath()), "the text");
    EXPECT_EQ(ReadWholeFile(File("package/Common/file")), "content");
    EXPECT_THAT(scratch_.List("lib/state/package"), testing::UnorderedElementsAre("Common", "filelist.ini"));
    Begin();
    ASSERT_EQ(directory_->Close(), std::nullopt);
    EXPECT_FALSE(scratch_.Has("lib/state/package"));
}

TEST_F(StateDirectoryTest, SaysWhenTheListCanNotBeKept) {
    ASSERT_EQ(directory_->Enter(), std::nullopt);
    {
        const Replaced replaced(calls::open, kFails);
        EXPECT_EQ(directory_->KeepList("", "/common"), File("package/filelist.ini") + ": Input/output error");
    }
    {
        const Replaced replaced(calls::write, kFails);
        EXPECT_EQ(directory_->KeepList("x", "/common"),
                  File("package/filelist.ini") + ": Input/output error");
    }
    StateDirectory missing(scratch_.Path("nowhere"));
    EXPECT_EQ(missing.KeepList("", "/common"),
              scratch_.Path("nowhere/package") + ": No such file or directory");
}

TEST_F(StateDirectoryTest, KeepsTheReceiptAndHasNoneAtFirst) {
    Receipt receipt;
    EXPECT_EQ(directory_->ReadReceipt(receipt), std::nullopt);
    ASSERT_EQ(directory_->Enter(), std::nullopt);
    receipt.history = {{"1.0", "/list", 5, 1}};
    ASSERT_EQ(directory_->WriteReceipt(receipt), std::nullopt);
    EXPECT_EQ(PermissionsOf(File("receipt")), 0600u);

    Begin();
    ASSERT_EQ(directory_->Close(), std::nullopt);
    Receipt read;
    EXPECT_EQ(directory_->ReadReceipt(read), std::nullopt) << "it outlives the upgrade";
    EXPECT_EQ(read.Release(), "1.0");
}

TEST_F(StateDirectoryTest, SaysWhenTheReceiptCanNotBeReadOrWritten) {
    ASSERT_EQ(directory_->Enter(), std::nullopt);
    {
        const Replaced replaced(calls::fsync, kFails);
        EXPECT_EQ(directory_->WriteReceipt({}), File("receipt.new") + ": Input/output error");
    }
    Receipt receipt;
    scratch_.Write("lib/state/receipt", "no receipt");
    errno = EACCES;
    EXPECT_EQ(directory_->ReadReceipt(receipt),
              File("receipt") + ": it is no file of vfilelist, or one of another version");
    EXPECT_NE(errno, EACCES) << "callers take that for a receipt that is not theirs to read";
    const Replaced replaced(calls::open, kFails);
    EXPECT_EQ(directory_->ReadReceipt(receipt), File("receipt") + ": Input/output error");
    EXPECT_EQ(errno, EIO);
}

}  // namespace
