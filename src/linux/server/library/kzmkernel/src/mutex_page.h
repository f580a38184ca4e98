// The page of a mutex, which processes of different builds share. Its layout is a format: moving a field requires a new
// version, and a process refuses a page of a version that it does not know.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "kzmkernel.h"

namespace kzmkernel {

struct MutexPage {
    uint64_t signature;
    /// The inode of the process-id namespace that the mutex was created in. Thread ids of another namespace would
    /// collide.
    uint64_t process_id_namespace;
    /// A robust mutex. Its word comes first in it; the kernel marks the word when the owner ends.
    pthread_mutex_t lock;
    uint32_t version;
    uint32_t size;  ///< of this struct
    // Only the owner writes the rest, for itself and for tools. `owner` may still name an owner that ended: the lock's
    // word decides.
    uint64_t depth;  ///< how often the owner took it
    /// How often a thread became the owner. An owner raises it before it writes anything else.
    std::atomic<uint64_t> takes;
    std::atomic<uint64_t> owner;  ///< process and thread id, joined by owner_number(); 0: none
    std::atomic<uint64_t> owned_since_ns;
    std::atomic<uint64_t> takeovers, last_takeover_ns;
    std::atomic<uint64_t> looks;  ///< how many of the takes only looked
    uint8_t reserved[904];
    /// What the owner notes for the next owner. This library gives it no meaning.
    alignas(8) uint8_t note[KZMKERNEL_NOTE_BYTES];
};

inline constexpr uint64_t mutex_signature = 0x6B63'6F6C'6D7A'6B01;  // "\x01kzmlock" in memory
inline constexpr uint32_t mutex_version = 2;

/* clang-format off: a table */
#define KZMKERNEL_PIN(field, at) static_assert(offsetof(MutexPage, field) == (at), "MutexPage." #field " moved")
KZMKERNEL_PIN(signature, 0);
KZMKERNEL_PIN(process_id_namespace, 8);
KZMKERNEL_PIN(lock, 16);
static_assert(sizeof(pthread_mutex_t) == 40 && offsetof(pthread_mutex_t, __data.__lock) == 0);
KZMKERNEL_PIN(version, 56);
KZMKERNEL_PIN(size, 60);
KZMKERNEL_PIN(depth, 64);
KZMKERNEL_PIN(takes, 72);
KZMKERNEL_PIN(owner, 80);
KZMKERNEL_PIN(owned_since_ns, 88);
KZMKERNEL_PIN(takeovers, 96);
KZMKERNEL_PIN(last_takeover_ns, 104);
KZMKERNEL_PIN(looks, 112);
KZMKERNEL_PIN(reserved, 120);
KZMKERNEL_PIN(note, 1024);
static_assert(sizeof(MutexPage) == 2048, "MutexPage resized");
#undef KZMKERNEL_PIN
/* clang-format on */
static_assert(std::atomic<uint64_t>::is_always_lock_free && sizeof(std::atomic<uint64_t>) == 8);

}  // namespace kzmkernel
