// What differs between the platforms in the storm of hand-overs.
#pragma once

#include <cstdint>

namespace test {

/// How often a process is killed or stopped. A new process takes long under wine.
extern const int storm_rounds;

/// Stops a process where it stands, and lets it go on. Windows has no documented way, there its threads only keep the
/// processor: nothing is done.
void stop_process(uint32_t process);
void continue_process(uint32_t process);

}  // namespace test
