// What a bridge says of the other machines' words in this machine's region. docs/bridge-protocol.md explains the terms.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace bridge {

enum class Freshness : uint32_t {
    unknown,  ///< nothing can be said: this machine is cut off, or has only just heard of the server again
    fresh,    ///< the region shows its words, which it had within the limit
    silent    ///< this machine is connected and the server is not heard
};

/// What can be said of another server.
struct Mark {
    std::string server;  ///< escaped
    Freshness freshness = Freshness::unknown;
    int64_t age = -1;           ///< milliseconds since it had the words that the region shows, at most; -1: not known
    uint64_t sequence = 0;      ///< the revision of its words in etcd, the same for all machines that have them
    std::string address{};      ///< where its machine's picture is served
    bool is_claimed = false;    ///< a bridge has its name
    bool is_unmatched = false;  ///< this region has no such server
    bool is_duplicate = false;  ///< another server has its priority, so it is not fed
    bool has_other_names = false;  ///< its region has other counts or names
    bool has_other_times = false;  ///< its bridge is configured with another window or another time of gathering

    bool operator==(const Mark&) const = default;
};

/// How the proposals of this machine's changes of agreed words ended.
struct ProposalCounts {
    uint64_t proposed = 0, accepted = 0, lost = 0;
    uint64_t replaced = 0;  ///< values of a new region for which etcd's were taken

    bool operator==(const ProposalCounts&) const = default;
};

struct Marks {
    bool is_connected = false;     ///< what is known of etcd is current
    bool is_running = false;       ///< this machine has claimed its name
    bool is_refused = false;       ///< another machine has it
    bool is_fed = false;           ///< the region is there, laid out as this machine's configuration says
    uint64_t longest_hold_us = 0;  ///< for which the bridge has held the region's lock
    int64_t limit = 0;             ///< milliseconds; a server is not fresh at this age; 0: not known
    std::string server{};          ///< this machine's own, escaped
    std::string cluster{};
    std::string member{};  ///< the address of etcd to which requests are sent
    std::vector<Mark> servers{};
    ProposalCounts agreed{};
    std::vector<std::string> contested{};  ///< words that are left alone
    std::vector<std::string> unmatched{};  ///< what exists only elsewhere

    bool operator==(const Marks&) const = default;
};

}  // namespace bridge
