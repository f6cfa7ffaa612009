// The bounds-checked string functions and the logger's stand-in with any texts. The fields of the input are
// two texts and, for the log, the names of a function and a file; what is missing is null there.
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "Input.h"
#include "Judge.h"
#include "MemoryFile.h"
#include "safestr.h"
#include "TextModel.h"
#include "VLogger.h"

namespace {

// The bounds-checked functions: each writes into a buffer of exactly `capacity` bytes, at least one.

void JudgeCopies(const std::string& text, std::size_t capacity, std::size_t count) {
    const ExactBlock source = ExactText(text);
    const ExactBlock copy(capacity);
    judge::Equal("strcpy_s", strcpy_s(copy.Data(), capacity, source.Data()),
                 text.size() < capacity ? 0 : ERANGE);
    judge::Equal("the text of strcpy_s", std::string(copy.Data()), text.size() < capacity ? text : "");

    const std::string part = text.substr(0, count);
    const ExactBlock partCopy(capacity);
    // The first `count` characters alone: no NUL need stand behind them.
    const ExactBlock partSource(part.size() < count ? part + '\0' : part);
    judge::Equal("strncpy_s", strncpy_s(partCopy.Data(), capacity, partSource.Data(), count),
                 part.size() < capacity ? 0 : ERANGE);
    judge::Equal("the text of strncpy_s", std::string(partCopy.Data()), part.size() < capacity ? part : "");
}

void JudgeFormat(const char* what, int length, const ExactBlock& room, const std::string& expected,
                 std::size_t limit) {
    const bool fits = expected.size() < limit;
    judge::Equal(what, length, fits ? static_cast<int>(expected.size()) : -1);
    judge::Equal("the formatted text", std::string(room.Data()), fits ? expected : "");
}

void JudgeFormats(const std::string& text, const std::string& other, std::size_t capacity,
                  std::size_t count) {
    const int number = static_cast<int>(text.size()) - static_cast<int>(other.size());
    const std::string digits = std::to_string(number);
    const std::size_t limit = count < capacity ? count + 1 : capacity;
    const char* const first = text.c_str();
    const char* const second = other.c_str();
    const ExactBlock room(capacity);
    char* const dest = room.Data();

    JudgeFormat("sprintf_s of a text", sprintf_s(dest, capacity, "%s", first), room, text, capacity);
    JudgeFormat("sprintf_s of two texts", sprintf_s(dest, capacity, "%s/%d%%%s", first, number, second), room,
                text + "/" + digits + "%" + other, capacity);
    JudgeFormat("snprintf_s of a text", snprintf_s(dest, capacity, count, "%c%s", '/', first), room,
                "/" + text, limit);
    JudgeFormat("snprintf_s of a part", snprintf_s(dest, capacity, count, "%.*s", 5, first), room,
                text.substr(0, 5), limit);
}

// Within one block of memory, so that the two places overlap.
void JudgeMoves(const std::string& text, std::size_t offset, std::size_t count) {
    const ExactBlock block(text);
    const std::size_t room = text.size() - offset;
    std::string expected = text;
    const bool fits = room > 0 && count <= room;
    if (fits) expected.replace(offset, count, text, 0, count);
    const int error = room == 0 ? EINVAL : ERANGE;
    judge::Equal("memmove_s", memmove_s(block.Data() + offset, room, block.Data(), count), fits ? 0 : error);
    judge::Equal("the moved bytes", block.Bytes(), expected);

    if (fits) expected.replace(offset, count, count, '#');
    judge::Equal("memset_s", memset_s(block.Data() + offset, room, '#', count), fits ? 0 : error);
    judge::Equal("the set bytes", block.Bytes(), expected);
}

void JudgeSafeStrings(const std::string& text, const std::string& other) {
    const std::size_t whole = text.size() + 1;
    for (const std::size_t capacity :
         {std::size_t{1}, whole / 2 + 1, whole, whole + 1, whole + other.size() + 5}) {
        for (const std::size_t count : {std::size_t{0}, other.size(), text.size(), whole}) {
            JudgeCopies(text, capacity, count);
            JudgeFormats(text, other, capacity, count);
        }
    }
    const std::size_t offset = other.size() < text.size() ? other.size() : text.size() / 2;
    for (const std::size_t count : {std::size_t{0}, text.size() - offset, text.size() / 2, whole}) {
        JudgeMoves(text, offset, count);
    }
}

// The logger. A line is what the log file has more after a call.

class Log {
public:
    Log() {
        (void)unsetenv("VLOGGER_DIRECTORY");
        (void)unsetenv("VLOGGER_STDERR");
        constexpr unsigned long kNeverRotatedKiB = 1UL << 40;
        VLogger::GetInstance()->StartSystem(file_.Name().c_str(), MemoryFile::kDirectory, 1, 2,
                                            kLogLevelInformation, kNeverRotatedKiB, false);
    }

    std::string TakeLines() const {
        std::string lines = file_.Read();
        file_.Write("");
        return lines;
    }

private:
    const MemoryFile file_;
};

std::string ModelOfLine(const std::string& text, const char* function, const char* file, int line) {
    const bool hasLineFeed = !text.empty() && text.back() == '\n';
    return "[" + ModelOfEscaping(function != nullptr ? function : "(null)") + "] " +
           ModelOfEscaping(hasLineFeed ? text.substr(0, text.size() - 1) : text) + " (" +
           ModelOfEscaping(file != nullptr ? file : "(null)") + ":" + std::to_string(line) + ")\n";
}

// "2026-01-31 23:59:59.999 error " with any digits.
void JudgeBeginning(const std::string& begin, const std::string& level) {
    const std::string form = "####-##-## ##:##:##.### " + level;
    bool isInForm = begin.size() == form.size();
    for (std::size_t i = 0; isInForm && i < form.size(); ++i) {
        const bool isDigit = begin[i] >= '0' && begin[i] <= '9';
        isInForm = form[i] == '#' ? isDigit : begin[i] == form[i];
    }
    if (!isInForm) judge::Fail("a line begins with " + judge::Shown(begin));
}

void JudgeLine(const std::string& lines, LogLevel level, const std::string& expected) {
    const std::string word = level == kLogLevelError ? "error " : "info  ";
    const std::size_t beginning = std::strlen("2026-01-31 23:59:59.999 ") + word.size();
    judge::Equal("the line", lines.substr(lines.size() < beginning ? 0 : beginning), expected);
    JudgeBeginning(lines.substr(0, beginning), word);
}

void JudgeLog(const std::string& text, const std::string& other, const char* function, const char* file) {
    static const Log log;
    VLogger& logger = *VLogger::GetInstance();
    const int line = static_cast<int>(text.size());

    logger.Log(file, line, function, " ", "", kLogLevelError, "%s", text.c_str());
    JudgeLine(log.TakeLines(), kLogLevelError, ModelOfLine(text, function, file, line));

    logger.Log(file, -1, function, nullptr, nullptr, kLogLevelInformation, "%s , %s\n", text.c_str(),
               other.c_str());
    JudgeLine(log.TakeLines(), kLogLevelInformation,
              ModelOfLine(text + " , " + other + "\n", function, file, -1));

    logger.Log(file, line, function, " ", "", static_cast<LogLevel>(kLogLevelInformation + 1), "%s",
               text.c_str());
    judge::Equal("a line of a level that is not wanted", log.TakeLines(), std::string());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::vector<std::string> fields = FieldsOf(data, size);
    const std::size_t count = fields.size();
    fields.resize(4);
    const std::string text = CText(fields[0]);
    const std::string other = CText(fields[1]);

    JudgeSafeStrings(text, other);
    JudgeLog(text, other, count > 2 ? fields[2].c_str() : nullptr, count > 3 ? fields[3].c_str() : nullptr);
    return 0;
}
