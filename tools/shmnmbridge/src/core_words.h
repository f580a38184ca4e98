// The words of the region that the bridge speaks of. Names are escaped (picture/escape.h) everywhere in the core, so
// that they can stand in keys and JSON.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "picture/layout.h"
#include "picture/snapshot.h"

namespace bridge {

/// Milliseconds of a monotonic clock.
using Time = int64_t;

/// The state that the library gives to what it knows nothing of.
inline constexpr uint32_t unknown_state = 2;

// The six state words of a server.
inline constexpr std::array<const char*, 6> server_words = {"nodestat",    "nodestat_nw", "downnotifystat",
                                                            "isolateflag", "pingstat",    "holdstat"};
using ServerWords = std::array<uint32_t, server_words.size()>;
inline constexpr ServerWords new_server_words = {unknown_state, unknown_state, 0, 0, 0, 0};
/// The state of a new resource itself; those on the servers are unknown.
inline constexpr uint32_t new_stat = 0;
/// The first words, which become unknown when their server is silent.
inline constexpr size_t words_of_silence = 2;

/// The state of a resource on one server. An np resource has no network-wide state: it stays unknown.
struct Cell {
    uint32_t svstat = unknown_state, network = unknown_state;

    bool operator==(const Cell&) const = default;
};

/// A word that all machines share, or the pair `hbinfo`; the second number of a single word is 0.
using AgreedValue = std::array<uint32_t, 2>;

// The header's agreed words, by their keys.
inline constexpr std::array<const char*, 5> header_words = {"waitstat", "bwflag", "bwflagdisk", "clstat", "hbinfo"};
inline constexpr size_t hbinfo = 4;
/// The library's setter refuses any other pair, and a new region has zeros.
constexpr bool is_pair(const AgreedValue& value) {
    return static_cast<int32_t>(value[0]) >= 1 && static_cast<int32_t>(value[1]) >= 1;
}

struct LookedServer {
    std::string name;
    int32_t pri = 0;
    ServerWords words = new_server_words;

    bool operator==(const LookedServer&) const = default;
};

struct LookedResource {
    std::string key;  ///< "hb/TYPE/NAME"
    uint32_t stat = new_stat;
    std::vector<Cell> cells;  ///< by the server's position

    bool is_hb() const { return key.starts_with("hb/"); }
    bool operator==(const LookedResource&) const = default;
};

/// One copy of the region, reduced. Of servers or resources that share a name only the first is kept, as the library
/// finds no other.
struct Look {
    uint64_t object = 0;  ///< another region has another number; 0 where the system tells none
    picture::Counts counts;
    std::optional<picture::Counts> configured;  ///< nothing: the configuration cannot be read, and nothing is fed
    std::array<AgreedValue, header_words.size()> header{};
    std::vector<LookedServer> servers;
    std::vector<LookedResource> resources;

    /// The position of a server; nothing if there is none of this name.
    std::optional<size_t> find_server(std::string_view name) const;
    const LookedResource* find_resource(std::string_view key) const;
    /// Whether the library, which finds columns by the priority, finds this server's.
    bool has_own_priority(size_t position) const;
    bool operator==(const Look&) const = default;
};

/// All words of one server.
struct ServerState {
    ServerWords words = new_server_words;
    std::map<std::string, Cell, std::less<>> cells;  ///< by the resource's key

    bool operator==(const ServerState&) const = default;
};

ServerState state_of(const Look& look, size_t position);
/// Whether a record and its column hold what the library writes into new ones.
bool is_as_new(const Look& look, size_t position);

/// The region's words. @throws nothing; what a damaged copy does not hold is left out
Look reduced(const picture::Snapshot& snapshot);

}  // namespace bridge
