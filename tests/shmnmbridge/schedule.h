// A schedule: some machines, and what happens to them and to etcd. It is made from a seed or written by hand, printed
// as a list that people can read, and shrunk.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "core_words.h"

namespace bridge::test {

enum class What {
    // The bridge's process. `lasts`: until it is started, continued.
    kill,
    stop,
    end,  ///< the clean end
    // The machine's network.
    cut_to,        ///< nothing reaches etcd
    cut_from,      ///< nothing comes back; the watch brings it later
    cut_both,      ///< the watch brings nothing any more, and does not end
    slow,          ///< half of the requests arrive late, many after their time-out
    lose_answers,  ///< half of them
    lose_large,    ///< requests that write a state
    reorder,       ///< events of different keys overtake each other
    lose_event,    ///< the watch does not bring the next change, which etcd excludes
    lose_member,   ///< the watch ends
    lose_token,
    // etcd.
    fail_over,  ///< no leader; shorter than the window
    etcd_down,
    full,
    compact,
    replace_etcd,  ///< by another cluster
    restore_etcd,  ///< by the same cluster as it was at the beginning
    // The region.
    hold_lock,    ///< it can be neither copied nor changed
    busy_lock,    ///< it can be copied but not changed
    new_region,   ///< `lasts`: there is none in between
    clear,        ///< `lasts`: the servers are missing in between
    move_server,  ///< a server is removed and added again, at the end
    remove_server,
    add_resource_again,
    lose_server,      ///< a foreign server, for good
    remove_resource,  ///< for good
    share_priority,   ///< two foreign servers
    other_counts,     ///< in the configuration
    // Local processes.
    set_own,      ///< a word of the own server
    flip_own,     ///< a word of the own server, there and back
    set_agreed,   ///< `word`, by its number
    set_foreign,  ///< a word of another server
    set_type,     ///< the states of a type's resources, on all servers
    set_often,    ///< a word of the own server, more often than it is looked at
    rival,        ///< all machines set one agreed word, again and again
    intruder,     ///< another machine with the same name
};

struct Fault {
    Time at = 0;
    What what = What::kill;
    size_t machine = 0;
    Time lasts = 0;
    uint32_t detail = 0;
};

/// What a machine's creator does at once when it makes a region, instead of later.
struct Creator {
    bool sets_own = false, sets_pair = false;
};

struct Schedule {
    uint64_t seed = 0;  ///< of latencies and local writers
    size_t machines = 2;
    uint32_t windows = 0;   ///< bits: machines whose system tells no object numbers
    bool writes = true;     ///< local processes set words all the time, until the faults end
    bool sets_pair = true;  ///< the creator of a region sets the pair
    Creator creator{};
    Time read_again =
        2'000;  ///< how often a bridge reads everything; more often than a real one, for the sake of late reads
    Time gather = 0;
    bool reset_when_cut_off = false;
    uint32_t local = 0;  ///< bits: words of the header that machine 0 keeps to itself
    std::vector<Fault> faults;
    Time heals = 20'000;  ///< when the last fault ends
    Time ends = 30'000;

    /// What is older is not fresh.
    Time limit() const;
};

Schedule random_schedule(uint64_t seed);
std::string to_text(const Fault& fault);
std::string to_text(const Schedule& schedule);

/// Drops faults and machines for as long as a schedule fails.
Schedule shrunk(Schedule schedule, const std::function<bool(const Schedule&)>& fails);

}  // namespace bridge::test
