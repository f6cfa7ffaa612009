#include "Receipt.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <vector>

#include "ScratchDirectory.h"
#include "SystemCalls.h"
#include "Targets.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

const std::string kFirstLine = "vfilelist-receipt 1\n";

std::string WhyNot(const std::string& text) {
    Receipt receipt;
    return Parse(text, receipt).value_or("");
}

Receipt Sample() {
    Receipt receipt;
    receipt.history = {{"1.0", "/a b/list", 5, 2}, {"", "/c", 6, 1}};
    receipt.files["/opt/a b"] = {7, DigestOf("a"), {04755, 1, 2, {{"user.a", ""}, {"user.b", "\n"}}}};
    receipt.files["/opt/c"] = {0, DigestOf(""), {0, 0, 0, {}}};
    return receipt;
}

TEST(ReceiptTest, IsReadAsItWasPrinted) {
    Receipt read;
    read.history = {{"from before", "", 0, 0}};
    ASSERT_EQ(Parse(Print(Sample()), read), std::nullopt);

    EXPECT_EQ(Print(read), Print(Sample()));
    EXPECT_EQ(read.history.at(0).release, "1.0");
    EXPECT_EQ(read.history.at(1).files, 1U);
    EXPECT_EQ(read.files.at("/opt/a b").attributes, Sample().files.at("/opt/a b").attributes);
    EXPECT_EQ(Print(Sample()), kFirstLine +
                                   "upgrade 1.0 /a%20b/list 5 2\nupgrade % /c 6 1\nfile /opt/a%20b 7 " +
                                   HexOf(DigestOf("a")) +
                                   " 2541 1 2\nattribute user.a %\nattribute user.b %0a\nfile /opt/c 0 " +
                                   HexOf(DigestOf("")) + " 0 0 0\n");
}

TEST(ReceiptTest, OfAnotherFormIsRefused) {
    const std::string file = "file /a 1 " + HexOf(DigestOf("a")) + " 420 0 0\n";
    EXPECT_EQ(WhyNot(kFirstLine + file + "attribute user.a b\n"), "");
    EXPECT_EQ(WhyNot(""), "it is no file of vfilelist, or one of another version");
    EXPECT_EQ(WhyNot("vfilelist-receipt 2\n"), "it is no file of vfilelist, or one of another version");
    for (const std::string& lines : {std::string("attribute user.a b\n"), std::string("other\n"),
                                     std::string("upgrade 1 /a 1\n"), std::string("upgrade 1 /a 1 2 3\n"),
                                     file + "file /b x 0 0 0 0\n", file.substr(0, file.size() - 1)}) {
        EXPECT_EQ(WhyNot(kFirstLine + lines), "it is cut off, or was changed") << lines;
    }
}

TEST(ReceiptTest, TheReleaseIsTheLastThatWasNamed) {
    EXPECT_EQ(Receipt().Release(), "");
    EXPECT_EQ(Sample().Release(), "1.0");
    Receipt receipt = Sample();
    receipt.history.push_back({"1.1", "/d", 7, 1});
    EXPECT_EQ(receipt.Release(), "1.1");
}

class ReceiptFilesTest : public testing::Test {
protected:
    std::string Write(const std::string& name, const std::string& content, mode_t mode) const {
        const std::string path = scratch_.Write(name, content);
        EXPECT_EQ(chmod(path.c_str(), mode), 0);
        return path;
    }
    static Journal JournalOf(const std::vector<std::string>& paths, const std::string& content,
                             std::time_t begun) {
        Journal journal;
        journal.release = "2.0";
        journal.fileList = "/package/filelist.ini";
        journal.begun = begun;
        for (const std::string& path : paths) {
            const auto size = static_cast<off_t>(content.size());
            journal.targets.push_back({path, {"/source", size, 0600, DigestOf(content)}, std::nullopt});
        }
        return journal;
    }
    static InstalledFile InstalledAs(const std::string& path) {
        Receipt receipt;
        Add(JournalOf({path}, "content", 1), receipt);
        return receipt.files.at(path);
    }

    const ScratchDirectory scratch_;
};

TEST_F(ReceiptFilesTest, HasTheContentThatWasInstalled) {
    const std::string path = Write("file", "what a service wrote since", 0751);
    Receipt receipt;
    Add(JournalOf({path}, "content", 5), receipt);

    const InstalledFile& file = receipt.files.at(path);
    EXPECT_EQ(file.size, 7);
    EXPECT_EQ(file.digest, DigestOf("content"));
    EXPECT_EQ(file.attributes.mode, 0751U);
    EXPECT_EQ(file.attributes.user, geteuid());
    ASSERT_EQ(receipt.history.size(), 1U);
    EXPECT_EQ(receipt.history[0].release, "2.0");
    EXPECT_EQ(receipt.history[0].fileList, "/package/filelist.ini");
    EXPECT_EQ(receipt.history[0].begun, 5);
    EXPECT_EQ(receipt.history[0].files, 1U);
}

TEST_F(ReceiptFilesTest, HasTheModesAndOwnersThatWereInstalledWhateverWasChangedSince) {
    const std::string path = Write("file", "content", 04777);
    Journal journal = JournalOf({path}, "content", 5);
    Receipt receipt;
    Add(journal, receipt);
    EXPECT_EQ(receipt.files.at(path).attributes.mode, 04777U) << "nobody has said what it shall be";

    ChangeTarget(journal.targets, 0, [](JournalTarget& target) { target.package.owner = Owner{1, 2}; });
    Add(journal, receipt);
    EXPECT_EQ(receipt.files.at(path).attributes, (Attributes{0600, 1, 2, {}}));
    ChangeTarget(journal.targets, 0, [](JournalTarget& target) {
        target.old = OldFile{false, 1, 1, {}, {0750, 3, 4, {{"user.a", "b"}}}};
    });
    Add(journal, receipt);
    EXPECT_EQ(receipt.files.at(path).attributes, (Attributes{0750, 3, 4, {{"user.a", "b"}}}));
}

TEST_F(ReceiptFilesTest, KnowsAFileHoweverItsDirectoryIsSpelt) {
    const std::string path = Write("directory/file", "content", 0644);
    scratch_.Link("link", "directory");
    Receipt receipt;
    Add(JournalOf({path}, "content", 5), receipt);
    Add(JournalOf({scratch_.Path("link//./file")}, "newer", 6), receipt);
    ASSERT_EQ(receipt.files.size(), 1U);
    EXPECT_EQ(receipt.files.at(path).digest, DigestOf("newer"));
    EXPECT_EQ(receipt.Find(scratch_.Path("link/../directory//file")), &receipt.files.at(path));
    EXPECT_EQ(receipt.Find(scratch_.Path("directory/other")), nullptr);

    Add(JournalOf({"/no/such//directory/file"}, "content", 7), receipt);
    EXPECT_NE(receipt.Find("/no/such//directory/file"), nullptr);
}

TEST_F(ReceiptFilesTest, KeepsOtherFilesAndLeavesOutThoseThatAreGone) {
    const std::string kept = Write("kept", "kept", 0644);
    const std::string again = Write("again", "again", 0644);
    const std::string gone = Write("directory/gone", "gone", 0644);
    Receipt receipt;
    Add(JournalOf({kept, again, gone}, "first", 5), receipt);
    const std::string below = Write("other/gone", "gone", 0644);
    Add(JournalOf({below}, "first", 5), receipt);
    ASSERT_EQ(unlink(gone.c_str()), 0);
    ASSERT_EQ(rmdir(scratch_.Path("directory").c_str()), 0);
    ASSERT_EQ(unlink(below.c_str()), 0);
    ASSERT_EQ(rmdir(scratch_.Path("other").c_str()), 0);
    scratch_.Write("other", "a file where its directory was");
    Add(JournalOf({again}, "second", 6), receipt);

    EXPECT_EQ(receipt.files.size(), 2U);
    EXPECT_EQ(receipt.files.at(kept).digest, DigestOf("first"));
    EXPECT_EQ(receipt.files.at(again).digest, DigestOf("second"));
    EXPECT_EQ(receipt.history.size(), 2U);
}

TEST_F(ReceiptFilesTest, KeepsFilesThatCanNotBeLookedAt) {
    const std::string path = Write("file", "content", 0644);
    Receipt receipt;
    Add(JournalOf({path}, "content", 5), receipt);
    const Replaced replaced(calls::lstat, [](const char*, struct stat*) {
        errno = EIO;
        return -1;
    });
    Add(JournalOf({}, "", 6), receipt);

    EXPECT_EQ(receipt.files.size(), 1U);
}

TEST_F(ReceiptFilesTest, TheSameUpgradeIsAddedOnce) {
    const std::string path = Write("file", "content", 0644);
    Receipt receipt;
    Add(JournalOf({path}, "content", 5), receipt);
    Add(JournalOf({path}, "content", 5), receipt);
    EXPECT_EQ(receipt.history.size(), 1U);

    Journal other = JournalOf({path}, "content", 5);
    other.fileList = "/another/list";
    Add(other, receipt);
    EXPECT_EQ(receipt.history.size(), 2U);
    other.release = "2.1";
    Add(other, receipt);
    Add(JournalOf({path}, "content", 6), receipt);
    EXPECT_EQ(receipt.history.size(), 4U);
}

TEST_F(ReceiptFilesTest, AFileThatIsMissingWhenTheUpgradeIsClosedCountsAsChanged) {
    const std::string path = scratch_.Path("file");
    const InstalledFile installed = InstalledAs(path);
    EXPECT_EQ(DifferenceOf(path, installed), "No such file or directory");
    Write("file", "content", 0644);
    EXPECT_EQ(DifferenceOf(path, installed).rfind("its mode and owner are 0644 ", 0), 0U);
}

TEST_F(ReceiptFilesTest, TellsWhatOfAFileHasChanged) {
    const std::string path = Write("file", "content", 0644);
    const InstalledFile installed = InstalledAs(path);
    const std::string owner = std::to_string(geteuid()) + ":" + std::to_string(getegid());
    EXPECT_EQ(DifferenceOf(path, installed), "");

    Write("file", "contend", 0644);
    EXPECT_EQ(DifferenceOf(path, installed), "its content has changed");
    Write("file", "content", 0600);
    EXPECT_EQ(DifferenceOf(path, installed),
              "its mode and owner are 0600 " + owner + ", and were 0644 " + owner);
    Write("file", "content", 0644);
    ASSERT_EQ(setxattr(path.c_str(), "user.note", "x", 1, 0), 0);
    EXPECT_EQ(DifferenceOf(path, installed), "its extended attributes have changed");
    ASSERT_EQ(removexattr(path.c_str(), "user.note"), 0);
    EXPECT_EQ(DifferenceOf(path, installed), "");

    ASSERT_EQ(rename(path.c_str(), scratch_.Path("elsewhere").c_str()), 0);
    scratch_.Link("file", "elsewhere");
    EXPECT_EQ(DifferenceOf(path, installed), "it is no regular file any more");
    ASSERT_EQ(unlink(path.c_str()), 0);
    scratch_.MakeDirectory("file");
    EXPECT_EQ(DifferenceOf(path, installed), "it is no regular file any more");
    ASSERT_EQ(rmdir(path.c_str()), 0);
    ASSERT_EQ(mkfifo(path.c_str(), 0644), 0);
    EXPECT_EQ(DifferenceOf(path, installed), "it is no regular file any more") << "and is not opened";
}

TEST_F(ReceiptFilesTest, TellsWhenAttributesCanNotBeRead) {
    const std::string path = Write("file", "content", 0644);
    const InstalledFile installed = InstalledAs(path);
    const Replaced replaced(calls::fstat, [](int, struct stat*) {
        errno = EIO;
        return -1;
    });
    EXPECT_EQ(DifferenceOf(path, installed), "Input/output error");
}

}  // namespace
