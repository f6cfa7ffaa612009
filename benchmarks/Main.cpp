// Runs every row, its sides in random order so that the machine's moods fall on all alike, and prints the
// table of ratios: ours / peer, the lowest processor time of all repetitions on each side.

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <limits>
#include <map>
#include <new>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "Rows.h"

namespace {

std::atomic<long> allocations{0};

const char kRepetitions[] = "--benchmark_repetitions=15";
const char kInterleaving[] = "--benchmark_enable_random_interleaving=true";
const char kMinTime[] = "--benchmark_min_time=0.02";

std::string NameOf(const Row& row, const Side& side) {
    return row.group + " | " + row.work + " | " + side.name;
}

struct Measurement {
    double seconds = std::numeric_limits<double>::infinity();
    double allocations = -1;
};

class LowestReporter : public benchmark::BenchmarkReporter {
public:
    bool ReportContext(const Context& /*context*/) override { return true; }

    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& run : runs) {
            if (run.error_occurred) {
                (void)std::fprintf(stderr, "%s: %s\n", run.benchmark_name().c_str(),
                                   run.error_message.c_str());
                hasFailed_ = true;
            } else if (run.run_type == Run::RT_Iteration) {
                Add(run);
            }
        }
    }

    bool HasFailed() const { return hasFailed_; }
    const std::map<std::string, Measurement>& measurements() const { return measurements_; }

private:
    void Add(const Run& run) {
        Measurement& measurement = measurements_[run.run_name.function_name];
        const bool isByHand = !run.run_name.time_type.empty();
        const double total = isByHand ? run.real_accumulated_time : run.cpu_accumulated_time;
        measurement.seconds = std::min(measurement.seconds, total / static_cast<double>(run.iterations));
        const auto counter = run.counters.find("allocations");
        if (counter != run.counters.end()) measurement.allocations = counter->second.value;
    }

    std::map<std::string, Measurement> measurements_;
    bool hasFailed_ = false;
};

std::string Shown(double seconds, bool isBytes) {
    if (isBytes) return std::to_string(std::lround(seconds)) + " B";
    const struct {
        double unit;
        const char* name;
    } units[] = {{1e-9, "ns"}, {1e-6, "us"}, {1e-3, "ms"}};
    char text[32];
    for (const auto& unit : units) {
        if (seconds >= unit.unit * 1000 && unit.unit < 1e-3) continue;
        (void)std::snprintf(text, sizeof(text), "%.1f %s", seconds / unit.unit, unit.name);
        break;
    }
    return text;
}

// The table's text and its machine-readable form, and how many targets were missed.
class Table {
public:
    void Add(const Row& row, const std::map<std::string, Measurement>& measurements);
    void Print() const;
    void Write(const std::string& path) const;

private:
    void Miss(const Row& row, const std::string& what) { missed_.push_back(row.work + ": " + what); }

    nlohmann::ordered_json rows_ = nlohmann::ordered_json::array();
    std::vector<std::string> missed_;
};

void Table::Add(const Row& row, const std::map<std::string, Measurement>& measurements) {
    const auto ours = measurements.find(NameOf(row, row.ours));
    if (ours == measurements.end()) return;  // not chosen by the filter

    nlohmann::ordered_json peers = nlohmann::ordered_json::array();
    for (const Side& peer : row.peers) {
        const auto found = measurements.find(NameOf(row, peer));
        if (found == measurements.end()) continue;
        const double ratio = ours->second.seconds / found->second.seconds;
        const bool isMet = peer.target == 0 || ratio <= peer.target;
        peers.push_back({{"name", peer.name},
                         {"seconds", found->second.seconds},
                         {"allocations", found->second.allocations},
                         {"ratio", ratio},
                         {"target", peer.target},
                         {"met", isMet}});
        char text[64];
        (void)std::snprintf(text, sizeof(text), "%.2f, not %.2f", ratio, peer.target);
        if (!isMet) Miss(row, std::string(text) + " of " + peer.name);
    }
    const bool isLean = row.maxAllocations < 0 || ours->second.allocations <= row.maxAllocations;
    if (!isLean) {
        Miss(row, std::to_string(ours->second.allocations) + " allocations, not " +
                      std::to_string(row.maxAllocations));
    }
    rows_.push_back({{"group", row.group},
                     {"work", row.work},
                     {"series", row.series},
                     {"size", row.size},
                     {"unit", row.isBytes ? "B" : "s"},
                     {"seconds", ours->second.seconds},
                     {"allocations", ours->second.allocations},
                     {"maxAllocations", row.maxAllocations},
                     {"peers", peers}});
}

void Table::Print() const {
    std::string group;
    for (const auto& row : rows_) {
        if (row["group"] != group) {
            group = row["group"];
            (void)std::printf("\n%-46s %10s  %-34s %10s %7s %7s %7s\n", group.c_str(), "ours", "beside", "",
                              "ratio", "target", "allocs");
        }
        std::string work = row["work"];
        const bool isBytes = row["unit"] == "B";
        std::string time = Shown(row["seconds"], isBytes);
        char allocated[16] = "";
        if (row["allocations"] >= 0) {
            (void)std::snprintf(allocated, sizeof(allocated), "%.2f", row["allocations"].get<double>());
        }
        for (const auto& peer : row["peers"]) {
            const double target = peer["target"];
            char shownTarget[16] = "-";
            if (target > 0) (void)std::snprintf(shownTarget, sizeof(shownTarget), "%.2f", target);
            (void)std::printf("%-46s %10s  %-34s %10s %7.2f %7s %7s%s\n", work.c_str(), time.c_str(),
                              peer["name"].get<std::string>().c_str(),
                              Shown(peer["seconds"], isBytes).c_str(), peer["ratio"].get<double>(),
                              shownTarget, allocated, peer["met"].get<bool>() ? "" : "  MISSED");
            work.clear();
            time.clear();
            allocated[0] = '\0';
        }
    }
    (void)std::printf("\n%zu rows; targets missed: %zu\n", rows_.size(), missed_.size());
    for (const std::string& miss : missed_) (void)std::printf("  %s\n", miss.c_str());
}

void Table::Write(const std::string& path) const {
    std::ofstream(path) << nlohmann::ordered_json{{"rows", rows_}}.dump(1) << '\n';
}

void Register(const Row& row, const Side& side) {
    auto* const run = benchmark::RegisterBenchmark(NameOf(row, side).c_str(), side.run);
    if (side.isMeasuredByHand) run->UseManualTime();
    if (row.repetitions > 0) run->Repetitions(row.repetitions);
}

}  // namespace

std::vector<Row>& Rows() {
    static std::vector<Row> rows;
    return rows;
}

long Allocations() {
    return allocations.load(std::memory_order_relaxed);
}

// Usage: [OUTPUT.json] [--benchmark_...]
int main(int argc, char** argv) {
    std::vector<char*> arguments = {argv[0], const_cast<char*>(kRepetitions),
                                    const_cast<char*>(kInterleaving), const_cast<char*>(kMinTime)};
    arguments.insert(arguments.end(), argv + 1, argv + argc);
    int count = static_cast<int>(arguments.size());
    arguments.push_back(nullptr);
    benchmark::Initialize(&count, arguments.data());
    const std::string output = count > 1 ? arguments[1] : "";

    for (const Row& row : Rows()) {
        Register(row, row.ours);
        for (const Side& peer : row.peers) Register(row, peer);
    }
    LowestReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    if (reporter.HasFailed()) return 1;

    Table table;
    for (const Row& row : Rows()) table.Add(row, reporter.measurements());
    table.Print();
    if (!output.empty()) table.Write(output);
    return 0;
}

// Every allocation of the program and of the libraries under it comes by here.
extern "C" {
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* block, size_t size);

__attribute__((visibility("default"))) void* malloc(size_t size) {
    allocations.fetch_add(1, std::memory_order_relaxed);
    return __libc_malloc(size);
}
__attribute__((visibility("default"))) void* calloc(size_t count, size_t size) {
    allocations.fetch_add(1, std::memory_order_relaxed);
    return __libc_calloc(count, size);
}
__attribute__((visibility("default"))) void* realloc(void* block, size_t size) {
    allocations.fetch_add(1, std::memory_order_relaxed);
    return __libc_realloc(block, size);
}
}
