// Processes and threads that sleep inside a system call, usually in a futex, as soon as they are constructed.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <functional>
#include <thread>

#include "support/traced_linux.h"

namespace test {

/// Returns when a thread sleeps inside the system call of this number.
void wait_until_asleep_in(long system_call, pid_t process, pid_t thread);
/// The same for the first thread of a process.
void wait_until_asleep_in(long system_call, pid_t process);

/// A traced process whose body sleeps in a futex.
class SleepingProcess : public Traced {
  public:
    explicit SleepingProcess(const std::function<void()>& body);
};

/// A thread whose body sleeps in a futex.
class SleepingThread {
  public:
    explicit SleepingThread(const std::function<void()>& body);
    ~SleepingThread();
    SleepingThread(const SleepingThread&) = delete;
    SleepingThread& operator=(const SleepingThread&) = delete;

    void join() { thread_.join(); }

  private:
    std::atomic<pid_t> id_{0};
    std::thread thread_;
};

}  // namespace test
