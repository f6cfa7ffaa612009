#include "VIni.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include "CapturedStandardError.h"
#include "OrdinaryUser.h"
#include "OwnProcess.h"
#include "ScratchDirectory.h"
#include "ShortMemory.h"

namespace fs = std::filesystem;

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr std::int64_t kSecond = 1000000000;

// The times that the two coarse clocks show to the process, that of the file time stamps and the monotonic
// one, and the time of every file's last change; in nanoseconds, and 0 for the real one.
std::atomic<std::int64_t> stampClock{0};
std::atomic<std::int64_t> monotonicClock{0};
std::atomic<std::int64_t> fileStamp{0};

std::int64_t Nanoseconds(const timespec& time) {
    return static_cast<std::int64_t>(time.tv_sec) * kSecond + time.tv_nsec;
}

timespec ToTime(std::int64_t nanoseconds) {
    return {static_cast<time_t>(nanoseconds / kSecond), static_cast<long>(nanoseconds % kSecond)};
}

}  // namespace

// In the C library's place: whether a file changed "just now" is a matter of the clock, and no test may wait;
// nor is there a file system everywhere whose time stamps move in large steps.
extern "C" {
#define VFS_TEST_IN_PLACE_OF(name) __asm__(name) __attribute__((visibility("default")))
int VfsTest_clock_gettime(clockid_t, timespec*) VFS_TEST_IN_PLACE_OF("clock_gettime");
int VfsTest_stat(const char*, struct stat*) VFS_TEST_IN_PLACE_OF("stat");
int VfsTest_fstat(int, struct stat*) VFS_TEST_IN_PLACE_OF("fstat");

int VfsTest_clock_gettime(clockid_t clock, timespec* time) {
    const std::int64_t shown = clock == CLOCK_REALTIME_COARSE    ? stampClock.load()
                               : clock == CLOCK_MONOTONIC_COARSE ? monotonicClock.load()
                                                                 : 0;
    if (shown == 0) return static_cast<int>(syscall(SYS_clock_gettime, clock, time));
    *time = ToTime(shown);
    return 0;
}

int VfsTest_stat(const char* path, struct stat* status) {
    const int result = static_cast<int>(syscall(SYS_newfstatat, AT_FDCWD, path, status, 0));
    if (result == 0 && fileStamp != 0) status->st_mtim = status->st_ctim = ToTime(fileStamp);
    return result;
}

int VfsTest_fstat(int fd, struct stat* status) {
    const int result = static_cast<int>(syscall(SYS_fstat, fd, status));
    if (result == 0 && fileStamp != 0) status->st_mtim = status->st_ctim = ToTime(fileStamp);
    return result;
}
}

namespace {

struct stat StatusOf(const std::string& path) {
    struct stat status;
    if (stat(path.c_str(), &status) != 0) throw std::runtime_error("no status of " + path);
    return status;
}

std::int64_t ChangeTime(const std::string& path) {
    return Nanoseconds(StatusOf(path).st_ctim);
}

// The longest age at which one more change could still leave a file with the same time stamps.
std::int64_t JustChangedAge() {
    timespec step;
    clock_getres(CLOCK_REALTIME_COARSE, &step);
    return 2 * Nanoseconds(step);
}

// Forgets the kept parse, by putting another file in its place.
void ForgetParse() {
    std::set<std::string> keys;
    (void)VIni::IniGetStringItems("", keys, "/proc/self/status");
}

// Shows the time at which the file's last change was so many nanoseconds ago.
class FileAge {
public:
    FileAge(const std::string& path, std::int64_t age) {
        stampClock = ChangeTime(path) + age;
        monotonicClock = 1000 * kSecond;
    }
    ~FileAge() {
        ForgetParse();  // the real clock would not have kept it
        stampClock = 0;
        monotonicClock = 0;
    }
    FileAge(const FileAge&) = delete;
    FileAge& operator=(const FileAge&) = delete;

    static void Pass(std::int64_t nanoseconds) {
        stampClock += nanoseconds;
        monotonicClock += nanoseconds;
    }
};

// Shows every file as last changed at this moment of its file system's clock.
class FileStamp {
public:
    explicit FileStamp(std::int64_t stamp) { fileStamp = stamp; }
    ~FileStamp() {
        ForgetParse();
        fileStamp = 0;
    }
    FileStamp(const FileStamp&) = delete;
    FileStamp& operator=(const FileStamp&) = delete;

    static void MoveOn(std::int64_t nanoseconds) { fileStamp += nanoseconds; }
};

// Counts how often a file is opened.
class OpenCounter {
public:
    explicit OpenCounter(const std::string& path) : watch_(inotify_init1(IN_NONBLOCK | IN_CLOEXEC)) {
        // Opening and closing, since the kernel makes one event of several equal ones in a row.
        if (inotify_add_watch(watch_, path.c_str(), IN_OPEN | IN_CLOSE_NOWRITE) < 0)
            throw std::runtime_error("can't watch " + path);
    }
    ~OpenCounter() { close(watch_); }
    OpenCounter(const OpenCounter&) = delete;
    OpenCounter& operator=(const OpenCounter&) = delete;

    int Opens() {
        std::array<inotify_event, 256> events;
        for (ssize_t size = 0; (size = read(watch_, events.data(), sizeof(events))) > 0;) {
            const std::size_t count = static_cast<std::size_t>(size) / sizeof(inotify_event);
            for (std::size_t i = 0; i < count; ++i) opens_ += (events[i].mask & IN_OPEN) != 0 ? 1 : 0;
        }
        return opens_;
    }

private:
    const int watch_;
    int opens_ = 0;
};

long OpenDescriptors() {
    return std::distance(fs::directory_iterator("/proc/self/fd"), {});
}

struct Answer {
    int status;
    std::string text;
};

bool operator==(const Answer& left, const Answer& right) {
    return left.status == right.status && left.text == right.text;
}

void PrintTo(const Answer& answer, std::ostream* out) {
    *out << answer.status << " " << testing::PrintToString(answer.text);
}

Answer Found(const std::string& text) {
    return {0, text};
}
const Answer kDefault = {-1, "the default"};

Answer Get(const char* section, const char* key, const std::string& path) {
    char buffer[256];
    const int status = VIni::IniGetString(section, key, "the default", buffer, sizeof(buffer), path.c_str());
    return {status, buffer};
}

class VIniTest : public testing::Test {
protected:
    // The value of `key` in the section "s" of a file with this content.
    Answer GetFrom(const std::string& content, const char* key = "key", const char* section = "s") {
        return Get(section, key, Write(content));
    }
    // A new file each time, so that no test depends on how an edit is noticed.
    std::string Write(const std::string& content) {
        return scratch_.Write("list" + std::to_string(++files_) + ".ini", content);
    }
    std::set<std::string> Keys(const char* section, const std::string& path, int expectedCount) {
        std::set<std::string> keys;
        EXPECT_EQ(VIni::IniGetStringItems(section, keys, path.c_str()), expectedCount);
        return keys;
    }

    const ScratchDirectory scratch_;

private:
    int files_ = 0;
};

TEST_F(VIniTest, ReadsTheValueOfAKeyInItsSection) {
    const std::string path = Write("[a]\nkey=1\n[b]\nkey=2\n");

    EXPECT_EQ(Get("a", "key", path), Found("1"));
    EXPECT_EQ(Get("b", "key", path), Found("2"));
}

TEST_F(VIniTest, NamesAreCaseSensitive) {
    const std::string path = Write("[s]\nkey=lower\nKEY=upper\n[S]\nkey=other\n");

    EXPECT_EQ(Get("s", "key", path), Found("lower"));
    EXPECT_EQ(Get("s", "KEY", path), Found("upper"));
    EXPECT_EQ(Get("s", "Key", path), kDefault);
    EXPECT_EQ(Get("S", "key", path), Found("other"));
}

TEST_F(VIniTest, DropsBlanksAroundLineSectionKeyAndValue) {
    const std::string path = Write(" \t[ \ts\t ] \n \t key \t = \t value \t \n");

    EXPECT_EQ(Get("s", "key", path), Found("value"));
}

TEST_F(VIniTest, KeepsBlanksInsideNamesAndValues) {
    const std::string path = Write("[a  section]\na \t key = a  \t value\n");

    EXPECT_EQ(Get("a  section", "a \t key", path), Found("a  \t value"));
}

TEST_F(VIniTest, KeepsEverythingInsideAValue) {
    const char* const values[] = {"C:\\dir\\",
                                  "\\",
                                  "a,b,,c,",
                                  "\"quoted\"",
                                  "'single'",
                                  "a;b ; c",
                                  "a#b # c",
                                  ";",
                                  "#",
                                  "a=b=c",
                                  "[x]",
                                  "<<<END",
                                  "\xe4\xff\xfe",
                                  "\xef\xbc\x8c",
                                  "%s%n",
                                  "$(x) `y`",
                                  "\x01\x1b[31m\x7f",
                                  "/a/b/../*"};
    for (const char* const value : values) {
        SCOPED_TRACE(value);
        EXPECT_EQ(GetFrom(std::string("[s]\nkey = ") + value + "\nnext=n\n"), Found(value));
    }
}

TEST_F(VIniTest, ContinuesNoLineAfterATrailingBackslash) {
    const std::string path = Write("[s]\nkey=one\\\nnext=two\n");

    EXPECT_EQ(Get("s", "key", path), Found("one\\"));
    EXPECT_EQ(Get("s", "next", path), Found("two"));
}

TEST_F(VIniTest, SkipsCommentLines) {
    const std::string path =
        Write("; head\n# head\n\n[s]\n;key=1\n  #key=2\n\n ; key=3\nother=o\n;last\nend=e\n# tail");

    EXPECT_THAT(Keys("s", path, 2), ElementsAre("end", "other"));
    EXPECT_EQ(Get("s", "other", path), Found("o"));
    EXPECT_EQ(Get("s", "end", path), Found("e"));
}

TEST_F(VIniTest, TheLastOfDuplicateKeysCounts) {
    const std::string path = Write("[s]\nkey=1\nkey=2\nkey=3\n");

    EXPECT_EQ(Get("s", "key", path), Found("3"));
    EXPECT_THAT(Keys("s", path, 1), ElementsAre("key"));
}

TEST_F(VIniTest, DuplicateSectionsAreOne) {
    const std::string path = Write("[s]\na=1\nb=1\n[t]\na=9\n[s]\nb=2\nc=2\n");

    EXPECT_THAT(Keys("s", path, 3), ElementsAre("a", "b", "c"));
    EXPECT_EQ(Get("s", "a", path), Found("1"));
    EXPECT_EQ(Get("s", "b", path), Found("2"));
}

TEST_F(VIniTest, LinesEndInLineFeedOrBothOrCarriageReturn) {
    EXPECT_EQ(GetFrom("[s]\nkey=value\nnext=n\n"), Found("value"));
    EXPECT_EQ(GetFrom("[s]\r\nkey=value\r\nnext=n\r\n"), Found("value"));
    EXPECT_EQ(GetFrom("[s]\rkey=value\rnext=n\r"), Found("value"));
}

TEST_F(VIniTest, TheLastLineNeedsNoEnd) {
    EXPECT_EQ(GetFrom("[s]\nkey=value"), Found("value"));
}

TEST_F(VIniTest, SkipsAByteOrderMark) {
    EXPECT_EQ(GetFrom("\xef\xbb\xbf[s]\nkey=value\n"), Found("value"));
    EXPECT_EQ(GetFrom("\xef\xbb\xbfkey=\xe4\n", "key", ""), Found("\xe4"));
    EXPECT_EQ(GetFrom("\xef\xbb\xbf"), kDefault);
}

TEST_F(VIniTest, NamesMayHoldBytesThatAreNotUtf8) {
    const std::string path = Write("[\xe4]\n\xff\xfe=value\n");

    EXPECT_EQ(Get("\xe4", "\xff\xfe", path), Found("value"));
    EXPECT_THAT(Keys("\xe4", path, 1), ElementsAre("\xff\xfe"));
}

TEST_F(VIniTest, KeysBeforeTheFirstSectionBelongToTheEmptyName) {
    const std::string path = Write("key=early\n[s]\nkey=late\n");

    EXPECT_EQ(Get("", "key", path), Found("early"));
    EXPECT_EQ(Get(nullptr, "key", path), Found("early"));
    EXPECT_THAT(Keys("", path, 1), ElementsAre("key"));
    EXPECT_THAT(Keys(nullptr, path, 1), ElementsAre("key"));
}

TEST_F(VIniTest, ASectionLineOfBlanksIsTheEmptyName) {
    const std::string path = Write("[s]\na=1\n[]\nb=2\n[ \t ]\nc=3\n");

    EXPECT_THAT(Keys("", path, 2), ElementsAre("b", "c"));
    EXPECT_THAT(Keys("s", path, 1), ElementsAre("a"));
}

TEST_F(VIniTest, AnEmptyValueIsFound) {
    EXPECT_EQ(GetFrom("[s]\nkey=\nnext=n\n"), Found(""));
    EXPECT_EQ(GetFrom("[s]\nkey= \t \nnext=n\n"), Found(""));
    EXPECT_EQ(GetFrom("[s]\nkey="), Found(""));
}

TEST_F(VIniTest, SkipsALineWithoutAnEqualsSignOrWithoutAKey) {
    const std::string path = Write("[s]\nkey\nother o\n = nothing\n=\nlast=l\n");

    EXPECT_THAT(Keys("s", path, 1), ElementsAre("last"));
    EXPECT_EQ(Get("s", "key", path), kDefault);
    EXPECT_EQ(Get("s", "", path), kDefault);
}

TEST_F(VIniTest, IgnoresWhatFollowsASectionName) {
    EXPECT_EQ(GetFrom("[s] trailing ] = x\nkey=value\n"), Found("value"));
}

TEST_F(VIniTest, ASectionNameEndsAtItsFirstBracket) {
    EXPECT_EQ(GetFrom("[a]b]\nkey=value\n", "key", "a"), Found("value"));
    EXPECT_EQ(GetFrom("[[a]]\nkey=value\n", "key", "[a"), Found("value"));
}

TEST_F(VIniTest, KeysBelowABrokenSectionLineBelongToNoSection) {
    const std::string path = Write("top=0\n[s]\na=1\n[broken\nb=2\nc=3\n[s]\nd=4\n");

    EXPECT_THAT(Keys("s", path, 2), ElementsAre("a", "d"));
    EXPECT_THAT(Keys("", path, 1), ElementsAre("top"));
    EXPECT_THAT(Keys("broken", path, 0), IsEmpty());
}

TEST_F(VIniTest, ALoneBracketIsABrokenSectionLineToo) {
    const std::string texts[] = {
        "top=0\n[s]\na=1\n[\nb=2\nc=3\n[t]\nd=4\n", "top=0\n[s]\na=1\n[\nb=[x]\nc=3\n[t]\nd=4\n",
        "top=0\r\n[s]\r\na=1\r\n[\r\n[t]\r\nd=4\r\n", "top=0\r[s]\ra=1\r[\r[t]\rd=4\r",
        "top=0\n[s]\na=1\n \t[ \t\nb=2\n[\n\n[\n[t]\nd=4\n"};
    for (const std::string& text : texts) {
        SCOPED_TRACE(text);
        const std::string path = Write(text);

        EXPECT_THAT(Keys("", path, 1), ElementsAre("top"));
        EXPECT_THAT(Keys("s", path, 1), ElementsAre("a"));
        EXPECT_THAT(Keys("t", path, 1), ElementsAre("d"));
        EXPECT_THAT(Keys("x", path, 0), IsEmpty());
    }
}

TEST_F(VIniTest, ALoneBracketMayBeTheFirstLineOrTheLast) {
    const std::string path = Write("[\n[s]\na=1\n[");

    EXPECT_THAT(Keys("s", path, 1), ElementsAre("a"));
    EXPECT_THAT(Keys("s", Write("\xef\xbb\xbf [\n[s]\na=1\n[ \n"), 1), ElementsAre("a"));
}

TEST_F(VIniTest, ABracketElsewhereIsNoSectionLine) {
    const std::string path =
        Write("[s]\na=[\nb[\nc = x [ \n; [\n\xef\xbb\xbf[\nd=[x]\n\xef\xbb[\ne=\xef\xbb\xbf[\n");

    EXPECT_THAT(Keys("s", path, 4), ElementsAre("a", "c", "d", "e"));
    EXPECT_EQ(Get("s", "a", path), Found("["));
    EXPECT_EQ(Get("s", "c", path), Found("x ["));
    EXPECT_EQ(Get("s", "d", path), Found("[x]"));
    EXPECT_EQ(Get("s", "e", path), Found("\xef\xbb\xbf["));
}

TEST_F(VIniTest, ANulByteEndsTheFile) {
    using namespace std::string_literals;
    const std::string path = Write("[s]\nfirst=1\nkey=ab\0cd\nlast=9\n"s);

    EXPECT_EQ(Get("s", "key", path), Found("ab"));
    EXPECT_THAT(Keys("s", path, 2), ElementsAre("first", "key"));
    EXPECT_EQ(GetFrom("\0[s]\nkey=1\n"s), kDefault);
}

TEST_F(VIniTest, AMissingKeyOrSectionGivesTheDefaultAndNoWord) {
    const std::string path = Write("[s]\nkey=value\n");
    const CapturedStandardError standardError;

    EXPECT_EQ(Get("s", "none", path), kDefault);
    EXPECT_EQ(Get("none", "key", path), kDefault);
    EXPECT_THAT(Keys("none", path, 0), IsEmpty());

    EXPECT_EQ(standardError.Text(), "");
}

TEST_F(VIniTest, AnEmptyFileHoldsNothingAndSaysNothing) {
    const std::string path = Write("");
    const CapturedStandardError standardError;

    EXPECT_EQ(Get("s", "key", path), kDefault);
    EXPECT_THAT(Keys("", path, 0), IsEmpty());

    EXPECT_EQ(standardError.Text(), "");
}

TEST_F(VIniTest, CopiesAValueThatJustFits) {
    const std::string path = Write("[s]\nkey=1234567\n");
    char buffer[] = "##########";
    const CapturedStandardError standardError;

    EXPECT_EQ(VIni::IniGetString("s", "key", "no", buffer, 8, path.c_str()), 0);

    EXPECT_EQ(std::string(buffer, 10), std::string("1234567\0##", 10));
    EXPECT_EQ(standardError.Text(), "");
}

TEST_F(VIniTest, RefusesAValueThatIsOneByteTooLongAndSaysSo) {
    const std::string path = Write("[s]\nkey=12345678\n");
    char buffer[] = "##########";
    const CapturedStandardError standardError;

    EXPECT_EQ(VIni::IniGetString("s", "key", "no", buffer, 8, path.c_str()), -1);

    EXPECT_EQ(std::string(buffer, 10), std::string("no\0#######", 10));
    EXPECT_EQ(standardError.Text(), "VIni: " + path + ": [s] key: the value of 8 bytes is longer than 7\n");
}

TEST_F(VIniTest, ReadsAVeryLongValueWhole) {
    const std::string value = std::string(35000, 'x') + ',' + std::string(34999, 'y');
    const std::string path = Write("[s]\nkey=" + value + "\nnext=n\n");
    std::vector<char> buffer(70001);

    EXPECT_EQ(VIni::IniGetString("s", "key", "", buffer.data(), 70001, path.c_str()), 0);
    EXPECT_EQ(std::string(buffer.data()), value);

    const CapturedStandardError standardError;
    EXPECT_EQ(VIni::IniGetString("s", "key", "", buffer.data(), 70000, path.c_str()), -1);
    EXPECT_EQ(std::string(buffer.data()), "");
    EXPECT_EQ(standardError.Text(),
              "VIni: " + path + ": [s] key: the value of 70000 bytes is longer than 69999\n");
}

TEST_F(VIniTest, ShowsNoControlCharacterOfANameOnStandardError) {
    const std::string path = Write("[s]\nk\x1b]\x07y\x7f=too long\n");
    char buffer[4];
    const CapturedStandardError standardError;

    EXPECT_EQ(VIni::IniGetString("s", "k\x1b]\x07y\x7f", "", buffer, sizeof(buffer), path.c_str()), -1);

    EXPECT_EQ(standardError.Text(),
              "VIni: " + path + ": [s] k\\x1b]\\x07y\\x7f: the value of 8 bytes is longer than 3\n");
}

TEST_F(VIniTest, EscapesOnStandardErrorWhatIsNotUtf8OrAControlCharacterThere) {
    const std::string path = Write("[a\\b]\n\x9b\xc2\x9b\xe4\xc3\xa9=too long\n");
    char buffer[4];
    const CapturedStandardError standardError;

    EXPECT_EQ(
        VIni::IniGetString("a\\b", "\x9b\xc2\x9b\xe4\xc3\xa9", "", buffer, sizeof(buffer), path.c_str()), -1);

    EXPECT_EQ(standardError.Text(), "VIni: " + path +
                                        ": [a\\\\b] \\x9b\\xc2\\x9b\\xe4\xc3\xa9: the value of 8 bytes is"
                                        " longer than 3\n");
}

TEST_F(VIniTest, ADefaultThatDoesNotFitGivesTheEmptyText) {
    const std::string path = Write("[s]\n");
    char buffer[] = "##########";

    EXPECT_EQ(VIni::IniGetString("s", "key", "1234567", buffer, 8, path.c_str()), -1);
    EXPECT_STREQ(buffer, "1234567");

    EXPECT_EQ(VIni::IniGetString("s", "key", "12345678", buffer, 8, path.c_str()), -1);
    EXPECT_STREQ(buffer, "");
    EXPECT_EQ(std::string(buffer + 8, 2), "##");
}

TEST_F(VIniTest, ANullDefaultIsTheEmptyText) {
    const std::string path = Write("[s]\n");
    char buffer[] = "##########";

    EXPECT_EQ(VIni::IniGetString("s", "key", nullptr, buffer, sizeof(buffer), path.c_str()), -1);

    EXPECT_EQ(std::string(buffer, 10), std::string("\0#########", 10));
}

TEST_F(VIniTest, TheDefaultMayBeTheBufferItself) {
    const std::string path = Write("[s]\n");
    char buffer[] = "as it was";

    EXPECT_EQ(VIni::IniGetString("s", "key", buffer, buffer, sizeof(buffer), path.c_str()), -1);

    EXPECT_STREQ(buffer, "as it was");
}

TEST_F(VIniTest, NullKeyOrPathIsNotFoundAndSaysNothing) {
    const std::string path = Write("key=1\n=2\n[s]\nkey=value\n");
    char buffer[20];
    const CapturedStandardError standardError;

    EXPECT_EQ(VIni::IniGetString("s", nullptr, "no", buffer, sizeof(buffer), path.c_str()), -1);
    EXPECT_STREQ(buffer, "no");
    EXPECT_EQ(VIni::IniGetString("s", "key", "none", buffer, sizeof(buffer), nullptr), -1);
    EXPECT_STREQ(buffer, "none");
    std::set<std::string> keys = {"before"};
    EXPECT_EQ(VIni::IniGetStringItems("s", keys, nullptr), 0);

    EXPECT_THAT(keys, ElementsAre("before"));
    EXPECT_EQ(standardError.Text(), "");
}

TEST_F(VIniTest, TouchesNothingWithoutABuffer) {
    const std::string path = Write("[s]\nkey=\n");
    char buffer[] = "##";

    EXPECT_EQ(VIni::IniGetString("s", "key", "d", nullptr, 10, path.c_str()), -1);
    EXPECT_EQ(VIni::IniGetString("s", "key", "d", buffer, 0, path.c_str()), -1);
    EXPECT_EQ(VIni::IniGetString("s", "key", "d", buffer, -1, path.c_str()), -1);

    EXPECT_STREQ(buffer, "##");
}

TEST_F(VIniTest, ABufferOfOneByteHoldsTheEmptyValue) {
    const std::string path = Write("[s]\nkey=\n");
    char buffer[] = "##";

    EXPECT_EQ(VIni::IniGetString("s", "key", "d", buffer, 1, path.c_str()), 0);

    EXPECT_EQ(std::string(buffer, 2), std::string("\0#", 2));
}

TEST_F(VIniTest, AddsTheKeysToThoseInTheSet) {
    const std::string path = Write("[s]\nb=1\na=2\n");
    std::set<std::string> keys = {"a", "before"};

    EXPECT_EQ(VIni::IniGetStringItems("s", keys, path.c_str()), 2);

    EXPECT_THAT(keys, ElementsAre("a", "b", "before"));
}

TEST_F(VIniTest, SaysOnceWhyAFileCannotBeRead) {
    const std::string path = scratch_.Path("missing.ini");
    const CapturedStandardError standardError;

    EXPECT_THAT(Keys("s", path, 0), IsEmpty());
    EXPECT_EQ(Get("s", "key", path), kDefault);
    EXPECT_EQ(Get("s", "other", path), kDefault);

    EXPECT_EQ(standardError.Text(), "VIni: " + path + ": No such file or directory\n");
}

TEST_F(VIniTest, SaysAgainThatAFileIsMissingWhenItWasThereInBetween) {
    const std::string path = scratch_.Path("list.ini");
    const CapturedStandardError standardError;

    EXPECT_EQ(Get("s", "key", path), kDefault);
    scratch_.Write("list.ini", "[s]\nkey=value\n");
    EXPECT_EQ(Get("s", "key", path), Found("value"));
    fs::remove(path);
    EXPECT_EQ(Get("s", "key", path), kDefault);

    const std::string line = "VIni: " + path + ": No such file or directory\n";
    EXPECT_EQ(standardError.Text(), line + line);
}

TEST_F(VIniTest, SaysInOneLineThatAPathOfSeveralLinesIsMissing) {
    const CapturedStandardError standardError;

    EXPECT_EQ(Get("s", "key", scratch_.Path("a\nb")), kDefault);

    EXPECT_EQ(standardError.Text(), "VIni: " + scratch_.Path() + "/a\\nb: No such file or directory\n");
}

TEST_F(VIniTest, ADirectoryHoldsNothing) {
    const CapturedStandardError standardError;

    EXPECT_EQ(Get("s", "key", scratch_.Path()), kDefault);

    EXPECT_EQ(standardError.Text(), "VIni: " + scratch_.Path() + ": Is a directory\n");
}

TEST_F(VIniTest, APipeHoldsNothingAndDoesNotBlock) {
    const std::string path = scratch_.Path("pipe");
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    const CapturedStandardError standardError;

    EXPECT_EQ(Get("s", "key", path), kDefault);
    EXPECT_THAT(Keys("s", path, 0), IsEmpty());

    EXPECT_EQ(standardError.Text(), "VIni: " + path + ": Invalid argument\n");
}

TEST_F(VIniTest, AFileWithoutReadPermissionHoldsNothing) {
    const std::string path = Write("[s]\nkey=value\n");
    fs::permissions(scratch_.Path(), fs::perms(0755));
    fs::permissions(path, fs::perms::none);
    const CapturedStandardError standardError;
    const OrdinaryUser ordinaryUser;

    EXPECT_EQ(Get("s", "key", path), kDefault);

    EXPECT_EQ(standardError.Text(), "VIni: " + path + ": Permission denied\n");
}

TEST_F(VIniTest, AFileThatCannotBeReadDoesNotShowTheOneBefore) {
    const std::string path = Write("[s]\nkey=value\n");
    ASSERT_EQ(Get("s", "key", path), Found("value"));
    const CapturedStandardError standardError;

    EXPECT_EQ(Get("s", "key", scratch_.Path("missing.ini")), kDefault);

    EXPECT_EQ(Get("s", "key", path), Found("value"));
}

TEST_F(VIniTest, TenThousandKeysCostOneParse) {
    std::string content = "[s]\n";
    for (int i = 0; i < 10000; ++i) content += "key" + std::to_string(i) + "=" + std::to_string(i * 7) + "\n";
    const std::string path = Write(content);
    const FileAge age(path, 3600 * kSecond);
    OpenCounter counter(path);

    std::set<std::string> keys;
    EXPECT_EQ(VIni::IniGetStringItems("s", keys, path.c_str()), 10000);
    for (const std::string& key : keys) {
        ASSERT_EQ(Get("s", key.c_str(), path), Found(std::to_string(std::stoi(key.substr(3)) * 7)));
    }

    EXPECT_EQ(counter.Opens(), 1);
}

TEST_F(VIniTest, AFailedReadBetweenKeepsTheParse) {
    const std::string path = Write("[s]\nkey=value\n");
    const FileAge age(path, 3600 * kSecond);
    OpenCounter counter(path);
    const CapturedStandardError standardError;

    EXPECT_EQ(Get("s", "key", path), Found("value"));
    EXPECT_EQ(Get("s", "key", scratch_.Path("missing.ini")), kDefault);
    EXPECT_EQ(Get("s", "key", path), Found("value"));

    EXPECT_EQ(counter.Opens(), 1);
}

TEST_F(VIniTest, ReadsAFileThatJustChangedForEveryKey) {
    const std::string path = Write("[s]\nkey=value\n");
    const FileAge age(path, JustChangedAge() - 1000);
    OpenCounter counter(path);

    for (int i = 0; i < 3; ++i) EXPECT_EQ(Get("s", "key", path), Found("value"));

    EXPECT_EQ(counter.Opens(), 3);
}

TEST_F(VIniTest, ParsesAFileThatJustChangedOnceAsLongAsItsContentIsTheSame) {
    if (!heap::IsCounted()) GTEST_SKIP() << "the heap is not the tests' own";
    std::string content = "[s]\nkey=value\n";
    for (int i = 0; i < 1000; ++i) content += "key" + std::to_string(i) + "=\n";
    const std::string path = Write(content);
    const FileAge age(path, 0);
    ASSERT_EQ(Get("s", "key", path), Found("value"));

    const long before = heap::Allocations();
    EXPECT_EQ(Get("s", "key", path), Found("value"));

    EXPECT_LT(heap::Allocations() - before, 100);  // a parse takes some for each key
}

TEST_F(VIniTest, KeepsTheParseAsSoonAsTheFileIsOldEnough) {
    const std::string path = Write("[s]\nkey=value\n");
    const FileAge age(path, JustChangedAge() + 1000);
    OpenCounter counter(path);

    for (int i = 0; i < 3; ++i) EXPECT_EQ(Get("s", "key", path), Found("value"));

    EXPECT_EQ(counter.Opens(), 1);
}

TEST_F(VIniTest, KeepsTheParseOfAFileFromTheFutureOnceItWasSeenForAMoment) {
    const std::string path = Write("[s]\nkey=value\n");
    const FileAge age(path, -3600 * kSecond);
    OpenCounter counter(path);

    for (int i = 0; i < 3; ++i) EXPECT_EQ(Get("s", "key", path), Found("value"));
    EXPECT_EQ(counter.Opens(), 3);
    age.Pass(JustChangedAge() - 1000);
    EXPECT_EQ(Get("s", "key", path), Found("value"));
    EXPECT_EQ(counter.Opens(), 4);
    age.Pass(2000);
    for (int i = 0; i < 1000; ++i) EXPECT_EQ(Get("s", "key", path), Found("value"));

    EXPECT_EQ(counter.Opens(), 5);
}

TEST_F(VIniTest, AChangeOfAFileFromTheFutureBeginsTheMomentAnew) {
    const FileStamp stamp(7200 * kSecond + 1);
    const std::string path = Write("[s]\nkey=one\n");
    const FileAge age(path, -3600 * kSecond);
    ASSERT_EQ(Get("s", "key", path), Found("one"));
    age.Pass(60 * kSecond);
    ASSERT_EQ(Get("s", "key", path), Found("one"));

    stamp.MoveOn(60 * kSecond);
    std::ofstream(path) << "[s]\nkey=two\n";
    EXPECT_EQ(Get("s", "key", path), Found("two"));
    std::ofstream(path) << "[s]\nkey=six\n";  // in the same step of the file system's clock

    EXPECT_EQ(Get("s", "key", path), Found("six"));
}

TEST_F(VIniTest, ReadsAFileAnewThatChangedTwiceInOneLongStepOfItsFileSystemsClock) {
    for (const std::int64_t fraction : {std::int64_t{0}, kSecond / 100, kSecond / 2}) {
        SCOPED_TRACE(fraction);
        const FileStamp stamp(7200 * kSecond + fraction);
        const std::string path = Write("[s]\nkey=old\n");
        const FileAge age(path, 2 * kSecond - 1000);
        ASSERT_EQ(Get("s", "key", path), Found("old"));

        std::ofstream(path) << "[s]\nkey=new\n";

        EXPECT_EQ(Get("s", "key", path), Found("new"));
    }
}

TEST_F(VIniTest, KeepsTheParseOnceALongStepOfTheFileSystemsClockIsOver) {
    const FileStamp stamp(7200 * kSecond);
    const std::string path = Write("[s]\nkey=value\n");
    const FileAge age(path, 2 * kSecond + 1000);
    OpenCounter counter(path);

    for (int i = 0; i < 3; ++i) EXPECT_EQ(Get("s", "key", path), Found("value"));

    EXPECT_EQ(counter.Opens(), 1);
}

TEST_F(VIniTest, ReadsAnEditedFileAnewEvenWithItsOldSizeAndModificationTime) {
    const std::string path = Write("[s]\nkey=old\n");
    const FileAge age(path, 3600 * kSecond);
    const struct stat before = StatusOf(path);
    ASSERT_EQ(Get("s", "key", path), Found("old"));

    do {  // until the clock of the time stamps has moved on
        std::ofstream(path) << "[s]\nkey=new\n";
        const timespec times[2] = {before.st_atim, before.st_mtim};
        ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
    } while (ChangeTime(path) == Nanoseconds(before.st_ctim));

    ASSERT_EQ(StatusOf(path).st_size, before.st_size);
    ASSERT_EQ(Nanoseconds(StatusOf(path).st_mtim), Nanoseconds(before.st_mtim));
    EXPECT_EQ(Get("s", "key", path), Found("new"));
}

TEST_F(VIniTest, ReadsAnEditedFileAnewThatJustChanged) {
    const std::string path = Write("[s]\nkey=old\n");
    ASSERT_EQ(Get("s", "key", path), Found("old"));

    std::ofstream(path) << "[s]\nkey=new\n";

    EXPECT_EQ(Get("s", "key", path), Found("new"));
}

TEST_F(VIniTest, ReadsAFileAnewThatWasReplaced) {
    const std::string path = Write("[s]\nkey=old\n");
    const FileAge age(path, 3600 * kSecond);
    ASSERT_EQ(Get("s", "key", path), Found("old"));

    fs::rename(Write("[s]\nkey=new\n"), path);

    EXPECT_EQ(Get("s", "key", path), Found("new"));
}

TEST_F(VIniTest, TellsApartTwoFilesOfTheSameSizeAndTimes) {
    std::string left;
    std::string right;
    const timespec times[2] = {{1, 0}, {1, 0}};
    do {  // until both were changed in one tick of the clock of the time stamps
        left = Write("[s]\nkey=left!\n");
        right = Write("[s]\nkey=right\n");
        ASSERT_EQ(utimensat(AT_FDCWD, left.c_str(), times, 0), 0);
        ASSERT_EQ(utimensat(AT_FDCWD, right.c_str(), times, 0), 0);
    } while (ChangeTime(left) != ChangeTime(right));
    const FileAge age(left, 3600 * kSecond);

    EXPECT_EQ(Get("s", "key", left), Found("left!"));
    EXPECT_EQ(Get("s", "key", right), Found("right"));
    EXPECT_EQ(Get("s", "key", left), Found("left!"));
}

TEST_F(VIniTest, NothingThrowsWithoutAnyMemoryFromTheFirstCallOn) {
    if (!heap::IsCounted()) GTEST_SKIP() << "the heap is not the tests' own";
    if (!InOwnProcess()) {
        const ProcessResult result = RunInOwnProcess(Write("[s]\nkey=value\n"));
        EXPECT_PASSED(result);
        EXPECT_EQ(result.err, "VIni: std::bad_alloc\n");
        return;
    }

    const std::string path = OwnProcessDirectory();
    const std::string missing = path + ".none";
    std::set<std::string> keys = {"before"};
    char buffer[256] = "";
    {
        const ShortMemory memory(0);
        EXPECT_EQ(VIni::IniGetString("s", "key", "no", buffer, sizeof(buffer), missing.c_str()), -1);
        EXPECT_STREQ(buffer, "no");
        EXPECT_EQ(VIni::IniGetStringItems("s", keys, missing.c_str()), 0);
        EXPECT_EQ(VIni::IniGetStringItems("s", keys, nullptr), 0);
    }
    EXPECT_THAT(keys, ElementsAre("before"));
}

TEST_F(VIniTest, GivesAValueOrTheDefaultAtEachAllocationThatFails) {
    if (!heap::IsCounted()) GTEST_SKIP() << "the heap is not the tests' own";
    const std::string path = Write("[s]\nkey=value\na key with a long name=1\n");
    const CapturedStandardError standardError;
    bool isDone = false;
    for (long successes = 0; !isDone; ++successes) {
        SCOPED_TRACE(successes);
        ForgetParse();
        Answer answer = {0, std::string(256, ' ')};
        {
            const ShortMemory memory(successes);
            answer.status =
                VIni::IniGetString("s", "key", "the default", answer.text.data(), 256, path.c_str());
            isDone = !memory.HasFailed();
        }
        EXPECT_EQ(Answer({answer.status, answer.text.c_str()}), isDone ? Found("value") : kDefault);
        EXPECT_EQ(Get("s", "key", path), Found("value"));
    }
}

TEST_F(VIniTest, GivesAllKeysOrNoneAtEachAllocationThatFails) {
    if (!heap::IsCounted()) GTEST_SKIP() << "the heap is not the tests' own";
    const std::string path = Write("[s]\na key with a long name=1\nanother key with a long name=2\n");
    const CapturedStandardError standardError;
    bool isDone = false;
    for (long successes = 0; !isDone; ++successes) {
        SCOPED_TRACE(successes);
        ForgetParse();
        std::set<std::string> keys = {"before"};
        int count = 0;
        {
            const ShortMemory memory(successes);
            count = VIni::IniGetStringItems("s", keys, path.c_str());
            isDone = !memory.HasFailed();
        }
        EXPECT_EQ(count, isDone ? 2 : 0);
        EXPECT_THAT(keys, testing::SizeIs(isDone ? 3 : 1));
    }
}

TEST_F(VIniTest, SaysWithoutMemoryThatThereIsNone) {
    if (!heap::IsCounted()) GTEST_SKIP() << "the heap is not the tests' own";
    const std::string missing = scratch_.Path("missing.ini");
    bool isDone = false;
    for (long successes = 0; !isDone; ++successes) {
        SCOPED_TRACE(successes);
        ForgetParse();
        const CapturedStandardError standardError;
        std::set<std::string> keys;
        {
            const ShortMemory memory(successes);
            EXPECT_EQ(VIni::IniGetStringItems("s", keys, missing.c_str()), 0);
            isDone = !memory.HasFailed();
        }
        const std::string line = "VIni: " + missing + ": No such file or directory\n";
        EXPECT_THAT(standardError.Text(),
                    testing::AnyOf(line, "VIni: std::bad_alloc\n", "VIni: std::bad_alloc\n" + line));
    }
}

TEST_F(VIniTest, CanBeInstantiatedByAnotherImplementation) {
    EXPECT_TRUE(std::is_default_constructible_v<VIni>);
}

TEST_F(VIniTest, ThreadsReadAtOnce) {
    const std::string paths[] = {Write("[s]\nkey=first\n"), Write("[s]\nkey=second\nmore=m\n")};
    std::atomic<int> wrong{0};

    std::vector<std::thread> threads;
    for (std::size_t i = 0; i < 8; ++i) {
        threads.emplace_back([&, i] {
            const std::string& path = paths[i % 2];
            const Answer expected = Found(i % 2 == 0 ? "first" : "second");
            for (int round = 0; round < 200; ++round) {
                std::set<std::string> keys;
                const int count = VIni::IniGetStringItems("s", keys, path.c_str());
                if (count != static_cast<int>(i % 2 + 1) || !(Get("s", "key", path) == expected)) ++wrong;
            }
        });
    }
    for (std::thread& thread : threads) thread.join();

    EXPECT_EQ(wrong, 0);
}

TEST_F(VIniTest, LeavesNoDescriptorOpen) {
    const std::string path = Write("[s]\nkey=value\n");
    const long before = OpenDescriptors();
    const CapturedStandardError* standardError = new CapturedStandardError;

    EXPECT_EQ(Get("s", "key", path), Found("value"));
    EXPECT_EQ(Get("s", "none", path), kDefault);
    EXPECT_EQ(Get("s", "key", scratch_.Path()), kDefault);
    EXPECT_EQ(Get("s", "key", Write("")), kDefault);
    EXPECT_THAT(Keys("s", path, 1), ElementsAre("key"));

    delete standardError;
    EXPECT_EQ(OpenDescriptors(), before);
}

}  // namespace
