/* Preloaded into wine's server: gives programs the time to end.
 *
 * The server kills a process that is still there about a second after its last thread has ended. On a busy machine an
 * orderly end can take longer, and whoever waits for the program then sees signal 9 instead of its exit code. So the
 * server's SIGKILL is late, and is not sent at all if the process has ended by then.
 */
#define _GNU_SOURCE
#include <poll.h>
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

enum { PATIENCE_MS = 20000 };

static int send_signal(pid_t process, int number) {
    return (int)syscall(SYS_kill, process, number);
}

static void kill_late(pid_t process) {
    /* The server's descriptors are its programs' pipes: an open copy here would keep them open. */
    close_range(3, ~0U, 0);
    int descriptor = (int)syscall(SYS_pidfd_open, process, 0);
    struct pollfd ended = {.fd = descriptor, .events = POLLIN};
    if (descriptor >= 0 && poll(&ended, 1, PATIENCE_MS) == 0) {
        syscall(SYS_pidfd_send_signal, descriptor, SIGKILL, (void*)0, 0);
    }
    _exit(0);
}

int kill(pid_t process, int number) {
    if (number != SIGKILL || process <= 0) {
        return send_signal(process, number);
    }
    pid_t child = fork();
    if (child == 0) {
        kill_late(process);
    }
    return child > 0 ? send_signal(process, 0) : send_signal(process, SIGKILL);
}
