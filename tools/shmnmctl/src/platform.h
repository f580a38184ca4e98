// What differs between Windows and Linux for this tool, free of system headers.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace shmnmctl::platform {

/// File name of the library, as the loader looks for it.
extern const char* const library_file;

/// Loads a shared library, from beside this program or where the system keeps them. @return null when that fails
void* load_module(const char* file);
/// A function of a loaded library; null when it has none of that name.
void* symbol(void* module, const char* name);

/// The reason for the last failure of a kernel call, as a Windows error number.
uint32_t last_error();
void close(void* handle);
/// Maps all of a shared memory for reading. @return null when that fails
const void* map_for_reading(void* mapping);
void unmap(const void* view);
/// Bytes of a view, in whole pages.
uint64_t view_size(const void* view);
/// A number that no other shared memory of this name has had; 0 where that is not known.
uint64_t object_number(void* mapping);

/// Who holds a lock, as far as the system tells. The fields are read one by one and may be of different moments.
struct LockHolder {
    uint32_t process = 0, thread = 0;  ///< 0: nobody
    uint64_t since_ns = 0;             ///< nanoseconds since 1970
    uint64_t takeovers = 0;            ///< how often a waiter got it from an owner that had ended
    uint64_t last_takeover_ns = 0;     ///< when that was the last time; 0: never
    uint64_t takes = 0;                ///< how often it was taken
};
/// Nothing where the system does not tell.
std::optional<LockHolder> lock_holder(void* mutex);
/// Whether the thread that is named has ended and left the lock to whoever asks next. Not for under the lock: it looks
/// at the system's files.
bool has_ended(const LockHolder& holder);

struct Process {
    std::string command;  ///< not escaped
    std::string state;    ///< "running", "stopped", "ended but not waited for"
};
/// Nothing when there is no such process or it cannot be looked at.
std::optional<Process> process(uint32_t id);

/// How the standard output is seen. 0 columns and rows: not a terminal, or of unknown size.
struct Terminal {
    bool is_terminal = false;
    int columns = 0, rows = 0;
};
Terminal terminal();
/// Makes a terminal obey escape sequences. @return false when it cannot
bool enable_escapes();

/// To be called once, first of all: output in bytes as written, a closed pipe as an error and not a signal, an input
/// that is closed as one that has ended.
void prepare();

/// From now on SIGINT, SIGTERM and SIGHUP (Windows: Ctrl-C, Ctrl-Break, closing the console) ask to stop and no longer
/// end the process.
void catch_stop();
/// Waits until a stop is asked for, the terminal's size changes, or the time is over. @return whether a stop was asked
/// for
bool stopped_within(uint32_t milliseconds);

/// Waits until a stop is asked for or, where that is wanted, standard input ends.
void wait_for_stop(bool or_end_of_input);

/// Runs a command with this process's streams and waits for its end; Ctrl-C is left to the command, SIGTERM and SIGHUP
/// are passed on to it. Signals that this process was started to ignore, the command ignores too.
/// @return its exit status; 128 and more: ended by that signal less 128
/// @throws Failure  it cannot be started
int run(const std::vector<std::string>& command);

/// Tells the service manager that started this process, if one asks to be told, a line such as "READY=1".
void notify_service_manager(const std::string& state);

/// Microseconds since 1970, and of a clock that nobody sets.
uint64_t wall_clock_us();
uint64_t steady_clock_us();

/// "2026-03-01T12:34:56.789+01:00", local time.
std::string to_text(uint64_t wall_clock_us);

}  // namespace shmnmctl::platform
