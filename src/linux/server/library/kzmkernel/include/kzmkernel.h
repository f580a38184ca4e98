/**
 * @file kzmkernel.h
 * Named shared memory and named mutexes for Linux with the lifetime and ownership that they have in the Windows kernel.
 *
 * What holds for every function unless it says otherwise:
 *  - Failure  returns null or 0 and leaves the reason as a Windows error number in the thread's last error.
 *  - Success  of a create sets the last error to 0 (the object is new) or 183 (it existed). Success of any other
 *             function leaves the last error as it was.
 *  - Handles  belong to the process. A closed or invented handle fails with 6.
 *  - Life     an object lives while any process holds a handle to it, however its holders end; then its name is free.
 *  - Refused  5: the name belongs to something else, to another user's object, or to a mutex of another process-id
 *             namespace. 1006: the object lives, but its file or the folder of the files was removed or replaced.
 *             170: a process that is stopped or hangs has blocked the folder of the files for two seconds.
 *  - Fork     a child owns no mutex; its copies of the handles keep objects alive as long as it lives. exec closes
 *             them.
 *  - Folder   the files lie in /dev/shm/kzmkernel.UID, or in the folder that the environment variable KZMKERNEL_FOLDER
 *             names, which must be the same in all processes; programs with more rights than their caller ignore it.
 *  - Names    1 to 200 bytes without '/' and control characters, not beginning with a dot.
 *  - Threads  any thread may call any function.
 */
#ifndef KZMKERNEL_H
#define KZMKERNEL_H

#include <stddef.h>
#include <stdint.h>

#define KZMKERNEL_API __attribute__((visibility("default")))

#ifdef __cplusplus
extern "C" {
#endif

/** Windows error numbers that the functions of this library leave in the last error. */
enum {
    KZMKERNEL_ERROR_FILE_NOT_FOUND = 2,
    KZMKERNEL_ERROR_TOO_MANY_OPEN_FILES = 4,
    KZMKERNEL_ERROR_ACCESS_DENIED = 5,
    KZMKERNEL_ERROR_INVALID_HANDLE = 6,
    KZMKERNEL_ERROR_NOT_ENOUGH_MEMORY = 8,
    KZMKERNEL_ERROR_GEN_FAILURE = 31,
    KZMKERNEL_ERROR_INVALID_PARAMETER = 87,
    KZMKERNEL_ERROR_DISK_FULL = 112,
    KZMKERNEL_ERROR_INVALID_NAME = 123,
    KZMKERNEL_ERROR_BUSY = 170, /**< a process that is stopped or hangs blocks the folder of the files; or a mutex has,
                                     or had, another owner during a read without it */
    KZMKERNEL_ERROR_ALREADY_EXISTS = 183,
    KZMKERNEL_ERROR_NOT_OWNER = 288,
    KZMKERNEL_ERROR_INVALID_ADDRESS = 487,
    KZMKERNEL_ERROR_MUTEX_LIMIT = 587,
    KZMKERNEL_ERROR_FILE_INVALID = 1006, /**< the file under a living object was removed or replaced */
    KZMKERNEL_ERROR_MAPPED_ALIGNMENT = 1132
};

/** Results of kzmkernel_wait(). */
enum { KZMKERNEL_WAIT_OWNED = 0, KZMKERNEL_WAIT_ABANDONED = 0x80, KZMKERNEL_WAIT_TIMEOUT = 258 };
#define KZMKERNEL_WAIT_FAILED 0xFFFFFFFFu
#define KZMKERNEL_INFINITE 0xFFFFFFFFu

/** The state of a mutex, read without owning it. The fields are read one by one, so they may be from different moments.
 */
typedef struct kzmkernel_mutex_info {
    uint32_t owner_process;    /**< process id of the owner; 0: not owned */
    uint32_t owner_thread;     /**< its thread id */
    uint64_t owned_since_ns;   /**< when the outermost take began, to the second; nanoseconds since 1970 */
    uint64_t takeovers;        /**< how often a waiter took it over from an owner that had ended */
    uint64_t last_takeover_ns; /**< CLOCK_REALTIME of the last takeover; 0: never */
    uint64_t takes;            /**< how often a thread became its owner; an owner that takes it again does not count */
} kzmkernel_mutex_info;

/** Creates the named mutex, or opens it if it exists. The caller does not own it. */
KZMKERNEL_API void* kzmkernel_create_mutex(const char* name);

/** Opens an existing mutex; fails with 2 if there is none. */
KZMKERNEL_API void* kzmkernel_open_mutex(const char* name);

/**
 * Creates named shared memory, filled with zeros and charged at once, or opens it if it exists, whatever its size.
 *
 * @param[in] protect  4 (read and write)
 * @param[in] size     bytes; 0 fails with 87
 */
KZMKERNEL_API void* kzmkernel_create_mapping(uint32_t protect, uint64_t size, const char* name);

/**
 * Opens named shared memory; fails with 2 if there is none.
 *
 * @param[in] access  4: for reading, by a descriptor that cannot write; 2, or 0xF001F: for writing too
 */
KZMKERNEL_API void* kzmkernel_open_mapping(uint32_t access, const char* name);

/**
 * Maps a view. It stays valid after the mapping's handle is closed.
 *
 * @param[in] access  4: for reading; 2: for writing too (fails with 5 if the handle was opened for reading)
 * @param[in] offset  first byte, a multiple of 65,536
 * @param[in] length  bytes; 0: to the end
 */
KZMKERNEL_API void* kzmkernel_map_view(void* mapping, uint32_t access, uint64_t offset, size_t length);

/** Unmaps a view, by the address that kzmkernel_map_view() returned; 487: another address. @return nonzero on success
 */
KZMKERNEL_API int32_t kzmkernel_unmap_view(const void* view);

/** @return the number of bytes of the view that may be accessed, in whole pages; 0: not a view */
KZMKERNEL_API size_t kzmkernel_view_size(const void* view);

/**
 * Waits until this thread owns the mutex, for at most `timeout_ms` of the monotonic clock (KZMKERNEL_INFINITE: without
 * limit). An owner may take it again and must release it as often as it took it. A time-out leaves the last error as it
 * was.
 *
 * @return KZMKERNEL_WAIT_OWNED, KZMKERNEL_WAIT_ABANDONED (owned; the previous owner ended without releasing it),
 *         KZMKERNEL_WAIT_TIMEOUT or KZMKERNEL_WAIT_FAILED
 */
KZMKERNEL_API uint32_t kzmkernel_wait(void* mutex, uint32_t timeout_ms);

/** Releases the mutex once; fails with 288 if this thread does not own it. @return nonzero on success */
KZMKERNEL_API int32_t kzmkernel_release(void* mutex);

/** Closes a handle. A mutex that this thread owns stays owned until the thread ends. @return nonzero on success */
KZMKERNEL_API int32_t kzmkernel_close(void* handle);

/** Gets the owner of a mutex and how often it was taken and taken over. @return nonzero on success */
KZMKERNEL_API int32_t kzmkernel_mutex_info_get(void* mutex, kzmkernel_mutex_info* info);

/** The size of a mutex's note in bytes. */
#define KZMKERNEL_NOTE_BYTES 1024

/**
 * Gets the note of a mutex: KZMKERNEL_NOTE_BYTES of its page, zero at first, aligned to 8, which an owner may write for
 * the next owner. The note stays when an owner releases the mutex or ends.
 *
 * @return null if the calling thread does not own the mutex (288); otherwise a pointer that is valid until the thread
 *         releases the mutex
 */
KZMKERNEL_API void* kzmkernel_note(void* mutex);

/** Copies the note, 8 bytes at a time, even if another thread owns the mutex. @return nonzero on success */
KZMKERNEL_API int32_t kzmkernel_note_read(void* mutex, void* note);

/** Called by the owner: counts its take as one that only looked at the guarded data. Fails with 288 if this thread does
 * not own the mutex. @return nonzero on success */
KZMKERNEL_API int32_t kzmkernel_look_count(void* mutex);

/** Gets how many of the mutex's takes only looked. @return nonzero on success */
KZMKERNEL_API int32_t kzmkernel_look_count_get(void* mutex, uint64_t* looks);

/** What kzmkernel_begin_read() finds: no owner, or the calling thread as the owner. */
enum { KZMKERNEL_READ_FREE = 1, KZMKERNEL_READ_OWNED = 2 };

/**
 * Begins to read what the mutex guards without taking the mutex. Waits for no thread and writes nothing. The caller
 * loads the guarded data by relaxed atomics, because they may change at any time, and uses what it loaded only if
 * kzmkernel_end_read() succeeds. Then all of it is of one moment, at which no other thread owned the mutex. This holds
 * only if every writer owns the mutex while it writes.
 *
 * @param[out] takes  for kzmkernel_end_read()
 * @return KZMKERNEL_READ_FREE, KZMKERNEL_READ_OWNED, or 0: another thread owns the mutex, or its last owner ended
 *         without releasing it (170), or another failure
 */
KZMKERNEL_API int32_t kzmkernel_begin_read(void* mutex, uint64_t* takes);

/**
 * Ends the read. The note and kzmkernel_mutex_info_get() may be part of it.
 *
 * @param[in] takes  from kzmkernel_begin_read() in the same thread
 * @return nonzero if no thread became the owner of the mutex since kzmkernel_begin_read(); otherwise 170
 */
KZMKERNEL_API int32_t kzmkernel_end_read(void* mutex, uint64_t takes);

/** @return a number that no other object of this kind has had since the machine started; 0: not a handle */
KZMKERNEL_API uint64_t kzmkernel_object_number(void* handle);

/**
 * Explains in one line why this thread's last create or open failed and what to do. It names, for example, the user who
 * owns the folder or the process that blocks it.
 *
 * @return text that stays valid until this thread's next create or open; "": nothing is known beyond the last error
 */
KZMKERNEL_API const char* kzmkernel_explanation(void);

/**
 * Finds out whether a mapping of this name lives in another user's folder. It looks in the folders' usual places, where
 * they are without KZMKERNEL_FOLDER, and in the system's list of locks, which shows the objects that are in use.
 *
 * @param[out] user  the user's id
 * @return nonzero if there is such a mapping
 */
KZMKERNEL_API int32_t kzmkernel_find_other_user(const char* mapping, uint32_t* user);

KZMKERNEL_API uint32_t kzmkernel_last_error(void);
KZMKERNEL_API void kzmkernel_set_last_error(uint32_t error);

/** Suspends this thread for that time; a signal does not shorten it. */

KZMKERNEL_API void kzmkernel_sleep(uint32_t milliseconds);

#ifdef __cplusplus
}
#endif

#endif
