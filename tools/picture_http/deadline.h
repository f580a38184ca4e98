// The time by which a server must have answered.
#pragma once

#include <cstdint>

#include "picture/platform.h"

namespace picture_http {

class Deadline {
  public:
    explicit Deadline(uint32_t milliseconds) : milliseconds_(milliseconds) { restart(); }

    /// Gives the whole time again.
    void restart() { end_us_ = picture::platform::steady_clock_us() + uint64_t{milliseconds_} * 1'000; }
    /// 0: it has passed
    uint32_t left_ms() const {
        const uint64_t now_us = picture::platform::steady_clock_us();
        return now_us >= end_us_ ? 0 : static_cast<uint32_t>((end_us_ - now_us + 999) / 1'000);
    }

  private:
    uint32_t milliseconds_;
    uint64_t end_us_ = 0;
};

}  // namespace picture_http
