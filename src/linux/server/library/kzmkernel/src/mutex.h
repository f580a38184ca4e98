// A mutex in shared memory with the ownership rules of Windows, built on a robust pthread mutex, which the kernel marks
// when its owner ends. Each mutex has a page of its own, so damage to other memory does not reach it.
//
// The lock's word alone decides who owns the mutex and whether it is free. A thread writes nothing to the page before
// the word shows that the thread owns the mutex. Waiters sleep in slices and try to take the mutex after each slice, so
// no waiter depends on being woken: wherever other processes are killed or stopped, a waiter finds a free lock.
// docs/lock-protocol.md explains this step by step.
#pragma once

#include <linux/futex.h>

#include <cstdint>
#include <ctime>

#include "clock.h"
#include "kzmkernel.h"
#include "mutex_page.h"
#include "process.h"

namespace kzmkernel {

/// What a thread that reads without the lock finds at the beginning.
struct Reading {
    uint64_t takes;
    bool is_held;  ///< by another thread, or by one that ended
    bool is_own;
};

class Mutex {
  public:
    /// Turns zero-filled memory into a free mutex. @return 0 or a Windows error number
    uint32_t prepare() noexcept;

    /// Whether the memory holds a mutex of this version, and of this process's process-id namespace: thread ids of
    /// another namespace would collide. Makes no system call after the first time.
    bool is_usable() const noexcept;

    /// Does what kzmkernel_wait() does, and sets `error` on failure.
    uint32_t wait(uint32_t timeout_ms, uint32_t& error) noexcept;
    /// Like wait() with a time-out of 0, for a thread that already knows its ids. It does not report the error of a
    /// failure; wait() does.
    uint32_t attempt(const Thread& thread) noexcept {
        // Reads the clock before it touches the lock: a delay there holds up no other thread.
        const time_t now = time(nullptr);
        const int result = pthread_mutex_trylock(&page_.lock);
        if (result != 0) [[unlikely]]
            return finish_attempt(thread, result);
        name_owner(thread, now);
        return KZMKERNEL_WAIT_OWNED;
    }
    /// @return 0 or a Windows error number
    uint32_t release(const Thread& thread) noexcept {
        if (!is_owned_by(thread)) [[unlikely]]
            return KZMKERNEL_ERROR_NOT_OWNER;
        if (page_.depth > 1) [[unlikely]] {
            --page_.depth;
            return 0;
        }
        page_.owner.store(0, std::memory_order_release);
        return pthread_mutex_unlock(&page_.lock) == 0 ? 0 : KZMKERNEL_ERROR_NOT_OWNER;
    }

    /// The kernel clears the thread id in the lock's word when an owner ends. So the answer is right even if this
    /// thread has the id of a thread that ended as the owner.
    bool is_owned_by(const Thread& thread) const noexcept {
        const auto word = static_cast<uint32_t>(__atomic_load_n(&page_.lock.__data.__lock, __ATOMIC_RELAXED));
        return (word & FUTEX_TID_MASK) == thread_of(thread.owner);
    }
    /// Called by the owner: counts its take as one that only looks.
    void count_look() noexcept {
        page_.looks.store(page_.looks.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    }
    uint64_t looks() const noexcept { return page_.looks.load(std::memory_order_relaxed); }
    /// Begins to read the guarded memory without the lock. docs/lock-protocol.md proves that the order matters: the
    /// count of takes first, then the word.
    Reading begin_read(const Thread& thread) const noexcept {
        const uint64_t takes = page_.takes.load(std::memory_order_acquire);
        // A word that still has the mark of a dead owner is not free: the guarded memory is as that owner left it.
        const auto word = static_cast<uint32_t>(__atomic_load_n(&page_.lock.__data.__lock, __ATOMIC_ACQUIRE));
        const bool is_own = (word & FUTEX_TID_MASK) == thread_of(thread.owner);
        return {takes, (word & ~uint32_t{FUTEX_WAITERS}) != 0 && !is_own, is_own};
    }
    /// Ends such a read. @return whether no thread has come to own the mutex since
    bool is_unchanged_since(uint64_t takes) const noexcept {
        std::atomic_thread_fence(std::memory_order_acquire);
        return page_.takes.load(std::memory_order_relaxed) == takes;
    }
    void* note() noexcept { return page_.note; }
    void read_note(void* copy) const noexcept;

    kzmkernel_mutex_info info() const noexcept;

    /// Whether a living thread of this process owns the mutex. If so, its memory must stay mapped, because it is linked
    /// to the thread's other robust mutexes.
    bool is_owned_by_this_process() const noexcept;

  private:
    /// Finishes an attempt whose pthread_mutex_trylock() did not return 0. @return as kzmkernel_wait()
    [[gnu::cold, gnu::noinline]] uint32_t finish_attempt(const Thread& thread, int result) noexcept;
    /// Finishes a wait by the `result` of the last try to lock, which is not a time-out. @return as kzmkernel_wait()
    uint32_t finish_wait(const Thread& thread, int result, uint32_t& error) noexcept;
    int sleep_until_taken(uint32_t timeout_ms) noexcept;
    /// `since` is for people: seconds are precise enough, and a finer clock would slow down every take.
    void name_owner(const Thread& thread, time_t since) noexcept {
        // The lock already orders owners. This load orders them again for tools that do not know every way to take a
        // lock, such as the thread sanitizer.
        static_cast<void>(page_.owner.load(std::memory_order_acquire));
        // A reader that copies the guarded memory without taking the lock compares this number before and after: a
        // change shows that there was an owner. Whoever reads the new number sees the word taken (release); whoever
        // reads what this owner writes sees the new number (the fence).
        page_.takes.store(page_.takes.load(std::memory_order_relaxed) + 1, std::memory_order_release);
        std::atomic_thread_fence(std::memory_order_release);
        page_.depth = 1;
        page_.owned_since_ns.store(static_cast<uint64_t>(since) * ns_per_s, std::memory_order_relaxed);
        page_.owner.store(thread.owner, std::memory_order_release);
    }

    MutexPage page_;
};

inline constexpr uint64_t mutex_file_size = 4096;
static_assert(sizeof(Mutex) <= mutex_file_size);

}  // namespace kzmkernel
