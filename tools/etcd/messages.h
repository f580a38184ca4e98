// What can be asked of etcd, and what it answers. Keys and values are bytes.
#pragma once

#include <cstdint>
#include <string>
#include <variant>
#include <vector>

namespace etcd {

/// Keys from `first` up to, but without, `end`; `end` is empty: only `first`.
struct Keys {
    std::string first, end = {};
};
Keys below(const std::string& prefix);

/// Holds if a property of the key equals a value. A key that does not exist has the revisions 0.
struct Compare {
    enum class Property { mod_revision, create_revision, value };
    std::string key;
    Property property = Property::mod_revision;
    int64_t revision = 0;
    std::string value = {};
};

struct Put {
    std::string key, value;
    int64_t lease = 0;  ///< 0: none
};
struct Delete {
    Keys keys;
};
struct Read {
    Keys keys;
};
using Operation = std::variant<Put, Delete, Read>;

/// Does `then` if all compares hold, else `otherwise`. Linearizable, like all requests.
struct Transaction {
    std::vector<Compare> compares;
    std::vector<Operation> then, otherwise = {};
};
struct Grant {
    int64_t seconds = 0;
};
struct KeepAlive {
    int64_t lease = 0;
};
struct Revoke {
    int64_t lease = 0;
};
struct Compact {
    int64_t revision = 0;
};
using Request = std::variant<Transaction, Read, Put, Grant, KeepAlive, Revoke, Compact>;

/// Changes of keys from a revision on.
struct Watch {
    Keys keys;
    int64_t from = 0;  ///< 0: from now on
};

struct KeyValue {
    std::string key, value;
    int64_t create_revision = 0, mod_revision = 0, version = 0, lease = 0;
};
struct Event {
    bool is_deletion = false;
    KeyValue entry;  ///< of a deletion only the key and the revision of its end
};

enum class Failure {
    none,
    not_sent,         ///< no member took the request in time: it is not carried out
    timed_out,        ///< no answer in time: whether it was carried out, or will be, is not known
    cut,              ///< the connection ended before the answer: not known either
    unavailable,      ///< the member has lost its leader: not known either
    invalid_answer,   ///< it is not an answer of etcd: not known either
    full,             ///< the database is over its quota; nothing was written
    unauthenticated,  ///< the user, its password or its token is refused
    denied,           ///< the user has no right to do it
    no_lease,         ///< the lease does not exist; nothing was written
    compacted,        ///< the revision is gone
    refused           ///< for any other reason; nothing was done
};
/// Whether a request that failed in this way may have been, or may still be carried out.
bool may_be_done(Failure failure);

struct Answer {
    Failure failure = Failure::none;
    std::string reason = {};  ///< of a failure, for people; printable, without secrets
    uint64_t cluster = 0;     ///< which etcd answered; 0: none did
    int64_t revision = 0;     ///< of the store when it answered
    bool succeeded = false;   ///< a transaction: its compares held
    /// A transaction: what each read found, in their order. A read: one element.
    std::vector<std::vector<KeyValue>> found = {};
    int64_t lease = 0;    ///< of a grant
    int64_t seconds = 0;  ///< that a lease lives on, after a grant or a keep-alive; 0 after a keep-alive: it has ended
};

/// A message of a watch's stream.
struct WatchMessage {
    uint64_t cluster = 0;
    int64_t revision = 0;  ///< every change up to it has been told
    bool created = false;  ///< the first message
    std::vector<Event> events = {};
};

struct WatchEnd {
    Failure failure = Failure::none;
    std::string reason = {};
    int64_t compact_revision = 0;  ///< if the changes were compacted: the first revision that is left
};

}  // namespace etcd
