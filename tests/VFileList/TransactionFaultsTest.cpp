// Each call that a command of the transaction and its passes make fails, once or from then on; one resume
// later the tree is the old one or the new one.

#include <gtest/gtest.h>
#include <sys/mman.h>

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
#include "SystemCalls.h"

namespace {

#define VFS_TEST_NAME(result, name, parameters, arguments) #name,
const char* const kCalls[] = {VFS_TEST_SYSTEM_CALLS(VFS_TEST_NAME) VFS_TEST_FILE_LIST_CALLS(VFS_TEST_NAME)};
#undef VFS_TEST_NAME
constexpr std::size_t kCallCount = std::size(kCalls);

// At how many places each call fails.
constexpr long kPlaces = 8;

struct Fault {
    std::size_t call = kCallCount;
    long number = 0;  // the first one is 1
    bool isOnwards = false;
    int error = 0;
};

// In memory that the passes share.
struct Counters {
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
        for (std::atomic<long>& count : counters_->calls) count = 0;
        isOpen_ = true;
        command();
        isOpen_ = false;
    }
    long CountOf(std::size_t call) const { return counters_->calls[call]; }

private:
    template <typename Result, typename... Parameters>
    void Add(std::size_t call, calls::Hook<Result(Parameters...)>& hook, Result (*real)(Parameters...));
    bool IsDue(std::size_t call) {
        if (!isOpen_) return false;
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

// Returns how often each call was made.
std::vector<long> RunWith(const Fault& fault, const Sweep& sweep) {
    Scene scene;
    sweep.prepare(scene);
    int status = -1;
    std::vector<long> counts(kCallCount);
    testing::internal::CaptureStdout();
    {
        Gates gates;
        gates.Run(fault, [&] { status = RunCommand(scene.release, sweep.command); });
        for (std::size_t call = 0; call < kCallCount; ++call) counts[call] = gates.CountOf(call);
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
    const std::vector<long> counts = RunWith({}, sweep);
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
    EXPECT_GT(runs, 100);
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

Tree TreeOf(Release::Command last) {
    const Release release;
    EXPECT_EQ(release.StatusOf(&::Upgrade), 0);
    if (last != &::Upgrade) {
        EXPECT_EQ(release.StatusOf(last), 0);
    }
    return release.Now();
}

// A pass takes "/" for a target directory that it can't read from the list: the host has to be out of reach.
const std::vector<std::string> kNoOptions = {};

TEST(TransactionFaultsTest, AnUpgradeEndsOldOrNew) {
    if (VFS_TEST_ADDRESS_SANITIZER)
        GTEST_SKIP() << "a file of which reading fails leaks in the INI parser's library";
    CONTINUE_IN_PRIVATE_NAMESPACE(kNoOptions);
    const Tree installed = TreeOf(&::Upgrade);
    RunAll({&::Upgrade, [](Scene&) {},
            [&](const Scene& scene, const std::string& state) {
                return JudgeOldOrInstalled(scene, installed, state);
            }});
}

TEST(TransactionFaultsTest, AnUpgradeOfASignedPackageEndsOldOrNew) {
    if (VFS_TEST_ADDRESS_SANITIZER)
        GTEST_SKIP() << "a file of which reading fails leaks in the INI parser's library";
    CONTINUE_IN_PRIVATE_NAMESPACE(kNoOptions);
    Tree installed;
    {
        Release release;
        release.Sign();
        ASSERT_EQ(release.StatusOf(&::Upgrade), 0);
        installed = release.Now();
    }
    RunAll({&::Upgrade, [](Scene& scene) { scene.release.Sign(); },
            [&](const Scene& scene, const std::string& state) {
                return JudgeOldOrInstalled(scene, installed, state);
            }});
}

TEST(TransactionFaultsTest, ARollbackEndsOldOrHasNotBegun) {
    if (VFS_TEST_ADDRESS_SANITIZER)
        GTEST_SKIP() << "a file of which reading fails leaks in the INI parser's library";
    CONTINUE_IN_PRIVATE_NAMESPACE(kNoOptions);
    RunAll({[](const TransactionOptions& options, Output& output) {
                bool isOpen = false;
                return RollbackTransaction(options, output, isOpen);
            },
            [](Scene& scene) { scene.Upgrade(); },
            [](const Scene& scene, const std::string& state) {
                return JudgeOldOrInstalled(scene, scene.installed, state);
            }});
}

TEST(TransactionFaultsTest, ACommitEndsNewOrHasNotBegun) {
    if (VFS_TEST_ADDRESS_SANITIZER)
        GTEST_SKIP() << "a file of which reading fails leaks in the INI parser's library";
    CONTINUE_IN_PRIVATE_NAMESPACE(kNoOptions);
    const Tree committed = TreeOf(&::Commit);
    RunAll({&::Commit, [](Scene& scene) { scene.Upgrade(); },
            [&](const Scene& scene, const std::string& state) {
                return Differences(scene.release.Now(), state == "installed" ? scene.installed : committed);
            }});
}

TEST(TransactionFaultsTest, AResumeEndsOld) {
    if (VFS_TEST_ADDRESS_SANITIZER)
        GTEST_SKIP() << "a file of which reading fails leaks in the INI parser's library";
    CONTINUE_IN_PRIVATE_NAMESPACE(kNoOptions);
    RunAll({&::Resume,
            [](Scene& scene) {
                scene.release.DieBeforeInstalling(scene.release.Path("bin/conf"));
                // A power cut has left a part of it.
                scene.release.package().Install("bin/empty", std::string("no\0\0\0", 5));
            },
            [](const Scene& scene, const std::string&) {
                return Differences(scene.release.Now(), scene.release.Old());
            }});
}

}  // namespace
