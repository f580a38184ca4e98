#include "core_beats.h"

#include <algorithm>

namespace bridge {

void OwnBeats::sent(uint64_t number, Time now) {
    while (!beats_.empty() && now - beats_.front().sent > 2 * settings_.limit()) beats_.pop_front();
    if (!first_) first_ = now;
    beats_.push_back({number, now, 0, std::nullopt});
}

void OwnBeats::landed(uint64_t number, int64_t revision, bool echo, Time now) {
    const auto beat =
        std::find_if(beats_.begin(), beats_.end(), [number](const Beat& each) { return each.number == number; });
    if (beat == beats_.end()) return;
    beat->revision = revision;
    if (!echo) return;
    echoed_ = std::max(echoed_.value_or(beat->sent), beat->sent);
    if (!beat->came_back) beat->came_back = now;
    echo_arrived_ = now;
}

void OwnBeats::forget() {
    beats_.clear();
    first_.reset();
    echoed_.reset();
}

std::optional<Time> OwnBeats::date_of(int64_t seen) const {
    // A beat that was resent may land before the earlier one, so the order of revisions is not that of the sends.
    const auto newest = std::find_if(beats_.rbegin(), beats_.rend(),
                                     [seen](const Beat& beat) { return beat.revision != 0 && beat.revision <= seen; });
    return newest == beats_.rend() ? std::nullopt : std::optional(newest->sent);
}

int OwnBeats::came_back(Time sent_at, Time apart) const {
    int count = 0;
    std::optional<Time> last;
    for (const Beat& beat : beats_) {
        if (beat.sent < sent_at || !beat.came_back || (last && *beat.came_back - *last < apart)) continue;
        last = beat.came_back;
        ++count;
    }
    return count;
}

}  // namespace bridge
