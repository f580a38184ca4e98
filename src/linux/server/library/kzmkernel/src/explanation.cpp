#include "explanation.h"

#include <cstdarg>
#include <cstdio>

namespace kzmkernel {
namespace {

constinit thread_local uint32_t explained_error = 0;
constinit thread_local char explanation[512]{};

}  // namespace

uint32_t explained(uint32_t error, const char* format, ...) noexcept {
    va_list arguments;
    va_start(arguments, format);
    // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): the check does not see va_start() in the line above
    std::vsnprintf(explanation, sizeof explanation, format, arguments);
    va_end(arguments);
    explained_error = error;
    return error;
}

void forget_explanation() noexcept {
    explained_error = 0;
    explanation[0] = '\0';
}

const char* explanation_of(uint32_t error) noexcept {
    return error != 0 && error == explained_error ? explanation : "";
}

}  // namespace kzmkernel
