// The folder that holds a user's objects, and what tells a living object from the leftovers of a dead one.
//
// Gate. Whoever creates, opens or removes something holds an flock on the folder meanwhile; the kernel drops it with
// its holder.
//
// Guards. Each process that holds an object keeps two bytes of the *folder* read-locked (open file description locks,
// which the kernel drops when the last copy of the descriptor is gone): one byte whose place is a hash of the object's
// name and one whose place is a hash of the name, the file's inode and its size. The first locked: the name is alive,
// whatever became of its file. Both locked: the file found under the name is still the living one. The folder is
// guarded in the same way by two bytes of the memory disk's root, so that even a removed folder is noticed. Only read
// locks can be had on a folder, so nobody can keep others from taking theirs.
#pragma once

#include <sys/stat.h>

#include <cstdint>

#include "descriptor.h"

namespace kzmkernel {

enum class Life {
    dead,     ///< nobody holds the name
    alive,    ///< held, and this is its file
    replaced  ///< held, but its file was removed or replaced
};

/// Tells whether a name in a folder is held by anyone. `file` is what lies under the name, null when nothing does. The
/// folder's gate must be held.
Life life_of(int folder, const char* name, const struct stat* file) noexcept;

/// Locks a name's two bytes for as long as the folder's descriptor, or a copy of it, is open; false and errno on
/// failure.
bool hold_alive(int folder, const char* name, const struct stat& file) noexcept;

/// The folder with its gate held, until this object's end.
class Gate {
  public:
    /// Enters the effective user's folder. @return 0 or a Windows error number: 2 when it is missing and not to be made
    uint32_t enter(bool make) noexcept;
    /// Enters a folder that is open elsewhere, for instance to remove a file from it.
    bool enter_again(int folder) noexcept;
    ~Gate() { leave(); }

    int folder() const { return folder_.get(); }
    void leave() noexcept;
    /// Lets go of the gate but keeps the two descriptors, which carry the guards.
    void leave_guarded(Descriptor& root, Descriptor& folder) noexcept;

  private:
    uint32_t open_folder(const char* name, bool make) noexcept;

    Descriptor root_, folder_;
};

/// Removes the files of dead objects. The gate must be held.
void remove_leftovers(const Gate& gate) noexcept;

/// Whether that is a file as objects have it: regular, ours, with one link, readable and writable for us alone.
bool is_proper_file(const struct stat& file) noexcept;

}  // namespace kzmkernel
