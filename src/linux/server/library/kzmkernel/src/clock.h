// Times in nanoseconds.
#pragma once

#include <cstdint>
#include <ctime>

namespace kzmkernel {

inline constexpr uint64_t ns_per_s = 1'000'000'000, ns_per_ms = 1'000'000;

inline uint64_t now_ns(clockid_t clock) noexcept {
    timespec now{};
    clock_gettime(clock, &now);
    return static_cast<uint64_t>(now.tv_sec) * ns_per_s + static_cast<uint64_t>(now.tv_nsec);
}

inline timespec timespec_of(uint64_t ns) noexcept {
    return {static_cast<time_t>(ns / ns_per_s), static_cast<long>(ns % ns_per_s)};
}

}  // namespace kzmkernel
