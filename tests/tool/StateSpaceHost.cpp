#include "StateSpaceHost.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <new>
#include <nlohmann/json.hpp>
#include <stdexcept>

#include "Inventory.h"
#include "Report.h"
#include "Rollback.h"
#include "Transaction.h"
#include "Verify.h"

extern "C" int VCopyFileListIniMain(int argc, char* argv[]);

namespace {

// What is older than the package; what is older than the command that runs. No other file has these times.
constexpr timespec kEarlier = {1'500'000'000, 0};
constexpr timespec kBefore = {1'600'000'000, 0};
constexpr std::array<Phase, 6> kPhases = {Phase::kNone,      Phase::kRenaming, Phase::kCopying,
                                          Phase::kInstalled, Phase::kUndoing,  Phase::kCleaning};
const char kUnlisted[] = "nobody's business";

bool IsSameTime(const timespec& left, const timespec& right) {
    return left.tv_sec == right.tv_sec && left.tv_nsec == right.tv_nsec;
}

void Expect(bool isTrue, const std::string& what) {
    if (!isTrue) throw std::runtime_error(what + ": " + std::strerror(errno));
}

void WriteText(const std::string& path, const std::string& text) {
    const int file = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    Expect(file >= 0 && write(file, text.data(), text.size()) == static_cast<ssize_t>(text.size()), path);
    (void)close(file);
}

std::string TextAt(const std::string& path) {
    std::array<char, 256> text{};
    const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (file < 0) return "?";
    const ssize_t size = read(file, text.data(), text.size());
    (void)close(file);
    return {text.data(), static_cast<std::size_t>(std::max(size, ssize_t{0}))};
}

void SetTime(const std::string& path, const timespec& time) {
    const std::array<timespec, 2> times = {time, time};
    Expect(utimensat(AT_FDCWD, path.c_str(), times.data(), AT_SYMLINK_NOFOLLOW) == 0, path);
}

void RemoveIfThere(const std::string& path) {
    if (unlink(path.c_str()) == 0 || errno == ENOENT) return;
    Expect(rmdir(path.c_str()) == 0, path);
}

std::vector<std::string> NamesIn(const std::string& path) {
    std::vector<std::string> names;
    DIR* const directory = opendir(path.c_str());
    if (directory == nullptr) return names;
    while (const dirent* const entry = readdir(directory)) {
        if (entry->d_name[0] != '.') names.emplace_back(entry->d_name);
    }
    (void)closedir(directory);
    return names;
}

ino_t InodeOf(const std::string& path) {
    struct stat status {};
    return calls::real::lstat(path.c_str(), &status) == 0 ? status.st_ino : 0;
}

}  // namespace

// In memory that the passes share.
struct RealHost::Tape {
    std::atomic<bool> isRunning;
    std::size_t length;
    std::array<Host, 200> states;
};

RealHost::RealHost(std::size_t count)
    : count_(count),
      state_(package_.scratch().Path("state")),
      tape_(new (mmap(nullptr, sizeof(Tape), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0))
                Tape()) {
    Expect(setenv("VLOGGER_DIRECTORY", package_.scratch().Path("log").c_str(), 1) == 0, "environment");
    for (std::size_t i = 0; i < count; ++i) {
        const std::string number = std::to_string(i);
        names_.push_back(package_.InstalledPath((i + 1 < count ? "bin/f" : "made/f") + number));
        texts_.push_back({"old " + number, "new in the package " + number, "new in the",
                          "of another process, and longer than both " + number});
        (void)package_.Bring("f" + number, texts_[i].fresh);
    }
    WriteList();
    list_.emplace(package_.ListPath());
    (void)package_.scratch().MakeDirectory("state/rescue");
    (void)package_.Install("bin/unlisted", kUnlisted);
    (void)package_.Install("bin/f0.changed", kUnlisted);
    ReplaceCalls();
}

RealHost::~RealHost() {
    (void)munmap(tape_, sizeof *tape_);
}

void RealHost::WriteList() const {
    std::string bin;
    for (std::size_t i = 0; i + 1 < count_; ++i) bin += (i == 0 ? "f" : ",f") + std::to_string(i);
    (void)package_.WriteList("[Server]\nA=@/bin\nB=@/made\n[A]\nf=" + bin + "\n[B]\nf=f" +
                             std::to_string(count_ - 1) + "\n");
}

// An earlier NAME.changed is in the way of the first target's.
std::string RealHost::Aside(std::size_t target) const {
    return names_[target] + (target == 0 ? ".changed.1" : ".changed");
}

const std::string& RealHost::TextOf(std::size_t target, What what) const {
    const Texts& texts = texts_[target];
    if (what == What::kOld) return texts.old;
    if (what == What::kNew) return texts.fresh;
    return what == What::kPart ? texts.part : texts.other;
}

void RealHost::Wipe() const {
    for (std::size_t i = 0; i < count_; ++i) {
        for (const std::string& path : {Name(i), Backup(i), Aside(i)}) RemoveIfThere(path);
    }
    RemoveIfThere(package_.InstalledPath("made"));
    RemoveIfThere(state_ + "/state");
}

// Of the beginnings of the package's file every other one is the empty one.
void RealHost::Put(const std::string& path, std::size_t target, const Node& node) const {
    switch (node.what) {
        case What::kNothing:
            return;
        case What::kDirectory:
            Expect(mkdir(path.c_str(), 0755) == 0, path);
            break;
        case What::kLink:
            Expect(symlink(("f" + std::to_string(target)).c_str(), path.c_str()) == 0, path);
            break;
        default:
            const bool isEmpty = node.what == What::kPart && (builds_ + target) % 2 == 0;
            WriteText(path, isEmpty ? "" : TextOf(target, node.what));
    }
    if (node.mark != Mark::kWritten) SetTime(path, node.mark == Mark::kEarlier ? kEarlier : kBefore);
}

void RealHost::PutTree(const Host& host) const {
    for (std::size_t i = 0; i < count_; ++i) {
        Put(Name(i), i, host.targets[i].name);
        Put(Backup(i), i, host.targets[i].backup);
    }
}

// What a killed command leaves where no upgrade is open, and the next one has to pass over.
void RealHost::LitterStateDirectory() const {
    for (const char* const name : {"/journal", "/journal.new", "/state.new"})
        WriteText(state_ + name, "cut off");
}

// First all is as it was before the upgrade, so that the journal has the right inodes; then the files go
// where they are to be.
void RealHost::Open(const Host& host) {
    Host origin = host;
    for (Place& target : origin.targets) target.name = {target.origin, Mark::kOld}, target.backup = {};
    PutTree(origin);
    for (std::size_t i = 0; i < count_; ++i) marked_[i] = InodeOf(Name(i));
    Journal journal;
    Output output(true);
    StateDirectory directory(state_);
    const Trouble trouble = TakeInventory(*list_, std::nullopt, output, journal);
    journal.fileListDigest = DigestOf(ReadWholeFile(package_.ListPath()));
    Expect(!trouble && !directory.Begin(journal), "journal");
    Expect(!directory.KeepList(ReadWholeFile(package_.ListPath()), package_.SourcePath("")), "list");
    const Phase phase = kPhases[static_cast<std::size_t>(host.stage)];
    Expect(!directory.Write({phase, kPhases[static_cast<std::size_t>(host.undone)]}), "state");
    const std::string made = package_.InstalledPath("made");
    if (host.hasDirectory && !host.hadDirectory) Expect(mkdir(made.c_str(), 0750) == 0, made);
    for (std::size_t i = 0; i < count_; ++i) MoveOld(i, host.targets[i]);
}

void RealHost::MoveOld(std::size_t target, const Place& wanted) const {
    const auto isOld = [](const Node& node) {
        return node.mark == Mark::kOld || node.mark == Mark::kWritten;
    };
    if (isOld(wanted.backup)) {
        Expect(rename(Name(target).c_str(), Backup(target).c_str()) == 0, Name(target));
    } else if (!isOld(wanted.name)) {
        // The file system, which is one in memory, gives its number to no other file.
        RemoveIfThere(Name(target));
    }
    if (wanted.name.mark != Mark::kOld) Put(Name(target), target, wanted.name);
    if (wanted.backup.mark != Mark::kOld) Put(Backup(target), target, wanted.backup);
}

void RealHost::Build(const Host& host) {
    ++builds_;
    Wipe();
    const std::string made = package_.InstalledPath("made");
    const bool isMade = host.IsOpen() ? host.hadDirectory : host.hasDirectory;
    if (isMade) Expect(mkdir(made.c_str(), 0750) == 0, made);
    LitterStateDirectory();
    before_ = host;
    if (host.IsOpen()) {
        Open(host);
    } else {
        PutTree(host);
        for (std::size_t i = 0; i < count_; ++i) {
            const Place& target = host.targets[i];
            marked_[i] = target.name.mark == Mark::kOld     ? InodeOf(Name(i))
                         : target.backup.mark == Mark::kOld ? InodeOf(Backup(i))
                                                            : 0;
        }
    }
    for (std::size_t i = 0; i < count_; ++i) installed_[i] = InodeOf(Name(i));
}

What RealHost::WhatIs(const std::string& path, std::size_t target, const struct stat& status) const {
    if (S_ISDIR(status.st_mode)) return What::kDirectory;
    if (S_ISLNK(status.st_mode)) return What::kLink;
    const std::string text = TextAt(path);
    for (const What what : {What::kOld, What::kNew, What::kOther}) {
        if (text == TextOf(target, what)) return what;
    }
    const bool isPart = TextOf(target, What::kNew).compare(0, text.size(), text) == 0;
    Expect(isPart, path + ": '" + text + "'");
    return What::kPart;
}

Node RealHost::LookAtNode(const std::string& path, std::size_t target, ino_t old) const {
    struct stat status {};
    if (calls::real::lstat(path.c_str(), &status) != 0) return {};
    const bool isUntouched = IsSameTime(status.st_mtim, kBefore);
    Mark mark = IsSameTime(status.st_mtim, kEarlier) ? Mark::kEarlier : Mark::kNone;
    if (status.st_ino == old) mark = isUntouched ? Mark::kOld : Mark::kWritten;
    return {WhatIs(path, target, status), mark};
}

// The file has the words "vfilelist-state 1 STAGE UNDONE DIGEST".
void RealHost::LookAtStage(Host& host) const {
    const std::string text = TextAt(state_ + "/state");
    if (text == "?") return;
    std::array<char, 16> stage{};
    std::array<char, 16> undone{};
    Expect(std::sscanf(text.c_str(), "vfilelist-state 1 %15s %15s", stage.data(), undone.data()) == 2, text);
    const auto find = [](const char* name) {
        const auto isIt = [name](Phase phase) { return std::strcmp(name, NameOf(phase)) == 0; };
        return static_cast<Stage>(std::find_if(kPhases.begin(), kPhases.end(), isIt) - kPhases.begin());
    };
    host.stage = find(stage.data());
    host.undone = find(undone.data());
}

bool RealHost::IsStrange() const {
    std::vector<std::string> known = {"unlisted", "f0.changed"};
    for (std::size_t i = 0; i < count_; ++i) {
        for (const std::string& path : {Name(i), Backup(i), Aside(i)})
            known.push_back(path.substr(path.rfind('/') + 1));
    }
    for (const char* const directory : {"bin", "made"}) {
        for (const std::string& name : NamesIn(package_.InstalledPath(directory)))
            if (std::find(known.begin(), known.end(), name) == known.end()) return true;
    }
    return TextAt(package_.InstalledPath("bin/unlisted")) != kUnlisted ||
           TextAt(package_.InstalledPath("bin/f0.changed")) != kUnlisted;
}

Host RealHost::Look() const {
    Host host;
    host.count = static_cast<std::uint8_t>(count_);
    LookAtStage(host);
    const bool isBegunHere = host.IsOpen() && !before_.IsOpen();
    for (std::size_t i = 0; i < count_; ++i) {
        Place& target = host.targets[i];
        const ino_t old = isBegunHere ? installed_[i] : marked_[i];
        target.name = LookAtNode(Name(i), i, old);
        target.backup = LookAtNode(Backup(i), i, old);
        target.setAside = LookAtNode(Aside(i), i, 0).what;
        target.origin = isBegunHere ? before_.targets[i].name.what : before_.targets[i].origin;
    }
    host.hasDirectory = InodeOf(package_.InstalledPath("made")) != 0;
    host.hadDirectory = isBegunHere ? before_.hasDirectory : before_.hadDirectory;
    host.isStrange = IsStrange();
    return Canonical(host);
}

void RealHost::TakeDown() const {
    if (!tape_->isRunning) return;
    const int error = errno;
    const Host host = Look();
    Expect(tape_->length < tape_->states.size(), "the tape is full");
    if (tape_->length == 0 || !(tape_->states[tape_->length - 1] == host))
        tape_->states[tape_->length++] = host;
    errno = error;
}

// What else there is below the state directory counts for nothing without the file `state`.
bool RealHost::IsWatched(const char* path) const {
    const std::string installed = package_.InstalledPath();
    return std::strncmp(path, installed.c_str(), installed.size()) == 0 || state_ + "/state" == path;
}

template <typename Result, typename... Parameters>
void RealHost::TapeBehind(calls::Hook<Result(Parameters...)>& hook, Result (*real)(Parameters...)) {
    Replace(hook, std::function<Result(Parameters...)>([this, real](Parameters... parameters) {
                const Result result = real(parameters...);
                if ((IsWatched(parameters) || ...)) TakeDown();
                return result;
            }));
}

template <typename Signature>
void RealHost::Replace(calls::Hook<Signature>& hook, std::function<Signature> replacement) {
    replaced_.push_back(std::make_shared<Replaced<calls::Hook<Signature>>>(hook, std::move(replacement)));
}

void RealHost::ReplaceCalls() {
    TapeBehind(calls::rename, &calls::real::rename);
    TapeBehind(calls::renameat2, &calls::real::renameat2);
    TapeBehind(calls::unlink, &calls::real::unlink);
    TapeBehind(calls::remove, &calls::real::remove);
    TapeBehind(calls::rmdir, &calls::real::rmdir);
    TapeBehind(calls::mkdir, &calls::real::mkdir);
    const auto open = [this](const char* path, const char* mode) {
        FILE* const file = calls::real::fopen(path, mode);
        const bool isTarget = std::find(names_.begin(), names_.end(), path) != names_.end();
        if (!isTarget || mode[0] != 'w') return file;
        written_ = file;
        TakeDown();
        return file;
    };
    Replace<FILE*(const char*, const char*)>(calls::fopen, open);
    Replace<FILE*(const char*, const char*)>(calls::fopen64, open);
    Replace<int(FILE*)>(calls::fflush, [this](FILE* file) {
        const int result = calls::real::fflush(file);
        if (file != nullptr && file == written_) TakeDown();
        return result;
    });
    Replace<int(FILE*)>(calls::fclose, [this](FILE* file) {
        const bool isWritten = file == written_;
        const int result = calls::real::fclose(file);
        if (isWritten) TakeDown();
        return result;
    });
    // Power cuts are not of interest here, nor is the copy of the program that is kept.
    Replace<int(int)>(calls::fsync, [](int) { return 0; });
    Replace<int(int, const char*, int, const char*, int)>(
        calls::linkat, [](int, const char*, int, const char*, int) { return 0; });
    // Nobody can set the time that says when a backup got its name.
    Replace<int(const char*, struct stat*)>(calls::lstat, [](const char* path, struct stat* status) {
        const int result = calls::real::lstat(path, status);
        if (result == 0 && IsSameTime(status->st_mtim, kEarlier)) status->st_ctim = kEarlier;
        return result;
    });
}

int RealHost::Pass(const char* pass) const {
    std::array<std::string, 3> words = {"VCopyFileListIni", pass, package_.ListPath()};
    std::array<char*, 4> arguments = {words[0].data(), words[1].data(), words[2].data(), nullptr};
    return VCopyFileListIniMain(3, arguments.data()) & 0xff;
}

// As the program's main.
int RealHost::RollBack(bool isPartial) {
    TransactionOptions options{package_.ListPath(), state_, isPartial};
    RollbackOptions byHand;
    byHand.isPartial = isPartial;
    bool isOpen = false;
    Output output(false);
    const int status = RollbackTransaction(options, output, isOpen);
    return isOpen ? status : Rollback(FileList(package_.ListPath()), byHand, output);
}

int RealHost::Perform(Command command) {
    TransactionOptions options{"", state_};
    Output output(false);
    switch (command) {
        case Command::kRename:
            return Pass("-rename");
        case Command::kCopy:
            return Pass("-copy");
        case Command::kClean:
            return Pass("-clean");
        case Command::kUpgrade:
            options.iniPath = package_.ListPath();
            return Upgrade(options, output);
        case Command::kCommit:
            return Commit(options, output);
        case Command::kRollback:
            return RollBack(false);
        case Command::kPartialRollback:
            return RollBack(true);
        case Command::kResume:
            break;
    }
    return Resume(options, output);
}

Outcome RealHost::Run(Command command) {
    tape_->length = 0;
    tape_->isRunning = true;
    TakeDown();
    Outcome outcome;
    testing::internal::CaptureStdout();
    outcome.status = Perform(command);
    said_ = testing::internal::GetCapturedStdout();
    TakeDown();
    tape_->isRunning = false;
    outcome.states.assign(tape_->states.begin(), tape_->states.begin() + static_cast<long>(tape_->length));
    return outcome;
}

Advice RealHost::Ask() {
    Advice advice;
    const bool isOpen = before_.IsOpen();
    const nlohmann::json report = ReportOf([&](Output& output) {
        return isOpen ? ShowStatus({"", state_}, output) : Verify(FileList(package_.ListPath()), {}, output);
    });
    std::vector<std::string> names;
    if (isOpen) {
        names = report["next"].get<std::vector<std::string>>();
    } else {
        const nlohmann::json& summary = report["summary"];
        if (!summary["next"].is_null()) names = {summary["next"]};
        advice.isInDoubt = summary["reason"] != "";
    }
    for (const Command command : kCommands) {
        if (std::find(names.begin(), names.end(), NameOf(command)) != names.end())
            advice.next.push_back(command);
    }
    return advice;
}
