// The six state words of a server, the state that combines them with the cluster's wait state, and the test for a
// server that is alive.
#include <optional>

#include "frame.h"
#include "server_table.h"

namespace shmnm {
namespace {

constexpr uint32_t alive = 1;

using ServerWord = uint32_t shmnm_server::*;

uint32_t set_server_word(Call call, const Region& region, ServerWord word, const char* name, uint32_t value) {
    if (!name) return call.fail(SHMNM_ERR_PARAM, "invalid param");
    const auto server = Servers(region).named(name);
    if (!server) return call.fail(SHMNM_ERR_NOTFOUND, "name:%s not found", name);
    store(server.record->*word, value);
    return SHMNM_OK;
}

uint32_t get_server_word(Call call, const Region& region, ServerWord word, const char* name, uint32_t* value) {
    if (!name || !value) return call.fail(SHMNM_ERR_PARAM, "invalid param");
    const auto server = Servers(region).named(name);
    if (!server) return call.fail(SHMNM_ERR_NOTFOUND, "name:%s not found", name);
    *value = load(server.record->*word);
    return SHMNM_OK;
}

/// The combined state. Deliberately, there is none if the isolation flag decides and is neither 0 nor 1.
std::optional<uint32_t> combined_state(uint32_t nodestat, uint32_t waitstat, uint32_t isolateflag) {
    constexpr uint32_t isolated = 0x10, waiting = 0x10002, unknown = 9;
    switch (nodestat) {
        case alive:
            if (waitstat > 1) return waitstat == 2 ? waiting : unknown;
            if (isolateflag > 1) return std::nullopt;
            return isolateflag == 1 ? isolated : alive;
        case 2:
            if (waitstat == 0 || waitstat == 3) return 2;
            return waitstat == 2 ? waiting : unknown;
        default:
            return unknown;
    }
}

uint32_t get_combined_state(Call call, const Region& region, const char* name, uint32_t* value) {
    if (!name || !value) return call.fail(SHMNM_ERR_PARAM, "invalid param");
    const auto server = Servers(region).named(name);
    if (!server) return call.fail(SHMNM_ERR_NOTFOUND, "name:%s not found", name);
    const auto state =
        combined_state(load(server->nodestat), load(region.header().waitstat), load(server->isolateflag));
    if (state) *value = *state;
    return SHMNM_OK;
}

uint32_t check_any_alive(Call call, const Region& region, const char* name, uint32_t* flag) {
    if (!flag) return call.fail(SHMNM_ERR_PARAM, "invalid param");
    *flag = 0;
    const TextKey excluded(name);
    const auto found = Servers(region).records.first([&](const shmnm_server& server) {
        return load(server.nodestat) == alive && !(name && excluded.equals(server.name, region.end()));
    });
    if (found) *flag = 1;
    // Deliberately the pointer, not the value it points to.
    const auto shown = static_cast<int32_t>(reinterpret_cast<uintptr_t>(flag));
    if (name) {
        call.log(Level::information, "flag(%s):%d", name, shown);
    } else {
        call.log(Level::information, "flag:%d", shown);
    }
    return SHMNM_OK;
}

}  // namespace
}  // namespace shmnm

using namespace shmnm;

// The tags of downnotifystat and isolateflag are whole export names, deliberately.
uint32_t shmnm_setnodestat(const char* name, uint32_t stat) {
    return framed<set_server_word>("_setnodestat", &shmnm_server::nodestat, name, stat);
}
uint32_t shmnm_getnodestat(const char* name, uint32_t* stat) {
    return framed<get_server_word>("_getnodestat", &shmnm_server::nodestat, name, stat);
}
uint32_t shmnm_setnodestat_nw(const char* name, uint32_t stat) {
    return framed<set_server_word>("_setnodestat_nw", &shmnm_server::nodestat_nw, name, stat);
}
uint32_t shmnm_getnodestat_nw(const char* name, uint32_t* stat) {
    return framed<get_server_word>("_getnodestat_nw", &shmnm_server::nodestat_nw, name, stat);
}
uint32_t shmnm_setdownnotifystat(const char* name, uint32_t stat) {
    return framed<set_server_word>("shmnm_setdownnotifystat", &shmnm_server::downnotifystat, name, stat);
}
uint32_t shmnm_getdownnotifystat(const char* name, uint32_t* stat) {
    return framed<get_server_word>("shmnm_getdownnotifystat", &shmnm_server::downnotifystat, name, stat);
}
uint32_t shmnm_setisolateflag(const char* name, uint32_t flag) {
    return framed<set_server_word>("shmnm_setisolateflag", &shmnm_server::isolateflag, name, flag);
}
uint32_t shmnm_getisolateflag(const char* name, uint32_t* flag) {
    return framed<get_server_word>("shmnm_getisolateflag", &shmnm_server::isolateflag, name, flag);
}
uint32_t shmnm_setpingstat(const char* name, uint32_t stat) {
    return framed<set_server_word>("_setpingstat", &shmnm_server::pingstat, name, stat);
}
uint32_t shmnm_getpingstat(const char* name, uint32_t* stat) {
    return framed<get_server_word>("_getpingstat", &shmnm_server::pingstat, name, stat);
}
uint32_t shmnm_setholdstat(const char* name, uint32_t stat) {
    return framed<set_server_word>("_setholdstat", &shmnm_server::holdstat, name, stat);
}
uint32_t shmnm_getholdstat(const char* name, uint32_t* stat) {
    return framed<get_server_word>("_getholdstat", &shmnm_server::holdstat, name, stat);
}

uint32_t shmnm_getnodecombstat(const char* name, uint32_t* stat) {
    return framed<get_combined_state>("_getnodecombstat", name, stat);
}
uint32_t shmnm_chkalivesv(const char* name, uint32_t* flag) {
    return framed<check_any_alive>("shmnm_chkalivesv", name, flag);
}
