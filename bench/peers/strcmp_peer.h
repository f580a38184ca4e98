// What a programmer writes in an afternoon: a struct in shared memory, strcmp() over its tables, a robust mutex.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "cluster.h"
#include "platform.h"

namespace bench {

class StrcmpPeer {
  public:
    static constexpr const char* who = "peer_strcmp";

    explicit StrcmpPeer(const Place& place);
    void fill(const Cluster& cluster);

    uint32_t header_word() const;
    void set_header_word(uint32_t value);
    uint32_t server_word(const Name& server) const;
    void set_server_word(const Name& server, uint32_t value);
    uint32_t pair(const Asked& asked) const;
    void set_pair(const Asked& asked, uint32_t value);
    size_t row(const Asked& asked, uint32_t* words) const;
    void column(const Asked& asked, uint32_t* words) const;
    void lock();
    void unlock();
    static size_t picture_size();
    size_t picture(uint8_t* bytes, size_t room) const;

  private:
    struct Server {
        char name[256];
        int32_t priority;
        uint32_t nodestat, other_words[5];
    };
    struct Resource {
        char type[32], name[32];
        uint32_t stat, on_server[max_servers];
    };
    struct Table {
        uint32_t header_word, other_words[4];
        int32_t server_count, resource_count;
        Server servers[max_servers];
        Resource resources[max_resources];
    };

    int32_t find_server(const char* name) const;
    int32_t find_server(int32_t priority) const;
    int32_t find_resource(const char* type, const char* name) const;

    SharedMemory memory_, mutex_memory_;
    RobustMutex mutex_;
    Table& table_;
};

}  // namespace bench
