// What is one a process: the lock over its tables, and who this process and thread are. A child made by fork() starts
// with the lock free, whatever other threads of its parent did meanwhile, and is somebody else.
#pragma once

#include <cstdint>

namespace kzmkernel {

/// Holds the lock over the process's tables. The thread cannot be cancelled meanwhile.
class ProcessLock {
  public:
    ProcessLock() noexcept;
    ~ProcessLock();
    ProcessLock(const ProcessLock&) = delete;
    ProcessLock& operator=(const ProcessLock&) = delete;

  private:
    int old_cancel_state_ = 0;
};

struct Thread {
    uint32_t process, thread;  ///< ids
    uint64_t tag;              ///< tells threads apart that have the same ids one after the other; never 0
};

/// The calling thread.
const Thread& this_thread() noexcept;

/// The inode of this process's process-id namespace; 0 when it cannot be told.
uint64_t process_id_namespace() noexcept;

}  // namespace kzmkernel
