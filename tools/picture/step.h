// A call of the library with its arguments, to be made later.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "picture/library.h"

namespace picture {

/// A call of the library that has been checked and will be accepted.
struct Step {
    const char* function;
    std::function<uint32_t()> call;
};

inline const char* argument(const std::string& text) {
    return text.c_str();
}
inline const uint32_t* argument(const std::vector<uint32_t>& words) {
    return words.data();
}
template <typename Number>
Number argument(Number number) {
    return number;
}

/// Keeps copies of the arguments until the call is made.
template <typename... Parameters, typename... Arguments>
Step step_of(Call<Parameters...> function, const Arguments&... arguments) {
    const auto& called = library().*function;
    return {called.name, [called, ... kept = arguments] { return called(argument(kept)...); }};
}

}  // namespace picture
