// A picture in which every state has a value of its own, for tests of what is shown.
#pragma once

#include <cstdint>
#include <string>

#include "picture/picture.h"

namespace test {

inline picture::Picture full_picture(size_t servers, size_t resources) {
    picture::Picture picture{
        .header = {}, .layout = picture::Layout({}), .servers = {}, .hb = {}, .np = {}, .fst = {}, .fst_pids = {}};
    uint32_t value = 1'000'000;
    for (size_t i = 0; i < servers; ++i) {
        picture::Server server{.name = "server" + std::to_string(1000 + i).substr(1), .record = {}, .combstat = {}};
        server.record.pri = static_cast<int32_t>(value++);
        for (uint32_t* const word :
             {&server.record.nodestat, &server.record.nodestat_nw, &server.record.pingstat,
              &server.record.downnotifystat, &server.record.isolateflag, &server.record.holdstat}) {
            *word = value++;
        }
        picture.servers.push_back(server);
    }
    const auto add = [&](std::vector<picture::Resource>& all, const std::string& type, bool has_network) {
        for (size_t i = 0; i < resources; ++i) {
            picture::Resource resource{.type = type,
                                       .name = type + std::to_string(i),
                                       .record = {},
                                       .descript = {},
                                       .svstat = {},
                                       .network = {}};
            resource.record.pri = value++;
            resource.record.stat = value++;
            for (size_t server = 0; server < servers; ++server) {
                resource.svstat.states.push_back(value++);
                if (has_network) resource.network.states.push_back(value++);
            }
            all.push_back(resource);
        }
    };
    add(picture.hb, "lan", true);
    add(picture.np, "ping", false);
    picture.fst = picture::Fst{.record = {}, .descript = std::string(200, 'd')};
    picture::FstPid pid{.name = "agent", .pid = {value, value + 1, value + 2}};
    pid.piddata = {UINT64_MAX, UINT64_MAX - 1, UINT64_MAX - 2};
    picture.fst_pids.push_back(pid);
    return picture;
}

}  // namespace test
