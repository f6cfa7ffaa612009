// The INI reader's stand-in on any bytes: what it gives agrees with itself and stands in the file, and no
// value overruns its buffer. The input is the file.
#include <sys/syscall.h>
#include <unistd.h>

#include <cstddef>
#include <ctime>
#include <set>
#include <string>

#include "CapturedErrorStream.h"
#include "Input.h"
#include "Judge.h"
#include "MemoryFile.h"
#include "TextModel.h"
#include "VIni.h"

namespace {

constexpr std::size_t kMostSections = 8;
constexpr std::size_t kMostKeys = 24;

// Whatever could be the name of a section, and the section of the keys before the first.
std::set<std::string> SectionNames(const std::string& content) {
    std::set<std::string> names = {""};
    for (std::size_t at = content.find('['); at != std::string::npos && names.size() < kMostSections;
         at = content.find('[', at + 1)) {
        const std::string name = CText(content.substr(at + 1, content.find_first_of("]\r\n", at) - at - 1));
        const std::size_t begin = name.find_first_not_of(" \t");
        if (begin != std::string::npos) {
            names.insert(name.substr(begin, name.find_last_not_of(" \t") - begin + 1));
        }
    }
    return names;
}

bool IsBlank(char character) {
    return character == ' ' || character == '\t';
}

// What a reader of a single line can have given.
void JudgeText(const char* claim, const std::string& text, const std::string& content) {
    const bool isOneLine = text.find_first_of("\r\n") == std::string::npos;
    const bool isTrimmed = text.empty() || !(IsBlank(text.front()) || IsBlank(text.back()));
    judge::Holds(claim, isOneLine && isTrimmed && content.find(text) != std::string::npos);
}

// Reads into a buffer of exactly `capacity` bytes, with "?" for what is not there.
int Read(const std::string& section, const std::string& key, std::size_t capacity, const std::string& path,
         std::string& value) {
    const ExactBlock buffer(capacity);
    const int status =
        VIni::IniGetString(section.c_str(), key.c_str(), "?", buffer.Data(), buffer.Length(), path.c_str());
    value = buffer.Data();
    return status;
}

void JudgeKey(const std::string& section, const std::string& key, const std::string& path,
              const std::string& content) {
    std::string value;
    judge::Equal("the status of a key that the section has",
                 Read(section, key, content.size() + 1, path, value), 0);
    JudgeText("a value stands in the file, on one line, without blanks around it", value, content);

    std::string again;
    judge::Equal("the status for a buffer that is just large enough",
                 Read(section, key, value.size() + 1, path, again), 0);
    judge::Equal("the value read into that buffer", again, value);
    if (value.empty()) return;

    judge::Equal("the status for a buffer that is one byte too small",
                 Read(section, key, value.size(), path, again), -1);
    judge::Equal("the text instead of a value that does not fit", again, value.size() > 1 ? "?" : "");
}

void JudgeSection(const std::string& section, const std::string& path, const std::string& content,
                  std::size_t& keysLeft) {
    std::set<std::string> keys;
    const int count = VIni::IniGetStringItems(section.c_str(), keys, path.c_str());
    judge::Equal("the number of keys", static_cast<std::size_t>(count), keys.size());

    for (const std::string& key : keys) {
        if (keysLeft == 0) return;
        --keysLeft;
        judge::Holds("a key has a name", !key.empty());
        JudgeText("a key stands in the file, on one line, without blanks around it", key, content);
        JudgeKey(section, key, path, content);
    }

    // No key has a '=' in its name.
    std::string value;
    judge::Equal("the status of a missing key", Read(section, "a=b", 2, path, value), -1);
    judge::Equal("the text instead of a missing value", value, "?");
}

// Each complaint is one line, and nothing in it steers a terminal, in whatever encoding.
void JudgeComplaints(const std::string& text) {
    if (text.empty()) return;
    judge::Holds("complaints end in a line feed", text.back() == '\n');
    for (const std::string& line : PiecesOf(text.substr(0, text.size() - 1), '\n')) {
        judge::Holds("a complaint begins with VIni", line.compare(0, 6, "VIni: ") == 0);
        judge::Equal("a complaint without what has to be escaped", WithoutUnprintable(line), line);
    }
}

}  // namespace

// The clock of the file times is fast, so that no file looks as if it might change once more: the reader then
// keeps the parse, instead of reading for every key, and many more inputs are tried.
extern "C" int clock_gettime(clockid_t clock, timespec* time) noexcept {
    const long status = syscall(SYS_clock_gettime, clock, time);
    if (status == 0 && clock == CLOCK_REALTIME_COARSE) ++time->tv_sec;
    return static_cast<int>(status);
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const MemoryFile file;  // a new one each time, which no kept parse can be of
    const std::string content = BytesOf(data, size);
    file.Write(content);

    const CapturedErrorStream captured;
    std::size_t keysLeft = kMostKeys;
    for (const std::string& section : SectionNames(content)) {
        JudgeSection(section, file.Path(), content, keysLeft);
    }
    JudgeComplaints(captured.Text());
    return 0;
}
