#include "kernel.h"

#include <kzmkernel.h>
#include <unistd.h>

namespace shmnm::kernel {

void* map_view(void* mapping) noexcept {
    constexpr uint32_t file_map_write = 2;
    return kzmkernel_map_view(mapping, file_map_write, 0, 0);
}
size_t view_size(const void* view) noexcept {
    return kzmkernel_view_size(view);
}
void unmap_view(const void* view) noexcept {
    kzmkernel_unmap_view(view);
}

uint64_t object_number(void* mapping) noexcept {
    return kzmkernel_object_number(mapping);
}

uint32_t wait(void* mutex, uint32_t timeout_ms) noexcept {
    return kzmkernel_wait(mutex, timeout_ms);
}
bool release(void* mutex) noexcept {
    return kzmkernel_release(mutex) != 0;
}

Notepad notepad(void* mutex) noexcept {
    const uint32_t error = kzmkernel_last_error();
    void* const note = kzmkernel_note(mutex);
    if (!note) {
        kzmkernel_set_last_error(error);
        return {};
    }
    kzmkernel_mutex_info info{};
    kzmkernel_mutex_info_get(mutex, &info);
    uint64_t looks = 0;
    kzmkernel_look_count_get(mutex, &looks);
    return {note, static_cast<uint32_t>(getpid()), info.takes, looks};
}

bool close(void* handle) noexcept {
    return kzmkernel_close(handle) != 0;
}
uint32_t last_error() noexcept {
    return kzmkernel_last_error();
}
void set_last_error(uint32_t error) noexcept {
    kzmkernel_set_last_error(error);
}

void sleep(uint32_t milliseconds) noexcept {
    kzmkernel_sleep(milliseconds);
}

}  // namespace shmnm::kernel
