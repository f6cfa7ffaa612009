// A package that is not what its maker has signed is refused, whatever was done to it, and nothing happens
// below its targets; one that is changed while the upgrade runs never leaves anything but the old files or
// the new.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/inotify.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>
#include <new>
#include <string>
#include <vector>

#include "Process.h"
#include "Release.h"
#include "Scale.h"
#include "Signer.h"
#include "SystemCalls.h"

namespace {

namespace fs = std::filesystem;

using testing::HasSubstr;

// Sees whatever happens to the names and files in some directories.
class Witness {
public:
    explicit Witness(const std::vector<std::string>& directories)
        : fd_(inotify_init1(IN_NONBLOCK | IN_CLOEXEC)) {
        constexpr std::uint32_t kChanges = IN_ATTRIB | IN_CREATE | IN_DELETE | IN_DELETE_SELF | IN_MODIFY |
                                           IN_CLOSE_WRITE | IN_MOVE_SELF | IN_MOVED_FROM | IN_MOVED_TO;
        for (const std::string& directory : directories) {
            EXPECT_GE(inotify_add_watch(fd_, directory.c_str(), kChanges), 0) << directory;
        }
    }
    ~Witness() { (void)close(fd_); }
    Witness(const Witness&) = delete;
    Witness& operator=(const Witness&) = delete;

    bool HasSeenSomething() const {
        alignas(inotify_event) char events[4096];
        return read(fd_, events, sizeof events) > 0;
    }

private:
    const int fd_;
};

// With another bit of this byte.
std::string Changed(std::string text, std::size_t byte) {
    text[byte] = static_cast<char>(text[byte] ^ (1 << byte % 8));
    return text;
}

class ForgedPackageTest : public testing::Test {
protected:
    ForgedPackageTest() {
        package().Bring("tool", std::string(3 * 4096 + 7, 'n'));
        Sign("2.0");
        list_ = ReadWholeFile(package().ListPath());
        manifest_ = ReadWholeFile(ManifestPath(package().ListPath()));
        signature_ = ReadWholeFile(ManifestPath(package().ListPath()) + ".sig");
    }

    const Package& package() const { return release_.package(); }
    void Sign(const std::string& name) const {
        Manifest manifest = ManifestOf(package());
        manifest.release = name;
        WriteManifest(package(), manifest, &maker_);
    }
    void Write(const std::string& name, const std::string& content) const {
        package().scratch().Write("package/" + name, content);
    }

    Ending Upgrade() const {
        TransactionOptions options = release_.Options();
        options.trustedDirectory = TrustedDirectory(package());
        Ending ending{};
        ending.report = ReportOf([&](Output& output) { return ::Upgrade(options, output); }, &ending.status);
        return ending;
    }

    // The upgrade is refused for this reason, and nothing below the targets is touched.
    void ExpectRefused(const std::string& code, const std::string& what) const {
        const Ending ending = Upgrade();
        EXPECT_EQ(ending.status, 1) << what;
        EXPECT_EQ(ending.message(), "Nothing was changed.") << what;
        EXPECT_THAT(ending.remarks(), testing::Contains(HasSubstr(code))) << what;
        EXPECT_FALSE(witness_.HasSeenSomething()) << what;
    }
    void ExpectAccepted() const {
        EXPECT_EQ(Upgrade().status, 0);
        EXPECT_EQ(release_.Rollback().status, 0);
        EXPECT_EQ(release_.Now(), release_.Old());
        EXPECT_TRUE(witness_.HasSeenSomething());
        while (witness_.HasSeenSomething()) continue;
    }

    const Release release_;
    const Signer maker_;
    const Witness witness_{{release_.Path("bin"), release_.Path(""), package().scratch().Path("real")}};
    std::string list_;
    std::string manifest_;
    std::string signature_;
};

TEST_F(ForgedPackageTest, TheTrueOneIsInstalled) {
    ExpectAccepted();
}

TEST_F(ForgedPackageTest, IsRefusedWithAnyByteOfTheManifestOrTheSignatureChanged) {
    for (std::size_t i = 0; i < manifest_.size(); ++i) {
        Write("filelist.ini.mtree", Changed(manifest_, i));
        ExpectRefused("E-PACKAGE-UNSIGNED", "byte " + std::to_string(i) + " of the manifest");
    }
    Write("filelist.ini.mtree", manifest_);
    for (std::size_t i = 0; i < signature_.size(); ++i) {
        Write("filelist.ini.mtree.sig", Changed(signature_, i));
        ExpectRefused("E-PACKAGE-UNSIGNED", "byte " + std::to_string(i) + " of the signature");
    }
    Write("filelist.ini.mtree.sig", signature_);
    ExpectAccepted();
}

TEST_F(ForgedPackageTest, IsRefusedWithAByteOfAnyFileChanged) {
    for (std::size_t i = 0; i < list_.size(); ++i) {
        Write("filelist.ini", Changed(list_, i));
        EXPECT_NE(Upgrade().status, 0) << "byte " << i << " of the list";
        EXPECT_FALSE(witness_.HasSeenSomething()) << i;
    }
    Write("filelist.ini", list_);
    for (const auto& file : fs::recursive_directory_iterator(package().SourcePath(""))) {
        if (!file.is_regular_file()) continue;
        const std::string content = ReadWholeFile(file.path());
        for (std::size_t i = 0; i < content.size(); i += 4096) {
            std::ofstream(file.path(), std::ios::binary) << Changed(content, i);
            const Ending ending = Upgrade();
            EXPECT_EQ(ending.status, 1) << file.path() << " byte " << i;
            EXPECT_THAT(ending.error(), HasSubstr("it is not what the manifest says of ")) << file.path();
            EXPECT_FALSE(witness_.HasSeenSomething()) << file.path();
        }
        std::ofstream(file.path(), std::ios::binary) << content;
    }
    ExpectAccepted();
}

TEST_F(ForgedPackageTest, IsRefusedWithAFileDroppedAddedOrSwapped) {
    const std::string tool = package().SourcePath("tool");
    const std::string same = package().SourcePath("same");
    const std::string aside = package().scratch().Path("aside");
    ASSERT_EQ(rename(tool.c_str(), aside.c_str()), 0);
    ExpectRefused("E-SOURCE-MISSING", "a file is dropped");
    ASSERT_EQ(rename(aside.c_str(), tool.c_str()), 0);

    package().Bring("lib/more", "of nobody");
    ExpectRefused("E-MANIFEST-DIFFERS", "a file is added");
    ASSERT_EQ(unlink(package().SourcePath("lib/more").c_str()), 0);

    ASSERT_EQ(rename(tool.c_str(), aside.c_str()), 0);
    ASSERT_EQ(rename(same.c_str(), tool.c_str()), 0);
    ASSERT_EQ(rename(aside.c_str(), same.c_str()), 0);
    EXPECT_EQ(Upgrade().status, 1) << "two are swapped";
    EXPECT_FALSE(witness_.HasSeenSomething());
    ASSERT_EQ(rename(same.c_str(), aside.c_str()), 0);
    ASSERT_EQ(rename(tool.c_str(), same.c_str()), 0);
    ASSERT_EQ(rename(aside.c_str(), tool.c_str()), 0);
    ExpectAccepted();
}

TEST_F(ForgedPackageTest, IsRefusedWithTheSignatureOfAnotherKeyOrManifest) {
    Write("filelist.ini.mtree.sig", Signer().Signature(manifest_));
    ExpectRefused("E-PACKAGE-UNSIGNED", "another key");
    Write("filelist.ini.mtree.sig", maker_.Signature(manifest_ + "\n"));
    ExpectRefused("E-PACKAGE-UNSIGNED", "another manifest");
    ASSERT_EQ(unlink((ManifestPath(package().ListPath()) + ".sig").c_str()), 0);
    ExpectRefused("E-PACKAGE-UNSIGNED", "no signature");
    ASSERT_EQ(unlink(ManifestPath(package().ListPath()).c_str()), 0);
    ExpectRefused("E-PACKAGE-UNSIGNED", "no manifest");
}

TEST_F(ForgedPackageTest, IsRefusedWhenTheTrustedKeysAreEmptyOrCanNotBeRead) {
    const std::string trusted = TrustedDirectory(package());
    ASSERT_EQ(unlink((trusted + "/maker.pem").c_str()), 0);
    ExpectRefused("it has no trusted key", "an empty directory");
    ASSERT_EQ(rmdir(trusted.c_str()), 0);
    ExpectRefused("No such file or directory", "a missing one");
    package().scratch().Write("trusted", "");
    ExpectRefused("Not a directory", "a file");
    ASSERT_EQ(unlink(trusted.c_str()), 0);
    package().scratch().Write("trusted/maker.pem", maker_.PublicKey());
    ExpectAccepted();
}

TEST_F(ForgedPackageTest, IsRefusedWhenItIsAnOlderReleasePlayedAgain) {
    ASSERT_EQ(Upgrade().status, 0);
    ASSERT_EQ(release_.Run(&::Commit).status, 0);
    ASSERT_EQ(Upgrade().status, 0) << "the same once more";
    ASSERT_EQ(release_.Run(&::Commit).status, 0);
    while (witness_.HasSeenSomething()) continue;

    Sign("1.9");
    ExpectRefused("E-RELEASE-ORDER", "an older release, well signed");
    Sign("2.0.1");
    EXPECT_EQ(Upgrade().status, 0);
}

// Counts calls of all processes of an upgrade, and does something before one of them.
class Swapper {
public:
    Swapper()
        : count_(new (mmap(nullptr, sizeof(std::atomic<long>), PROT_READ | PROT_WRITE,
                           MAP_SHARED | MAP_ANONYMOUS, -1, 0)) std::atomic<long>(0)) {}
    ~Swapper() { (void)munmap(count_, sizeof *count_); }
    Swapper(const Swapper&) = delete;
    Swapper& operator=(const Swapper&) = delete;

    void Count() {
        if (!isArmed_ || ++*count_ != due_) return;
        isArmed_ = false;
        act_();
        isArmed_ = true;
    }
    // Returns the number of calls.
    template <typename Command>
    long Run(long due, std::function<void()> act, Command command) {
        *count_ = 0;
        due_ = due;
        act_ = std::move(act);
        isArmed_ = true;
        command();
        isArmed_ = false;
        return *count_;
    }

private:
    std::atomic<long>* const count_;
    long due_ = 0;
    bool isArmed_ = false;
    std::function<void()> act_;
    const Replaced<calls::Hook<int(const char*, int, mode_t)>> open_{
        calls::open, [this, before = calls::open](const char* path, int flags, mode_t mode) {
            Count();
            return before.replacement != nullptr ? before(path, flags, mode)
                                                 : calls::real::open(path, flags, mode);
        }};
    const Replaced<calls::Hook<FILE*(const char*, const char*)>> fopen_{
        calls::fopen, [this](const char* path, const char* mode) {
            Count();
            return calls::real::fopen(path, mode);
        }};
    const Replaced<calls::Hook<int(const char*, struct stat*)>> stat_{
        calls::stat, [this, before = calls::stat](const char* path, struct stat* status) {
            Count();
            return before.replacement != nullptr ? before(path, status) : calls::real::stat(path, status);
        }};
    const Replaced<calls::Hook<int(int)>> fsync_{calls::fsync, [this](int) {
                                                     Count();
                                                     return 0;
                                                 }};
    const Replaced<calls::Hook<ssize_t(int, void*, size_t)>> read_{
        calls::read, [this](int fd, void* data, size_t size) {
            Count();
            return calls::real::read(fd, data, size);
        }};
};

// The swapped file has the size of the true one, and another content.
TEST_F(ForgedPackageTest, WhoseFilesAreSwappedAtAnyMomentLeavesTheOldFilesOrTheSignedOnes) {
    const std::string source = package().SourcePath("tool");
    const std::string content = ReadWholeFile(source);
    const std::string forged(content.size(), 'f');
    const auto swap = [&] {
        std::ofstream(source + ".forged", std::ios::binary) << forged;
        EXPECT_EQ(std::rename((source + ".forged").c_str(), source.c_str()), 0);
    };
    Swapper swapper;
    const long calls = swapper.Run(
        -1, [] {}, [this] { ASSERT_EQ(Upgrade().status, 0); });
    const Tree installed = release_.Now();
    ASSERT_EQ(release_.Rollback().status, 0);

    int old = 0;
    int done = 0;
    const long step = TestScale() > 1 ? 1 : std::max(1L, calls / 150);
    const long last = calls - 20;  // from here on all: how many calls there are before depends on the host
    for (long due = 1; due <= calls; due += due < last ? step : 1) {
        Ending ending{};
        (void)swapper.Run(due, swap, [&] { ending = Upgrade(); });
        ++(ending.status == 0 ? done : old);
        ASSERT_EQ(release_.Now(), ending.status == 0 ? installed : release_.Old())
            << "swapped before call " << due;
        if (ending.status == 0) {
            ASSERT_EQ(release_.Rollback().status, 0);
        }
        std::ofstream(source, std::ios::binary) << content;
    }
    std::cout << calls << " calls: " << old << " times the old files, " << done << " times the new\n";
    EXPECT_GT(old, 10);
    EXPECT_GT(done, 10) << "swapped too late to matter";
}

}  // namespace
