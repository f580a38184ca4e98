// The turning points of a process: it forks, one of its threads ends, it ends itself or unloads this library.
#include <pthread.h>

#include "handle_table.h"
#include "object.h"
#include "process.h"

namespace kzmkernel {
namespace {

void before_fork() {
    lock_tables();
}
void after_fork_in_parent() {
    unlock_tables();
}
void after_fork_in_child() {
    become_child();
    forget_other_threads();
    forget_users_of_mutexes();
    unlock_tables();
}

// The handlers are registered for this library alone, so they are withdrawn when it is unloaded.
[[gnu::constructor]] void begin_watching() {
    pthread_atfork(before_fork, after_fork_in_parent, after_fork_in_child);
    begin_watching_threads([](void* thread) { forget_last_mutex(*static_cast<Thread*>(thread)); });
}

// Pages that other threads keep stay mapped: a thread may be inside a wait while this one ends the process.
[[gnu::destructor]] void end_watching() {
    end_watching_threads();
    forget_last_mutex(thread_state());
    if (!try_to_lock_tables()) return;
    forget_closed_mutexes();
    unlock_tables();
}

}  // namespace
}  // namespace kzmkernel
