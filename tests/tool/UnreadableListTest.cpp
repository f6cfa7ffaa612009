// A file list of which reading fails at any call: vfilelist does what it does with the whole list, or refuses
// it with status 2 and changes nothing.

#include <gtest/gtest.h>

#include <array>
#include <cerrno>
#include <filesystem>
#include <iostream>
#include <ostream>
#include <string>
#include <vector>

#include "Release.h"
#include "Sanitizer.h"
#include "Scale.h"
#include "TracedTree.h"

namespace {

constexpr std::array<int, 3> kErrors = {EIO, EACCES, EINTR};

struct Command {
    const char* name;
    std::vector<std::string> words;
    std::vector<const char*> passes;  // by hand, before it
};

void PrintTo(const Command& command, std::ostream* stream) {
    *stream << command.name;
}

class UnreadableListTest : public testing::TestWithParam<Command> {
protected:
    void SetUp() override {
        if (VFS_TEST_ADDRESS_SANITIZER || VFS_TEST_THREAD_SANITIZER)
            GTEST_SKIP() << "a sanitizer makes system calls of its own";
        // Nothing else says what the list has to be.
        for (const char* const suffix : {".mtree", ".mtree.sig"})
            ASSERT_TRUE(std::filesystem::remove(release_.package().ListPath() + suffix));
    }

    void Prepare() const {
        release_.Restore();
        for (const char* const pass : GetParam().passes) ASSERT_EQ(release_.package().RunPass(pass), 0);
    }
    std::string ReportPath() const { return release_.package().scratch().Path("report"); }
    // An upgrade says when it was begun.
    std::string Report() const {
        return GetParam().words.front() == "upgrade" ? "" : ReadWholeFile(ReportPath());
    }
    // What passes by hand have made has another time each time.
    TreeSnapshot Now() const {
        TreeSnapshot tree = release_.Now();
        for (auto& [path, node] : tree) node.modified.reset();
        return tree;
    }
    // With the failure before one of the calls that have to do with the list.
    TreeRun Run(long at, int error, bool isOnwards) const {
        TreeEvent event;
        event.at = at;
        event.error = error;
        event.isOnwards = isOnwards;
        event.directories = {release_.package().ListPath()};
        event.output = ReportPath();
        event.except = release_.package().ListPath() + ".mtree";
        std::vector<std::string> words = {VFILELIST_PATH, release_.package().ListPath(), "--json"};
        words.insert(words.begin() + 1, GetParam().words.begin(), GetParam().words.end());
        if (GetParam().words.front() == "upgrade")
            words.insert(words.end(), {"--state", release_.StatePath()});
        return RunTracedTree(words, release_.Environment(), event);
    }

    const Release release_{Entries::k4};
};

TEST_P(UnreadableListTest, IsReadWholeOrRefusedWithNothingChanged) {
    Prepare();
    const TreeSnapshot before = Now();
    const TreeRun whole = Run(0, 0, false);
    const std::string report = Report();
    const TreeSnapshot after = Now();
    long failures = 0;
    long refusals = 0;
    for (long at = 1; at <= static_cast<long>(whole.calls.size()); ++at) {
        for (const bool isOnwards : {false, true}) {
            for (std::size_t error = 0; error < kErrors.size(); ++error) {
                if (TestScale() == 1 && error != static_cast<std::size_t>(at) % kErrors.size()) continue;
                SCOPED_TRACE(testing::Message() << "call " << at << (isOnwards ? " and those behind it" : "")
                                                << ", error " << kErrors[error]);
                Prepare();
                const TreeRun run = Run(at, kErrors[error], isOnwards);
                const bool isRefused = run.exitStatus == 2;

                EXPECT_TRUE(run.hasHappened);
                EXPECT_TRUE(isRefused || run.exitStatus == whole.exitStatus) << run.exitStatus;
                if (!isRefused) {
                    EXPECT_EQ(Report(), report);
                }
                const std::vector<std::string> differences =
                    DifferencesBetween(isRefused ? before : after, Now());
                EXPECT_TRUE(differences.empty()) << Joined(differences);
                ++failures;
                if (isRefused) ++refusals;
            }
        }
    }
    std::cout << GetParam().name << ": " << failures << " failures, " << refusals << " times refused\n";
    EXPECT_GE(refusals, 30);
}

const std::vector<const char*> kCopied = {"-rename", "-copy"};
const Command kCommands[] = {{"check", {"check"}, {}},
                             {"plan", {"plan"}, {}},
                             {"upgrade", {"upgrade"}, {}},
                             {"verify", {"verify"}, kCopied},
                             {"rollback", {"rollback"}, kCopied},
                             {"rollback_only_modes", {"rollback", "--only-modes"}, kCopied},
                             {"rollback_partial", {"rollback", "--partial"}, kCopied}};

INSTANTIATE_TEST_SUITE_P(Of, UnreadableListTest, testing::ValuesIn(kCommands),
                         [](const auto& command) { return command.param.name; });

}  // namespace
