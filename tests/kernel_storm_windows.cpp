#include "kernel_storm.h"

namespace test {

const int storm_rounds = 20;

void stop_process(uint32_t) {}
void continue_process(uint32_t) {}

}  // namespace test
