// A model of etcd: revisions, transactions, leases, compaction and its history. It answers at once; the network is the
// simulation's.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "core_messages.h"

namespace bridge::test {

class ModelEtcd {
  public:
    /// Answers a request, whose number the caller fills in. Changes are appended to the history.
    Answer answer(const Request& request, Time now);
    /// Ends the leases whose time is over, with their keys.
    void expire(Time now);
    /// A new leader gives every lease its whole life again.
    void renew_leases(Time now);
    void compact() { compacted_ = revision_; }
    /// Another etcd in its place, empty. @param[in] same_cluster  it has the same number
    void replace(bool same_cluster);
    void set_full(bool full) { full_ = full; }

    uint64_t cluster() const { return cluster_; }
    int64_t compacted() const { return compacted_; }
    const std::vector<KeyValue>& history() const { return history_; }
    const KeyValue* find(const std::string& key) const;

  private:
    struct Lease {
        Time life, ends;
    };
    struct Entry {
        KeyValue value;
        int64_t lease;
    };

    Answer transact(const Transaction& transaction);
    Answer range(const Range& range) const;
    Answer reply(Outcome outcome) const;
    void remove(const std::string& key);

    uint64_t cluster_ = 1;
    int64_t revision_ = 1, compacted_ = 0, last_lease_ = 0;
    bool full_ = false;
    std::map<std::string, Entry> keys_;
    std::map<int64_t, Lease> leases_;
    std::vector<KeyValue> history_;
};

}  // namespace bridge::test
