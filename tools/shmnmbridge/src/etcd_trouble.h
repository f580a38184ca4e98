// What is logged of etcd's failures: a line when they begin and a line when they have ended, however many requests fail
// in between.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "core_words.h"

namespace bridge {

/// How requests have ended since the start.
struct Outcomes {
    uint64_t answered = 0, failed = 0;
    std::string last_failure{};
};

class EtcdTrouble {
  public:
    /// @param[in] calm  the trouble has ended if requests are answered, and none fails for so long
    explicit EtcdTrouble(Time calm) : calm_(calm) {}

    /// @return a line for the log; "": nothing has begun or ended
    std::string step(Time now, const Outcomes& outcomes);
    bool is_on() const { return began_.has_value(); }

  private:
    const Time calm_;
    std::optional<Time> began_;
    Time failed_at_ = 0;
    uint64_t failed_ = 0, failed_before_ = 0;
    uint64_t answered_ = 0;  ///< until the last failure
};

}  // namespace bridge
