// Windows error numbers: the nearest number for an errno, and the thread's last error.
#pragma once

#include <cstdint>

namespace kzmkernel {

uint32_t windows_error(int error_number) noexcept;

uint32_t last_error() noexcept;
void set_last_error(uint32_t error) noexcept;

}  // namespace kzmkernel
