// The simulation of a network partition: one word for the cluster and one per server, each 0 or 1.
#include <algorithm>

#include "change_note.h"
#include "frame.h"
#include "server_table.h"

namespace shmnm {
namespace {

/// Whether a server has an entry in the caller's array, which is indexed by priority.
bool has_entry(int32_t pri, int32_t count) {
    return pri >= 0 && pri < count;
}

/// The value to store for a server if the caller asks for `wanted`: any value other than 0 and 1 becomes 0.
uint32_t accepted_value(Call call, uint32_t wanted, int32_t pri) {
    if (wanted > 1) {
        call.log(Level::warning, "invalid node dfailstatus(%d), set %d. (pri: %d)", wanted, 0, pri);
        return 0;
    }
    call.log(Level::information, "set node dfailstatus(%d). (pri: %d)", wanted, pri);
    return wanted;
}

uint32_t set_simulation(Call call, const Region& region, uint32_t flag, const uint32_t* nodefail, int32_t count) {
    const ChangeNote note(region, true, {.call = NotedCall::setnpsimu});
    const bool on = flag == 1;
    const Servers servers(region);
    for (int32_t position = 0; position < servers.records.count(); ++position) {
        shmnm_server& server = servers.records[position];
        const int32_t pri = load(server.pri);
        const bool asked = on && nodefail && has_entry(pri, count);
        store(server.dfailstatus, accepted_value(call, asked ? nodefail[pri] : 0, pri));
    }
    if (flag > 1) {
        call.log(Level::warning, "invalid cluster dfailstatus(%d), set %d.", flag, 0);
    } else {
        call.log(Level::information, "set cluster dfailstatus(%d).", flag);
    }
    // Last, so that a reader that sees the simulation on also sees every server's word.
    store(region.header().dfailstatus, uint32_t{on});
    return SHMNM_OK;
}

uint32_t get_simulation(Call call, const Region& region, uint32_t* flag, uint32_t* nodefail, int32_t count) {
    const Servers servers(region);
    if (!nodefail || count < servers.count) return call.fail(SHMNM_ERR_PARAM, "invalid param");
    const uint32_t cluster = load(region.header().dfailstatus);
    if (cluster == 1) {
        if (count > 0) std::fill_n(nodefail, count, 0u);
        for (int32_t position = 0; position < servers.records.count(); ++position) {
            const shmnm_server& server = servers.records[position];
            const int32_t pri = load(server.pri);
            const uint32_t stat = load(server.dfailstatus);
            if (has_entry(pri, count)) {
                nodefail[pri] = stat;
            } else {
                call.log(Level::warning, "invalid node priority(%d), ignore. (stat: %d)", pri, stat);
            }
        }
    }
    if (flag) *flag = cluster;
    return SHMNM_OK;
}

uint32_t get_simulation_flag(Call, const Region& region, uint32_t* flag) {
    if (flag) *flag = load(region.header().dfailstatus);
    return SHMNM_OK;
}

}  // namespace
}  // namespace shmnm

using namespace shmnm;

// The tags are whole export names, deliberately.
uint32_t shmnm_setnpsimu(uint32_t flag, const uint32_t* nodefail, int32_t count) {
    return framed<set_simulation>("shmnm_setnpsimu", flag, nodefail, count);
}
uint32_t shmnm_getnpsimu(uint32_t* flag, uint32_t* nodefail, int32_t count) {
    return framed<get_simulation>("shmnm_getnpsimu", flag, nodefail, count);
}
uint32_t shmnm_getnpsimuflag(uint32_t* flag) {
    return framed<get_simulation_flag>("shmnm_getnpsimuflag", flag);
}
