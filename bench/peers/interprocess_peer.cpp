#include "interprocess_peer.h"

#include <boost/functional/hash.hpp>
#include <boost/interprocess/allocators/allocator.hpp>
#include <boost/interprocess/containers/map.hpp>
#include <boost/interprocess/managed_shared_memory.hpp>
#include <boost/interprocess/sync/named_mutex.hpp>
#include <boost/unordered_map.hpp>
#include <cstring>
#include <functional>
#include <stdexcept>
#include <type_traits>
#include <utility>

namespace bench {
namespace {

namespace interprocess = boost::interprocess;

/// The key of a word: all names are empty for the header, the resource's are empty for a server, and none for a pair.
struct Key {
    Name server{}, type{}, resource{};

    // NOLINTNEXTLINE(modernize-use-nullptr): reported for code that the compiler generates, a comparison with zero
    friend auto operator<=>(const Key&, const Key&) = default;
    friend size_t hash_value(const Key& key) {
        size_t hash = 0;
        for (const Name* const name : {&key.server, &key.type, &key.resource}) {
            uint64_t halves[2];
            std::memcpy(halves, name->data(), sizeof halves);
            boost::hash_combine(hash, halves[0]);
            boost::hash_combine(hash, halves[1]);
        }
        return hash;
    }
};

using Segment = interprocess::managed_shared_memory;
template <typename Value>
using Allocator = interprocess::allocator<Value, Segment::segment_manager>;
using Map = interprocess::map<Key, uint32_t, std::less<>, Allocator<std::pair<const Key, uint32_t>>>;
using Hash =
    boost::unordered_map<Key, uint32_t, boost::hash<Key>, std::equal_to<>, Allocator<std::pair<const Key, uint32_t>>>;

constexpr size_t segment_size = size_t{4} << 20;

Key key_of(const Asked& asked) {
    return {asked.server, asked.type, asked.resource};
}

}  // namespace

template <typename Container>
struct InterprocessPeer<Container>::Shared {
    using Words = std::conditional_t<std::is_same_v<Container, InterprocessMap>, Map, Hash>;

    explicit Shared(const Place& place)
        : name(place.scratch + Container::who),
          mutex_name(name + "-mutex"),
          created(place.create),
          segment(opened(name, created)),
          mutex(interprocess::open_or_create, mutex_name.c_str()) {
        if (created) {
            const Allocator<std::pair<const Key, uint32_t>> allocator(segment.get_segment_manager());
            if constexpr (std::is_same_v<Words, Map>) {
                words = segment.construct<Words>("words")(std::less<>(), allocator);
            } else {
                words =
                    segment.construct<Words>("words")(size_t{4096}, boost::hash<Key>(), std::equal_to<>(), allocator);
            }
        } else {
            words = segment.find<Words>("words").first;
        }
        if (!words) throw std::runtime_error("no container in " + name);
    }
    ~Shared() {
        if (!created) return;
        interprocess::shared_memory_object::remove(name.c_str());
        interprocess::named_mutex::remove(mutex_name.c_str());
    }
    Shared(const Shared&) = delete;
    Shared& operator=(const Shared&) = delete;

    static Segment opened(const std::string& name, bool create) {
        if (create) return {interprocess::create_only, name.c_str(), segment_size};
        return {interprocess::open_only, name.c_str()};
    }

    uint32_t get(const Key& key) const {
        const auto found = words->find(key);
        return found == words->end() ? 0 : found->second;
    }
    void set(const Key& key, uint32_t value) const {
        const auto found = words->find(key);
        if (found != words->end()) found->second = value;
    }

    std::string name, mutex_name;
    bool created;
    Cluster cluster{};
    Segment segment;
    interprocess::named_mutex mutex;
    Words* words = nullptr;
};

template <typename Container>
InterprocessPeer<Container>::InterprocessPeer(const Place& place) : shared_(std::make_unique<Shared>(place)) {}
template <typename Container>
InterprocessPeer<Container>::~InterprocessPeer() = default;

template <typename Container>
void InterprocessPeer<Container>::fill(const Cluster& cluster) {
    shared_->cluster = cluster;
    auto& words = *shared_->words;
    words.emplace(Key{}, 2);
    for (int32_t server = 0; server < cluster.servers; ++server) {
        words.emplace(Key{Cluster::server(server), {}, {}}, 2);
        for (int32_t resource = 0; resource < cluster.resources; ++resource) {
            words.emplace(Key{Cluster::server(server), Cluster::type, Cluster::resource(resource)}, 2);
        }
    }
}

template <typename Container>
uint32_t InterprocessPeer<Container>::header_word() const {
    return shared_->get({});
}
template <typename Container>
void InterprocessPeer<Container>::set_header_word(uint32_t value) {
    shared_->set({}, value);
}
template <typename Container>
uint32_t InterprocessPeer<Container>::server_word(const Name& server) const {
    return shared_->get({server, {}, {}});
}
template <typename Container>
void InterprocessPeer<Container>::set_server_word(const Name& server, uint32_t value) {
    shared_->set({server, {}, {}}, value);
}
template <typename Container>
uint32_t InterprocessPeer<Container>::pair(const Asked& asked) const {
    return shared_->get(key_of(asked));
}
template <typename Container>
void InterprocessPeer<Container>::set_pair(const Asked& asked, uint32_t value) {
    shared_->set(key_of(asked), value);
}
// A container of single words needs one lookup per word; the caller knows the names.
template <typename Container>
size_t InterprocessPeer<Container>::row(const Asked& asked, uint32_t* words) const {
    Key key = key_of(asked);
    const auto servers = static_cast<size_t>(shared_->cluster.servers);
    for (size_t server = 0; server < servers; ++server) {
        key.server = Names::servers()[server];
        words[server] = shared_->get(key);
    }
    return servers;
}
template <typename Container>
void InterprocessPeer<Container>::column(const Asked& asked, uint32_t* words) const {
    Key key = key_of(asked);
    const auto resources = static_cast<size_t>(shared_->cluster.resources);
    for (size_t resource = 0; resource < resources; ++resource) {
        key.resource = Names::resources()[resource];
        words[resource] = shared_->get(key);
    }
}
template <typename Container>
void InterprocessPeer<Container>::lock() {
    shared_->mutex.lock();
}
template <typename Container>
void InterprocessPeer<Container>::unlock() {
    shared_->mutex.unlock();
}
template <typename Container>
size_t InterprocessPeer<Container>::picture_size() const {
    return shared_->words->size() * (sizeof(Key) + sizeof(uint32_t));
}
template <typename Container>
size_t InterprocessPeer<Container>::picture(uint8_t* bytes, size_t room) const {
    if (room < picture_size()) return 0;
    uint8_t* to = bytes;
    for (const auto& [key, value] : *shared_->words) {
        std::memcpy(to, &key, sizeof key);
        std::memcpy(to + sizeof key, &value, sizeof value);
        to += sizeof key + sizeof value;
    }
    return static_cast<size_t>(to - bytes);
}

template class InterprocessPeer<InterprocessMap>;
template class InterprocessPeer<InterprocessHash>;

}  // namespace bench
