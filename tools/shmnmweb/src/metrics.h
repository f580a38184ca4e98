// The picture as metrics for Prometheus.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "look.h"
#include "names.h"

namespace shmnmweb {

/// Groups of metrics that a scrape may choose by collect[].
inline constexpr std::array<std::string_view, 8> metric_groups{"region", "cluster", "servers", "resources",
                                                               "pairs",  "lock",    "states",  "bridge"};

/// Scrapes that got no picture, since this server started, by the reason.
struct ScrapeFailures {
    uint64_t no_region = 0, lock_timeout = 0, refused = 0;
};

struct Scrape {
    const Look* look = nullptr;       ///< never null
    bool is_up = false;               ///< the look's content is shown
    const Names* names = nullptr;     ///< never null
    uint64_t replacements = 0;        ///< of the region
    ScrapeFailures failures;          ///< with this scrape
    std::vector<std::string> groups;  ///< empty: all
    bool is_open_metrics = false;     ///< else the text format 0.0.4
};

std::string to_metrics(const Scrape& scrape);

}  // namespace shmnmweb
