#include "session.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>

#include "failure.h"
#include "picture/escape.h"
#include "picture/platform.h"
#include "service_manager.h"

namespace shmnmctl::session {
namespace {

using picture::printable;

/// What the signal handlers write to. A byte: 's' to stop, 'w' for another size of the terminal.
std::array<int, 2> signal_pipe{-1, -1};
volatile sig_atomic_t running_child = 0;

/// Whether prepare() found them ignored.
bool pipe_was_ignored = false, size_limit_was_ignored = false;

void announce(char what) {
    const int error = errno;
    [[maybe_unused]] const ssize_t written = write(signal_pipe[1], &what, 1);
    errno = error;
}

void on_stop(int) {
    announce('s');
}
void on_resize(int) {
    announce('w');
}
void pass_on(int signal) {
    if (running_child > 0) kill(running_child, signal);
}

void handle(int signal, void (*handler)(int)) {
    struct sigaction action {};
    action.sa_handler = handler;
    sigemptyset(&action.sa_mask);
    sigaction(signal, &action, nullptr);
}

bool is_ignored(int signal) {
    struct sigaction action {};
    sigaction(signal, nullptr, &action);
    return action.sa_handler == SIG_IGN;
}

}  // namespace

Terminal terminal() {
    if (isatty(STDOUT_FILENO) == 0) return {};
    winsize size{};
    if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0) return {.is_terminal = true};
    return {.is_terminal = true, .columns = size.ws_col, .rows = size.ws_row};
}

bool has_colors() {
    const char* const kind = std::getenv("TERM");
    return isatty(STDOUT_FILENO) != 0 && kind && std::strcmp(kind, "dumb") != 0;
}

void prepare() {
    pipe_was_ignored = is_ignored(SIGPIPE);
    size_limit_was_ignored = is_ignored(SIGXFSZ);
    handle(SIGPIPE, SIG_IGN);
    handle(SIGXFSZ, SIG_IGN);
    // Else the next file that is opened would be taken for it.
    if (fcntl(STDIN_FILENO, F_GETFD) < 0) static_cast<void>(open("/dev/null", O_RDONLY));
}

void catch_stop() {
    if (signal_pipe[0] >= 0) return;
    if (pipe2(signal_pipe.data(), O_CLOEXEC | O_NONBLOCK) != 0) {
        throw Failure(Exit::failed, fmt::format("cannot wait for signals: {}", std::strerror(errno)));
    }
    handle(SIGINT, on_stop);
    handle(SIGTERM, on_stop);
    handle(SIGHUP, on_stop);
    handle(SIGWINCH, on_resize);
}

Wake wait(uint32_t milliseconds, WakeFor also) {
    const uint64_t end = picture::platform::steady_clock_us() + uint64_t{milliseconds} * 1'000;
    // An error of standard output is told unasked.
    std::array<pollfd, 3> sources{
        pollfd{.fd = signal_pipe[0], .events = POLLIN, .revents = 0},
        pollfd{.fd = also.closed_output ? STDOUT_FILENO : -1, .events = 0, .revents = 0},
        pollfd{.fd = also.key ? STDIN_FILENO : -1, .events = POLLIN, .revents = 0},
    };
    for (;;) {
        const uint64_t now = picture::platform::steady_clock_us();
        const int left = now >= end ? 0 : static_cast<int>((end - now + 999) / 1'000);
        const int ready = poll(sources.data(), sources.size(), left);
        if (ready < 0 && errno == EINTR) continue;
        if (ready <= 0) return Wake::timeout;
        char what = 0;
        bool resized = false;
        while (read(signal_pipe[0], &what, 1) == 1) {
            if (what == 's') return Wake::stop;
            resized = true;
        }
        if (sources[1].revents != 0) return Wake::closed_output;
        if (resized) return Wake::resize;
        if (sources[2].revents != 0) return (sources[2].revents & POLLIN) != 0 ? Wake::key : Wake::closed_output;
    }
}

void wait_for_stop(bool or_end_of_input) {
    std::array<pollfd, 2> sources{pollfd{.fd = signal_pipe[0], .events = POLLIN, .revents = 0},
                                  pollfd{.fd = or_end_of_input ? STDIN_FILENO : -1, .events = POLLIN, .revents = 0}};
    char input[512];
    for (;;) {
        if (poll(sources.data(), sources.size(), -1) < 0) continue;
        if (sources[0].revents != 0 && wait(0) == Wake::stop) return;
        if (sources[1].revents != 0 && read(STDIN_FILENO, input, sizeof input) <= 0) return;
    }
}

namespace {

/// The signals that a command begins with.
struct CommandSignals {
    sigset_t defaults, mask;
};

/// What a child of this process becomes. The error of a command that cannot be started goes into the pipe.
[[noreturn]] void become(char* const* arguments, const CommandSignals& signals, pid_t parent, int error_pipe) {
    // The command is told when this process ends, however that happens. A parent that ended before the request was
    // made is not announced any more, so it is looked for after the request.
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    if (getppid() != parent) _exit(128 + SIGTERM);
    for (const int signal : {SIGPIPE, SIGXFSZ, SIGINT, SIGQUIT}) {
        if (sigismember(&signals.defaults, signal) == 1) handle(signal, SIG_DFL);
    }
    sigprocmask(SIG_SETMASK, &signals.mask, nullptr);
    execvp(arguments[0], arguments);
    const int error = errno;
    [[maybe_unused]] const ssize_t written = write(error_pipe, &error, sizeof error);
    _exit(127);
}

/// Starts a command. @return its process; `error` says why there is none
pid_t start(char* const* arguments, const CommandSignals& signals, int& error) {
    std::array<int, 2> error_pipe{-1, -1};
    const pid_t parent = getpid();
    const pid_t child = pipe2(error_pipe.data(), O_CLOEXEC) == 0 ? fork() : -1;
    error = errno;
    if (child == 0) become(arguments, signals, parent, error_pipe[1]);
    if (error_pipe[1] >= 0) close(error_pipe[1]);
    if (child > 0) {
        ssize_t size = 0;
        while ((size = read(error_pipe[0], &error, sizeof error)) < 0 && errno == EINTR) {
        }
        // The pipe closes without a word when the command takes the child's place.
        if (size <= 0) error = 0;
        if (error != 0) waitpid(child, nullptr, 0);
    }
    if (error_pipe[0] >= 0) close(error_pipe[0]);
    return child;
}

}  // namespace

int run(const std::vector<std::string>& command) {
    std::vector<char*> arguments;
    arguments.reserve(command.size() + 1);
    for (const std::string& argument : command) arguments.push_back(const_cast<char*>(argument.c_str()));
    arguments.push_back(nullptr);

    // The command begins with the signals as they were before prepare().
    CommandSignals signals;
    sigemptyset(&signals.defaults);
    if (!pipe_was_ignored) sigaddset(&signals.defaults, SIGPIPE);
    if (!size_limit_was_ignored) sigaddset(&signals.defaults, SIGXFSZ);
    for (const int signal : {SIGINT, SIGQUIT}) {
        if (!is_ignored(signal)) sigaddset(&signals.defaults, signal);
    }
    handle(SIGINT, SIG_IGN);
    handle(SIGQUIT, SIG_IGN);
    sigset_t passed_on;
    sigemptyset(&passed_on);
    sigaddset(&passed_on, SIGTERM);
    sigaddset(&passed_on, SIGHUP);
    // Neither comes between the start of the child and its number.
    sigprocmask(SIG_BLOCK, &passed_on, &signals.mask);
    int error = 0;
    const pid_t child = start(arguments.data(), signals, error);
    if (error == 0) {
        running_child = child;
        for (const int signal : {SIGTERM, SIGHUP}) {
            if (!is_ignored(signal)) handle(signal, pass_on);
        }
    }
    sigprocmask(SIG_SETMASK, &signals.mask, nullptr);
    if (error != 0) {
        throw Failure(Exit::failed, fmt::format("cannot run {}: {}", printable(command[0]), std::strerror(error)));
    }
    // Its number is its own until it has been waited for: no signal is passed on to another process of that number.
    siginfo_t ended{};
    while (waitid(P_PID, static_cast<id_t>(child), &ended, WEXITED | WNOWAIT) < 0 && errno == EINTR) {
    }
    running_child = 0;
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

void notify_service_manager(const std::string& state) {
    service_manager::notify(state.c_str());
}

}  // namespace shmnmctl::session
