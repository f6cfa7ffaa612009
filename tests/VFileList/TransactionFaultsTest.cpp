// Each call that a command of the transaction and its passes make fails, once or from then on, or all of them
// are killed before it; one resume later the tree is the old one or the new one. No tracer takes part, which
// an emulator would not have.

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <exception>
#include <functional>
#include <iostream>
#include <memory>
#include <new>
#include <string>
#include <type_traits>
#include <vector>

#include "Process.h"
#include "Release.h"
#include "Sanitizer.h"
#include "Scale.h"
#include "SystemCalls.h"

namespace {

#define VFS_TEST_NAME(result, name, parameters, arguments) #name,
const char* const kCalls[] = {VFS_TEST_SYSTEM_CALLS(VFS_TEST_NAME) VFS_TEST_FILE_LIST_CALLS(VFS_TEST_NAME)};
#undef VFS_TEST_NAME
constexpr std::size_t kCallCount = std::size(kCalls);

// At how many places each call fails.
constexpr long kPlaces = kIsSlow ? 2 : 8;

struct Fault {
    std::size_t call = kCallCount;
    long number = 0;  // the first one is 1
    bool isOnwards = false;
    int error = 0;
    long killAt =
        0;  // before this one of the calls that may change something the whole process group is killed
};

// To be killed before another call is to be killed before the next one of these. How many others there are
// differs from run to run, since a command looks after its passes while they are at work.
bool MayChange(const std::string& call) {
    for (const char* const change :
         {"close",        "fchmod",    "fchown",    "fclose", "fflush",   "fopen",  "fopen64", "fork",
          "fremovexattr", "fsetxattr", "fsync",     "fwrite", "lchown",   "linkat", "mkdir",   "open",
          "remove",       "rename",    "renameat2", "rmdir",  "sendfile", "unlink", "write",   "writev"}) {
        if (call == change) return true;
    }
    return false;
}

// In memory that the passes share.
struct Counters {
    std::atomic<long> changes;
    std::atomic<long> calls[kCallCount];
};

class Gates {
public:
    Gates();
    ~Gates() { (void)munmap(counters_, sizeof *counters_); }
    Gates(const Gates&) = delete;
    Gates& operator=(const Gates&) = delete;

    // Lets the fault happen while `command` runs.
    void Run(const Fault& fault, const std::function<void()>& command) {
        fault_ = fault;
        counters_->changes = 0;
        for (std::atomic<long>& count : counters_->calls) count = 0;
        isOpen_ = true;
        command();
        isOpen_ = false;
    }
    long CountOfChanges() const { return counters_->changes; }
    long CountOf(std::size_t call) const { return counters_->calls[call]; }

private:
    template <typename Result, typename... Parameters>
    void Add(std::size_t call, calls::Hook<Result(Parameters...)>& hook, Result (*real)(Parameters...));
    bool IsDue(std::size_t call) {
        if (!isOpen_) return false;
        if (MayChange(kCalls[call]) && ++counters_->changes == fault_.killAt) (void)kill(0, SIGKILL);
        const long number = ++counters_->calls[call];
        if (call != fault_.call || number < fault_.number) return false;
        return number == fault_.number || fault_.isOnwards;
    }

    Counters* const counters_;
    Fault fault_;
    bool isOpen_ = false;
    std::vector<std::shared_ptr<void>> gates_;
};

template <typename Result>
Result Failure() {
    if constexpr (std::is_pointer_v<Result>) {
        return nullptr;
    } else if constexpr (std::is_unsigned_v<Result>) {
        return 0;  // nothing was read or written
    } else {
        return -1;
    }
}

template <typename Result, typename... Parameters>
void Gates::Add(std::size_t call, calls::Hook<Result(Parameters...)>& hook, Result (*real)(Parameters...)) {
    const auto gate = [this, call, before = hook, real](Parameters... parameters) {
        const bool isDue = IsDue(call);
        const bool isClosing =
            std::strcmp(kCalls[call], "close") == 0 || std::strcmp(kCalls[call], "fclose") == 0;
        // What is closed is closed, whatever is said of it.
        if (isDue && isClosing) (void)real(parameters...);
        if (isDue) {
            errno = fault_.error;
            const bool isCrypto = std::strncmp(kCalls[call], "EVP_", 4) == 0;
            return isCrypto ? Result{} : Failure<Result>();
        }
        return before.replacement != nullptr ? before(parameters...) : real(parameters...);
    };
    gates_.push_back(std::make_shared<Replaced<calls::Hook<Result(Parameters...)>>>(hook, gate));
}

Gates::Gates()
    : counters_(new (mmap(nullptr, sizeof(Counters), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1,
                          0)) Counters()) {
    std::size_t call = 0;
#define VFS_TEST_ADD_GATE(result, name, parameters, arguments) Add(call++, calls::name, &calls::real::name);
    VFS_TEST_SYSTEM_CALLS(VFS_TEST_ADD_GATE)
    VFS_TEST_FILE_LIST_CALLS(VFS_TEST_ADD_GATE)
#undef VFS_TEST_ADD_GATE
}

// A release in a state from which the command begins, and the trees that it may lead to.
struct Scene {
    Scene() = default;

    void Upgrade() {
        ASSERT_EQ(release.StatusOf(&::Upgrade), 0);
        installed = release.Now();
    }

    Release release;
    Tree installed;
    const Replaced<calls::Hook<int(int)>> noSync{calls::fsync, [](int) { return 0; }};
};

struct Sweep {
    Release::Command command;
    std::function<void(Scene&)> prepare;
    // Looks at what came of it after a resume: "" or what is wrong.
    std::function<std::string(const Scene&, const std::string& state)> judge;
};

// Which calls can't fail, and which only once: a pass that can't be waited for at all is killed, but may be
// at work until it is dead.
bool CanFail(const std::string& call, bool isOnwards) {
    for (const char* const other :
         {"clock_gettime", "geteuid", "getegid", "getppid", "isatty", "sigtimedwait", "setvbuf"}) {
        if (call == other) return false;
    }
    return !isOnwards || call != "waitpid";
}

std::string Described(const Fault& fault) {
    return std::string(kCalls[fault.call]) + " number " + std::to_string(fault.number) +
           (fault.isOnwards ? " and all after it: " : ": ") + std::strerror(fault.error);
}

int RunCommand(const Release& release, Release::Command command) {
    TransactionOptions options = release.Options();
    if (command != &::Upgrade) options.iniPath.clear();
    Output output(true);
    try {
        return command(options, output);
    } catch (const std::exception&) {
        return kWrongUse;
    }
}

// In a process group of its own; comes back when all its processes are gone.
bool IsKilled(const std::function<void()>& command) {
    int ends[2] = {-1, -1};
    EXPECT_EQ(pipe(ends), 0);
    const pid_t child = fork();
    EXPECT_GE(child, 0);
    if (child == 0) {
        (void)setpgid(0, 0);
        command();
        _exit(0);
    }
    (void)close(ends[1]);
    char byte = 0;
    EXPECT_EQ(read(ends[0], &byte, 1), 0);  // the last one that had the other end is gone
    (void)close(ends[0]);
    int waitStatus = 0;
    EXPECT_EQ(waitpid(child, &waitStatus, 0), child);
    EXPECT_TRUE(WIFSIGNALED(waitStatus) ? WTERMSIG(waitStatus) == SIGKILL : waitStatus == 0) << waitStatus;
    return WIFSIGNALED(waitStatus);
}

struct Counts {
    std::vector<long> calls = std::vector<long>(kCallCount);
    long changes = 0;
    bool wasKilled = false;
};

// Returns how often each call was made, if nothing was killed.
Counts RunWith(const Fault& fault, const Sweep& sweep) {
    Scene scene;
    sweep.prepare(scene);
    int status = -1;
    Counts counts;
    testing::internal::CaptureStdout();
    {
        Gates gates;
        const auto run = [&] {
            gates.Run(fault, [&] { status = RunCommand(scene.release, sweep.command); });
        };
        if (fault.killAt == 0) {
            run();
        } else {
            counts.wasKilled = IsKilled(run);
        }
        for (std::size_t call = 0; call < kCallCount; ++call) counts.calls[call] = gates.CountOf(call);
        counts.changes = gates.CountOfChanges();
    }
    (void)testing::internal::GetCapturedStdout();

    const std::string before = scene.release.Run(&::ShowStatus).state();
    // Without memory it may end anywhere; otherwise it says truly how it ended.
    if (sweep.command == &::Upgrade && (status == kFine || status == kFindings)) {
        EXPECT_EQ(before, status == kFine ? "installed" : "none") << status;
    }
    EXPECT_EQ(scene.release.StatusOf(&::Resume), 0);
    EXPECT_EQ(sweep.judge(scene, scene.release.Run(&::ShowStatus).state()), "") << status << " " << before;
    return counts;
}

void RunAll(const Sweep& sweep) {
    const std::vector<long> counts = RunWith({}, sweep).calls;
    long places = 0;
    long runs = 0;
    for (std::size_t call = 0; call < kCallCount; ++call) {
        const long chosen = std::min(counts[call], kPlaces);
        for (long place = 0; place < chosen; ++place) {
            for (const bool isOnwards : {false, true}) {
                if (!CanFail(kCalls[call], isOnwards)) continue;
                const int errors[] = {ENOSPC, EIO, EMFILE, EINTR};  // the last one once: it is tried again
                const int error = errors[(place + static_cast<long>(call)) % (isOnwards ? 3 : 4)];
                const long number = chosen == 1 ? 1 : 1 + place * (counts[call] - 1) / (chosen - 1);
                const Fault fault{call, number, isOnwards, error};
                SCOPED_TRACE(Described(fault));
                (void)RunWith(fault, sweep);
                ++runs;
            }
        }
        places += counts[call];
    }
    std::cout << runs << " runs; " << places << " calls\n";
    EXPECT_GT(runs, kIsSlow ? 50 : 100);
}

std::string Differences(const Tree& now, const Tree& expected) {
    std::string text;
    for (const auto& [name, what] : expected) {
        const auto found = now.find(name);
        if (found == now.end() || found->second != what)
            text += name + ": " + (found == now.end() ? "missing" : found->second) + "\n";
    }
    for (const auto& [name, what] : now) {
        if (expected.count(name) == 0) text += name + ": left over\n";
    }
    return text;
}

std::string JudgeOldOrInstalled(const Scene& scene, const Tree& installed, const std::string& state) {
    return Differences(scene.release.Now(), state == "installed" ? installed : scene.release.Old());
}

Tree TreeOf(Release::Command last, bool isSigned = false) {
    Release release;
    if (isSigned) release.Sign();
    EXPECT_EQ(release.StatusOf(&::Upgrade), 0);
    if (last != &::Upgrade) {
        EXPECT_EQ(release.StatusOf(last), 0);
    }
    return release.Now();
}

void KillAll(const Sweep& sweep) {
    const long changes = RunWith({}, sweep).changes;
    const long step = std::max(1L, changes / (40 * TestScale()));
    long points = 0;
    long kills = 0;
    for (long killAt = 1; killAt <= changes && !testing::Test::HasFailure(); killAt += step, ++points) {
        Fault fault;
        fault.killAt = killAt;
        SCOPED_TRACE(testing::Message() << "killed before call " << killAt << " of " << changes);
        if (RunWith(fault, sweep).wasKilled) ++kills;
    }
    std::cout << kills << " kills; " << changes << " calls that may change something\n";
    // How many calls are made differs a little from run to run, so that the last kills may come too late.
    EXPECT_GE(kills, points * 3 / 4);
    EXPECT_GE(kills, 30);
}

Sweep OfUpgrade() {
    return {&::Upgrade, [](Scene&) {},
            [installed = TreeOf(&::Upgrade)](const Scene& scene, const std::string& state) {
                return JudgeOldOrInstalled(scene, installed, state);
            }};
}

Sweep OfSignedUpgrade() {
    return {&::Upgrade, [](Scene& scene) { scene.release.Sign(); },
            [installed = TreeOf(&::Upgrade, true)](const Scene& scene, const std::string& state) {
                return JudgeOldOrInstalled(scene, installed, state);
            }};
}

Sweep OfRollback() {
    return {[](const TransactionOptions& options, Output& output) {
                bool isOpen = false;
                return RollbackTransaction(options, output, isOpen);
            },
            [](Scene& scene) { scene.Upgrade(); },
            [](const Scene& scene, const std::string& state) {
                return JudgeOldOrInstalled(scene, scene.installed, state);
            }};
}

Sweep OfCommit() {
    return {&::Commit, [](Scene& scene) { scene.Upgrade(); },
            [committed = TreeOf(&::Commit)](const Scene& scene, const std::string& state) {
                return Differences(scene.release.Now(), state == "installed" ? scene.installed : committed);
            }};
}

Sweep OfResume() {
    return {&::Resume,
            [](Scene& scene) {
                scene.release.DieBeforeInstalling(scene.release.Path("bin/conf"));
                // A power cut has left a part of it.
                scene.release.package().Install("bin/empty", std::string("no\0\0\0", 5));
            },
            [](const Scene& scene, const std::string&) {
                return Differences(scene.release.Now(), scene.release.Old());
            }};
}

// A pass takes "/" for a target directory that it can't read from the list: the host has to be out of reach.
#define CONTINUE_WHERE_ANY_CALL_MAY_FAIL()                                                     \
    do {                                                                                       \
        if (VFS_TEST_ADDRESS_SANITIZER)                                                        \
            GTEST_SKIP() << "a file of which reading fails leaks in the INI parser's library"; \
        CONTINUE_IN_PRIVATE_NAMESPACE(kNoOptions);                                             \
    } while (false)

const std::vector<std::string> kNoOptions = {};

TEST(TransactionFaultsTest, AnUpgradeEndsOldOrNew) {
    CONTINUE_WHERE_ANY_CALL_MAY_FAIL();
    RunAll(OfUpgrade());
}

TEST(TransactionFaultsTest, AnUpgradeOfASignedPackageEndsOldOrNew) {
    CONTINUE_WHERE_ANY_CALL_MAY_FAIL();
    RunAll(OfSignedUpgrade());
}

TEST(TransactionFaultsTest, ARollbackEndsOldOrHasNotBegun) {
    CONTINUE_WHERE_ANY_CALL_MAY_FAIL();
    RunAll(OfRollback());
}

TEST(TransactionFaultsTest, ACommitEndsNewOrHasNotBegun) {
    CONTINUE_WHERE_ANY_CALL_MAY_FAIL();
    RunAll(OfCommit());
}

TEST(TransactionFaultsTest, AResumeEndsOld) {
    CONTINUE_WHERE_ANY_CALL_MAY_FAIL();
    RunAll(OfResume());
}

TEST(TransactionFaultsTest, AnUpgradeThatIsKilledEndsOldOrNew) {
    CONTINUE_IN_PRIVATE_NAMESPACE(kNoOptions);
    KillAll(OfUpgrade());
}

TEST(TransactionFaultsTest, AnUpgradeOfASignedPackageThatIsKilledEndsOldOrNew) {
    CONTINUE_IN_PRIVATE_NAMESPACE(kNoOptions);
    KillAll(OfSignedUpgrade());
}

TEST(TransactionFaultsTest, ARollbackThatIsKilledEndsOldOrHasNotBegun) {
    CONTINUE_IN_PRIVATE_NAMESPACE(kNoOptions);
    KillAll(OfRollback());
}

TEST(TransactionFaultsTest, ACommitThatIsKilledEndsNewOrHasNotBegun) {
    CONTINUE_IN_PRIVATE_NAMESPACE(kNoOptions);
    KillAll(OfCommit());
}

TEST(TransactionFaultsTest, AResumeThatIsKilledEndsOld) {
    CONTINUE_IN_PRIVATE_NAMESPACE(kNoOptions);
    KillAll(OfResume());
}

}  // namespace
