// The process's handles. A handle is a number made of a place in the table and of a count of the place's uses, so a
// closed or an invented one is told from an open one. Looking one up takes no lock.
#pragma once

#include <cstdint>

#include "object.h"

namespace kzmkernel {

struct Slot;

/// An open handle in use. What it names stays until the use ends, also when the handle is closed meanwhile.
class Use {
  public:
    /// Empty when that is no open handle of an object of this kind.
    Use(void* handle, Kind kind) noexcept;
    ~Use();
    Use(const Use&) = delete;
    Use& operator=(const Use&) = delete;

    explicit operator bool() const { return slot_ != nullptr; }
    Object* operator->() const;
    bool writable() const;

  private:
    Slot* slot_;
};

/// Gives out a handle, which takes the object's count over; null when the table is full. Needs the process's lock.
void* open_handle(Object* object, bool writable) noexcept;

/// @return whether the handle was open
bool close_handle(void* handle) noexcept;

/// In the child of a fork: the other threads are gone, and with them their uses. Needs the process's lock.
void forget_other_threads() noexcept;

}  // namespace kzmkernel
