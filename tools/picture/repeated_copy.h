// Copies by a user who has no right to the lock: a copy is taken for whole when it equals the copy before it.
#pragma once

#include <cstdint>
#include <functional>

#include "picture/snapshot.h"

namespace picture {

/// Repeats a copy until it equals the copy before it, at least once, and counts the copies in Snapshot::tries.
/// @param[in,out] copy        the first copy; on return the last one
/// @param[in]     copy_again  makes the next copy from the one before it
/// @param[in]     clock_us    a clock that only goes forward
/// @throws Error  every copy until the time-out differed from the copy before it
void repeat_until_equal(Snapshot& copy, const std::function<void(Snapshot&)>& copy_again,
                        const std::function<uint64_t()>& clock_us, uint32_t timeout_ms);

}  // namespace picture
