// A mutex in shared memory with the ownership rules of Windows, carried by a robust pthread mutex: the kernel itself
// marks it when its owner ends. It lies alone in a page, so that no damage elsewhere reaches it.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>
#include <ctime>

#include "kzmkernel.h"
#include "process.h"

namespace kzmkernel {

inline constexpr uint64_t ns_per_s = 1'000'000'000;

class Mutex {
  public:
    /// Makes a free mutex of zero-filled memory. @return 0 or a Windows error number
    uint32_t prepare() noexcept;

    /// Whether the memory holds a mutex of this library, and one that this process may use: thread ids of another
    /// process-id namespace would collide with ours. Costs no system call after the first time.
    bool is_usable() const noexcept;

    /// As kzmkernel_wait(); on failure `error` is set.
    uint32_t wait(uint32_t timeout_ms, uint32_t& error) noexcept;
    /// The same by a thread that knows who it is, with no time to wait, and an error that has to be asked for by
    /// wait().
    uint32_t attempt(const Thread& thread) noexcept {
        // Before the lock's own steps there is time for it; nobody minds that a thread may be held up in between.
        const time_t now = time(nullptr);
        const int result = pthread_mutex_trylock(&lock_);
        if (result != 0) [[unlikely]]
            return not_simply_taken(thread, result);
        name_owner(thread, now);
        return KZMKERNEL_WAIT_OWNED;
    }
    /// @return 0 or a Windows error number
    uint32_t release(const Thread& thread) noexcept {
        // Whoever is not named is not the owner. Whoever is named owns it, or has the ids and the tag of one that
        // ended: the lock's own word tells.
        if (owner_.load(std::memory_order_relaxed) != thread.owner ||
            owner_tag_.load(std::memory_order_relaxed) != thread.tag) [[unlikely]] {
            return KZMKERNEL_ERROR_NOT_OWNER;
        }
        if (depth_ > 1) [[unlikely]]
            return release_one_of_several(thread);
        owner_.store(0, std::memory_order_release);
        const int result = waiters_.load() == 0 ? pthread_mutex_unlock(&lock_) : unlock_noting_waiters();
        return result == 0 ? 0 : KZMKERNEL_ERROR_NOT_OWNER;
    }

    kzmkernel_mutex_info info() const noexcept;

    /// Whether a living thread of this process owns it. Its memory must stay mapped then: it is linked with the
    /// thread's other robust mutexes.
    bool is_owned_by_this_process() const noexcept;

  private:
    [[gnu::cold, gnu::noinline]] uint32_t release_one_of_several(const Thread& thread) noexcept;
    /// What an attempt comes to that has not simply succeeded.
    [[gnu::cold, gnu::noinline]] uint32_t not_simply_taken(const Thread& thread, int result) noexcept;
    /// What a try to lock comes to that has not run out of time.
    uint32_t taken(const Thread& thread, int result, uint32_t& error) noexcept;
    int block(uint32_t timeout_ms) noexcept;
    void mark_for_sleepers() noexcept;
    int unlock_noting_waiters() noexcept;
    /// `since` is for people: the second is near enough, and a finer clock would be felt at each take.
    void name_owner(const Thread& thread, time_t since) noexcept {
        // The lock orders owners already. This says it once more, for tools that do not know each way to take a lock.
        static_cast<void>(owner_.load(std::memory_order_acquire));
        depth_ = 1;
        if (waiters_.load(std::memory_order_relaxed) != 0) [[unlikely]]
            mark_for_sleepers();
        owned_since_ns_.store(static_cast<uint64_t>(since) * ns_per_s, std::memory_order_relaxed);
        takes_.store(takes_.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
        owner_tag_.store(thread.tag, std::memory_order_relaxed);
        owner_.store(thread.owner, std::memory_order_release);
    }

    uint64_t signature_;
    uint64_t process_id_namespace_;
    pthread_mutex_t lock_;
    std::atomic<uint32_t> waiters_;  ///< threads that block, or were killed when they did
    uint64_t depth_;                 ///< how often the owner took it; for the owner alone
    // Written by the owner alone, for itself and for tools. They may still name one that ended: the lock's word
    // decides.
    std::atomic<uint64_t> owner_, owner_tag_, owned_since_ns_, takeovers_, last_takeover_ns_, takes_;
    /// How often a thread began to block, or an owner to release what others wait for; and what this was when the last
    /// such owner had woken one.
    std::atomic<uint64_t> wakes_wanted_, wakes_done_;
};

inline constexpr uint64_t mutex_file_size = 4096;
static_assert(sizeof(Mutex) <= mutex_file_size);
static_assert(std::atomic<uint64_t>::is_always_lock_free);

}  // namespace kzmkernel
