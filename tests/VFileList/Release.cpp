#include "Release.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <array>
#include <cstring>
#include <filesystem>

#include "Signer.h"

namespace fs = std::filesystem;

namespace {

std::string AttributesOf(const std::string& path) {
    std::array<char, 1024> names{};
    std::array<char, 1024> value{};
    std::string text;
    const ssize_t length = llistxattr(path.c_str(), names.data(), names.size());
    for (const char* name = names.data(); name < names.data() + length; name += std::strlen(name) + 1) {
        const ssize_t size = lgetxattr(path.c_str(), name, value.data(), value.size());
        if (std::strncmp(name, "user.", 5) == 0 && size >= 0)
            text += " " + std::string(name) + "=" + std::string(value.data(), static_cast<std::size_t>(size));
    }
    return text;
}

std::string Described(const fs::directory_entry& entry) {
    const std::string path = entry.path();
    if (entry.is_symlink()) return "link to " + fs::read_symlink(path).string();
    const struct stat status = StatusOf(path);
    const std::string what = ShownMode(status.st_mode) + " " + std::to_string(status.st_uid) + ":" +
                             std::to_string(status.st_gid) + AttributesOf(path);
    return entry.is_directory() ? "directory " + what : what + " " + ReadWholeFile(path);
}

}  // namespace

std::vector<std::string> Ending::remarks() const {
    std::vector<std::string> texts;
    for (const auto& remark : report["remarks"]) {
        texts.push_back((remark["isSerious"] ? "! " : "") +
                        fs::path(remark["path"].get<std::string>()).filename().string() + ": " +
                        remark["text"].get<std::string>());
    }
    return texts;
}

Release::Release() {
    package_.scratch().Write("real/data", "old data");
    const struct {
        const char* name;
        const char* content;
        mode_t mode;
    } files[] = {{"bin/tool", "the old tool", 04751},
                 {"bin/conf", "old", 0600},
                 {"bin/same", "the same", 0644},
                 {"bin/empty", "", 0644},
                 {"bin/unlisted", "of nobody's business", 0640},
                 {"../real/data", "old data", 0640}};
    for (const auto& file : files) {
        package_.Install(file.name, file.content);
        EXPECT_EQ(chmod(Path(file.name).c_str(), file.mode), 0);
    }
    (void)setxattr(Path("bin/tool").c_str(), "user.note", "kept", 4, 0);  // where the file system can
    package_.scratch().Link("installed/bin/link", "../../real/data");
    package_.scratch().MakeDirectory("installed/unlisted");
    package_.Bring("tool", "the new tool");
    package_.Bring("lib/conf", "new configuration");
    package_.Bring("same", "the same");
    package_.Bring("empty", "no longer");
    package_.Bring("link", "new data");
    EXPECT_EQ(chmod(package_.Bring("fresh", "fresh").c_str(), 0755), 0);
    package_.WriteList(
        "[Server]\nBin=@/bin\nFresh=@/new/sub/\n[Bin]\nf=tool,lib/"
        "conf,same\ng=empty,link\n[Fresh]\nf=fresh\n");
    old_ = Now();
}

void Release::Sign() {
    const Signer signer;
    Manifest manifest = ManifestOf(package_);
    manifest.release = "2.0";
    WriteManifest(package_, manifest, &signer);
    isSigned_ = true;
}

TransactionOptions Release::Options() const {
    TransactionOptions options{package_.ListPath(), StatePath(), false};
    if (isSigned_) options.trustedDirectory = TrustedDirectory(package_);
    return options;
}

Ending Release::Run(Command command, bool isPartial) const {
    TransactionOptions options = Options();
    options.isPartial = isPartial;
    if (command != &::Upgrade) options.iniPath.clear();
    Ending ending{};
    ending.report = ReportOf([&](Output& output) { return command(options, output); }, &ending.status);
    EXPECT_EQ(ending.report["exitStatus"], ending.status);
    return ending;
}

int Release::StatusOf(Command command) const {
    TransactionOptions options = Options();
    if (command != &::Upgrade) options.iniPath.clear();
    testing::internal::CaptureStdout();
    Output output(true);
    const int status = command(options, output);
    (void)testing::internal::GetCapturedStdout();
    return status;
}

int RollbackOpen(const TransactionOptions& options, Output& output) {
    bool isOpen = false;
    const int status = RollbackTransaction(options, output, isOpen);
    EXPECT_TRUE(isOpen);
    return status;
}

Ending Release::Rollback(bool isPartial) const {
    return Run(&RollbackOpen, isPartial);
}

void Release::DieBeforeInstalling(const std::string& path) const {
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        const Replaced dying(calls::open,
                             [&, before = calls::open](const char* opened, int flags, mode_t mode) {
                                 const bool isLookedAt = path == opened && (flags & O_NOFOLLOW) != 0;
                                 if (isLookedAt && fs::exists(Path("new/sub"))) _exit(9);
                                 return before(opened, flags, mode);
                             });
        (void)StatusOf(&::Upgrade);
        _exit(1);
    }
    int waitStatus = 0;
    ASSERT_EQ(waitpid(child, &waitStatus, 0), child);
    ASSERT_EQ(WEXITSTATUS(waitStatus), 9);
}

Tree Release::Now() const {
    Tree tree;
    for (const char* const top : {"installed", "real"}) {
        for (const auto& entry : fs::recursive_directory_iterator(package_.scratch().Path(top)))
            tree[entry.path().lexically_relative(package_.scratch().Path())] = Described(entry);
    }
    return tree;
}

Tree Release::WithBackups(const Tree& old, Tree committed) {
    for (const char* const name : {"tool", "conf", "same", "empty", "link"}) {
        const std::string path = std::string("installed/bin/") + name;
        committed[path + ".bak"] = old.at(path);
    }
    return committed;
}
