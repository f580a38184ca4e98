#include "floor_log.h"

namespace {

volatile uint32_t highest_level = 4;  // volatile, because a real log knows its level only at run time
uint64_t written;

}  // namespace

int32_t floor_log_write(void* log, uint32_t level, uint32_t, const char*, int32_t, const char*, const char* message) {
    if (level > highest_level) return 0;
    written += log && message;
    return 0;
}

uint64_t floor_log_written(void) {
    return written;
}
