#include "sqlite_peer.h"

#include <unistd.h>

#include <cstring>
#include <stdexcept>

namespace bench {

/// Binds the arguments of a prepared statement, and resets it at the end of the scope.
class SqlitePeer::Statement {
  public:
    template <typename... Arguments>
    explicit Statement(sqlite3_stmt* statement, const Arguments&... arguments) : statement_(statement) {
        int index = 0;
        (bind(++index, arguments), ...);
    }
    ~Statement() { sqlite3_reset(statement_); }
    Statement(const Statement&) = delete;
    Statement& operator=(const Statement&) = delete;

    /// @return whether there is a row
    bool step() const {
        const int result = sqlite3_step(statement_);
        if (result != SQLITE_ROW && result != SQLITE_DONE) {
            throw std::runtime_error(std::string("SQLite: ") + sqlite3_errstr(result));
        }
        return result == SQLITE_ROW;
    }
    uint32_t word(int column = 0) const { return static_cast<uint32_t>(sqlite3_column_int64(statement_, column)); }
    const void* text(int column) const { return sqlite3_column_text(statement_, column); }
    size_t text_size(int column) const { return static_cast<size_t>(sqlite3_column_bytes(statement_, column)); }

  private:
    void bind(int index, uint32_t value) const { sqlite3_bind_int64(statement_, index, value); }
    void bind(int index, const Name& name) const {
        sqlite3_bind_text(statement_, index, name.data(), -1, SQLITE_STATIC);
    }
    sqlite3_stmt* statement_;
};

SqlitePeer::SqlitePeer(const Place& place) : path_("/dev/shm/" + place.scratch + "sqlite"), created_(place.create) {
    if (sqlite3_open(path_.c_str(), &database_) != SQLITE_OK) throw std::runtime_error("SQLite: no " + path_);
    sqlite3_busy_timeout(database_, 10'000);
    run("PRAGMA journal_mode=WAL");
    run("PRAGMA synchronous=OFF");
    if (created_) {
        run("CREATE TABLE header(word INTEGER)");
        run("CREATE TABLE server(name TEXT PRIMARY KEY, word INTEGER) WITHOUT ROWID");
        run("CREATE TABLE pair(type TEXT, resource TEXT, server TEXT, word INTEGER, PRIMARY KEY(type, resource, "
            "server)) "
            "WITHOUT ROWID");
        run("INSERT INTO header VALUES(2)");
    }
    const auto prepared = [&](const char* sql) {
        sqlite3_stmt* statement = nullptr;
        if (sqlite3_prepare_v3(database_, sql, -1, SQLITE_PREPARE_PERSISTENT, &statement, nullptr) != SQLITE_OK) {
            throw std::runtime_error(std::string("SQLite: ") + sqlite3_errmsg(database_));
        }
        return statement;
    };
    get_header_ = prepared("SELECT word FROM header");
    set_header_ = prepared("UPDATE header SET word=?");
    get_server_ = prepared("SELECT word FROM server WHERE name=?");
    set_server_ = prepared("INSERT OR REPLACE INTO server(word, name) VALUES(?, ?)");
    get_pair_ = prepared("SELECT word FROM pair WHERE type=? AND resource=? AND server=?");
    set_pair_ = prepared("INSERT OR REPLACE INTO pair(word, type, resource, server) VALUES(?, ?, ?, ?)");
    row_ = prepared("SELECT word FROM pair WHERE type=? AND resource=? ORDER BY server");
    column_ = prepared("SELECT word FROM pair WHERE type=? AND resource=? AND server=?");
    all_ = prepared("SELECT type, resource, server, word FROM pair");
    begin_ = prepared("BEGIN IMMEDIATE");
    commit_ = prepared("COMMIT");
}
SqlitePeer::~SqlitePeer() {
    while (sqlite3_stmt* const statement = sqlite3_next_stmt(database_, nullptr)) sqlite3_finalize(statement);
    sqlite3_close(database_);
    if (!created_) return;
    for (const char* const suffix : {"", "-wal", "-shm"}) unlink((path_ + suffix).c_str());
}

void SqlitePeer::run(const char* sql) {
    if (sqlite3_exec(database_, sql, nullptr, nullptr, nullptr) != SQLITE_OK) {
        throw std::runtime_error(std::string("SQLite: ") + sqlite3_errmsg(database_));
    }
}

void SqlitePeer::fill(const Cluster& cluster) {
    cluster_ = cluster;
    lock();
    for (int32_t server = 0; server < cluster.servers; ++server) {
        set_server_word(Cluster::server(server), 2);
        for (int32_t resource = 0; resource < cluster.resources; ++resource) {
            Statement(set_pair_, 2U, Cluster::type, Cluster::resource(resource), Cluster::server(server)).step();
        }
    }
    unlock();
}

uint32_t SqlitePeer::header_word() {
    const Statement statement(get_header_);
    return statement.step() ? statement.word() : 0;
}
void SqlitePeer::set_header_word(uint32_t value) {
    Statement(set_header_, value).step();
}
uint32_t SqlitePeer::server_word(const Name& server) {
    const Statement statement(get_server_, server);
    return statement.step() ? statement.word() : 0;
}
void SqlitePeer::set_server_word(const Name& server, uint32_t value) {
    Statement(set_server_, value, server).step();
}
uint32_t SqlitePeer::pair(const Asked& asked) {
    const Statement statement(get_pair_, asked.type, asked.resource, asked.server);
    return statement.step() ? statement.word() : 0;
}
void SqlitePeer::set_pair(const Asked& asked, uint32_t value) {
    Statement(set_pair_, value, asked.type, asked.resource, asked.server).step();
}
size_t SqlitePeer::row(const Asked& asked, uint32_t* words) {
    const Statement statement(row_, asked.type, asked.resource);
    size_t count = 0;
    while (statement.step()) words[count++] = statement.word();
    return count;
}
void SqlitePeer::column(const Asked& asked, uint32_t* words) {
    for (int32_t resource = 0; resource < cluster_.resources; ++resource) {
        const Statement statement(column_, asked.type, Names::resources()[static_cast<size_t>(resource)], asked.server);
        words[resource] = statement.step() ? statement.word() : 0;
    }
}
void SqlitePeer::lock() {
    Statement(begin_).step();
}
void SqlitePeer::unlock() {
    Statement(commit_).step();
}
size_t SqlitePeer::picture_size() {
    const Statement statement(all_);
    size_t size = 0;
    while (statement.step())
        size += sizeof(uint32_t) + statement.text_size(0) + statement.text_size(1) + statement.text_size(2);
    return size;
}
size_t SqlitePeer::picture(uint8_t* bytes, size_t room) {
    const Statement statement(all_);
    size_t used = 0;
    while (statement.step()) {
        for (int column = 0; column < 3; ++column) {
            const size_t size = statement.text_size(column);
            if (used + size > room) return 0;
            std::memcpy(bytes + used, statement.text(column), size);
            used += size;
        }
        const uint32_t word = statement.word(3);
        if (used + sizeof word > room) return 0;
        std::memcpy(bytes + used, &word, sizeof word);
        used += sizeof word;
    }
    return used;
}

}  // namespace bench
