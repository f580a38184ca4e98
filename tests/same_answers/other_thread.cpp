#include "same_answers/other_thread.h"

#include <utility>

namespace answers {

uint32_t OtherThread::make(std::function<uint32_t()> call) {
    std::unique_lock lock(mutex_);
    if (!thread_.joinable()) thread_ = std::thread([this] { run(); });
    call_ = std::move(call);
    changed_.notify_all();
    changed_.wait(lock, [&] { return result_.has_value(); });
    return *std::exchange(result_, std::nullopt);
}

void OtherThread::end() {
    if (!thread_.joinable()) return;
    {
        const std::lock_guard lock(mutex_);
        ends_ = true;
    }
    changed_.notify_all();
    thread_.join();
    ends_ = false;
}

void OtherThread::run() {
    std::unique_lock lock(mutex_);
    for (;;) {
        changed_.wait(lock, [&] { return ends_ || call_; });
        if (ends_) return;
        result_ = std::exchange(call_, nullptr)();
        changed_.notify_all();
    }
}

}  // namespace answers
