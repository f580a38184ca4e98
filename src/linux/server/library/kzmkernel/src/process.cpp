#include "process.h"

#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <mutex>

#include "handle_table.h"
#include "object.h"

namespace kzmkernel {
namespace {

constinit std::mutex tables;
constinit thread_local Thread self{};
/// Its destructor is called with the Thread of one that ends.
pthread_key_t end_of_thread;
constinit bool has_end_of_thread = false;
constinit std::atomic<uint64_t> own_namespace{0};

void before_fork() {
    tables.lock();
}
void after_fork_in_parent() {
    tables.unlock();
}
void after_fork_in_child() {
    // Its thread ids are others, and so may be its process-id namespace.
    self.owner = 0;
    self.handle = nullptr;
    self.mapped = nullptr;
    own_namespace.store(0, std::memory_order_relaxed);
    forget_other_threads();
    forget_users_of_mutexes();
    tables.unlock();
}

// Registered for this library alone, so it is withdrawn when the library is unloaded.
[[gnu::constructor]] void watch_forks() {
    pthread_atfork(before_fork, after_fork_in_parent, after_fork_in_child);
}

[[gnu::constructor]] void watch_threads() {
    has_end_of_thread =
        pthread_key_create(&end_of_thread, [](void* thread) { forget_last_mutex(*static_cast<Thread*>(thread)); }) == 0;
}
[[gnu::destructor]] void leave_threads() {
    if (has_end_of_thread) pthread_key_delete(end_of_thread);
    forget_last_mutex(self);
    // Pages that other threads keep stay mapped: a thread may be inside a wait while this one ends the process.
    if (!tables.try_lock()) return;
    forget_closed_mutexes();
    tables.unlock();
}

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
    // The compiler is not to know where the address comes from: it would ask for it again at each use.
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
    return has_end_of_thread && pthread_setspecific(end_of_thread, &thread) == 0;
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
