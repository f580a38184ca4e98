#include "mutex.h"

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <ctime>

#include "error.h"

namespace kzmkernel {
namespace {

/// Another layout gets another number.
constexpr uint64_t signature = 0x317865'74756D'7A6B + (uint64_t{sizeof(Mutex)} << 52);
constexpr uint64_t most_depth = 0x80000000;  // as in Windows
constexpr auto relaxed = std::memory_order_relaxed;

constexpr uint64_t ms_per_s = 1'000, ns_per_ms = 1'000'000, ns_per_s = 1'000'000'000;

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

int block(pthread_mutex_t& lock, uint32_t timeout_ms) {
    if (timeout_ms == KZMKERNEL_INFINITE) return pthread_mutex_lock(&lock);
    const timespec end = monotonic_after(timeout_ms);
    return pthread_mutex_clocklock(&lock, CLOCK_MONOTONIC, &end);
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

int Mutex::take(uint32_t timeout_ms) noexcept {
    // A free lock needs no clock; the owner's own is EDEADLK at once.
    int result = pthread_mutex_trylock(&lock_);
    if (result != EBUSY || timeout_ms == 0) return result;
    waiters_.fetch_add(1);
    result = block(lock_, timeout_ms);
    waiters_.fetch_sub(1);
    return result;
}

uint32_t Mutex::wait(uint32_t timeout_ms, uint32_t& error) noexcept {
    switch (const int result = take(timeout_ms)) {
        case 0:
            name_owner(this_thread());
            return KZMKERNEL_WAIT_OWNED;
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
            name_owner(this_thread());
            return KZMKERNEL_WAIT_ABANDONED;
        case EBUSY:
        case ETIMEDOUT:
            return KZMKERNEL_WAIT_TIMEOUT;
        default:
            error = windows_error(result);
            return KZMKERNEL_WAIT_FAILED;
    }
}

// Whoever is not named is not the owner. Whoever is named owns it, or has the ids of one that ended: then the lock
// refuses.
uint32_t Mutex::release() noexcept {
    const Thread& thread = this_thread();
    if (!is_named_owner(thread)) return KZMKERNEL_ERROR_NOT_OWNER;
    if (depth_ > 1) {
        --depth_;
        return 0;
    }
    owner_process_.store(0, relaxed);
    owner_thread_.store(0, std::memory_order_release);
    const bool marked = is_marked_as_waited_for();
    if (pthread_mutex_unlock(&lock_) != 0) return KZMKERNEL_ERROR_NOT_OWNER;
    if (!marked && waiters_.load() != 0) wake_one();
    return 0;
}

// The lock's word is marked while others sleep, but only until it is freed: the waiter that is woken then marks it
// again. If another thread took the lock before and that waiter was killed meanwhile, the mark is missing and the next
// one would sleep on beside a free lock. So waiters are counted as well. One that was killed stays counted, which costs
// its mutex a system call a release and nothing else.
bool Mutex::is_marked_as_waited_for() const noexcept {
    const auto word = static_cast<unsigned>(__atomic_load_n(&lock_.__data.__lock, __ATOMIC_RELAXED));
    return (word & FUTEX_WAITERS) != 0;
}

void Mutex::wake_one() noexcept {
    syscall(SYS_futex, &lock_.__data.__lock, FUTEX_WAKE, 1, nullptr, nullptr, 0);
}

kzmkernel_mutex_info Mutex::info() const noexcept {
    kzmkernel_mutex_info result{};
    result.owner_process = owner_process_.load(relaxed);
    result.owner_thread = owner_thread_.load(relaxed);
    result.owned_since_ns = owned_since_ns_.load(relaxed);
    result.takeovers = takeovers_.load(relaxed);
    result.last_takeover_ns = last_takeover_ns_.load(relaxed);
    result.takes = takes_.load(relaxed);
    return result;
}

bool Mutex::is_owned_by_this_process() const noexcept {
    const auto process = static_cast<pid_t>(owner_process_.load(relaxed));
    const auto thread = static_cast<pid_t>(owner_thread_.load(relaxed));
    if (process != getpid() || process_id_namespace_ != process_id_namespace()) return false;
    return tgkill(process, thread, 0) == 0 || errno != ESRCH;
}

bool Mutex::is_named_owner(const Thread& thread) const noexcept {
    return owner_thread_.load(relaxed) == thread.thread && owner_process_.load(relaxed) == thread.process &&
           owner_tag_.load(relaxed) == thread.tag;
}

void Mutex::name_owner(const Thread& thread) noexcept {
    // The lock orders owners already. This says it once more, for tools that do not know each way to take a lock.
    static_cast<void>(owner_thread_.load(std::memory_order_acquire));
    depth_ = 1;
    owned_since_ns_.store(now_ns(), relaxed);
    takes_.store(takes_.load(relaxed) + 1, relaxed);
    owner_tag_.store(thread.tag, relaxed);
    owner_process_.store(thread.process, relaxed);
    owner_thread_.store(thread.thread, std::memory_order_release);
}

}  // namespace kzmkernel
