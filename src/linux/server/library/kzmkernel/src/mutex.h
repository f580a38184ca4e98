// A mutex in shared memory with the ownership rules of Windows, carried by a robust pthread mutex: the kernel itself
// marks it when its owner ends. It lies alone in a page, so no damage elsewhere reaches it.
//
// The lock's own word decides everything: whose the mutex is, and whether it is free. Nothing in the page is written
// before the word has said that this thread owns it. Waiters sleep in slices and look for themselves after each, so no
// waiter depends on being woken: whatever other processes do or leave undone, killed or stopped, a free lock is found.
// docs/lock-protocol.md tells it step by step.
#pragma once

#include <linux/futex.h>

#include <cstdint>
#include <ctime>

#include "clock.h"
#include "kzmkernel.h"
#include "mutex_page.h"
#include "process.h"

namespace kzmkernel {

class Mutex {
  public:
    /// Makes a free mutex of zero-filled memory. @return 0 or a Windows error number
    uint32_t prepare() noexcept;

    /// Whether the memory holds a mutex of this version of the page, and one that this process may use: thread ids of
    /// another process-id namespace would collide with ours. Costs no system call after the first time.
    bool is_usable() const noexcept;

    /// As kzmkernel_wait(); on failure `error` is set.
    uint32_t wait(uint32_t timeout_ms, uint32_t& error) noexcept;
    /// The same by a thread that knows who it is, with no time to wait, and an error that has to be asked for by
    /// wait().
    uint32_t attempt(const Thread& thread) noexcept {
        // The clock is read before the lock's own steps, where nobody minds that a thread may be held up.
        const time_t now = time(nullptr);
        const int result = pthread_mutex_trylock(&page_.lock);
        if (result != 0) [[unlikely]]
            return not_simply_taken(thread, result);
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

    /// The kernel clears the lock's word when an owner ends, so the word is never mistaken, also where a thread has the
    /// id of one that ended.
    bool is_owned_by(const Thread& thread) const noexcept {
        const auto word = static_cast<uint32_t>(__atomic_load_n(&page_.lock.__data.__lock, __ATOMIC_RELAXED));
        return (word & FUTEX_TID_MASK) == thread_of(thread.owner);
    }
    /// The owner counts its take as one that only looks.
    void count_look() noexcept {
        page_.looks.store(page_.looks.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    }
    uint64_t looks() const noexcept { return page_.looks.load(std::memory_order_relaxed); }
    void* note() noexcept { return page_.note; }
    void read_note(void* copy) const noexcept;

    kzmkernel_mutex_info info() const noexcept;

    /// Whether a living thread of this process owns it. Its memory must stay mapped then: it is linked with the
    /// thread's other robust mutexes.
    bool is_owned_by_this_process() const noexcept;

  private:
    /// What an attempt comes to that has not simply succeeded.
    [[gnu::cold, gnu::noinline]] uint32_t not_simply_taken(const Thread& thread, int result) noexcept;
    /// What a try to lock comes to that has not run out of time.
    uint32_t taken(const Thread& thread, int result, uint32_t& error) noexcept;
    int sleep_until_taken(uint32_t timeout_ms) noexcept;
    /// `since` is for people: the second is near enough, and a finer clock would be felt at each take.
    void name_owner(const Thread& thread, time_t since) noexcept {
        // The lock orders owners already. This says it once more, for tools that do not know each way to take a lock.
        static_cast<void>(page_.owner.load(std::memory_order_acquire));
        // Whoever copies what the lock guards without taking it learns from this number that there was an owner.
        page_.takes.store(page_.takes.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
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
