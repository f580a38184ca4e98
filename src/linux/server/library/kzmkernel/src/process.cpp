#include "process.h"

#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <mutex>

namespace kzmkernel {
namespace {

constinit std::mutex tables;
constinit thread_local Thread self{};
/// The key whose destructor is called with the Thread of each thread that ends.
pthread_key_t end_of_thread;
constinit bool has_end_of_thread = false;
constinit std::atomic<uint64_t> own_namespace{0};

}  // namespace

ProcessLock::ProcessLock() noexcept {
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &old_cancel_state_);
    tables.lock();
}

ProcessLock::~ProcessLock() {
    tables.unlock();
    pthread_setcancelstate(old_cancel_state_, nullptr);
}

Thread& thread_state() noexcept {
    // Hides from the compiler where the address comes from. Otherwise it would compute the address again at each use.
    Thread* thread = &self;
    asm("" : "+r"(thread));
    return *thread;
}

Thread& this_thread() noexcept {
    Thread& thread = self;
    if (thread.owner == 0) {
        thread.owner = owner_number(static_cast<uint32_t>(getpid()), static_cast<uint32_t>(gettid()));
    }
    return thread;
}

bool watch_end_of(Thread& thread) noexcept {
    // branch: pthread_setspecific() fails only without memory
    return has_end_of_thread && pthread_setspecific(end_of_thread, &thread) == 0;
}

void begin_watching_threads(void (*at_end)(void* thread)) noexcept {
    has_end_of_thread = pthread_key_create(&end_of_thread, at_end) == 0;
}

void end_watching_threads() noexcept {
    if (has_end_of_thread) pthread_key_delete(end_of_thread);
}

void become_child() noexcept {
    self.owner = 0;
    self.handle = nullptr;
    self.mapped = nullptr;
    own_namespace.store(0, std::memory_order_relaxed);
}

void lock_tables() noexcept {
    tables.lock();
}
bool try_to_lock_tables() noexcept {
    return tables.try_lock();
}
void unlock_tables() noexcept {
    tables.unlock();
}

uint64_t process_id_namespace() noexcept {
    uint64_t known = own_namespace.load(std::memory_order_relaxed);
    if (known == 0) {
        struct stat found {};
        if (stat("/proc/self/ns/pid", &found) == 0) known = found.st_ino;
        own_namespace.store(known, std::memory_order_relaxed);
    }
    return known;
}

}  // namespace kzmkernel
