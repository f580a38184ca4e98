// A copy of the region on its way to another process: one line of JSON, then the bytes that are not zero.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "picture/snapshot.h"

namespace picture {

struct Transfer {
    std::string head;                     ///< the line, with its end
    std::vector<std::string_view> bytes;  ///< what follows it; parts of the copy
};

/// @param[in] bridge        as it is now; null: not known
/// @param[in] is_lock_held  whether the owner that the copy names has the lock still
/// @param[in] with_zeros    also the bytes that are zero
Transfer to_transfer(const Snapshot& snapshot, const Bridge* bridge, bool is_lock_held, bool with_zeros);

struct Arrival {
    Snapshot snapshot;
    bool is_lock_held = false;
};

/// Reads what to_transfer() made. @throws Error  it is something else, or was cut
Arrival from_transfer(std::string_view text);

}  // namespace picture
