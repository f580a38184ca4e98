// Guards: locked bytes that tell a living object from the leftovers of a dead one. The kernel drops a lock with the
// last copy of its descriptor, so with its holder.
//
// Each process that holds an object keeps two bytes of the folder read-locked (open file description locks):
//   N  at a place that is a hash of the object's name. Locked: the name is alive, even if its file is gone.
//   F  at a place that is a hash of the name, the file's inode and its size. Locked too: the file under the name is
//      still the living object's file.
// The folder has its own N and F in its sibling (folder.h). A third byte of the sibling is locked for writing by the
// process that makes an object of a name.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <cstdint>

#include "patience.h"

namespace kzmkernel {

enum class Life {
    dead,     ///< nobody holds the name
    alive,    ///< held, and this is its file
    replaced  ///< held, but its file was removed or replaced
};

/// The byte N of a name.
off_t name_place(const char* name) noexcept;

/// The byte that a process locks while it makes an object of a name.
off_t maker_place(const char* name) noexcept;
/// Locks a byte so that no other descriptor can lock it; false and errno on failure.
bool lock_for_writing(int file, off_t place) noexcept;
void unlock(int file, off_t place) noexcept;

/// Whether any process holds a name in a folder. `file` is the file under the name, null if there is none. The caller
/// holds the folder's gate.
Life life_of(int folder, const char* name, const struct stat* file) noexcept;

/// Locks a name's two bytes for as long as the folder's descriptor, or a copy of it, is open; false and errno on
/// failure.
bool hold_alive(int folder, const char* name, const struct stat& file) noexcept;

/// Whether another process has a file open or mapped. Mappings of this process, and other descriptors of the file that
/// it has, count too. Waits a moment for processes that were just killed to let go of the file.
bool is_used_by_others(int file, Patience patience) noexcept;

/// A process that keeps views of a mapping but no handle does not keep the mapping alive. It leaves a mark, which lasts
/// as long as the views, so that others do not take it for a process that lost its guards.
void mark_as_viewed(int file) noexcept;
bool is_marked_as_viewed(int file) noexcept;

}  // namespace kzmkernel
