#include "kernel_objects.h"

#include <windows.h>

namespace test {
namespace {

/// A new object leaves the last error at 0.
template <typename Create>
void* created(Create create) {
    SetLastError(0);
    return create();
}

}  // namespace

void* create_mutex(const char* name) {
    return created([&] { return CreateMutexA(nullptr, FALSE, name); });
}
void* create_mapping(uint64_t size, const char* name) {
    return created([&] {
        return CreateFileMappingA(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, static_cast<DWORD>(size >> 32),
                                  static_cast<DWORD>(size), name);
    });
}
void* open_mapping(uint32_t access, const char* name) {
    return OpenFileMappingA(access, FALSE, name);
}
void* map_view(void* mapping, uint32_t access) {
    return MapViewOfFile(mapping, access, 0, 0, 0);
}
bool close_handle(void* handle) {
    return CloseHandle(handle) != 0;
}
uint32_t last_error() {
    return GetLastError();
}
void set_last_error(uint32_t error) {
    SetLastError(error);
}

}  // namespace test
