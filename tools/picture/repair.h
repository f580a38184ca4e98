// Completes the change that a killed process has left half done, from its note, by the library's own steps.
#pragma once

#include <vector>

#include "picture/interrupted.h"
#include "picture/live.h"

namespace picture {

/// What became of the notes.
struct Repaired {
    std::vector<Interrupted> completed, discarded;
};

/// @param[in] force    also when the lock was taken since by more than tools that look
/// @param[in] discard  changes nothing in the region and drops the notes
/// @throws Error  refused, or there is no region or no lock to be had; nothing was changed
Repaired repair(const Access& access, bool force, bool discard);

}  // namespace picture
