// Named objects: files in the folder, each of one kind. A process has one Object per living file, shared by its
// handles.
//
// To create an object (C1, C2 and C7 also open one):
//   C1  Enter the folder (folder.h, E1 to E6). From here on the gate is held.
//   C2  Look at the name: its guards N and F, and the file under it.
//         N and F locked: the file is the living object. Go on at C7.
//         only N locked: the living object's file was removed or replaced (1006).
//         neither locked, but the file is in use (see below): its users lost their guards, and it is the living object.
//         Go on at C7.
//         otherwise the name is free. A file under it belongs to a dead object and is removed.
//       The first object of a process also removes the files of all dead objects.
//   C3  Step out of the gate. The folder stays guarded.
//   C4  Lock the byte of this name's makers in the sibling, so that two creators do not both charge the memory. If
//       another maker has it, wait until it is free, but at most 0.5 s; then step in, repeat C2 and step out.
//   C5  Make an unnamed file (O_TMPFILE), allocate it, and prepare the mutex in it. Naming an unnamed file needs /proc;
//       without /proc the file is called .new.PID.N until C6. Such a file is dead when no process has it open.
//   C6  Step into the gate: 170 after 2 s of waiting in all, 1006 if the folder was removed meanwhile. Repeat C2,
//       because another process may have been first. If not, give the file its name.
//   C7  Open the file, lock N and F, and release the gate and the makers' byte. If this process already has the object,
//       use that: lock its guards again if they are gone, and give up those of this call.
//       To open a mapping for reading, open its file for reading. If the process also opens it for writing, the object
//       has two descriptors of its file until the last handle is dropped.
// A process that is killed in C5 leaves nothing; in C6 it leaves a file without guards. A stopped process holds up
// others only in C2, C6 and C7, where it holds the gate.
//
// To drop the last handle of the process:
//   D1  If views of the object stay, leave the mark: read-lock byte 0 of the file on the descriptions that the views
//       are mapped from. Not after a fork: the other process may have views from the same description, and a handle;
//       then the file stays, and the next creator finds out whether it is in use. Close the file and the sibling.
//   D2  Lock the gate; if the folder's descriptor is gone, enter anew (E1 to E6). If that fails, the file stays, as
//       after a kill. Close the folder, and with it the last of this process's guards.
//   D3  If N is free now, the name still leads to this object's file and the file is not in use, remove the file.
//
// A file whose guards are free is in use (C2, D3) if this process has an Object of it; or if this process has none of
// its memory mapped, the system refuses a write lease on it for 10 ms, so another process has it open or mapped, and it
// has no mark.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>

#include "descriptor.h"
#include "mapped_mutex.h"

namespace kzmkernel {

/// The first letter of the file's name, so that a mutex and a mapping of one name have different files.
enum class Kind : char { mutex = 'm', mapping = 's' };

inline constexpr size_t file_name_size = 256;
/// The name of an object's file.
void file_name_of(Kind kind, const char* name, char (&result)[file_name_size]) noexcept;

struct Object {
    Kind kind;
    char file_name[file_name_size];
    dev_t device;
    ino_t inode;
    uint64_t size;                         ///< bytes, whole pages
    KeptDescriptor sibling, folder;        ///< carry the guards
    KeptDescriptor read_file, write_file;  ///< of a mapping; each for the handles of its kind
    MappedMutex* mapped;                   ///< of a mutex
    bool was_forked;                       ///< a forked process shares its open files and what is mapped from them
    uint32_t handles;
    Object* next;

    /// The file that a handle's views are mapped from. A view of `read_file` cannot be made writable.
    KeptDescriptor& file(bool writable) { return writable ? write_file : read_file; }
};

/// The caller holds the process's lock. Results are 0 or a Windows error number.

/// Opens the object or makes it; 183 if it existed. Each success adds one handle.
uint32_t create_object(Kind kind, const char* name, uint64_t size, Object*& object) noexcept;
/// Opens a living object; 2 if there is none.
uint32_t open_object(Kind kind, const char* name, bool writable, Object*& object) noexcept;
/// Gives up one handle. The process's last handle takes its Object with it, and the last handle of all processes the
/// file.
void drop_object(Object* object) noexcept;
/// Unmaps the pages of closed mutexes that no thread of this process needs any more.
void forget_closed_mutexes() noexcept;
/// Call it before a fork.
void note_fork() noexcept;
/// Call it in the child of a fork, where no other thread is left that needs a mutex's page.
void forget_users_of_mutexes() noexcept;

}  // namespace kzmkernel
