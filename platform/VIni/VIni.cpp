// The product's INI reader, on SimpleIni, with the parse of the last file kept.
#include "VIni.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <memory>
#include <mutex>
#include <new>
#include <string_view>
#include <utility>

#include "Escape.h"

// The file is read byte for byte; no conversion library is wanted.
#define SI_NO_CONVERSION
#include <SimpleIni.h>

namespace {

constexpr char kName[] = "VIni";

struct FileCloser {
    void operator()(FILE* file) const { (void)std::fclose(file); }
};
using FileHandle = std::unique_ptr<FILE, FileCloser>;

bool IsSameMoment(const timespec& left, const timespec& right) {
    return left.tv_sec == right.tv_sec && left.tv_nsec == right.tv_nsec;
}

bool IsSameFile(const struct stat& left, const struct stat& right) {
    return left.st_dev == right.st_dev && left.st_ino == right.st_ino && left.st_size == right.st_size &&
           IsSameMoment(left.st_mtim, right.st_mtim) && IsSameMoment(left.st_ctim, right.st_ctim);
}

timespec Now(clockid_t clock) {
    timespec now{};
    clock_gettime(clock, &now);
    return now;
}

double SecondsFromTo(const timespec& begin, const timespec& end) {
    return static_cast<double>(end.tv_sec - begin.tv_sec) +
           static_cast<double>(end.tv_nsec - begin.tv_nsec) * 1e-9;
}

// How long after its last change another one can leave a file with the same time stamps, in seconds. They
// move in the steps of the kernel's coarse clock; where they are whole hundredths of a second perhaps in
// those of the file system, which are two seconds at the most.
double StampStep(const struct stat& status) {
    if (status.st_ctim.tv_nsec % 10'000'000 == 0) return 2;

    timespec step{};
    clock_getres(CLOCK_REALTIME_COARSE, &step);
    return 2 * SecondsFromTo({}, step);
}

// True when every change from now on gives the file other time stamps than these, seen first at `firstSeen`
// of the monotonic clock: they have become old, or were seen for so long that the clock that set them must
// have moved on. The second holds for stamps of the future, too, after a clock was set back.
bool IsSettled(const struct stat& status, const timespec& firstSeen) {
    const double step = StampStep(status);
    return SecondsFromTo(status.st_ctim, Now(CLOCK_REALTIME_COARSE)) > step ||
           SecondsFromTo(firstSeen, Now(CLOCK_MONOTONIC_COARSE)) > step;
}

// Gives up to `size` bytes of the file's beginning. False when it can't be read; `errno` says why.
bool ReadBeginning(FILE* file, std::size_t size, std::string& content) {
    content.resize(size);
    content.resize(std::fread(content.data(), 1, size, file));
    return std::ferror(file) == 0;
}

// True when the line of the '[' at `bracket` has nothing else, but for blanks and a byte-order mark.
bool IsLoneBracket(std::string_view text, std::size_t bracket) {
    constexpr auto npos = std::string_view::npos;
    constexpr std::string_view blanks = " \t";
    constexpr std::string_view lineEnds = "\r\n";
    const std::string_view before = text.substr(0, bracket);
    const std::string_view behind = text.substr(bracket + 1);
    const std::size_t last = before.find_last_not_of(blanks);
    const std::size_t next = behind.find_first_not_of(blanks);
    const bool isFirst =
        last == npos || lineEnds.find(before[last]) != npos || before.substr(0, last + 1) == "\xef\xbb\xbf";
    return isFirst && next != npos && lineEnds.find(behind[next]) != npos;
}

// SimpleIni looks for the name of a line that is only "[" in the next line, which is lost then. A name
// without a ']' makes it a line like others that lack one.
std::string WithNamedBrackets(const std::string& content) {
    std::string text;
    std::size_t copied = 0;
    for (std::size_t at = content.find('['); at != std::string::npos; at = content.find('[', at + 1)) {
        if (!IsLoneBracket(content, at)) continue;
        text.append(content, copied, at + 1 - copied) += 'x';
        copied = at + 1;
    }
    return text.append(content, copied);
}

class ParsedFile {
public:
    // Parses `iniPath`, unless it is the file that was parsed last. False when it can't be read; `errno` says
    // why.
    bool Load(const char* iniPath);

    const char* Value(const char* section, const char* key) const { return ini_->GetValue(section, key); }
    int AddKeys(const char* section, std::set<std::string>& keys) const;

private:
    bool Read(const char* iniPath);
    void Parse(std::string content);

    std::unique_ptr<CSimpleIniCaseA> ini_;
    std::string content_;
    struct stat identity_ = {};
    timespec firstSeen_ = {};
    bool isSettled_ = false;
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
    return (isSettled_ && IsSameFile(status, identity_)) || Read(iniPath);
}

bool ParsedFile::Read(const char* iniPath) {
    isSettled_ = false;
    const FileHandle file(std::fopen(iniPath, "rbe"));
    struct stat status;
    if (!file || fstat(fileno(file.get()), &status) != 0) return false;
    if (!IsSameFile(status, identity_)) {
        identity_ = status;
        firstSeen_ = Now(CLOCK_MONOTONIC_COARSE);
    }
    const bool isSettled = IsSettled(status, firstSeen_);  // a change may follow the reading at once

    std::string content;
    if (!ReadBeginning(file.get(), static_cast<std::size_t>(status.st_size), content)) return false;
    if (!ini_ || content != content_) Parse(std::move(content));
    isSettled_ = isSettled;
    return true;
}

void ParsedFile::Parse(std::string content) {
    auto ini = std::make_unique<CSimpleIniCaseA>();
    // Without conversions nothing else can be wrong.
    if (ini->LoadData(WithNamedBrackets(content)) < 0) throw std::bad_alloc();
    ini_ = std::move(ini);
    content_ = std::move(content);
}

int ParsedFile::AddKeys(const char* section, std::set<std::string>& keys) const {
    CSimpleIniCaseA::TNamesDepend found;
    if (!ini_->GetAllKeys(section, found)) return 0;

    std::set<std::string> names;
    for (const CSimpleIniCaseA::Entry& key : found) names.insert(key.pItem);
    keys.merge(names);  // all of them or, when memory is short, none
    return static_cast<int>(found.size());
}

// What the calls share, under one lock.
class Reader {
public:
    // What `read` makes of the file; `otherwise` when it can't be read.
    template <typename Read>
    int Use(const char* iniPath, int otherwise, Read read);

private:
    bool Load(const char* iniPath);
    void ReportOnce(std::string trouble);

    std::mutex mutex_;
    ParsedFile file_;
    std::string lastTrouble_;
};

template <typename Read>
int Reader::Use(const char* iniPath, int otherwise, Read read) {
    const std::lock_guard<std::mutex> lock(mutex_);
    try {
        return Load(iniPath) ? read(file_) : otherwise;
    } catch (const std::bad_alloc& error) {
        ReportOnce(error.what());
        return otherwise;
    }
}

bool Reader::Load(const char* iniPath) {
    if (file_.Load(iniPath)) {
        lastTrouble_.clear();
        return true;
    }
    ReportOnce(std::string(iniPath) + ": " + std::strerror(errno));
    return false;
}

// Once is enough: whoever asks for one key of a missing file goes on to ask for the next.
void Reader::ReportOnce(std::string trouble) {
    if (trouble == lastTrouble_) return;
    ReportTrouble(kName, trouble);
    lastTrouble_ = std::move(trouble);
}

// Never destroyed, so that it serves until the process has ended. Nor allocated: that could fail.
Reader& SharedReader() {
    alignas(Reader) static unsigned char room[sizeof(Reader)];
    static Reader& reader = *new (room) Reader;
    return reader;
}

int CopyValue(const ParsedFile& file, const char* section, const char* key, char* buffer,
              std::size_t bufferSize, const char* iniPath) {
    const char* const value = file.Value(section, key);
    if (value == nullptr) return -1;

    const std::size_t length = std::strlen(value);
    if (length >= bufferSize) {
        ReportTrouble(kName, std::string(iniPath) + ": [" + section + "] " + key + ": the value of " +
                                 std::to_string(length) + " bytes is longer than " +
                                 std::to_string(bufferSize - 1));
        return -1;
    }
    std::memcpy(buffer, value, length + 1);
    return 0;
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
    if (key != nullptr && iniPath != nullptr) {
        status = SharedReader().Use(iniPath, -1, [=](const ParsedFile& file) {
            return CopyValue(file, section != nullptr ? section : "", key, buffer, capacity, iniPath);
        });
    }
    if (status != 0) CopyDefault(defaultValue, buffer, capacity);
    return status;
}

int VIni::IniGetStringItems(const char* section, std::set<std::string>& keys, const char* iniPath) {
    if (iniPath == nullptr) return 0;
    return SharedReader().Use(iniPath, 0, [section, &keys](const ParsedFile& file) {
        return file.AddKeys(section != nullptr ? section : "", keys);
    });
}
