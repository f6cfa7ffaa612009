// A program with a logger of its own in the place of the installed one, against whose header it is built:
// what the library logs arrives there. It makes an INI reader, too.
#include <VDir.h>
#include <VIni.h>
#include <VLogger.h>

#include <cstdarg>
#include <cstdio>
#include <string>

namespace {

std::string lastLine;

}  // namespace

VLogger* VLogger::GetInstance() {
    static VLogger instance;
    return &instance;
}

void VLogger::StartSystem(const char*, const char*, int, int, LogLevel, unsigned long, bool) {}

void VLogger::Log(const char*, int, const char*, const char*, const char*, LogLevel, const char* format,
                  ...) {
    char line[256];
    va_list arguments;
    va_start(arguments, format);
    (void)std::vsnprintf(line, sizeof(line), format, arguments);
    va_end(arguments);
    lastLine = line;
}

void VLogger::StopSystem() {}

int main() {
    [[maybe_unused]] const VIni reader{};
    (void)VDir::VChownDirAndFirstDepthFiles("/no/such/directory", "root");
    if (lastLine == "Failed to lchown to user, error:2") return 0;
    (void)std::fprintf(stderr, "the library has logged: %s\n", lastLine.c_str());
    return 1;
}
