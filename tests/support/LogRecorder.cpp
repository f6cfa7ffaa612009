#include "LogRecorder.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <new>
#include <ostream>
#include <sstream>
#include <tuple>

#include "SystemCalls.h"
#include "VLogger.h"

namespace {

struct Record {
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<LogLine> lines;
    std::vector<std::string> calls;
};

// Never destroyed: a worker of the library may log while the process exits.
Record& TheRecord() {
    static Record& record = *new Record;
    return record;
}

std::string WithoutExtension(const std::string& file) {
    const std::string extension = ".cpp";
    const bool hasIt = file.size() > extension.size() &&
                       file.compare(file.size() - extension.size(), extension.size(), extension) == 0;
    return hasIt ? file.substr(0, file.size() - extension.size()) : file;
}

void ThrowIfAsked(const char* call) {
    const char* const asked = LogRecorder::throwingCall;
    if (asked != nullptr && std::strcmp(asked, call) == 0) throw std::bad_alloc();
}

}  // namespace

const char* LogRecorder::throwingCall = nullptr;

bool LogLine::operator==(const LogLine& other) const {
    return std::tie(file, function, level, format, text) ==
           std::tie(other.file, other.function, other.level, other.format, other.text);
}

std::ostream& operator<<(std::ostream& out, const LogLine& line) {
    return out << '{' << line.file << ", " << line.function << ", " << line.level << ", \"" << line.format
               << "\", \"" << line.text << "\"}";
}

void LogRecorder::Clear() {
    const std::lock_guard<std::mutex> lock(TheRecord().mutex);
    // Gives the memory back as well: tests count heap blocks.
    TheRecord().lines = std::vector<LogLine>();
    TheRecord().calls = std::vector<std::string>();
}

std::vector<LogLine> LogRecorder::Lines() {
    const std::lock_guard<std::mutex> lock(TheRecord().mutex);
    return TheRecord().lines;
}

std::vector<std::string> LogRecorder::Texts() {
    std::vector<std::string> texts;
    for (const LogLine& line : Lines()) texts.push_back(line.text);
    return texts;
}

bool LogRecorder::WaitFor(const std::string& text, long count) {
    std::unique_lock<std::mutex> lock(TheRecord().mutex);
    return TheRecord().changed.wait_for(lock, std::chrono::minutes(2), [&text, count] {
        const std::vector<LogLine>& lines = TheRecord().lines;
        return std::count_if(lines.begin(), lines.end(),
                             [&text](const LogLine& line) { return line.text == text; }) >= count;
    });
}

std::vector<std::string> LogRecorder::Calls() {
    const std::lock_guard<std::mutex> lock(TheRecord().mutex);
    return TheRecord().calls;
}

// The logger's members, which the dynamic linker finds here before it finds those of libVLogger.so.

VLogger* VLogger::GetInstance() {
    static VLogger instance;
    errno = LogRecorder::kForeignErrno;
    return &instance;
}

void VLogger::StartSystem(const char* fileName, const char* directory, int fileCount, int detail,
                          LogLevel maxLevel, unsigned long maxFileKiB, bool alsoOnStandardError) {
    ThrowIfAsked("StartSystem");
    const calls::WithoutFaults paused;
    std::ostringstream call;
    call << "StartSystem(" << fileName << ", " << directory << ", " << fileCount << ", " << detail << ", "
         << static_cast<int>(maxLevel) << ", " << maxFileKiB << ", " << std::boolalpha << alsoOnStandardError
         << ")";
    const std::lock_guard<std::mutex> lock(TheRecord().mutex);
    TheRecord().calls.push_back(call.str());
}

void VLogger::Log(const char* file, int line, const char* function, const char* module, const char* tag,
                  LogLevel level, const char* format, ...) {
    ThrowIfAsked(format);
    const calls::WithoutFaults paused;
    EXPECT_GT(line, 0) << "the line of the call";
    EXPECT_STREQ(module, " ") << "the fixed fourth argument";
    EXPECT_STREQ(tag, "") << "the fixed fifth argument";

    va_list arguments;
    va_start(arguments, format);
    char* text = nullptr;
    EXPECT_GE(vasprintf(&text, format, arguments), 0);
    va_end(arguments);

    const std::lock_guard<std::mutex> lock(TheRecord().mutex);
    TheRecord().lines.push_back({WithoutExtension(file), function, static_cast<int>(level), format, text});
    TheRecord().calls.push_back("Log");
    TheRecord().changed.notify_all();
    free(text);
}

void VLogger::StopSystem() {
    ThrowIfAsked("StopSystem");
    const calls::WithoutFaults paused;
    const std::lock_guard<std::mutex> lock(TheRecord().mutex);
    TheRecord().calls.push_back("StopSystem()");
}
