// The opening and closing of a server's column in every resource's row of states, so that column and server position
// stay the same number when servers come and go.
#include <algorithm>

#include "overlapping_rows.h"
#include "resource_table.h"

namespace shmnm {
namespace {

/// Whether the words on the servers from position `first` to `last` lie in the view for every resource. Rows lie at
/// equal distances and their records are in the view, so the first and the last row answer for those between them.
bool all_hold(const Resources& resources, const StateRows& rows, int64_t first, int64_t last) {
    const int32_t count = resources.records.count();
    return count == 0 || (rows.hold(0, first, last) && rows.hold(count - 1, first, last));
}

/// Whether the rows lie over one another: `width` words of each are more in all than the view has.
bool overlap(const Resources& resources, int64_t width) {
    return resources.records.count() * width > static_cast<int64_t>(resources.region.view_size / sizeof(uint32_t));
}

uint32_t open_column(Call call, const Region& region, const Kind& kind, int32_t index) {
    const int64_t servers = load(region.header().server_count);
    const Resources resources(region, kind);
    const StateRows rows(resources);
    if (index >= servers || !all_hold(resources, rows, index, std::max<int64_t>(index, servers - 2))) {
        return call.fail(SHMNM_ERR_INDEX, "invalid index(%d)", index);
    }
    if (const int64_t width = servers - 2 - index; overlap(resources, width)) [[unlikely]] {
        shift_rows_up(region.word(0), rows.from(index), resources.records.count(), width);
        return SHMNM_OK;
    }
    for (int32_t resource = 0; resource < resources.records.count(); ++resource) {
        // Deliberately stops one column short: for an index below the last two, the last word is not written.
        for (int64_t server = servers - 3; server >= index; --server) rows.copy(resource, server + 1, server);
        rows.open(resource, index);
    }
    return SHMNM_OK;
}

uint32_t close_column(Call call, const Region& region, const Kind& kind, int32_t index) {
    const int64_t servers = load(region.header().server_count);
    const Resources resources(region, kind);
    const StateRows rows(resources);
    // Deliberately looser than when opening: the count has been lowered already. An index equal to it moves nothing.
    if (index > servers || (index < servers && !all_hold(resources, rows, index, servers))) {
        return call.fail(SHMNM_ERR_INDEX, "invalid index(%d)", index);
    }
    if (const int64_t width = servers - index; overlap(resources, width)) [[unlikely]] {
        shift_rows_down(region.word(0), rows.from(index), resources.records.count(), width);
        return SHMNM_OK;
    }
    for (int32_t resource = 0; resource < resources.records.count(); ++resource) {
        for (int64_t server = int64_t{index} + 1; server <= servers; ++server) rows.copy(resource, server - 1, server);
    }
    return SHMNM_OK;
}

}  // namespace
}  // namespace shmnm

using namespace shmnm;

uint32_t shmnm_addhbrscsvstat(int32_t index) {
    return framed<open_column>("_addhbrscsvstat", hb, index);
}
uint32_t shmnm_addnprscsvstat(int32_t index) {
    return framed<open_column>("_addnprscsvstat", np, index);
}
uint32_t shmnm_rmhbrscsvstat(int32_t index) {
    return framed<close_column>("_rmhbrscsvstat", hb, index);
}
uint32_t shmnm_rmnprscsvstat(int32_t index) {
    return framed<close_column>("_rmnprscsvstat", np, index);
}
