#include "FaultGate.h"

#include <dlfcn.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>
#include <set>
#include <type_traits>

#include "SystemCalls.h"
#include "VIni.h"

namespace {

// Nothing here may allocate: allocations ask the gate, too.
struct Counter {
    const char* call;
    long count;
};
Counter counters[96];
char faultyCall[32];
long faultyN;
bool isOnwards;
int faultyError;
long failures;

long Count(const char* call) {
    Counter* counter = counters;
    while (counter->call != nullptr && std::strcmp(counter->call, call) != 0) ++counter;
    counter->call = call;
    return ++counter->count;
}

bool IsFaulty(const char* call) {
    const long count = Count(call);
    if (std::strcmp(call, faultyCall) != 0 || count < faultyN) return false;
    if (count > faultyN && !isOnwards) return false;
    ++failures;
    errno = faultyError;
    return true;
}

bool IsOneOf(const char* call, std::initializer_list<const char*> names) {
    for (const char* const name : names) {
        if (std::strcmp(name, call) == 0) return true;
    }
    return false;
}

// Those that release something, whatever they say of it.
bool Releases(const char* call) {
    return IsOneOf(call, {"close", "closedir", "deflateEnd", "fclose", "inflateEnd", "pclose"});
}

// What the call gives when it fails.
template <typename Result>
Result Failure(const char* call) {
    if constexpr (std::is_pointer_v<Result>) {
        return nullptr;
    } else if constexpr (std::is_same_v<Result, size_t>) {
        return 0;
    } else {
        if (IsOneOf(call, {"memmove_s", "memset_s", "strcpy_s", "strncpy_s"})) return EINVAL;
        if (IsOneOf(call, {"compress", "deflate", "deflateEnd", "deflateInit2_", "inflate", "inflateEnd",
                           "inflateInit2_"})) {
            return Z_MEM_ERROR;
        }
        if (IsOneOf(call, {"pthread_create"})) return faultyError;
        return -1;
    }
}

// The definition of a function behind this program's own.
template <typename Function>
Function Next(const char* symbol) {
    return reinterpret_cast<Function>(dlsym(RTLD_NEXT, symbol));
}

// The user database keeps what it has read, and reads it again after a failure: its memory is its own.
bool HasMemoryOfItsOwn(const char* call) {
    return IsOneOf(call, {"getpwnam"});
}

// Stands in front of each platform call for as long as the program runs.
#define VFS_TEST_DEFINE_GATE(result, name, parameters, arguments)              \
    const Replaced gateOf_##name(calls::name, [] parameters -> result {        \
        if (!calls::FailsNow(#name)) {                                         \
            if (!HasMemoryOfItsOwn(#name)) return calls::real::name arguments; \
            const calls::WithoutFaults paused;                                 \
            return calls::real::name arguments;                                \
        }                                                                      \
        if (Releases(#name)) {                                                 \
            (void)calls::real::name arguments;                                 \
            errno = faultyError;                                               \
        }                                                                      \
        return Failure<result>(#name);                                         \
    });
VFS_TEST_SYSTEM_CALLS(VFS_TEST_DEFINE_GATE)

}  // namespace

// The INI reader's two operations, as calls among the others. What the reader calls itself is its own.

int VIni::IniGetString(const char* section, const char* key, const char* defaultValue, char* buffer,
                       int bufferSize, const char* iniPath) {
    static const auto next = Next<decltype(&VIni::IniGetString)>("_ZN4VIni12IniGetStringEPKcS1_S1_PciS1_");
    const bool fails = calls::FailsNow("IniGetString");
    const calls::WithoutFaults paused;
    return next(section, fails ? "no such key" : key, defaultValue, buffer, bufferSize, iniPath);
}

int VIni::IniGetStringItems(const char* section, std::set<std::string>& keys, const char* iniPath) {
    static const auto next = Next<decltype(&VIni::IniGetStringItems)>(
        "_ZN4VIni17IniGetStringItemsEPKcRSt3setINSt7__cxx1112basic_stringIcSt11char_"
        "traitsIcESaIcEEESt4lessIS8_"
        "ESaIS8_EES1_");
    const bool fails = calls::FailsNow("IniGetStringItems");
    const calls::WithoutFaults paused;
    return next(fails ? "no such section" : section, keys, iniPath);
}

void gate::Open(const Fault& fault) {
    std::fill(std::begin(counters), std::end(counters), Counter{nullptr, 0});
    faultyCall[fault.call.copy(faultyCall, sizeof(faultyCall) - 1)] = '\0';
    faultyN = fault.n;
    isOnwards = fault.isOnwards;
    faultyError = fault.error;
    calls::failsNow = IsFaulty;
}

void gate::Close() {
    calls::failsNow = nullptr;
}

std::map<std::string, long> gate::Counts() {
    std::map<std::string, long> counts;
    for (const Counter& counter : counters) {
        if (counter.call != nullptr) counts[counter.call] = counter.count;
    }
    return counts;
}

long gate::Failures() {
    return failures;
}
