// Runs an operation again and again, each time with another one of its calls failing, and compares what came
// of it with what a table says. Every run is a process of its own, so that a crash or a hang is a failure of
// that run alone.
#ifndef TESTS_FAULTS_SWEEP_H
#define TESTS_FAULTS_SWEEP_H

#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "FaultGate.h"

// What came of a run. In all texts "@" stands for the run's own directory.
struct Outcome {
    std::string result;            // as the operation's function gives it
    int error = 0;                 // errno behind the operation
    std::vector<std::string> log;  // "function level text"
    std::string files;       // "name=content" of all files, in order of their names; directories end in '/'
    std::string leaks;       // descriptors or heap blocks left, or how the process died; empty if all is well
    long hits = 0;           // how many calls failed
    std::string calls;       // "name count" of each call
    std::string dir;         // the run's own directory
    std::string afterwards;  // as the operation's second function gives it
    long laterHits = 0;      // how many calls failed in that one
};

// An operation in a directory of its own, which is the working directory.
struct Operation {
    // Makes what the operation works on.
    std::function<void()> prepare;
    // Runs it and tells its result as a text; exceptions are told by their type's name. What is allocated
    // here without calls::WithoutFaults counts as the operation's.
    std::function<std::string()> run;
    // It can be run once in a process's life only. Heap blocks are not counted then, since there is no run
    // before it that makes what is made once.
    bool endsWithTheProcess = false;
    // Runs when all else has been looked at, without faults but those that it makes itself.
    std::function<std::string()> afterwards = [] { return std::string(); };
};

Outcome RunWithFault(const Operation& operation, const Fault& fault);

// Runs the operation's function in this process and the working directory; what else there is of an operation
// is left alone, as are the files in the outcome.
Outcome RunHereWithFault(const Operation& operation, const Fault& fault);

// The calls of an outcome, and how often each was made.
std::map<std::string, long> CountsOf(const std::string& calls);

// What is to be expected of some faults.
class Row {
public:
    Row(std::string call, long first, long last, std::string result);

    // errno is the fault's, or this one.
    Row& Errno();
    Row& Errno(int error);
    // The whole log; "{errno}" stands for the fault's number.
    Row& Log(std::vector<std::string> lines);
    // All files behind the operation.
    Row& Files(std::string files);
    // For this one of the errors only.
    Row& ForError(int error);
    // For faults that hit one call only, or for those that hit all from one on.
    Row& Once();
    Row& Onwards();

    bool IsFor(const Fault& fault) const;
    void Compare(const Fault& fault, const Outcome& outcome) const;

private:
    std::string call_;
    long first_;
    long last_;
    std::string result_;
    bool hasErrno_ = false;
    std::optional<int> errno_;
    std::vector<std::string> log_;
    std::optional<std::string> files_;
    std::optional<int> onlyError_;
    bool isForOnce_ = true;
    bool isForOnwards_ = true;
};

// Sweeps all faults of an operation; what no row is for must come out as without a fault.
class Sweep {
public:
    Sweep(std::string name, Operation operation);

    // Rows that come later win.
    Row& Expect(const std::string& call, const std::string& result);
    Row& Expect(const std::string& call, long n, const std::string& result);
    Row& Expect(const std::string& call, long first, long last, const std::string& result);

    // How often this call is made differs from run to run: a fault may come too late to happen.
    void CountVaries(const std::string& call);

    // Judges by itself; the rows are not asked then. `normal` is the outcome without a fault.
    using Judge = std::function<void(const Fault& fault, const Outcome& outcome, const Outcome& normal)>;
    // Every call fails once, and all from it on, with three values of errno; every allocation, too. Prints
    // what was covered; fewer calls of a name than `floors` says, in the form in which they are printed, fail
    // the test. Allocations are left out where nobody counts them; they are also those of the C, C++ and
    // compression libraries, so that other releases of these may ask for other floors.
    void Run(const std::string& floors);
    void Run(const std::string& floors, const Judge& judge);

private:
    void ExpectFloors(const std::string& floors, const std::string& calls) const;
    void JudgeByRows(const Fault& fault, const Outcome& outcome, const Outcome& normal) const;

    std::string name_;
    Operation operation_;
    std::string varyingCall_;
    std::vector<Row> rows_;
};

#endif
