// An upgrade by a long list, with all that a list may hold, that is killed at a sample of its system calls:
// the invariants of an upgrade hold, and the same pass again ends well.

#include <unistd.h>

#include <algorithm>
#include <iostream>
#include <iterator>
#include <numeric>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "KilledUpgrade.h"
#include "Scale.h"

namespace {

struct Key {
    std::string section;
    std::string directory;
    std::string entries;
};

// In the order in which the passes visit them: 40 entries, of which one stands there twice (bin/b04) and two
// are overwritten by a later one (b03 and, from another list, l02). The last two digits of a name set its
// size.
const std::vector<Key> kKeys = {
    {"Bin", "bin", "bin/b01,bin/b02,bin/b03,bin/b04,bin/b05,bin/b06,bin/b07,bin/b08"},
    {"Bin", "bin", ""},
    {"Bin", "bin", "bin/b09,bin/b10,other/b03,bin/b04,bin/b11,bin/b12"},
    {"Conf", "etc/app", ""},
    {"Conf", "etc/app", "conf/c01,conf/deep/c02,conf/c03,conf/c04"},
    {"Conf", "etc/app", "conf/c05,conf/c06,conf/c07"},
    {"Lib", "lib", "lib/l01,lib/l02,lib/l03,lib/l04,lib/l05,lib/l06,lib/l07,lib/l08,lib/l09"},
    {"Made", "made/here", "made/m01,made/m02,made/m03,made/m04,made/m05"},
    {"Made", "made/here", ""},
    {"More", "lib", "more/n01,more/n02,more/l02,more/n03,more/n04"}};
const std::set<std::string> kWithoutPredecessor = {
    "bin/b06",       "bin/b12",       "etc/app/c04",   "lib/l07",       "lib/n01",
    "made/here/m01", "made/here/m02", "made/here/m03", "made/here/m04", "made/here/m05"};
constexpr std::size_t kTargets = 37;
constexpr std::size_t kPredecessors = 27;

std::vector<std::string> Split(const std::string& entries) {
    std::vector<std::string> split;
    for (std::size_t begin = 0; begin < entries.size();) {
        const std::size_t end = std::min(entries.find(',', begin), entries.size());
        split.push_back(entries.substr(begin, end - begin));
        begin = end + 1;
    }
    return split;
}

std::size_t NumberOf(const std::string& name) {
    return std::stoul(name.substr(name.size() - 2));
}

std::size_t SizeOf(std::size_t number) {
    const std::size_t sizes[] = {17, 0, 300, 4096, 9000};
    return sizes[number % std::size(sizes)];
}

class KilledLongUpgradeTest : public KilledUpgrade {
protected:
    KilledLongUpgradeTest() {
        Bring();
        InstallOldRelease();
        WriteList();
        brought_ = PackageFiles();
        made_ = {"made/", "made/here/"};
    }

    void Bring() {
        int step = 0;
        for (const Key& key : kKeys) {
            for (const std::string& entry : Split(key.entries)) {
                const std::string content = Pattern(SizeOf(NumberOf(entry)), step++ % 22 + 1);
                package_.Bring(entry, content);
                new_[key.directory + entry.substr(entry.rfind('/'))] = content;
            }
        }
    }

    // Every fourth file is one that the package does not change.
    void InstallOldRelease() {
        const uid_t users[] = {geteuid(), geteuid() == 0 ? 65534 : geteuid()};
        const gid_t groups[] = {getegid(), geteuid() == 0 ? 65534 : getegid()};
        const mode_t modes[] = {0755, 0640, 0444, 04711, 0600};
        for (const auto& [name, content] : new_) {
            if (kWithoutPredecessor.count(name) == 1) continue;
            const std::size_t number = NumberOf(name);
            const std::string old = "old " + name + Pattern(SizeOf(number + 1), 3);
            old_[name] = {number % 4 == 0 ? content : old, modes[number % 5], users[number % 2],
                          groups[number % 2]};
        }
        // Names close to those that the list names.
        for (const char* name :
             {"bin/b", "bin/b99.bak", "etc/c01", "lib/l01.bak.bak", "lib/sub/l02", "m01"}) {
            old_[name] = {"nobody's business", 0751, users[1], groups[1]};
        }
        Restore(old_);
        old_ = Installed();  // the directories too
    }

    void WriteList() const {
        std::string directories = "[Server]\n";
        std::string lists;
        for (std::size_t i = 0; i < kKeys.size(); ++i) {
            const bool isNewSection = i == 0 || kKeys[i].section != kKeys[i - 1].section;
            if (isNewSection) {
                directories += kKeys[i].section + "=@/" + kKeys[i].directory + '\n';
                lists += '[' + kKeys[i].section + "]\n";
            }
            lists += 'f' + std::to_string(i) + '=' + kKeys[i].entries + '\n';
        }
        package_.WriteList(directories + lists);
    }

    Tree PackageFiles() const { return ReadTree(package_.scratch().Path("package")); }

    // What the passes before `pass` make of the old release.
    Tree StartOf(const std::string& pass) const {
        Restore(old_);
        for (const char* before : {"-rename", "-copy"}) {
            if (before == pass) break;
            RunPassWhole(before);
        }
        return Installed();
    }

    // The numbers of the pass's system calls, without those of its start: the short list has them.
    std::vector<long> SystemCallsOf(const std::string& pass) const {
        const long startUpCalls = RunKilled({TOOL_PATH}, 0).systemCalls - 20;
        const long systemCalls = RunKilled(Pass(pass), 0).systemCalls;
        std::vector<long> all(static_cast<std::size_t>(systemCalls - startUpCalls));
        std::iota(all.begin(), all.end(), startUpCalls + 1);
        return all;
    }

    // Kills the pass before `count` of its system calls, or before all of them if it has no more. The scale
    // of the tests multiplies `count`.
    Swept SweepSample(const std::string& pass, long count) const {
        const Tree start = StartOf(pass);
        const std::vector<long> all = SystemCallsOf(pass);
        std::vector<long> sample;
        std::minstd_rand random(20261121);
        std::sample(all.begin(), all.end(), std::back_inserter(sample), count * TestScale(), random);

        const auto check = [&](const auto&) {
            ExpectRepeatEndsWell(pass);
            EXPECT_EQ(package_.Run("verify", {"--expect", "cleaned"}).exitStatus, 0);
            EXPECT_EQ(PackageFiles(), brought_);
        };
        const Killing killing = {Pass(pass), [&] { Restore(start); }, check};
        std::set<Tree> seen;
        long kills = 0;
        for (const long killAt : sample) {
            if (HasFailure()) break;
            kills += KillOnce(killing, killAt, seen) ? 1 : 0;
        }
        std::cout << pass << ", 40 entries: killed at system calls " << all.front() << " to " << all.back()
                  << ", " << kills << " of " << all.size() << ", " << seen.size() << " different states\n";
        return {kills, seen.size()};
    }

    Tree brought_;  // the package
};

TEST_F(KilledLongUpgradeTest, TheListHasAllThatAListMayHave) {
    std::size_t entries = 0;
    for (const Key& key : kKeys) entries += Split(key.entries).size();
    std::size_t predecessors = 0;
    for (const auto& [name, file] : old_) predecessors += IsListed(name) ? 1U : 0U;

    EXPECT_EQ(entries, 40u);
    EXPECT_EQ(new_.size(), kTargets);
    EXPECT_EQ(predecessors, kPredecessors);
}

// How many system calls there are, and in how many pieces a file is written, depends on the C library; the
// floors are about nine tenths of what Debian 12 has. The states of -rename and -clean depend on the list
// alone.
TEST_F(KilledLongUpgradeTest, NothingIsLostWhereverRenameIsKilled) {
    SKIP_WITHOUT_TRACING();
    const Swept swept = SweepSample("-rename", 200);
    EXPECT_EQ(swept.states, kPredecessors + 1);
    EXPECT_GE(swept.systemCalls, 170);
}

TEST_F(KilledLongUpgradeTest, NothingIsLostWhereverCopyIsKilled) {
    SKIP_WITHOUT_TRACING();
    const Swept swept = SweepSample("-copy", 750);
    EXPECT_GE(swept.states, 75u);
    EXPECT_GE(swept.systemCalls, 675);
}

TEST_F(KilledLongUpgradeTest, TheNewReleaseStandsWhereverCleanIsKilled) {
    SKIP_WITHOUT_TRACING();
    const Swept swept = SweepSample("-clean", 200);
    EXPECT_EQ(swept.states, kPredecessors + 1);
    EXPECT_GE(swept.systemCalls, 170);
}

}  // namespace
