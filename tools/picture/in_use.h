// Which bytes of a region its counts name: all that a picture shows lies in them. Copies take these bytes alone, and
// the decoder reads no others, whatever a damaged header says.
#pragma once

#include <algorithm>
#include <array>
#include <cstdint>

#include "picture/layout.h"
#include "shmnm.h"

namespace picture {

/// Records that lie at equal distances, each with a row of state words after it or without.
struct RecordsInUse {
    uint64_t start = 0;  ///< the first one's distance from the region's start
    int64_t step = 0;    ///< from one to the next
    int32_t count = 0;   ///< those that lie in the region

    uint64_t at(int32_t position) const {
        return start + static_cast<uint64_t>(position) * static_cast<uint64_t>(step);
    }
};

class InUse {
  public:
    /// @param[in] counts  those that the region was laid out by, as far as can be known
    /// @param[in] size    bytes of the region
    InUse(const shmnm_header& header, const Counts& counts, uint64_t size);

    const Layout layout;
    RecordsInUse servers, fst_pids;
    std::array<RecordsInUse, 2> resources;  ///< in the order of `resource_kinds`
    /// States in the row of an hb or np resource. Of a row at the region's end, fewer may lie in it.
    uint64_t columns = 0;
    bool fst = false;  ///< the fst record is there

    /// Where the row of network-wide states of an hb resource begins; it need not lie in the region.
    uint64_t network_row(int32_t position) const { return network_.at(position); }

    /// Calls visit(offset, bytes) for each piece after the header. Pieces of a damaged region may overlap.
    template <typename Visit>
    void each_piece(const Visit& visit) const {
        if (servers.count > 0) visit(servers.start, sizeof(shmnm_server) * static_cast<uint64_t>(servers.count));
        const uint64_t row = sizeof(uint32_t) * columns;
        for (const RecordsInUse& table : resources) {
            for (int32_t i = 0; i < table.count; ++i) visit_clipped(table.at(i), sizeof(shmnm_resource) + row, visit);
        }
        if (fst) visit(layout.fst, uint64_t{sizeof(shmnm_resource)});
        if (fst_pids.count > 0) visit(fst_pids.start, sizeof(shmnm_fst_pid) * static_cast<uint64_t>(fst_pids.count));
        for (int32_t i = 0; i < network_.count && columns > 0; ++i) visit_clipped(network_row(i), row, visit);
    }

  private:
    template <typename Visit>
    void visit_clipped(uint64_t offset, uint64_t bytes, const Visit& visit) const {
        if (offset < size_) visit(offset, std::min(bytes, size_ - offset));
    }

    RecordsInUse network_;
    uint64_t size_;
};

}  // namespace picture
