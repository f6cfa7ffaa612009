#include "Journal.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include "Targets.h"

namespace {

const std::string kFirstLine = "vfilelist-journal 1\n";
const char kNone[] = "it is no file of vfilelist, or one of another version";
const char kOtherForm[] = "it is cut off, or was changed";

std::string EveryByte() {
    std::string bytes;
    for (int byte = 0; byte < 256; ++byte) bytes += static_cast<char>(byte);
    return bytes;
}

// With the largest and the smallest of what each member may hold.
Journal FullJournal() {
    Journal journal;
    journal.fileList = "/package/file list.ini";
    journal.fileListDigest = DigestOf("list");
    journal.installType = EveryByte();
    journal.begun = std::numeric_limits<std::time_t>::max();
    journal.oldDirectories = {{"/opt/" + EveryByte(), std::numeric_limits<ino_t>::max()}, {"", 0}};
    journal.release = "2.0 beta";
    journal.newDirectories = {"/opt/new", "/opt/new/100%", "%", " "};
    journal.directoryModes = {{"/opt/new", 02755, {7, 8}}};

    JournalTarget known{"/opt/" + EveryByte(),
                        {EveryByte(), std::numeric_limits<off_t>::max(), 07777, DigestOf("new")},
                        OldFile{}};
    known.old->inode = std::numeric_limits<ino_t>::max();
    known.old->size = std::numeric_limits<off_t>::max();
    known.old->modified = {std::numeric_limits<std::time_t>::min(), 999999999};
    known.old->attributes = {07777,
                             std::numeric_limits<uid_t>::max(),
                             std::numeric_limits<gid_t>::max(),
                             {{"user.empty", ""}, {"user." + EveryByte(), EveryByte()}}};
    JournalTarget link{"/opt/link", {"/package/Common/link", 0, 0, DigestOf("")}, OldFile{}};
    link.old->isLink = true;
    journal.targets = {
        known, link, {"/opt/fresh", {"", 1, 0644, DigestOf("fresh"), Owner{5, 6}}, std::nullopt}};
    return journal;
}

std::string Print(const Journal& journal) {
    std::string head;
    std::string text;
    for (const std::string_view block : Print(journal, head)) text += block;
    return text;
}

// In blocks of a few bytes.
Trouble Parse(std::string_view text, Journal& journal) {
    constexpr std::size_t kBlock = 7;
    JournalParser parser;
    for (std::size_t begin = 0; begin < text.size(); begin += kBlock) parser.Add(text.substr(begin, kBlock));
    return parser.Finish(journal);
}

std::string TroubleOf(const std::string& text) {
    Journal journal;
    return Parse(text, journal).value_or("");
}

TEST(JournalTest, IsReadAsItWasPrinted) {
    const Journal written = FullJournal();
    Journal read;
    read.newDirectories = {"from before"};
    ASSERT_EQ(Parse(Print(written), read), std::nullopt);

    EXPECT_EQ(read.fileList, written.fileList);
    EXPECT_EQ(read.fileListDigest, written.fileListDigest);
    EXPECT_EQ(read.installType, written.installType);
    EXPECT_EQ(read.begun, written.begun);
    ASSERT_EQ(read.oldDirectories.size(), 2u);
    for (std::size_t i = 0; i < 2; ++i) {
        EXPECT_EQ(read.oldDirectories[i].path, written.oldDirectories[i].path);
        EXPECT_EQ(read.oldDirectories[i].inode, written.oldDirectories[i].inode);
    }
    EXPECT_EQ(read.newDirectories, written.newDirectories);
    EXPECT_EQ(read.release, "2.0 beta");
    ASSERT_EQ(read.directoryModes.size(), 1u);
    EXPECT_EQ(read.directoryModes[0].path, "/opt/new");
    EXPECT_EQ(read.directoryModes[0].mode, 02755u);
    EXPECT_EQ(read.directoryModes[0].owner.user, 7u);
    EXPECT_EQ(read.directoryModes[0].owner.group, 8u);
    ASSERT_EQ(read.targets.size(), written.targets.size());
    const std::vector<JournalTarget> expected = AllOf(written.targets);
    const std::vector<JournalTarget> found = AllOf(read.targets);
    for (std::size_t i = 0; i < found.size(); ++i) ExpectSame(found[i], expected[i]);
    EXPECT_EQ(Print(read), Print(written));
}

TEST(JournalTest, OfNothingIsAJournalToo) {
    EXPECT_EQ(TroubleOf(Print(Journal())), "");
}

TEST(JournalTest, IsPlainTextWhateverTheFilesAreCalled) {
    Journal journal;
    journal.fileList = "/a b/100%\n";
    journal.fileListDigest = DigestOf("");
    journal.begun = 5;
    const std::string digest = HexOf(DigestOf(""));

    EXPECT_EQ(Print(journal), kFirstLine + "filelist /a%20b/100%25%0a " + digest + " % 5\n");
    for (const char character : Print(FullJournal()))
        EXPECT_TRUE(character == '\n' || (character >= ' ' && character <= '~'));
}

TEST(JournalTest, IsPrintedInBlocks) {
    Journal journal;
    for (int i = 0; i < 10000; ++i) journal.targets.push_back({});
    std::string head;
    const std::vector<std::string_view> blocks = Print(journal, head);
    EXPECT_GT(blocks.size(), 2u);
    for (const std::string_view block : blocks) EXPECT_LT(block.size(), 66000u);
}

TEST(JournalTest, ThatWasCutOffInALineIsNone) {
    const std::string text = Print(FullJournal());
    for (std::size_t length = 0; length < text.size(); ++length) {
        const bool isLine = length > 0 && text[length - 1] == '\n';
        const char* const trouble = length < kFirstLine.size() ? kNone : isLine ? "" : kOtherForm;
        EXPECT_EQ(TroubleOf(text.substr(0, length)), trouble) << length;
    }
    EXPECT_EQ(TroubleOf(text + "\n"), kOtherForm);
    EXPECT_EQ(TroubleOf(text + text), kOtherForm);
}

TEST(JournalTest, OfAnotherVersionIsRefused) {
    EXPECT_EQ(TroubleOf("vfilelist-journal 2\n"), kNone);
    EXPECT_EQ(TroubleOf("vfilelist-journal 2\n" + kFirstLine), kOtherForm);
}

TEST(JournalTest, OfAnotherFormIsRefused) {
    const std::string digest = HexOf(DigestOf(""));
    const std::string list = "filelist /list " + digest + " Server 5\n";
    const std::string target = list + "target /t\nnew /s 1 420 " + digest + "\n";
    const std::string old = target + "old file 1 2 3 4 5 6 7\n";
    for (const std::string& right :
         {list, target, old, old + "attribute user.a %\n", target + "owner 0 0\n", "release 1\n" + list,
          list + "directory /d 1 2 3\n", list + "olddirectory /d 2\nnewdirectory /e\n"}) {
        EXPECT_EQ(TroubleOf(kFirstLine + right), "") << right;
    }

    const std::string wrong[] = {
        list + "unknown /x\n",
        list + "new /s 1 420 " + digest + "\n",  // of no target
        list + "old file 1 2 3 4 5 6 7\n",
        list + "attribute user.a b\n",
        target + "attribute user.a b\n",  // of no old file
        target + "unknown\n",
        list + "owner 0 0\n",
        target + "owner 0\n",
        list + "directory /d 1 2\n",
        list + "release\n",
        target + "old directory 1 2 3 4 5 6 7\n",
        target + "old file 1 2 3 4 5 6\n",
        target + "old file 1 2 3 4 5 6 7 8\n",
        target + "old file -1 2 3 4 5 6 7\n",
        target + "old file x 2 3 4 5 6 7\n",
        target + "old file 1x 2 3 4 5 6 7\n",
        target + "old file 18446744073709551616 2 3 4 5 6 7\n",
        target + "old file  2 3 4 5 6 7\n",
        list + "target /t\nnew /s 1 420 " + digest.substr(1) + "\n",
        list + "target /t\nnew /s 1 420 " + digest + "0\n",
        list + "target /t\nnew /s 1 420\n",
        list + "target\n",
        list + "target a%4\n",
        list + "target a%4x\n",
        list + "target a%\n",
        list + "target %%\n",
        list + "target %4x%41\n",
        list + " x\n",
        list + "target /t more\n",
        list + "newdirectory \n",
        list + "\n" + list,
        "filelist /list " + digest + " Server\n",
    };
    for (const std::string& lines : wrong) EXPECT_EQ(TroubleOf(kFirstLine + lines), kOtherForm) << lines;
}

}  // namespace
