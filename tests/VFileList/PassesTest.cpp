#include "Passes.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

const TargetObservation kNewWithBackup{TargetState::kNew, true};
const TargetObservation kNewAlone{TargetState::kNew, false};
const TargetObservation kPartialWithBackup{TargetState::kPartial, true};
const TargetObservation kPartialAlone{TargetState::kPartial, false};
const TargetObservation kOldWithBackup{TargetState::kOld, true};
const TargetObservation kOldAlone{TargetState::kOld, false};
const TargetObservation kRenamed{TargetState::kMissing, true};
const TargetObservation kAbsent{TargetState::kMissing, false};
const TargetObservation kUnknownAlone{TargetState::kUnknown, false};
const TargetObservation kUnknownWithBackup{TargetState::kUnknown, true};

using Targets = std::vector<TargetObservation>;

// The order in which an upgrade makes things.
constexpr Moment kInstallation = 1;
constexpr Moment kRename = 2;
constexpr Moment kCopy = 3;

TargetObservation WithTimes(TargetObservation target, Moment born) {
    target.born = target.state == TargetState::kMissing ? 0 : born;
    target.backedUp = target.hasBackup ? kRename : 0;
    return target;
}

// What stood under a target's name before the upgrade.
enum class Before { kNothing, kOther, kSame, kBeginning };

// Every upgrade of up to four targets, cut off at every place: what is there then, and what is known about
// it.
struct Situation {
    Targets targets;
    std::string next;             // the pass to run next
    std::vector<bool> isBrought;  // by -copy, where nothing had been
};

bool Stood(Before before) {
    return before != Before::kNothing;
}

TargetObservation Untouched(Before before) {
    switch (before) {
        case Before::kOther:
            return kOldAlone;
        case Before::kSame:
            return kNewAlone;
        case Before::kBeginning:
            return kPartialAlone;
        case Before::kNothing:
            break;
    }
    return kAbsent;
}

Situation DuringRename(const std::vector<Before>& release, std::size_t progress) {
    Situation situation{{}, "-copy", std::vector<bool>(release.size(), false)};
    for (std::size_t i = 0; i < release.size(); ++i) {
        const bool isMoved = i < progress && Stood(release[i]);
        situation.targets.push_back(WithTimes(isMoved ? kRenamed : Untouched(release[i]), kInstallation));
        if (Stood(release[i]) && !isMoved) situation.next = "-rename";
    }
    return situation;
}

Situation DuringCopy(const std::vector<Before>& release, std::size_t progress, bool isCutOff) {
    Situation situation{{}, "-copy", {}};
    for (std::size_t i = 0; i < release.size(); ++i) {
        const bool hasBackup = Stood(release[i]);
        TargetState state = i < progress ? TargetState::kNew : TargetState::kMissing;
        if (i == progress && isCutOff) state = TargetState::kPartial;
        situation.targets.push_back(WithTimes({state, hasBackup}, kCopy));
        situation.isBrought.push_back(state == TargetState::kNew && !hasBackup);
    }
    if (progress == release.size()) situation.next = "-clean";
    return situation;
}

Situation DuringClean(const std::vector<Before>& release, std::size_t progress) {
    Situation situation{{}, "", std::vector<bool>(release.size(), false)};
    for (std::size_t i = 0; i < release.size(); ++i) {
        const bool hasBackup = i >= progress && Stood(release[i]);
        situation.targets.push_back(WithTimes({TargetState::kNew, hasBackup}, kCopy));
        if (hasBackup) situation.next = "-clean";
    }
    return situation;
}

// Of a complete -copy.
Targets DuringRollback(const std::vector<Before>& release, std::size_t progress) {
    Targets targets;
    for (std::size_t i = 0; i < release.size(); ++i) {
        const bool isRestored = i < progress && Stood(release[i]);
        targets.push_back(isRestored ? WithTimes(Untouched(release[i]), kInstallation)
                                     : WithTimes({TargetState::kNew, Stood(release[i])}, kCopy));
    }
    return targets;
}

template <typename Check>
void ForEachRelease(Check check) {
    const Before all[] = {Before::kNothing, Before::kOther, Before::kSame, Before::kBeginning};
    std::vector<std::vector<Before>> releases = {{}};
    for (int size = 1; size <= 4; ++size) {
        std::vector<std::vector<Before>> longer;
        for (const auto& release : releases) {
            for (const Before before : all) {
                longer.push_back(release);
                longer.back().push_back(before);
            }
        }
        for (const auto& release : longer) check(release);
        releases = longer;
    }
}

std::string Shown(const Targets& targets) {
    const char* const names[] = {"new", "partial", "old", "missing", "unknown"};
    std::string text;
    for (const TargetObservation& target : targets) {
        text += std::string(names[static_cast<int>(target.state)]) + (target.hasBackup ? "+bak " : " ");
    }
    return text;
}

bool HasBackup(const Targets& targets) {
    for (const TargetObservation& target : targets) {
        if (target.hasBackup) return true;
    }
    return false;
}

TEST(PassesTest, KnowsTheNextPassWhereverRenameIsCutOff) {
    ForEachRelease([](const std::vector<Before>& release) {
        for (std::size_t progress = 0; progress <= release.size(); ++progress) {
            const Situation situation = DuringRename(release, progress);
            const PassesReport report = JudgePasses(situation.targets);
            SCOPED_TRACE(Shown(situation.targets));

            bool isAllSame = true;
            for (const auto& target : situation.targets)
                isAllSame = isAllSame && target.state == TargetState::kNew;
            // An upgrade that would change nothing looks like one that is finished.
            EXPECT_EQ(report.next, isAllSame ? "" : situation.next);
        }
    });
}

TEST(PassesTest, KnowsTheNextPassWhereverCopyIsCutOff) {
    ForEachRelease([](const std::vector<Before>& release) {
        for (std::size_t progress = 0; progress <= release.size(); ++progress) {
            for (const bool isCutOff : {false, true}) {
                const Situation situation =
                    DuringCopy(release, progress, isCutOff && progress < release.size());
                const PassesReport report = JudgePasses(situation.targets);
                SCOPED_TRACE(Shown(situation.targets));

                if (HasBackup(situation.targets)) {
                    EXPECT_EQ(report.next, situation.next);
                } else if (progress == release.size()) {
                    EXPECT_EQ(report.next, "") << "nothing had a predecessor: there is nothing to clean";
                } else if (progress > 0 || isCutOff) {
                    // Installed files that don't change, or new ones: -rename does no harm in either case.
                    EXPECT_EQ(report.next, "-rename");
                    EXPECT_EQ(report.rename, PassState::kUnknown);
                } else {
                    EXPECT_EQ(report.next, "-copy");
                }
            }
        }
    });
}

TEST(PassesTest, KnowsTheNextPassWhereverCleanIsCutOff) {
    ForEachRelease([](const std::vector<Before>& release) {
        for (std::size_t progress = 0; progress <= release.size(); ++progress) {
            const Situation situation = DuringClean(release, progress);
            SCOPED_TRACE(Shown(situation.targets));
            EXPECT_EQ(JudgePasses(situation.targets).next, situation.next);
        }
    });
}

TEST(PassesTest, NeverNamesRenameWhileAFileStandsBesideItsBackup) {
    const Targets all = {kNewWithBackup,     kNewAlone,    kPartialWithBackup, kPartialAlone,
                         kOldWithBackup,     kOldAlone,    kRenamed,           kAbsent,
                         kUnknownWithBackup, kUnknownAlone};
    const Targets overwritable = {kNewWithBackup, kPartialWithBackup, kOldWithBackup, kUnknownWithBackup};
    for (const auto& first : all) {
        for (const auto& second : all) {
            for (const auto& third : all) {
                for (const auto& copied : overwritable) {
                    const Targets targets = {first, second, copied, third};
                    EXPECT_NE(JudgePasses(targets).next, "-rename") << Shown(targets);
                }
            }
        }
    }
}

// Calls `check` with the targets, one of which is not any more what the passes left.
template <typename Check>
void ForEachChange(const Targets& targets, Check check) {
    for (std::size_t i = 0; i < targets.size(); ++i) {
        for (const TargetState state : {TargetState::kOld, TargetState::kUnknown, TargetState::kMissing}) {
            Targets changed = targets;
            changed[i].state = state;
            check(changed);
        }
    }
}

TEST(PassesTest, NamesNoPassThatDestroysABackupWhateverBecomesOfAFileAfterCopyOrClean) {
    ForEachRelease([](const std::vector<Before>& release) {
        for (std::size_t progress = 0; progress <= release.size(); ++progress) {
            const Situation situations[] = {DuringCopy(release, progress, false),
                                            DuringClean(release, progress)};
            for (const Situation& situation : situations) {
                ForEachChange(situation.targets, [](const Targets& targets) {
                    const std::string next = JudgePasses(targets).next;
                    for (const TargetObservation& target : targets) {
                        const bool isForeign =
                            target.state == TargetState::kOld || target.state == TargetState::kUnknown;
                        if (!target.hasBackup || !isForeign) continue;
                        EXPECT_EQ(next, "") << Shown(targets);
                    }
                });
            }
        }
    });
}

TEST(PassesTest, FilesThatFitNoPassLeaveTheDecisionToPeople) {
    const Targets cases[] = {
        {kNewWithBackup, kOldWithBackup},  // changed after -copy, or backups of an earlier upgrade
        {kNewWithBackup, kOldAlone},       // a new file that was changed
        {kOldWithBackup, kRenamed},        // made after -rename had passed
        {kNewWithBackup, kUnknownAlone},
        {kOldWithBackup},             // changed after -copy, or not begun beside an old backup
        {kOldWithBackup, kNewAlone},  // the same, and a file that had no predecessor
        {kUnknownWithBackup},         // the package has lost its own file
        {kRenamed, kNewWithBackup},   // removed after -copy, or an old backup behind a -rename cut off
        {kRenamed, kPartialWithBackup},
        {kRenamed, kOldWithBackup},  // -rename or -copy, cut off
    };
    for (const Targets& targets : cases) {
        const PassesReport report = JudgePasses(targets);
        EXPECT_EQ(report.next, "") << Shown(targets);
        EXPECT_EQ(report.rename, PassState::kUnknown) << Shown(targets);
        EXPECT_NE(report.reason, "") << Shown(targets);
    }
}

TEST(PassesTest, NamesNoPassThatWouldWriteOverARestoredFile) {
    ForEachRelease([](const std::vector<Before>& release) {
        for (std::size_t progress = 1; progress <= release.size(); ++progress) {
            const Targets targets = DuringRollback(release, progress);
            for (std::size_t i = 0; i < progress; ++i) {
                if (release[i] != Before::kBeginning || !HasBackup(targets)) continue;
                EXPECT_EQ(JudgePasses(targets).next, "") << Shown(targets);
            }
        }
    });
}

TEST(PassesTest, GoesOnWithAnUnfinishedCopyOfAFileWithoutPredecessorBeforeFilesOfAnEarlierTry) {
    const Targets targets = {WithTimes(kNewWithBackup, kCopy), WithTimes(kPartialAlone, kCopy),
                             WithTimes(kNewWithBackup, kCopy)};

    EXPECT_EQ(JudgePasses(targets).next, "-copy");
}

TEST(PassesTest, WantsNoCopyOverARestoredFileWhileTheOthersAreStillRenamed) {
    const Targets targets = {WithTimes(kPartialAlone, kInstallation), WithTimes(kRenamed, 0)};

    EXPECT_EQ(JudgePasses(targets).next, "");
}

TEST(PassesTest, NamesNothingForABackupThatIsNone) {
    TargetObservation doubtful = kOldAlone;
    doubtful.isBackupDoubtful = true;
    for (const TargetState state : {TargetState::kNew, TargetState::kOld, TargetState::kMissing}) {
        doubtful.state = state;
        EXPECT_EQ(JudgePasses({kNewWithBackup, doubtful}).next, "");
        EXPECT_NE(JudgePasses({doubtful}).reason, "");
    }
}

TEST(PassesTest, NothingIsLeftToCleanInALinkThatPointsNowhere) {
    TargetObservation dangling = kNewWithBackup;
    dangling.isBackupDangling = true;

    EXPECT_EQ(JudgePasses({dangling, kNewAlone}).clean, PassState::kComplete);
    EXPECT_EQ(JudgePasses({dangling, kNewWithBackup}).next, "-clean");
    EXPECT_FALSE(WasBroughtByCopy({dangling, kNewAlone}, 1)) << "-clean may have been through";
    EXPECT_TRUE(WasBroughtByCopy({dangling, kNewAlone, kNewWithBackup}, 1));
}

TEST(PassesTest, WithoutTargetsEverythingIsComplete) {
    const PassesReport report = JudgePasses({});
    EXPECT_EQ(report.clean, PassState::kComplete);
    EXPECT_EQ(report.next, "");
}

TEST(PassesTest, TellsTheStatesOfThePasses) {
    EXPECT_EQ(JudgePasses({kOldAlone}).rename, PassState::kIncomplete);
    EXPECT_EQ(JudgePasses({kRenamed}).rename, PassState::kComplete);
    EXPECT_EQ(JudgePasses({kRenamed}).copy, PassState::kIncomplete);
    EXPECT_EQ(JudgePasses({kNewWithBackup}).copy, PassState::kComplete);
    EXPECT_EQ(JudgePasses({kNewWithBackup}).clean, PassState::kIncomplete);
    EXPECT_EQ(JudgePasses({kNewAlone}).clean, PassState::kComplete);
}

TEST(PassesTest, TakesNoInstalledFileForOneThatCopyBrought) {
    ForEachRelease([](const std::vector<Before>& release) {
        for (std::size_t progress = 0; progress <= release.size(); ++progress) {
            const Situation situation = DuringRename(release, progress);
            for (std::size_t i = 0; i < release.size(); ++i) {
                EXPECT_FALSE(WasBroughtByCopy(situation.targets, i)) << Shown(situation.targets) << i;
            }
        }
    });
}

TEST(PassesTest, TakesNoRestoredFileForOneThatCopyBrought) {
    ForEachRelease([](const std::vector<Before>& release) {
        for (std::size_t progress = 0; progress <= release.size(); ++progress) {
            const Targets targets = DuringRollback(release, progress);
            for (std::size_t i = 0; i < release.size(); ++i) {
                if (!Stood(release[i])) continue;
                EXPECT_FALSE(WasBroughtByCopy(targets, i)) << Shown(targets) << i;
            }
        }
    });
}

TEST(PassesTest, KnowsTheFilesThatCopyBroughtWhileABackupIsLeft) {
    ForEachRelease([](const std::vector<Before>& release) {
        for (std::size_t progress = 0; progress <= release.size(); ++progress) {
            const Situation situation = DuringCopy(release, progress, progress < release.size());
            for (std::size_t i = 0; i < release.size(); ++i) {
                EXPECT_EQ(WasBroughtByCopy(situation.targets, i),
                          situation.isBrought[i] && HasBackup(situation.targets))
                    << Shown(situation.targets) << i;
            }
        }
    });
}

}  // namespace
