// Stands in VLogger's place in a test program and keeps what the library logs.
#ifndef TESTS_SUPPORT_LOGRECORDER_H
#define TESTS_SUPPORT_LOGRECORDER_H

#include <iosfwd>
#include <string>
#include <vector>

struct LogLine {
    std::string file;  // as logged, without its ".cpp"
    std::string function;
    int level;
    std::string format;
    std::string text;

    bool operator==(const LogLine& other) const;
};

std::ostream& operator<<(std::ostream& out, const LogLine& line);

// Every call to VLogger since the program started or Clear() was called. The recorder's GetInstance() changes
// errno, so that an errno which was not saved before the log call shows up as kForeignErrno. Safe to use from
// several threads.
class LogRecorder {
public:
    static constexpr int kForeignErrno = 4242;

    static void Clear();
    static std::vector<LogLine> Lines();
    // The texts alone.
    static std::vector<std::string> Texts();
    // Waits until `count` lines with this text were logged; false when that takes minutes.
    static bool WaitFor(const std::string& text, long count = 1);
    // What StartSystem and StopSystem were called with, as one text each, in the order of the calls; log
    // lines stand between them as "Log".
    static std::vector<std::string> Calls();
    // "StartSystem", "StopSystem" or the format of a line, which throws std::bad_alloc instead of being kept.
    static const char* throwingCall;
};

#endif
