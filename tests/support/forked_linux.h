// Child processes made by fork(), which run a part of the test, and signs between the processes of a test. child.h has
// children that start as new programs.
#pragma once

#include <sys/types.h>

#include <functional>

namespace test {

/// Waits for the end of a child process. Returns its exit status, 128 + signal if a signal ended it, or -1 if it is not
/// a child of this process. Ignores stops.
int wait_for_end(pid_t process);

/// A child that runs a function. It exits with 1 if a check in it failed. The destructor kills it.
class Forked {
  public:
    /// `namespaces`: CLONE_NEW... flags of what this process passes to unshare() before it forks.
    explicit Forked(const std::function<void()>& body, int namespaces = 0);
    ~Forked() { kill(); }
    Forked(const Forked&) = delete;
    Forked& operator=(const Forked&) = delete;

    pid_t id() const { return pid_; }
    /// As wait_for_end().
    int wait();
    void kill();

  private:
    pid_t pid_ = 0;
    bool ended_ = false;
    int status_ = 0;
};

/// Runs a part of a test in a child and waits for its end. Checks that fail in it fail the test.
void in_fork(const std::function<void()>& body);

/// In a forked child: does nothing until it is killed.
[[noreturn]] void pause_forever();

/// A pipe between the processes of a test: one gives a sign, another waits for it.
class Sign {
  public:
    Sign();
    ~Sign();
    Sign(const Sign&) = delete;
    Sign& operator=(const Sign&) = delete;
    void give();
    void await();

  private:
    int ends_[2];
};

}  // namespace test
