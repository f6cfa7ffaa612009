// The upgrade tool and vfilelist as processes, beside the programs that people copy and compare files with.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "Rows.h"
#include "Scratch.h"

namespace {

namespace fs = std::filesystem;

constexpr std::size_t kFileSize = 2000;

std::string NameOfFile(int index) {
    return "file" + std::to_string(index);
}

// A package of `files` files, its file list cut into `keys` keys.
std::string MakePackage(const std::string& path, int files, int keys, const std::string& content) {
    if (fs::exists(path)) return path;
    std::string list = "[Package_Intall_Type]\nPackageIntallType=Server\n[Server]\nBinFiles=" + path +
                       "/target\n[BinFiles]\n";
    for (int i = 0; i < files; ++i) {
        const std::string name = NameOfFile(i);
        WriteFile(path + "/Common/" + name, content);
        list += i % (files / keys) == 0 ? "\nkey" + std::to_string(i) + "=" + name : "," + name;
    }
    WriteFile(path + "/filelist.ini", list + "\n");
    fs::create_directories(path + "/target");
    return path;
}

std::string Package(int files, int keys) {
    return MakePackage(MemoryDirectory() + "/package" + std::to_string(files) + "-" + std::to_string(keys),
                       files, keys, SomeBytes(kFileSize));
}

void Run(const std::string& line) {
    if (std::system(line.c_str()) != 0) std::abort();
}

// What `command` takes, without what is made ready for it.
auto Running(std::string (*prepare)(), std::string command) {
    return [=] {
        const std::string package = prepare();
        const std::string line = "cd " + package + " && " + command;
        const double before = ProcessorTime();
        Run(line);
        return ProcessorTime() - before;
    };
}

template <int Files, int Keys>
std::string FreshPackage() {
    const std::string path = Package(Files, Keys);
    fs::remove_all(path + "/target");
    fs::create_directories(path + "/target");
    return path;
}

const char kLogOff[] = "VLOGGER_DIRECTORY=/dev/null/none ";
const char kLogOn[] = "VLOGGER_DIRECTORY=$PWD/log ";
const char kCopy[] = VCOPYFILELISTINI_PATH " -copy filelist.ini 2>/dev/null";

template <int Files, int Keys>
void AddCopyRow(bool isLogged) {
    const bool isBound = !isLogged && Files == 5000;
    const double copyTarget = isBound ? 1.2 : 0;
    const double rsyncTarget = isBound ? 1 : 0;
    AddRow("Upgrade tool", "-copy of " + std::to_string(Files) + " files, " + std::to_string(Keys) +
                               " keys, log " + (isLogged ? "on" : "off"))
        .OursTimed(Running(FreshPackage<Files, Keys>, std::string(isLogged ? kLogOn : kLogOff) + kCopy))
        .BesideTimed("cp -t", copyTarget, Running(FreshPackage<Files, Keys>, "cp -t target Common/*"))
        .BesideTimed("rsync -a", rsyncTarget, Running(FreshPackage<Files, Keys>, "rsync -a Common/ target/"))
        .BesideTimed("install", 0, Running(FreshPackage<Files, Keys>, "install -t target Common/*"))
        .Growing(isLogged || Keys == 5000 ? "" : "-copy, files", Files);
}

// One file, in memory, and its copy.
template <int MiB>
std::string LargePackage() {
    const std::string path = MemoryDirectory() + "/large" + std::to_string(MiB);
    if (fs::exists(path)) return path;
    const std::string block = SomeBytes(std::size_t{1} << 20);
    std::string content;
    for (int i = 0; i < MiB; ++i) content += block;
    WriteFile(path + "/Common/file", content);
    WriteFile(path + "/target/file", content);
    WriteFile(path + "/filelist.ini", "[Package_Intall_Type]\nPackageIntallType=Server\n[Server]\nBinFiles=" +
                                          path + "/target\n[BinFiles]\nf=file\n");
    return path;
}

template <int MiB>
void AddVerifyRow() {
    AddRow("vfilelist", "verify of a package of " + std::to_string(MiB) + " MiB")
        .OursTimed(Running(LargePackage<MiB>, VFILELIST_PATH " verify filelist.ini >/dev/null"))
        .BesideTimed("cmp", MiB == 1024 ? 1.1 : 0, Running(LargePackage<MiB>, "cmp Common/file target/file"))
        .Growing("vfilelist verify, MiB", MiB);
}

// A tree of one file, of which no package was made yet.
template <int MiB>
std::string LargeTree() {
    const std::string path = MemoryDirectory() + "/tree" + std::to_string(MiB);
    if (!fs::exists(path)) {
        std::string content;
        const std::string block = SomeBytes(std::size_t{1} << 20);
        for (int i = 0; i < MiB; ++i) content += block;
        WriteFile(path + "/new/file", content);
    }
    fs::remove_all(path + "/package");
    fs::remove(path + "/copy");
    return path;
}

template <int MiB>
void AddMakeRow() {
    AddRow("vfilelist", "make of a file of " + std::to_string(MiB) + " MiB")
        .OursTimed(Running(LargeTree<MiB>, VFILELIST_PATH
                           " make --tree new --prefix /opt --owner root:root package >/dev/null"))
        .BesideTimed("cp, sha256sum", MiB == 256 ? 1.1 : 0,
                     Running(LargeTree<MiB>, "cp new/file copy && sha256sum copy >/dev/null"))
        .BesideTimed("cp, openssl dgst", MiB == 256 ? 1.1 : 0,
                     Running(LargeTree<MiB>, "cp new/file copy && openssl dgst -sha256 copy >/dev/null"))
        .Growing("vfilelist make, MiB", MiB);
}

// The upgrades of vfilelist. Their files are tiny, so that what each file costs shows.

constexpr int kEntriesPerKey = 200;
constexpr int kRepetitions = 3;  // each takes long enough
constexpr double kTargetBytes = 200;

const char kVfilelist[] = "VLOGGER_DIRECTORY=/dev/null/none " VFILELIST_PATH " ";
const char kUpgrade[] = "upgrade filelist.ini --state state >/dev/null 2>&1";
const char kRollback[] = "rollback --state state >/dev/null 2>&1";

// A package and, in its target directory, the release before it.
std::string Release(const std::string& base, int files) {
    const std::string path = base + "/release" + std::to_string(files);
    if (fs::exists(path)) return path;
    (void)MakePackage(path, files, std::max(files / kEntriesPerKey, 1), "new");
    for (int i = 0; i < files; ++i) WriteFile(path + "/target/" + NameOfFile(i), "old");
    return path;
}

std::string OldReleaseIn(const std::string& base, int files) {
    const std::string path = Release(base, files);
    if (fs::exists(path + "/state/state")) Run("cd " + path + " && " + kVfilelist + kRollback);
    return path;
}

template <int Files>
std::string OldRelease() {
    return OldReleaseIn(MemoryDirectory(), Files);
}

template <int Files>
std::string UpgradedRelease() {
    const std::string path = Release(MemoryDirectory(), Files);
    if (!fs::exists(path + "/state/state")) Run("cd " + path + " && " + kVfilelist + kUpgrade);
    return path;
}

constexpr int kFew = 5000;
constexpr int kMany = 100000;

// What grows as the number of files and no faster takes as long for many as for few, so many times over.
void AddManyRow(const std::string& work, const std::string& command, std::string (*prepareFew)(),
                std::string (*prepareMany)()) {
    const auto few = [run = Running(prepareFew, kVfilelist + command)] { return run() * kMany / kFew; };
    AddRow("vfilelist", work + " of 100,000 files")
        .OursTimed(Running(prepareMany, kVfilelist + command))
        .BesideTimed("of 5,000 files, times 20", 1.2, few)
        .Repeated(kRepetitions);
}

double ChangeTime(const std::string& path) {
    struct stat status {};
    if (stat(path.c_str(), &status) != 0) std::abort();
    return static_cast<double>(status.st_ctim.tv_sec) + static_cast<double>(status.st_ctim.tv_nsec) * 1e-9;
}

void SyncPath(const std::string& path) {
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0 || fsync(fd) != 0) std::abort();
    (void)close(fd);
}

// On a disk, with nothing left to write.
std::string OldReleaseOnDisk() {
    std::string path = OldReleaseIn(DiskDirectory(), kFew);
    sync();
    return path;
}

// From the first rename, which is the last change of that file, to the state `installed`.
double SpanOfUpgrade() {
    const std::string path = OldReleaseOnDisk();
    Run("cd " + path + " && " + kVfilelist + kUpgrade);
    return ChangeTime(path + "/state/state") - ChangeTime(path + "/target/" + NameOfFile(0) + ".bak");
}

double SpanByHand() {
    const std::string path = OldReleaseOnDisk();
    const std::string tool = std::string(kLogOff) + VCOPYFILELISTINI_PATH;
    Run("cd " + path + " && " + tool + " -rename filelist.ini && " + tool + " -copy filelist.ini");
    for (int i = 0; i < kFew; ++i) SyncPath(path + "/target/" + NameOfFile(i));
    SyncPath(path + "/target");
    WriteFile(path + "/end", "");
    const double span = ChangeTime(path + "/end") - ChangeTime(path + "/target/" + NameOfFile(0) + ".bak");
    for (int i = 0; i < kFew; ++i) {
        const std::string target = path + "/target/" + NameOfFile(i);
        fs::rename(target + ".bak", target);
    }
    return span;
}

// The most memory that an upgrade of the release takes. A child has at least as much as the process that
// starts it: that is a small one.
double PeakMemoryOfUpgrade(const std::string& release) {
    const std::string command = std::string(kVfilelist) + kUpgrade;
    const std::string line = "cd " + release + " && /usr/bin/python3 -c \"import os, resource; os.system('" +
                             command + "'); print(resource.getrusage(resource.RUSAGE_CHILDREN).ru_maxrss)\"";
    FILE* const output = popen(line.c_str(), "r");
    double kibibytes = 0;
    if (output == nullptr || std::fscanf(output, "%lf", &kibibytes) != 1) std::abort();
    (void)pclose(output);
    return kibibytes * 1024;
}

// A target has three paths: its own, that of the package's file, and, in -rename, that of its backup.
double PathBytes() {
    const std::string path = Release(MemoryDirectory(), kMany);
    double bytes = 0;
    for (int i = 0; i < kMany; ++i) {
        bytes += 3 * static_cast<double>((path + "/target/" + NameOfFile(i)).size());
    }
    return bytes / kMany;
}

void AddUpgradeRows() {
    AddManyRow("check", "check filelist.ini >/dev/null || test $? = 1", OldRelease<kFew>, OldRelease<kMany>);
    AddManyRow("plan", "plan filelist.ini >/dev/null", OldRelease<kFew>, OldRelease<kMany>);
    AddManyRow("verify", "verify filelist.ini >/dev/null || test $? = 1", OldRelease<kFew>,
               OldRelease<kMany>);
    AddManyRow("upgrade", kUpgrade, OldRelease<kFew>, OldRelease<kMany>);
    AddManyRow("rollback", kRollback, UpgradedRelease<kFew>, UpgradedRelease<kMany>);
    AddRow("vfilelist", "first rename to `installed`, 5,000 files on a disk, elapsed")
        .OursTimed(SpanOfUpgrade)
        .BesideTimed("-rename, -copy and syncing", 1.5, SpanByHand)
        .Repeated(kRepetitions);
    AddRow("vfilelist", "memory of an upgrade, a target of 100,000")
        .OursTimed([] {
            const double few = PeakMemoryOfUpgrade(OldRelease<10>());
            return (PeakMemoryOfUpgrade(OldRelease<kMany>()) - few) / (kMany - 10);
        })
        .BesideTimed("its paths and 200 bytes", 1, [] { return PathBytes() + kTargetBytes; })
        .Repeated(1)
        .InBytes();
}

[[maybe_unused]] const bool kRows = [] {
    AddCopyRow<10, 10>(false);
    AddCopyRow<100, 10>(false);
    AddCopyRow<1000, 10>(false);
    AddCopyRow<5000, 100>(false);
    AddCopyRow<5000, 5000>(false);
    AddCopyRow<5000, 100>(true);
    AddVerifyRow<1>();
    AddVerifyRow<64>();
    AddVerifyRow<256>();
    AddVerifyRow<1024>();
    AddMakeRow<16>();
    AddMakeRow<256>();
    AddUpgradeRows();
    return true;
}();

}  // namespace
