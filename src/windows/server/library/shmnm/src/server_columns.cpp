// The opening and closing of a server's column in every resource's row of states, so that column and server position
// stay the same number when servers come and go.
#include "server_columns.h"

#include <algorithm>

#include "frame.h"
#include "overlapping_rows.h"

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

/// A change of a column: by steps, or at once for all rows that lie over one another.
struct Way {
    NotedCall hb_call, np_call;
    void (*steps)(const Resources& resources, int32_t index, int32_t servers, const Progress& progress,
                  Stage from) noexcept;
    decltype(&shift_rows_up) shift;
};
constexpr Way opening{NotedCall::addhbrscsvstat, NotedCall::addnprscsvstat, open_column, shift_rows_up};
constexpr Way closing{NotedCall::rmhbrscsvstat, NotedCall::rmnprscsvstat, close_column, shift_rows_down};

/// Makes it as part of a server's change, or as a change of its own. `width` words of each row move.
uint32_t change_column(const Way& way, const Resources& resources, const StateRows& rows, int32_t index,
                       int32_t servers, int64_t width, const ChangeNote* server) {
    const Region& region = resources.region;
    if (!server) {
        const NotedCall noted = resources.kind.network ? way.hb_call : way.np_call;
        const ChangeNote own(region, index >= 0 && is_regular(region), {.call = noted, .position = index});
        return change_column(way, resources, rows, index, servers, width, &own);
    }
    if (overlap(resources, width)) [[unlikely]] {
        way.shift(region.word(0), rows.from(index), resources.records.count(), width);
    } else {
        way.steps(resources, index, servers, server->progress(), {column_phase(resources.kind)});
    }
    return SHMNM_OK;
}

uint32_t add_column(Call call, const Region& region, const Kind& kind, int32_t index, const ChangeNote* server) {
    const int32_t servers = load(region.header().server_count);
    const Resources resources(region, kind);
    const StateRows rows(resources);
    if (index >= servers || !all_hold(resources, rows, index, std::max<int64_t>(index, int64_t{servers} - 2))) {
        return call.fail(SHMNM_ERR_INDEX, "invalid index(%d)", index);
    }
    return change_column(opening, resources, rows, index, servers, int64_t{servers} - 2 - index, server);
}

uint32_t remove_column(Call call, const Region& region, const Kind& kind, int32_t index, const ChangeNote* server) {
    const int32_t servers = load(region.header().server_count);
    const Resources resources(region, kind);
    const StateRows rows(resources);
    // Deliberately looser than when opening: the count has been lowered already. An index equal to it moves nothing.
    if (index > servers || (index < servers && !all_hold(resources, rows, index, servers))) {
        return call.fail(SHMNM_ERR_INDEX, "invalid index(%d)", index);
    }
    return change_column(closing, resources, rows, index, servers, int64_t{servers} - index, server);
}

uint32_t framed_add(Tag tag, const Kind& kind, int32_t index, const ChangeNote* server) {
    return framed<add_column>(tag, kind, index, server);
}
uint32_t framed_remove(Tag tag, const Kind& kind, int32_t index, const ChangeNote* server) {
    return framed<remove_column>(tag, kind, index, server);
}

constexpr const ChangeNote* own_change = nullptr;

}  // namespace

uint32_t add_hb_column(int32_t index, const ChangeNote& server) {
    return framed_add("_addhbrscsvstat", hb, index, &server);
}
uint32_t add_np_column(int32_t index, const ChangeNote& server) {
    return framed_add("_addnprscsvstat", np, index, &server);
}
uint32_t remove_hb_column(int32_t index, const ChangeNote& server) {
    return framed_remove("_rmhbrscsvstat", hb, index, &server);
}
uint32_t remove_np_column(int32_t index, const ChangeNote& server) {
    return framed_remove("_rmnprscsvstat", np, index, &server);
}

}  // namespace shmnm

using namespace shmnm;

uint32_t shmnm_addhbrscsvstat(int32_t index) {
    return framed_add("_addhbrscsvstat", hb, index, own_change);
}
uint32_t shmnm_addnprscsvstat(int32_t index) {
    return framed_add("_addnprscsvstat", np, index, own_change);
}
uint32_t shmnm_rmhbrscsvstat(int32_t index) {
    return framed_remove("_rmhbrscsvstat", hb, index, own_change);
}
uint32_t shmnm_rmnprscsvstat(int32_t index) {
    return framed_remove("_rmnprscsvstat", np, index, own_change);
}
