// The library, as its users call it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>

#include "cluster.h"
#include "shmnm.h"

namespace bench {

class Library {
  public:
    static constexpr const char* who = "library";

    explicit Library(const Place& place) : created_(place.create) {
        expect(created_ ? shmnm_create() : shmnm_attach());
    }
    ~Library() { created_ ? shmnm_delete() : shmnm_detach(); }
    Library(const Library&) = delete;
    Library& operator=(const Library&) = delete;

    static void fill(const Cluster& cluster) {
        for (int32_t i = 0; i < cluster.servers; ++i) expect(shmnm_addnode(Cluster::server(i).data(), i));
        for (int32_t i = 0; i < cluster.resources; ++i) {
            expect(shmnm_addhbrsc(Cluster::type.data(), Cluster::resource(i).data(), static_cast<uint32_t>(i)));
        }
    }

    static uint32_t header_word() {
        uint32_t value = 0;
        shmnm_getclstat(&value);
        return value;
    }
    static void set_header_word(uint32_t value) { shmnm_setclstat(value); }
    static uint32_t server_word(const Name& server) {
        uint32_t value = 0;
        shmnm_getnodestat(server.data(), &value);
        return value;
    }
    static void set_server_word(const Name& server, uint32_t value) { shmnm_setnodestat(server.data(), value); }
    static uint32_t pair(const Asked& asked) {
        uint32_t value = 0;
        shmnm_gethbrscsvstat(asked.type.data(), asked.resource.data(), asked.priority, &value);
        return value;
    }
    static void set_pair(const Asked& asked, uint32_t value) {
        shmnm_sethbrscsvstat(asked.type.data(), asked.resource.data(), asked.priority, value);
    }
    /// @return the number of words
    static size_t row(const Asked& asked, uint32_t* words) {
        uint32_t size = sizeof(uint32_t) * max_servers;
        shmnm_enumhbrscsvstat(asked.type.data(), asked.resource.data(), words, &size);
        return size / sizeof(uint32_t);
    }
    static void column(const Asked& asked, uint32_t* words) {
        uint32_t size = sizeof(uint32_t) * max_resources;
        shmnm_enumsvhbrscstat(asked.server.data(), words, &size);
    }
    static void lock() { shmnm_rwlock(0xFFFFFFFF); }
    static void unlock() { shmnm_rwunlock(); }
    static size_t picture_size() {
        int32_t size = 0;
        shmnm_dump(nullptr, &size);
        return static_cast<size_t>(size);
    }
    /// @return the number of bytes
    static size_t picture(uint8_t* bytes, size_t room) {
        auto size = static_cast<int32_t>(room);
        shmnm_dump(bytes, &size);
        return static_cast<size_t>(size);
    }

  private:
    static void expect(uint32_t result) {
        if (result != SHMNM_OK) throw std::runtime_error("the library answers " + std::to_string(result));
    }
    bool created_;
};

}  // namespace bench
