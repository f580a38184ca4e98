// Why the thread's last create or open failed, in words for the user of the program.
#pragma once

#include <cstdint>

namespace kzmkernel {

/// Notes the reason for a failure. @return `error`
[[gnu::format(printf, 2, 3)]] uint32_t explained(uint32_t error, const char* format, ...) noexcept;
/// Call it at the start of a create or an open.
void forget_explanation() noexcept;
/// The reason for this failure in one line, or "" if none is known.
const char* explanation_of(uint32_t error) noexcept;

}  // namespace kzmkernel
