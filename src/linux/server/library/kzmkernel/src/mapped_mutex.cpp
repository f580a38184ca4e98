#include "mapped_mutex.h"

#include <sys/mman.h>

#include <cerrno>
#include <new>

namespace kzmkernel {

MappedMutex* map_mutex(int file) noexcept {
    void* const address = mmap(nullptr, mutex_file_size, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
    if (address == MAP_FAILED) return nullptr;
    auto* const mapped = new (std::nothrow) MappedMutex{static_cast<Mutex*>(address), 0};
    if (!mapped) {
        munmap(address, mutex_file_size);
        errno = ENOMEM;
    }
    return mapped;
}

void unmap_mutex(MappedMutex* mapped) noexcept {
    munmap(mapped->mutex, mutex_file_size);
    delete mapped;
}

bool must_stay_mapped(const MappedMutex& mapped) noexcept {
    return mapped.users.load(std::memory_order_acquire) != 0 || mapped.mutex->is_owned_by_this_process();
}

}  // namespace kzmkernel
