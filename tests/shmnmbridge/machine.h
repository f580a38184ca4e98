// A machine of the simulation: its region, its bridge, and what is wrong with it at the moment.
#pragma once

#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <set>
#include <string>

#include "core.h"
#include "shmnmbridge/model_region.h"

namespace bridge::test {

/// Before everything.
inline constexpr Time never = -1'000'000;

/// When each trouble ends.
struct Troubles {
    Time cut_to = 0, cut_from = 0, cut_both = 0, slow = 0, lose_answers = 0, lose_large = 0, reorder = 0,
         lose_token = 0, hold_lock = 0, busy_lock = 0, stop = 0, down = 0, no_region = 0, no_servers = 0,
         other_counts = 0;
};

/// The watch, as the network sees it.
struct Stream {
    uint64_t id = 0;
    bool is_open = false;
    bool is_dead = false;  ///< brings nothing any more
    bool loses_event = false;
    Time last = 0;  ///< the latest delivery
    std::map<std::string, Time> last_of_key;
};

struct Machine {
    size_t id = 0;      ///< of the machine
    size_t number = 0;  ///< of the server that it is
    bool is_intruder = false;
    bool was_intruded = false;  ///< another machine had its name
    std::string server, host, process;
    bool is_windows = false;
    std::mt19937_64 network, writer;

    std::optional<ModelRegion> region;
    uint64_t generation = 0;  ///< of the region
    picture::Counts configured;

    std::unique_ptr<Core> core;
    uint64_t life = 0;  ///< of the bridge's process: what was for an earlier one is dropped
    std::optional<Batch> batch;
    std::optional<Look> looked;        ///< what the core saw last
    std::map<uint64_t, bool> pending;  ///< requests without an answer; whether each reads all keys
    Stream stream;
    std::deque<std::function<void()>> inbox;  ///< of a stopped bridge
    Troubles until;

    // For the invariants.
    Time looked_at = never;                  ///< the last look that found the own server
    Time read_at = never;                    ///< when etcd last told it of changes
    Time told_at = never;                    ///< its newest beat in etcd proves this date, and no later one
    Time proved_at = never;                  ///< when the first beat landed that proves a date after its last trouble
    std::map<int64_t, Time> beats;           ///< by the revision: when this process looked for the beat
    Time echoed_at = never;                  ///< the same of the newest beat that its watch has brought back
    Time unhealthy_at = 0;                   ///< when something was wrong last
    Time ended_at = -1;                      ///< the clean end
    std::map<std::string, Time> own_since;   ///< own words that are not a new record's, and since when
    std::map<std::string, uint32_t> newest;  ///< by the word: its owner's last value that was set here
    std::set<std::string> silenced;          ///< servers that the batch shows as silent
    std::map<std::string, Time> silent_since;
    std::map<std::string, Time> unfed_at;  ///< while this machine is cut off: when a server could not be fed last
    std::map<std::string, int64_t> agreed_revision;  ///< of etcd's values that were set here
    std::map<std::string, std::deque<Time>> losses;  ///< by the word
    std::set<std::string> fed;                       ///< servers whose words this bridge has set here
    std::set<std::string> overwritten;               ///< foreign words that a local process set after that
    std::set<std::string> ever_overwritten;
    std::set<std::string> overwritten_before;  ///< the last look
    std::set<std::string> made;                ///< words that were set here since the last look
    bool has_lost_records = false;             ///< a proposal may have been open for one of them
    std::map<std::string, uint64_t> lost;      ///< by the word: how many losses
    std::set<std::string> local;               ///< agreed words that it keeps to itself
    Time started_at = 0;                       ///< its bridge
    Time checked_at = never;                   ///< its marks
    Time cut_off_since = 0;                    ///< by its own account; -1: it is connected

    bool is_stopped(Time now) const { return now < until.stop; }
    bool has_own_server() const { return region && region->look().find_server(server); }
};

}  // namespace bridge::test
