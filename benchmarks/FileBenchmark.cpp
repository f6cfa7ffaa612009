// VFile and VDir beside plain code, std::filesystem and the standard streams.
#include "VFile.h"

#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "Plain.h"
#include "Rows.h"
#include "Scratch.h"
#include "VDir.h"

namespace {

namespace fs = std::filesystem;

std::string Named(std::size_t size) {
    if (size == 0) return "0 B";
    if (size < 1024) return std::to_string(size) + " B";
    if (size < std::size_t{1024} * 1024) return std::to_string(size / 1024) + " KiB";
    return std::to_string(size / 1024 / 1024) + " MiB";
}

// The source is written at first use: a run of a few rows needs not all of them.
const std::string& SourceOf(const std::string& directory, std::size_t size) {
    static std::vector<std::pair<std::string, bool>> made;
    static std::vector<std::unique_ptr<std::string>> paths;
    const std::string path = directory + "/source-" + std::to_string(size);
    for (const auto& known : paths) {
        if (*known == path) return *known;
    }
    WriteFile(path, SomeBytes(size));
    paths.push_back(std::make_unique<std::string>(path));
    return *paths.back();
}

enum class Place { kMemory, kDisk };

const std::string& DirectoryOf(Place place) {
    return place == Place::kMemory ? MemoryDirectory() : DiskDirectory();
}

// On a disk, copies go to names that are free, as in an upgrade behind -rename. Over old content a disk file
// system writes new content out at once, and the time is the disk's.
auto Freeing(Place place, const char* name) {
    return [place, path = DirectoryOf(place) + "/copy-" + name] {
        if (place == Place::kDisk) (void)unlink(path.c_str());
    };
}

template <typename Copy>
auto CopyingWork(Place place, std::size_t size, const char* name, Copy copy) {
    return [=] {
        const std::string& source = SourceOf(DirectoryOf(place), size);
        const std::string destination = DirectoryOf(place) + "/copy-" + name;
        copy(source.c_str(), destination.c_str());
    };
}

void AddCopyRow(Place place, std::size_t size, double plainTarget, double filesystemTarget) {
    const auto ours = [](const char* source, const char* destination) {
        if (VFile::VCopyFile(source, destination) != 0) std::abort();
    };
    const auto plainCopy = [](const char* source, const char* destination) {
        if (plain::CopyFile(source, destination) != 0) std::abort();
    };
    const auto filesystemCopy = [](const char* source, const char* destination) {
        fs::copy_file(source, destination, fs::copy_options::overwrite_existing);
    };
    AddRow("VFile", "VCopyFile, " + Named(size) + (place == Place::kMemory ? ", in memory" : ", on a disk"))
        .OursAfter(Freeing(place, "ours"), CopyingWork(place, size, "ours", ours))
        .BesideAfter("plain loop", plainTarget, Freeing(place, "plain"),
                     CopyingWork(place, size, "plain", plainCopy))
        .BesideAfter("std::filesystem::copy_file", filesystemTarget, Freeing(place, "filesystem"),
                     CopyingWork(place, size, "filesystem", filesystemCopy))
        .Growing(place == Place::kDisk ? "VCopyFile on a disk, bytes" : "", static_cast<double>(size));
}

[[maybe_unused]] const bool kCopyRows = [] {
    constexpr std::size_t kKiB = 1024;
    constexpr std::size_t kMiB = 1024 * kKiB;
    AddCopyRow(Place::kMemory, 0, 0, 0.8);
    AddCopyRow(Place::kMemory, kKiB, 0, 0.95);
    AddCopyRow(Place::kMemory, kMiB, 0.92, 1.25);
    // Below 128 KiB a copy is the plain loop, and one question more.
    AddCopyRow(Place::kDisk, kKiB, 1.15, 0);
    AddCopyRow(Place::kDisk, 64 * kKiB, 1.1, 0);
    AddCopyRow(Place::kDisk, 128 * kKiB, 0.92, 0);
    AddCopyRow(Place::kDisk, kMiB, 0.65, 1.25);
    AddCopyRow(Place::kDisk, 64 * kMiB, 0.65, 1.1);
    AddCopyRow(Place::kDisk, 512 * kMiB, 0.65, 1.1);
    return true;
}();

void AddStreamRows(std::size_t size) {
    const std::string bytes = Named(size);
    const auto content = std::make_shared<std::string>(SomeBytes(size));
    const auto source = [size]() -> const char* { return SourceOf(MemoryDirectory(), size).c_str(); };
    const auto target = [](const char* name) { return MemoryDirectory() + "/" + name; };

    AddRow("VFile", "FileSize, " + bytes)
        .Ours([source] { benchmark::DoNotOptimize(VFile::FileSize(source())); })
        .Beside("std::ifstream, plainly", 1.0, [source] {
            std::ifstream file(source(), std::ios::binary | std::ios::ate);
            benchmark::DoNotOptimize(static_cast<long>(file.tellg()));
        });
    const auto buffer = std::make_shared<std::string>(size, '\0');
    AddRow("VFile", "ReadBinFile, " + bytes)
        .Ours([=] {
            benchmark::DoNotOptimize(VFile::ReadBinFile(source(), buffer->data(), static_cast<long>(size)));
        })
        .Growing("ReadBinFile, bytes", static_cast<double>(size))
        .Beside("std::ifstream, plainly", 1.0, [=] {
            std::ifstream file(source(), std::ios::binary | std::ios::ate);
            const auto length = file.tellg();
            file.seekg(0);
            file.read(buffer->data(), length);
            benchmark::DoNotOptimize(buffer->data());
        });
    AddRow("VFile", "WriteBinFile, " + bytes)
        .Ours([=] {
            benchmark::DoNotOptimize(
                VFile::WriteBinFile(target("written").c_str(), content->data(), static_cast<long>(size)));
        })
        .Beside("std::ofstream and std::ifstream, plainly", 1.0, [=] {
            const std::string path = target("written-plainly");
            {
                std::ofstream file(path, std::ios::trunc | std::ios::binary);
                file.write(content->data(), static_cast<std::streamsize>(size));
            }
            std::ifstream file(path, std::ios::binary | std::ios::ate);
            benchmark::DoNotOptimize(static_cast<long>(file.tellg()));
        });
    AddRow("VFile", "AppendWriteFile, " + bytes)
        .Ours([=] {
            const std::string path = target("appended");
            benchmark::DoNotOptimize(
                VFile::AppendWriteFile(path.c_str(), content->data(), static_cast<long>(size)));
            (void)unlink(path.c_str());
        })
        .Beside("std::ofstream, plainly", 1.0, [=] {
            const std::string path = target("appended-plainly");
            {
                std::ofstream file(path, std::ios::app);
                file.write(content->data(), static_cast<std::streamsize>(size));
            }
            (void)unlink(path.c_str());
        });
}

[[maybe_unused]] const bool kStreamRows = [] {
    for (const std::size_t size :
         {std::size_t{100}, std::size_t{4096}, std::size_t{65536}, std::size_t{8} << 20}) {
        AddStreamRows(size);
    }
    return true;
}();

// So many directories of 100 files each.
std::string Tree(int directories) {
    const std::string path = MemoryDirectory() + "/tree" + std::to_string(directories);
    if (fs::exists(path)) return path;
    const std::string root = path;
    for (int i = 0; i < directories; ++i) {
        const std::string directory = root + "/directory" + std::to_string(i);
        fs::create_directories(directory);
        for (int j = 0; j < 100; ++j) std::ofstream(directory + "/file" + std::to_string(j) + ".data");
    }
    return path;
}

void AddScanRow(int directories) {
    const auto expected = static_cast<std::size_t>(directories) * 100;
    const double target = directories == 1000 ? 1.0 : 0;
    AddRow("VFile", "ScanDirectoriesFiles, " + std::to_string(expected) + " files")
        .Ours([=] {
            std::vector<std::string> files;
            VFile::ScanDirectoriesFiles(Tree(directories), files);
            if (files.size() != expected) std::abort();
        })
        .Beside("plain", target,
                [=] {
                    std::vector<std::string> files;
                    plain::ScanFiles(Tree(directories), files);
                    if (files.size() != expected) std::abort();
                })
        .Beside("std::filesystem iterator", target,
                [=] {
                    std::vector<std::string> files;
                    const auto options = fs::directory_options::follow_directory_symlink;
                    for (const auto& entry : fs::recursive_directory_iterator(Tree(directories), options)) {
                        if (fs::is_regular_file(fs::status(entry.path()))) files.push_back(entry.path());
                    }
                    if (files.size() != expected) std::abort();
                })
        .BesideTimed("find -L, as a process", 0,
                     [=] {
                         const std::string command = "find -L " + Tree(directories) + " -type f >/dev/null";
                         const double before = ProcessorTime();
                         if (std::system(command.c_str()) != 0) std::abort();
                         return ProcessorTime() - before;
                     })
        .AtMostAllocations(static_cast<double>(expected) * (directories == 1000 ? 1.05 : 1.5))
        .Growing("ScanDirectoriesFiles, files", static_cast<double>(expected));
}

[[maybe_unused]] const bool kListingRows = [] {
    for (const int directories : {1, 10, 100, 1000}) AddScanRow(directories);
    AddRow("VFile", "ListSubDirectories, 1,000 directories")
        .Ours([] {
            std::vector<std::string> directories;
            VFile::ListSubDirectories(Tree(1000), directories);
            if (directories.size() != 1000) std::abort();
        })
        .Beside("std::filesystem iterator", 1.0, [] {
            std::vector<std::string> directories;
            for (const auto& entry : fs::directory_iterator(Tree(1000))) {
                if (fs::is_directory(fs::status(entry.path()))) directories.push_back(entry.path());
            }
            if (directories.size() != 1000) std::abort();
        });
    return true;
}();

template <typename Make>
auto MakingWork(const char* name, int levels, Make make) {
    return [=] {
        const std::string top = MemoryDirectory() + "/" + name;
        std::string path = top;
        for (int i = 1; i < levels; ++i) path += "/level";
        make(path);
        for (int i = 0; i < levels; ++i, path.resize(path.rfind('/'))) (void)rmdir(path.c_str());
    };
}

[[maybe_unused]] const bool kDirectoryRows = [] {
    for (const int levels : {1, 4, 10, 100}) {
        AddRow("VDir", "VMkDir, missing levels: " + std::to_string(levels))
            .Ours(MakingWork("made", levels,
                             [](const std::string& path) {
                                 if (VDir::VMkDir(path.c_str(), 0755) != 0) std::abort();
                             }))
            .Beside("std::filesystem::create_directories", 1.05,
                    MakingWork("made-by-filesystem", levels,
                               [](const std::string& path) {
                                   if (!fs::create_directories(path)) std::abort();
                               }))
            .Growing("VMkDir, missing levels", levels);
    }
    AddRow("VDir", "VMkDir, existing")
        .Ours([] { benchmark::DoNotOptimize(VDir::VMkDir(MemoryDirectory().c_str(), 0755)); })
        .Beside("one stat", 1.15, [] {
            struct stat status;
            benchmark::DoNotOptimize(stat(MemoryDirectory().c_str(), &status));
        });
    return true;
}();

}  // namespace
