// What a command of vfilelist reports when it runs in this process, where calls can be replaced.
#ifndef TESTS_VFILELIST_REPORT_H
#define TESTS_VFILELIST_REPORT_H

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "Output.h"
#include "Package.h"
#include "SystemCalls.h"

// Sets a variable of the environment, or takes it away, for as long as it lives.
class Variable {
public:
    Variable(const char* name, const char* value) : name_(name) {
        if (const char* const old = std::getenv(name)) old_ = old;
        Set(value);
    }
    ~Variable() { Set(old_ ? old_->c_str() : nullptr); }
    Variable(const Variable&) = delete;
    Variable& operator=(const Variable&) = delete;

private:
    void Set(const char* value) const {
        EXPECT_EQ(value == nullptr ? unsetenv(name_) : setenv(name_, value, 1), 0);
    }

    const char* const name_;
    std::optional<std::string> old_;
};

// What `command`, which takes the output and returns the exit status, writes to standard output. The status
// goes to `exitStatus`, if that is not null.
template <typename Command>
std::string WrittenBy(Command command, bool isJson, int* exitStatus) {
    testing::internal::CaptureStdout();
    Output output(isJson);
    const int status = command(output);
    output.EndJson();
    EXPECT_TRUE(output.Finish());
    if (exitStatus != nullptr) *exitStatus = status;
    return testing::internal::GetCapturedStdout();
}

// The report as JSON.
template <typename Command>
nlohmann::json ReportOf(Command command, int* exitStatus = nullptr) {
    return nlohmann::json::parse(WrittenBy(std::move(command), true, exitStatus));
}

// The progress that people see on a terminal, when a second passes between two looks at the clock.
template <typename Command>
std::vector<std::string> ProgressOf(Command command) {
    const Variable term("TERM", "xterm");
    const Replaced terminal(calls::isatty, [](int fd) { return fd == STDERR_FILENO ? 1 : 0; });
    timespec now{1000, 0};
    const Replaced clock(calls::clock_gettime, [&now](clockid_t, timespec* time) {
        ++now.tv_sec;
        *time = now;
        return 0;
    });
    testing::internal::CaptureStderr();
    (void)WrittenBy(std::move(command), true, nullptr);
    const std::string text = testing::internal::GetCapturedStderr();

    const std::string wiped = "\r\033[K";
    std::vector<std::string> lines;
    for (std::size_t at = 0; at < text.size();) {
        const std::size_t end = std::min(text.find(wiped, at), text.size());
        if (end > at) lines.push_back(text.substr(at, end - at));
        at = end + wiped.size();
    }
    return lines;
}

// The report that people see on a terminal, with its styles as "{bold}text{}", "LIST" for the file list's
// path, and the directories of the package and of the installed release as "Common/" and "@/".
template <typename Command>
std::string ShownOnATerminal(const Package& package, Command command, int* exitStatus = nullptr) {
    const Variable term("TERM", "xterm");
    const Variable noColour("NO_COLOR", nullptr);
    const Replaced replaced(calls::isatty, [](int fd) { return fd == STDOUT_FILENO ? 1 : 0; });
    std::string text = WrittenBy(std::move(command), false, exitStatus);

    const std::pair<std::string, const char*> names[] = {{"\033[0m", "{}"},
                                                         {"\033[1m", "{bold}"},
                                                         {"\033[2m", "{dim}"},
                                                         {"\033[31m", "{error}"},
                                                         {"\033[32m", "{good}"},
                                                         {"\033[33m", "{warning}"},
                                                         {package.ListPath(), "LIST"},
                                                         {package.SourcePath(""), "Common/"},
                                                         {package.InstalledPath(), "@"}};
    for (const auto& [found, name] : names) {
        for (std::size_t at = 0; (at = text.find(found, at)) != std::string::npos;) {
            text.replace(at, found.size(), name);
        }
    }
    return text;
}

#endif
