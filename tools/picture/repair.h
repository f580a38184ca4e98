// Completes a killed process's unfinished change from its note, with the library's own steps.
#pragma once

#include <vector>

#include "picture/interrupted.h"
#include "picture/live.h"

namespace picture {

/// The changes that were completed, and those whose notes were dropped.
struct Repaired {
    std::vector<Interrupted> completed, discarded;
};

/// @param[in] force    even if the lock was taken since, other than by tools that only look
/// @param[in] discard  changes nothing in the region and drops the notes
/// @throws Error  refused, no region, or waiting for the lock timed out; nothing was changed
Repaired repair(const Access& access, bool force, bool discard);

}  // namespace picture
