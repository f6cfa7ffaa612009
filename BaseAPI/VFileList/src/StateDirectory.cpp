// Keeps the journal and the state in files of their own: the journal, which may be long, is written once, the
// state, which names its journal by the digest, at each step.
#include "StateDirectory.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <gnu/libc-version.h>
#include <link.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <set>
#include <system_error>
#include <vector>

#include "VCopyFileListIni.h"
#include "VDir.h"

namespace fs = std::filesystem;

namespace {

constexpr char kLockFile[] = "lock";
constexpr char kJournalFile[] = "journal";
constexpr char kStateFile[] = "state";
constexpr char kPackageDirectory[] = "package";
constexpr char kReceiptFile[] = "receipt";
constexpr char kRescueDirectory[] = "rescue";
constexpr char kProgram[] = "vfilelist";

constexpr std::array<Phase, 6> kPhases = {Phase::kNone,      Phase::kRenaming, Phase::kCopying,
                                          Phase::kInstalled, Phase::kUndoing,  Phase::kCleaning};

std::string Print(const State& state, const Digest& journal) {
    return std::string("vfilelist-state 1 ") + NameOf(state.phase) + " " + NameOf(state.undone) + " " +
           HexOf(journal) + "\n";
}

std::optional<State> StateFrom(const std::string& text, const Digest& journal) {
    for (const Phase phase : kPhases) {
        for (const Phase undone : kPhases) {
            if (text == Print({phase, undone}, journal)) return State{phase, undone};
        }
    }
    return std::nullopt;
}

// The directory, and those above it, may have been made just now: their names have to last as well. Where one
// can't be opened or synced at all, nothing was made.
Trouble SyncAbove(const std::string& path) {
    for (fs::path above = CanonicalPath(path).value_or(path); above.has_relative_path();) {
        above = above.parent_path();
        Trouble trouble = Sync(above);
        if (trouble && errno != EACCES && errno != EINVAL) return trouble;
    }
    return std::nullopt;
}

// Another name for the file is as good as a copy, since -rename gives it another name, too, and costs
// nothing; but not all file systems can do that.
Trouble Keep(const fs::path& file, const fs::path& copy) {
    if (linkat(AT_FDCWD, file.c_str(), AT_FDCWD, copy.c_str(), AT_SYMLINK_FOLLOW) == 0) return std::nullopt;
    std::error_code error;
    errno = 0;
    fs::copy_file(file, copy, error);
    // It calls a full disk an input/output error, too; the call that failed knows better.
    if (error) return TroubleWith(copy, errno == ENOSPC ? ENOSPC : error.value());
    return Sync(copy);
}

// The files that this process has loaded besides its program.
std::set<std::string> LoadedLibraries() {
    std::set<std::string> paths;
    const auto add = [](dl_phdr_info* object, std::size_t /*size*/, void* found) {
        if (object->dlpi_name[0] == '/')
            static_cast<std::set<std::string>*>(found)->insert(object->dlpi_name);
        return 0;
    };
    (void)dl_iterate_phdr(add, &paths);
    return paths;
}

// Where the loader looks without being told to: there is the C library.
fs::path UsualDirectory() {
    Dl_info library{};
    (void)dladdr(reinterpret_cast<void*>(&gnu_get_libc_version),
                 &library);  // it is loaded, or nothing would run
    return fs::path(library.dli_fname).parent_path();
}

}  // namespace

const char* NameOf(Phase phase) {
    constexpr const char* kNames[] = {"none", "renaming", "copying", "installed", "undoing", "cleaning"};
    return kNames[static_cast<int>(phase)];
}

Trouble StateDirectory::Enter() {
    if (VDir::VMkDir(path_.c_str(), 0700) != 0) return TroubleWith(path_, errno);

    const std::string path = FileName(kLockFile);
    lock_.emplace(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
    if (!*lock_) return TroubleWith(path, errno);
    if (flock(lock_->get(), LOCK_EX | LOCK_NB) == 0) return std::nullopt;
    if (errno != EWOULDBLOCK) return TroubleWith(path, errno);
    return path_ + ": another vfilelist is at work";
}

bool StateDirectory::IsOccupied() const {
    const Descriptor lock(open(FileName(kLockFile).c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
    return lock && flock(lock.get(), LOCK_SH | LOCK_NB) != 0 && errno == EWOULDBLOCK;
}

Trouble StateDirectory::Read(State& state, Journal& journal) {
    state = {};
    std::string stateText;
    const int error = ReadWhole(FileName(kStateFile), stateText);
    if (error == ENOENT) return std::nullopt;
    if (error != 0) return TroubleWith(FileName(kStateFile), error);

    Hasher hasher;
    JournalParser parser;
    const int journalError = ReadBlocks(FileName(kJournalFile), [&](std::string_view block) {
        hasher.Add(block);
        parser.Add(block);
    });
    if (journalError != 0) return TroubleWith(FileName(kJournalFile), journalError);
    journalDigest_ = hasher.Finish();
    const std::optional<State> found = StateFrom(stateText, journalDigest_);
    if (!found) return FileName(kStateFile) + ": changed, of another version, or not of this journal";
    if (const Trouble trouble = parser.Finish(journal)) return FileName(kJournalFile) + ": " + *trouble;
    state = *found;
    return std::nullopt;
}

Trouble StateDirectory::KeepList(const std::string& text, const std::string& common) const {
    const fs::path package = FileName(kPackageDirectory);
    std::error_code error;
    fs::remove_all(package, error);  // what it leaves is in the way of the link
    fs::create_directory(package, error);
    if (!error)
        fs::create_directory_symlink(common, WithoutTrailingSlashes(SourceDirectory(ListPath())), error);
    if (error) return package.string() + ": " + error.message();
    const Descriptor file(open(ListPath().c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
    if (!file) return TroubleWith(ListPath(), errno);
    return WriteAll(file.get(), ListPath(), text);
}

Trouble StateDirectory::Begin(const Journal& journal) {
    if (Trouble trouble = SyncAbove(path_)) return trouble;
    std::string head;
    const std::vector<std::string_view> blocks = Print(journal, head);
    if (Trouble trouble = WriteDurably(kJournalFile, blocks)) return trouble;
    Hasher hasher;
    for (const std::string_view block : blocks) hasher.Add(block);
    journalDigest_ = hasher.Finish();
    return Write({Phase::kRenaming, Phase::kNone});
}

Trouble StateDirectory::Write(const State& state) {
    return WriteDurably(kStateFile, {Print(state, journalDigest_)});
}

// The state goes first: a journal without one is not open.
Trouble StateDirectory::Close() {
    const std::string path = FileName(kStateFile);
    if (unlink(path.c_str()) != 0 && errno != ENOENT) return TroubleWith(path, errno);
    if (Trouble trouble = Sync(path_)) return trouble;
    std::error_code ignored;  // what is left is overwritten by the next upgrade
    fs::remove(FileName(kJournalFile), ignored);
    for (const char* const name : {kRescueDirectory, kPackageDirectory})
        fs::remove_all(FileName(name), ignored);
    return std::nullopt;
}

Trouble StateDirectory::ReadReceipt(Receipt& receipt) const {
    std::string text;
    const int error = ReadWhole(FileName(kReceiptFile), text);
    if (error == ENOENT) return std::nullopt;
    Trouble trouble = error != 0 ? TroubleWith(FileName(kReceiptFile), error) : Parse(text, receipt);
    if (trouble && error == 0) trouble = FileName(kReceiptFile) + ": " + *trouble;
    errno = error;
    return trouble;
}

Trouble StateDirectory::WriteReceipt(const Receipt& receipt) const {
    return WriteDurably(kReceiptFile, {Print(receipt)});
}

Trouble StateDirectory::KeepRescue(const Journal& journal) {
    const fs::path rescue = FileName(kRescueDirectory);
    std::error_code error;
    fs::remove_all(rescue, error);
    if (!error) fs::create_directory(rescue, error);
    if (error) return rescue.string() + ": " + error.message();

    std::vector<ino_t> moved;
    for (const JournalTarget& target : journal.targets) {
        if (target.old) moved.push_back(target.old->inode);
    }
    if (Trouble trouble = Keep("/proc/self/exe", rescue / kProgram)) return trouble;
    const fs::path usual = UsualDirectory();
    for (const fs::path library : LoadedLibraries()) {
        struct stat status {};
        if (stat(library.c_str(), &status) != 0) continue;
        const bool isUsual = library.parent_path() == usual;
        const bool isMoved = std::find(moved.begin(), moved.end(), status.st_ino) != moved.end();
        if (isUsual && !isMoved) continue;
        if (Trouble trouble = Keep(library, rescue / library.filename())) return trouble;
    }
    return Sync(rescue);
}

Trouble StateDirectory::WriteDurably(const char* name, const std::vector<std::string_view>& blocks) const {
    const std::string path = FileName(name);
    const std::string unfinished = path + ".new";
    {
        const Descriptor file(
            open(unfinished.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0600));
        if (!file) return TroubleWith(unfinished, errno);
        for (const std::string_view block : blocks) {
            if (Trouble trouble = WriteAll(file.get(), unfinished, block)) return trouble;
        }
        if (fsync(file.get()) != 0) return TroubleWith(unfinished, errno);
    }
    if (rename(unfinished.c_str(), path.c_str()) != 0) return TroubleWith(path, errno);
    return Sync(path_);
}
