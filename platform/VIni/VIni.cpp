// The product's INI reader, on SimpleIni, with the parse of the last file kept.
#include "VIni.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <exception>
#include <memory>
#include <mutex>

// The file is read byte for byte; no conversion library is wanted.
#define SI_NO_CONVERSION
#include <SimpleIni.h>

namespace {

struct FileCloser {
    void operator()(FILE* file) const { (void)std::fclose(file); }
};
using FileHandle = std::unique_ptr<FILE, FileCloser>;

// One line on standard error. Names come from the file: a control character in one must not steer a terminal.
void Report(std::string trouble) {
    for (char& character : trouble) {
        const auto byte = static_cast<unsigned char>(character);
        if (byte < 0x20 || byte == 0x7f) character = '?';
    }
    (void)std::fprintf(stderr, "VIni: %s\n", trouble.c_str());
}

bool IsSameMoment(const timespec& left, const timespec& right) {
    return left.tv_sec == right.tv_sec && left.tv_nsec == right.tv_nsec;
}

bool IsSameFile(const struct stat& left, const struct stat& right) {
    return left.st_dev == right.st_dev && left.st_ino == right.st_ino && left.st_size == right.st_size &&
           IsSameMoment(left.st_mtim, right.st_mtim) && IsSameMoment(left.st_ctim, right.st_ctim);
}

// True when the file changed so lately that one more change could leave it with the same time stamps: they
// move in the steps of the kernel's coarse clock.
bool IsJustChanged(const struct stat& status) {
    timespec now{};
    timespec step{};
    clock_gettime(CLOCK_REALTIME_COARSE, &now);
    clock_getres(CLOCK_REALTIME_COARSE, &step);
    const double age = static_cast<double>(now.tv_sec - status.st_ctim.tv_sec) +
                       static_cast<double>(now.tv_nsec - status.st_ctim.tv_nsec) * 1e-9;
    return age <= 2 * (static_cast<double>(step.tv_sec) + static_cast<double>(step.tv_nsec) * 1e-9);
}

class ParsedFile {
public:
    // Parses `iniPath`, unless it is the file that was parsed last. False when it can't be read; `errno` says
    // why.
    bool Load(const char* iniPath);

    const char* Value(const char* section, const char* key) const { return ini_->GetValue(section, key); }
    int AddKeys(const char* section, std::set<std::string>& keys) const;

private:
    bool Parse(const char* iniPath);

    std::unique_ptr<CSimpleIniCaseA> ini_;
    struct stat identity_ = {};
    bool isTrusted_ = false;
};

bool ParsedFile::Load(const char* iniPath) {
    struct stat status;
    if (stat(iniPath, &status) != 0) return false;
    if (S_ISDIR(status.st_mode)) {
        errno = EISDIR;
        return false;
    }
    if (!S_ISREG(status.st_mode)) {  // reading a pipe or a device may never end
        errno = EINVAL;
        return false;
    }
    return (ini_ && isTrusted_ && IsSameFile(status, identity_)) || Parse(iniPath);
}

bool ParsedFile::Parse(const char* iniPath) {
    ini_.reset();
    const FileHandle file(std::fopen(iniPath, "rbe"));
    if (!file || fstat(fileno(file.get()), &identity_) != 0) return false;
    isTrusted_ = !IsJustChanged(identity_);

    auto ini = std::make_unique<CSimpleIniCaseA>();
    const SI_Error error = ini->LoadFile(file.get());
    if (error < 0) {
        errno = error == SI_NOMEM ? ENOMEM : EIO;
        return false;
    }
    ini_ = std::move(ini);
    return true;
}

int ParsedFile::AddKeys(const char* section, std::set<std::string>& keys) const {
    CSimpleIniCaseA::TNamesDepend found;
    if (!ini_->GetAllKeys(section, found)) return 0;

    for (const CSimpleIniCaseA::Entry& key : found) keys.insert(key.pItem);
    return static_cast<int>(found.size());
}

// What the calls share, under one lock.
class Reader {
public:
    int CopyValue(const char* section, const char* key, char* buffer, std::size_t bufferSize,
                  const char* iniPath);
    int AddKeys(const char* section, std::set<std::string>& keys, const char* iniPath);

private:
    bool Load(const char* iniPath);

    std::mutex mutex_;
    ParsedFile file_;
    std::string lastTrouble_;
};

bool Reader::Load(const char* iniPath) {
    if (file_.Load(iniPath)) {
        lastTrouble_.clear();
        return true;
    }
    const std::string trouble = std::string(iniPath) + ": " + std::strerror(errno);
    // Once is enough: whoever asks for one key of a missing file goes on to ask for the next.
    if (trouble != lastTrouble_) Report(trouble);
    lastTrouble_ = trouble;
    return false;
}

int Reader::CopyValue(const char* section, const char* key, char* buffer, std::size_t bufferSize,
                      const char* iniPath) {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (!Load(iniPath)) return -1;
    const char* const value = file_.Value(section, key);
    if (value == nullptr) return -1;

    const std::size_t length = std::strlen(value);
    if (length >= bufferSize) {
        Report(std::string(iniPath) + ": [" + section + "] " + key + ": the value of " +
               std::to_string(length) + " bytes is longer than " + std::to_string(bufferSize - 1));
        return -1;
    }
    std::memcpy(buffer, value, length + 1);
    return 0;
}

int Reader::AddKeys(const char* section, std::set<std::string>& keys, const char* iniPath) {
    const std::lock_guard<std::mutex> lock(mutex_);
    return Load(iniPath) ? file_.AddKeys(section, keys) : 0;
}

// Never destroyed, so that it serves until the process has ended.
Reader& SharedReader() {
    static Reader& reader = *new Reader;
    return reader;
}

// The default may be the buffer itself.
void CopyDefault(const char* defaultValue, char* buffer, std::size_t bufferSize) {
    const char* const text = defaultValue != nullptr ? defaultValue : "";
    const std::size_t length = std::strlen(text);
    if (length < bufferSize) {
        std::memmove(buffer, text, length + 1);
    } else {
        buffer[0] = '\0';
    }
}

}  // namespace

int VIni::IniGetString(const char* section, const char* key, const char* defaultValue, char* buffer,
                       int bufferSize, const char* iniPath) {
    if (buffer == nullptr || bufferSize < 1) return -1;

    const auto capacity = static_cast<std::size_t>(bufferSize);
    int status = -1;
    try {
        if (key != nullptr && iniPath != nullptr) {
            status =
                SharedReader().CopyValue(section != nullptr ? section : "", key, buffer, capacity, iniPath);
        }
    } catch (const std::exception& error) {
        Report(error.what());
    }
    if (status != 0) CopyDefault(defaultValue, buffer, capacity);
    return status;
}

int VIni::IniGetStringItems(const char* section, std::set<std::string>& keys, const char* iniPath) {
    if (iniPath == nullptr) return 0;
    try {
        return SharedReader().AddKeys(section != nullptr ? section : "", keys, iniPath);
    } catch (const std::exception& error) {
        Report(error.what());
        return 0;
    }
}
