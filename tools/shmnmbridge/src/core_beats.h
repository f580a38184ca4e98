// How old a beat is, without comparing clocks. Each beat says which revision its sender had seen. If that is at or
// after the revision of a beat of this machine, the sender looked at its words after this machine had sent that beat;
// and when it was sent, this machine's own clock knows. Late writes, late streams and late reads cannot make a beat
// younger.
#pragma once

#include <cstdint>
#include <deque>
#include <optional>

#include "core_settings.h"

namespace bridge {

class OwnBeats {
  public:
    explicit OwnBeats(const Settings& settings) : settings_(settings) {}

    void sent(uint64_t number, Time now);
    /// An own beat is in etcd. @param[in] echo  it came through the watch, which therefore works
    void landed(uint64_t number, int64_t revision, bool echo, Time now);
    /// Another etcd: the known revisions say nothing.
    void forget();

    /// When a machine looked that had seen this revision: this time or later; nothing if that is not known.
    std::optional<Time> date_of(int64_t seen) const;

    /// Whether an own beat came back that was sent within the limit.
    bool has_echo(Time now) const { return echoed_ && now - *echoed_ < settings_.limit(); }
    /// When the watch last brought an own beat.
    std::optional<Time> echo_arrived() const { return echo_arrived_; }
    /// When the first one was sent to this etcd.
    std::optional<Time> first() const { return first_; }
    /// How many own beats came back that were sent at a time or later. Those that came back at once, because etcd had
    /// stood still, count as one.
    int came_back(Time sent_at, Time apart) const;

  private:
    struct Beat {
        uint64_t number;
        Time sent;
        int64_t revision;               ///< 0: not seen in etcd
        std::optional<Time> came_back;  ///< through the watch
    };

    const Settings& settings_;
    std::deque<Beat> beats_;
    std::optional<Time> first_, echoed_, echo_arrived_;
};

}  // namespace bridge
