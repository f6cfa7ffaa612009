// The rows of the table: one piece of work each, done by the project's code and by its peers in turn.
#ifndef BENCHMARKS_ROWS_H
#define BENCHMARKS_ROWS_H

#include <benchmark/benchmark.h>

#include <functional>
#include <string>
#include <utility>
#include <vector>

struct Side {
    std::string name;
    double target;  // the ratio ours / this that shall not be exceeded; 0: for information
    std::function<void(benchmark::State&)> run;
    bool isMeasuredByHand = false;
};

struct Row {
    std::string group;  // one heading of the table
    std::string work;
    Side ours;
    std::vector<Side> peers;
    double maxAllocations = -1;  // heap blocks a call; -1: for information
    std::string series;          // rows of one name differ in the size of the work alone
    double size = 0;
    int repetitions = 0;   // 0: as many as of every row
    bool isBytes = false;  // what is measured by hand is no time
};

std::vector<Row>& Rows();

// The heap blocks that this program has allocated so far.
long Allocations();

// Runs `work` as the body of a side, counting its allocations. `prepare` runs before each time, and neither
// its time nor its allocations may count: it allocates nothing. The first time is not measured: it makes the
// files that the work needs, and the number of iterations would be taken from its time.
template <typename Work, typename Prepare>
std::function<void(benchmark::State&)> Repeat(Work work, Prepare prepare) {
    return [work, prepare](benchmark::State& state) mutable {
        prepare();
        work();
        const long before = Allocations();
        for (auto _ : state) {
            state.PauseTiming();
            prepare();
            state.ResumeTiming();
            work();
        }
        state.counters["allocations"] = benchmark::Counter(static_cast<double>(Allocations() - before),
                                                           benchmark::Counter::kAvgIterations);
    };
}

template <typename Work>
std::function<void(benchmark::State&)> Repeat(Work work) {
    return [work](benchmark::State& state) mutable {
        work();
        const long before = Allocations();
        for (auto _ : state) work();
        state.counters["allocations"] = benchmark::Counter(static_cast<double>(Allocations() - before),
                                                           benchmark::Counter::kAvgIterations);
    };
}

// The same for work that says itself what it took: seconds, its children's included, or bytes.
template <typename Work>
std::function<void(benchmark::State&)> RepeatTimed(Work work) {
    return [work](benchmark::State& state) mutable {
        for (auto _ : state) state.SetIterationTime(work());
    };
}

// Adds a row; to be called for its result, before main.
class AddRow {
public:
    AddRow(std::string group, std::string work) {
        Rows().push_back({std::move(group), std::move(work), {}, {}, -1, "", 0, 0, false});
        index_ = Rows().size() - 1;
    }

    template <typename Work>
    AddRow& Ours(Work work) {
        Rows()[index_].ours = {"ours", 0, Repeat(work)};
        return *this;
    }
    template <typename Work>
    AddRow& Beside(const std::string& peer, double target, Work work) {
        Rows()[index_].peers.push_back({peer, target, Repeat(work)});
        return *this;
    }
    template <typename Work, typename Prepare>
    AddRow& OursAfter(Prepare prepare, Work work) {
        Rows()[index_].ours = {"ours", 0, Repeat(work, prepare)};
        return *this;
    }
    template <typename Work, typename Prepare>
    AddRow& BesideAfter(const std::string& peer, double target, Prepare prepare, Work work) {
        Rows()[index_].peers.push_back({peer, target, Repeat(work, prepare)});
        return *this;
    }
    template <typename Work>
    AddRow& OursTimed(Work work) {
        Rows()[index_].ours = {"ours", 0, RepeatTimed(work), true};
        return *this;
    }
    template <typename Work>
    AddRow& BesideTimed(const std::string& peer, double target, Work work) {
        Rows()[index_].peers.push_back({peer, target, RepeatTimed(work), true});
        return *this;
    }
    AddRow& Growing(const std::string& series, double size) {
        Rows()[index_].series = series;
        Rows()[index_].size = size;
        return *this;
    }
    AddRow& Repeated(int repetitions) {
        Rows()[index_].repetitions = repetitions;
        return *this;
    }
    AddRow& InBytes() {
        Rows()[index_].isBytes = true;
        return *this;
    }
    AddRow& AtMostAllocations(double count) {
        Rows()[index_].maxAllocations = count;
        return *this;
    }

private:
    std::size_t index_;
};

#endif
