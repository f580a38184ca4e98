// What a healthy region never shows, looked for in a copy of a region. docs/verify.md lists it, and also what healthy
// use leaves in the region, which is not a finding.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "picture/snapshot.h"

namespace picture {

struct Finding {
    uint64_t offset = 0;            ///< of the first wrong byte, in the region
    std::string key;                ///< the place, readable: "servers/alpha/name", "hb[5]"; escaped
    std::string expected, found;    ///< free of the region's own text
    bool can_be_completed = false;  ///< it is an interrupted change that repair() completes

    bool operator==(const Finding&) const = default;
};

/// All findings, by offset. Where the maxima are not those of the mapped layout nobody knows where the areas start:
/// then the header and what is certain of the server table are looked at, nothing else.
std::vector<Finding> findings(const Snapshot& snapshot);

}  // namespace picture
