// The three passes of an upgrade with each of their calls failing in turn: the log, the result and the files
// are those of a model, and nothing is lost.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <iostream>
#include <random>

#include "FaultTexts.h"
#include "LogRecorder.h"
#include "Process.h"
#include "Scale.h"
#include "Sweep.h"
#include "SystemCalls.h"
#include "Tool.h"
#include "UpgradeModel.h"

namespace {

namespace fs = std::filesystem;

const char kList[] = "pkg/filelist.ini";
const Fault kNoFault = {"", 0, false, 0};
const std::string kBanner = "main 3 ---------------------------------------------------";

// Five files that are installed and one that is new, in two target directories, one of which is missing.
const std::map<std::string, std::string> kNew = {{"tool", "the new tool"}, {"conf", "new configuration"},
                                                 {"data", Pattern(5000)},  {"lib/a.so", "library"},
                                                 {"readme", ""},           {"fresh", "had no predecessor"}};
const std::map<std::string, std::string> kOld = {{"tool", "the old tool"},
                                                 {"conf", "old"},
                                                 {"data", Pattern(3000)},
                                                 {"a.so", "was here before"},
                                                 {"readme", "text"}};

ModelPackage NewPackage() {
    ModelPackage package;
    package.installType = "Server";
    package.lists = {{"Bin",
                      "installed/bin/",
                      {{"f", {{"tool", "tool"}, {"conf", "conf"}, {"lib/a.so", "a.so"}}},
                       {"g", {{"data", "data"}, {"readme", "readme"}}}}},
                     {"Fresh", "installed/new/", {{"f", {{"fresh", "fresh"}}}}}};
    for (const auto& [name, content] : kNew) package.files["pkg/Common/" + name] = content;
    for (const auto& [name, content] : kOld) package.files["installed/bin/" + name] = content;
    package.files["installed/bin/unlisted"] = "nobody's business";
    package.directories = {"installed", "installed/bin", "pkg", "pkg/Common", "pkg/Common/lib", "/"};
    const std::string place = ScratchDirectory().Path("dir");
    package.ancestors = std::count(place.begin(), place.end(), '/');
    return package;
}

void MakeInstalledFiles() {
    for (const auto& [name, content] : kNew) {
        fs::create_directories(fs::path("pkg/Common/" + name).parent_path());
        Write("pkg/Common/" + name, content);
    }
    fs::create_directories("installed/bin");
    for (const auto& [name, content] : kOld) Write("installed/bin/" + name, content);
    Write("installed/bin/unlisted", "nobody's business");
    Write(
        kList,
        "[Package_Intall_Type]\nPackageIntallType=Server\n[Server]\nBin=installed/bin\nFresh=installed/new/\n"
        "[Bin]\nf=tool,conf,lib/a.so\ng=data,readme\n[Fresh]\nf=fresh\n");
}

int RunPass(const char* pass) {
    return RunTool(pass, kList);
}

long SizeOf(const std::string& path) {
    std::error_code missing;
    const auto size = fs::file_size(path, missing);
    return missing ? -1 : static_cast<long>(size);
}

// C: every entry that the INI reader delivered has the source's size. The log names them.
std::string WhatIsShort() {
    std::string wrong;
    for (const LogLine& line : LogRecorder::Lines()) {
        const std::size_t comma = line.text.find(" , ");
        const bool isEntry = line.function == "CopyOperator" && line.text.rfind("pkg/Common/", 0) == 0;
        if (!isEntry || comma == std::string::npos) continue;
        const std::string target = line.text.substr(comma + 3);
        const long size = SizeOf(line.text.substr(0, comma));
        if (size < 0 || SizeOf(target) != size) wrong += " though " + target + " is not whole";
    }
    return wrong;
}

// The result as a text, with a complaint behind it where it says too much.
std::string RunAndJudge(const std::string& pass) {
    const int result = RunPass(pass.c_str());
    const calls::WithoutFaults paused;
    return std::to_string(result) + (pass == "-copy" && result == 0 ? WhatIsShort() : "");
}

// In the working directory, but for the file list.
std::map<std::string, std::string> FilesHere() {
    std::map<std::string, std::string> files;
    for (const auto& entry : fs::recursive_directory_iterator(".")) {
        const std::string name = entry.path().lexically_relative(".");
        if (!entry.is_directory() && name != kList) files[name] = ReadWholeFile(name);
    }
    return files;
}

// In the working directory, and the root directory.
std::vector<std::string> DirectoriesHere() {
    std::vector<std::string> directories = {"/"};
    for (const auto& entry : fs::recursive_directory_iterator(".")) {
        if (entry.is_directory()) directories.push_back(entry.path().lexically_relative("."));
    }
    return directories;
}

// A and B: the old file or its backup until -clean begins, the new file from then on. E: what is not listed
// is as it was.
std::string WhatIsLost(const std::string& pass) {
    std::string lost;
    std::map<std::string, std::string> files = FilesHere();
    for (const auto& [name, content] : kOld) {
        const std::string path = "installed/bin/" + name;
        const std::string& wanted = pass == "-clean" ? kNew.at(name == "a.so" ? "lib/a.so" : name) : content;
        const bool isHere = files.count(path) == 1 && files[path] == wanted;
        const bool isBackedUp =
            pass != "-clean" && files.count(path + ".bak") == 1 && files[path + ".bak"] == content;
        if (!isHere && !isBackedUp) lost += path + " ";
    }
    if (files["installed/bin/unlisted"] != "nobody's business") lost += "unlisted ";
    return lost;
}

// D: the same pass again and those behind it end well.
std::string RunTheRest(const std::string& pass) {
    const std::vector<const char*> passes = {"-rename", "-copy", "-clean"};
    for (auto next = std::find(passes.begin(), passes.end(), pass); next != passes.end(); ++next) {
        if (RunPass(*next) != 0) return std::string(*next) + " failed ";
    }
    return "";
}

std::string WhatIsWrongInTheEnd() {
    std::string wrong;
    std::map<std::string, std::string> files = FilesHere();
    for (const auto& [name, content] : kNew) {
        const std::string path =
            name == "fresh" ? "installed/new/fresh" : "installed/bin/" + fs::path(name).filename().string();
        if (files.count(path) == 0 || files[path] != content) wrong += path + " ";
        if (files.count(path + ".bak") == 1) wrong += path + ".bak ";
    }
    return wrong;
}

std::string FilesText(const std::map<std::string, std::string>& files) {
    std::string text;
    for (const auto& [name, content] : files) text += name + "=" + content + "\n";
    return text;
}

// A pass under test, which begins where those before it have ended well.
struct Pass {
    std::string name;
    ModelPackage package;
    Operation operation;
};

Pass PassBehind(const std::vector<const char*>& before, const std::string& name) {
    Pass pass = {name, NewPackage(), {}};
    for (const char* const earlier : before) {
        pass.package.files = RunModel(earlier, pass.package, kNoFault).files;
        if (earlier == std::string("-copy")) pass.package.directories.emplace_back("installed/new");
    }
    pass.operation.prepare = [before] {
        MakeInstalledFiles();
        for (const char* const earlier : before) ASSERT_EQ(RunPass(earlier), 0);
    };
    pass.operation.run = [name] { return RunAndJudge(name); };
    return pass;
}

// The log, the result and the files are the model's. An allocation that fails ends the run as a failed one,
// or is done without: success then leaves what it leaves without a fault. (fopen says that there is no file.)
void ExpectAsModelled(const Pass& pass, const Fault& fault, const Outcome& outcome,
                      const std::string& files) {
    const bool isOfMemory = fault.call == "malloc";
    if (isOfMemory && outcome.result == "-10000") {
        ASSERT_GE(outcome.log.size(), 2U);
        EXPECT_EQ(*(outcome.log.end() - 2), kBanner);
        EXPECT_EQ(outcome.log.back(), "main 3             Failed");
        return;
    }
    const ModelOutcome model = RunModel(pass.name, pass.package, isOfMemory ? kNoFault : fault);
    EXPECT_EQ(outcome.result, std::to_string(model.result));
    EXPECT_EQ(outcome.log, model.log);
    EXPECT_EQ(files, FilesText(model.files));
}

// What an operation tells afterwards: the files as it left them, and what is wrong. Before the passes are run
// to their end, `meanwhile` may do something more, and complain.
std::string Afterwards(const Pass& pass, const std::function<std::string()>& meanwhile) {
    const std::string files = FilesText(FilesHere());
    std::string wrong = WhatIsLost(pass.name) + meanwhile();
    wrong += RunTheRest(pass.name);
    return files + "wrong: " + wrong + WhatIsWrongInTheEnd();
}

void ExpectAllIsWell(const Pass& pass, const Fault& fault, const Outcome& outcome) {
    const std::size_t end = outcome.afterwards.rfind("wrong: ");
    ASSERT_NE(end, std::string::npos);
    EXPECT_EQ(outcome.afterwards.substr(end), "wrong: ");
    ExpectAsModelled(pass, fault, outcome, outcome.afterwards.substr(0, end));
}

void SweepPass(Pass pass, const std::string& floors) {
    pass.operation.afterwards = [&pass] { return Afterwards(pass, [] { return std::string(); }); };
    Sweep sweep("VCopyFileListIni " + pass.name, pass.operation);
    sweep.Run(floors, [&pass](const Fault& fault, const Outcome& outcome, const Outcome&) {
        ExpectAllIsWell(pass, fault, outcome);
    });
}

TEST(UpgradeFaultsTest, Rename) {
    CONTINUE_IN_PRIVATE_NAMESPACE({});
    SweepPass(PassBehind({}, "-rename"), "IniGetString 6 IniGetStringItems 3 access 6 malloc 49 rename 5");
}

TEST(UpgradeFaultsTest, Copy) {
    CONTINUE_IN_PRIVATE_NAMESPACE({});
    SweepPass(PassBehind({"-rename"}, "-copy"),
              "IniGetString 6 IniGetStringItems 3 access 8 fclose 24 fflush 12 fopen 12 fopen64 12 fread 13 "
              "fstat 6 fwrite 7 getcwd 1 lseek64 24 malloc 65 mkdir 1 snprintf_s 1 stat 6 strcpy_s 1");
}

TEST(UpgradeFaultsTest, Clean) {
    CONTINUE_IN_PRIVATE_NAMESPACE({});
    SweepPass(PassBehind({"-rename", "-copy"}, "-clean"),
              "IniGetString 6 IniGetStringItems 3 access 6 malloc 27 remove 5");
}

// A fault of one of the `calls`, at a place that is reached.
Fault RandomFault(std::mt19937& random, const std::map<std::string, long>& calls) {
    auto call = calls.begin();
    std::advance(call, random() % calls.size());
    const long n = 1 + static_cast<long>(random()) % call->second;
    const bool isOnwards = random() % 2 == 0;
    const int errors[] = {ENOENT, EACCES, EIO, ENOSPC};
    return {call->first, n, isOnwards, call->first == "malloc" ? ENOMEM : errors[random() % 4]};
}

// The calls that the pass would make now: those that it makes in a copy of all of this, beside it.
std::map<std::string, long> CallsOfRepetition(const Pass& pass) {
    const fs::path here = fs::current_path();
    const fs::path copy = here.parent_path() / "copy";
    fs::copy(here, copy, fs::copy_options::recursive);
    fs::current_path(copy);
    const Outcome outcome = RunHereWithFault(pass.operation, kNoFault);
    fs::current_path(here);
    return CountsOf(outcome.calls);
}

// Repeats the pass with another fault, and judges that by what it began with.
std::string RepeatWithFault(Pass pass, unsigned long seed) {
    std::mt19937 random(seed);
    pass.package.files = FilesHere();
    pass.package.directories = DirectoriesHere();
    const Fault fault = RandomFault(random, CallsOfRepetition(pass));
    const Outcome outcome = RunHereWithFault(pass.operation, fault);
    SCOPED_TRACE("then " + fault.call + " " + std::to_string(fault.n));
    ExpectAsModelled(pass, fault, outcome, FilesText(FilesHere()));
    return outcome.leaks + WhatIsLost(pass.name);
}

// A pass fails somewhere, the attempt to repeat it fails somewhere else, and the one behind it ends well.
TEST(UpgradeFaultsTest, AThousandPairsOfFaults) {
    CONTINUE_IN_PRIVATE_NAMESPACE({});
    constexpr int kPairs = kIsSlow ? 100 : 1000;
    std::mt19937 random(20261121);
    std::vector<Pass> passes = {PassBehind({}, "-rename"), PassBehind({"-rename"}, "-copy"),
                                PassBehind({"-rename", "-copy"}, "-clean")};
    std::vector<std::map<std::string, long>> calls;
    for (const Pass& pass : passes) calls.push_back(CountsOf(RunWithFault(pass.operation, kNoFault).calls));
    long firstHits = 0;
    long secondHits = 0;
    for (int i = 0; i < kPairs; ++i) {
        const std::size_t which = random() % passes.size();
        Pass& pass = passes[which];
        const Fault first = RandomFault(random, calls[which]);
        const unsigned long seed = random();
        SCOPED_TRACE("pair " + std::to_string(i) + ": " + pass.name + ", " + first.call + " " +
                     std::to_string(first.n));
        pass.operation.afterwards = [&pass, seed] {
            return Afterwards(pass, [&pass, seed] { return RepeatWithFault(pass, seed); });
        };

        const Outcome outcome = RunWithFault(pass.operation, first);

        EXPECT_EQ(outcome.leaks, "");
        ExpectAllIsWell(pass, first, outcome);
        if (outcome.hits > 0) ++firstHits;
        if (outcome.laterHits > 0) ++secondHits;
    }
    std::cout << "Faults: pairs of faults: " << kPairs << " points, " << kPairs << " runs (" << firstHits
              << " first and " << secondHits << " second faults happened)\n";
    EXPECT_EQ(firstHits, kPairs);
    EXPECT_EQ(secondHits, kPairs);
}

}  // namespace
