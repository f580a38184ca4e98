// The state word of a resource, its state words on each server, and the setting of all states of one type.
#include "change_note.h"
#include "state_grid.h"

namespace shmnm {
namespace {

uint32_t set_resource_state(Call call, const Region& region, const Kind& kind, const char* type, const char* name,
                            uint32_t stat) {
    if (!name) return call.fail(SHMNM_ERR_PARAM, "invalid param");
    const auto resource = Resources(region, kind).find(type, name);
    if (!resource) return not_found(call, type, name);
    store(resource->stat, stat);
    return SHMNM_OK;
}

uint32_t get_resource_state(Call call, const Region& region, const Kind& kind, const char* type, const char* name,
                            uint32_t* stat) {
    if (!name || !stat) return call.fail(SHMNM_ERR_PARAM, "invalid param");
    const auto resource = Resources(region, kind).find(type, name);
    if (!resource) return not_found(call, type, name);
    *stat = load(resource->stat);
    return SHMNM_OK;
}

/// A type to look for in a healthy table, where setting states cannot change a type.
struct HealthyType {
    bool equals(const char* field) const noexcept { return key.equals(field, end); }
    void were_set(const uint32_t*, const uint32_t*, uint32_t) const noexcept {}

    TextKey key;
    const uint8_t* end;
};

/// Sets the state of each resource of a type.
template <typename Type>
void set_own_states(const Resources& resources, Type type, uint32_t stat) noexcept {
    for (int32_t position = 0; position < resources.records.count(); ++position) {
        shmnm_resource& resource = resources.records[position];
        if (!type.equals(resource.type)) continue;
        store(resource.stat, stat);
        type.were_set(&resource.stat, &resource.stat + 1, stat);
    }
}

/// Sets the states of each resource of a type on all servers. Rows may overlap; each word is set once.
template <typename Type>
void set_rows(const Resources& resources, Type type, uint64_t row_size, uint32_t stat) noexcept {
    const Region& region = resources.region;
    const Strip rows = resources.rows(resources.kind.states);
    uint64_t set = 0;
    for (int32_t position = 0; position < resources.records.count(); ++position) {
        if (!type.equals(resources.records[position].type)) continue;
        const uint64_t row = rows.at(position), begin = std::max(row, set), end = row + region.clipped(row, row_size);
        if (begin >= end) continue;
        for (set = begin; set < end; set += sizeof(uint32_t)) store(*region.word(set), stat);
        type.were_set(region.word(begin), region.word(end), stat);
    }
}

uint32_t set_states_of_type(Call call, const Region& region, const Kind& kind, const char* type, uint32_t stat) {
    if (!type) return call.fail(SHMNM_ERR_PARAM, "invalid param");
    const ChangeNote note(region, true,
                          {.call = kind.network ? NotedCall::settypehbstat : NotedCall::settypenpstat, .type = type});
    const Resources resources(region, kind);
    const HealthyType healthy{TextKey(type), region.end()};
    const bool reads_on = may_read_on(resources.records, healthy.key);
    if (reads_on) [[unlikely]] {
        set_own_states(resources, AscendingText(region, type), stat);
    } else {
        set_own_states(resources, healthy, stat);
    }
    // Each type is compared again, because in overlapping records the states that were set may have changed it.
    const int32_t servers = load(region.header().server_count);
    const uint64_t row_size = servers > 0 ? sizeof(uint32_t) * static_cast<uint64_t>(servers) : 0;
    if (reads_on || static_cast<uint64_t>(resources.strip.step) < sizeof(shmnm_resource) + row_size) [[unlikely]] {
        set_rows(resources, AscendingText(region, type), row_size, stat);
    } else {
        set_rows(resources, healthy, row_size, stat);
    }
    return SHMNM_OK;
}

}  // namespace
}  // namespace shmnm

using namespace shmnm;

uint32_t shmnm_sethbrscstat(const char* type, const char* name, uint32_t stat) {
    return framed<set_resource_state>("_sethbrscstat", hb, type, name, stat);
}
uint32_t shmnm_setnprscstat(const char* type, const char* name, uint32_t stat) {
    return framed<set_resource_state>("_setnprscstat", np, type, name, stat);
}
uint32_t shmnm_gethbrscstat(const char* type, const char* name, uint32_t* stat) {
    return framed<get_resource_state>("_gethbrscstat", hb, type, name, stat);
}
uint32_t shmnm_getnprscstat(const char* type, const char* name, uint32_t* stat) {
    return framed<get_resource_state>("_getnprscstat", np, type, name, stat);
}
uint32_t shmnm_sethbrscsvstat(const char* type, const char* name, int32_t svid, uint32_t stat) {
    return framed<set_cell>("_sethbrscsvstat", hb, hb.states, type, name, svid, stat);
}
uint32_t shmnm_setnprscsvstat(const char* type, const char* name, int32_t svid, uint32_t stat) {
    return framed<set_cell>("_setnprscsvstat", np, np.states, type, name, svid, stat);
}
uint32_t shmnm_gethbrscsvstat(const char* type, const char* name, int32_t svid, uint32_t* stat) {
    return framed<get_cell>("_gethbrscsvstat", hb, hb.states, type, name, svid, stat);
}
uint32_t shmnm_getnprscsvstat(const char* type, const char* name, int32_t svid, uint32_t* stat) {
    return framed<get_cell>("_getnprscsvstat", np, np.states, type, name, svid, stat);
}
uint32_t shmnm_enumhbrscsvstat(const char* type, const char* name, uint32_t* buf, uint32_t* size) {
    return framed<list_row>("_enumhbrscsvstat", hb, hb.states, type, name, buf, size);
}
uint32_t shmnm_enumnprscsvstat(const char* type, const char* name, uint32_t* buf, uint32_t* size) {
    return framed<list_row>("_enumnprscsvstat", np, np.states, type, name, buf, size);
}
uint32_t shmnm_enumsvhbrscstat(const char* svname, uint32_t* buf, uint32_t* size) {
    return framed<list_column>("_enumsvhbrscstat", hb, hb.states, svname, buf, size);
}
uint32_t shmnm_enumsvnprscstat(const char* svname, uint32_t* buf, uint32_t* size) {
    return framed<list_column>("_enumsvnprscstat", np, np.states, svname, buf, size);
}
uint32_t shmnm_settypehbstat(const char* type, uint32_t stat) {
    return framed<set_states_of_type>("_settypehbstat", hb, type, stat);
}
uint32_t shmnm_settypenpstat(const char* type, uint32_t stat) {
    return framed<set_states_of_type>("_settypenpstat", np, type, stat);
}
