#include "JournalTargets.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <malloc.h>

#include <iterator>
#include <limits>
#include <string>
#include <vector>

#include "Targets.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

// With the largest and the least values, with texts of all bytes, and with nothing.
std::vector<JournalTarget> OddTargets() {
    std::string bytes;
    for (int byte = 0; byte < 256; ++byte) bytes += static_cast<char>(byte);
    JournalTarget full{"/" + bytes,
                       {std::string(70000, 's'),
                        std::numeric_limits<off_t>::max(),
                        07777,
                        {1, 2, 255},
                        Owner{std::numeric_limits<uid_t>::max(), std::numeric_limits<gid_t>::max()}},
                       OldFile{true,
                               std::numeric_limits<ino_t>::max(),
                               std::numeric_limits<off_t>::max(),
                               {std::numeric_limits<std::time_t>::min(), 999999999},
                               {07777, 4294967295U, 4294967294U, {{"user.a", bytes}, {"", ""}}}}};
    JournalTarget fresh{"fresh", {"source", 1, 0644, {}, Owner{5, 6}}, std::nullopt};
    JournalTarget known{"known", {"source", 0, 0, {}}, OldFile{false, 1, 2, {3, 4}, {5, 6, 7, {}}}};
    return {full, {}, fresh, known};
}

TEST(JournalTargetsTest, GivesBackWhatWasAdded) {
    const std::vector<JournalTarget> added = OddTargets();
    JournalTargets targets;
    for (const JournalTarget& target : added) targets.push_back(target);

    const std::vector<JournalTarget> found = AllOf(targets);
    ASSERT_EQ(found.size(), added.size());
    EXPECT_EQ(targets.size(), added.size());
    for (std::size_t i = 0; i < found.size(); ++i) ExpectSame(found[i], added[i]);
}

TEST(JournalTargetsTest, KeepsTheOrderAcrossBlocks) {
    JournalTargets targets;
    std::vector<std::string> added;
    for (int i = 0; i < 5000; ++i) {
        added.push_back("/opt/application/" + std::to_string(i));
        targets.push_back({added.back(), {}, i % 3 == 0 ? std::optional<OldFile>() : OldFile()});
    }
    std::vector<std::string> found;
    for (const JournalTarget& target : targets) found.push_back(target.path);
    EXPECT_EQ(found, added);
}

TEST(JournalTargetsTest, HaveNothingAtFirst) {
    const JournalTargets targets;
    EXPECT_EQ(targets.size(), 0U);
    EXPECT_THAT(AllOf(targets), IsEmpty());
}

TEST(JournalTargetsTest, StandOnOneTargetAtATime) {
    const JournalTargets targets = {{"a", {}, std::nullopt}, {"b", {}, std::nullopt}};
    const JournalTargets::Iterator second = std::next(targets.begin());
    EXPECT_EQ((*second).path, "b");
    EXPECT_TRUE(targets.begin() != second);
    EXPECT_TRUE(targets.begin() == targets.begin());
    EXPECT_TRUE(std::next(second) == targets.end());
}

TEST(JournalTargetsTest, AreWalkedThroughFromTheBeginningEachTime) {
    const JournalTargets targets = {{"a", {}, std::nullopt}, {"b", {}, std::nullopt}};
    const auto paths = [&targets] {
        std::vector<std::string> found;
        for (const JournalTarget& target : targets) found.push_back(target.path);
        return found;
    };
    EXPECT_THAT(paths(), ElementsAre("a", "b"));
    EXPECT_THAT(paths(), ElementsAre("a", "b"));
}

TEST(JournalTargetsTest, TakeLessThan150BytesEachBesideTheirPaths) {
    constexpr std::size_t kTargets = 20000;
    const JournalTarget target{std::string(40, 'p'), {std::string(40, 's')}, OldFile()};
    const auto used = [] {
        const struct mallinfo2 heap = mallinfo2();  // nothing but zeros with a sanitizer's heap
        return heap.uordblks + heap.hblkhd;
    };
    const std::size_t before = used();
    JournalTargets targets;
    for (std::size_t i = 0; i < kTargets; ++i) targets.push_back(target);
    EXPECT_LT((used() - before) / kTargets, 80U + 120U);
}

}  // namespace
