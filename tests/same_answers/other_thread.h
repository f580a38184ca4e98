// A second thread that calls the library when it is told to, and then waits again: calls on the lock depend on the
// thread that makes them, and on its end.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <thread>

namespace answers {

class OtherThread {
  public:
    OtherThread() = default;
    ~OtherThread() { end(); }
    OtherThread(const OtherThread&) = delete;
    OtherThread& operator=(const OtherThread&) = delete;

    /// Makes a call in the thread, which is started if there is none. @return the call's result
    uint32_t make(std::function<uint32_t()> call);
    /// Ends the thread, whatever it holds.
    void end();

  private:
    void run();

    std::thread thread_;
    std::mutex mutex_;
    std::condition_variable changed_;
    std::function<uint32_t()> call_;
    std::optional<uint32_t> result_;
    bool ends_ = false;
};

}  // namespace answers
