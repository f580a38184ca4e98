// The hb and np tables, for looking up resources: where the records lie, and the state words of each resource for each
// server.
#pragma once

#include "ascending_text.h"
#include "frame.h"
#include "overlapping_rows.h"
#include "region.h"
#include "text.h"

namespace shmnm {

/// A grid of state words: one row per resource, and in it one word per server.
struct Grid {
    uint64_t Layout::*start;  ///< where the grid's area starts
    uint32_t before;          ///< bytes in that area before each row

    /// The rows, each with one word for each of `max_servers` servers.
    Strip rows(const Region& region, int32_t max_servers) const noexcept {
        return {region.layout.*start + before, before + int64_t{sizeof(uint32_t)} * max_servers};
    }
};
/// The network-wide states of the hb resources.
inline constexpr Grid network_states{&Layout::network, 0};

/// Everything that differs between the hb table and the np table.
struct Kind {
    int32_t shmnm_header::*count;  ///< records in use
    int32_t shmnm_header::*limit;  ///< records allowed
    Grid states;                   ///< the rows within the records; the grid starts where the table does
    const Grid* network;           ///< the resources' network-wide rows; null if they have none
    const char* full;              ///< the log message for a full table
};
inline constexpr Kind hb{&shmnm_header::hb_count,
                         &shmnm_header::max_hb,
                         {&Layout::hb, sizeof(shmnm_resource)},
                         &network_states,
                         "hb resource count is over(%d)"};
inline constexpr Kind np{&shmnm_header::np_count,
                         &shmnm_header::max_np,
                         {&Layout::np, sizeof(shmnm_resource)},
                         nullptr,
                         "np resource count is over(%d)"};

/// Where a resource's word for a server lies. For a position before the row it wraps, as addresses do, so callers check
/// it against the view.
inline uint64_t cell_offset(const Strip& rows, int32_t resource, int64_t server) noexcept {
    return rows.at(resource) + sizeof(uint32_t) * static_cast<uint64_t>(server);
}

/// The first of these records at or after a position that has this type (null: any type) and name.
Found<shmnm_resource> find_resource_from(const Region& region, Table<shmnm_resource> records, int32_t position,
                                         const char* type, const char* name) noexcept;

/// The first of these records with this type (null: any type) and name, searched inside the caller. Names are compared
/// first because they differ more often.
[[gnu::always_inline]] inline Found<shmnm_resource> find_resource_inline(const Region& region,
                                                                         const Table<shmnm_resource>& records,
                                                                         const char* type, const char* name) noexcept {
    const TextKey key(name);
    const auto may_match = [&](const shmnm_resource& resource) { return key.may_equal(resource.name); };
    const auto matches = [&](const shmnm_resource& resource) __attribute__((always_inline)) {
        return key.equals_around(resource.name, region.end()) &&
               (!type || holds_text(resource.type, region.end(), type));
    };
    const auto later = [&](int32_t next) { return find_resource_from(region, records, next, type, name); };
    return records.first(may_match, matches, later);
}
/// The same, for callers that can afford an extra call.
inline Found<shmnm_resource> find_resource(const Region& region, const Table<shmnm_resource>& records, const char* type,
                                           const char* name) noexcept {
    return find_resource_inline(region, records, type, name);
}

/// The resources of a table, with the count and the spacing that the header has at this moment.
struct Resources {
    Resources(const Region& mapping, const Kind& table) noexcept
        : region(mapping),
          kind(table),
          max_servers(load(mapping.header().max_servers)),
          count(load(mapping.header().*kind.count)),
          strip{mapping.layout.*kind.states.start, kind.states.rows(mapping, max_servers).step},
          records(mapping, strip, count) {}

    Found<shmnm_resource> find(const char* type, const char* name) const noexcept {
        return find_resource(region, records, type, name);
    }
    [[gnu::always_inline]] Found<shmnm_resource> find_inline(const char* type, const char* name) const noexcept {
        return find_resource_inline(region, records, type, name);
    }
    Strip rows(const Grid& grid) const noexcept { return grid.rows(region, max_servers); }

    const Region& region;
    const Kind& kind;
    int32_t max_servers;
    int32_t count;                  ///< as in the header
    Strip strip;                    ///< the records, each with its row
    Table<shmnm_resource> records;  ///< those of them in the view
};

/// The rows of state words that each resource has: one within its record and, for hb, one in the network-wide grid.
class StateRows {
  public:
    explicit StateRows(const Resources& resources) noexcept : region_(resources.region) {
        strips_[count_++] = resources.rows(resources.kind.states);
        if (resources.kind.network) strips_[count_++] = resources.rows(*resources.kind.network);
    }

    /// Whether a resource's words for the servers from position `first` to `last` lie in the view. Only then may open()
    /// and copy() be called for them.
    bool hold(int32_t resource, int64_t first, int64_t last) const noexcept {
        const uint64_t size = last < first ? 0 : sizeof(uint32_t) * static_cast<uint64_t>(last - first + 1);
        for (size_t i = 0; i < count_; ++i) {
            if (size > 0 && !region_.holds(offset(i, resource, first), size)) return false;
        }
        return true;
    }
    void open(int32_t resource, int64_t server) const noexcept {
        for (size_t i = 0; i < count_; ++i) store(*region_.word(offset(i, resource, server)), opened_state);
    }
    void copy(int32_t resource, int64_t to, int64_t from) const noexcept {
        for (size_t i = 0; i < count_; ++i) {
            store(*region_.word(offset(i, resource, to)), load(*region_.word(offset(i, resource, from))));
        }
    }
    /// Where the words for a server lie, counted in words from the region's start.
    WordGrids from(int64_t server) const noexcept {
        WordGrids grids{.count = count_};
        for (size_t i = 0; i < count_; ++i) {
            constexpr int64_t size = sizeof(uint32_t);
            grids.rows[i] = {static_cast<int64_t>(offset(i, 0, server)) / size, strips_[i].step / size};
        }
        return grids;
    }

  private:
    uint64_t offset(size_t strip, int32_t resource, int64_t server) const noexcept {
        return cell_offset(strips_[strip], resource, server);
    }

    const Region& region_;
    Strip strips_[2] = {};
    size_t count_ = 0;
};

/// Logs that there is no such resource. @return the result code for that
inline uint32_t not_found(Call call, const char* type, const char* name, int32_t line = __builtin_LINE()) {
    return call.fail(SHMNM_ERR_NOTFOUND, {"type:%s,name:%s not found", line}, type ? type : "-", name);
}

}  // namespace shmnm
