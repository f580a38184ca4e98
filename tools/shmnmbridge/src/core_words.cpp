#include "core_words.h"

#include <algorithm>

namespace bridge {

std::optional<size_t> Look::find_server(std::string_view name) const {
    for (size_t position = 0; position < servers.size(); ++position) {
        if (servers[position].name == name) return position;
    }
    return std::nullopt;
}

const LookedResource* Look::find_resource(std::string_view key) const {
    const auto found = std::find_if(resources.begin(), resources.end(),
                                    [&](const LookedResource& resource) { return resource.key == key; });
    return found == resources.end() ? nullptr : &*found;
}

bool Look::has_own_priority(size_t position) const {
    return std::count_if(servers.begin(), servers.end(),
                         [&](const LookedServer& server) { return server.pri == servers[position].pri; }) == 1;
}

ServerState state_of(const Look& look, size_t position) {
    ServerState state{look.servers[position].words, {}};
    for (const LookedResource& resource : look.resources) {
        if (position < resource.cells.size()) state.cells.emplace(resource.key, resource.cells[position]);
    }
    return state;
}

bool is_as_new(const Look& look, size_t position) {
    return look.servers[position].words == new_server_words &&
           std::all_of(look.resources.begin(), look.resources.end(), [&](const LookedResource& resource) {
               return position >= resource.cells.size() || resource.cells[position] == Cell{};
           });
}

}  // namespace bridge
