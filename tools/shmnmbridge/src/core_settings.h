// What a bridge is told at its start.
#pragma once

#include <algorithm>
#include <set>
#include <string>

#include "core_words.h"

namespace bridge {

/// What is to be the same on all machines of a cluster, as it is configured.
struct Times {
    Time window = 0, gather = 0;

    bool operator==(const Times&) const = default;
};

struct Settings {
    std::string cluster = "cluster";
    std::string server;           ///< this machine's, escaped
    std::string host;             ///< which machine claims the name
    std::string process;          ///< unlike that of any other start of a bridge: it names runs and proposals
    std::string address;          ///< where this machine's picture is served; may be empty
    std::set<std::string> local;  ///< agreed words that do not leave this machine: "waitstat", "hb/TYPE/NAME"
    Time window = 3'000;          ///< a failure of etcd that is shorter marks nobody
    Time lease = 10'000;
    Time retry = 200;           ///< after a refused request
    Time read_again = 300'000;  ///< all keys, although nothing is in doubt
    /// Own changes are written so far apart, at least. A larger cluster gathers for longer: 8 ms for each claim.
    Time gather = 0;
    /// While this machine is cut off, the others' states here are set to unknown, as if they were silent.
    bool reset_when_cut_off = false;

    /// A beat carries the state if that has changed, so that gathering for longer than this would change nothing.
    Time beat() const { return std::max(window / 9, gather); }
    /// A beat older than this says nothing. A failure of `window` delays a beat by up to three intervals: until this
    /// machine's beat, until the other machine has seen it, until that machine's next beat.
    Time limit() const { return window + 3 * beat(); }
};

}  // namespace bridge
