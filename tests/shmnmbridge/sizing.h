// How much a healthy cluster of many machines asks of etcd, the network and the processor: cores and a model of etcd on
// a virtual clock.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace bridge::test {

struct Cluster {
    size_t machines = 3, resources = 32;
    double changes = 1;  ///< own words that each machine changes a second
    int64_t lasts = 10'000;
    int64_t gather = 0;  ///< as configured
};

/// Per second, once all machines are connected.
struct Sizing {
    double transactions = 0, keep_alives = 0, states = 0;
    double written = 0;                    ///< bytes
    double received = 0;                   ///< by each watcher: bytes as the gateway sends them
    int64_t median = 0, p99 = 0, max = 0;  ///< ms from a change to its place in another region
    double look = 0, event = 0;            ///< µs of the processor for a look, for the events of a transaction
    double share = 0;                      ///< of a core, for one machine's
    bool all_fresh = true;                 ///< everywhere, at every look
};

Sizing measure(const Cluster& cluster);

/// A row of the table in docs/many-machines.md.
std::string heading();
std::string to_text(const Cluster& cluster, const Sizing& sizing);

}  // namespace bridge::test
