// The packed targets of a journal: to look at one, to change one, to compare them.
#ifndef VFILELIST_TESTS_TARGETS_H
#define VFILELIST_TESTS_TARGETS_H

#include <gtest/gtest.h>

#include <cstddef>
#include <vector>

#include "JournalTargets.h"

inline std::vector<JournalTarget> AllOf(const JournalTargets& targets) {
    return {targets.begin(), targets.end()};
}

template <typename Change>
void ChangeTarget(JournalTargets& targets, std::size_t index, Change change) {
    std::vector<JournalTarget> all = AllOf(targets);
    change(all.at(index));
    targets = {};
    for (const JournalTarget& target : all) targets.push_back(target);
}

inline void ExpectSame(const OldFile& read, const OldFile& written) {
    EXPECT_EQ(read.isLink, written.isLink);
    EXPECT_EQ(read.inode, written.inode);
    EXPECT_EQ(read.size, written.size);
    EXPECT_EQ(read.modified.tv_sec, written.modified.tv_sec);
    EXPECT_EQ(read.modified.tv_nsec, written.modified.tv_nsec);
    EXPECT_EQ(read.attributes, written.attributes);
}

inline void ExpectSame(const JournalTarget& read, const JournalTarget& written) {
    EXPECT_EQ(read.path, written.path);
    EXPECT_EQ(read.package.source, written.package.source);
    EXPECT_EQ(read.package.size, written.package.size);
    EXPECT_EQ(read.package.mode, written.package.mode);
    EXPECT_EQ(read.package.digest, written.package.digest);
    ASSERT_EQ(read.package.owner.has_value(), written.package.owner.has_value());
    if (read.package.owner) {
        EXPECT_EQ(read.package.owner->user, written.package.owner->user);
        EXPECT_EQ(read.package.owner->group, written.package.owner->group);
    }
    ASSERT_EQ(read.old.has_value(), written.old.has_value());
    if (read.old) ExpectSame(*read.old, *written.old);
}

#endif
