// The fst resource: the state word and description of the first fst record, and the process ids: three per name, each
// with a 64-bit value.
#include "ascending_text.h"
#include "change_note.h"
#include "frame.h"
#include "resource_description.h"
#include "text.h"

namespace shmnm {
namespace {

/// The first fst record, or null if the region was laid out without one.
shmnm_resource* first_fst_record(const Region& region) {
    const uint64_t start = region.layout.fst;
    const bool reserved = static_cast<int64_t>(region.layout.fst_pids - start) > 0;
    if (!reserved || !region.holds(start, sizeof(shmnm_resource))) return nullptr;
    return reinterpret_cast<shmnm_resource*>(region.base + start);
}

uint32_t set_fst_state(Call, const Region& region, uint32_t stat) {
    shmnm_resource* const fst = first_fst_record(region);
    if (!fst) return SHMNM_ERR_NOTFOUND;
    store(fst->stat, stat);
    return SHMNM_OK;
}

uint32_t get_fst_state(Call call, const Region& region, uint32_t* stat) {
    if (!stat) return call.fail(SHMNM_ERR_PARAM, "invalid param");
    const shmnm_resource* const fst = first_fst_record(region);
    if (!fst) return SHMNM_ERR_NOTFOUND;
    *stat = load(fst->stat);
    return SHMNM_OK;
}

uint32_t set_fst_description(Call call, const Region& region, const void* descript, int32_t len) {
    if (!descript || len <= 0) return call.fail(SHMNM_ERR_PARAM, "invalid param");
    shmnm_resource* const fst = first_fst_record(region);
    if (!fst) return SHMNM_ERR_NOTFOUND;
    const ChangeNote note(region, true,
                          {.call = NotedCall::setfstdescript, .data = descript, .size = static_cast<size_t>(len)});
    put_description(*fst, descript, len);
    return SHMNM_OK;
}

uint32_t get_fst_description(Call call, const Region& region, void* descript, const int32_t* len) {
    if (!descript || !len || *len <= 0) return call.fail(SHMNM_ERR_PARAM, "invalid param");
    const shmnm_resource* const fst = first_fst_record(region);
    if (!fst) return SHMNM_ERR_NOTFOUND;
    get_description(descript, *fst, *len);
    return SHMNM_OK;
}

Strip pid_strip(const Region& region) {
    return {region.layout.fst_pids, sizeof(shmnm_fst_pid)};
}

Found<shmnm_fst_pid> find_process_ids(const Region& region, int32_t count, const char* name) {
    const Table<shmnm_fst_pid> records(region, pid_strip(region), count);
    const TextKey key(name);
    if (!key.fits(sizeof(shmnm_fst_pid))) [[unlikely]]
        return find_ascending(region, records, name);
    return records.first([&](const shmnm_fst_pid& record) { return key.equals(record.name, region.end()); });
}

uint32_t set_process_id(Call call, const Region& region, const char* name, int32_t kind, uint32_t pid,
                        uint64_t piddata) {
    const char* const key = name ? name : "";
    const int32_t count = load(region.header().fst_pid_count);
    const auto full = [&] { return call.fail(SHMNM_ERR_COUNTOVER, "pid count is over(%d)", count); };
    // Deliberately before the lookup: in a full table not even the record of an existing name can be updated.
    if (count >= load(region.header().fst_pid_limit)) return full();
    const Found<shmnm_fst_pid> found = find_process_ids(region, count, key);
    shmnm_fst_pid* const record = found ? found.record : free_place<shmnm_fst_pid>(region, pid_strip(region), count);
    // A place that is not in the view counts as a full table.
    if (!record) return full();
    const bool regular = is_regular(region);
    const ChangeNote note(region, regular && (!found || is_pid_kind(kind)),
                          {.call = found ? NotedCall::setfstpid : NotedCall::addfstpid,
                           .position = found ? found.position : count,
                           .name = key,
                           .words = {kind, static_cast<int32_t>(pid)},
                           .value = piddata});
    if (!found) {
        // Everything that the new count makes visible is written before it.
        if (regular) {
            put_text(record->name, sizeof record->name, key);
            if (is_pid_kind(kind)) write_process_id(*record, kind, pid, piddata);
            keep_order();
        }
        store(region.header().fst_pid_count, count + 1);
        put_text(record->name, sizeof record->name, key);
    }
    // Deliberately after the lookup: the record of a new name stays in use.
    if (!is_pid_kind(kind)) return call.fail(SHMNM_ERR_PARAM, "invalid param");
    write_process_id(*record, kind, pid, piddata);
    return SHMNM_OK;
}

uint32_t get_process_id(Call call, const Region& region, const char* name, int32_t kind, uint32_t* pid,
                        uint64_t* piddata) {
    const auto record = find_process_ids(region, load(region.header().fst_pid_count), name ? name : "");
    if (!record) return SHMNM_OK;
    if (!is_pid_kind(kind)) return call.fail(SHMNM_ERR_PARAM, "invalid param");
    if (pid) *pid = load(record->pid[kind]);
    if (piddata) *piddata = load(record->piddata[kind][0]) | uint64_t{load(record->piddata[kind][1])} << 32;
    return SHMNM_OK;
}

/// What a process-id call returns after it has logged `code`. A bad kind is logged as one code and returned as another,
/// deliberately.
uint32_t returned(uint32_t code) {
    return code == SHMNM_ERR_PARAM ? uint32_t{SHMNM_ERR_NOTINIT} : code;
}

}  // namespace
}  // namespace shmnm

using namespace shmnm;

uint32_t shmnm_setfstrscstat(uint32_t stat) {
    return framed<set_fst_state>("_setfstrscstat", stat);
}
uint32_t shmnm_getfstrscstat(uint32_t* stat) {
    return framed<get_fst_state>("_getfstrscstat", stat);
}
uint32_t shmnm_setfstdescript(const void* descript, int32_t len) {
    return framed<set_fst_description>("_setfstdescript", descript, len);
}
uint32_t shmnm_getfstdescript(void* descript, const int32_t* len) {
    return framed<get_fst_description>("_getfstdescript", descript, len);
}
uint32_t shmnm_setfstrscpid(const char* name, int32_t kind, uint32_t pid, uint64_t piddata) {
    return returned(framed<set_process_id>("_setfstrscpid", name, kind, pid, piddata));
}
uint32_t shmnm_getfstrscpid(const char* name, int32_t kind, uint32_t* pid, uint64_t* piddata) {
    return returned(framed<get_process_id>("_getfstrscpid", name, kind, pid, piddata));
}
