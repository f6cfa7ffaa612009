// Two commands of vfilelist at the same moment: one does its work, the other one is refused and changes
// nothing.

#include <gtest/gtest.h>

#include <algorithm>
#include <future>
#include <iostream>
#include <string>
#include <vector>

#include "Release.h"
#include "Sanitizer.h"
#include "Scale.h"
#include "TracedTree.h"

namespace {

const std::vector<std::string> kNoDifferences;

class RacedTransactionTest : public testing::Test {
protected:
    TreeEvent Event(long at) const {
        TreeEvent event;
        event.at = at;
        event.directories = {release_.InstalledPath(), release_.StatePath()};
        event.except = release_.PassedList();
        return event;
    }

    // Runs `second` from its beginning to its end before a call of `first`. Where nothing was begun yet, it
    // may be the second one that does its work.
    void RaceAt(const std::string& first, const std::string& second, long at) const {
        SCOPED_TRACE(testing::Message() << second << " before call " << at << " of " << first);
        release_.PrepareFor(first);
        int status = -1;
        TreeEvent event = Event(at);
        event.interfere = [&] { status = release_.Run(second); };
        const int firstStatus =
            RunTracedTree(release_.Command(first), release_.Environment(), event).exitStatus;

        // Without an open upgrade, or with a complete one, resume has nothing to do.
        const bool isFirstRefused = status == 0 && second != "resume";
        EXPECT_EQ(firstStatus == 0, !isFirstRefused) << firstStatus;
        const std::string& winner = isFirstRefused ? second : first;
        EXPECT_EQ(DifferencesBetween(release_.TreeAfter(winner), release_.Now()), kNoDifferences) << status;
        EXPECT_EQ(release_.Run("status"), winner == "upgrade" ? 1 : 0);
    }

    const Release release_{Entries::k3};
};

TEST_F(RacedTransactionTest, OneOfTwoDoesItsWorkAtWhateverStepTheOtherBegins) {
    if (VFS_TEST_ADDRESS_SANITIZER || VFS_TEST_THREAD_SANITIZER) {
        GTEST_SKIP() << "a sanitizer makes system calls of its own";
    }
    long races = 0;
    for (const char* const first : {"upgrade", "commit", "rollback"}) {
        release_.PrepareFor(first);
        const auto calls = static_cast<long>(
            RunTracedTree(release_.Command(first), release_.Environment(), Event(0)).calls.size());
        const long step = std::max(1L, calls / (9 * TestScale()));
        for (const char* const second : {"upgrade", "commit", "rollback", "resume"}) {
            for (long at = 1; at <= calls && !HasFailure(); at += step, ++races) RaceAt(first, second, at);
        }
    }
    std::cout << races << " races, each at a step of the first\n";
    EXPECT_GE(races, 100);
}

TEST_F(RacedTransactionTest, OneOfTwoUpgradesBegins) {
    const long races = 20 * TestScale();
    for (long race = 0; race < races && !HasFailure(); ++race) {
        release_.Restore();
        const auto upgrade = [this] { return release_.Run("upgrade"); };
        std::future<int> other = std::async(std::launch::async, upgrade);
        const int status = upgrade();
        const int otherStatus = other.get();

        EXPECT_EQ(std::min(status, otherStatus), 0);
        EXPECT_EQ(std::max(status, otherStatus), 1);
        EXPECT_EQ(DifferencesBetween(release_.newTreeWithBackups(), release_.Now()), kNoDifferences);
    }
}

}  // namespace
