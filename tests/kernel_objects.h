// Named kernel objects as a test makes them: kernel32 on Windows, kzmkernel on Linux. Names are used as they are given.
#pragma once

#include <cstdint>

namespace test {

/// Creates or opens a mutex; the last error tells which (0 new, 183 existing).
void* create_mutex(const char* name);
/// Creates or opens a mapping of that size for reading and writing.
void* create_mapping(uint64_t size, const char* name);
/// Opens a mapping: 4 for reading, 0xF001F for everything.
void* open_mapping(uint32_t access, const char* name);
void* map_view(void* mapping, uint32_t access);
/// Closes a handle; whether it was open.
bool close_handle(void* handle);
void set_last_error(uint32_t error);
uint32_t last_error();

}  // namespace test
