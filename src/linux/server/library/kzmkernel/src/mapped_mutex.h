// The page of a mutex as a process has it mapped.
#pragma once

#include <atomic>
#include <cstdint>

#include "mutex.h"

namespace kzmkernel {

/// A mutex's page as this process has it mapped. Threads that used it last keep it mapped, but do not keep it alive.
struct MappedMutex {
    Mutex* mutex;
    std::atomic<uint32_t> users;
};

/// Maps the mutex of a file; null and errno on failure.
MappedMutex* map_mutex(int file) noexcept;
void unmap_mutex(MappedMutex* mapped) noexcept;
/// Whether a thread of this process owns the mutex or used it last.
bool must_stay_mapped(const MappedMutex& mapped) noexcept;

}  // namespace kzmkernel
