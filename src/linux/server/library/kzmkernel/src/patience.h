// How long a call waits for other processes, in all of its waits together.
#pragma once

#include <algorithm>

#include "clock.h"

namespace kzmkernel {

class Patience {
  public:
    explicit constexpr Patience(uint64_t limit_ns) : left_ns_(limit_ns) {}

    /// Sleeps for a moment, longer each time, and returns true so that the caller tries again; false if the time is up.
    bool wait() noexcept {
        if (left_ns_ == 0) return false;
        const uint64_t begin = now_ns(CLOCK_MONOTONIC);
        const timespec pause = timespec_of(std::min(pause_ns_, left_ns_));
        clock_nanosleep(CLOCK_MONOTONIC, 0, &pause, nullptr);
        pause_ns_ = std::min(2 * pause_ns_, longest_pause_ns);
        left_ns_ -= std::min(left_ns_, now_ns(CLOCK_MONOTONIC) - begin);
        return true;
    }

  private:
    static constexpr uint64_t longest_pause_ns = 5 * ns_per_ms;

    uint64_t left_ns_;
    uint64_t pause_ns_ = 50'000;
};

}  // namespace kzmkernel
