// The process's handles. A handle is a number: the index of a slot in the table, and how often that slot has been used.
// So a closed or invented handle can be told from an open handle. A lookup takes no lock.
#pragma once

#include <cstdint>

#include "object.h"
#include "process.h"

namespace kzmkernel {

struct Slot;

/// A use of an open handle. The object stays until the use ends, even if the handle is closed meanwhile.
class Use {
  public:
    /// Empty if `handle` is not an open handle of an object of this kind.
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

/// A use of the mutex that the calling thread used last. Empty if `handle` is another handle or was closed. It accesses
/// no memory that other threads write. If the handle is closed during the use, the mutex stays mapped until the use
/// ends, but the use does not keep the object alive. So the caller must not wait during the use.
class LastMutexUse {
  public:
    LastMutexUse(Thread& thread, void* handle) noexcept : thread_(thread) {
        // branch: a signal's handler calls while its thread is inside
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

/// Makes the mutex of `use` the mutex that the thread used last.
void remember_last_mutex(Thread& thread, const Use& use, void* handle) noexcept;
/// Lets go of the page of the mutex that a thread used last.
void forget_last_mutex(Thread& thread) noexcept;

/// Opens a handle, which takes over the caller's reference to the object; null if the table is full. The caller holds
/// the process's lock.
void* open_handle(Object* object, bool writable) noexcept;

/// @return whether the handle was open
bool close_handle(void* handle) noexcept;

/// For the child of a fork: ends the uses of the other threads, which do not exist here. The caller holds the process's
/// lock.
void forget_other_threads() noexcept;

}  // namespace kzmkernel
