// Opens and closes a server's column in every resource's row of states, so that a server's column and its position stay
// the same number when servers are added and removed.
#include "server_columns.h"

#include <algorithm>

#include "frame.h"
#include "overlapping_rows.h"

namespace shmnm {
namespace {

/// Whether every resource's words for the servers from position `first` to `last` lie in the view. Rows lie at equal
/// distances and their records are in the view, so it is enough to check the first and the last row.
bool all_rows_hold(const Resources& resources, const StateRows& rows, int64_t first, int64_t last) {
    const int32_t count = resources.records.count();
    return count == 0 || (rows.hold(0, first, last) && rows.hold(count - 1, first, last));
}

/// Whether the rows overlap: `width` words of each row are, in all, more than the view has.
bool rows_overlap(const Resources& resources, int64_t width) {
    return resources.records.count() * width > static_cast<int64_t>(resources.region.view_size / sizeof(uint32_t));
}

/// How a column is changed: step by step, or at once for all rows if they overlap.
struct ColumnChange {
    NotedCall hb_call, np_call;
    void (*steps)(const Resources& resources, int32_t index, int32_t servers, const Progress& progress,
                  Stage from) noexcept;
    decltype(&shift_rows_up) shift;
};
constexpr ColumnChange opening{NotedCall::addhbrscsvstat, NotedCall::addnprscsvstat, open_column, shift_rows_up};
constexpr ColumnChange closing{NotedCall::rmhbrscsvstat, NotedCall::rmnprscsvstat, close_column, shift_rows_down};

/// Changes a column as part of a server's change or, if `server` is null, as a change of its own. `width` words of each
/// row move.
uint32_t change_column(const ColumnChange& change, const Resources& resources, const StateRows& rows, int32_t index,
                       int32_t servers, int64_t width, const ChangeNote* server) {
    const Region& region = resources.region;
    if (!server) {
        const NotedCall noted = resources.kind.network ? change.hb_call : change.np_call;
        const ChangeNote own(region, index >= 0 && is_regular(region), {.call = noted, .position = index});
        return change_column(change, resources, rows, index, servers, width, &own);
    }
    if (rows_overlap(resources, width)) [[unlikely]] {
        change.shift(region.word(0), rows.from(index), resources.records.count(), width);
    } else {
        change.steps(resources, index, servers, server->progress(), {column_phase(resources.kind)});
    }
    return SHMNM_OK;
}

uint32_t add_column(Call call, const Region& region, const Kind& kind, int32_t index, const ChangeNote* server) {
    const int32_t servers = load(region.header().server_count);
    const Resources resources(region, kind);
    const StateRows rows(resources);
    if (index >= servers || !all_rows_hold(resources, rows, index, std::max<int64_t>(index, int64_t{servers} - 2))) {
        return call.fail(SHMNM_ERR_INDEX, "invalid index(%d)", index);
    }
    return change_column(opening, resources, rows, index, servers, int64_t{servers} - 2 - index, server);
}

uint32_t remove_column(Call call, const Region& region, const Kind& kind, int32_t index, const ChangeNote* server) {
    const int32_t servers = load(region.header().server_count);
    const Resources resources(region, kind);
    const StateRows rows(resources);
    // Deliberately less strict than for opening: the count has already been lowered. An index equal to the count moves
    // nothing.
    if (index > servers || (index < servers && !all_rows_hold(resources, rows, index, servers))) {
        return call.fail(SHMNM_ERR_INDEX, "invalid index(%d)", index);
    }
    return change_column(closing, resources, rows, index, servers, int64_t{servers} - index, server);
}

uint32_t framed_add_column(Tag tag, const Kind& kind, int32_t index, const ChangeNote* server) {
    return framed<add_column>(tag, kind, index, server);
}
uint32_t framed_remove_column(Tag tag, const Kind& kind, int32_t index, const ChangeNote* server) {
    return framed<remove_column>(tag, kind, index, server);
}

constexpr const ChangeNote* own_change = nullptr;

}  // namespace

uint32_t add_hb_column(int32_t index, const ChangeNote& server) {
    return framed_add_column("_addhbrscsvstat", hb, index, &server);
}
uint32_t add_np_column(int32_t index, const ChangeNote& server) {
    return framed_add_column("_addnprscsvstat", np, index, &server);
}
uint32_t remove_hb_column(int32_t index, const ChangeNote& server) {
    return framed_remove_column("_rmhbrscsvstat", hb, index, &server);
}
uint32_t remove_np_column(int32_t index, const ChangeNote& server) {
    return framed_remove_column("_rmnprscsvstat", np, index, &server);
}

}  // namespace shmnm

using namespace shmnm;

uint32_t shmnm_addhbrscsvstat(int32_t index) {
    return framed_add_column("_addhbrscsvstat", hb, index, own_change);
}
uint32_t shmnm_addnprscsvstat(int32_t index) {
    return framed_add_column("_addnprscsvstat", np, index, own_change);
}
uint32_t shmnm_rmhbrscsvstat(int32_t index) {
    return framed_remove_column("_rmhbrscsvstat", hb, index, own_change);
}
uint32_t shmnm_rmnprscsvstat(int32_t index) {
    return framed_remove_column("_rmnprscsvstat", np, index, own_change);
}
