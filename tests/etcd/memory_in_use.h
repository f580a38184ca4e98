// How much of the heap a process uses.
#pragma once

#include <cstdint>

namespace test {

uint64_t memory_in_use();

}  // namespace test
