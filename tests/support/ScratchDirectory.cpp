#include "ScratchDirectory.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace fs = std::filesystem;

ScratchDirectory::ScratchDirectory() {
    const char* const base = std::getenv("TMPDIR");
    std::string pattern =
        fs::canonical(base != nullptr && base[0] != '\0' ? base : "/tmp") / "vfilesys-test-XXXXXX";
    if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("no scratch directory: " + pattern);
    path_ = pattern;
}

ScratchDirectory::~ScratchDirectory() {
    std::error_code error;
    fs::remove_all(path_, error);
}

std::string ScratchDirectory::Write(const std::string& name, const std::string& content) const {
    const std::string path = Path(name);
    fs::create_directories(fs::path(path).parent_path());
    std::ofstream file(path, std::ios::binary);
    file.write(content.data(), static_cast<std::streamsize>(content.size()));
    file.close();
    if (!file) throw std::runtime_error("can't write " + path);
    return path;
}

std::string ScratchDirectory::MakeDirectory(const std::string& name) const {
    fs::create_directories(Path(name));
    return Path(name);
}

std::string ScratchDirectory::Link(const std::string& name, const std::string& target) const {
    fs::create_directories(fs::path(Path(name)).parent_path());
    fs::create_symlink(target, Path(name));
    return Path(name);
}

std::string ScratchDirectory::Read(const std::string& name) const {
    return ReadWholeFile(Path(name));
}

bool ScratchDirectory::Has(const std::string& name) const {
    return fs::exists(fs::symlink_status(Path(name)));
}

std::vector<std::string> ScratchDirectory::List(const std::string& name) const {
    std::vector<std::string> names;
    for (const fs::directory_entry& entry : fs::directory_iterator(Path(name))) {
        names.push_back(entry.path().filename());
    }
    std::sort(names.begin(), names.end());
    return names;
}

WorkingDirectory::WorkingDirectory(const std::string& path)
    : old_(open(".", O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {
    if (old_ < 0 || chdir(path.c_str()) != 0) throw std::runtime_error("can't go to " + path);
}

WorkingDirectory::~WorkingDirectory() {
    if (fchdir(old_) != 0) std::abort();
    close(old_);
}

std::string ReadWholeFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    if (!file) throw std::runtime_error("can't read " + path);
    std::ostringstream content;
    content << file.rdbuf();
    return content.str();
}
