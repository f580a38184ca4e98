// Records calls of the library's functions as text, with their arguments: numbers and input texts as they are, other
// pointers as "*", or "null".
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace recorder {

inline std::vector<std::string> calls;

/// Takes the calls recorded so far.
inline std::vector<std::string> take() {
    return std::exchange(calls, {});
}

inline std::string shown(const char* text) {
    return text ? text : "null";
}
inline std::string shown(char* text) {
    return text ? "*" : "null";
}
template <typename Pointed>
std::string shown(Pointed* pointer) {
    return pointer ? "*" : "null";
}
template <typename Number>
std::string shown(Number number) {
    return std::to_string(number);
}

template <typename... Arguments>
uint32_t answer(const char* function, Arguments... arguments) {
    std::string call = std::string(function) + "(";
    [[maybe_unused]] const char* separator = "";
    ((call += separator + shown(arguments), separator = ", "), ...);
    calls.push_back(call + ")");
    return 0;
}

}  // namespace recorder
