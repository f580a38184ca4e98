// State that exists once per process: the lock that guards the process's tables, and the ids of the process and its
// threads.
#pragma once

#include <atomic>
#include <cstdint>

namespace kzmkernel {

/// Holds the lock that guards the process's tables. The thread cannot be cancelled meanwhile.
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

/// A thread: its ids, and the mutex that it used last. Using the same mutex again needs no access to shared counters.
struct Thread {
    uint64_t owner;  ///< its ids, joined by owner_number(); 0: not read yet

    /// The mutex used last: its handle, the slot of the handle and the slot's state while the handle is open, and the
    /// page, which the thread keeps mapped. Null: there is none.
    void* handle;
    const std::atomic<uint64_t>* slot_state;
    uint64_t open_state;
    MappedMutex* mapped;
    Mutex* mutex;
    /// Whether the thread is at present using the members above and the page. A signal handler that interrupts it then
    /// must leave them as they are.
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

/// The calling thread, whose ids may not be read yet.
Thread& thread_state() noexcept;
/// The calling thread, with its ids.
Thread& this_thread() noexcept;
/// Makes sure that the function given to begin_watching_threads() is called when this thread ends; false if that is
/// impossible.
bool watch_end_of(Thread& thread) noexcept;

/// The inode of this process's process-id namespace; 0 if it is not known.
uint64_t process_id_namespace() noexcept;

// For hooks.cpp.

/// `at_end` is called with the Thread of each watched thread that ends.
void begin_watching_threads(void (*at_end)(void* thread)) noexcept;
void end_watching_threads() noexcept;
/// For the child of a fork: forgets the ids, the process-id namespace, which may be another one, and the mutex used
/// last.
void become_child() noexcept;
/// Lock and unlock what ProcessLock holds, for a fork, which begins in one function and ends in another.
void lock_tables() noexcept;
bool try_to_lock_tables() noexcept;
void unlock_tables() noexcept;

}  // namespace kzmkernel
