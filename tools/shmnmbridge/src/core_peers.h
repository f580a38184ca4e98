// What is known of the other servers, and which of them are fresh, silent or unknown.
#pragma once

#include <deque>
#include <map>
#include <optional>
#include <string>

#include "bridge_marks/marks.h"
#include "core_beats.h"
#include "core_keys.h"
#include "core_messages.h"
#include "core_rules.h"
#include "core_settings.h"

namespace bridge {

class Peer {
  public:
    void claim_changed(const KeyValue& change);
    void state_changed(const KeyValue& change);
    /// @param[in] date  when its sender looked at its words, at the earliest
    void beat_came(const BeatValue& beat, Time date, Time limit, Time now);

    const std::optional<ClaimValue>& claim() const { return claim_; }
    const std::optional<StateValue>& state() const { return state_; }
    int64_t state_revision() const { return state_revision_; }
    /// The region is about to show the state.
    void set_applied();
    /// It does, or the calls for it were not made.
    void applied(bool made);
    void set_not_shown() { shown_run_.clear(); }

    /// Whether a beat of the claimed run was heard.
    bool is_heard(Time now, Time limit, const Rules& rules) const;
    /// Of the newest beat of the claimed run.
    std::optional<Time> heard_at(const Rules& rules) const;
    /// The newest beat whose words the region shows: when its sender had them.
    std::optional<Time> shown_since(const Rules& rules) const;
    Freshness freshness(Time now, const Settings& settings, const OwnBeats& own, bool connected,
                        const Rules& rules) const;

  private:
    struct Beat {
        std::string run;
        uint64_t sequence;
        Time date;
    };
    bool is_of_claim(const Beat& beat, const Rules& rules) const;

    std::optional<ClaimValue> claim_;
    std::optional<StateValue> state_;
    int64_t state_revision_ = 0;
    std::deque<Beat> beats_;  ///< of the last limit; of several that say the same, the newest date
    std::string shown_run_;
    uint64_t shown_sequence_ = 0;
    std::optional<std::string> applied_run_;  ///< of the state that a batch makes the region show
    uint64_t applied_sequence_ = 0;
};

/// By the server's name. A server is here from the first key on that was known of it.
using Peers = std::map<std::string, Peer, std::less<>>;

}  // namespace bridge
