// What the log needs of the operating system, alike on both platforms: a file to append to, a lock between processes,
// renaming. Errors are Windows error numbers; nothing throws, except that a path may not fit into memory.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>

namespace kzmlog {

enum Error : int32_t {
    ok = 0,
    path_not_found = 3,
    too_many_open = 4,
    access_denied = 5,
    invalid_handle = 6,
    out_of_memory = 8,
    write_fault = 29,
    invalid_parameter = 87,
    disk_full = 112
};

/// A file opened to append one line. It is opened by its name for each line and closed again, so the line goes to the
/// file that is the current one at that moment, nothing is left to be inherited or to be closed under a writer, and no
/// descriptor stands open while nothing is written. Asking whether a file kept open is still the current one would cost
/// the same calls.
class File {
  public:
    /// Opens the file, or makes it. Only a regular file with no second name is opened, on Linux only one of this user:
    /// anything else might block its writer or take lines that are not meant for it.
    explicit File(const char* path) noexcept;
    ~File();
    File(const File&) = delete;
    File& operator=(const File&) = delete;

    Error error() const { return error_; }   ///< ok: the file is open
    uint64_t size() const { return size_; }  ///< bytes, as it was opened

    /// Appends a line by one write. `line` begins and ends with a newline; the first one is left out, unless the file
    /// ends within a line, which is what a full disk or a killed writer leaves.
    Error append(std::string_view line) const noexcept;

  private:
    intptr_t handle_ = -1;
    uint64_t size_ = 0;
    Error error_ = ok;
};

enum class Attempt { succeeded, busy, failed };

/// A lock between processes, and between threads, that the system takes from a holder that ends.
class FileLock {
  public:
    explicit FileLock(const char* path) noexcept;
    ~FileLock();
    FileLock(const FileLock&) = delete;
    FileLock& operator=(const FileLock&) = delete;

    /// Takes the lock if nobody holds it.
    Attempt take() noexcept;
    /// Renames a file; one that has the new name already is replaced. To take that one from the disk may last long, so
    /// it is done after the lock is released, if the system lets it.
    bool rename_over(const char* from, const char* to) noexcept;

  private:
    intptr_t handle_ = -1, replaced_ = -1;
    bool held_ = false;
};

/// Keeps from the calling thread that a line is written: restores its last error, defers its cancellation.
class UndisturbedThread {
  public:
    UndisturbedThread() noexcept;
    ~UndisturbedThread();
    UndisturbedThread(const UndisturbedThread&) = delete;
    UndisturbedThread& operator=(const UndisturbedThread&) = delete;

  private:
    int32_t last_error_;
    [[maybe_unused]] int cancel_state_ = 0;
};

bool exists(const char* path) noexcept;
/// Makes one folder; one that exists is left as it is.
void make_folder(const char* path) noexcept;
/// The path as it stays when the process changes its current folder.
std::string absolute(const std::string& path);

uint32_t process_id() noexcept;
uint32_t thread_id() noexcept;
/// Minutes that local time is ahead of UTC at that second of the Unix epoch.
int32_t utc_offset_minutes(int64_t seconds) noexcept;

/// Lets others run for a moment, but not for longer than `limit`.
void pause(std::chrono::microseconds limit) noexcept;

/// Makes the attempt until it is no longer answered by `busy`, at least once, or until the patience is over.
template <class Function>
bool succeeds_within(std::chrono::microseconds patience, Function attempt) {
    using std::chrono::steady_clock;
    const steady_clock::time_point end = steady_clock::now() + patience;
    for (;;) {
        const Attempt result = attempt();
        if (result != Attempt::busy) return result == Attempt::succeeded;
        const steady_clock::duration left = end - steady_clock::now();
        if (left <= left.zero()) return false;
        pause(std::chrono::ceil<std::chrono::microseconds>(left));
    }
}

}  // namespace kzmlog
