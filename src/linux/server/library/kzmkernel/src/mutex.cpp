#include "mutex.h"

#include <linux/futex.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>

#include "error.h"

namespace kzmkernel {
namespace {

/// Another layout gets another number.
constexpr uint64_t signature = 0x317865'74756D'7A6B + (uint64_t{sizeof(Mutex)} << 52);
constexpr uint64_t most_depth = 0x80000000;  // as in Windows
constexpr auto relaxed = std::memory_order_relaxed;

constexpr uint64_t ms_per_s = 1'000, ns_per_ms = 1'000'000;

uint64_t now_ns() {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return static_cast<uint64_t>(now.tv_sec) * ns_per_s + static_cast<uint64_t>(now.tv_nsec);
}

timespec monotonic_after(uint32_t timeout_ms) {
    timespec end{};
    clock_gettime(CLOCK_MONOTONIC, &end);
    const uint64_t ns = static_cast<uint64_t>(end.tv_nsec) + timeout_ms % ms_per_s * ns_per_ms;
    end.tv_sec += static_cast<time_t>(timeout_ms / ms_per_s + ns / ns_per_s);
    end.tv_nsec = static_cast<long>(ns % ns_per_s);
    return end;
}

}  // namespace

uint32_t Mutex::prepare() noexcept {
    process_id_namespace_ = process_id_namespace();
    if (process_id_namespace_ == 0) return KZMKERNEL_ERROR_ACCESS_DENIED;
    signature_ = signature;
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_setpshared(&attributes, PTHREAD_PROCESS_SHARED);
    pthread_mutexattr_setrobust(&attributes, PTHREAD_MUTEX_ROBUST);
    // The checking kind compares the lock's own word, which the kernel clears when an owner ends, with the caller. So
    // its answers are exact also when a thread has the id of one that ended, and depth_ can be kept here.
    pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_ERRORCHECK);
    const int result = pthread_mutex_init(&lock_, &attributes);
    pthread_mutexattr_destroy(&attributes);
    return result == 0 ? 0 : windows_error(result);
}

bool Mutex::is_usable() const noexcept {
    return signature_ == signature && process_id_namespace_ == process_id_namespace();
}

uint32_t Mutex::taken(const Thread& thread, int result, uint32_t& error) noexcept {
    if (result == 0) [[likely]] {
        name_owner(thread, time(nullptr));
        return KZMKERNEL_WAIT_OWNED;
    }
    switch (result) {
        case EDEADLK:
            if (depth_ >= most_depth) {
                error = KZMKERNEL_ERROR_MUTEX_LIMIT;
                return KZMKERNEL_WAIT_FAILED;
            }
            ++depth_;
            return KZMKERNEL_WAIT_OWNED;
        case EOWNERDEAD:
            pthread_mutex_consistent(&lock_);
            last_takeover_ns_.store(now_ns(), relaxed);
            takeovers_.fetch_add(1, relaxed);
            name_owner(thread, time(nullptr));
            return KZMKERNEL_WAIT_ABANDONED;
        default:
            error = windows_error(result);
            return KZMKERNEL_WAIT_FAILED;
    }
}

uint32_t Mutex::not_simply_taken(const Thread& thread, int result) noexcept {
    if (result == EBUSY) return KZMKERNEL_WAIT_TIMEOUT;
    uint32_t error = 0;
    return taken(thread, result, error);
}

uint32_t Mutex::wait(uint32_t timeout_ms, uint32_t& error) noexcept {
    // A free lock needs no clock; the owner's own is EDEADLK at once.
    int result = pthread_mutex_trylock(&lock_);
    if (result == EBUSY && timeout_ms != 0) result = block(timeout_ms);
    if (result == EBUSY || result == ETIMEDOUT) return KZMKERNEL_WAIT_TIMEOUT;
    return taken(this_thread(), result, error);
}

int Mutex::block(uint32_t timeout_ms) noexcept {
    waiters_.fetch_add(1);
    wakes_wanted_.fetch_add(1);
    int result = 0;
    if (timeout_ms == KZMKERNEL_INFINITE) {
        result = pthread_mutex_lock(&lock_);
    } else {
        const timespec end = monotonic_after(timeout_ms);
        result = pthread_mutex_clocklock(&lock_, CLOCK_MONOTONIC, &end);
    }
    waiters_.fetch_sub(1);
    return result;
}

// The lock's word is marked by whoever goes to sleep. The one that releases it clears the mark with the owner and then
// wakes one sleeper, who marks the word again when it goes on. If that one, or the owner between its two steps, is
// killed and somebody else has taken the lock meanwhile, the mark is missing, and the next one would sleep on beside a
// free lock. So whoever finds the word without a mark and waiters counted marks it again - the kernel then wakes one
// also when this owner is killed - unless the only one that is counted has been woken for sure: the last release that
// saw waiters got as far as past its wake, and nobody began to wait since. That one is on its way to the lock, and
// waking it once more at each release until it is there would cost a system call every time. A waiter that was killed
// stays counted.
[[gnu::noinline]] void Mutex::mark_for_sleepers() noexcept {
    const uint32_t counted = waiters_.load();
    const uint64_t wanted = wakes_wanted_.load();
    if (counted == 1 && wakes_done_.load() == wanted) return;
    __atomic_fetch_or(&lock_.__data.__lock, static_cast<int>(FUTEX_WAITERS), __ATOMIC_SEQ_CST);
}

// The number is this release's own, so one that is held up before it notes that it is done cannot speak for a later
// one.
[[gnu::noinline]] int Mutex::unlock_noting_waiters() noexcept {
    const uint64_t wake = wakes_wanted_.fetch_add(1) + 1;
    const int result = pthread_mutex_unlock(&lock_);
    if (result == 0) wakes_done_.store(wake);
    return result;
}

uint32_t Mutex::release_one_of_several(const Thread& thread) noexcept {
    const auto word = static_cast<uint32_t>(__atomic_load_n(&lock_.__data.__lock, __ATOMIC_RELAXED));
    if ((word & FUTEX_TID_MASK) != thread_of(thread.owner)) return KZMKERNEL_ERROR_NOT_OWNER;
    --depth_;
    return 0;
}

kzmkernel_mutex_info Mutex::info() const noexcept {
    kzmkernel_mutex_info result{};
    const uint64_t owner = owner_.load(relaxed);
    result.owner_process = process_of(owner);
    result.owner_thread = thread_of(owner);
    result.owned_since_ns = owned_since_ns_.load(relaxed);
    result.takeovers = takeovers_.load(relaxed);
    result.last_takeover_ns = last_takeover_ns_.load(relaxed);
    result.takes = takes_.load(relaxed);
    return result;
}

bool Mutex::is_owned_by_this_process() const noexcept {
    const uint64_t owner = owner_.load(relaxed);
    const auto process = static_cast<pid_t>(process_of(owner)), thread = static_cast<pid_t>(thread_of(owner));
    if (process != getpid() || process_id_namespace_ != process_id_namespace()) return false;
    return tgkill(process, thread, 0) == 0 || errno != ESRCH;
}

}  // namespace kzmkernel
