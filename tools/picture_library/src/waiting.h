// What waiting in a library needs of the system. The process belongs to somebody else: a signal of it ends a wait, and
// the library raises none.
#pragma once

#include <cstdint>

namespace picture_library {

/// Sleeps. @return false: a signal was delivered to this thread before the time had passed
bool sleep_for_ms(uint32_t milliseconds);

/// As long as it lives, a connection that its server has closed raises no signal in this thread.
class NoBrokenPipeSignal {
  public:
    NoBrokenPipeSignal();
    ~NoBrokenPipeSignal();
    NoBrokenPipeSignal(const NoBrokenPipeSignal&) = delete;
    NoBrokenPipeSignal& operator=(const NoBrokenPipeSignal&) = delete;

  private:
    bool blocks_ = false;
};

}  // namespace picture_library
