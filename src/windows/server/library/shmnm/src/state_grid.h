// Sets, gets and lists the words of a grid of states: one word, a resource's row, a server's column. The grids lie
// within the resource records and in the network-wide area. The functions are inlined into each export, so that the
// grid is a constant there.
#pragma once

#include <algorithm>

#include "copy_out.h"
#include "resource_table.h"
#include "server_table.h"

namespace shmnm {

/// A resource's word for a server. Null if either does not exist, or if the word does not lie in the view.
[[gnu::always_inline]] inline uint32_t* find_cell(const Region& region, const Kind& kind, const Grid& grid,
                                                  const char* type, const char* name, int32_t svid) noexcept {
    const auto server = Servers(region).of_priority(svid);
    if (!server) return nullptr;
    const Resources resources(region, kind);
    const auto resource = resources.find_inline(type, name);
    if (!resource) return nullptr;
    const uint64_t offset = cell_offset(resources.rows(grid), resource.position, server.position);
    return region.holds(offset, sizeof(uint32_t)) ? region.word(offset) : nullptr;
}

inline uint32_t cell_not_found(Call call, const char* type, const char* name, int32_t svid,
                               int32_t line = __builtin_LINE()) {
    return call.fail(SHMNM_ERR_NOTFOUND, {"type:%s,name:%s,svid:%d not found", line}, type ? type : "-", name, svid);
}

/// The size of `count` words in bytes, wrapped to the 32 bits that sizes have.
inline uint32_t size_of_words(int32_t count) noexcept {
    return static_cast<uint32_t>(count) * sizeof(uint32_t);
}
/// How many of `count` words fit into a buffer of `size` bytes: a damaged count's own size may have wrapped.
inline int32_t words_within(int32_t count, uint32_t size) noexcept {
    return std::min(count, static_cast<int32_t>(size / sizeof(uint32_t)));
}

/// Sets or gets the word of the first resource with this type (null: any type) and name, for the first server of a
/// priority. If there is no such server, the resource is not looked up.
[[gnu::always_inline]] inline uint32_t set_cell(Call call, const Region& region, const Kind& kind, const Grid& grid,
                                                const char* type, const char* name, int32_t svid, uint32_t stat) {
    if (!name) return call.fail(SHMNM_ERR_PARAM, "invalid param");
    uint32_t* const cell = find_cell(region, kind, grid, type, name, svid);
    if (!cell) return cell_not_found(call, type, name, svid);
    store(*cell, stat);
    return SHMNM_OK;
}

[[gnu::always_inline]] inline uint32_t get_cell(Call call, const Region& region, const Kind& kind, const Grid& grid,
                                                const char* type, const char* name, int32_t svid, uint32_t* stat) {
    if (!name) return call.fail(SHMNM_ERR_PARAM, "invalid param");
    const uint32_t* const cell = find_cell(region, kind, grid, type, name, svid);
    if (!cell) return cell_not_found(call, type, name, svid);
    if (stat) *stat = load(*cell);
    return SHMNM_OK;
}

/// Copies a resource's words for all servers to `buf`, and their size in bytes to `size`.
[[gnu::always_inline]] inline uint32_t list_row(Call call, const Region& region, const Kind& kind, const Grid& grid,
                                                const char* type, const char* name, uint32_t* buf, uint32_t* size) {
    if (!name || !size) return call.fail(SHMNM_ERR_PARAM, "invalid param");
    const int32_t servers = load(region.header().server_count);
    const uint32_t needed = size_of_words(servers);
    if (!buf) {
        *size = needed;
        return SHMNM_OK;
    }
    if (*size < needed) return SHMNM_ERR_BUFFER;
    const int32_t wanted = std::max(words_within(servers, *size), 0);
    const Resources resources(region, kind);
    const auto resource = resources.find_inline(type, name);
    if (!resource) return not_found(call, type, name);

    const uint64_t offset = resources.rows(grid).at(resource.position);
    const uint64_t copied = region.clipped(offset, sizeof(uint32_t) * static_cast<uint64_t>(wanted));
    if (copied > 0) copy_words_out(buf, region.word(offset), copied / sizeof(uint32_t));
    *size = static_cast<uint32_t>(copied);
    return SHMNM_OK;
}

/// Copies the words of all resources for a server to `buf`. Deliberately leaves `size` as it was, unlike list_row().
[[gnu::always_inline]] inline uint32_t list_column(Call call, const Region& region, const Kind& kind, const Grid& grid,
                                                   const char* svname, uint32_t* buf, uint32_t* size) {
    if (!svname || !size) return call.fail(SHMNM_ERR_PARAM, "invalid param");
    const Resources resources(region, kind);
    const uint32_t needed = size_of_words(resources.count);
    if (!buf) {
        *size = needed;
        return SHMNM_OK;
    }
    if (*size < needed) return SHMNM_ERR_BUFFER;
    const auto server = Servers(region).named(svname);
    if (!server) return call.fail(SHMNM_ERR_NOTFOUND, "name:%s not found", svname);

    const Strip rows = resources.rows(grid);
    // Rows within records end with the last record in the view. Network-wide rows end where the view does.
    const int32_t wanted = words_within(grid.before > 0 ? resources.records.count() : resources.count, *size);
    for (int32_t resource = 0; resource < wanted; ++resource) {
        const uint64_t offset = cell_offset(rows, resource, server.position);
        if (!region.holds(offset, sizeof(uint32_t))) break;
        buf[resource] = load(*region.word(offset));
    }
    return SHMNM_OK;
}

}  // namespace shmnm
