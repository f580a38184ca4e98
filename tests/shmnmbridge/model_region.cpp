#include "shmnmbridge/model_region.h"

#include <algorithm>

namespace bridge::test {

ModelRegion::ModelRegion(uint64_t object, const picture::Counts& counts, size_t servers, size_t first_server) {
    look_.object = object;
    look_.counts = counts;
    look_.configured = counts;
    for (size_t number = 0; number < servers; ++number) {
        const size_t server = (number + first_server) % servers;
        add_server(server_name(server), priority(server, first_server));
    }
    for (const char* key : {"hb/lan/lan1", "hb/disk/d1", "np/ping/gw"}) add_resource(key);
}

ServerState ModelRegion::state_of_server(const std::string& server) const {
    const auto position = look_.find_server(server);
    return position ? state_of(look_, *position) : ServerState{};
}

uint32_t* ModelRegion::find(const Call& call) {
    const auto position = look_.find_server(call.server);
    if (!position) return nullptr;
    if (call.setter == Call::Setter::server_word) return &look_.servers[*position].words[call.word];
    for (LookedResource& resource : look_.resources) {
        if (resource.key != call.resource) continue;
        Cell& cell = resource.cells[*position];
        return call.setter == Call::Setter::svstat ? &cell.svstat : &cell.network;
    }
    return nullptr;
}

void ModelRegion::add_server(const std::string& server, int32_t pri) {
    look_.servers.push_back({server, pri, new_server_words});
    for (LookedResource& resource : look_.resources) resource.cells.emplace_back();
}

void ModelRegion::remove_server(const std::string& server) {
    const auto position = look_.find_server(server);
    if (!position) return;
    const auto at = static_cast<ptrdiff_t>(*position);
    look_.servers.erase(look_.servers.begin() + at);
    for (LookedResource& resource : look_.resources) resource.cells.erase(resource.cells.begin() + at);
}

void ModelRegion::add_resource(const std::string& key) {
    look_.resources.push_back({key, new_stat, std::vector<Cell>(look_.servers.size())});
}

void ModelRegion::remove_resource(const std::string& key) {
    std::erase_if(look_.resources, [&key](const LookedResource& resource) { return resource.key == key; });
}

void ModelRegion::clear() {
    look_.header = {};
    look_.servers.clear();
    look_.resources.clear();
}

bool ModelRegion::make(const Call& call) {
    if (call.setter == Call::Setter::header_word) {
        if (call.word == hbinfo && !is_pair(call.value)) return false;
        look_.header[call.word] = call.value;
        return true;
    }
    if (call.setter == Call::Setter::stat) {
        for (LookedResource& resource : look_.resources) {
            if (resource.key != call.resource) continue;
            resource.stat = call.value[0];
            return true;
        }
        return false;
    }
    Call found = call;
    if (call.setter != Call::Setter::server_word) {
        const auto server = std::find_if(look_.servers.begin(), look_.servers.end(),
                                         [&call](const LookedServer& each) { return each.pri == call.pri; });
        if (server == look_.servers.end()) return false;
        found.server = server->name;
    }
    uint32_t* const word = find(found);
    if (word) *word = call.value[0];
    return word != nullptr;
}

std::optional<AgreedValue> ModelRegion::value_at(const Call& call) {
    if (call.setter == Call::Setter::header_word) return look_.header[call.word];
    if (call.setter == Call::Setter::stat) {
        const LookedResource* const resource = look_.find_resource(call.resource);
        return resource ? std::optional(AgreedValue{resource->stat, 0}) : std::nullopt;
    }
    const auto server = std::find_if(look_.servers.begin(), look_.servers.end(),
                                     [&call](const LookedServer& each) { return each.pri == call.pri; });
    const bool is_found = server != look_.servers.end() && server->name == call.server;
    if (call.setter != Call::Setter::server_word && !is_found) return std::nullopt;
    const uint32_t* const word = find(call);
    return word ? std::optional(AgreedValue{*word, 0}) : std::nullopt;
}

}  // namespace bridge::test
