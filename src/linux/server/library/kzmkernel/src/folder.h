// The folder that holds a user's objects, and the gate through which processes enter it.
//
// Three things, each locked only through a descriptor that no other user can have:
//   folder   kzmkernel.UID, mode 0700: one file per object, named by kind and name. guard.h says how a file's guards N
//            and F tell whether its object lives.
//   sibling  kzmkernel.UID.guard, mode 0600, an empty file beside the folder: it guards the folder as the folder guards
//            the objects.
//   gate     an flock on the folder. A process holds it only while it reads or changes names, and allocates no memory
//            meanwhile. A call waits for it for at most 2 s, then fails with 170.
//
// The folder's own N and F in the sibling are held by every process that is in the folder or holds an object.
//
// To enter (Gate::enter):
//   E1  Open the parent. Refuse it if other users may remove names in it.
//   E2  Open the folder. If it is missing but its N is locked in the sibling, look again: if it is still missing, it
//       was removed (1006). If N is free, make the folder, or fail with 2 if nothing is to be made.
//   E3  Open the sibling, or make it. Refuse a folder or a sibling with another owner, mode, type or number of links.
//   E4  Lock the gate: 170 after 2 s.
//   E5  Look at the folder's N and F in the sibling. If only N is locked, another folder is the living one. Otherwise
//       lock both.
//   E6  Check that both names still lead to what was opened. If not, let everything go and start again at E2. Only now
//       does a difference seen in E5 count (1006).
// Two folders never live at once. A process that made another folder looked at N (E2) after the name of this folder was
// gone. If it looked after E5, it saw N locked; if it looked before, E6 finds that the name leads to its folder.
//
// If only the sibling is removed, the next process to enter makes it again and guards the same folder anew. If the user
// or root removes both while objects live, nobody notices.
#pragma once

#include <sys/stat.h>

#include <cstdint>

#include "clock.h"
#include "descriptor.h"
#include "patience.h"
#include "place.h"

namespace kzmkernel {

/// How files in the folder are opened to be read or only looked at; and how they, and the sibling, are opened to be
/// written or locked.
inline constexpr int read_flags = O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY;
inline constexpr int object_flags = O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY;

/// Files without a name. Their memory is freed at the end of this object's life.
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

/// The folder with its gate held, until the end of this object's life.
class Gate {
  public:
    /// Enters the effective user's folder. @return 0 or a Windows error number: 2 if it is missing and not to be made
    uint32_t enter(bool make) noexcept;
    /// Enters a folder that is already open, for instance to remove a file from it.
    bool enter_again(int folder) noexcept;
    ~Gate() { leave(); }

    /// Lets other processes in, but keeps the folder guarded.
    void step_out() noexcept;
    /// Locks the gate again after step_out(). @return 0 or a Windows error number
    uint32_t step_in() noexcept;

    /// Explains why a file in the folder cannot be an object.
    /// @param cause  why it cannot be opened; 0 if it can
    /// @return a Windows error number
    uint32_t refuse_file(const char* file_name, int cause) const noexcept;
    /// Explains that an object lives without this file. @return 1006
    uint32_t explain_replaced(const char* file_name) const noexcept;

    int folder() const { return folder_.get(); }
    int sibling() const { return sibling_.get(); }
    void leave() noexcept;
    /// Leaves the gate but keeps the two descriptors, which carry the guards.
    void leave_guarded(KeptDescriptor& sibling, KeptDescriptor& folder) noexcept;

    /// Waits, outside the gate, while another process makes an object of this name, so that the memory is not charged
    /// twice; but not for long, because that process may be stopped. Other makers wait for this process until it
    /// leaves.
    /// @return whether it had to wait
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
    off_t making_ = 0;  ///< the byte of the sibling that is locked while an object is made; 0 if none is
};

/// Removes the files of dead objects. The gate must be held.
void remove_leftovers(const Gate& gate, RemovedFiles& removed) noexcept;

/// Whether a file can be an object's: regular, ours, with one link, and with read and write permission only for us.
bool is_proper_file(const struct stat& file) noexcept;

}  // namespace kzmkernel
