// The upgrade tool and vfilelist as processes, beside the programs that people copy and compare files with.

#include <cstdlib>
#include <filesystem>
#include <string>

#include "Rows.h"
#include "Scratch.h"

namespace {

namespace fs = std::filesystem;

constexpr std::size_t kFileSize = 2000;

// A package of `files` small files, its file list cut into `keys` keys.
std::string Package(int files, int keys) {
    const std::string path =
        MemoryDirectory() + "/package" + std::to_string(files) + "-" + std::to_string(keys);
    if (fs::exists(path)) return path;
    const std::string content = SomeBytes(kFileSize);
    std::string list = "[Package_Intall_Type]\nPackageIntallType=Server\n[Server]\nBinFiles=" + path +
                       "/target\n[BinFiles]\n";
    for (int i = 0; i < files; ++i) {
        const std::string name = "file" + std::to_string(i);
        WriteFile(path + "/Common/" + name, content);
        list += i % (files / keys) == 0 ? "\nkey" + std::to_string(i) + "=" + name : "," + name;
    }
    WriteFile(path + "/filelist.ini", list + "\n");
    fs::create_directories(path + "/target");
    return path;
}

// What `command` takes, without what is made ready for it.
auto Running(std::string (*prepare)(), std::string command) {
    return [=] {
        const std::string package = prepare();
        const std::string line = "cd " + package + " && " + command;
        const double before = ProcessorTime();
        if (std::system(line.c_str()) != 0) std::abort();
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
    return true;
}();

}  // namespace
