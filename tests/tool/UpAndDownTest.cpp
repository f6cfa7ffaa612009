// Five releases, up and down again at random: each release's files come back exactly.

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "Package.h"
#include "Scale.h"
#include "TreeSnapshot.h"

namespace fs = std::filesystem;

namespace {

constexpr int kReleases = 5;

// Packages with some files in common, and the tree as each command has to leave it.
class UpAndDownTest : public testing::Test {
protected:
    UpAndDownTest() {
        for (int release = 0; release < kReleases; ++release) MakePackage(release);
        (void)scratch_.MakeDirectory("app/bin");
        (void)scratch_.Write("app/bin/unlisted", "nobody's business\n");
    }

    std::string ListOf(int release) const {
        return scratch_.Path("release" + std::to_string(release) + "/filelist.ini");
    }

    void MakePackage(int release) const {
        const std::string name = "release" + std::to_string(release);
        std::string entries;
        for (int file = 0; file < 8; ++file) {
            if ((release + file) % 3 == 0) continue;  // not every release has every file
            const std::string entry = "f" + std::to_string(file);
            // Some files are the same in two releases.
            const std::string content = entry + " of " + std::to_string(release / (file % 2 + 1)) + "\n";
            const std::string path = scratch_.Write(name + "/Common/" + entry, content);
            fs::permissions(path, fs::perms(0700 + release));
            entries += (entries.empty() ? "" : ",") + entry;
        }
        (void)scratch_.Write(
            name + "/filelist.ini",
            "[Package_Intall_Type]\nPackageIntallType=S\n[S]\nB=" + scratch_.Path("app/bin") +
                "\nM=" + scratch_.Path("app/made" + std::to_string(release)) + "\n[B]\nf=" + entries +
                "\n[M]\nf=" + entries.substr(0, 2) + "\n");
    }

    int Run(const std::string& command, const std::string& list = "") const {
        std::vector<std::string> words = {VFILELIST_PATH, command, "--state", scratch_.Path("state")};
        if (!list.empty()) words.push_back(list);
        return RunProcess(words, {"VLOGGER_DIRECTORY=" + scratch_.Path("log")}).exitStatus;
    }

    TreeSnapshot Now() const { return TakeSnapshot(scratch_.Path("app")); }

    void ExpectInstalled(int release) const {
        for (const auto& file : fs::directory_iterator(fs::path(ListOf(release)).parent_path() / "Common")) {
            const std::string name = file.path().filename();
            EXPECT_EQ(ReadWholeFile(file.path()), scratch_.Read("app/bin/" + name)) << name;
        }
    }

    const ScratchDirectory scratch_;
};

TEST_F(UpAndDownTest, EachReleaseComesBackExactly) {
    std::mt19937 random(1);
    const long steps = kIsSlow ? 10 : 50 * TestScale();
    for (long step = 0; step < steps && !HasFailure(); ++step) {
        const int release = static_cast<int>(random() % kReleases);
        SCOPED_TRACE(testing::Message() << "step " << step << ", release " << release);
        const TreeSnapshot before = Now();
        ASSERT_EQ(Run("upgrade", ListOf(release)), 0);
        ExpectInstalled(release);

        if (random() % 2 == 0) {
            ASSERT_EQ(Run("rollback"), 0);
            EXPECT_EQ(DifferencesBetween(before, Now()), std::vector<std::string>());
        } else {
            ASSERT_EQ(Run("commit"), 0);
            ExpectInstalled(release);
        }
    }
}

}  // namespace
