// The exported functions: they check their arguments and handles, set the last error, and leave the work to their
// subjects.
#include "kzmkernel.h"

#include <unistd.h>

#include <ctime>

#include "clock.h"
#include "error.h"
#include "explanation.h"
#include "handle_table.h"
#include "mutex.h"
#include "object.h"
#include "other_users.h"
#include "process.h"
#include "view.h"

namespace {

using namespace kzmkernel;

constexpr uint32_t page_readwrite = 4, file_map_write = 2, file_map_read = 4;

void* fail(uint32_t error) {
    set_last_error(error);
    return nullptr;
}

/// A new handle of an object; null if there is no object or no handle left.
void* handle_for(uint32_t& error, Object* object, bool writable) {
    if (!object) return nullptr;
    void* const handle = open_handle(object, writable);
    if (!handle) {
        drop_object(object);
        error = KZMKERNEL_ERROR_TOO_MANY_OPEN_FILES;
    }
    return handle;
}

void* create(Kind kind, const char* name, uint64_t size) {
    const ProcessLock locked;
    Object* object = nullptr;
    uint32_t error = create_object(kind, name, size, object);
    void* const handle = handle_for(error, object, true);
    set_last_error(error);
    return handle;
}

void* open(Kind kind, const char* name, bool writable) {
    const ProcessLock locked;
    Object* object = nullptr;
    uint32_t error = open_object(kind, name, writable, object);
    void* const handle = handle_for(error, object, writable);
    return handle ? handle : fail(error);
}

/// A handle that was inherited by a fork may now be used in another process-id namespace.
uint32_t check(const Use& mutex) {
    if (!mutex) return KZMKERNEL_ERROR_INVALID_HANDLE;
    return mutex->mapped->mutex->is_usable() ? 0 : KZMKERNEL_ERROR_ACCESS_DENIED;
}

int32_t refuse(uint32_t error) {
    set_last_error(error);
    return 0;
}

/// A mutex in use that the calling thread owns; otherwise empty, and the last error says why.
class OwnedUse {
  public:
    explicit OwnedUse(void* mutex) : use_(mutex, Kind::mutex) {
        uint32_t error = check(use_);
        if (error == 0 && !use_->mapped->mutex->is_owned_by(this_thread())) error = KZMKERNEL_ERROR_NOT_OWNER;
        if (error != 0) set_last_error(error);
        owned_ = error == 0;
    }
    explicit operator bool() const { return owned_; }
    Mutex* operator->() const { return use_->mapped->mutex; }

  private:
    const Use use_;
    bool owned_ = false;
};

[[gnu::noinline]] uint32_t wait_in_use(void* mutex, uint32_t timeout_ms) {
    const Use use(mutex, Kind::mutex);
    uint32_t error = check(use);
    // As in Windows, a mapping's handle is refused for the missing right to wait.
    if (error == KZMKERNEL_ERROR_INVALID_HANDLE && Use(mutex, Kind::mapping)) error = KZMKERNEL_ERROR_ACCESS_DENIED;
    uint32_t result = KZMKERNEL_WAIT_FAILED;
    if (error == 0) {
        result = use->mapped->mutex->wait(timeout_ms, error);
        if (result == KZMKERNEL_WAIT_OWNED || result == KZMKERNEL_WAIT_ABANDONED) {
            remember_last_mutex(this_thread(), use, mutex);
        }
    }
    if (result == KZMKERNEL_WAIT_FAILED) set_last_error(error);
    return result;
}

[[gnu::noinline]] int32_t release_in_use(void* mutex) {
    const Use use(mutex, Kind::mutex);
    uint32_t error = check(use);
    if (error == 0) error = use->mapped->mutex->release(this_thread());
    if (error != 0) set_last_error(error);
    return error == 0;
}

}  // namespace

void* kzmkernel_create_mutex(const char* name) {
    return create(Kind::mutex, name, mutex_file_size);
}

void* kzmkernel_open_mutex(const char* name) {
    return open(Kind::mutex, name, true);
}

void* kzmkernel_create_mapping(uint32_t protect, uint64_t size, const char* name) {
    if (protect != page_readwrite || size == 0) return fail(KZMKERNEL_ERROR_INVALID_PARAMETER);
    return create(Kind::mapping, name, size);
}

void* kzmkernel_open_mapping(uint32_t access, const char* name) {
    if ((access & (file_map_read | file_map_write)) == 0) return fail(KZMKERNEL_ERROR_INVALID_PARAMETER);
    return open(Kind::mapping, name, (access & file_map_write) != 0);
}

void* kzmkernel_map_view(void* mapping, uint32_t access, uint64_t offset, size_t length) {
    if ((access & (file_map_read | file_map_write)) == 0) return fail(KZMKERNEL_ERROR_INVALID_PARAMETER);
    const Use use(mapping, Kind::mapping);
    if (!use) return fail(KZMKERNEL_ERROR_INVALID_HANDLE);
    const bool writable = (access & file_map_write) != 0;
    if (writable && !use.writable()) return fail(KZMKERNEL_ERROR_ACCESS_DENIED);
    void* view = nullptr;
    const uint32_t error = map_view(use->file(use.writable()), use->size, writable, offset, length, view);
    return error == 0 ? view : fail(error);
}

int32_t kzmkernel_unmap_view(const void* view) {
    if (unmap_view(view)) return 1;
    set_last_error(KZMKERNEL_ERROR_INVALID_ADDRESS);
    return 0;
}

size_t kzmkernel_view_size(const void* view) {
    const size_t size = view_size(view);
    if (size == 0) set_last_error(KZMKERNEL_ERROR_INVALID_ADDRESS);
    return size;
}

uint32_t kzmkernel_wait(void* mutex, uint32_t timeout_ms) {
    {
        Thread& thread = thread_state();
        const LastMutexUse last(thread, mutex);
        if (last) {
            const uint32_t result = last->attempt(thread);
            if (result == KZMKERNEL_WAIT_OWNED || result == KZMKERNEL_WAIT_ABANDONED) return result;
        }
    }
    return wait_in_use(mutex, timeout_ms);
}

int32_t kzmkernel_release(void* mutex) {
    {
        Thread& thread = thread_state();
        const LastMutexUse last(thread, mutex);
        if (last && last->release(thread) == 0) return 1;
    }
    return release_in_use(mutex);
}

int32_t kzmkernel_close(void* handle) {
    if (close_handle(handle)) return 1;
    set_last_error(KZMKERNEL_ERROR_INVALID_HANDLE);
    return 0;
}

int32_t kzmkernel_mutex_info_get(void* mutex, kzmkernel_mutex_info* info) {
    const Use use(mutex, Kind::mutex);
    if (!use || !info) return refuse(use ? KZMKERNEL_ERROR_INVALID_PARAMETER : KZMKERNEL_ERROR_INVALID_HANDLE);
    *info = use->mapped->mutex->info();
    return 1;
}

void* kzmkernel_note(void* mutex) {
    const OwnedUse use(mutex);
    return use ? use->note() : nullptr;
}

int32_t kzmkernel_note_read(void* mutex, void* note) {
    const Use use(mutex, Kind::mutex);
    if (!use || !note) return refuse(use ? KZMKERNEL_ERROR_INVALID_PARAMETER : KZMKERNEL_ERROR_INVALID_HANDLE);
    use->mapped->mutex->read_note(note);
    return 1;
}

int32_t kzmkernel_begin_read(void* mutex, uint64_t* takes) {
    const Use use(mutex, Kind::mutex);
    if (const uint32_t error = check(use)) return refuse(error);
    if (!takes) return refuse(KZMKERNEL_ERROR_INVALID_PARAMETER);
    const Reading reading = use->mapped->mutex->begin_read(this_thread());
    if (reading.is_held) return refuse(KZMKERNEL_ERROR_BUSY);
    *takes = reading.takes;
    return reading.is_own ? KZMKERNEL_READ_OWNED : KZMKERNEL_READ_FREE;
}

int32_t kzmkernel_end_read(void* mutex, uint64_t takes) {
    const Use use(mutex, Kind::mutex);
    if (const uint32_t error = check(use)) return refuse(error);
    return use->mapped->mutex->is_unchanged_since(takes) ? 1 : refuse(KZMKERNEL_ERROR_BUSY);
}

int32_t kzmkernel_look_count(void* mutex) {
    const OwnedUse use(mutex);
    if (!use) return 0;
    use->count_look();
    return 1;
}

int32_t kzmkernel_look_count_get(void* mutex, uint64_t* looks) {
    const Use use(mutex, Kind::mutex);
    if (!use || !looks) return refuse(use ? KZMKERNEL_ERROR_INVALID_PARAMETER : KZMKERNEL_ERROR_INVALID_HANDLE);
    *looks = use->mapped->mutex->looks();
    return 1;
}

uint64_t kzmkernel_object_number(void* handle) {
    for (const Kind kind : {Kind::mapping, Kind::mutex}) {
        if (const Use use(handle, kind); use) return use->inode;
    }
    set_last_error(KZMKERNEL_ERROR_INVALID_HANDLE);
    return 0;
}

const char* kzmkernel_explanation(void) {
    return explanation_of(last_error());
}

int32_t kzmkernel_find_other_user(const char* mapping, uint32_t* user) {
    uid_t found = 0;
    if (!mapping || !user || !find_other_user(mapping, found)) return 0;
    *user = found;
    return 1;
}

uint32_t kzmkernel_last_error(void) {
    return last_error();
}
void kzmkernel_set_last_error(uint32_t error) {
    set_last_error(error);
}

void kzmkernel_sleep(uint32_t milliseconds) {
    if (milliseconds == KZMKERNEL_INFINITE) {
        for (;;) pause();
    }
    const timespec end = timespec_of(now_ns(CLOCK_MONOTONIC) + milliseconds * ns_per_ms);
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &end, nullptr) != 0) {
    }
}
