// This machine's region, as the core sees it: looks at it, and batches of calls on it.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "core_messages.h"
#include "picture/live.h"

namespace bridge {

class Region {
  public:
    Region();

    struct Seen {
        std::shared_ptr<const Look> look;  ///< null: there is no region, or it was not copied
        bool failed = false;               ///< it could not be copied in time
        std::string problem{};             ///< why it was not copied, for the log
    };
    /// Copies the region. Waits at most 100 ms for its lock.
    Seen look();

    struct Made {
        BatchDone done;
        std::string problem{};  ///< why no call was made, or which call failed; for the log
    };
    /// Makes the calls of a batch under one hold of the region's lock, for which it waits at most 200 ms. Whatever
    /// allocates, opens or logs is done before the lock is taken.
    Made make(const Batch& batch);

    /// For how long a look or a batch has held the region's lock, at most.
    uint64_t longest_hold_us() const { return longest_hold_us_; }

  private:
    picture::LiveRegion region_;
    std::optional<picture::Snapshot> last_;
    std::shared_ptr<const Look> look_;
    uint64_t longest_hold_us_ = 0;
};

}  // namespace bridge
