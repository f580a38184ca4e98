// Named objects: files in the folder, each of one kind. A process has one Object a living file, shared by its handles.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstdint>

#include "descriptor.h"
#include "mutex.h"

namespace kzmkernel {

/// Mappings and views are whole pages.
inline constexpr uint64_t page = 4096;

/// The first letter of the file's name: mutexes and mappings of one name do not meet on the disk.
enum class Kind : char { mutex = 'm', mapping = 's' };

/// A mutex's page as this process has it mapped. Threads that used it last keep it mapped, though not alive.
struct MappedMutex {
    Mutex* mutex;
    std::atomic<uint32_t> users;
};

struct Object {
    Kind kind;
    char file_name[256];
    dev_t device;
    ino_t inode;
    uint64_t size;            ///< bytes, whole pages
    Descriptor root, folder;  ///< carry the guards
    Descriptor file;          ///< of a mapping
    MappedMutex* mapped;      ///< of a mutex
    uint32_t handles;
    Object* next;
};

/// All of these are called with the process's lock held and give 0 or a Windows error number.

/// Opens the object or makes it; 183: it existed. Each success counts one handle more.
uint32_t create_object(Kind kind, const char* name, uint64_t size, Object*& object) noexcept;
/// Opens an object that lives; 2: there is none.
uint32_t open_object(Kind kind, const char* name, Object*& object) noexcept;
/// Gives up one handle. With the last one of the process the object goes; with the last of all processes its file.
void drop_object(Object* object) noexcept;
/// Gives back the pages of closed mutexes that no thread of this process needs any more.
void forget_closed_mutexes() noexcept;
/// In the child of a fork, where no other thread is left to keep a mutex's page mapped.
void forget_users_of_mutexes() noexcept;

}  // namespace kzmkernel
