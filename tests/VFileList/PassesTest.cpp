#include "Passes.h"

#include <gtest/gtest.h>

#include <cstddef>
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

// A model of an upgrade. An old file may hold what the package's file holds, or a beginning of it.
enum class Old { kNone, kOther, kSame, kBeginning };
enum class Content { kNothing, kOld, kNew, kPart };

struct ModelFile {
    Old old;
    Content name = old == Old::kNone ? Content::kNothing : Content::kOld;
    Content backup = Content::kNothing;
};

using Model = std::vector<ModelFile>;

TargetState StateOf(const ModelFile& file) {
    if (file.name == Content::kNothing) return TargetState::kMissing;
    if (file.name == Content::kNew) return TargetState::kNew;
    if (file.name == Content::kPart) return TargetState::kPartial;
    if (file.old == Old::kOther) return TargetState::kOld;
    return file.old == Old::kSame ? TargetState::kNew : TargetState::kPartial;
}

Targets Observed(const Model& model) {
    Targets targets;
    for (const ModelFile& file : model) {
        targets.push_back({StateOf(file), file.backup != Content::kNothing});
    }
    return targets;
}

// Runs the pass, or the rollback, on the first `count` files.
void RunPass(const std::string& pass, Model& model, std::size_t count) {
    for (std::size_t i = 0; i < count; ++i) {
        ModelFile& file = model[i];
        const bool isThere = file.name != Content::kNothing;
        const bool hasBackup = file.backup != Content::kNothing;
        if (pass == "-rename" && isThere) file = {file.old, Content::kNothing, file.name};
        if (pass == "-copy") file.name = Content::kNew;
        if (pass == "-clean") file.backup = Content::kNothing;
        if (pass == "rollback" && hasBackup) file = {file.old, file.backup, Content::kNothing};
    }
}

bool IsNothingLost(const Model& model) {
    for (const ModelFile& file : model) {
        const bool isHere = file.name == Content::kOld || file.backup == Content::kOld;
        const bool isSame = file.old == Old::kSame && file.name == Content::kNew;
        if (file.old != Old::kNone && !isHere && !isSame) return false;
    }
    return true;
}

std::string Shown(const Targets& targets) {
    const char* const names[] = {"new", "partial", "old", "missing", "unknown"};
    std::string text;
    for (const TargetObservation& target : targets) {
        text += std::string(names[static_cast<int>(target.state)]) + (target.hasBackup ? "+bak " : " ");
    }
    return text;
}

// Every upgrade of up to four files.
template <typename Check>
void ForEachRelease(Check check) {
    std::vector<Model> releases = {{}};
    for (int size = 1; size <= 4; ++size) {
        std::vector<Model> longer;
        for (const Model& release : releases) {
            for (const Old old : {Old::kNone, Old::kOther, Old::kSame, Old::kBeginning}) {
                longer.push_back(release);
                longer.back().push_back({old});
            }
        }
        for (const Model& release : longer) check(release);
        releases = longer;
    }
}

// Every upgrade, cut off after every file of every pass, and in the middle of every copy.
template <typename Check>
void ForEachCutOff(Check check) {
    ForEachRelease([&check](const Model& release) {
        Model model = release;
        for (const char* const pass : {"-rename", "-copy", "-clean"}) {
            for (std::size_t count = 0; count <= release.size(); ++count) {
                Model cut = model;
                RunPass(pass, cut, count);
                check(cut, pass);
                if (pass != std::string("-copy") || count == release.size()) continue;
                cut[count].name = Content::kPart;
                check(cut, pass);
            }
            RunPass(pass, model, model.size());
        }
    });
}

// Runs the passes that are named. Returns the last report, which names none.
PassesReport FollowToTheEnd(Model& model, bool isCleanBegun) {
    PassesReport report = JudgePasses(Observed(model));
    for (int step = 0; step < 4 && !report.next.empty(); ++step) {
        isCleanBegun = isCleanBegun || report.next == "-clean";
        RunPass(report.next, model, model.size());
        EXPECT_TRUE(isCleanBegun || IsNothingLost(model)) << "after " << report.next;
        report = JudgePasses(Observed(model));
    }
    return report;
}

TEST(PassesTest, LeadsToTheEndWithoutALossWhereverAPassIsCutOff) {
    ForEachCutOff([](Model model, const std::string& pass) {
        SCOPED_TRACE(pass + " is cut off: " + Shown(Observed(model)));
        ASSERT_TRUE(pass == "-clean" || IsNothingLost(model));

        const PassesReport report = FollowToTheEnd(model, pass == "-clean");

        EXPECT_EQ(report.next, "");
        if (report.doubtful) {
            EXPECT_EQ(Observed(model)[*report.doubtful].state, TargetState::kPartial);
            EXPECT_FALSE(Observed(model)[*report.doubtful].hasBackup);
            return;
        }
        for (const ModelFile& file : model) {
            EXPECT_EQ(StateOf(file), TargetState::kNew);
            EXPECT_EQ(file.backup, Content::kNothing);
        }
    });
}

TEST(PassesTest, LosesNothingWhereverARollbackIsCutOff) {
    ForEachRelease([](const Model& release) {
        for (const bool isCopied : {false, true}) {
            for (std::size_t count = 0; count <= release.size(); ++count) {
                Model model = release;
                RunPass("-rename", model, model.size());
                if (isCopied) RunPass("-copy", model, model.size());
                RunPass("rollback", model, count);
                SCOPED_TRACE(Shown(Observed(model)));

                (void)FollowToTheEnd(model, false);
            }
        }
    });
}

TEST(PassesTest, NamesNeitherRenameNorCopyWhateverBecomesOfAFileBesideItsBackup) {
    ForEachCutOff([](const Model& model, const std::string&) {
        Targets targets = Observed(model);
        for (TargetObservation& target : targets) {
            if (!target.hasBackup) continue;
            const TargetObservation before = target;
            for (const TargetState state : {TargetState::kOld, TargetState::kUnknown}) {
                target.state = state;
                EXPECT_EQ(JudgePasses(targets).next, "") << Shown(targets);
            }
            target = before;
        }
    });
}

TEST(PassesTest, NamesTheNextPass) {
    const struct {
        Targets targets;
        const char* next;
    } cases[] = {
        {{kOldAlone, kAbsent}, "-rename"},
        {{kOldAlone, kNewAlone}, "-rename"},       // which the package does not change
        {{kPartialAlone, kAbsent}, "-rename"},     // installed before, or -copy is cut off: nothing is lost
        {{kRenamed, kOldAlone}, "-rename"},        // cut off
        {{kRenamed, kPartialAlone}, "-rename"},    // the same
        {{kAbsent, kAbsent}, "-copy"},             // nothing to rename
        {{kRenamed, kAbsent}, "-copy"},            // all that was installed is renamed
        {{kNewWithBackup, kRenamed}, "-copy"},     // cut off
        {{kPartialWithBackup, kAbsent}, "-copy"},  // the same
        {{kNewWithBackup, kNewAlone}, "-clean"},
        {{kNewAlone, kNewAlone}, ""},
        {{}, ""},
    };
    for (const auto& row : cases) {
        const PassesReport report = JudgePasses(row.targets);
        EXPECT_EQ(report.next, row.next) << Shown(row.targets);
        EXPECT_FALSE(report.doubtful);
        EXPECT_EQ(report.reason, "");
    }
}

TEST(PassesTest, NamesTheFirstFileThatIsInDoubtInsteadOfAPass) {
    const struct {
        Targets targets;
        std::size_t doubtful;
        const char* reason;
    } cases[] = {
        {{kNewWithBackup, kOldWithBackup},
         1,
         "it was changed after -copy, or the backup is that of an earlier"},
        {{kRenamed, kOldWithBackup, kOldWithBackup}, 1, "it was changed after -copy, or the backup is that"},
        {{kOldWithBackup}, 0, "it is not the package's file and has a NAME.bak"},
        {{kOldAlone, kNewWithBackup}, 0, "changed after -copy, or a rollback has restored it"},
        {{kPartialAlone, kPartialWithBackup}, 0, "-copy has not finished it, or it was installed before"},
        {{kOldAlone, kUnknownAlone}, 1, "it can't be compared with the package's file"},
        {{kUnknownWithBackup}, 0, "it can't be compared with the package's file"},
    };
    for (const auto& row : cases) {
        const PassesReport report = JudgePasses(row.targets);
        SCOPED_TRACE(Shown(row.targets));
        EXPECT_EQ(report.next, "");
        EXPECT_EQ(report.doubtful, row.doubtful);
        EXPECT_NE(report.reason.find(row.reason), std::string::npos) << report.reason;
        for (const PassState state : {report.rename, report.copy, report.clean}) {
            EXPECT_EQ(state, PassState::kUnknown);
        }
    }
}

TEST(PassesTest, NamesNoPassBesideABackupThatIsInDoubt) {
    for (const TargetState state : {TargetState::kNew, TargetState::kOld, TargetState::kMissing}) {
        for (const BackupDoubt doubt : {BackupDoubt::kEarlier, BackupDoubt::kSameFile, BackupDoubt::kListed,
                                        BackupDoubt::kUnreadable}) {
            TargetObservation target{state, true, false, doubt};
            const PassesReport report = JudgePasses({kNewWithBackup, target});
            EXPECT_EQ(report.next, "");
            EXPECT_EQ(report.doubtful, 1u);
            EXPECT_EQ(report.reason,
                      doubt == BackupDoubt::kEarlier
                          ? "NAME.bak is older than the package: it was there before this upgrade"
                          : "NAME.bak is not a backup, or can't be looked at");
        }
    }
}

TEST(PassesTest, NothingIsLeftToCleanInADanglingLink) {
    TargetObservation dangling = kNewWithBackup;
    dangling.isBackupDangling = true;

    EXPECT_EQ(JudgePasses({dangling, kNewAlone}).clean, PassState::kComplete);
    EXPECT_EQ(JudgePasses({dangling, kNewWithBackup}).next, "-clean");
}

TEST(PassesTest, ReportsTheStatesOfThePasses) {
    EXPECT_EQ(JudgePasses({kOldAlone}).rename, PassState::kIncomplete);
    EXPECT_EQ(JudgePasses({kOldAlone}).copy, PassState::kIncomplete);
    EXPECT_EQ(JudgePasses({kRenamed}).rename, PassState::kComplete);
    EXPECT_EQ(JudgePasses({kRenamed}).copy, PassState::kIncomplete);
    EXPECT_EQ(JudgePasses({kNewWithBackup}).copy, PassState::kComplete);
    EXPECT_EQ(JudgePasses({kNewWithBackup}).clean, PassState::kIncomplete);
    EXPECT_EQ(JudgePasses({kNewAlone}).clean, PassState::kComplete);
}

}  // namespace
