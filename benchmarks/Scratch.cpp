#include "Scratch.h"

#include <sys/resource.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <stdexcept>

namespace {

namespace fs = std::filesystem;

class Directory {
public:
    explicit Directory(const char* base) {
        std::string pattern = fs::path(base) / "vfilesys-benchmark-XXXXXX";
        if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("no directory: " + pattern);
        path_ = pattern;
    }
    ~Directory() {
        std::error_code error;
        fs::remove_all(path_, error);
    }
    Directory(const Directory&) = delete;
    Directory& operator=(const Directory&) = delete;

    const std::string& path() const { return path_; }

private:
    std::string path_;
};

double Seconds(const timeval& time) {
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) * 1e-6;
}

double TimeOf(int who) {
    rusage usage{};
    (void)getrusage(who, &usage);
    return Seconds(usage.ru_utime) + Seconds(usage.ru_stime);
}

}  // namespace

const std::string& DiskDirectory() {
    const char* const base = std::getenv("TMPDIR");
    static const Directory directory(base != nullptr && base[0] != '\0' ? base : "/var/tmp");
    return directory.path();
}

const std::string& MemoryDirectory() {
    static const Directory directory("/dev/shm");
    return directory.path();
}

std::string SomeBytes(std::size_t size) {
    std::mt19937_64 random(20261121);
    std::string bytes(size, '\0');
    for (std::size_t i = 0; i < size; ++i) bytes[i] = static_cast<char>(random() >> 59);
    return bytes;
}

void WriteFile(const std::string& path, const std::string& content) {
    fs::create_directories(fs::path(path).parent_path());
    std::ofstream file(path, std::ios::binary);
    file.write(content.data(), static_cast<std::streamsize>(content.size()));
    file.close();
    if (!file) throw std::runtime_error("can't write " + path);
}

double ProcessorTime() {
    return TimeOf(RUSAGE_SELF) + TimeOf(RUSAGE_CHILDREN);
}
