// The bridge without input and output: copies of the region, answers and events of etcd go in, with the time; requests
// and calls of the library come out. The same inputs give the same outputs. docs/bridge-protocol.md explains the rules.
#pragma once

#include <string>
#include <vector>

#include "bridge_marks/marks.h"
#include "core_agreed.h"
#include "core_beats.h"
#include "core_feeder.h"
#include "core_mirror.h"
#include "core_peers.h"
#include "core_run.h"

namespace bridge {

class Core {
  public:
    explicit Core(Settings settings, const Rules& rules = {});
    Core(const Core&) = delete;
    Core& operator=(const Core&) = delete;

    /// A copy of the region, handed over right after it was taken; null: there is no region. Called each 50 ms. The
    /// batch that it may ask for is made, and batch_done() called, before the next look.
    Output look(Time now, const Look* look);
    /// The region could not be copied in time.
    Output look_failed(Time now);
    Output answer(Time now, const Answer& answer);
    Output events(Time now, const Events& events);
    Output watch_ended(Time now, const WatchEnded& ended);
    Output batch_done(Time now, const BatchDone& done);
    /// The clean end. Looks and answers change nothing after it.
    Output end(Time now);

    Freshness freshness_of(std::string_view server, Time now) const;
    Marks marks(Time now) const;
    bool is_connected_at(Time now) const;
    const AgreedWords& agreed() const { return agreed_; }
    const Feeder& feeder() const { return feeder_; }
    /// How many keys, servers and words are kept.
    size_t kept() const { return mirror_.kept() + peers_.size() + agreed_.kept(); }

  private:
    void changed(const KeyValue& change, bool by_watch);
    void beat_came(const std::string& server, const BeatValue& beat, int64_t revision, bool by_watch);
    void forgotten();
    /// Each server of the region has a peer: one that etcd knows nothing of is silent.
    void enter_peers();
    /// All keys were read: what no key and no record of the region stands for is dropped.
    void drop_unused();
    void follow_claims();
    bool has_other_times(const Peer& peer) const;
    void tell_of_times(const std::string& server, const Times& theirs);
    void step(Time now);
    void feed(Time now);
    Output finish();

    Settings settings_;
    const Time least_gather_;
    const Rules rules_;
    Keys keys_;
    Outbox outbox_;
    OwnBeats beats_;
    Run run_;
    AgreedWords agreed_;
    Feeder feeder_;
    Mirror mirror_;
    Peers peers_;
    Time now_ = 0;
    std::optional<Time> not_cut_off_until_;  ///< after a start a machine has time to connect
    std::optional<Batch> batch_;             ///< being made
    std::optional<Run::Own> own_;            ///< of the last look
};

}  // namespace bridge
