// The thread that looks at the region: at most once in 50 ms, whatever clients do. Each copy is compared in full with
// the one before, because a cluster process may change words without taking the lock.
#pragma once

#include <atomic>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>

#include "look.h"
#include "source.h"

namespace shmnmweb {

class Sampler {
  public:
    using Tell = std::function<void(std::shared_ptr<const Look>)>;

    /// @param[in] last  the newest look
    /// @param[in] tell  receives each look, on the sampler's thread
    Sampler(std::unique_ptr<Source> source, Look last, Tell tell);
    ~Sampler();
    Sampler(const Sampler&) = delete;
    Sampler& operator=(const Sampler&) = delete;

    /// For any thread: the next look copies all bytes.
    void ask_for_all() { all_asked_ = true; }

  private:
    void run();

    std::unique_ptr<Source> source_;
    Tell tell_;
    Look last_;
    uint64_t looks_ = 0;
    std::mutex mutex_;
    std::condition_variable stop_asked_;
    bool stopping_ = false;
    std::atomic<bool> all_asked_ = false;
    std::thread thread_;
};

/// A look, after one that is now the newest.
/// @param[in] wanted  what it copies: what pictures are decoded from, or all bytes, which are searched for damage
Look look_at(Source& source, const Look& last, picture::Bytes wanted);

}  // namespace shmnmweb
