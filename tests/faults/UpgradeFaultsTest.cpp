// The three passes of an upgrade with each of their calls failing in turn: the log, the result and the files
// are those of a model, and nothing is lost.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <iostream>
#include <random>
#include <sstream>

#include "FaultTexts.h"
#include "Process.h"
#include "Sweep.h"
#include "SystemCalls.h"
#include "UpgradeModel.h"

// The main of the tool's module; the test program has one of its own.
extern "C" int VCopyFileListIniMain(int argc, char* argv[]);

namespace {

namespace fs = std::filesystem;

const char kList[] = "pkg/filelist.ini";
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
    char* arguments[] = {const_cast<char*>("VCopyFileListIni"), const_cast<char*>(pass),
                         const_cast<char*>(kList)};
    return VCopyFileListIniMain(3, arguments);
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

// An allocation that fails ends the run as a failed one, or is done without; fopen says that there is no
// file.
void ExpectOrderlyEnd(const Outcome& outcome, const Outcome& normal) {
    if (outcome.result == "0") {
        EXPECT_EQ(outcome.log, normal.log);
        return;
    }
    EXPECT_EQ(outcome.result, "-10000");
    ASSERT_GE(outcome.log.size(), 2U);
    EXPECT_EQ(*(outcome.log.end() - 2), kBanner);
    EXPECT_EQ(outcome.log.back(), "main 3             Failed");
}

class UpgradeFaultsTest : public testing::Test {
protected:
    // `isBefore`: passes that have run before the one under faults.
    static void SweepPass(const std::string& pass, const std::vector<const char*>& before, long points) {
        ModelPackage package = NewPackage();
        for (const char* const earlier : before) {
            package.files = RunModel(earlier, package, {"", 0, false, 0}).files;
            if (earlier == std::string("-copy")) package.directories.emplace_back("installed/new");
        }
        Operation operation;
        operation.prepare = [before] {
            MakeInstalledFiles();
            for (const char* const earlier : before) ASSERT_EQ(RunPass(earlier), 0);
        };
        operation.run = [pass] { return Text(RunPass(pass.c_str())); };
        operation.afterwards = [pass] {
            const std::string files = FilesText(FilesHere());
            const std::string lost = WhatIsLost(pass);
            const std::string failed = RunTheRest(pass);
            return files + "lost: " + lost + "\nwrong in the end: " + failed + WhatIsWrongInTheEnd();
        };

        Sweep sweep("VCopyFileListIni " + pass, operation);
        sweep.Run(points, [&](const Fault& fault, const Outcome& outcome, const Outcome& normal) {
            EXPECT_NE(outcome.afterwards.find("lost: \nwrong in the end: "), std::string::npos)
                << outcome.afterwards;
            EXPECT_EQ(outcome.afterwards.substr(outcome.afterwards.rfind(": ")), ": ");
            if (fault.call == "malloc") {
                ExpectOrderlyEnd(outcome, normal);
                return;
            }
            const ModelOutcome model = RunModel(pass, package, fault);
            EXPECT_EQ(outcome.result, std::to_string(model.result));
            EXPECT_EQ(outcome.log, model.log);
            EXPECT_EQ(outcome.afterwards.substr(0, outcome.afterwards.find("lost: ")),
                      FilesText(model.files));
        });
    }
};

// Those that may fail in a pass, and how often a pass makes them.
std::map<std::string, long> CallsOf(const Operation& operation) {
    std::map<std::string, long> calls;
    std::istringstream text(RunWithFault(operation, {"", 0, false, 0}).calls);
    std::string call;
    long count = 0;
    while (text >> call >> count) calls[call] = count;
    return calls;
}

Fault RandomFault(std::mt19937& random, const std::map<std::string, long>& calls) {
    auto call = calls.begin();
    std::advance(call, random() % calls.size());
    const int errors[] = {ENOENT, EACCES, EIO, ENOSPC};
    return {call->first, 1 + static_cast<long>(random()) % call->second, random() % 2 == 0,
            errors[random() % 4]};
}

// A pass fails somewhere, the attempt to repeat it fails somewhere else, and the one behind it ends well.
TEST_F(UpgradeFaultsTest, AThousandPairsOfFaults) {
    CONTINUE_IN_PRIVATE_NAMESPACE({});
    constexpr int kPairs = 1000;
    std::mt19937 random(20261121);
    const std::vector<std::vector<const char*>> passes = {
        {"-rename"}, {"-rename", "-copy"}, {"-rename", "-copy", "-clean"}};
    std::vector<std::map<std::string, long>> calls(passes.size());
    for (int i = 0; i < kPairs; ++i) {
        const std::size_t which = random() % passes.size();
        const std::string pass = passes[which].back();
        Operation operation;
        operation.prepare = [&] {
            MakeInstalledFiles();
            for (std::size_t k = 0; k < which; ++k) ASSERT_EQ(RunPass(passes[which][k]), 0);
        };
        operation.run = [pass] { return Text(RunPass(pass.c_str())); };
        if (calls[which].empty()) calls[which] = CallsOf(operation);
        const Fault first = RandomFault(random, calls[which]);
        const Fault second = RandomFault(random, calls[which]);
        operation.afterwards = [&second, pass] {
            std::string wrong = WhatIsLost(pass);
            gate::Open(second);
            (void)RunPass(pass.c_str());
            gate::Close();
            wrong += WhatIsLost(pass);
            wrong += RunTheRest(pass);
            return wrong + WhatIsWrongInTheEnd();
        };

        const Outcome outcome = RunWithFault(operation, first);

        EXPECT_EQ(outcome.leaks + outcome.afterwards, "")
            << "pair " << i << ": " << pass << ", " << first.call << " " << first.n << ", then "
            << second.call << " " << second.n;
    }
    std::cout << "Faults: pairs of faults: " << kPairs << " points, " << kPairs << " runs\n";
}

TEST_F(UpgradeFaultsTest, Rename) {
    CONTINUE_IN_PRIVATE_NAMESPACE({});
    SweepPass("-rename", {}, 65);
}

TEST_F(UpgradeFaultsTest, Copy) {
    CONTINUE_IN_PRIVATE_NAMESPACE({});
    SweepPass("-copy", {"-rename"}, 190);
}

TEST_F(UpgradeFaultsTest, Clean) {
    CONTINUE_IN_PRIVATE_NAMESPACE({});
    SweepPass("-clean", {"-rename", "-copy"}, 45);
}

}  // namespace
