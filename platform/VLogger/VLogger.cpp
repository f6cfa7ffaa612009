// The product's log as a rotating text file, on spdlog.
#include "VLogger.h"

#include <spdlog/sinks/rotating_file_sink.h>
#include <spdlog/sinks/stdout_color_sinks.h>

#include <algorithm>
#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <limits>
#include <memory>
#include <mutex>
#include <new>
#include <string>

#include "Escape.h"

namespace {

constexpr char kName[] = "VLogger";

constexpr std::size_t kKiB = 1024;
constexpr std::size_t kMostKiB = std::numeric_limits<std::size_t>::max() / kKiB;
constexpr int kMostFiles = 1000;

const char* TextOr(const char* text, const char* otherwise) {
    return text != nullptr ? text : otherwise;
}

bool IsSetInEnvironment(const char* name) {
    const char* const value = std::getenv(name);
    return value != nullptr && value[0] != '\0' && std::strcmp(value, "0") != 0;
}

std::string LogPath(const char* fileName, const char* directory) {
    const char* const otherDirectory = std::getenv("VLOGGER_DIRECTORY");
    std::string path =
        otherDirectory != nullptr && otherDirectory[0] != '\0' ? otherDirectory : TextOr(directory, "");
    if (!path.empty() && path.back() != '/') path += '/';
    return path + TextOr(fileName, "");
}

// The printf-style text, whatever its length.
__attribute__((format(printf, 1, 0))) std::string Format(const char* format, va_list arguments) {
    va_list again;
    va_copy(again, arguments);
    const int length = std::vsnprintf(nullptr, 0, format, again);
    va_end(again);
    if (length < 0) return format;

    std::string text(static_cast<std::size_t>(length) + 1, '\0');
    (void)std::vsnprintf(text.data(), text.size(), format, arguments);
    text.pop_back();
    return text;
}

spdlog::level::level_enum SpdlogLevel(LogLevel level) {
    if (level <= kLogLevelError) return spdlog::level::err;
    return level == kLogLevelWarning ? spdlog::level::warn : spdlog::level::info;
}

struct FileCloser {
    void operator()(std::FILE* file) const { (void)std::fclose(file); }
};

// A line that a full disk or a lost process cut short must not swallow the next one.
void EndTornLine(const std::string& path, std::FILE* log) {
    const std::unique_ptr<std::FILE, FileCloser> written(std::fopen(path.c_str(), "rbe"));
    if (!written || std::fseek(written.get(), -1, SEEK_END) != 0 || std::fgetc(written.get()) == '\n') return;

    (void)std::fputc('\n', log);
    (void)std::fflush(log);
}

// What stands between a StartSystem and its StopSystem.
class OpenLog {
public:
    OpenLog(std::string path, std::size_t maxBytes, std::size_t olderFiles, int detail, LogLevel maxLevel,
            bool isOnStandardError);
    void Write(const char* file, int line, const char* function, LogLevel level, const std::string& text);
    void ReportFirstTrouble(const std::exception& error);

private:
    std::unique_ptr<spdlog::sinks::sink> OpenFile();
    void WriteToFile(const spdlog::details::log_msg& message);
    void SetPattern(spdlog::sinks::sink& sink) const;

    const std::string path_;
    const std::size_t maxBytes_;
    const std::size_t olderFiles_;
    const int detail_;
    const LogLevel maxLevel_;
    bool isTroubleReported_ = false;
    bool isGivenUp_ = false;
    std::unique_ptr<spdlog::sinks::sink> standardError_;
    std::unique_ptr<spdlog::sinks::sink> file_;
};

OpenLog::OpenLog(std::string path, std::size_t maxBytes, std::size_t olderFiles, int detail,
                 LogLevel maxLevel, bool isOnStandardError)
    : path_(std::move(path)),
      maxBytes_(maxBytes),
      olderFiles_(olderFiles),
      detail_(detail),
      maxLevel_(maxLevel) {
    if (isOnStandardError) {
        standardError_ = std::make_unique<spdlog::sinks::stderr_color_sink_st>();
        SetPattern(*standardError_);
    }
    file_ = OpenFile();
}

// Null when it can't be opened. That is final: spdlog waits between its tries, and no line shall cost that. A
// want of memory costs no time, and may pass.
std::unique_ptr<spdlog::sinks::sink> OpenLog::OpenFile() {
    try {
        spdlog::file_event_handlers handlers;
        handlers.after_open = EndTornLine;
        auto file = std::make_unique<spdlog::sinks::rotating_file_sink_st>(path_, maxBytes_, olderFiles_,
                                                                           false, handlers);
        SetPattern(*file);
        return file;
    } catch (const std::bad_alloc& error) {
        ReportFirstTrouble(error);
    } catch (const std::exception& error) {
        isGivenUp_ = true;
        ReportFirstTrouble(error);
    }
    return nullptr;
}

void OpenLog::SetPattern(spdlog::sinks::sink& sink) const {
    sink.set_pattern(detail_ <= 0 ? "%v" : "%Y-%m-%d %H:%M:%S.%e %^%-5l%$ %v");
}

void OpenLog::ReportFirstTrouble(const std::exception& error) {
    if (!isTroubleReported_) ReportTrouble(kName, error.what());
    isTroubleReported_ = true;
}

void OpenLog::Write(const char* file, int line, const char* function, LogLevel level,
                    const std::string& text) {
    if (level > maxLevel_) return;

    std::string whole = text;
    if (detail_ >= 2) {
        whole = "[" + Escaped(TextOr(function, "(null)")) + "] " + text + " (" +
                Escaped(TextOr(file, "(null)")) + ":" + std::to_string(line) + ")";
    }
    const spdlog::details::log_msg message("", SpdlogLevel(level), whole);
    if (standardError_) {
        standardError_->log(message);
        standardError_->flush();
    }
    WriteToFile(message);
}

void OpenLog::WriteToFile(const spdlog::details::log_msg& message) {
    if (!file_ && !isGivenUp_) file_ = OpenFile();
    if (!file_) return;

    try {
        file_->log(message);
        file_->flush();  // the line is in the file when the call returns
    } catch (const std::exception& error) {
        // A sink that failed to open its next file would crash at its next line; the next line opens anew.
        file_.reset();
        ReportFirstTrouble(error);
    }
}

struct State {
    std::mutex mutex;
    std::unique_ptr<OpenLog> openLog;
    std::atomic<bool> isOpen{false};  // lets the lines of a program without a log cost next to nothing
};

// Never destroyed: a thread that still runs while the process exits may log. Nor allocated: that could fail.
State& SharedState() {
    alignas(State) static unsigned char room[sizeof(State)];
    static State& state = *new (room) State;
    return state;
}

}  // namespace

VLogger* VLogger::GetInstance() {
    static VLogger instance;
    return &instance;
}

void VLogger::StartSystem(const char* fileName, const char* directory, int fileCount, int detail,
                          LogLevel maxLevel, unsigned long maxFileKiB, bool alsoOnStandardError) {
    try {
        State& state = SharedState();
        const std::lock_guard<std::mutex> lock(state.mutex);
        state.isOpen = false;
        state.openLog.reset();
        const std::size_t maxBytes = std::clamp<std::size_t>(maxFileKiB, 1, kMostKiB) * kKiB;
        const auto olderFiles = static_cast<std::size_t>(std::clamp(fileCount, 1, kMostFiles) - 1);
        state.openLog =
            std::make_unique<OpenLog>(LogPath(fileName, directory), maxBytes, olderFiles, detail, maxLevel,
                                      alsoOnStandardError || IsSetInEnvironment("VLOGGER_STDERR"));
        state.isOpen = true;
    } catch (const std::exception& error) {
        ReportTrouble(kName, error.what());
    }
}

void VLogger::Log(const char* file, int line, const char* function, const char* /*module*/,
                  const char* /*tag*/, LogLevel level, const char* format, ...) {
    State& state = SharedState();
    if (format == nullptr || !state.isOpen) return;

    va_list arguments;
    va_start(arguments, format);
    try {
        std::string text = Format(format, arguments);
        if (!text.empty() && text.back() == '\n') text.pop_back();
        const std::lock_guard<std::mutex> lock(state.mutex);
        if (state.openLog) state.openLog->Write(file, line, function, level, Escaped(text));
    } catch (const std::exception& error) {
        const std::lock_guard<std::mutex> lock(state.mutex);
        if (state.openLog) state.openLog->ReportFirstTrouble(error);
    }
    va_end(arguments);
}

void VLogger::StopSystem() {
    State& state = SharedState();
    const std::lock_guard<std::mutex> lock(state.mutex);
    state.isOpen = false;
    state.openLog.reset();
}
