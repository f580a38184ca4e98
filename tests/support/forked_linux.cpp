#include "support/forked_linux.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>

namespace test {

int wait_for_end(pid_t process) {
    int status = 0;
    do {
        while (waitpid(process, &status, 0) < 0) {
            if (errno != EINTR) return -1;
        }
    } while (WIFSTOPPED(status));
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

Forked::Forked(const std::function<void()>& body, int namespaces) {
    std::fflush(nullptr);
    if (namespaces != 0 && unshare(namespaces) != 0) throw std::runtime_error("unshare");
    pid_ = fork();
    if (pid_ < 0) throw std::runtime_error("fork");
    if (pid_ > 0) return;
    body();
    std::fflush(nullptr);
    _exit(testing::Test::HasFailure());
}

int Forked::wait() {
    if (!ended_) {
        status_ = wait_for_end(pid_);
        ended_ = true;
    }
    return status_;
}

void Forked::kill() {
    if (ended_) return;
    ::kill(pid_, SIGKILL);
    wait();
}

void in_fork(const std::function<void()>& body) {
    Forked child(body);
    EXPECT_EQ(child.wait(), 0);
}

void pause_forever() {
    for (;;) pause();
}

Sign::Sign() {
    if (pipe2(ends_, O_CLOEXEC) != 0) throw std::runtime_error("pipe2");
}

Sign::~Sign() {
    close(ends_[0]);
    close(ends_[1]);
}

void Sign::give() {
    if (write(ends_[1], "!", 1) != 1) std::abort();
}

void Sign::await() {
    char byte = 0;
    ssize_t count = 0;
    do {
        count = read(ends_[0], &byte, 1);
    } while (count < 0 && errno == EINTR);
    if (count != 1) std::abort();
}

}  // namespace test
