// The product's log as a rotating text file, on spdlog.
#include "VLogger.h"

#include <spdlog/logger.h>
#include <spdlog/sinks/rotating_file_sink.h>
#include <spdlog/sinks/stdout_color_sinks.h>

#include <algorithm>
#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace {

constexpr std::size_t kKiB = 1024;

const char* TextOr(const char* text, const char* otherwise) {
    return text != nullptr ? text : otherwise;
}

void ReportTrouble(const char* what) {
    (void)std::fprintf(stderr, "VLogger: %s\n", what);
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

const char* PatternOf(int detail) {
    if (detail <= 0) return "%v";
    if (detail == 1) return "%Y-%m-%d %H:%M:%S.%e %^%-5l%$ %v";
    return "%Y-%m-%d %H:%M:%S.%e %^%-5l%$ [%!] %v (%g:%#)";
}

spdlog::level::level_enum SpdlogLevel(LogLevel level) {
    if (level <= kLogLevelError) return spdlog::level::err;
    return level == kLogLevelWarning ? spdlog::level::warn : spdlog::level::info;
}

// The printf-style text, whatever its length.
std::string Format(const char* format, va_list arguments) {
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

void AppendEscaped(std::string& out, unsigned char byte) {
    switch (byte) {
        case '\n':
            out += "\\n";
            return;
        case '\r':
            out += "\\r";
            return;
        case '\t':
            out += "\\t";
            return;
        default:
            break;
    }
    char escape[5];
    (void)std::snprintf(escape, sizeof(escape), "\\x%02x", static_cast<unsigned>(byte));
    out += escape;
}

// One line of text: nothing in it can end the line or steer a terminal.
std::string AsOneLine(const std::string& text) {
    std::string line;
    line.reserve(text.size());
    const std::size_t length = !text.empty() && text.back() == '\n' ? text.size() - 1 : text.size();
    for (std::size_t i = 0; i < length; ++i) {
        const auto byte = static_cast<unsigned char>(text[i]);
        const bool isControl = byte < 0x20 || byte == 0x7f;
        // The other set of control characters, U+0080 to U+009F, as UTF-8 writes it.
        const bool isWideControl =
            byte == 0xc2 && i + 1 < length && (static_cast<unsigned char>(text[i + 1]) & 0xe0) == 0x80;
        if (isWideControl) {
            AppendEscaped(line, byte);
            AppendEscaped(line, static_cast<unsigned char>(text[++i]));
        } else if (isControl) {
            AppendEscaped(line, byte);
        } else {
            line += text[i];
        }
    }
    return line;
}

}  // namespace

class VLogger::State {
public:
    void Open(const char* fileName, const char* directory, int fileCount, int detail, LogLevel maxLevel,
              unsigned long maxFileKiB, bool alsoOnStandardError);
    void Write(const spdlog::source_loc& where, LogLevel level, const std::string& line);
    void Close();

private:
    struct OpenLog {
        OpenLog(std::vector<spdlog::sink_ptr> sinks, LogLevel highest)
            : logger("VLogger", sinks.begin(), sinks.end()), maxLevel(highest) {}
        spdlog::logger logger;
        const LogLevel maxLevel;
        std::atomic<bool> troubleReported{false};
    };

    std::mutex mutex_;
    std::shared_ptr<OpenLog> openLog_;
};

void VLogger::State::Open(const char* fileName, const char* directory, int fileCount, int detail,
                          LogLevel maxLevel, unsigned long maxFileKiB, bool alsoOnStandardError) {
    std::vector<spdlog::sink_ptr> sinks;
    if (alsoOnStandardError || IsSetInEnvironment("VLOGGER_STDERR")) {
        sinks.push_back(std::make_shared<spdlog::sinks::stderr_color_sink_mt>());
    }
    try {
        const auto olderFiles = static_cast<std::size_t>(std::max(fileCount, 1) - 1);
        sinks.push_back(std::make_shared<spdlog::sinks::rotating_file_sink_mt>(
            LogPath(fileName, directory), std::max(maxFileKiB, 1UL) * kKiB, olderFiles));
    } catch (const std::exception& error) {
        ReportTrouble(error.what());
    }

    auto openLog = std::make_shared<OpenLog>(std::move(sinks), maxLevel);
    openLog->logger.set_pattern(PatternOf(detail));
    openLog->logger.flush_on(spdlog::level::trace);  // a line is in the file when the call returns
    openLog->logger.set_error_handler([log = openLog.get()](const std::string& trouble) {
        if (!log->troubleReported.exchange(true)) ReportTrouble(trouble.c_str());
    });

    const std::lock_guard<std::mutex> lock(mutex_);
    openLog_ = std::move(openLog);
}

void VLogger::State::Write(const spdlog::source_loc& where, LogLevel level, const std::string& line) {
    std::shared_ptr<OpenLog> openLog;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        openLog = openLog_;
    }
    if (openLog && level <= openLog->maxLevel)
        openLog->logger.log(where, SpdlogLevel(level), spdlog::string_view_t(line));
}

void VLogger::State::Close() {
    const std::lock_guard<std::mutex> lock(mutex_);
    openLog_.reset();
}

// Never destroyed: a thread that still runs while the process exits may log.
VLogger::VLogger() : state_(new State) {}

VLogger* VLogger::GetInstance() {
    static VLogger* const instance = new VLogger;
    return instance;
}

void VLogger::StartSystem(const char* fileName, const char* directory, int fileCount, int detail,
                          LogLevel maxLevel, unsigned long maxFileKiB, bool alsoOnStandardError) {
    try {
        state_->Close();
        state_->Open(fileName, directory, fileCount, detail, maxLevel, maxFileKiB, alsoOnStandardError);
    } catch (const std::exception& error) {
        ReportTrouble(error.what());
    }
}

void VLogger::Log(const char* file, int line, const char* function, const char* /*module*/,
                  const char* /*tag*/, LogLevel level, const char* format, ...) {
    if (format == nullptr) return;

    va_list arguments;
    va_start(arguments, format);
    try {
        const std::string text = AsOneLine(Format(format, arguments));
        state_->Write(spdlog::source_loc{TextOr(file, ""), line, TextOr(function, "")}, level, text);
    } catch (const std::exception& error) {
        ReportTrouble(error.what());
    }
    va_end(arguments);
}

void VLogger::StopSystem() {
    try {
        state_->Close();
    } catch (const std::exception& error) {
        ReportTrouble(error.what());
    }
}
