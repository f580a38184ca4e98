// Searches a copy of a region for what a healthy region never shows. docs/verify.md lists the findings, and also what
// normal use leaves in the region, which is not a finding.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "picture/snapshot.h"

namespace picture {

struct Finding {
    uint64_t offset = 0;            ///< of the first wrong byte, in the region
    std::string key;                ///< the place in words: "servers/alpha/name", "hb[5]"; escaped
    std::string expected, found;    ///< contain no text of the region
    bool can_be_completed = false;  ///< it is an interrupted change that repair() completes

    bool operator==(const Finding&) const = default;
};

/// What is found where a name or type is empty.
inline constexpr const char* empty_text = "an empty one";

/// All findings, by offset. If the header's maxima differ from those that the region was laid out by, the places of
/// most areas are unknown: only the header and the certain part of the server table are then checked.
std::vector<Finding> findings(const Snapshot& snapshot);

}  // namespace picture
