// The kernel calls that the library needs, one contract for both platforms: kernel32 on Windows, kzmkernel on Linux.
// Free of system headers. Failures leave a Windows error number in the thread's last error.
#pragma once

#include <cstddef>
#include <cstdint>

namespace shmnm::kernel {

inline constexpr uint32_t wait_timeout = 258;  ///< result of wait(): the time is over, the mutex is not owned
inline constexpr uint32_t error_already_exists = 183;

/// Maps the whole of a mapping, to be read and written; null on failure.
void* map_view(void* mapping) noexcept;
/// Bytes that may be touched from the start of a view, in whole pages.
size_t view_size(const void* view) noexcept;
void unmap_view(const void* view) noexcept;

/// A number that no other shared memory of this name has had; 0 where the system has none.
uint64_t object_number(void* mapping) noexcept;

/// Waits until this thread owns `mutex`, for at most `timeout_ms` (0xFFFFFFFF: without limit).
/// @return 0 owned; 0x80 owned, taken over from an owner that ended; 258 timed out; 0xFFFFFFFF failed
uint32_t wait(void* mutex, uint32_t timeout_ms) noexcept;
/// Releases a mutex that this thread owns; @return whether it did.
bool release(void* mutex) noexcept;

/// What the owner of a mutex may write for the owner after it.
struct Notepad {
    void* note = nullptr;  ///< 1,024 bytes, zero at first, that stay when their writer ends
    uint32_t process = 0;  ///< this process's id
    uint64_t takes = 0;    ///< how often the mutex was taken
    uint64_t looks = 0;    ///< how many of these takes were a tool's that only looked
};
/// That of a mutex; without a note when this thread does not own it or the system keeps none, as Windows does not. The
/// last error stays as it was.
Notepad notepad(void* mutex) noexcept;

/// @return whether the handle was open
bool close(void* handle) noexcept;
uint32_t last_error() noexcept;
void set_last_error(uint32_t error) noexcept;
void sleep(uint32_t milliseconds) noexcept;

}  // namespace shmnm::kernel
