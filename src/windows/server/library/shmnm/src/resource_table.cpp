// Adds, removes, modifies and looks up hb and np resources, and lists them by type and by name. A new resource is
// appended, and a removal closes the gap. An hb resource's row of network-wide states is added and removed with it.
#include "resource_table.h"

#include "change_note.h"
#include "text_list.h"

namespace shmnm {

Found<shmnm_resource> find_resource_from(const Region& region, Table<shmnm_resource> records, int32_t position,
                                         const char* type, const char* name) noexcept {
    const TextKey key(name);
    if (!may_read_on(records, key)) {
        for (; position < records.count(); ++position) {
            shmnm_resource& resource = records[position];
            if (!key.equals(resource.name, region.end())) continue;
            if (!type || holds_text(resource.type, region.end(), type)) return {&resource, position};
        }
        return {};
    }
    AscendingText ascending_name(region, name), ascending_type(region, type ? type : "");
    for (; position < records.count(); ++position) {
        shmnm_resource& resource = records[position];
        if (!ascending_name.equals(resource.name)) continue;
        if (!type || ascending_type.equals(resource.type)) return {&resource, position};
    }
    return {};
}

namespace {

uint32_t add_resource(Call call, const Region& region, const Kind& kind, const char* type, const char* name,
                      uint32_t pri) {
    if (!type || !name) return call.fail(SHMNM_ERR_PARAM, "invalid param");
    const Resources resources(region, kind);
    const int32_t count = resources.count, server_count = load(region.header().server_count);
    const auto full = [&] { return call.fail(SHMNM_ERR_RSCOVER, kind.full, count); };
    if (count >= load(region.header().*kind.limit)) return full();
    if (resources.find(type, name)) return call.fail(SHMNM_ERR_EXIST, "resource(%s) already exist", name);
    // A place that is not wholly in the view counts as a full table.
    auto* const resource = free_place<shmnm_resource>(region, resources.strip, count);
    const StateRows rows(resources);
    if (!resource || !rows.hold(count, 0, int64_t{server_count} - 1)) return full();

    const bool regular = is_regular(region);
    const ChangeNote note(region, regular,
                          {.call = kind.network ? NotedCall::addhbrsc : NotedCall::addnprsc,
                           .position = count,
                           .type = type,
                           .name = name,
                           .words = {static_cast<int32_t>(pri)}});
    // Everything that the new count makes visible is written before it.
    if (regular) open_row(rows, count, server_count);
    write_resource(*resource, type, name, pri);
    keep_order();
    store(region.header().*kind.count, count + 1);
    open_row(rows, count, server_count);
    return SHMNM_OK;
}

uint32_t remove_resource(Call call, const Region& region, const Kind& kind, const char* type, const char* name) {
    if (!type || !name) return call.fail(SHMNM_ERR_PARAM, "invalid param");
    const Resources resources(region, kind);
    const auto resource = resources.find(type, name);
    if (!resource) return not_found(call, type, name);

    const bool regular = is_regular(region);
    const ChangeNote note(region, regular,
                          {.call = kind.network ? NotedCall::rmhbrsc : NotedCall::rmnprsc,
                           .position = resource.position,
                           .type = type,
                           .name = name});
    if (regular) {
        take_out_resource(resources, resource.position, resources.count, note.progress(), {});
        return SHMNM_OK;
    }
    // Deliberately, if the last resource is removed, its network-wide row keeps its values.
    zero_place(region, resources.strip, resource.position);
    bool moved = true;
    for (int32_t position = resource.position; moved && position < resources.count - 1; ++position) {
        moved = take_next(region, resources.strip, position);
        if (kind.network) moved = take_next(region, resources.rows(*kind.network), position) || moved;
    }
    store(region.header().*kind.count, resources.count - 1);
    return SHMNM_OK;
}

uint32_t modify_resource(Call call, const Region& region, const Kind& kind, const char* type, const char* name,
                         uint32_t pri) {
    if (!type || !name) return call.fail(SHMNM_ERR_PARAM, "invalid param");
    const auto resource = Resources(region, kind).find(type, name);
    if (!resource) return not_found(call, type, name);
    store(resource->pri, pri);
    return SHMNM_OK;
}

uint32_t get_resource_priority(Call call, const Region& region, const Kind& kind, const char* type, const char* name,
                               uint32_t* pri) {
    if (!type || !name || !pri) return call.fail(SHMNM_ERR_PARAM, "invalid param");
    const auto resource = Resources(region, kind).find(type, name);
    if (!resource) return not_found(call, type, name);
    *pri = load(resource->pri);
    return SHMNM_OK;
}

uint32_t get_resource_type(Call call, const Region& region, const Kind& kind, char* type, const char* name) {
    if (!name || !*name) return call.fail(SHMNM_ERR_PARAM, "invalid param");
    const auto resource = Resources(region, kind).find(nullptr, name);
    if (!resource) return call.fail(SHMNM_ERR_NOTFOUND, "name:%s not found", name);
    if (type) get_text(type, resource->type, sizeof resource->type);
    return SHMNM_OK;
}

uint32_t list_resource_types(Call call, const Region& region, const Kind& kind, char* buf, uint32_t* size) {
    const auto type_of = [](const shmnm_resource& resource) { return resource.type; };
    return list_texts(call, region, Resources(region, kind).records, type_of, buf, size);
}

uint32_t list_resource_names(Call call, const Region& region, const Kind& kind, const char* type, char* buf,
                             uint32_t* size) {
    const Resources resources(region, kind);
    const TextKey key(type);
    const auto name_of = [&](const shmnm_resource& resource) {
        return key.equals(resource.type, region.end()) ? resource.name : nullptr;
    };
    if (!type || !may_read_on(resources.records, key)) {
        return list_texts(call, region, resources.records, name_of, buf, size);
    }
    AscendingText text(region, type);
    const auto name_of_ascending = [&](const shmnm_resource& resource) {
        return text.equals(resource.type) ? resource.name : nullptr;
    };
    return list_texts(call, region, resources.records, name_of_ascending, buf, size);
}

}  // namespace
}  // namespace shmnm

using namespace shmnm;

uint32_t shmnm_addhbrsc(const char* type, const char* name, uint32_t pri) {
    return framed<add_resource>("_addhbrsc", hb, type, name, pri);
}
uint32_t shmnm_addnprsc(const char* type, const char* name, uint32_t pri) {
    return framed<add_resource>("_addnprsc", np, type, name, pri);
}
uint32_t shmnm_rmhbrsc(const char* type, const char* name) {
    return framed<remove_resource>("_rmhbrsc", hb, type, name);
}
uint32_t shmnm_rmnprsc(const char* type, const char* name) {
    return framed<remove_resource>("_rmnprsc", np, type, name);
}
uint32_t shmnm_modifyhbrsc(const char* type, const char* name, uint32_t pri) {
    return framed<modify_resource>("_modifyhbrsc", hb, type, name, pri);
}
uint32_t shmnm_modifynprsc(const char* type, const char* name, uint32_t pri) {
    return framed<modify_resource>("_modifynprsc", np, type, name, pri);
}
uint32_t shmnm_gethbrscpri(const char* type, const char* name, uint32_t* pri) {
    return framed<get_resource_priority>("_gethbrscpri", hb, type, name, pri);
}
uint32_t shmnm_getnprscpri(const char* type, const char* name, uint32_t* pri) {
    return framed<get_resource_priority>("_getnprscpri", np, type, name, pri);
}
uint32_t shmnm_gethbrscinfo(char* type, const char* name) {
    return framed<get_resource_type>("_gethbrscinfo", hb, type, name);
}
uint32_t shmnm_getnprscinfo(char* type, const char* name) {
    return framed<get_resource_type>("_getnprscinfo", np, type, name);
}
uint32_t shmnm_enumhbtype(char* buf, uint32_t* size) {
    return framed<list_resource_types>("_enumhbtype", hb, buf, size);
}
uint32_t shmnm_enumnptype(char* buf, uint32_t* size) {
    return framed<list_resource_types>("_enumnptype", np, buf, size);
}
uint32_t shmnm_enumhbrsc(const char* type, char* buf, uint32_t* size) {
    return framed<list_resource_names>("_enumhbrsc", hb, type, buf, size);
}
uint32_t shmnm_enumnprsc(const char* type, char* buf, uint32_t* size) {
    return framed<list_resource_names>("_enumnprsc", np, type, buf, size);
}
