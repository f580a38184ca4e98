// The floor: calls that make only the steps that cannot be avoided. These are a call into a shared library, two calls
// into a log library that drops the messages because of their level, a scan of the table that reads one 16-byte prefix
// (for names) or one word (for priorities) per record, the copy, and for the lock the take or the release of the
// simplest mutex that does the job. The floor works on a copy of the region's bytes. It checks no argument and measures
// no text.
#pragma once

#include <cstdint>

#if defined(_WIN32) && defined(BENCH_FLOOR_BUILD)
#define FLOOR_API __declspec(dllexport)
#elif defined(_WIN32)
#define FLOOR_API __declspec(dllimport)
#else
#define FLOOR_API __attribute__((visibility("default")))
#endif

extern "C" {
/// @param memory  the region's bytes, in shared memory, with `size` of them in use
/// @param mutex   `mutex_size` bytes of shared memory
/// @param servers, resources  where the two tables start in `memory`
FLOOR_API void floor_open(uint8_t* memory, uint32_t size, void* mutex, const char* mutex_name, bool create,
                          uint64_t servers, uint64_t resources);

// Every text must have at most 15 bytes and be zero-padded to at least 16. The result is 0, or 3 if nothing was found.
FLOOR_API uint32_t floor_get_header_word(uint32_t* value);
FLOOR_API uint32_t floor_set_header_word(uint32_t value);
FLOOR_API uint32_t floor_get_server_word(const char* name, uint32_t* value);
FLOOR_API uint32_t floor_set_server_word(const char* name, uint32_t value);
FLOOR_API uint32_t floor_get_pair(const char* type, const char* name, int32_t priority, uint32_t* value);
FLOOR_API uint32_t floor_set_pair(const char* type, const char* name, int32_t priority, uint32_t value);
FLOOR_API uint32_t floor_row(const char* type, const char* name, uint32_t* words, uint32_t* size);
FLOOR_API uint32_t floor_column(const char* server, uint32_t* words, uint32_t* size);
FLOOR_API uint32_t floor_take(uint32_t timeout_ms);
FLOOR_API uint32_t floor_release(void);
FLOOR_API uint32_t floor_copy(uint8_t* bytes, int32_t* size);
}
