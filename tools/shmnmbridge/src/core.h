// The bridge without input and output: copies of the region, answers and events of etcd go in, with the time; requests
// and calls of the library come out. The same inputs give the same outputs. docs/bridge-protocol.md explains the rules.
#pragma once

#include <string>
#include <vector>

#include "core_agreed.h"
#include "core_beats.h"
#include "core_feeder.h"
#include "core_mirror.h"
#include "core_peers.h"
#include "core_run.h"

namespace bridge {

/// What can be said of another server.
struct Mark {
    std::string server;
    Freshness freshness = Freshness::unknown;
    int64_t age = -1;           ///< milliseconds since it had the words that the region shows, at most; -1: not known
    uint64_t sequence = 0;      ///< of its words in etcd
    std::string address{};      ///< where its machine's picture is served
    bool is_claimed = false;    ///< a bridge has its name
    bool is_unmatched = false;  ///< this region has no such server
    bool is_duplicate = false;  ///< another server has its priority, so it is not fed
    bool has_other_names = false;  ///< its region has other counts or names
};

struct Marks {
    bool is_connected = false;  ///< what is known of etcd is current
    bool is_running = false;    ///< this machine has claimed its name
    bool is_refused = false;    ///< another machine has it
    bool is_fed = false;        ///< the region is there, laid out as this machine's configuration says
    std::vector<Mark> servers;
    AgreedWords::Counts agreed;
    std::vector<std::string> contested;  ///< words that are left alone
    std::vector<std::string> unmatched;  ///< what exists only elsewhere
};

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

  private:
    void changed(const KeyValue& change, bool by_watch);
    void beat_came(const std::string& server, const BeatValue& beat, int64_t revision, bool by_watch);
    void forgotten();
    void step(Time now);
    void feed(Time now);
    Output finish();

    const Settings settings_;
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
    std::optional<Batch> batch_;   ///< being made
    std::optional<Run::Own> own_;  ///< of the last look
};

}  // namespace bridge
