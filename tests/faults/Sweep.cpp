#include "Sweep.h"

#include <cxxabi.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <iterator>
#include <limits>
#include <nlohmann/json.hpp>
#include <sstream>

#include "HeapCounter.h"
#include "LogRecorder.h"
#include "Resources.h"
#include "Scale.h"
#include "ScratchDirectory.h"
#include "VLogger.h"

namespace {

namespace fs = std::filesystem;

constexpr unsigned kSecondsUntilAHang = 60;
constexpr long kLast = std::numeric_limits<long>::max();
const int kErrors[] = {ENOENT, EACCES, EIO};
constexpr long kErrorCount = std::size(kErrors);

std::string Replace(std::string text, const std::string& from, const std::string& to) {
    for (std::size_t at = 0; (at = text.find(from, at)) != std::string::npos; at += to.size()) {
        text.replace(at, from.size(), to);
    }
    return text;
}

std::string Describe(const Fault& fault) {
    if (fault.call.empty()) return "no fault";
    return fault.call + " " + std::to_string(fault.n) + (fault.isOnwards ? " and all behind it" : "") +
           " fails with " + std::to_string(fault.error);
}

std::string FilesBelow(const std::string& dir) {
    std::vector<std::string> files;
    for (const auto& entry : fs::recursive_directory_iterator(dir)) {
        const std::string name = entry.path().lexically_relative(dir);
        if (entry.is_directory()) {
            files.push_back(name + "/");
        } else if (entry.is_symlink()) {
            files.push_back(name + "->" + fs::read_symlink(entry.path()).string());
        } else {
            const std::string content = ReadWholeFile(entry.path());
            files.push_back(name + "=" +
                            (content.size() < 60 ? content : std::to_string(content.size()) + " bytes"));
        }
    }
    std::sort(files.begin(), files.end());
    std::string all;
    for (const std::string& file : files) all += (all.empty() ? "" : " ") + file;
    return all;
}

// What the operation says, in memory that is not on the heap: heap blocks are counted, and may be refused.
char resultText[1024];

void KeepResult(const char* text, std::size_t length) {
    length = std::min(length, sizeof(resultText) - 1);
    std::memcpy(resultText, text, length);
    resultText[length] = '\0';
}

void RunAndKeepResult(const Operation& operation) {
    try {
        const std::string result = operation.run();
        KeepResult(result.data(), result.size());
    } catch (...) {
        const char* const name = abi::__cxa_current_exception_type()->name();
        KeepResult(name, std::strlen(name));
    }
}

std::string Leaks(long blocks, int descriptors) {
    std::string leaks;
    if (blocks != 0) leaks += std::to_string(blocks) + " heap blocks ";
    if (descriptors != 0) leaks += std::to_string(descriptors) + " descriptors ";
    if (waitpid(-1, nullptr, WNOHANG) != -1 || errno != ECHILD) leaks += "a child process";
    return leaks;
}

Outcome RunInScratchDirectory(const Operation& operation, const Fault& fault) {
    const ScratchDirectory scratch;
    const std::string warm = scratch.MakeDirectory("warm");
    const std::string dir = scratch.MakeDirectory("dir");
    const WorkingDirectory workingDirectory(warm);
    if (!operation.endsWithTheProcess) {
        // What is made once in a process's life is made now.
        operation.prepare();
        RunAndKeepResult(operation);
    }
    fs::current_path(dir);
    operation.prepare();

    Outcome outcome = RunHereWithFault(operation, fault);
    outcome.files = Replace(FilesBelow(dir), dir, "@");
    const long failures = gate::Failures();
    outcome.afterwards = operation.afterwards();
    outcome.laterHits = gate::Failures() - failures;
    return outcome;
}

void Send(int fd, const Outcome& outcome) {
    const std::string text =
        nlohmann::json{
            {"result", outcome.result},      {"error", outcome.error}, {"log", outcome.log},
            {"files", outcome.files},        {"leaks", outcome.leaks}, {"hits", outcome.hits},
            {"calls", outcome.calls},        {"dir", outcome.dir},     {"afterwards", outcome.afterwards},
            {"laterHits", outcome.laterHits}}
            .dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
    for (std::size_t sent = 0; sent < text.size();) {
        const ssize_t size = write(fd, text.data() + sent, text.size() - sent);
        if (size <= 0) _exit(3);
        sent += static_cast<std::size_t>(size);
    }
}

std::string ReadToEnd(int fd) {
    std::string text;
    char block[4096];
    ssize_t size = 0;
    while ((size = read(fd, block, sizeof(block))) > 0) text.append(block, static_cast<std::size_t>(size));
    return text;
}

Outcome Received(const std::string& text, int waitStatus) {
    Outcome outcome;
    if (waitStatus != 0 || text.empty()) {
        outcome.leaks = "died with wait status " + std::to_string(waitStatus);
        return outcome;
    }
    const nlohmann::json json = nlohmann::json::parse(text);
    outcome.result = json["result"];
    outcome.error = json["error"];
    outcome.log = json["log"].get<std::vector<std::string>>();
    outcome.files = json["files"];
    outcome.leaks = json["leaks"];
    outcome.hits = json["hits"];
    outcome.calls = json["calls"];
    outcome.dir = json["dir"];
    outcome.afterwards = json["afterwards"];
    outcome.laterHits = json["laterHits"];
    return outcome;
}

void ExpectSame(const Outcome& outcome, const Outcome& normal) {
    EXPECT_EQ(outcome.result, normal.result);
    EXPECT_EQ(outcome.log, normal.log);
    EXPECT_EQ(outcome.files, normal.files);
}

}  // namespace

Outcome RunWithFault(const Operation& operation, const Fault& fault) {
    int pipeEnds[2];
    if (pipe2(pipeEnds, O_CLOEXEC) != 0) return {};
    const pid_t child = fork();
    if (child == 0) {
        alarm(kSecondsUntilAHang);
        ::close(pipeEnds[0]);
        const bool hadFailed = testing::Test::HasFailure();
        const Outcome outcome = RunInScratchDirectory(operation, fault);
        Send(pipeEnds[1], outcome);
        _exit(testing::Test::HasFailure() && !hadFailed ? 2 : 0);
    }
    ::close(pipeEnds[1]);
    const std::string text = ReadToEnd(pipeEnds[0]);
    ::close(pipeEnds[0]);
    int waitStatus = -1;
    (void)waitpid(child, &waitStatus, 0);
    return Received(text, waitStatus);
}

Outcome RunHereWithFault(const Operation& operation, const Fault& fault) {
    const std::string dir = fs::current_path();
    (void)VLogger::GetInstance();
    LogRecorder::Clear();

    Outcome outcome;
    const int descriptors = OpenDescriptors();
    const long blocks = heap::LiveBlocks();
    const long failures = gate::Failures();
    errno = 0;
    gate::Open(fault);
    RunAndKeepResult(operation);
    const int error = errno;
    gate::Close();
    const long blocksBehind = heap::LiveBlocks();
    const std::vector<LogLine> lines = LogRecorder::Lines();
    const long blocksWithRecord = heap::LiveBlocks();
    LogRecorder::Clear();
    const long blocksOfRecord = blocksWithRecord - heap::LiveBlocks();
    const long blocksLeft = operation.endsWithTheProcess ? 0 : blocksBehind - blocksOfRecord - blocks;
    outcome.leaks = Leaks(blocksLeft, OpenDescriptors() - descriptors);

    const auto shortened = [&dir](const std::string& text) { return Replace(text, dir, "@"); };
    outcome.result = shortened(resultText);
    outcome.error = error;
    for (const LogLine& line : lines) {
        outcome.log.push_back(line.function + " " + std::to_string(line.level) + " " + shortened(line.text));
    }
    outcome.hits = gate::Failures() - failures;
    for (const auto& [call, count] : gate::Counts()) {
        outcome.calls += call + " " + std::to_string(count) + " ";
    }
    outcome.dir = dir;
    return outcome;
}

std::map<std::string, long> CountsOf(const std::string& calls) {
    std::map<std::string, long> counts;
    std::istringstream text(calls);
    std::string call;
    long count = 0;
    while (text >> call >> count) counts[call] = count;
    return counts;
}

Row::Row(std::string call, long first, long last, std::string result)
    : call_(std::move(call)), first_(first), last_(last), result_(std::move(result)) {}

Row& Row::Errno() {
    hasErrno_ = true;
    return *this;
}

Row& Row::Errno(int error) {
    hasErrno_ = true;
    errno_ = error;
    return *this;
}

Row& Row::Log(std::vector<std::string> lines) {
    log_ = std::move(lines);
    return *this;
}

Row& Row::Files(std::string files) {
    files_ = std::move(files);
    return *this;
}

Row& Row::ForError(int error) {
    onlyError_ = error;
    return *this;
}

Row& Row::Once() {
    isForOnwards_ = false;
    return *this;
}

Row& Row::Onwards() {
    isForOnce_ = false;
    return *this;
}

bool Row::IsFor(const Fault& fault) const {
    return call_ == fault.call && first_ <= fault.n && fault.n <= last_ &&
           onlyError_.value_or(fault.error) == fault.error && (fault.isOnwards ? isForOnwards_ : isForOnce_);
}

void Row::Compare(const Fault& fault, const Outcome& outcome) const {
    EXPECT_EQ(outcome.result, Replace(result_, "{errno}", std::to_string(fault.error)));
    if (hasErrno_) {
        EXPECT_EQ(outcome.error, errno_.value_or(fault.error)) << "errno";
    }
    std::vector<std::string> log;
    for (const std::string& line : log_) log.push_back(Replace(line, "{errno}", std::to_string(fault.error)));
    EXPECT_EQ(outcome.log, log);
    if (files_.has_value()) {
        EXPECT_EQ(outcome.files, *files_);
    }
}

Sweep::Sweep(std::string name, Operation operation)
    : name_(std::move(name)), operation_(std::move(operation)) {}

Row& Sweep::Expect(const std::string& call, const std::string& result) {
    return Expect(call, 1, kLast, result);
}

Row& Sweep::Expect(const std::string& call, long n, const std::string& result) {
    return Expect(call, n, n, result);
}

Row& Sweep::Expect(const std::string& call, long first, long last, const std::string& result) {
    return rows_.emplace_back(call, first, last, result);
}

void Sweep::CountVaries(const std::string& call) {
    varyingCall_ = call;
}

void Sweep::JudgeByRows(const Fault& fault, const Outcome& outcome, const Outcome& normal) const {
    const auto row = std::find_if(rows_.rbegin(), rows_.rend(),
                                  [&fault](const Row& candidate) { return candidate.IsFor(fault); });
    if (row == rows_.rend()) {
        ExpectSame(outcome, normal);
    } else {
        row->Compare(fault, outcome);
    }
}

void Sweep::Run(const std::string& floors) {
    Run(floors, [this](const Fault& fault, const Outcome& outcome, const Outcome& normal) {
        JudgeByRows(fault, outcome, normal);
    });
}

void Sweep::Run(const std::string& floors, const Judge& judge) {
    const Outcome normal = RunWithFault(operation_, {"", 0, false, 0});
    ASSERT_EQ(normal.leaks, "") << "without a fault";
    long pointCount = 0;
    long runs = 0;
    for (const auto& [call, count] : CountsOf(normal.calls)) {
        pointCount += count;
        for (long n = 1; n <= count; ++n) {
            for (const bool isOnwards : {false, true}) {
                for (const int error : kErrors) {
                    if (call == "malloc" && error != kErrors[0]) continue;  // it has one value of errno only
                    // A sample where it takes long; each call fails all the same.
                    if (call != "malloc" && kIsSlow && error != kErrors[n % kErrorCount]) continue;
                    const Fault fault = {call, n, isOnwards, call == "malloc" ? ENOMEM : error};
                    SCOPED_TRACE(Describe(fault));
                    const Outcome outcome = RunWithFault(operation_, fault);
                    ++runs;
                    EXPECT_EQ(outcome.leaks, "");
                    if (outcome.hits == 0 && call == varyingCall_) continue;
                    EXPECT_GE(outcome.hits, 1) << "the fault did not happen; calls: " << outcome.calls;
                    judge(fault, outcome, normal);
                }
            }
        }
    }
    std::cout << "Faults: " << name_ << ": " << pointCount << " points, " << runs << " runs (" << normal.calls
              << ")\n";
    ExpectFloors(floors, normal.calls);
}

void Sweep::ExpectFloors(const std::string& floors, const std::string& calls) const {
    std::map<std::string, long> counts = CountsOf(calls);
    for (const auto& [call, floor] : CountsOf(floors)) {
        if (call == "malloc" && !heap::IsCounted()) continue;
        EXPECT_GE(counts[call], floor) << name_ << " no longer reaches " << call;
    }
}
