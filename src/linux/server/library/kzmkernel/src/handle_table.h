// The process's handles. A handle is a number made of a place in the table and of a count of the place's uses, so a
// closed or an invented one is told from an open one. Looking one up takes no lock.
#pragma once

#include <cstdint>

#include "object.h"
#include "process.h"

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
    friend void remember_last_mutex(Thread& thread, const Use& use, void* handle) noexcept;
    Slot* slot_;
};

/// The mutex that the calling thread used last, if it is asked for again and its handle is still open. It costs no
/// access to memory that others write. The handle may be closed meanwhile: then the mutex stays mapped until the use
/// ends, as if the use had come before, but it does not keep the object alive. So nobody waits inside.
class LastMutexUse {
  public:
    LastMutexUse(Thread& thread, void* handle) noexcept : thread_(thread) {
        if (thread.is_inside.load(std::memory_order_relaxed)) [[unlikely]]
            return;
        thread.enter();
        if (handle && thread.handle == handle && is_open(thread)) [[likely]] {
            found_ = true;
        } else {
            thread.leave();
        }
    }
    ~LastMutexUse() {
        if (found_) thread_.leave();
    }
    LastMutexUse(const LastMutexUse&) = delete;
    LastMutexUse& operator=(const LastMutexUse&) = delete;

    explicit operator bool() const { return found_; }
    Mutex* operator->() const { return thread_.mutex; }

  private:
    static bool is_open(const Thread& thread) noexcept;

    Thread& thread_;
    bool found_ = false;
};

/// Makes a mutex in use the one that the calling thread used last.
void remember_last_mutex(Thread& thread, const Use& use, void* handle) noexcept;
/// Lets go of the page of the mutex that a thread used last.
void forget_last_mutex(Thread& thread) noexcept;

/// Gives out a handle, which takes the object's count over; null when the table is full. Needs the process's lock.
void* open_handle(Object* object, bool writable) noexcept;

/// @return whether the handle was open
bool close_handle(void* handle) noexcept;

/// In the child of a fork: the other threads are gone, and with them their uses. Needs the process's lock.
void forget_other_threads() noexcept;

}  // namespace kzmkernel
