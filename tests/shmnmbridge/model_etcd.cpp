#include "shmnmbridge/model_etcd.h"

#include <algorithm>

namespace bridge::test {

Answer ModelEtcd::answer(const Request& request, Time now) {
    expire(now);
    if (const auto* const transaction = std::get_if<Transaction>(&request.body)) return transact(*transaction);
    if (const auto* const wanted = std::get_if<Range>(&request.body)) return range(*wanted);
    if (const auto* const grant = std::get_if<Grant>(&request.body)) {
        leases_[++last_lease_] = {grant->life, now + grant->life};
        Answer answer = reply(Outcome::done);
        answer.lease = last_lease_;
        return answer;
    }
    const auto lease = leases_.find(std::get<KeepAlive>(request.body).lease);
    if (lease != leases_.end()) lease->second.ends = now + lease->second.life;
    Answer answer = reply(Outcome::done);
    answer.lease_lives = lease != leases_.end();
    return answer;
}

Answer ModelEtcd::transact(const Transaction& transaction) {
    if (full_ && !transaction.puts.empty()) return reply(Outcome::failed);
    const bool holds =
        std::all_of(transaction.compares.begin(), transaction.compares.end(), [this](const auto& compare) {
            const KeyValue* const found = find(compare.key);
            return (found ? found->revision : 0) == compare.revision;
        });
    if (!holds) {
        Answer answer = reply(Outcome::compare_failed);
        for (const std::string& key : transaction.reads) {
            const KeyValue* const found = find(key);
            answer.values.push_back(found ? *found : KeyValue{key, std::nullopt, revision_});
        }
        return answer;
    }
    for (const Put& put : transaction.puts) {
        if (put.lease && !leases_.contains(put.lease)) return reply(Outcome::no_lease);
    }
    ++revision_;
    for (const Put& put : transaction.puts) {
        keys_[put.key] = {{put.key, put.value, revision_}, put.lease};
        history_.push_back(keys_[put.key].value);
    }
    for (const std::string& key : transaction.deletions) remove(key);
    return reply(Outcome::done);
}

Answer ModelEtcd::range(const Range& range) const {
    Answer answer = reply(Outcome::done);
    for (auto each = keys_.lower_bound(range.prefix); each != keys_.end() && each->first.starts_with(range.prefix);
         ++each) {
        answer.values.push_back(each->second.value);
    }
    return answer;
}

Answer ModelEtcd::reply(Outcome outcome) const {
    return {.request = 0, .outcome = outcome, .cluster = cluster_, .revision = revision_};
}

void ModelEtcd::remove(const std::string& key) {
    if (keys_.erase(key)) history_.push_back({key, std::nullopt, revision_});
}

void ModelEtcd::expire(Time now) {
    for (auto lease = leases_.begin(); lease != leases_.end();) {
        if (lease->second.ends > now) {
            ++lease;
            continue;
        }
        ++revision_;
        std::vector<std::string> keys;
        for (const auto& [key, entry] : keys_) {
            if (entry.lease == lease->first) keys.push_back(key);
        }
        for (const std::string& key : keys) remove(key);
        lease = leases_.erase(lease);
    }
}

void ModelEtcd::renew_leases(Time now) {
    for (auto& [id, lease] : leases_) lease.ends = std::max(lease.ends, now + lease.life);
}

void ModelEtcd::replace(bool same_cluster) {
    if (!same_cluster) ++cluster_;
    revision_ = 1;
    compacted_ = 0;
    keys_.clear();
    leases_.clear();
    history_.clear();
}

const KeyValue* ModelEtcd::find(const std::string& key) const {
    const auto found = keys_.find(key);
    return found == keys_.end() ? nullptr : &found->second.value;
}

}  // namespace bridge::test
