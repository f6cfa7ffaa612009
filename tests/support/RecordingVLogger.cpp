// A library to preload in VLogger's place: it writes every call of a process to the file that the environment
// variable VLOGGER_RECORD names, one call a line, its arguments separated by tabs.
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "VLogger.h"

namespace {

std::string Escaped(const char* text) {
    std::string escaped;
    for (; *text != '\0'; ++text) {
        if (*text == '\n') {
            escaped += "\\n";
        } else {
            escaped += *text;
        }
    }
    return escaped;
}

void Record(const std::string& call) {
    const char* const path = std::getenv("VLOGGER_RECORD");
    FILE* const file = path != nullptr ? std::fopen(path, "ae") : nullptr;
    if (file == nullptr) return;
    (void)std::fprintf(file, "%s\n", call.c_str());
    (void)std::fclose(file);
}

}  // namespace

VLogger* VLogger::GetInstance() {
    static VLogger instance;
    return &instance;
}

void VLogger::StartSystem(const char* fileName, const char* directory, int fileCount, int detail,
                          LogLevel maxLevel, unsigned long maxFileKiB, bool alsoOnStandardError) {
    Record(std::string("StartSystem\t") + fileName + "\t" + directory + "\t" + std::to_string(fileCount) +
           "\t" + std::to_string(detail) + "\t" + std::to_string(static_cast<int>(maxLevel)) + "\t" +
           std::to_string(maxFileKiB) + "\t" + (alsoOnStandardError ? "true" : "false"));
}

void VLogger::Log(const char* file, int /*line*/, const char* function, const char* module, const char* tag,
                  LogLevel level, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    char* text = nullptr;
    if (vasprintf(&text, format, arguments) >= 0) {
        Record(std::string("Log\t") + file + "\t" + function + "\t" + module + "\t" + tag + "\t" +
               std::to_string(static_cast<int>(level)) + "\t" + Escaped(format) + "\t" + Escaped(text));
        std::free(text);
    }
    va_end(arguments);
}

void VLogger::StopSystem() {
    Record("StopSystem");
}
