#include "FileList.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <string>
#include <vector>

#include "Package.h"
#include "RecordedOpens.h"
#include "SystemCalls.h"

namespace {

namespace fs = std::filesystem;

using testing::ElementsAre;

class FileListTest : public testing::Test {
protected:
    static std::vector<std::string> EntriesOf(const FileList& list) {
        std::vector<std::string> texts;
        for (const Entry& entry : list.entries()) {
            texts.push_back(list.ListOf(entry).section + "." + list.KeyOf(entry) + ": " + entry.text);
        }
        return texts;
    }

    const Package package_;
};

TEST_F(FileListTest, HasListsKeysAndEntriesInTheOrderOfTheTool) {
    package_.WriteList("[Server]\nb=@/b\nB=@/B/\n[b]\nx=1\n[B]\nk2=2,,3 \nK=4\nempty=\n");
    const FileList list(package_.ListPath());

    EXPECT_EQ(list.installType(), "Server");
    ASSERT_EQ(list.lists().size(), 2u);
    EXPECT_EQ(list.lists()[0].directory, package_.InstalledPath("B/"));
    EXPECT_EQ(list.lists()[1].directory, package_.InstalledPath("b/"));
    EXPECT_EQ(list.lists()[0].keys.size(), 3u);
    EXPECT_THAT(EntriesOf(list), ElementsAre("B.K: 4", "B.k2: 2", "B.k2: ", "B.k2: 3", "b.x: 1"));
}

TEST_F(FileListTest, KnowsTheLengthOfValuesThatTheToolDoesNotRead) {
    package_.WriteList("[Server]\nBin=/" + std::string(400, 'd') + "\n[Bin]\nf=" + std::string(70000, 'x') +
                       "\ng=" + std::string(4095, 'y') + "\n");
    const FileList list(package_.ListPath());

    EXPECT_EQ(list.lists()[0].directory, "/") << "what the tool makes of it";
    EXPECT_EQ(list.lists()[0].directoryValueLength, 401u);
    ASSERT_EQ(list.SkippedKeys().size(), 1u);
    EXPECT_EQ(list.SkippedKeys()[0].key.name, "f");
    EXPECT_EQ(list.SkippedKeys()[0].key.valueLength, 70000u);
    EXPECT_EQ(list.entries().size(), 1u);
}

TEST_F(FileListTest, BuildsThePathsOfTheTool) {
    package_.WriteEntries("lib\\sub/one.so");
    const FileList list(package_.ListPath());
    const Entry& entry = list.entries().at(0);

    EXPECT_EQ(list.SourceOf(entry), package_.SourcePath("lib\\sub/one.so"));
    EXPECT_EQ(list.TargetOf(entry), package_.InstalledPath("one.so"));
    EXPECT_EQ(list.BackupOf(entry), package_.InstalledPath("one.so.bak"));
}

TEST_F(FileListTest, TakesOneFileForOneTargetHoweverItsDirectoryIsSpelt) {
    package_.Install("x", "");
    fs::create_symlink("installed", package_.scratch().Path("link"));
    package_.WriteList("[Server]\nA=@\nB=@/../installed\nC=@/../link\nD=@/d\nE=@/e/../d\n" +
                       std::string("[A]\nf=x,y\n[B]\nf=x\n[C]\nf=a/x\n[D]\nf=x\n[E]\nf=x\n"));

    std::vector<std::vector<std::size_t>> targets;
    for (const Target& target : FileList(package_.ListPath()).Targets()) targets.push_back(target.entries);

    EXPECT_THAT(targets, ElementsAre(ElementsAre(0u, 2u, 3u), ElementsAre(1u), ElementsAre(4u, 5u)));
}

TEST_F(FileListTest, EntriesWithoutAFileNameHaveNoTarget) {
    package_.WriteEntries("a/,,.,b/..,c\\,x");
    const FileList list(package_.ListPath());

    EXPECT_EQ(list.entries().size(), 6u);
    ASSERT_EQ(list.Targets().size(), 1u);
    EXPECT_THAT(list.Targets()[0].entries, ElementsAre(5u));
}

TEST_F(FileListTest, HasNothingWithoutADirectoryList) {
    package_.WriteRawList("[Server]\nBin=@\n");

    EXPECT_TRUE(FileList(package_.ListPath()).lists().empty());
}

TEST_F(FileListTest, SaysWhyAListCannotBeRead) {
    package_.WriteEntries("x");
    EXPECT_EQ(FileList::WhyUnreadable(package_.ListPath()), std::nullopt);
    EXPECT_EQ(FileList::WhyUnreadable(package_.ListPath() + ".missing"), "No such file or directory");
    EXPECT_EQ(FileList::WhyUnreadable(package_.scratch().Path()), "Is a directory");
    EXPECT_EQ(FileList::WhyUnreadable("/dev/null"), "not a regular file");
}

TEST_F(FileListTest, OpensAListSoThatAPipeInItsPlaceHoldsNothingUp) {
    const std::string list = package_.WriteEntries("tool");
    const RecordedOpens opens;

    EXPECT_EQ(FileList::WhyUnreadable(list), std::nullopt);

    EXPECT_EQ(opens.FlagsOf(list), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
}

TEST_F(FileListTest, TakesTheSameInodeNumberOnTwoFileSystemsForTwoDirectories) {
    package_.WriteList("[Server]\nA=@/a\nB=@/b\n[A]\nf=tool\n[B]\nf=tool\n");
    package_.Install("a/tool", "");
    package_.Install("b/tool", "");
    const auto targets = [this](dev_t step) {
        const Replaced replaced(calls::lstat, [step](const char* path, struct stat* status) {
            const int result = calls::real::lstat(path, status);
            status->st_ino = 1;
            status->st_dev = std::string(path).find("/b") != std::string::npos ? 1 + step : 1;
            return result;
        });
        return FileList(package_.ListPath()).Targets().size();
    };

    EXPECT_EQ(targets(1), 2u);
    EXPECT_EQ(targets(0), 1u);
}

TEST_F(FileListTest, SaysThatTheStatusOfAListCannotBeTold) {
    package_.WriteEntries("x");
    const Replaced replaced(calls::fstat, [](int, struct stat*) {
        errno = EIO;
        return -1;
    });

    EXPECT_EQ(FileList::WhyUnreadable(package_.ListPath()), "Input/output error");
}

TEST_F(FileListTest, HasNothingWithoutAFile) {
    const FileList list(package_.ListPath() + ".missing");

    EXPECT_TRUE(list.lists().empty());
    EXPECT_EQ(list.installType(), "");
    EXPECT_EQ(list.installTypeLength(), 0u);
}

TEST_F(FileListTest, IsReliedOnOnlyWhenItIsReadTwiceWithTheSameResult) {
    package_.WriteList("[Server]\nBin=@\nLib=@/lib\n[Bin]\nf=one,two\ng=three\n[Lib]\nf=four\n");
    const FileList right(package_.ListPath());
    EXPECT_EQ(right.trouble(), std::nullopt);

    // The readers take a value that can't be read for one that is missing.
    int troubles = 0;
    bool isFailed = true;
    for (int failing = 1; isFailed; ++failing) {
        isFailed = false;
        const Replaced replaced(calls::stat, [&, looks = 0](const char* path, struct stat* status) mutable {
            if (path != package_.ListPath() || ++looks != failing) return calls::real::stat(path, status);
            isFailed = true;
            errno = EMFILE;
            return -1;
        });
        const FileList list(package_.ListPath());
        SCOPED_TRACE(failing);
        if (list.trouble()) {
            ++troubles;
            EXPECT_EQ(*list.trouble(), "it can't be read twice with the same result");
        } else {
            EXPECT_EQ(list.installType(), "Server");
            EXPECT_EQ(list.lists(), right.lists());
            EXPECT_EQ(list.entries(), right.entries());
        }
    }
    EXPECT_GT(troubles, 10);
}

TEST_F(FileListTest, KnowsEveryDifferenceOfKeysAndEntries) {
    const ListKey key{"name", 1};
    EXPECT_FALSE(key == (ListKey{"other", 1}));
    EXPECT_FALSE(key == (ListKey{"name", 2}));
    const Entry entry{1, 2, "text"};
    EXPECT_FALSE(entry == (Entry{0, 2, "text"}));
    EXPECT_FALSE(entry == (Entry{1, 0, "text"}));
    EXPECT_FALSE(entry == (Entry{1, 2, "other"}));
}

}  // namespace
