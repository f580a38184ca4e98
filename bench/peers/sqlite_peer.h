// SQLite on a memory disk, with a write-ahead log and without syncing. Every statement is prepared once. A statement
// outside lock() and unlock() is one transaction. The lock is SQLite's writer lock.
#pragma once

#include <sqlite3.h>

#include <cstddef>
#include <cstdint>
#include <string>

#include "cluster.h"

namespace bench {

class SqlitePeer {
  public:
    static constexpr const char* who = "peer_sqlite";

    explicit SqlitePeer(const Place& place);
    ~SqlitePeer();
    SqlitePeer(const SqlitePeer&) = delete;
    SqlitePeer& operator=(const SqlitePeer&) = delete;

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
    /// Copies the names and the word of every pair.
    size_t picture(uint8_t* bytes, size_t room);

  private:
    class Statement;

    void run(const char* sql);

    std::string path_;
    bool created_;
    Cluster cluster_{};
    sqlite3* database_ = nullptr;
    sqlite3_stmt *get_header_, *set_header_, *get_server_, *set_server_, *get_pair_, *set_pair_, *row_, *column_, *all_,
        *begin_, *commit_;
};

}  // namespace bench
