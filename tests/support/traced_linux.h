// Runs a forked child from one system call to the next, sees the calls and makes them fail. Linux on x86-64.
// stepper_linux.h runs children instruction by instruction.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <vector>

#include "support/forked_linux.h"

namespace test {

/// The child is stopped before its function starts.
class Traced {
  public:
    explicit Traced(const std::function<void()>& body);

    /// Lets it run until it enters or leaves a system call.
    void go();
    /// Waits until it stops there; false if it ended.
    bool stands();
    /// Both.
    bool step();
    /// The system call that it enters: its number and arguments; nothing if it is not entering one.
    std::vector<uint64_t> entered() const;
    /// What the system call that it leaves returned.
    int64_t left() const;
    /// Throws if it ends without that call.
    void run_until_it_enters(uint64_t number);
    /// 8 bytes of its memory.
    uint64_t word_at(uint64_t address) const;
    /// Where it enters a system call: makes the call fail instead.
    void fail_call(int error);

    pid_t id() const { return child_.id(); }
    void kill() { child_.kill(); }
    /// The status of a child that ended, as waitpid() returns it.
    int status() const { return status_; }

  private:
    Forked child_;
    int status_ = 0;
};

}  // namespace test
