/* Preloaded into wine's server: gives programs the time to end, and keeps the server alive when a program is killed.
 *
 * The server kills a process that is still there about a second after its last thread has ended. On a busy machine an
 * orderly end can take longer, and whoever waits for the program then sees signal 9 instead of its exit code. So the
 * server's SIGKILL is late, and is not sent at all if the process has ended by then.
 *
 * The server of wine 8 uses objects after it has freed them when a program is killed during input or output, and dies
 * of it sooner or later. Then every program has lost its server: some end at once, some hang. There are two such
 * errors:
 *   - It tries to wake up a thread whose process is gone, and then ends that thread at once, with all its objects,
 *     although its caller still uses some of them. Here the attempt seems to succeed, and the server ends the thread
 *     when it sees the end of the thread's pipe.
 *   - A program closes a socket before all was sent, and is killed. The server then releases the other operations of
 *     the socket twice. Here a freed block stays as it is for a while, with other users, so the second release is
 *     harmless.
 */
#define _GNU_SOURCE
#include <errno.h>
#include <malloc.h>
#include <poll.h>
#include <signal.h>
#include <stddef.h>
#include <sys/syscall.h>
#include <unistd.h>

enum {
    PATIENCE_MS = 20000,
    FREED_BLOCKS = 1 << 16,     /* more than the end of a program with thousands of sockets frees */
    LARGEST_FREED_BLOCK = 1024, /* objects are smaller */
    OTHER_USERS = 1 << 30
};

extern void __libc_free(void* block);

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

ssize_t write(int descriptor, const void* data, size_t size) {
    ssize_t written = syscall(SYS_write, descriptor, data, size);
    return written < 0 && errno == EPIPE ? (ssize_t)size : written;
}

void free(void* block) {
    static void* freed[FREED_BLOCKS];
    static size_t next;
    if (block == NULL || malloc_usable_size(block) > LARGEST_FREED_BLOCK) {
        __libc_free(block);
        return;
    }
    /* Every object begins with the number of its users. */
    *(unsigned*)block = OTHER_USERS;
    __libc_free(freed[next]);
    freed[next] = block;
    next = (next + 1) % FREED_BLOCKS;
}
