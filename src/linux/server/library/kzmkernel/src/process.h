// What there is once per process: the lock over its tables, and who this process and its threads are.
#pragma once

#include <atomic>
#include <cstdint>

namespace kzmkernel {

/// Holds the lock over the process's tables. The thread cannot be cancelled meanwhile.
class ProcessLock {
  public:
    ProcessLock() noexcept;
    ~ProcessLock();
    ProcessLock(const ProcessLock&) = delete;
    ProcessLock& operator=(const ProcessLock&) = delete;

  private:
    int old_cancel_state_ = 0;
};

struct MappedMutex;
class Mutex;

/// A thread: who it is, and which mutex it used last, so that the next use need not be counted for all to see.
struct Thread {
    uint64_t owner;  ///< its ids, as owner_number() joins them; 0: not asked for yet

    /// The last mutex's handle, what its slot says as long as it is open, and its page, which it keeps mapped; null:
    /// none.
    void* handle;
    const std::atomic<uint64_t>* slot_state;
    uint64_t open_state;
    MappedMutex* mapped;
    Mutex* mutex;
    /// Whether the thread is between the look at these and the end of what it does with the page. A signal's handler
    /// that comes then leaves them as they are.
    std::atomic<bool> is_inside;

    void enter() noexcept {
        is_inside.store(true, std::memory_order_relaxed);
        std::atomic_signal_fence(std::memory_order_seq_cst);
    }
    void leave() noexcept {
        std::atomic_signal_fence(std::memory_order_seq_cst);
        is_inside.store(false, std::memory_order_relaxed);
    }
};

inline uint64_t owner_number(uint32_t process, uint32_t thread) noexcept {
    return uint64_t{thread} << 32 | process;
}
inline uint32_t process_of(uint64_t owner) noexcept {
    return static_cast<uint32_t>(owner);
}
inline uint32_t thread_of(uint64_t owner) noexcept {
    return static_cast<uint32_t>(owner >> 32);
}

/// The calling thread, which may not know yet who it is.
Thread& thread_state() noexcept;
/// The calling thread.
Thread& this_thread() noexcept;
/// Has begin_watching_threads()'s function called when this thread ends; false when that is impossible.
bool watch_end_of(Thread& thread) noexcept;

/// The inode of this process's process-id namespace; 0 when it cannot be told.
uint64_t process_id_namespace() noexcept;

// For the process's turning points (hooks.cpp).

/// `at_end` is called with the Thread of each watched thread that ends.
void begin_watching_threads(void (*at_end)(void* thread)) noexcept;
void end_watching_threads() noexcept;
/// In the child of a fork: its ids are others, and so may be its process-id namespace. It starts without a last mutex.
void become_child() noexcept;
/// What ProcessLock holds, where a fork begins in one function and ends in another.
void lock_tables() noexcept;
bool try_to_lock_tables() noexcept;
void unlock_tables() noexcept;

}  // namespace kzmkernel
