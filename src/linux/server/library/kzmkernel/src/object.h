// Named objects: files in the folder, each of one kind. A process has one Object per living file, shared by its
// handles.
//
// To create (to open is C1, C2 and C7):
//   C1  Enter the folder: folder.h, E1 to E6. The gate is held now.
//   C2  Look at the name: its guards N and F, and the file under it. Held by somebody and the same file: it is
//       the living object (C7). Held and another file or none: 1006. Not held, but the file is in use: its users
//       have lost their guards, and it is the living object (C7). Else the name is free; a file under it is a
//       dead object's and is removed. The first object of a process removes all dead files.
//   C3  Step out of the gate. The folder stays guarded.
//   C4  Lock the byte of this name's makers in the sibling, so that two creators do not both charge the memory.
//       If another maker has it, wait until it is free, but at most 0.5 s; step in, look again (C2) and step out.
//   C5  Make an unnamed file (O_TMPFILE), allocate it, prepare the mutex in it. Without /proc, by which an
//       unnamed file is named later, it is called .new.PID.N until then; such a file is dead when nobody has it
//       open.
//   C6  Step into the gate: 170 after 2 s of waiting in all, 1006 if the folder was removed meanwhile. Look again
//       (C2): another process may have been first. If not, give the file its name.
//   C7  Open the file, lock N and F, let go of the gate and of the makers' byte. If this process has the object
//       already, that is used; its guards are locked anew if they are gone, and those of this call are given up.
// Whoever is killed in C5 leaves nothing, in C6 a file without guards; whoever is stopped holds others up in C2,
// C6 and C7 alone, where it holds the gate.
//
// To drop the last handle of the process:
//   D1  If views of it stay, read-lock byte 0 of the file on the description that they are mapped from: the mark.
//       Not so after a fork: the other process may have its views from the same description, and a handle. The
//       file stays then, and who creates the object next finds out whether it is in use.
//       Close the file and the sibling.
//   D2  Lock the gate; enter the folder anew (E1 to E6) if its descriptor is gone. Where that fails the file
//       stays, as after a kill. Close the folder, and with it the last of this process's guards.
//   D3  If nobody holds N now, the name still leads to this object's file, and that is not in use, remove it.
//
// In use (C2 and D3, of a file that nobody guards): this process has an Object of it; or this process has none of
// its memory mapped, a write lease on it is refused for 10 ms, so that another process has it open or mapped, and
// the file has no mark.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstddef>
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

inline constexpr size_t file_name_size = 256;
/// The name of an object's file.
void file_name_of(Kind kind, const char* name, char (&result)[file_name_size]) noexcept;

struct Object {
    Kind kind;
    char file_name[file_name_size];
    dev_t device;
    ino_t inode;
    uint64_t size;                   ///< bytes, whole pages
    KeptDescriptor sibling, folder;  ///< carry the guards
    KeptDescriptor file;             ///< of a mapping
    MappedMutex* mapped;             ///< of a mutex
    bool was_forked;                 ///< its open files, and what is mapped from them, are shared with a forked process
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
/// Before a fork.
void note_fork() noexcept;
/// In the child of a fork, where no other thread is left to keep a mutex's page mapped.
void forget_users_of_mutexes() noexcept;

}  // namespace kzmkernel
