// What differs between the platforms in the storm of hand-overs.
#pragma once

#include <cstdint>

namespace test {

/// How often a process is killed or stopped. A new process takes long under wine.
extern const unsigned storm_rounds;
/// Who takes part. Under wine a process that is killed may run on for a moment after its mutexes have been handed on,
/// so there only an owner that stands still is killed, and it has no other threads.
extern const unsigned storm_processes, storm_threads_a_process;
extern const bool storm_kills_anywhere;

/// Stops a process where it stands, and lets it go on. Windows has no documented way, there its threads only keep the
/// processor: nothing is done.
void stop_process(uint32_t process);
void continue_process(uint32_t process);

}  // namespace test
