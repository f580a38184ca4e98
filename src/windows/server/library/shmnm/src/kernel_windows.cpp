#include "kernel.h"

#include <windows.h>

namespace shmnm::kernel {

void* map_view(void* mapping) noexcept {
    return MapViewOfFile(mapping, FILE_MAP_WRITE, 0, 0, 0);
}

size_t view_size(const void* view) noexcept {
    MEMORY_BASIC_INFORMATION information{};
    return VirtualQuery(view, &information, sizeof information) != 0 ? information.RegionSize : 0;
}

void unmap_view(const void* view) noexcept {
    UnmapViewOfFile(view);
}

uint64_t object_number(void*) noexcept {
    return 0;
}

uint32_t wait(void* mutex, uint32_t timeout_ms) noexcept {
    return WaitForSingleObject(mutex, timeout_ms);
}
bool release(void* mutex) noexcept {
    return ReleaseMutex(mutex) != 0;
}

// The system's mutex has no memory that its owner could write to.
Notepad notepad(void*) noexcept {
    return {};
}

bool close(void* handle) noexcept {
    return CloseHandle(handle) != 0;
}
uint32_t last_error() noexcept {
    return GetLastError();
}
void set_last_error(uint32_t error) noexcept {
    SetLastError(error);
}

void sleep(uint32_t milliseconds) noexcept {
    Sleep(milliseconds);
}

}  // namespace shmnm::kernel
