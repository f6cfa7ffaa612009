// The judge's voice: what is not as it has to be ends the program with a message, which the fuzzing engine
// takes for a finding.
#ifndef FUZZ_SUPPORT_JUDGE_H
#define FUZZ_SUPPORT_JUDGE_H

#include <map>
#include <optional>
#include <string>
#include <type_traits>
#include <vector>

namespace judge {

// Says in one line what is wrong, and aborts.
[[noreturn]] void Fail(const std::string& message);

// How a value looks in a message: texts in quotes, with their odd bytes escaped.
std::string Shown(const std::string& text);
inline std::string Shown(const char* text) {
    return Shown(std::string(text));
}
inline std::string Shown(bool value) {
    return value ? "true" : "false";
}
template <typename Number, typename = std::enable_if_t<std::is_arithmetic_v<Number>>>
std::string Shown(Number number) {
    return std::to_string(number);
}
template <typename Value>
std::string Shown(const std::optional<Value>& value) {
    return value ? Shown(*value) : "nothing";
}
template <typename Value>
std::string Shown(const std::vector<Value>& values) {
    std::string shown = "[";
    for (const Value& value : values) shown += (shown.size() > 1 ? ", " : "") + Shown(value);
    return shown + "]";
}
template <typename Key, typename Value>
std::string Shown(const std::map<Key, Value>& values) {
    std::string shown = "{";
    for (const auto& [key, value] : values) {
        shown += (shown.size() > 1 ? ", " : "") + Shown(key) + ": " + Shown(value);
    }
    return shown + "}";
}

// `what` names the thing as in "WHAT is ACTUAL, not EXPECTED".
template <typename Actual, typename Expected>
void Equal(const char* what, const Actual& actual, const Expected& expected) {
    if (!(actual == expected)) Fail(std::string(what) + " is " + Shown(actual) + ", not " + Shown(expected));
}

// `claim` is what has to be true.
inline void Holds(const char* claim, bool isTrue) {
    if (!isTrue) Fail(std::string("not true: ") + claim);
}

}  // namespace judge

#endif
