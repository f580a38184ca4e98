// A run: one life of this machine's claim, and the writes of its own words. At most one write is on its way. A write
// whose outcome is not known is repeated on the same base, so that it lands at most once.
#pragma once

#include <optional>
#include <string>

#include "core_beats.h"
#include "core_keys.h"
#include "core_outbox.h"
#include "core_rules.h"
#include "core_settings.h"

namespace bridge {

class Run {
  public:
    Run(const Settings& settings, const Rules& rules, const Keys& keys, Outbox& outbox, OwnBeats& beats)
        : settings_(settings),
          times_{settings.window, settings.gather},
          rules_(rules),
          keys_(keys),
          outbox_(outbox),
          beats_(beats) {}

    /// What a copy of the region, just taken, says of the own server.
    struct Own {
        ServerState state;
        std::string digest;

        bool operator==(const Own&) const = default;
    };
    /// @param[in] own     null: no copy was taken, or the region has no such server
    /// @param[in] synced  all keys have been read
    /// @param[in] seen    the newest revision that is known
    void step(Time now, const Own* own, bool synced, int64_t seen);
    /// @return whether the answer was to a request of the run
    bool answer(Time now, const Answer& answer);
    /// The own claim in etcd is another one now.
    void claim_changed(const KeyValue& claim);
    /// Another etcd.
    void forget();
    /// Deletes this machine's keys. Nothing is written after that.
    void end();

    bool is_running() const { return phase_ == Phase::running; }
    bool is_ended() const { return phase_ == Phase::ended; }
    /// Another machine has this machine's name.
    bool is_refused() const { return refused_; }
    /// What this machine claims to be configured with.
    const Times& times() const { return times_; }
    /// What each write compares.
    void add_fence(Transaction& transaction) const;

  private:
    enum class Phase { unclaimed, claiming, running, ended };

    struct Sent {
        uint64_t request = 0;  ///< 0: none is on its way
        std::optional<Own> own;
        uint64_t sequence = 0;
    };

    void keep_lease(Time now);
    void claim(Time now, const Own& own, int64_t seen);
    void write(Time now, const Own* own, int64_t seen);
    void write_beat(Time now, int64_t seen);
    void won(int64_t revision);
    void lose();
    void write_failed(const Answer& answer);
    Put beat_put(Time now, uint64_t sequence, int64_t seen);
    bool may_claim() const;

    const Settings& settings_;
    const Times times_;
    const Rules& rules_;
    const Keys& keys_;
    Outbox& outbox_;
    OwnBeats& beats_;

    Phase phase_ = Phase::unclaimed;
    bool refused_ = false;
    uint64_t runs_ = 0, sequence_ = 0, beat_ = 0;
    std::string run_;  ///< its name

    int64_t known_claim_ = 0;  ///< revision of the claim in etcd; 0: there is none
    std::optional<ClaimValue> known_value_;

    int64_t lease_ = 0;
    uint64_t grant_ = 0, keep_alive_ = 0;
    Time keep_alive_at_ = 0;

    Transaction attempt_;  ///< to claim; repeated as it is
    Sent sent_;
    Time retry_at_ = 0, last_beat_ = 0, last_state_ = 0;
    int64_t claim_revision_ = 0, state_revision_ = 0;
    std::optional<Own> in_etcd_;  ///< the own words there; nothing if that is not known
    uint64_t in_etcd_sequence_ = 0;
};

}  // namespace bridge
