// What happens when the process forks, when one of its threads ends, and when the process ends or unloads this library.
#include <pthread.h>

#include "handle_table.h"
#include "object.h"
#include "process.h"

namespace kzmkernel {
namespace {

void before_fork() {
    lock_tables();
    note_fork();
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

// pthread_atfork() registers the handlers for this library, so they are removed when it is unloaded.
[[gnu::constructor]] void begin_watching() {
    pthread_atfork(before_fork, after_fork_in_parent, after_fork_in_child);
    begin_watching_threads([](void* thread) { forget_last_mutex(*static_cast<Thread*>(thread)); });
}

// Pages that other threads use stay mapped, because a thread may be inside a wait while this thread ends the process.
[[gnu::destructor]] void end_watching() {
    end_watching_threads();
    forget_last_mutex(thread_state());
    // branch: another thread is inside a call while this thread ends the process
    if (!try_to_lock_tables()) return;
    forget_closed_mutexes();
    unlock_tables();
}

}  // namespace
}  // namespace kzmkernel
