#include "Undo.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <map>
#include <string>
#include <tuple>
#include <vector>

#include "ScratchDirectory.h"
#include "SystemCalls.h"

namespace {

namespace fs = std::filesystem;

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr Found kFounds[] = {Found::kNothing, Found::kOld, Found::kCopy, Found::kForeign, Found::kUnknown};
constexpr Phase kUndone[] = {Phase::kRenaming, Phase::kCopying, Phase::kInstalled};

template <typename Check>
void ForEachCell(Check check) {
    for (const bool hadPredecessor : {false, true}) {
        for (const Phase undone : kUndone) {
            for (const Found name : kFounds) {
                for (const Found backup : kFounds) {
                    for (const bool isChanged : {false, true}) {
                        const TargetNow now{name, backup, isChanged, "detail"};
                        SCOPED_TRACE(testing::Message()
                                     << hadPredecessor << " " << NameOf(undone) << " name "
                                     << static_cast<int>(name) << " backup " << static_cast<int>(backup)
                                     << " changed " << isChanged);
                        check(hadPredecessor, undone, now, Decide(hadPredecessor, undone, now));
                    }
                }
            }
        }
    }
}

bool Overwrites(UndoMove move) {
    return move == UndoMove::kReplace || move == UndoMove::kRemove;
}
bool BringsBack(UndoMove move) {
    return move == UndoMove::kRestore || move == UndoMove::kReplace || move == UndoMove::kSetAsideAndRestore;
}
bool SetsAside(UndoMove move) {
    return move == UndoMove::kSetAside || move == UndoMove::kSetAsideAndRestore;
}

TEST(UndoTest, OverwritesAndRemovesNothingButCopies) {
    ForEachCell([](bool, Phase, const TargetNow& now, const UndoStep& step) {
        if (Overwrites(step.move)) {
            EXPECT_EQ(now.name, Found::kCopy);
        }
        if (step.move == UndoMove::kRestore) {
            EXPECT_EQ(now.name, Found::kNothing);
        }
        if (SetsAside(step.move)) {
            EXPECT_EQ(now.name, Found::kForeign);
        }
    });
}

TEST(UndoTest, BringsTheOldFileBackWheneverItIsTheBackupAndNothingElse) {
    ForEachCell([](bool hadPredecessor, Phase, const TargetNow& now, const UndoStep& step) {
        const bool isInDoubt = now.name == Found::kUnknown || now.name == Found::kOld;
        const bool isThere = hadPredecessor && now.backup == Found::kOld;
        EXPECT_EQ(BringsBack(step.move), isThere && !isInDoubt);
    });
}

TEST(UndoTest, PostponesWhatCannotBeLookedAt) {
    ForEachCell([](bool, Phase, const TargetNow& now, const UndoStep& step) {
        const bool isUnknown = now.name == Found::kUnknown || now.backup == Found::kUnknown;
        EXPECT_EQ(step.move == UndoMove::kPostpone, isUnknown);
        if (!isUnknown) return;
        EXPECT_EQ(step.remark, "can't be looked at: detail");
        EXPECT_TRUE(step.isSerious);
    });
}

TEST(UndoTest, NamesEveryFileThatDoesNotBecomeWhatItWas) {
    ForEachCell([](bool hadPredecessor, Phase undone, const TargetNow& now, const UndoStep& step) {
        const bool isOldThere = now.name == Found::kOld || now.backup == Found::kOld;
        if (hadPredecessor && (!isOldThere || now.isOldChanged)) {
            EXPECT_NE(step.remark, "");
        }
        if (now.name == Found::kForeign) {
            EXPECT_NE(step.remark, "");
        }
        if (now.backup == Found::kForeign) {
            EXPECT_TRUE(step.isSerious);
        }
        if (step.remark.empty()) {
            EXPECT_FALSE(step.isSerious);
        }
        // A service that rewrote a file after the upgrade is no accident; whatever else is named is one.
        const bool isBackupAsItWas = now.backup != Found::kForeign && !(hadPredecessor && now.isOldChanged);
        const bool isRewritten = undone == Phase::kInstalled && now.name == Found::kForeign &&
                                 SetsAside(step.move) && isBackupAsItWas;
        if (!step.remark.empty()) {
            EXPECT_EQ(step.isSerious, !isRewritten);
        }
    });
}

TEST(UndoTest, TakesAwayWhatHadNoPredecessorOnlyAfterTheCopiesHadBegun) {
    ForEachCell([](bool hadPredecessor, Phase undone, const TargetNow& now, const UndoStep& step) {
        if (hadPredecessor) return;
        if (now.name == Found::kForeign && now.backup != Found::kUnknown) {
            EXPECT_EQ(step.move, undone == Phase::kRenaming ? UndoMove::kNone : UndoMove::kSetAside);
        }
    });
}

TEST(UndoTest, DecidesTheUsualCases) {
    const struct {
        bool hadPredecessor;
        Phase undone;
        Found name;
        Found backup;
        bool isChanged;
        UndoMove move;
        const char* remark;
        bool isSerious;
    } rows[] = {
        {true, Phase::kRenaming, Found::kOld, Found::kNothing, false, UndoMove::kNone, "", false},
        {true, Phase::kRenaming, Found::kNothing, Found::kOld, false, UndoMove::kRestore, "", false},
        {true, Phase::kCopying, Found::kCopy, Found::kOld, false, UndoMove::kReplace, "", false},
        {true, Phase::kInstalled, Found::kCopy, Found::kOld, false, UndoMove::kReplace, "", false},
        {true, Phase::kCopying, Found::kForeign, Found::kOld, false, UndoMove::kSetAsideAndRestore,
         "not the package's file any more", true},
        {true, Phase::kInstalled, Found::kForeign, Found::kOld, false, UndoMove::kSetAsideAndRestore,
         "not the package's file any more", false},
        {true, Phase::kInstalled, Found::kForeign, Found::kOld, true, UndoMove::kSetAsideAndRestore,
         "NAME.bak was written to since the upgrade began, and is back as it is now; NAME was not the "
         "package's file any more",
         true},
        {true, Phase::kCopying, Found::kOld, Found::kOld, false, UndoMove::kNone,
         "NAME.bak is the same file by a second name", true},
        {true, Phase::kInstalled, Found::kCopy, Found::kOld, true, UndoMove::kReplace,
         "NAME.bak was written to since the upgrade began; it is back as it is now", true},
        {true, Phase::kCopying, Found::kNothing, Found::kOld, true, UndoMove::kRestore,
         "NAME.bak was written to since the upgrade began; it is back as it is now", true},
        {true, Phase::kCopying, Found::kOld, Found::kNothing, true, UndoMove::kNone,
         "it was written to since the upgrade began", true},
        {true, Phase::kInstalled, Found::kCopy, Found::kNothing, false, UndoMove::kNone,
         "the installed file is neither under NAME nor under NAME.bak any more", true},
        {true, Phase::kRenaming, Found::kNothing, Found::kForeign, false, UndoMove::kNone,
         "the installed file is neither under NAME nor under NAME.bak any more", true},
        {true, Phase::kRenaming, Found::kOld, Found::kForeign, false, UndoMove::kNone,
         "NAME.bak is not the upgrade's, and stays", true},
        {false, Phase::kRenaming, Found::kNothing, Found::kNothing, false, UndoMove::kNone, "", false},
        {false, Phase::kCopying, Found::kCopy, Found::kNothing, false, UndoMove::kRemove, "", false},
        {false, Phase::kInstalled, Found::kCopy, Found::kForeign, false, UndoMove::kRemove,
         "NAME.bak is not the upgrade's, and stays", true},
        {false, Phase::kInstalled, Found::kForeign, Found::kForeign, false, UndoMove::kSetAside,
         "NAME.bak is not the upgrade's, and stays; not the package's file any more", true},
        {false, Phase::kRenaming, Found::kForeign, Found::kNothing, false, UndoMove::kNone,
         "it was made since the upgrade began", true},
        {false, Phase::kCopying, Found::kForeign, Found::kNothing, false, UndoMove::kSetAside,
         "not the package's file any more", true},
        {false, Phase::kInstalled, Found::kForeign, Found::kNothing, false, UndoMove::kSetAside,
         "not the package's file any more", false},
    };
    for (const auto& row : rows) {
        const UndoStep step =
            Decide(row.hadPredecessor, row.undone, {row.name, row.backup, row.isChanged, ""});
        SCOPED_TRACE(&row - rows);
        EXPECT_EQ(step.move, row.move);
        EXPECT_EQ(step.remark, row.remark);
        EXPECT_EQ(step.isSerious, row.isSerious);
    }
}

// Files in a directory "d": the installed "f", whose successor in the package is "package".
class UndoFilesTest : public testing::Test {
protected:
    UndoFilesTest() {
        scratch_.Write("d/f", "old");
        scratch_.Write("package", "the new file");
        target_ = {path_, {scratch_.Path("package"), 12, 0644, DigestOf("the new file")}, OldFile{}};
        Record();
        journal_.oldDirectories = {{scratch_.Path("d"), InodeOf("d")}};
    }

    ino_t InodeOf(const std::string& name) const {
        struct stat status {};
        EXPECT_EQ(lstat(scratch_.Path(name).c_str(), &status), 0);
        return status.st_ino;
    }
    // What stands there now is the installed file.
    void Record() {
        struct stat status {};
        ASSERT_EQ(lstat(path_.c_str(), &status), 0);
        target_.old = OldFile{S_ISLNK(status.st_mode), status.st_ino, status.st_size, status.st_mtim, {}};
    }
    void Rename() const { fs::rename(path_, path_ + ".bak"); }
    void Copy(const std::string& content) const { scratch_.Write("d/f", content); }

    Found NameFound(Phase undone) const { return LookAt(target_, undone).name; }
    Found BackupFound() const { return LookAt(target_, Phase::kCopying).backup; }

    // Takes the target back. Returns what was said, "! " before what is serious.
    std::vector<std::string> Said(Phase undone, bool* isDone = nullptr) {
        journal_.targets = {target_};
        std::vector<Remark> remarks;
        const bool isAllDone = Undo(journal_, undone, remarks);
        if (isDone != nullptr) *isDone = isAllDone;
        std::vector<std::string> said;
        for (const Remark& remark : remarks) {
            said.push_back((remark.isSerious ? "! " : "") + fs::path(remark.path).filename().string() + ": " +
                           remark.text);
        }
        return said;
    }
    std::vector<std::string> Names() const { return scratch_.List("d"); }

    const ScratchDirectory scratch_;
    const std::string path_ = scratch_.Path("d/f");
    JournalTarget target_;
    Journal journal_;
};

TEST_F(UndoFilesTest, KnowsTheOldFileByItsNumberUnderBothNames) {
    EXPECT_EQ(NameFound(Phase::kRenaming), Found::kOld);
    EXPECT_EQ(BackupFound(), Found::kNothing);
    Rename();
    EXPECT_EQ(NameFound(Phase::kRenaming), Found::kNothing);
    EXPECT_EQ(BackupFound(), Found::kOld);

    const auto other = scratch_.Write("other", "old");
    fs::rename(other, path_ + ".bak");
    EXPECT_EQ(BackupFound(), Found::kForeign) << "another file with the same content";
    target_.old.reset();
    EXPECT_EQ(BackupFound(), Found::kForeign) << "there was none to back up";
}

TEST_F(UndoFilesTest, KnowsTheOldFileByItsKindToo) {
    target_.old->isLink = true;
    EXPECT_EQ(NameFound(Phase::kCopying), Found::kForeign);

    fs::remove(path_);
    scratch_.Link("d/f", "nowhere");
    Record();
    EXPECT_EQ(NameFound(Phase::kCopying), Found::kOld);
    target_.old->isLink = false;
    EXPECT_EQ(NameFound(Phase::kCopying), Found::kForeign);
}

TEST_F(UndoFilesTest, NoticesThatTheOldFileWasWrittenTo) {
    const OldFile old = *target_.old;
    EXPECT_FALSE(LookAt(target_, Phase::kCopying).isOldChanged);
    ++target_.old->size;
    EXPECT_TRUE(LookAt(target_, Phase::kCopying).isOldChanged);
    target_.old = old;
    ++target_.old->modified.tv_sec;
    EXPECT_TRUE(LookAt(target_, Phase::kCopying).isOldChanged);
    target_.old = old;
    ++target_.old->modified.tv_nsec;
    EXPECT_TRUE(LookAt(target_, Phase::kCopying).isOldChanged);
    Rename();
    EXPECT_TRUE(LookAt(target_, Phase::kCopying).isOldChanged);
}

TEST_F(UndoFilesTest, KnowsACopyAndABeginningOfOneByTheContent) {
    Rename();
    for (const std::string& content : {std::string("the new file"), std::string(), std::string("the n"),
                                       std::string("the\0\0\0\0\0file", 12)}) {
        Copy(content);
        EXPECT_EQ(NameFound(Phase::kRenaming), Found::kForeign) << "there is no copy yet";
        EXPECT_EQ(NameFound(Phase::kCopying), Found::kCopy) << content;
        const bool isWhole = content == "the new file";
        EXPECT_EQ(NameFound(Phase::kInstalled), isWhole ? Found::kCopy : Found::kForeign)
            << "after they were verified, copies are whole";
    }
    for (const char* const content : {"the new file and more", "the old file", "x"}) {
        Copy(content);
        EXPECT_EQ(NameFound(Phase::kCopying), Found::kForeign) << content;
    }
    fs::remove(path_);
    fs::create_directory(path_);
    EXPECT_EQ(NameFound(Phase::kCopying), Found::kForeign);
}

TEST_F(UndoFilesTest, KnowsWholeCopiesThoughThePackageIsGone) {
    Rename();
    fs::remove(scratch_.Path("package"));
    Copy("the new file");
    EXPECT_EQ(NameFound(Phase::kCopying), Found::kCopy);
    Copy("the n");
    EXPECT_EQ(NameFound(Phase::kCopying), Found::kForeign) << "nobody can tell";
}

TEST_F(UndoFilesTest, KnowsNothingOfWhatCannotBeLookedAt) {
    Rename();
    Copy("the n");
    for (const std::string& name : {path_, path_ + ".bak"}) {
        const Replaced replaced(calls::lstat, [&name](const char* path, struct stat* status) {
            if (path != name) return calls::real::lstat(path, status);
            errno = EIO;
            return -1;
        });
        const TargetNow now = LookAt(target_, Phase::kCopying);
        EXPECT_EQ(name == path_ ? now.name : now.backup, Found::kUnknown);
        EXPECT_EQ(now.detail, name == path_ ? "Input/output error" : "NAME.bak: Input/output error");
    }
    for (const std::string& name : {path_, scratch_.Path("package")}) {
        const Replaced replaced(calls::open, [&name](const char* path, int flags, mode_t mode) {
            if (path != name) return calls::real::open(path, flags, mode);
            errno = EMFILE;
            return -1;
        });
        const TargetNow now = LookAt(target_, Phase::kCopying);
        EXPECT_EQ(now.name, Found::kUnknown) << name;
        EXPECT_THAT(now.detail, HasSubstr("Too many open files"));
    }
    const Replaced replaced(calls::read, [](int, void*, size_t) -> ssize_t {
        errno = EIO;
        return -1;
    });
    EXPECT_EQ(NameFound(Phase::kCopying), Found::kUnknown);
}

TEST_F(UndoFilesTest, TakesBelowAFileForMissing) {
    target_.path = path_ + "/below";
    EXPECT_EQ(NameFound(Phase::kCopying), Found::kNothing);
    EXPECT_EQ(BackupFound(), Found::kNothing);
}

TEST_F(UndoFilesTest, PutsTheOldFileBackWhereverTheUpgradeWasCutOff) {
    const ino_t inode = InodeOf("d/f");
    EXPECT_THAT(Said(Phase::kRenaming), IsEmpty()) << "not begun";
    Rename();
    EXPECT_THAT(Said(Phase::kRenaming), IsEmpty());
    EXPECT_EQ(InodeOf("d/f"), inode);
    for (const char* const content : {"", "the n", "the new file"}) {
        Rename();
        Copy(content);
        EXPECT_THAT(Said(Phase::kCopying), IsEmpty());
        EXPECT_EQ(InodeOf("d/f"), inode);
        EXPECT_THAT(Names(), ElementsAre("f"));
    }
    EXPECT_THAT(Said(Phase::kCopying), IsEmpty()) << "done already";
    EXPECT_EQ(scratch_.Read("d/f"), "old");
}

TEST_F(UndoFilesTest, RemovesACopyThatHadNoPredecessorAndTheDirectoriesMadeForIt) {
    target_.path = scratch_.Path("d/new/sub/f");
    target_.old.reset();
    journal_.newDirectories = {scratch_.Path("d/new"), scratch_.Path("d/new/sub")};
    scratch_.Write("d/new/sub/f", "the new");

    EXPECT_THAT(Said(Phase::kCopying), IsEmpty());
    EXPECT_THAT(Names(), ElementsAre("f"));
    bool isDone = false;
    EXPECT_THAT(Said(Phase::kCopying, &isDone), IsEmpty());
    EXPECT_TRUE(isDone);
}

TEST_F(UndoFilesTest, LeavesDirectoriesAloneBeforeTheCopiesHaveBegun) {
    journal_.newDirectories = {scratch_.Path("d/new")};
    scratch_.MakeDirectory("d/new");

    EXPECT_THAT(Said(Phase::kRenaming), IsEmpty());

    EXPECT_TRUE(scratch_.Has("d/new"));
}

TEST_F(UndoFilesTest, LeavesADirectoryThatOthersUseNow) {
    journal_.newDirectories = {scratch_.Path("d/new")};
    scratch_.Write("d/new/foreign", "");
    bool isDone = false;

    EXPECT_THAT(Said(Phase::kCopying, &isDone),
                ElementsAre("new: the upgrade made this directory; it stays, since it is not empty"));

    EXPECT_TRUE(isDone);
    EXPECT_TRUE(scratch_.Has("d/new/foreign"));

    const Replaced replaced(calls::rmdir, [](const char*) {
        errno = EEXIST;
        return -1;
    });
    EXPECT_THAT(Said(Phase::kCopying), ElementsAre(HasSubstr("it stays"))) << "other file systems say so";
}

TEST_F(UndoFilesTest, SaysThatADirectoryCannotBeRemoved) {
    journal_.newDirectories = {scratch_.MakeDirectory("d/new"), scratch_.Path("d/gone")};
    const Replaced replaced(calls::rmdir, [this](const char* path) {
        if (path != scratch_.Path("d/new")) return calls::real::rmdir(path);
        errno = EBUSY;
        return -1;
    });
    bool isDone = true;

    EXPECT_THAT(Said(Phase::kCopying, &isDone),
                ElementsAre("! new: can't be removed: Device or resource busy"));

    EXPECT_FALSE(isDone);
}

TEST_F(UndoFilesTest, KeepsWhatAServiceHasMadeOfItsNewFile) {
    scratch_.Write("d/f.changed", "from an earlier upgrade");
    Rename();
    Copy("rewritten");

    EXPECT_THAT(Said(Phase::kInstalled),
                ElementsAre("f: not the package's file any more; it is kept as " + path_ + ".changed.1"));

    EXPECT_EQ(scratch_.Read("d/f"), "old");
    EXPECT_EQ(scratch_.Read("d/f.changed"), "from an earlier upgrade");
    EXPECT_EQ(scratch_.Read("d/f.changed.1"), "rewritten");
    EXPECT_THAT(Names(), ElementsAre("f", "f.changed", "f.changed.1"));
}

TEST_F(UndoFilesTest, SetsADirectoryAsideThatStandsInTheWay) {
    Rename();
    scratch_.Write("d/f/inside", "x");

    EXPECT_THAT(Said(Phase::kCopying),
                ElementsAre("! f: not the package's file any more; it is kept as " + path_ + ".changed"));

    EXPECT_EQ(scratch_.Read("d/f"), "old");
    EXPECT_EQ(scratch_.Read("d/f.changed/inside"), "x");
}

TEST_F(UndoFilesTest, SetsAsideWithoutOverwritingWhereTheFileSystemCannotDoItInOneStep) {
    const Replaced replaced(calls::renameat2, [](int, const char*, int, const char*, unsigned) {
        errno = EINVAL;
        return -1;
    });
    scratch_.Write("d/f.changed", "kept");
    Rename();
    Copy("rewritten");

    (void)Said(Phase::kInstalled);

    EXPECT_EQ(scratch_.Read("d/f"), "old");
    EXPECT_EQ(scratch_.Read("d/f.changed"), "kept");
    EXPECT_EQ(scratch_.Read("d/f.changed.1"), "rewritten");
}

TEST_F(UndoFilesTest, GivesUpWhenAllNamesAreTaken) {
    Rename();
    Copy("rewritten");
    int tries = 0;
    const Replaced replaced(calls::renameat2, [&tries](int, const char*, int, const char*, unsigned) {
        ++tries;
        errno = EEXIST;
        return -1;
    });
    bool isDone = true;

    EXPECT_THAT(Said(Phase::kInstalled, &isDone),
                ElementsAre("f: not the package's file any more", "! f: can't be put back: File exists"));

    EXPECT_EQ(tries, 1000);
    EXPECT_FALSE(isDone);
    EXPECT_THAT(Names(), ElementsAre("f", "f.bak"));
}

TEST_F(UndoFilesTest, OverwritesNothingThatAppearsWhileItRestores) {
    Rename();
    const Replaced replaced(calls::renameat2,
                            [this](int at, const char* from, int to, const char* path, unsigned flags) {
                                Copy("just made");
                                return calls::real::renameat2(at, from, to, path, flags);
                            });
    bool isDone = true;

    EXPECT_THAT(Said(Phase::kCopying, &isDone), ElementsAre("! f: can't be put back: File exists"));

    EXPECT_FALSE(isDone);
    EXPECT_EQ(scratch_.Read("d/f"), "just made");
    EXPECT_EQ(scratch_.Read("d/f.bak"), "old");
}

TEST_F(UndoFilesTest, SaysWhatCannotBeMovedAndIsNotDone) {
    const auto fails = [](auto...) {
        errno = EROFS;
        return -1;
    };
    const std::string said = "! f: can't be put back: Read-only file system";
    Rename();
    bool isDone = true;
    {
        const Replaced replaced(calls::renameat2, fails);
        EXPECT_THAT(Said(Phase::kCopying, &isDone), ElementsAre(said));
        EXPECT_FALSE(isDone);
    }
    Copy("the new file");
    {
        const Replaced replaced(calls::rename, fails);
        EXPECT_THAT(Said(Phase::kCopying, &isDone), ElementsAre(said));
        EXPECT_FALSE(isDone);
    }
    target_.old.reset();
    fs::remove(scratch_.Path("d/f.bak"));
    {
        const Replaced replaced(calls::unlink, fails);
        EXPECT_THAT(Said(Phase::kCopying, &isDone), ElementsAre(said));
        EXPECT_FALSE(isDone);
    }
}

TEST_F(UndoFilesTest, PostponesAFileThatCannotBeReadAndLeavesItAsItIs) {
    Rename();
    Copy("the n");
    bool isDone = true;
    {
        const Replaced replaced(calls::read, [](int, void*, size_t) -> ssize_t {
            errno = EIO;
            return -1;
        });
        EXPECT_THAT(Said(Phase::kCopying, &isDone),
                    ElementsAre("! f: can't be looked at: Input/output error"));
    }

    EXPECT_FALSE(isDone);
    EXPECT_THAT(Names(), ElementsAre("f", "f.bak"));
    EXPECT_THAT(Said(Phase::kCopying, &isDone), IsEmpty());
    EXPECT_TRUE(isDone);
}

TEST_F(UndoFilesTest, LeavesEverythingAloneInADirectoryThatIsNotTheOneThatWasUpgraded) {
    target_.path = scratch_.Path("d/new/f");
    target_.old.reset();
    journal_.newDirectories = {scratch_.Path("d/new")};
    scratch_.Write("d/new/f", "the new file");
    fs::rename(scratch_.Path("d"), scratch_.Path("unmounted"));
    scratch_.Write("d/new/f", "of another file system");
    scratch_.MakeDirectory("d/new");
    bool isDone = true;

    EXPECT_THAT(Said(Phase::kCopying, &isDone),
                ElementsAre("! d: not the directory that was upgraded: is it mounted?"));

    EXPECT_FALSE(isDone);
    EXPECT_EQ(scratch_.Read("d/new/f"), "of another file system");
    fs::remove_all(scratch_.Path("d"));
    EXPECT_THAT(Said(Phase::kCopying, &isDone), ElementsAre(HasSubstr("is it mounted?"))) << "missing";
    EXPECT_FALSE(isDone);

    fs::rename(scratch_.Path("unmounted"), scratch_.Path("d"));
    EXPECT_THAT(Said(Phase::kCopying, &isDone), IsEmpty());
    EXPECT_TRUE(isDone);
    EXPECT_THAT(Names(), ElementsAre("f"));
}

TEST_F(UndoFilesTest, NamesADirectoryOnce) {
    journal_.oldDirectories = {{scratch_.Path("gone"), 1}, {scratch_.Path("gone"), 1}};

    EXPECT_THAT(Said(Phase::kCopying), testing::SizeIs(1));
}

TEST_F(UndoFilesTest, SyncsEveryDirectoryThoughNothingWasLeftToDo) {
    target_.path = scratch_.Path("d/f");
    journal_.newDirectories = {scratch_.Path("new/sub"), scratch_.Path("gone/sub")};
    scratch_.MakeDirectory("new");
    std::vector<std::string> synced;
    const Replaced replaced(calls::fsync, [&synced](int fd) {
        synced.push_back(fs::read_symlink("/proc/self/fd/" + std::to_string(fd)).filename());
        return 0;
    });

    EXPECT_THAT(Said(Phase::kCopying), IsEmpty());

    EXPECT_THAT(synced, ElementsAre("d", "new"));
}

TEST_F(UndoFilesTest, IsNotDoneWhenADirectoryCannotBeSynced) {
    Rename();
    const Replaced replaced(calls::fsync, [](int) {
        errno = EIO;
        return -1;
    });
    bool isDone = true;

    EXPECT_THAT(Said(Phase::kRenaming, &isDone),
                ElementsAre("! d: can't be synced: " + scratch_.Path("d") + ": Input/output error"));

    EXPECT_FALSE(isDone);
    EXPECT_THAT(Names(), ElementsAre("f"));
}

TEST_F(UndoFilesTest, KeepsWhatAServiceHasMadeOfAFileThatHadNoPredecessor) {
    target_.old.reset();
    Copy("rewritten");

    EXPECT_THAT(Said(Phase::kInstalled), ElementsAre(HasSubstr("it is kept as " + path_ + ".changed")));

    EXPECT_THAT(Names(), ElementsAre("f.changed"));
    EXPECT_EQ(scratch_.Read("d/f.changed"), "rewritten");
}

TEST_F(UndoFilesTest, TriesNoOtherNameWhenAFileCannotBeSetAsideAndSaysWhy) {
    Rename();
    Copy("rewritten");
    int tries = 0;
    const Replaced replaced(calls::renameat2, [&tries](int, const char*, int, const char*, unsigned) {
        ++tries;
        errno = EROFS;
        return -1;
    });

    EXPECT_THAT(Said(Phase::kInstalled), Contains("! f: can't be put back: Read-only file system"));
    EXPECT_THAT(Names(), ElementsAre("f", "f.bak"));
    EXPECT_EQ(tries, 1) << "another name would be of no use";
}

}  // namespace
