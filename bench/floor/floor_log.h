// The floor's log library: the cost of a message that a log drops because of its level.
#pragma once

#include <cstdint>

#if defined(_WIN32) && defined(BENCH_FLOOR_LOG_BUILD)
#define FLOOR_LOG_API __declspec(dllexport)
#elif defined(_WIN32)
#define FLOOR_LOG_API __declspec(dllimport)
#else
#define FLOOR_LOG_API __attribute__((visibility("default")))
#endif

extern "C" {
/// Writes a message unless its level is above the log's.
FLOOR_LOG_API int32_t floor_log_write(void* log, uint32_t level, uint32_t flags, const char* file, int32_t line,
                                      const char* function, const char* message);
/// The number of messages that were not dropped; 0 in a benchmark.
FLOOR_LOG_API uint64_t floor_log_written(void);
}
