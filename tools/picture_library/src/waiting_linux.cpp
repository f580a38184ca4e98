#include <pthread.h>

#include <csignal>
#include <ctime>

#include "waiting.h"

namespace picture_library {
namespace {

sigset_t broken_pipe() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGPIPE);
    return set;
}

}  // namespace

bool sleep_for_ms(uint32_t milliseconds) {
    const timespec time{.tv_sec = milliseconds / 1'000, .tv_nsec = long{milliseconds % 1'000} * 1'000'000};
    return nanosleep(&time, nullptr) == 0;
}

NoBrokenPipeSignal::NoBrokenPipeSignal() {
    const sigset_t set = broken_pipe();
    sigset_t pending, before;
    sigpending(&pending);
    // One that is pending is somebody else's, and then it is blocked already.
    if (sigismember(&pending, SIGPIPE) == 1) return;
    blocks_ = pthread_sigmask(SIG_BLOCK, &set, &before) == 0 && sigismember(&before, SIGPIPE) == 0;
}

NoBrokenPipeSignal::~NoBrokenPipeSignal() {
    if (!blocks_) return;
    const sigset_t set = broken_pipe();
    const timespec at_once{};
    sigtimedwait(&set, nullptr, &at_once);
    pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
}

}  // namespace picture_library
