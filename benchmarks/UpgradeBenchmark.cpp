// The upgrade tool and vfilelist as processes, beside the programs that people copy and compare files with.

#include <cstdlib>
#include <filesystem>
#include <string>

#include "Rows.h"
#include "Scratch.h"

namespace {

namespace fs = std::filesystem;

constexpr int kFiles = 5000;
constexpr std::size_t kFileSize = 2000;

// A package of 5,000 small files, its file list cut into `keys` keys.
std::string Package(int keys) {
    const std::string path = MemoryDirectory() + "/package" + std::to_string(keys);
    if (fs::exists(path)) return path;
    const std::string content = SomeBytes(kFileSize);
    std::string list = "[Package_Intall_Type]\nPackageIntallType=Server\n[Server]\nBinFiles=" + path +
                       "/target\n[BinFiles]\n";
    for (int i = 0; i < kFiles; ++i) {
        const std::string name = "file" + std::to_string(i);
        WriteFile(path + "/Common/" + name, content);
        list += i % (kFiles / keys) == 0 ? "\nkey" + std::to_string(i) + "=" + name : "," + name;
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

template <int Keys>
std::string FreshPackage() {
    const std::string path = Package(Keys);
    fs::remove_all(path + "/target");
    fs::create_directories(path + "/target");
    return path;
}

const char kLogOff[] = "VLOGGER_DIRECTORY=/dev/null/none ";
const char kLogOn[] = "VLOGGER_DIRECTORY=$PWD/log ";
const char kCopy[] = VCOPYFILELISTINI_PATH " -copy filelist.ini 2>/dev/null";

template <int Keys>
void AddCopyRow(bool isLogged) {
    const double copyTarget = isLogged ? 0 : 1.2;
    const double rsyncTarget = isLogged ? 0 : 1;
    AddRow("Upgrade tool",
           "-copy of 5,000 files, " + std::to_string(Keys) + " keys, log " + (isLogged ? "on" : "off"))
        .OursTimed(Running(FreshPackage<Keys>, std::string(isLogged ? kLogOn : kLogOff) + kCopy))
        .BesideTimed("cp -t", copyTarget, Running(FreshPackage<Keys>, "cp -t target Common/*"))
        .BesideTimed("rsync -a", rsyncTarget, Running(FreshPackage<Keys>, "rsync -a Common/ target/"))
        .BesideTimed("install", 0, Running(FreshPackage<Keys>, "install -t target Common/*"));
}

// One file of 1 GiB, in memory, and its copy.
std::string LargePackage() {
    const std::string path = MemoryDirectory() + "/large";
    if (fs::exists(path)) return path;
    const std::string block = SomeBytes(std::size_t{1} << 26);
    std::string content;
    for (int i = 0; i < 16; ++i) content += block;
    WriteFile(path + "/Common/file", content);
    WriteFile(path + "/target/file", content);
    WriteFile(path + "/filelist.ini", "[Package_Intall_Type]\nPackageIntallType=Server\n[Server]\nBinFiles=" +
                                          path + "/target\n[BinFiles]\nf=file\n");
    return path;
}

[[maybe_unused]] const bool kRows = [] {
    AddCopyRow<100>(false);
    AddCopyRow<5000>(false);
    AddCopyRow<100>(true);
    AddRow("vfilelist", "verify of a 1 GiB package")
        .OursTimed(Running(LargePackage, VFILELIST_PATH " verify filelist.ini >/dev/null"))
        .BesideTimed("cmp", 1.1, Running(LargePackage, "cmp Common/file target/file"));
    return true;
}();

}  // namespace
