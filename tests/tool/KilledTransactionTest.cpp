// vfilelist upgrade, commit and rollback, with all processes that they start, killed or let down at their
// system calls: one `resume` later the tree is the old release or the new one, to the last attribute.

#include <gtest/gtest.h>
#include <sys/syscall.h>

#include <algorithm>
#include <cerrno>
#include <iostream>
#include <random>
#include <string>
#include <vector>

#include "Release.h"
#include "Sanitizer.h"
#include "Scale.h"
#include "TracedTree.h"

namespace {

class KilledTransactionTest : public testing::Test {
protected:
    void SetUp() override {
        if (VFS_TEST_ADDRESS_SANITIZER || VFS_TEST_THREAD_SANITIZER) {
            GTEST_SKIP() << "a sanitizer makes system calls of its own";
        }
    }

    static void ExpectTree(const TreeSnapshot& expected, const TreeSnapshot& actual, const char* name) {
        const std::vector<std::string> differences = DifferencesBetween(expected, actual);
        EXPECT_TRUE(differences.empty()) << "not the " << name << " tree:" << Joined(differences);
    }

    // What one `resume` has to leave.
    static void ExpectOldOrNew(const Release& release, const std::string& command) {
        EXPECT_EQ(release.Run("resume"), 0);
        const bool isOpen = release.Run("status") == 1;
        if (isOpen) {
            ExpectTree(release.newTreeWithBackups(), release.Now(), "new");
        } else if (command == "commit") {
            ExpectTree(release.newTree(), release.Now(), "new");
        } else {
            ExpectTree(release.oldTree(), release.Now(), "old");
        }
    }

    // Where the command's first change of anything is made; what comes before only reads.
    static long FirstChange(const std::vector<TreeCall>& calls) {
        const auto isChange = [](const TreeCall& call) {
            return call.number == SYS_rename || call.number == SYS_unlink || call.number == SYS_mkdir;
        };
        return std::find_if(calls.begin(), calls.end(), isChange) - calls.begin();
    }

    // `points` calls of the command in all: every one from its first change on if they suffice, a few before
    // it.
    static std::vector<long> Points(const Release& release, const std::string& command, long points) {
        release.PrepareFor(command);
        const std::vector<TreeCall> calls =
            RunTracedTree(release.Command(command), release.Environment(), {}).calls;
        const auto last = static_cast<long>(calls.size());
        const long first = FirstChange(calls);
        std::vector<long> chosen;
        const auto choose = [&chosen](long from, long to, long count) {
            const long step = std::max(1L, (to - from) / std::max(1L, count));
            for (long at = from; at < to; at += step) chosen.push_back(at);
        };
        choose(1, first, points / 10);
        choose(first, last + 1, points);
        return chosen;
    }

    // The same counted without the calls that leave the files and the state as they are: to be killed before
    // such a one is to be killed before the next one that does not.
    struct Lengths {
        long firstChange;
        long upgrade;
    };
    static std::vector<TreeCall> CallsThatMatter(const Release& release, const std::string& command,
                                                 long killAt) {
        TreeEvent event;
        event.at = killAt;
        event.directories = {release.InstalledPath(), release.StatePath()};
        event.except = release.PassedList();
        return RunTracedTree(release.Command(command), release.Environment(), event).calls;
    }
    static Lengths LengthsOf(const Release& release) {
        release.Restore();
        const std::vector<TreeCall> calls = CallsThatMatter(release, "upgrade", 0);
        return {FirstChange(calls), static_cast<long>(calls.size())};
    }
    static long ResumeLengthAfter(const Release& release, long kill) {
        release.Restore();
        (void)CallsThatMatter(release, "upgrade", kill);
        return static_cast<long>(CallsThatMatter(release, "resume", 0).size());
    }

    // What is killed in its turn goes on from there.
    static void KillBoth(const Release& release, long upgrade, long resume) {
        SCOPED_TRACE(testing::Message() << "upgrade killed at " << upgrade << ", resume at " << resume);
        release.Restore();
        (void)CallsThatMatter(release, "upgrade", upgrade);
        (void)CallsThatMatter(release, "resume", resume);
        ExpectOldOrNew(release, "upgrade");
    }

    static void Sweep(const Release& release, const std::string& command, long points,
                      const TreeEvent& event) {
        long happened = 0;
        const std::vector<long> chosen = Points(release, command, points);
        for (const long at : chosen) {
            SCOPED_TRACE(testing::Message() << command << " at system call " << at << ", error "
                                            << event.error << (event.isOnwards ? " from there on" : ""));
            release.PrepareFor(command);
            TreeEvent there = event;
            there.at = at;
            const TreeRun run = RunTracedTree(release.Command(command), release.Environment(), there);
            if (run.hasHappened) ++happened;
            if (run.exitStatus == 0 && command == "upgrade") {
                ExpectTree(release.newTreeWithBackups(), release.Now(), "new");
            }
            if (run.exitStatus == 1 && command == "upgrade")
                ExpectTree(release.oldTree(), release.Now(), "old");
            ExpectOldOrNew(release, command);
            if (HasFailure()) return;
        }
        std::cout << command << ": " << happened << " points, "
                  << (event.error == 0 ? "killed" : "error " + std::to_string(event.error))
                  << (event.isOnwards ? " from there on" : "") << std::endl;
        EXPECT_GE(happened, static_cast<long>(chosen.size()) * 4 / 5);
    }
};

TEST_F(KilledTransactionTest, HasALongListOfWhichCheckSaysThatAFileStandsThereTwice) {
    const Release release(Entries::k40);

    const nlohmann::json report = release.package().RunJson("check");

    std::vector<std::string> codes;
    for (const auto& finding : report["findings"]) codes.push_back(finding["code"]);
    EXPECT_EQ(std::count(codes.begin(), codes.end(), "W-DUPLICATE-ENTRY"), 1) << Joined(codes);
    EXPECT_TRUE(std::none_of(codes.begin(), codes.end(), [](const auto& code) { return code[0] == 'E'; }))
        << Joined(codes);
}

TEST_F(KilledTransactionTest, EndsWithTheOldOrTheNewReleaseWhereverItIsKilled) {
    const Release release(Entries::k40);

    for (const char* const command : {"upgrade", "commit", "rollback"})
        Sweep(release, command, 130 * TestScale(), {});
}

TEST_F(KilledTransactionTest, EndsWithTheOldOrTheNewReleaseWhateverFails) {
    const Release release(Entries::k40);

    for (const char* const command : {"upgrade", "commit", "rollback"}) {
        for (const int error : {ENOSPC, EIO, EMFILE, EINTR}) {
            for (const bool isOnwards : {false, true}) {
                TreeEvent event;
                event.error = error;
                event.isOnwards = isOnwards;
                Sweep(release, command, 16 * TestScale(), event);
            }
        }
    }
}

// Every pair of calls, of which the normal run takes a hundredth.
TEST_F(KilledTransactionTest, EndsWellWhenItsResumptionIsKilledToo) {
    const Release release(Entries::k3);
    const long step = std::max(1L, 10 / TestScale());
    const Lengths lengths = LengthsOf(release);

    long pairs = 0;
    for (long first = lengths.firstChange + 1; first <= lengths.upgrade; first += step) {
        const long resume = ResumeLengthAfter(release, first);
        for (long second = 1 + first / step % step; second <= resume && !HasFailure();
             second += step, ++pairs)
            KillBoth(release, first, second);
    }
    std::cout << "upgrade and resume, 3 entries: " << pairs << " pairs of kills" << std::endl;
    EXPECT_GE(pairs, 60);
}

TEST_F(KilledTransactionTest, EndsWellWhenTheResumptionOfALongListIsKilledToo) {
    const Release release(Entries::k40);
    const Lengths lengths = LengthsOf(release);
    std::mt19937 random(1);
    std::uniform_int_distribution<long> firsts(lengths.firstChange + 1, lengths.upgrade);

    const long pairs = 10 * TestScale();
    for (long pair = 0; pair < pairs && !HasFailure(); ++pair) {
        const long first = firsts(random);
        const long resume = ResumeLengthAfter(release, first);
        KillBoth(release, first, std::uniform_int_distribution<long>(1, resume)(random));
    }
    std::cout << "upgrade and resume, 40 entries: " << pairs << " pairs of kills" << std::endl;
}

}  // namespace
