// Every short text, not a sample: the path value against a slow model that shares no code with it, and the
// guard of the archives' commands against its rules read character by character.
#include <gtest/gtest.h>

#include <array>
#include <cstdio>
#include <cstring>
#include <new>
#include <optional>
#include <string>
#include <string_view>

#include "HeapCounter.h"
#include "LogRecorder.h"
#include "PathModel.h"
#include "Scale.h"
#include "SystemCalls.h"
#include "VCompressAndDeCompress.h"
#include "VPath.h"

namespace {

// 27 characters: the texts behind it reach over the end of the second block of 16 that VPath looks at.
constexpr char kWorkingDirectory[] = "/srv/w.d/tarnserver/release";

// memcheck, too, has a heap of its own. The lines of a sample are those of all texts.
bool IsSlow() {
    return kIsSlow || VFS_TEST_COVERAGE || !heap::IsCounted();
}

// The longest texts of a soak, of a test run, and of one that a sanitizer or an emulator makes slow.
std::size_t Longest(std::size_t inSoak, std::size_t inTestRun, std::size_t whenSlow) {
    if (TestScale() >= 100) return inSoak;
    return IsSlow() ? whenSlow : inTestRun;
}

// The next text of the same length, counting in the characters of the alphabet; false after the last one.
bool Advance(std::string& text, std::string_view alphabet) {
    for (char& character : text) {
        const std::size_t next = alphabet.find(character) + 1;
        if (next < alphabet.size()) {
            character = alphabet[next];
            return true;
        }
        character = alphabet[0];
    }
    return false;
}

// Calls `check` for every text of up to `longest` characters of the alphabet, until one fails. Returns how
// many it was called for.
template <typename Check>
long ForEveryText(std::string_view alphabet, std::size_t longest, Check check) {
    long count = 0;
    for (std::size_t length = 0; length <= longest; ++length) {
        std::string text(length, alphabet[0]);
        do {
            check(text);
            ++count;
        } while (!testing::Test::HasFailure() && Advance(text, alphabet));
    }
    return count;
}

// How many texts that has to be.
long CountOfTexts(long characters, std::size_t longest) {
    long count = 0;
    long ofLength = 1;
    for (std::size_t length = 0; length <= longest; ++length, ofLength *= characters) count += ofLength;
    return count;
}

void ExpectCount(const char* what, long count, long expected) {
    std::printf("%ld %s compared\n", count, what);
    EXPECT_EQ(count, expected);
}

// Paths whose objects, and the texts that they resolve, begin at all eight places of a machine word. Around a
// text stands what would show if it were read: '/' and '.'.
class PlacedPaths {
public:
    PlacedPaths() {
        for (std::size_t at = 0; at < kPlaces; ++at) {
            // Each object lies differently to its text.
            paths_[at] = new (objects_[at].data() + at * 3 % kPlaces) VPath("/");
        }
    }

    // What each of them has to make of the text; nothing: it is invalid.
    void Expect(const std::optional<std::string>& expected, const std::string& text) {
        for (std::size_t at = 0; at < kPlaces; ++at) {
            std::memset(text_.data(), text.size() % 2 == 0 ? '/' : '.', text_.size());
            char* const begin = text_.data() + at;
            std::memcpy(begin, text.c_str(), text.size() + 1);
            paths_[at]->ResolvePath(begin);
            // A valid text is never empty.
            if (expected.value_or("") == paths_[at]->RealPath().text) continue;
            ADD_FAILURE() << '"' << text << "\" at " << at << " gives \"" << paths_[at]->RealPath().text
                          << "\", not \"" << expected.value_or("") << '"';
        }
    }

private:
    static constexpr std::size_t kPlaces = 8;
    static constexpr std::size_t kRoom = 64;

    alignas(16) std::array<char, kRoom> text_{};
    std::array<VPath*, kPlaces> paths_{};
    struct alignas(16) Object : std::array<char, sizeof(VPath) + kPlaces> {};
    std::array<Object, kPlaces> objects_{};
};

class ExhaustiveTest : public testing::Test {
    const Replaced<decltype(calls::getcwd)> getcwd_{
        calls::getcwd, [](char* buffer, size_t) { return std::strcpy(buffer, kWorkingDirectory); }};

protected:
    PlacedPaths paths_;
};

TEST_F(ExhaustiveTest, ResolvesEveryTextOfSlashesDotsAndNamesAsTheModel) {
    const std::size_t longest = Longest(16, 11, 8);

    const long count = ForEveryText("/.x", longest, [this](const std::string& text) {
        paths_.Expect(ModelOfResolve(text, kWorkingDirectory), text);
    });

    ExpectCount("texts", count, CountOfTexts(3, longest));
    EXPECT_TRUE(longest < 16 || count == 64570081);
}

// Three characters stand for all: of a byte VPath asks only whether it is the NUL at the end, a '/', or a
// '.'; it counts and moves the others without looking. So a text with another byte in the place of each 'x'
// gives the same path, with that byte in its place. Six characters hold all that an 'x' can take part in: a
// name of one or two bytes between, before and after a "/..", and one that begins or ends with a dot. The
// name in front of a long text is looked through in a block of its own.
TEST_F(ExhaustiveTest, TreatsEveryOtherByteAsAnX) {
    const std::size_t longest = Longest(6, 6, 4);
    long count = 0;
    for (const std::string& front : {std::string(), "/" + std::string(16, 'y')}) {
        ForEveryText("/.x", longest, [&](const std::string& text) {
            const std::optional<std::string> expected = ModelOfResolve(front + text, kWorkingDirectory);
            for (int byte = 1; byte < 256 && !HasFailure(); ++byte) {
                if (byte == '/' || byte == '.') continue;
                const auto replace = [byte](std::string changed) {
                    for (char& character : changed) {
                        if (character == 'x') character = static_cast<char>(byte);
                    }
                    return changed;
                };
                paths_.Expect(expected ? std::optional(replace(*expected)) : std::nullopt,
                              replace(front + text));
                ++count;
            }
        });
    }

    ExpectCount("texts", count, 2 * 253 * CountOfTexts(3, longest));
    EXPECT_TRUE(longest < 6 || count == 553058);
}

TEST_F(ExhaustiveTest, JoinsEveryTwoShortTextsAsTheModel) {
    const std::size_t longest = Longest(8, 8, 6);

    long count = 0;
    ForEveryText("/.x", longest, [&count, longest](const std::string& text) {
        const VPath path(text);
        const std::optional<std::string> resolved = ModelOfResolve(text, kWorkingDirectory);
        ForEveryText("/.x", longest - text.size(), [&](const std::string& tail) {
            const std::string joined = resolved ? ModelOfJoin(*resolved, tail).value_or("") : "";
            SCOPED_TRACE(text + " and " + tail);
            EXPECT_EQ((path + tail).RealPath().text, joined);
            EXPECT_EQ((path + tail.c_str()).RealPath().text, joined);
            EXPECT_EQ((VPath(path) += tail).RealPath().text, joined);
            EXPECT_EQ((VPath(path) += tail.c_str()).RealPath().text, joined);
            ++count;
        });
    });

    ExpectCount("pairs of texts", count, longest == 8 ? 83653 : 7108);
}

// The guard, through the archive function that puts a text into its command as it stands.

bool IsRefused(std::string_view command) {
    for (std::size_t i = 0; i < command.size(); ++i) {
        const char character = command[i];
        if (character == ';' || character == '|' || character == '$' || character == '`') return true;
        if (character == '&' && i + 1 < command.size() && command[i + 1] == '&') return true;
    }
    return false;
}

class GuardExhaustiveTest : public testing::Test {
protected:
    // The command is run, and logged once; or it is refused, which is logged too, and nothing is run.
    void ExpectAsRead(const std::string& path) {
        const std::string command = "tar -zcvf " + path + ".tar.gz " + path;
        LogRecorder::Clear();
        run_.clear();
        EXPECT_EQ(VCompressAndDeCompress::CompressFile(path.c_str()), -10000);
        EXPECT_EQ(run_, IsRefused(command) ? "" : command);
        EXPECT_EQ(LogRecorder::Lines().size(), IsRefused(command) ? 2U : 1U) << command;
    }

private:
    std::string run_;
    const Replaced<decltype(calls::popen)> popen_{calls::popen, [this](const char* command, const char*) {
                                                      run_ = command;
                                                      return static_cast<FILE*>(nullptr);
                                                  }};
};

TEST_F(GuardExhaustiveTest, RefusesExactlyTheTextsWithAControlSequence) {
    const std::size_t longest = Longest(8, 6, 4);

    const long count =
        ForEveryText(";|&$`x", longest, [this](const std::string& text) { ExpectAsRead(text); });

    ExpectCount("paths", count, CountOfTexts(6, longest));
    EXPECT_TRUE(longest < 8 || count == 2015539);
}

// An 'x' stands for all others, since nothing that is refused is longer than two bytes.
TEST_F(GuardExhaustiveTest, RefusesExactlyThePairsOfBytesWithAControlSequence) {
    std::string bytes;
    for (int byte = 1; byte < 256; ++byte) {
        const bool isControl = std::string_view(";|&$`").find(static_cast<char>(byte)) != std::string::npos;
        if (!IsSlow() || isControl || byte % 8 == 0) bytes += static_cast<char>(byte);
    }

    const long count = ForEveryText(bytes, 2, [this](const std::string& text) { ExpectAsRead(text); });

    ExpectCount("paths", count, IsSlow() ? 1 + 35 + 35 * 35 : 1 + 255 + 255 * 255);
}

}  // namespace
