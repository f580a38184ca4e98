// The kernel calls that the library needs, one contract for both platforms: kernel32 on Windows, kzmkernel on Linux.
// Free of system headers. Failures leave a Windows error number in the thread's last error.
#pragma once

#include <cstddef>
#include <cstdint>

namespace shmnm::kernel {

inline constexpr uint32_t wait_timeout = 258;  ///< result of wait(): timed out, the mutex is not owned
inline constexpr uint32_t error_already_exists = 183;

/// Maps a whole mapping for reading and writing; null on failure.
void* map_view(void* mapping) noexcept;
/// The size of a view in bytes, in whole pages.
size_t view_size(const void* view) noexcept;
void unmap_view(const void* view) noexcept;

/// A number that no other shared memory of this name has had; 0 if the system has no such number.
uint64_t object_number(void* mapping) noexcept;

/// Waits until this thread owns `mutex`, for at most `timeout_ms` (0xFFFFFFFF: without limit).
/// @return 0 owned; 0x80 owned, taken over from an owner that ended; 258 timed out; 0xFFFFFFFF failed
uint32_t wait(void* mutex, uint32_t timeout_ms) noexcept;
/// Releases a mutex that this thread owns; @return whether it did.
bool release(void* mutex) noexcept;

/// Where the owner of a mutex may leave a note for the next owner.
struct Notepad {
    void* note = nullptr;  ///< 1,024 bytes, zero at first, that stay when their writer ends
    uint32_t process = 0;  ///< this process's id
    uint64_t takes = 0;    ///< how often the mutex was taken
    uint64_t looks = 0;    ///< how many of these takes were by tools that only looked
};
/// The notepad of a mutex. It has no note if this thread does not own the mutex, or if the system keeps none, as on
/// Windows. The last error stays as it was.
Notepad notepad(void* mutex) noexcept;

/// @return whether the handle was open
bool close(void* handle) noexcept;
uint32_t last_error() noexcept;
void set_last_error(uint32_t error) noexcept;
void sleep(uint32_t milliseconds) noexcept;

}  // namespace shmnm::kernel
