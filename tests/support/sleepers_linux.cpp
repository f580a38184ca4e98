#include "support/sleepers_linux.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <string>

#include "support/temporary_folder.h"

namespace test {

void wait_until_asleep_in(long system_call, pid_t process, pid_t thread) {
    const std::string file = "/proc/" + std::to_string(process) + "/task/" + std::to_string(thread) + "/syscall";
    while (contents_of(file).rfind(std::to_string(system_call) + " ", 0) != 0) std::this_thread::yield();
}

void wait_until_asleep_in(long system_call, pid_t process) {
    wait_until_asleep_in(system_call, process, process);
}

SleepingProcess::SleepingProcess(const std::function<void()>& body) : Traced(body) {
    run_until_it_enters(SYS_futex);
    go();
    wait_until_asleep_in(SYS_futex, id());
}

SleepingThread::SleepingThread(const std::function<void()>& body)
    : thread_([this, body] {
          id_ = gettid();
          body();
      }) {
    while (id_ == 0) std::this_thread::yield();
    wait_until_asleep_in(SYS_futex, getpid(), id_);
}

SleepingThread::~SleepingThread() {
    if (thread_.joinable()) thread_.join();
}

}  // namespace test
