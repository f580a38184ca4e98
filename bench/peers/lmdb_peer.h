// LMDB on a memory disk, without syncing and with a writable map. Each read is one transaction, and so is each write
// outside lock() and unlock(). Between lock() and unlock() all writes share one transaction. The lock is LMDB's writer
// lock.
#pragma once

#include <lmdb.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "cluster.h"

namespace bench {

class LmdbPeer {
  public:
    static constexpr const char* who = "peer_lmdb";

    explicit LmdbPeer(const Place& place);
    ~LmdbPeer();
    LmdbPeer(const LmdbPeer&) = delete;
    LmdbPeer& operator=(const LmdbPeer&) = delete;

    void fill(const Cluster& cluster);

    uint32_t header_word();
    void set_header_word(uint32_t value);
    uint32_t server_word(const Name& server);
    void set_server_word(const Name& server, uint32_t value);
    uint32_t pair(const Asked& asked);
    void set_pair(const Asked& asked, uint32_t value);
    size_t row(const Asked& asked, uint32_t* words);
    void column(const Asked& asked, uint32_t* words);
    void lock();
    void unlock();
    size_t picture_size();
    /// Copies every key with its word.
    size_t picture(uint8_t* bytes, size_t room);

  private:
    uint32_t get(std::string_view key);
    void set(std::string_view key, uint32_t value);
    template <typename Do>
    void each(std::string_view prefix, const Do& what);

    std::string path_;
    bool created_;
    Cluster cluster_{};
    MDB_env* environment_ = nullptr;
    MDB_dbi table_ = 0;
    MDB_txn* reader_ = nullptr;  ///< reset between uses
    MDB_txn* writer_ = nullptr;  ///< open while the lock is held
};

}  // namespace bench
