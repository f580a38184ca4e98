// Adds, removes, modifies and lists servers, and looks them up by name and by priority. A new server is appended, and a
// removal closes the gap, so a server's position is its column in every resource.
#include "server_table.h"

#include "server_columns.h"
#include "text_list.h"

namespace shmnm {
namespace {

uint32_t add_server(Call call, const Region& region, const char* name, int32_t pri) {
    if (!name) return call.fail(SHMNM_ERR_PARAM, "invalid param");
    const Servers servers(region);
    const int32_t count = servers.count;
    const auto full = [&] { return call.fail(SHMNM_ERR_COUNTOVER, "node count is over(%d)", count); };
    if (count >= load(region.header().max_servers)) return full();
    if (servers.named(name)) return call.fail(SHMNM_ERR_EXIST, "server(%s) already exist", name);
    // A place that is not in the view counts as a full table.
    auto* const server = free_place<shmnm_server>(region, server_strip(region), count);
    if (!server) return full();

    const bool regular = is_regular(region);
    const ChangeNote note(region, regular,
                          {.call = NotedCall::addnode, .position = count, .name = name, .words = {pri}});
    // Everything that the new count makes visible is written before it.
    if (regular) open_columns_early(region, count);
    write_server(*server, name, pri);
    keep_order();
    store(region.header().server_count, count + 1);

    // If a column cannot be opened, the server stays in the table, deliberately.
    if (const uint32_t result = add_hb_column(count, note); result != SHMNM_OK) {
        return call.fail(SHMNM_ERR_ADDSVSTAT, "shmnm_addhbrscsvstat() failed(ret:%d)", result);
    }
    if (const uint32_t result = add_np_column(count, note); result != SHMNM_OK) {
        return call.fail(SHMNM_ERR_ADDSVSTAT, "shmnm_addnprscsvstat() failed(ret:%d)", result);
    }
    return SHMNM_OK;
}

uint32_t remove_server(Call call, const Region& region, const char* name) {
    if (!name) return call.fail(SHMNM_ERR_PARAM, "invalid param");
    const Servers servers(region);
    const auto server = servers.named(name);
    if (!server) return call.fail(SHMNM_ERR_NOTFOUND, "name:%s not found", name);

    const bool regular = is_regular(region);
    const ChangeNote note(region, regular, {.call = NotedCall::rmnode, .position = server.position, .name = name});
    if (regular) {
        take_out_server(region, server.position, servers.count, note.progress(), {});
    } else {
        const Strip strip = server_strip(region);
        int32_t position = server.position;
        zero_place(region, strip, position);
        while (position < servers.count - 1 && take_next(region, strip, position)) ++position;
        store(region.header().server_count, servers.count - 1);
    }

    // If a column cannot be closed, the server stays removed, deliberately.
    if (const uint32_t result = remove_hb_column(server.position, note); result != SHMNM_OK) {
        return call.fail(SHMNM_ERR_RMSVSTAT, "shmnm_rmhbrscsvstat() failed(ret:%d)", result);
    }
    if (const uint32_t result = remove_np_column(server.position, note); result != SHMNM_OK) {
        return call.fail(SHMNM_ERR_RMSVSTAT, "shmnm_rmnprscsvstat() failed(ret:%d)", result);
    }
    return SHMNM_OK;
}

uint32_t modify_server(Call call, const Region& region, const char* name, int32_t pri) {
    if (!name) return call.fail(SHMNM_ERR_PARAM, "invalid param");
    const auto server = Servers(region).named(name);
    if (!server) return call.fail(SHMNM_ERR_NOTFOUND, "name:%s not found", name);
    store(server->pri, pri);
    return SHMNM_OK;
}

uint32_t list_servers(Call call, const Region& region, char* buf, uint32_t* size) {
    const Servers servers(region);
    const auto name_of = [](const shmnm_server& server) { return server.name; };
    return list_texts(call, region, servers.records, name_of, buf, size);
}

uint32_t get_server_priority(Call call, const Region& region, const char* name, int32_t* pri) {
    if (!name || !pri) return call.fail(SHMNM_ERR_PARAM, "invalid param");
    const auto server = Servers(region).named(name);
    if (!server) return call.fail(SHMNM_ERR_NOTFOUND, "name:%s not found", name);
    *pri = load(server->pri);
    return SHMNM_OK;
}

uint32_t get_server_name(Call call, const Region& region, char* name, int32_t pri) {
    if (!name) return call.fail(SHMNM_ERR_PARAM, "invalid param");
    const auto server = Servers(region).of_priority(pri);
    if (!server) return call.fail(SHMNM_ERR_NOTFOUND, "pri:%d not found", pri);
    get_text(name, server->name, sizeof server->name);
    return SHMNM_OK;
}

}  // namespace
}  // namespace shmnm

using namespace shmnm;

uint32_t shmnm_addnode(const char* name, int32_t pri) {
    return framed<add_server>("_addnode", name, pri);
}
uint32_t shmnm_rmnode(const char* name) {
    return framed<remove_server>("_rmnode", name);
}
uint32_t shmnm_modifynode(const char* name, int32_t pri) {
    return framed<modify_server>("_modifynode", name, pri);
}
uint32_t shmnm_enumnode(char* buf, uint32_t* size) {
    return framed<list_servers>("_enumnode", buf, size);
}
uint32_t shmnm_getnodepri(const char* name, int32_t* pri) {
    return framed<get_server_priority>("_getnodepri", name, pri);
}
uint32_t shmnm_getnodename(char* name, int32_t pri) {
    return framed<get_server_name>("_getnodename", name, pri);
}
