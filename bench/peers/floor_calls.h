// The floor as a contestant: it works on a copy of the bytes that the library's region holds when the rows begin.
#pragma once

#include <cstring>
#include <string>

#include "cluster.h"
#include "floor.h"
#include "library.h"
#include "platform.h"

namespace bench {

class Floor {
  public:
    static constexpr const char* who = "floor";

    explicit Floor(const Place& place)
        : size_(Library::picture_size()),
          memory_(place.scratch + "floor", size_, place.create),
          mutex_(place.scratch + "floormutex", RobustMutex::size + 64, place.create) {
        constexpr uint64_t servers = sizeof(shmnm_header), resources = servers + sizeof(shmnm_server) * max_servers;
        floor_open(static_cast<uint8_t*>(memory_.get()), static_cast<uint32_t>(size_), mutex_.get(),
                   (place.scratch + "floorlock").c_str(), place.create, servers, resources);
    }

    /// Call it after the library has been filled.
    void fill(const Cluster&) { Library::picture(static_cast<uint8_t*>(memory_.get()), size_); }

    static uint32_t header_word() {
        uint32_t value = 0;
        floor_get_header_word(&value);
        return value;
    }
    static void set_header_word(uint32_t value) { floor_set_header_word(value); }
    static uint32_t server_word(const Name& server) {
        uint32_t value = 0;
        floor_get_server_word(server.data(), &value);
        return value;
    }
    static void set_server_word(const Name& server, uint32_t value) { floor_set_server_word(server.data(), value); }
    static uint32_t pair(const Asked& asked) {
        uint32_t value = 0;
        floor_get_pair(asked.type.data(), asked.resource.data(), asked.priority, &value);
        return value;
    }
    static void set_pair(const Asked& asked, uint32_t value) {
        floor_set_pair(asked.type.data(), asked.resource.data(), asked.priority, value);
    }
    static size_t row(const Asked& asked, uint32_t* words) {
        uint32_t size = sizeof(uint32_t) * max_servers;
        floor_row(asked.type.data(), asked.resource.data(), words, &size);
        return size / sizeof(uint32_t);
    }
    static void column(const Asked& asked, uint32_t* words) {
        uint32_t size = sizeof(uint32_t) * max_resources;
        floor_column(asked.server.data(), words, &size);
    }
    static void lock() { floor_take(0xFFFFFFFF); }
    static void unlock() { floor_release(); }
    size_t picture_size() const { return size_; }
    static size_t picture(uint8_t* bytes, size_t room) {
        auto size = static_cast<int32_t>(room);
        floor_copy(bytes, &size);
        return static_cast<size_t>(size);
    }

  private:
    size_t size_;
    SharedMemory memory_, mutex_;
};

}  // namespace bench
