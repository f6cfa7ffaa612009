// What it costs to read a list of N keys through VIni, as the upgrade tool reads its file lists, beside the
// parser below it called directly. The cost of a key must not depend on N.
#include "VIni.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#define SI_NO_CONVERSION
#include <SimpleIni.h>

namespace {

namespace fs = std::filesystem;

constexpr char kSection[] = "BinFiles";
constexpr std::size_t kListValueCapacity = 4096;
constexpr int kFewKeys = 1000;
constexpr int kManyKeys = 10000;
constexpr int kRepetitions = 9;

// Two equal file lists of `keyCount` keys. Read in turn, each reading begins with a parse, since VIni keeps
// the last file's alone.
class FileLists {
public:
    explicit FileLists(int keyCount) {
        std::string pattern = fs::temp_directory_path() / "vini-benchmark-XXXXXX";
        if (mkdtemp(pattern.data()) == nullptr)
            throw std::runtime_error("no temporary directory: " + pattern);
        directory_ = pattern;
        for (const char* name : {"a.ini", "b.ini"}) {
            paths_.push_back(directory_ / name);
            std::ofstream file(paths_.back());
            file << '[' << kSection << "]\n";
            for (int i = 0; i < keyCount; ++i)
                file << 'f' << i << "=bin/tool" << i << ",bin/helper" << i << '\n';
        }
    }
    ~FileLists() {
        std::error_code error;
        fs::remove_all(directory_, error);
    }
    FileLists(const FileLists&) = delete;
    FileLists& operator=(const FileLists&) = delete;

    const char* Next() {
        turn_ = 1 - turn_;
        return paths_[turn_].c_str();
    }

private:
    fs::path directory_;
    std::vector<std::string> paths_;
    std::size_t turn_ = 0;
};

void ReadThroughVIni(benchmark::State& state) {
    const auto keyCount = static_cast<std::size_t>(state.range(0));
    FileLists lists(static_cast<int>(state.range(0)));
    std::array<char, kListValueCapacity> value{};
    for (auto _ : state) {
        const char* const path = lists.Next();
        std::set<std::string> keys;
        (void)VIni::IniGetStringItems(kSection, keys, path);
        std::size_t found = 0;
        for (const std::string& key : keys) {
            if (VIni::IniGetString(kSection, key.c_str(), "", value.data(), static_cast<int>(value.size()),
                                   path) == 0) {
                ++found;
            }
            benchmark::DoNotOptimize(value.data());
        }
        if (found != keyCount) state.SkipWithError("not every key was read");
    }
}

void ReadThroughSimpleIni(benchmark::State& state) {
    const auto keyCount = static_cast<std::size_t>(state.range(0));
    FileLists lists(static_cast<int>(state.range(0)));
    for (auto _ : state) {
        CSimpleIniCaseA ini;
        (void)ini.LoadFile(lists.Next());
        CSimpleIniCaseA::TNamesDepend keys;
        (void)ini.GetAllKeys(kSection, keys);
        std::size_t found = 0;
        for (const CSimpleIniCaseA::Entry& key : keys) {
            const char* const value = ini.GetValue(kSection, key.pItem);
            if (value != nullptr) ++found;
            benchmark::DoNotOptimize(value);
        }
        if (found != keyCount) state.SkipWithError("not every key was read");
    }
}

// Keeps the processor time of every repetition, for the table at the end.
class TableReporter : public benchmark::BenchmarkReporter {
public:
    bool ReportContext(const Context& /*context*/) override { return true; }

    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& run : runs) {
            if (run.error_occurred) {
                (void)std::fprintf(stderr, "%s: %s\n", run.benchmark_name().c_str(),
                                   run.error_message.c_str());
                hasFailed_ = true;
            } else if (run.run_type == Run::RT_Iteration) {
                seconds_[run.run_name.function_name + "/" + run.run_name.args].push_back(
                    run.cpu_accumulated_time / static_cast<double>(run.iterations));
            } else if (run.aggregate_name == "median") {
                (void)std::printf("%-12s %6s keys %8.3f ms\n", run.run_name.function_name.c_str(),
                                  run.run_name.args.c_str(), run.GetAdjustedCPUTime());
                (void)std::fflush(stdout);
            }
        }
    }

    bool HasFailed() const { return hasFailed_; }
    bool HasEverything() const { return seconds_.size() == 4; }

    // The median, in microseconds for each key.
    double PerKey(const std::string& name, int keyCount) const {
        std::vector<double> seconds = seconds_.at(name + "/" + std::to_string(keyCount));
        const auto middle = seconds.begin() + static_cast<std::ptrdiff_t>(seconds.size() / 2);
        std::nth_element(seconds.begin(), middle, seconds.end());
        return *middle * 1e6 / keyCount;
    }

private:
    std::map<std::string, std::vector<double>> seconds_;
    bool hasFailed_ = false;
};

void PrintRow(const char* name, double few, double many, const char* unit) {
    (void)std::printf("%-24s %9.3f %-2s %9.3f %-2s %6.2f\n", name, few, unit, many, unit, many / few);
}

void PrintTable(const TableReporter& reporter) {
    const double few = reporter.PerKey("VIni", kFewKeys);
    const double many = reporter.PerKey("VIni", kManyKeys);
    const double peerFew = reporter.PerKey("SimpleIni", kFewKeys);
    const double peerMany = reporter.PerKey("SimpleIni", kManyKeys);
    (void)std::printf("\n%-24s %12s %12s %6s\n", "Processor time per key", "1,000 keys", "10,000 keys",
                      "ratio");
    PrintRow("VIni", few, many, "us");
    PrintRow("SimpleIni, parsed once", peerFew, peerMany, "us");
    PrintRow("VIni / SimpleIni", few / peerFew, many / peerMany, "");
    (void)std::printf(
        "\nThe ratio of the first line tells how the cost grows: 1 when N keys cost N, 10 when N * N.\n");
}

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    for (const int keyCount : {kFewKeys, kManyKeys}) {
        benchmark::RegisterBenchmark("VIni", ReadThroughVIni)
            ->Arg(keyCount)
            ->Repetitions(kRepetitions)
            ->Unit(benchmark::kMillisecond);
        benchmark::RegisterBenchmark("SimpleIni", ReadThroughSimpleIni)
            ->Arg(keyCount)
            ->Repetitions(kRepetitions)
            ->Unit(benchmark::kMillisecond);
    }

    TableReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    if (reporter.HasFailed()) return 1;
    if (reporter.HasEverything()) PrintTable(reporter);
    return 0;
}
