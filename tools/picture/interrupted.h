// Changes that a process began and, killed, did not end: the library notes them in the page of the lock. Where the
// system keeps no such notes, as on Windows, there are none.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "note.h"
#include "picture/platform.h"
#include "picture/snapshot.h"

namespace picture {

struct Interrupted {
    uint32_t process = 0;     ///< the one that was killed
    std::string call;         ///< the library's function
    std::string change;       ///< what it did: "removed server gamma"
    bool superseded = false;  ///< tables have been changed since, so it cannot be completed
    uint32_t superseded_by = 0;
};

/// Those that a note tells of, of the region of this number.
std::vector<Interrupted> interrupted_changes(const shmnm::Note& note, uint64_t object);

/// Those that a copy of the live region came with.
std::vector<Interrupted> interrupted_in(const Snapshot& snapshot);

/// "process 4711 was killed while it removed server gamma"
std::string sentence(const Interrupted& interrupted);

/// What the note tells to a process that does not own the lock: nothing while the caller of the noted change is at it.
std::vector<Interrupted> interrupted_changes_unlocked(void* mutex, uint64_t object);

}  // namespace picture
