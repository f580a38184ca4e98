// From the decoded picture to the words of the bridge.
#include "core_words.h"
#include "picture/decode.h"
#include "picture/escape.h"

namespace bridge {
namespace {

/// Positions are kept: a server whose name is taken already keeps its place, and no name.
std::vector<LookedServer> servers_of(const picture::Picture& picture) {
    Look named;
    for (const picture::Server& server : picture.servers) {
        const std::string name = picture::escaped(server.name);
        const shmnm_server& record = server.record;
        named.servers.push_back({named.find_server(name) ? std::string() : name,
                                 record.pri,
                                 {record.nodestat, record.nodestat_nw, record.downnotifystat, record.isolateflag,
                                  record.pingstat, record.holdstat}});
    }
    return named.servers;
}

void add_resources(Look& look, const char* table, const std::vector<picture::Resource>& resources) {
    for (const picture::Resource& resource : resources) {
        LookedResource looked;
        looked.key = std::string(table) + '/' + picture::escaped(resource.type) + '/' + picture::escaped(resource.name);
        if (look.find_resource(looked.key)) continue;
        looked.stat = resource.record.stat;
        looked.cells.resize(std::min(look.servers.size(), resource.svstat.states.size()));
        for (size_t position = 0; position < looked.cells.size(); ++position) {
            looked.cells[position].svstat = resource.svstat.states[position];
            if (position < resource.network.states.size()) {
                looked.cells[position].network = resource.network.states[position];
            }
        }
        look.resources.push_back(std::move(looked));
    }
}

}  // namespace

Look reduced(const picture::Snapshot& snapshot) {
    const picture::Picture picture = picture::decode(snapshot);
    const shmnm_header& header = picture.header;
    Look look;
    look.object = snapshot.object;
    // The header's, even where the layout is the configured one: attaching would write the configuration's into it.
    look.counts = snapshot.header_counts();
    look.configured = snapshot.configured;
    look.header = {{{header.waitstat, 0},
                    {header.bwflag, 0},
                    {header.bwflagdisk, 0},
                    {header.clstat, 0},
                    {static_cast<uint32_t>(header.hbinfo_a), static_cast<uint32_t>(header.hbinfo_b)}}};
    look.servers = servers_of(picture);
    add_resources(look, "hb", picture.hb);
    add_resources(look, "np", picture.np);
    return look;
}

}  // namespace bridge
