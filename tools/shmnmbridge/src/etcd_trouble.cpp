#include "etcd_trouble.h"

#include <fmt/format.h>

namespace bridge {

std::string EtcdTrouble::step(Time now, const Outcomes& outcomes) {
    if (outcomes.failed != failed_) {
        const bool begins = !began_;
        if (begins) {
            began_ = now;
            failed_before_ = failed_;
        }
        failed_at_ = now;
        failed_ = outcomes.failed;
        answered_ = outcomes.answered;
        return begins ? "etcd failed to answer: " + outcomes.last_failure : "";
    }
    if (!began_ || outcomes.answered == answered_ || now - failed_at_ < calm_) return "";
    constexpr double ms_per_s = 1'000;
    const double seconds = static_cast<double>(failed_at_ - *began_) / ms_per_s;
    began_.reset();
    return fmt::format("etcd answers again; requests that failed: {} within {:.1f} s, the last one because: {}",
                       failed_ - failed_before_, seconds, outcomes.last_failure);
}

}  // namespace bridge
