// What differs between Windows and Linux for copies of the region and changes of it, free of system headers.
#pragma once

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "note.h"

namespace picture::platform {

/// The arguments of a program's main(), in UTF-8 on Windows.
std::vector<std::string> arguments(int count, char** given);
/// A path in UTF-8 on Windows, as the system's calls take it, however long it is.
std::filesystem::path file(const std::string& path);
/// Opens a file to write it anew, in bytes as written. @return null, with the reason in errno, when that fails
std::FILE* open_to_write(const std::string& path);

/// File name of the library, as the loader looks for it.
extern const char* const library_file;

/// Loads a shared library, from beside this program (Windows: beside the file that has this code) or where the system
/// keeps them. @return null when that fails
void* load_module(const char* file);
/// A function of a loaded library; null when it has none of that name.
void* symbol(void* module, const char* name);

/// The text before the names of the installation's kernel objects.
std::string object_prefix();
/// The reason for the last failure of a kernel call, as a Windows error number.
uint32_t last_error();
/// The same in words, with what to do about it; "" where no more than the number is known.
std::string explanation();
/// Why an object cannot be created after the system has denied it, and what to do; "" if the reason is not known.
/// @param[in] name  its full name
std::string why_not_created(const std::string& name);
/// The user, other than this one, for whom shared memory of this name lives, as far as the system tells.
std::optional<std::string> other_user_of(const std::string& mapping);
void close(void* handle);
/// Whether this user may read shared memory but not write to it. Call it right after a failure to open the region's
/// lock: it looks at the last error. Always false where nobody may read without a right to the lock.
/// @param[in] mapping  its name without the prefix
bool may_only_read(const char* mapping);
/// Maps all of a shared memory for reading. @return null when that fails
const void* map_for_reading(void* mapping);
void unmap(const void* view);
/// Bytes of a view, in whole pages.
uint64_t view_size(const void* view);
/// A number that no other shared memory of this name has had; 0 where that is not known.
uint64_t object_number(void* mapping);
/// Maps all of a shared memory for reading and writing. @return null when that fails
void* map_for_writing(void* mapping);

/// Takes a mutex for this thread if no other thread owns it. @return whether this thread owns it now
bool try_own(void* mutex);

/// Who holds a lock, as far as the system tells. The fields are read one by one and may be of different moments.
struct LockHolder {
    uint32_t process = 0, thread = 0;  ///< 0: nobody
    uint64_t since_ns = 0;             ///< nanoseconds since 1970
    uint64_t takeovers = 0;            ///< how often a waiter got it from an owner that had ended
    uint64_t last_takeover_ns = 0;     ///< when that was the last time; 0: never
    uint64_t takes = 0;                ///< how often it was taken
    uint64_t looks = 0;                ///< how many of these takes only looked
};
/// Nothing where the system does not tell.
std::optional<LockHolder> lock_holder(void* mutex);
/// A copy of the note that owners of the lock leave for those after them; nothing where the system keeps none.
std::optional<shmnm::Note> note(void* mutex);
/// That note itself, for this thread, which owns the lock; null where the system keeps none.
void* own_note(void* mutex);
/// The lock, taken and released by the system's own calls, which tell whether its last owner had ended without
/// releasing it. Only where the system does not count how often it was taken over; elsewhere this does nothing.
class OwnedLock {
  public:
    /// Waits for at most this long. If it does not get the lock, it owns nothing; that is no error.
    OwnedLock(void* mutex, uint32_t timeout_ms);
    // NOLINTNEXTLINE(performance-trivially-destructible): on Windows it releases the lock
    ~OwnedLock();
    OwnedLock(const OwnedLock&) = delete;
    OwnedLock& operator=(const OwnedLock&) = delete;
    bool was_taken_over() const { return was_taken_over_; }

  private:
    void* mutex_ = nullptr;  ///< null: not owned
    bool was_taken_over_ = false;
};
/// This thread, which owns the lock, has taken it only to look.
void count_look(void* mutex);
/// A copy of what the lock guards, made without taking it. All of it must be loaded by relaxed atomics.
struct LocklessCopy {
    bool as_owner = false;  ///< this thread owns the lock
    uint64_t takes = 0;
};
/// How often such a copy is tried before the lock is taken for it. One is made where none can be kept: it brings the
/// pages into memory.
extern const unsigned lockless_tries;
/// @return nothing: another thread owns the lock or ended as its owner, or the system cannot tell
std::optional<LocklessCopy> begin_lockless_copy(void* mutex);
/// Whether nobody but this thread has owned the lock since the copy began: then all of it is of one moment.
bool is_whole(void* mutex, const LocklessCopy& copy);
/// Whether the thread that is named has ended and left the lock to whoever asks next. Not for under the lock: it looks
/// at the system's files.
bool has_ended(const LockHolder& holder);

struct Process {
    std::string command;  ///< not escaped
    std::string state;    ///< "running", "stopped", "ended but not waited for"
};
/// Nothing when there is no such process or it cannot be looked at.
std::optional<Process> process(uint32_t id);

/// Bytes of memory of this machine, with what it can put aside; 0 where that is not known.
uint64_t memory_size();

/// Microseconds since 1970.
uint64_t wall_clock_us();
/// Microseconds of a clock that nobody sets, and that goes on while the machine is suspended: what was fresh before is
/// old afterwards.
uint64_t steady_clock_us();

/// "2026-03-01T12:34:56.789+01:00", local time.
std::string to_text(uint64_t wall_clock_us);

}  // namespace picture::platform
