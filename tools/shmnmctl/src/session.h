// The session that the command runs in: its terminal, its signals, the commands that it runs, its service manager. Free
// of system headers.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace shmnmctl::session {

/// How the standard output is seen. 0 columns and rows: not a terminal, or of unknown size.
struct Terminal {
    bool is_terminal = false;
    int columns = 0, rows = 0;

    bool operator==(const Terminal&) const = default;
};
Terminal terminal();
/// Whether the terminal shows the colours that escape sequences ask for.
bool has_colors();

/// To be called once, first of all: output in bytes as written, a closed pipe as an error and not a signal, an input
/// that is closed as one that has ended.
void prepare();

/// From now on SIGINT, SIGTERM and SIGHUP (Windows: Ctrl-C, Ctrl-Break, closing the console) ask to stop and no longer
/// end the process.
void catch_stop();
/// What ended a wait; of several, the first in this list.
enum class Wake { stop, closed_output, resize, key, timeout };

/// What a wait also ends for.
struct WakeFor {
    bool closed_output = false;  ///< nobody can read standard output any more
    bool key = false;            ///< the terminal has input
};
/// Waits until a stop is asked for, the terminal's size changes, or the time is over.
Wake wait(uint32_t milliseconds, WakeFor also = {});

/// Waits until a stop is asked for or, where that is wanted, standard input ends.
void wait_for_stop(bool or_end_of_input);

/// Runs a command with this process's streams and waits for its end; Ctrl-C is left to the command, SIGTERM and SIGHUP
/// are passed on to it. Signals that this process was started to ignore, the command ignores too.
/// @return its exit status; 128 and more: ended by that signal less 128
/// @throws Failure  it cannot be started
int run(const std::vector<std::string>& command);

/// Tells the service manager that started this process, if one asks to be told, a line such as "READY=1".
void notify_service_manager(const std::string& state);

}  // namespace shmnmctl::session
