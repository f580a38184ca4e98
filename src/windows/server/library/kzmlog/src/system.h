// What the log needs from the operating system, with the same interface on both platforms: a file to append to, a lock
// between processes, renaming. Errors are Windows error numbers. Nothing throws, except when memory for a path runs
// out.
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

/// A file opened to append one line. For each line it is opened by its name and closed again. So the line goes to the
/// file that is current at that moment, no child inherits a descriptor, no program closes one under a writer, and none
/// stays open between lines. Keeping the file open and checking that it is still current would cost as many calls.
class File {
  public:
    /// Opens the file, or creates it. Accepts only a regular file without a second name and, on Linux, only a file of
    /// this user. Anything else might block its writer or receive lines that are not meant for it.
    explicit File(const char* path) noexcept;
    ~File();
    File(const File&) = delete;
    File& operator=(const File&) = delete;

    Error error() const { return error_; }   ///< ok: the file is open
    uint64_t size() const { return size_; }  ///< bytes, at the time of opening

    /// Appends a line with one write. `line` begins and ends with a newline. The first newline is written only if the
    /// file ends within a line, as a full disk or a killed writer can leave it.
    Error append(std::string_view line) const noexcept;

  private:
    intptr_t handle_ = -1;
    uint64_t size_ = 0;
    Error error_ = ok;
};

enum class Attempt { succeeded, busy, failed };

/// A lock between processes and between threads. The system releases it when its holder ends.
class FileLock {
  public:
    explicit FileLock(const char* path) noexcept;
    ~FileLock();
    FileLock(const FileLock&) = delete;
    FileLock& operator=(const FileLock&) = delete;

    /// Takes the lock if it is free.
    Attempt take() noexcept;
    /// Renames a file and replaces any file that has the new name. Freeing the replaced file's disk space may take
    /// long, so it happens after the lock is released, if the system allows it.
    bool rename_over(const char* from, const char* to) noexcept;

  private:
    intptr_t handle_ = -1, replaced_ = -1;
    bool held_ = false;
};

/// Hides the writing of a line from the calling thread: restores the thread's last error and defers its cancellation.
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
/// Creates one folder; an existing folder stays as it is.
void make_folder(const char* path) noexcept;
/// The absolute path, which stays valid when the process changes its current folder.
std::string absolute(const std::string& path);

uint32_t process_id() noexcept;
uint32_t thread_id() noexcept;
/// By how many minutes local time is ahead of UTC at a time given in seconds since 1970.
int32_t utc_offset_minutes(int64_t seconds) noexcept;

/// Sleeps for a moment, for at most `limit`.
void pause(std::chrono::microseconds limit) noexcept;

/// Repeats the attempt while it returns `busy` and `patience` has not run out; makes it at least once.
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
