// The picture of the cluster, decoded from a copy of the region. Every output is made from it. It shows what the
// library's functions would answer from the same bytes; if the bytes contradict each other, it shows only what they
// hold.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "picture/snapshot.h"
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

    bool is_any_alive() const;
    bool is_simulated() const { return header.dfailstatus != 0; }
};

/// Of a table whose count contradicts the copy, decodes at most a few hundred records, so that it ends soon.
Picture decode(const Snapshot& snapshot);

/// The combined state, by the table of shmnm_getnodecombstat().
std::optional<uint32_t> combined_state(uint32_t nodestat, uint32_t waitstat, uint32_t isolateflag);

}  // namespace picture
