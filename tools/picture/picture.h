// The picture of the cluster as data: the records of a region, with what the tools show beside them.
#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "picture/bridge.h"
#include "picture/layout.h"
#include "shmnm.h"

namespace picture {

struct Server {
    std::string name;
    shmnm_server record;
    std::optional<uint32_t> combstat;  ///< none if the states have no combined state
    uint64_t offset = 0;               ///< of the record

    bool is_alive() const { return record.nodestat == 1; }
    bool is_simulated() const { return record.dfailstatus != 0; }
};

/// The states of a resource on each server, by server position; fewer if the copy ends before the last state.
struct Row {
    std::vector<uint32_t> states;
    uint64_t offset = 0;  ///< of the first
};

struct Resource {
    std::string type, name;
    shmnm_resource record;
    std::string descript;  ///< 256 bytes without the zeros at their end
    Row svstat;
    Row network;          ///< only of an hb resource
    uint64_t offset = 0;  ///< of the record
};

struct FstPid {
    std::string name;
    std::array<uint32_t, 3> pid{};
    std::array<uint64_t, 3> piddata{};
    uint64_t offset = 0;
};

struct Fst {
    shmnm_resource record;
    std::string descript;
    uint64_t offset = 0;
};

struct Picture {
    shmnm_header header;
    Layout layout;
    std::vector<Server> servers;
    std::vector<Resource> hb, np;
    std::optional<Fst> fst;  ///< none if the region was laid out without an fst record
    std::vector<FstPid> fst_pids;
    std::optional<Bridge> bridge{};  ///< beside the region; nothing where it is not known

    bool is_any_alive() const {
        return std::any_of(servers.begin(), servers.end(), [](const Server& server) { return server.is_alive(); });
    }
    bool is_simulated() const { return header.dfailstatus != 0; }
};

}  // namespace picture
