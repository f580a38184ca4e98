#include "lmdb_peer.h"

#include <unistd.h>

#include <cstring>
#include <stdexcept>

namespace bench {
namespace {

void expect(int result) {
    if (result != MDB_SUCCESS) throw std::runtime_error(std::string("LMDB: ") + mdb_strerror(result));
}

/// A key, composed on the stack: "c" for the cluster, "s/SERVER" for a server, "r/TYPE/RESOURCE/SERVER" for a pair.
class KeyText {
  public:
    explicit KeyText(char kind) { text_[size_++] = kind; }
    KeyText& operator/(const Name& name) {
        text_[size_++] = '/';
        const size_t length = std::strlen(name.data());
        std::memcpy(text_ + size_, name.data(), length);
        size_ += length;
        return *this;
    }
    operator std::string_view() const { return {text_, size_}; }

  private:
    char text_[64];
    size_t size_ = 0;
};

MDB_val value_of(std::string_view text) {
    return {text.size(), const_cast<char*>(text.data())};
}
std::string_view text_of(const MDB_val& value) {
    return {static_cast<const char*>(value.mv_data), value.mv_size};
}
uint32_t word_of(const MDB_val& value) {
    uint32_t word = 0;
    std::memcpy(&word, value.mv_data, sizeof word);
    return word;
}

}  // namespace

LmdbPeer::LmdbPeer(const Place& place) : path_("/dev/shm/" + place.scratch + "lmdb"), created_(place.create) {
    expect(mdb_env_create(&environment_));
    expect(mdb_env_set_mapsize(environment_, size_t{16} << 20));
    expect(mdb_env_open(environment_, path_.c_str(), MDB_NOSUBDIR | MDB_NOSYNC | MDB_WRITEMAP, 0600));
    MDB_txn* transaction = nullptr;
    // Only the creator needs the writer's lock.
    expect(mdb_txn_begin(environment_, nullptr, created_ ? 0 : MDB_RDONLY, &transaction));
    expect(mdb_dbi_open(transaction, nullptr, 0, &table_));
    expect(mdb_txn_commit(transaction));
    expect(mdb_txn_begin(environment_, nullptr, MDB_RDONLY, &reader_));
    mdb_txn_reset(reader_);
}
LmdbPeer::~LmdbPeer() {
    mdb_txn_abort(reader_);
    mdb_env_close(environment_);
    if (created_) {
        unlink(path_.c_str());
        unlink((path_ + "-lock").c_str());
    }
}

void LmdbPeer::fill(const Cluster& cluster) {
    cluster_ = cluster;
    lock();
    set(KeyText('c'), 2);
    for (int32_t server = 0; server < cluster.servers; ++server) {
        set_server_word(Cluster::server(server), 2);
        for (int32_t resource = 0; resource < cluster.resources; ++resource) {
            set(KeyText('r') / Cluster::type / Cluster::resource(resource) / Cluster::server(server), 2);
        }
    }
    unlock();
}

uint32_t LmdbPeer::get(std::string_view key) {
    MDB_txn* const transaction = writer_ ? writer_ : reader_;
    if (!writer_) expect(mdb_txn_renew(reader_));
    MDB_val name = value_of(key), data{};
    const int result = mdb_get(transaction, table_, &name, &data);
    const uint32_t word = result == MDB_SUCCESS ? word_of(data) : 0;
    if (!writer_) mdb_txn_reset(reader_);
    return word;
}
void LmdbPeer::set(std::string_view key, uint32_t value) {
    MDB_txn* transaction = writer_;
    if (!writer_) expect(mdb_txn_begin(environment_, nullptr, 0, &transaction));
    MDB_val name = value_of(key), data{sizeof value, &value};
    expect(mdb_put(transaction, table_, &name, &data, 0));
    if (!writer_) expect(mdb_txn_commit(transaction));
}
template <typename Do>
void LmdbPeer::each(std::string_view prefix, const Do& what) {
    if (!writer_) expect(mdb_txn_renew(reader_));
    MDB_cursor* cursor = nullptr;
    expect(mdb_cursor_open(writer_ ? writer_ : reader_, table_, &cursor));
    MDB_val key = value_of(prefix), data{};
    for (int result = mdb_cursor_get(cursor, &key, &data, prefix.empty() ? MDB_FIRST : MDB_SET_RANGE);
         result == MDB_SUCCESS && text_of(key).starts_with(prefix);
         result = mdb_cursor_get(cursor, &key, &data, MDB_NEXT)) {
        what(text_of(key), word_of(data));
    }
    mdb_cursor_close(cursor);
    if (!writer_) mdb_txn_reset(reader_);
}

uint32_t LmdbPeer::header_word() {
    return get(KeyText('c'));
}
void LmdbPeer::set_header_word(uint32_t value) {
    set(KeyText('c'), value);
}
uint32_t LmdbPeer::server_word(const Name& server) {
    return get(KeyText('s') / server);
}
void LmdbPeer::set_server_word(const Name& server, uint32_t value) {
    set(KeyText('s') / server, value);
}
uint32_t LmdbPeer::pair(const Asked& asked) {
    return get(KeyText('r') / asked.type / asked.resource / asked.server);
}
void LmdbPeer::set_pair(const Asked& asked, uint32_t value) {
    set(KeyText('r') / asked.type / asked.resource / asked.server, value);
}
// All servers' names have the same number of digits, so the keys are in the order of the servers.
size_t LmdbPeer::row(const Asked& asked, uint32_t* words) {
    size_t count = 0;
    each(KeyText('r') / asked.type / asked.resource / Name{},
         [&](std::string_view, uint32_t word) { words[count++] = word; });
    return count;
}
void LmdbPeer::column(const Asked& asked, uint32_t* words) {
    const bool in_transaction = writer_ != nullptr;
    if (!in_transaction) expect(mdb_txn_renew(reader_));
    for (int32_t resource = 0; resource < cluster_.resources; ++resource) {
        const KeyText text =
            KeyText('r') / asked.type / Names::resources()[static_cast<size_t>(resource)] / asked.server;
        MDB_val key = value_of(text), data{};
        expect(mdb_get(in_transaction ? writer_ : reader_, table_, &key, &data));
        words[resource] = word_of(data);
    }
    if (!in_transaction) mdb_txn_reset(reader_);
}
void LmdbPeer::lock() {
    expect(mdb_txn_begin(environment_, nullptr, 0, &writer_));
}
void LmdbPeer::unlock() {
    MDB_txn* const transaction = writer_;
    writer_ = nullptr;
    expect(mdb_txn_commit(transaction));
}
size_t LmdbPeer::picture_size() {
    size_t size = 0;
    each({}, [&](std::string_view key, uint32_t) { size += key.size() + sizeof(uint32_t); });
    return size;
}
size_t LmdbPeer::picture(uint8_t* bytes, size_t room) {
    size_t used = 0;
    each({}, [&](std::string_view key, uint32_t word) {
        if (used + key.size() + sizeof word > room) return;
        std::memcpy(bytes + used, key.data(), key.size());
        std::memcpy(bytes + used + key.size(), &word, sizeof word);
        used += key.size() + sizeof word;
    });
    return used;
}

}  // namespace bench
