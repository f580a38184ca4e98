#include "strcmp_peer.h"

#include <cstring>

namespace bench {
namespace {

// Volatile, because other processes may write the word at the same time.
uint32_t load(const uint32_t& word) {
    return *const_cast<const volatile uint32_t*>(&word);
}
void store(uint32_t& word, uint32_t value) {
    *const_cast<volatile uint32_t*>(&word) = value;
}

}  // namespace

StrcmpPeer::StrcmpPeer(const Place& place)
    : memory_(place.scratch + "strcmp", sizeof(Table), place.create),
      mutex_memory_(place.scratch + "strcmpmutex", RobustMutex::size + 64, place.create),
      mutex_(mutex_memory_.get(), place.scratch + "strcmplock", place.create),
      table_(*static_cast<Table*>(memory_.get())) {}

void StrcmpPeer::fill(const Cluster& cluster) {
    for (int32_t i = 0; i < cluster.servers; ++i) {
        Server& server = table_.servers[i];
        std::memcpy(server.name, Cluster::server(i).data(), sizeof(Name));
        server.priority = Cluster::priority(i);
        server.nodestat = 2;
    }
    for (int32_t i = 0; i < cluster.resources; ++i) {
        Resource& resource = table_.resources[i];
        std::memcpy(resource.type, Cluster::type.data(), sizeof(Name));
        std::memcpy(resource.name, Cluster::resource(i).data(), sizeof(Name));
        for (int32_t server = 0; server < cluster.servers; ++server) resource.on_server[server] = 2;
    }
    table_.server_count = cluster.servers;
    table_.resource_count = cluster.resources;
}

int32_t StrcmpPeer::find_server(const char* name) const {
    for (int32_t i = 0; i < table_.server_count; ++i) {
        if (std::strcmp(table_.servers[i].name, name) == 0) return i;
    }
    return -1;
}
int32_t StrcmpPeer::find_server(int32_t priority) const {
    for (int32_t i = 0; i < table_.server_count; ++i) {
        if (table_.servers[i].priority == priority) return i;
    }
    return -1;
}
int32_t StrcmpPeer::find_resource(const char* type, const char* name) const {
    for (int32_t i = 0; i < table_.resource_count; ++i) {
        const Resource& resource = table_.resources[i];
        if (std::strcmp(resource.type, type) == 0 && std::strcmp(resource.name, name) == 0) return i;
    }
    return -1;
}

uint32_t StrcmpPeer::header_word() const {
    return load(table_.header_word);
}
void StrcmpPeer::set_header_word(uint32_t value) {
    store(table_.header_word, value);
}
uint32_t StrcmpPeer::server_word(const Name& server) const {
    const int32_t position = find_server(server.data());
    return position < 0 ? 0 : load(table_.servers[position].nodestat);
}
void StrcmpPeer::set_server_word(const Name& server, uint32_t value) {
    const int32_t position = find_server(server.data());
    if (position >= 0) store(table_.servers[position].nodestat, value);
}
uint32_t StrcmpPeer::pair(const Asked& asked) const {
    const int32_t server = find_server(asked.priority);
    const int32_t resource = find_resource(asked.type.data(), asked.resource.data());
    return server < 0 || resource < 0 ? 0 : load(table_.resources[resource].on_server[server]);
}
void StrcmpPeer::set_pair(const Asked& asked, uint32_t value) {
    const int32_t server = find_server(asked.priority);
    const int32_t resource = find_resource(asked.type.data(), asked.resource.data());
    if (server >= 0 && resource >= 0) store(table_.resources[resource].on_server[server], value);
}
size_t StrcmpPeer::row(const Asked& asked, uint32_t* words) const {
    const int32_t resource = find_resource(asked.type.data(), asked.resource.data());
    if (resource < 0) return 0;
    const auto count = static_cast<size_t>(table_.server_count);
    std::memcpy(words, table_.resources[resource].on_server, count * sizeof *words);
    return count;
}
void StrcmpPeer::column(const Asked& asked, uint32_t* words) const {
    const int32_t server = find_server(asked.server.data());
    if (server < 0) return;
    for (int32_t i = 0; i < table_.resource_count; ++i) words[i] = load(table_.resources[i].on_server[server]);
}
void StrcmpPeer::lock() {
    mutex_.take();
}
void StrcmpPeer::unlock() {
    mutex_.release();
}
size_t StrcmpPeer::picture_size() {
    return sizeof(Table);
}
size_t StrcmpPeer::picture(uint8_t* bytes, size_t room) const {
    if (room < sizeof(Table)) return 0;
    std::memcpy(bytes, &table_, sizeof(Table));
    return sizeof(Table);
}

}  // namespace bench
