// The folder that holds a user's objects, and what tells a living object from the leftovers of a dead one.
//
// Three things lie in it or beside it, and each is locked only through a descriptor that no other user can have:
//   folder    kzmkernel.UID, mode 0700: one file per object, named by kind and name;
//   sibling   kzmkernel.UID.guard, mode 0600, empty: guards the folder as the folder guards the objects;
//   gate      an flock on the folder, held by whoever looks at names or changes them, and for nothing longer: no memory
//             is allocated meanwhile. It is waited for at most 2 s; then the call fails with 170.
// The kernel drops all of these locks with the last copy of their descriptor, so with their holder.
//
// Guards. Each process that holds an object keeps two bytes of the folder read-locked (open file description locks):
// N, whose place is a hash of the object's name, and F, whose place is a hash of the name, the file's inode and its
// size. N locked: the name is alive, whatever became of its file. F locked too: the file under the name is still the
// living one. The folder has its own N and F in the sibling, held by everyone who is in the folder or holds an object.
//
// To enter (Gate::enter):
//   E1  Open the parent; refuse it when others may remove names in it.
//   E2  Open the folder. If it is missing: when its N is locked in the sibling and it is still missing, it was removed
//       (1006); else make it, or fail with 2 when nothing is to be made.
//   E3  Open the sibling, or make it. Refuse a folder or a sibling of another owner, mode, type or number of links.
//   E4  Lock the gate; 170 after 2 s.
//   E5  Look at the folder's N and F in the sibling. Only N is locked: another folder is the living one. Else lock
//   both. E6  Both names must still lead to what was opened; else let all go and start over at E2. Only after that a
//       difference seen in E5 counts (1006). Whoever made another folder meanwhile looked at N (E2) after this one's
//       name was gone, so after E5, or came before E6: two folders never live at once.
// If the sibling alone is removed, the next to enter makes it again and guards the same folder anew. If both are
// removed, by their user or by root, while objects live, that is not noticed.
#pragma once

#include <sys/stat.h>

#include <cstdint>

#include "clock.h"
#include "descriptor.h"
#include "patience.h"
#include "place.h"

namespace kzmkernel {

/// How all files in the folder, and the sibling, are opened.
inline constexpr int object_flags = O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY;

enum class Life {
    dead,     ///< nobody holds the name
    alive,    ///< held, and this is its file
    replaced  ///< held, but its file was removed or replaced
};

/// The byte N of a name.
off_t name_place(const char* name) noexcept;

/// Tells whether a name in a folder is held by anyone. `file` is what lies under the name, null when nothing does. The
/// folder's gate must be held.
Life life_of(int folder, const char* name, const struct stat* file) noexcept;

/// Locks a name's two bytes for as long as the folder's descriptor, or a copy of it, is open; false and errno on
/// failure.
bool hold_alive(int folder, const char* name, const struct stat& file) noexcept;

/// Whether another process has a file open or mapped. What this process has mapped counts as well, and so does what it
/// has open besides `file`. A process that has just been killed may take a moment to let go; it is waited for.
bool is_used_by_others(int file, Patience patience) noexcept;

/// A process that keeps views of a mapping without a handle does not keep it alive. It leaves a mark, which lasts as
/// long as the views, so that it is not taken for one that has lost its guards.
void mark_as_viewed(int file) noexcept;
bool is_marked_as_viewed(int file) noexcept;

/// Files without a name, whose memory is given back when this ends.
class RemovedFiles {
  public:
    void add(Descriptor file) noexcept {
        if (count_ < capacity) files_[count_++] = std::move(file);
    }
    void let_go() noexcept {
        while (count_ > 0) files_[--count_].reset();
    }

  private:
    static constexpr size_t capacity = 32;
    Descriptor files_[capacity];
    size_t count_ = 0;
};

/// The folder with its gate held, until this object's end.
class Gate {
  public:
    /// Enters the effective user's folder. @return 0 or a Windows error number: 2 when it is missing and not to be made
    uint32_t enter(bool make) noexcept;
    /// Enters a folder that is open elsewhere, for instance to remove a file from it.
    bool enter_again(int folder) noexcept;
    ~Gate() { leave(); }

    /// Lets others in, but stays in the folder, which is guarded meanwhile.
    void step_out() noexcept;
    /// Goes on after step_out(). @return 0 or a Windows error number
    uint32_t step_in() noexcept;

    /// Says why a file in the folder is not taken for an object. @return 5
    uint32_t refuse_file(const char* file_name) const noexcept;
    /// Says that an object lives without this file. @return 1006
    uint32_t explain_replaced(const char* file_name) const noexcept;

    int folder() const { return folder_.get(); }
    int sibling() const { return sibling_.get(); }
    void leave() noexcept;
    /// Lets go of the gate but keeps the two descriptors, which carry the guards.
    void leave_guarded(KeptDescriptor& sibling, KeptDescriptor& folder) noexcept;

    /// Waits, outside the gate, while another process makes an object of this name, so that its memory is not charged
    /// twice; but not for long, since that process may be stopped. Others wait for this one until it leaves.
    /// @return whether there was anything to wait for
    bool wait_for_maker_of(const char* file_name) noexcept;

  private:
    uint32_t enter_once(bool make, bool& again) noexcept;
    uint32_t open_folder(bool make, bool& again) noexcept;
    uint32_t make_folder(bool make, bool& again) noexcept;
    uint32_t open_sibling(bool& again) noexcept;
    uint32_t lock() noexcept;
    void stop_making() noexcept;
    bool has_its_names(const struct stat& folder) const noexcept;

    Place place_;
    Patience patience_{2 * ns_per_s};
    Descriptor sibling_, folder_;
    off_t making_ = 0;  ///< the byte of the sibling that is locked while an object is made; 0: none
};

/// Removes the files of dead objects. The gate must be held.
void remove_leftovers(const Gate& gate, RemovedFiles& removed) noexcept;

/// Whether that is a file as objects have it: regular, ours, with one link, readable and writable for us alone.
bool is_proper_file(const struct stat& file) noexcept;

}  // namespace kzmkernel
