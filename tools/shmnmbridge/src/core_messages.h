// What the core takes in and gives out. The transport turns requests into etcd's JSON and answers back; the driver
// looks at the region and makes batches.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "core_words.h"

namespace bridge {

struct Compare {
    std::string key;
    int64_t revision = 0;  ///< of its last change; 0: the key does not exist
};
struct Put {
    std::string key, value;
    int64_t lease = 0;  ///< 0: none
};

/// All puts and deletions if every compare holds, else nothing but the reads.
struct Transaction {
    std::vector<Compare> compares;
    std::vector<Put> puts;
    std::vector<std::string> deletions, reads;
};
/// A linearizable read of all keys below a prefix.
struct Range {
    std::string prefix;
};
struct Grant {
    Time life = 0;
};
struct KeepAlive {
    int64_t lease = 0;
};
struct Request {
    uint64_t id = 0;
    std::variant<Transaction, Range, Grant, KeepAlive> body;
};
/// All changes below a prefix from a revision on, until they are no longer wanted or the stream ends.
struct Watch {
    uint64_t id = 0;
    std::string prefix;
    int64_t from = 0;
};
struct Unwatch {
    uint64_t id = 0;
};
using Send = std::variant<Request, Watch, Unwatch>;

struct KeyValue {
    std::string key;
    std::optional<std::string> value;  ///< nothing: deleted
    int64_t revision = 0;              ///< of its last change
};

enum class Outcome {
    done,
    compare_failed,
    no_lease,  ///< the lease has ended; nothing was written
    failed,    ///< etcd refused: no leader, database full, token lost
    timed_out  ///< whether it was done, or is going to be, is not known
};

struct Answer {
    uint64_t request = 0;
    Outcome outcome = Outcome::failed;
    uint64_t cluster = 0;  ///< which etcd answered; 0: none did
    int64_t revision = 0;
    /// Of a range, or of the reads of a transaction whose compare failed: there a missing key has no value, and the
    /// answer's revision.
    std::vector<KeyValue> values = {};
    int64_t lease = 0;         ///< of a grant
    bool lease_lives = false;  ///< of a keep-alive
};

struct Events {
    uint64_t watch = 0;
    uint64_t cluster = 0;
    std::vector<KeyValue> events;
};
struct WatchEnded {
    uint64_t watch = 0;
};

/// A call of the library that sets one word, or the pair `hbinfo`.
struct Call {
    enum class Setter { server_word, svstat, network, header_word, stat };

    Setter setter = Setter::server_word;
    size_t word = 0;         ///< of server_words or header_words
    std::string server{};    ///< of a server's word, svstat and network
    int32_t pri = 0;         ///< of this server here, by which the library finds its column
    std::string resource{};  ///< the key of a resource
    AgreedValue value{};
    /// If the region holds another value, or the server has another priority there, the call is skipped.
    std::optional<AgreedValue> expected{};

    bool operator==(const Call&) const = default;
};

/// Calls that are made under one hold of the region's lock. Before them the driver checks that the region is still the
/// object that was looked at, laid out by the same counts; otherwise it makes none.
struct Batch {
    uint64_t id = 0;
    uint64_t object = 0;
    picture::Counts counts;
    std::vector<Call> calls;
};
struct BatchDone {
    uint64_t batch = 0;
    bool made = false;            ///< false: no call was made
    std::vector<size_t> skipped;  ///< calls whose word or priority was not the expected one
};

/// What a step of the core asks for. Everything is sent before the batch is made.
struct Output {
    std::vector<Send> sends;
    std::optional<Batch> batch;
    std::vector<std::string> notices;  ///< for the log
};

}  // namespace bridge
