// Changes that a killed process began but did not finish: the library notes each change in the page of the lock. On
// Windows, which keeps no such notes, there are none.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "note.h"
#include "picture/platform.h"
#include "picture/snapshot.h"

namespace picture {

struct Interrupted {
    uint32_t process = 0;     ///< which was killed
    std::string call;         ///< the library's function
    std::string change;       ///< what it did: "removed server gamma"
    bool superseded = false;  ///< tables have been changed since, so it cannot be completed
    uint32_t superseded_by = 0;

    bool operator==(const Interrupted&) const = default;
};

/// The unfinished changes in a note, of the region with this number.
std::vector<Interrupted> interrupted_changes(const shmnm::Note& note, uint64_t object);

/// The unfinished changes in the note that was copied with the region.
std::vector<Interrupted> interrupted_in(const Snapshot& snapshot);

/// "process 4711 was killed while it removed server gamma"
std::string sentence(const Interrupted& interrupted);

/// The unfinished changes in the lock's note, for a process that does not own the lock. A change whose caller is still
/// making it is left out.
std::vector<Interrupted> interrupted_changes_unlocked(void* mutex, uint64_t object);

}  // namespace picture
