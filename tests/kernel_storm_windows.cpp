#include "kernel_storm.h"

namespace test {

const unsigned storm_processes = 8, storm_threads_a_process = 1;
const bool storm_kills_anywhere = false;
const unsigned storm_rounds = 20;

void stop_process(uint32_t) {}
void continue_process(uint32_t) {}

}  // namespace test
