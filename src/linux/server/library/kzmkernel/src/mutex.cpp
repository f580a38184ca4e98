#include "mutex.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>

#include "error.h"

namespace kzmkernel {
namespace {

constexpr uint64_t most_depth = 0x80000000;  // as in Windows
constexpr auto relaxed = std::memory_order_relaxed;

/// Long enough to cost nothing, short enough for a waiter that nobody woke when the lock became free.
constexpr uint64_t slice_ns = 500 * ns_per_ms;

}  // namespace

uint32_t Mutex::prepare() noexcept {
    page_.process_id_namespace = process_id_namespace();
    if (page_.process_id_namespace == 0) return KZMKERNEL_ERROR_ACCESS_DENIED;
    page_.signature = mutex_signature;
    page_.version = mutex_version;
    page_.size = sizeof page_;
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_setpshared(&attributes, PTHREAD_PROCESS_SHARED);
    pthread_mutexattr_setrobust(&attributes, PTHREAD_MUTEX_ROBUST);
    // An error-checking mutex compares the lock's word with the caller's id. So its answers are right even if a thread
    // has the id of a thread that ended, and the depth can be kept in the page.
    pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_ERRORCHECK);
    const int result = pthread_mutex_init(&page_.lock, &attributes);
    pthread_mutexattr_destroy(&attributes);
    return result == 0 ? 0 : windows_error(result);
}

bool Mutex::is_usable() const noexcept {
    return page_.signature == mutex_signature && page_.version == mutex_version && page_.size == sizeof page_ &&
           page_.process_id_namespace == process_id_namespace();
}

uint32_t Mutex::finish_wait(const Thread& thread, int result, uint32_t& error) noexcept {
    switch (result) {
        case 0:
            name_owner(thread, time(nullptr));
            return KZMKERNEL_WAIT_OWNED;
        case EDEADLK:
            if (page_.depth >= most_depth) {
                error = KZMKERNEL_ERROR_MUTEX_LIMIT;
                return KZMKERNEL_WAIT_FAILED;
            }
            ++page_.depth;
            return KZMKERNEL_WAIT_OWNED;
        case EOWNERDEAD:
            pthread_mutex_consistent(&page_.lock);
            name_owner(thread, time(nullptr));
            page_.last_takeover_ns.store(now_ns(CLOCK_REALTIME), relaxed);
            page_.takeovers.fetch_add(1, relaxed);
            return KZMKERNEL_WAIT_ABANDONED;
        default:
            error = windows_error(result);
            return KZMKERNEL_WAIT_FAILED;
    }
}

uint32_t Mutex::finish_attempt(const Thread& thread, int result) noexcept {
    if (result == EBUSY) return KZMKERNEL_WAIT_TIMEOUT;
    uint32_t error = 0;
    return finish_wait(thread, result, error);
}

uint32_t Mutex::wait(uint32_t timeout_ms, uint32_t& error) noexcept {
    // The thread needs its ids before it takes the lock, so that the lock never has an owner without a name for long.
    const Thread& thread = this_thread();
    // Tries once before it reads the clock: a free lock is taken, and a lock that this thread owns gives EDEADLK at
    // once.
    int result = pthread_mutex_trylock(&page_.lock);
    if (result == EBUSY && timeout_ms != 0) result = sleep_until_taken(timeout_ms);
    if (result == EBUSY) return KZMKERNEL_WAIT_TIMEOUT;
    return finish_wait(thread, result, error);
}

// A waiter may sleep although the lock is free: the thread that should wake it, or the thread that was woken in its
// place, may have been killed or stopped. So no waiter sleeps longer than a slice without trying again.
int Mutex::sleep_until_taken(uint32_t timeout_ms) noexcept {
    uint64_t now = now_ns(CLOCK_MONOTONIC);
    const uint64_t end = timeout_ms == KZMKERNEL_INFINITE ? UINT64_MAX : now + timeout_ms * ns_per_ms;
    for (;;) {
        const timespec slice_end = timespec_of(std::min(end, now + slice_ns));
        int result = pthread_mutex_clocklock(&page_.lock, CLOCK_MONOTONIC, &slice_end);
        if (result != ETIMEDOUT) return result;
        // The try after the slice. It also clears a pointer to this lock that the C library leaves behind after a
        // time-out. The kernel would follow the pointer when the thread ends, whatever is at its address by then.
        result = pthread_mutex_trylock(&page_.lock);
        if (result != EBUSY) return result;
        now = now_ns(CLOCK_MONOTONIC);
        if (now >= end) return EBUSY;
    }
}

void Mutex::read_note(void* copy) const noexcept {
    auto* const to = static_cast<uint8_t*>(copy);
    for (size_t at = 0; at < sizeof page_.note; at += sizeof(uint64_t)) {
        const uint64_t word = __atomic_load_n(reinterpret_cast<const uint64_t*>(page_.note + at), __ATOMIC_RELAXED);
        __builtin_memcpy(to + at, &word, sizeof word);
    }
}

kzmkernel_mutex_info Mutex::info() const noexcept {
    kzmkernel_mutex_info result{};
    const uint64_t owner = page_.owner.load(relaxed);
    result.owner_process = process_of(owner);
    result.owner_thread = thread_of(owner);
    result.owned_since_ns = page_.owned_since_ns.load(relaxed);
    result.takeovers = page_.takeovers.load(relaxed);
    result.last_takeover_ns = page_.last_takeover_ns.load(relaxed);
    result.takes = page_.takes.load(relaxed);
    return result;
}

bool Mutex::is_owned_by_this_process() const noexcept {
    const uint64_t owner = page_.owner.load(relaxed);
    const auto process = static_cast<pid_t>(process_of(owner)), thread = static_cast<pid_t>(thread_of(owner));
    // branch: a child in another namespace has the process id of the owner
    if (process != getpid() || page_.process_id_namespace != process_id_namespace()) return false;
    return tgkill(process, thread, 0) == 0 || errno != ESRCH;
}

}  // namespace kzmkernel
