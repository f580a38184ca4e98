// Boost.Interprocess: a managed segment of shared memory that holds a container of words by a composite key, and a
// named mutex. Two containers compete: a map and a hash table.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "cluster.h"

namespace bench {

/// The common part of both peers; `Container` is the map or the hash table.
template <typename Container>
class InterprocessPeer {
  public:
    static constexpr const char* who = Container::who;

    explicit InterprocessPeer(const Place& place);
    ~InterprocessPeer();
    InterprocessPeer(const InterprocessPeer&) = delete;
    InterprocessPeer& operator=(const InterprocessPeer&) = delete;

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
    size_t picture_size() const;
    /// Copies every key with its word.
    size_t picture(uint8_t* bytes, size_t room) const;

  private:
    struct Shared;
    std::unique_ptr<Shared> shared_;
};

struct InterprocessMap {
    static constexpr const char* who = "peer_interprocess_map";
};
struct InterprocessHash {
    static constexpr const char* who = "peer_interprocess_hash";
};
extern template class InterprocessPeer<InterprocessMap>;
extern template class InterprocessPeer<InterprocessHash>;

}  // namespace bench
