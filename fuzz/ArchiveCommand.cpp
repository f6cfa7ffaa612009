// The commands of the archive functions and their guard, against a model; no shell is ever started. The first
// field of the input says what is done: 'f' packs a file, 'p' a path, 'g' a group; a '-' in it means that
// there is no archive afterwards, a '!' that the shell can't be started, a digit how many lines the command
// prints. The second field is the path, or the list of a group; the third is the group's archive.
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/types.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

#include "Input.h"
#include "Judge.h"
#include "VCompressAndDeCompress.h"

namespace {

constexpr int kFailure = -10000;

// What the shell of an execution does, and what was asked of the system in it.
struct Shell {
    bool canStart = true;
    bool leavesArchive = true;
    int linesToPrint = 0;
    std::vector<std::string> steps;
};

// Null outside an execution: the engine asks the system itself.
Shell* shell = nullptr;

// The stream of the command, which only the functions below can use.
FILE* TheStream() {
    static char stream;
    return reinterpret_cast<FILE*>(&stream);
}

void Note(const std::string& step) {
    if (shell == nullptr) judge::Fail(step + " outside of an execution");
    shell->steps.push_back(step);
}

struct Expected {
    bool throws = false;
    std::string command;
    std::string archive;
};

std::string LastName(const std::string& directory) {
    std::string name;
    for (const char character : directory) name = character == '/' ? "" : name + character;
    return name;
}

Expected ModelOf(char operation, const std::string& path, const std::string& archiveBase) {
    std::string archive = path + ".tar.gz";
    if (operation == 'g') archive = archiveBase + ".tar.gz";
    if (operation == 'p') {
        if (path.empty()) return {true, "", ""};
        const std::string directory = path.back() == '/' ? path.substr(0, path.size() - 1) : path;
        archive = directory + "/" + LastName(directory) + ".tar.gz";
    }
    return {false, "tar -zcvf " + archive + " " + path, archive};
}

bool IsRefused(const std::string& command) {
    bool isAndBefore = false;
    for (const char character : command) {
        if (character == ';' || character == '|' || character == '$' || character == '`') return true;
        if (character == '&' && isAndBefore) return true;
        isAndBefore = character == '&';
    }
    return false;
}

// The calls of the system, in their order.
std::vector<std::string> ModelOfSteps(const Shell& plan, const Expected& expected) {
    if (expected.throws || IsRefused(expected.command)) return {};
    std::vector<std::string> steps = {"popen " + expected.command};
    if (!plan.canStart) return steps;
    for (int i = 0; i <= plan.linesToPrint; ++i) steps.emplace_back("getline");
    steps.emplace_back("pclose");
    steps.push_back("stat " + expected.archive);
    return steps;
}

Shell PlanOf(const std::string& text) {
    Shell plan;
    for (const char character : text) {
        if (character == '-') plan.leavesArchive = false;
        if (character == '!') plan.canStart = false;
        if (character >= '0' && character <= '9') plan.linesToPrint = character - '0';
    }
    return plan;
}

int Run(char operation, const std::string& path, const std::string& archiveBase) {
    const ExactBlock pathText = ExactText(path);
    const ExactBlock archiveText = ExactText(archiveBase);
    switch (operation) {
        case 'g':
            return VCompressAndDeCompress::CompressFileGroup(pathText.Data(), archiveText.Data());
        case 'p':
            return VCompressAndDeCompress::CompressFilePath(pathText.Data());
        default:
            return VCompressAndDeCompress::CompressFile(pathText.Data());
    }
}

void JudgeRun(const Shell& plan, char operation, const std::string& path, const std::string& archiveBase) {
    const Expected expected = ModelOf(operation, path, archiveBase);
    Shell played = plan;
    shell = &played;
    int result = 0;
    bool hasThrown = false;
    try {
        result = Run(operation, path, archiveBase);
    } catch (const std::out_of_range&) {
        hasThrown = true;
    }
    shell = nullptr;

    judge::Equal("that an exception is thrown", hasThrown, expected.throws);
    judge::Equal("the list of calls", played.steps, ModelOfSteps(plan, expected));
    if (hasThrown) return;
    const bool isSuccess = !IsRefused(expected.command) && plan.canStart && plan.leavesArchive;
    judge::Equal("the result", result, isSuccess ? 0 : kFailure);
}

}  // namespace

// The calls of the system, in whose place the library finds these.

extern "C" FILE* popen(const char* command, const char* mode) {
    judge::Equal("the mode of popen", std::string(mode), std::string("r"));
    Note(std::string("popen ") + command);
    return shell->canStart ? TheStream() : nullptr;
}

extern "C" int pclose(FILE* stream) {
    judge::Holds("the command's stream is closed", stream == TheStream());
    Note("pclose");
    return 0;
}

extern "C" ssize_t getline(char** line, size_t* capacity, FILE* stream) {
    const char text[] = "a/b\n";
    judge::Holds("the command's stream is read", stream == TheStream());
    Note("getline");
    if (shell->linesToPrint-- <= 0) return -1;
    // As the platform's does: the block is the caller's to free.
    if (*line == nullptr) *line = static_cast<char*>(std::malloc(*capacity = sizeof(text)));
    if (*line != nullptr) std::memcpy(*line, text, sizeof(text));
    return sizeof(text) - 1;
}

extern "C" int stat(const char* path, struct stat* status) noexcept {
    if (shell == nullptr) return fstatat(AT_FDCWD, path, status, 0);
    Note(std::string("stat ") + path);
    errno = ENOENT;
    return shell->leavesArchive ? 0 : -1;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::vector<std::string> fields = FieldsOf(data, size);
    fields.resize(3);
    const char operation = fields[0].empty() ? 'f' : fields[0][0];
    JudgeRun(PlanOf(fields[0]), operation, CText(fields[1]), CText(fields[2]));
    return 0;
}
