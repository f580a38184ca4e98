// Runs a schedule on a virtual clock: the cores of some machines, their regions and local processes, a network that
// loses and delays, and etcd. At every step the invariants of docs/bridge-protocol.md are checked.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "core_rules.h"
#include "shmnmbridge/schedule.h"

namespace bridge::test {

struct Result {
    std::vector<std::string> violations;  ///< the first few: "at 1234 ms: invariant 3: ..."
    uint64_t trace = 0;                   ///< a digest of everything that the cores gave out
    uint64_t looks = 0, requests = 0, calls = 0, proposals = 0;
};

/// @param[in] tell  prints what happens
Result run(const Schedule& schedule, const Rules& rules = {}, bool tell = false);

}  // namespace bridge::test
