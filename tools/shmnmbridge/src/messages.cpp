#include "messages.h"

#include <algorithm>

namespace bridge {
namespace {

etcd::Request to_etcd(const Transaction& transaction) {
    etcd::Transaction made;
    for (const Compare& compare : transaction.compares) {
        made.compares.push_back({.key = compare.key, .revision = compare.revision});
    }
    for (const Put& put : transaction.puts) made.then.emplace_back(etcd::Put{put.key, put.value, put.lease});
    for (const std::string& key : transaction.deletions) made.then.emplace_back(etcd::Delete{{.first = key}});
    for (const std::string& key : transaction.reads) made.otherwise.emplace_back(etcd::Read{{.first = key}});
    return made;
}
etcd::Request to_etcd(const Range& range) {
    return etcd::Read{etcd::below(range.prefix)};
}
etcd::Request to_etcd(const Grant& grant) {
    constexpr Time ms_per_s = 1'000;
    return etcd::Grant{(grant.life + ms_per_s - 1) / ms_per_s};
}
etcd::Request to_etcd(const KeepAlive& keep_alive) {
    return etcd::KeepAlive{keep_alive.lease};
}

Outcome outcome_of(etcd::Failure failure) {
    if (failure == etcd::Failure::none) return Outcome::done;
    if (failure == etcd::Failure::no_lease) return Outcome::no_lease;
    return etcd::may_be_done(failure) ? Outcome::timed_out : Outcome::failed;
}

KeyValue from_etcd(const etcd::KeyValue& entry) {
    return {entry.key, entry.value, entry.mod_revision};
}

/// What the reads of a transaction whose compares failed have found.
std::vector<KeyValue> found(const Transaction& transaction, const etcd::Answer& answer) {
    std::vector<KeyValue> values;
    for (size_t at = 0; at < std::min(transaction.reads.size(), answer.found.size()); ++at) {
        const auto& entries = answer.found[at];
        values.push_back(entries.empty() ? KeyValue{transaction.reads[at], std::nullopt, answer.revision}
                                         : from_etcd(entries.front()));
    }
    return values;
}

}  // namespace

etcd::Request to_etcd(const Request& request) {
    return std::visit([](const auto& body) { return to_etcd(body); }, request.body);
}

etcd::Watch to_etcd(const Watch& watch) {
    return {.keys = etcd::below(watch.prefix), .from = watch.from};
}

Answer from_etcd(const Request& request, const etcd::Answer& answer) {
    Answer made{.request = request.id,
                .outcome = outcome_of(answer.failure),
                .cluster = answer.cluster,
                .revision = answer.revision,
                .lease = answer.lease,
                .lease_lives = answer.seconds > 0};
    if (made.outcome != Outcome::done) {
        // A keep-alive is told that its lease has ended.
        if (made.outcome == Outcome::no_lease && std::holds_alternative<KeepAlive>(request.body)) {
            made.outcome = Outcome::done;
        }
        return made;
    }
    if (const auto* const transaction = std::get_if<Transaction>(&request.body); transaction && !answer.succeeded) {
        made.outcome = Outcome::compare_failed;
        made.values = found(*transaction, answer);
    }
    if (std::holds_alternative<Range>(request.body) && !answer.found.empty()) {
        for (const etcd::KeyValue& entry : answer.found.front()) made.values.push_back(from_etcd(entry));
    }
    return made;
}

Events from_etcd(uint64_t watch, const etcd::WatchMessage& message) {
    Events events{.watch = watch, .cluster = message.cluster, .events = {}};
    for (const etcd::Event& event : message.events) {
        KeyValue& change = events.events.emplace_back(from_etcd(event.entry));
        if (event.is_deletion) change.value.reset();
    }
    return events;
}

}  // namespace bridge
