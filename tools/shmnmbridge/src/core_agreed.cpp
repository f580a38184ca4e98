#include "core_agreed.h"

#include <algorithm>

namespace bridge {
namespace {

constexpr Time contest_period = 10'000;
constexpr size_t losses_of_contest = 3;

}  // namespace

void AgreedWords::changed(std::string_view word, const KeyValue& change) {
    const auto found = entries_.find(word);
    Entry& entry = found != entries_.end() ? found->second : entries_[std::string(word)];
    const auto value = change.value ? proposal_from(*change.value) : std::nullopt;
    entry.etcd = value ? std::optional(value->value) : std::nullopt;
    if (entry.etcd && !is_value(word, *entry.etcd)) entry.etcd.reset();
    entry.revision = change.value ? change.revision : 0;
    if (!entry.etcd) entry.is_taken = false;
    if (entry.open && value && value->process == settings_.process && value->number == entry.open->number &&
        rules_.late_own_is_accepted) {
        accept(entry, change.revision);
    }
}

bool AgreedWords::is_value(std::string_view word, const AgreedValue& value) const {
    return word == header_words[hbinfo] ? is_pair(value) || !rules_.pair_needs_value : value[1] == 0;
}

void AgreedWords::forget() {
    for (auto& [key, entry] : entries_) {
        entry.etcd.reset();
        // Whatever a batch that is being made sets here is older than all that the other etcd holds.
        entry.revision = entry.applied = entry.base = entry.replaced = 0;
        renew(entry);
    }
}

void AgreedWords::drop_unused() {
    std::erase_if(entries_, [](const auto& each) {
        const Entry& entry = each.second;
        return !entry.is_there && !entry.etcd && !entry.open;
    });
}

void AgreedWords::look(Time now, const Look& look, const Continuity& continuity, bool connected) {
    if (continuity.is_changed) enter_all(look);
    for (const std::string& key : continuity.new_records) {
        if (const auto entry = entries_.find(key); entry != entries_.end()) renew(entry->second);
    }
    const bool may_be_new =
        !continuity.is_proven && std::any_of(entries_.begin(), entries_.end(), [this](const auto& each) {
            const Entry& entry = each.second;
            return entry.is_there && entry.is_taken && value_of(entry) != entry.agreed;
        });
    for (auto& [key, entry] : entries_) {
        entry.apply = false;
        if (continuity.is_new || may_be_new || !entry.is_there) renew(entry);
        if (entry.is_there) look_at(now, key, entry, connected);
    }
}

void AgreedWords::enter_all(const Look& look) {
    for (auto& [key, entry] : entries_) entry.is_there = false;
    for (size_t word = 0; word < header_words.size(); ++word) {
        const auto new_value = word == hbinfo ? std::nullopt : std::optional(AgreedValue{});
        enter(header_words[word], {.setter = Call::Setter::header_word, .word = word}, look.header[word], new_value);
    }
    for (const LookedResource& resource : look.resources) {
        enter(resource.key, {.setter = Call::Setter::stat, .resource = resource.key}, {resource.stat, 0},
              AgreedValue{new_stat, 0});
    }
}

void AgreedWords::enter(std::string_view key, const Call& word, const AgreedValue& raw,
                        std::optional<AgreedValue> new_value) {
    if (rules_.local_words_stay && settings_.local.contains(std::string(key))) return;
    auto found = entries_.find(key);
    if (found == entries_.end()) found = entries_.emplace(key, Entry{}).first;
    Entry& entry = found->second;
    entry.word = word;
    entry.new_value = new_value;
    entry.is_there = true;
    entry.raw = raw;
}

std::optional<AgreedValue> AgreedWords::value_of(const Entry& entry) const {
    const bool is_hbinfo = entry.word.setter == Call::Setter::header_word && entry.word.word == hbinfo;
    return is_hbinfo && rules_.pair_needs_value && !is_pair(entry.raw) ? std::nullopt : std::optional(entry.raw);
}

void AgreedWords::look_at(Time now, const std::string& key, Entry& entry, bool connected) {
    if (!entry.is_taken && !take(entry, connected)) return;
    if (entry.is_contested) {
        if (entry.etcd != value_of(entry) || !rules_.contest_ends) return;
        entry.is_contested = false;
        agree(entry, entry.etcd, entry.revision);
    }
    if (entry.open) resolve(now, key, entry);
    if (!entry.open && !entry.is_contested) follow(now, key, entry, connected);
}

bool AgreedWords::take(Entry& entry, bool connected) {
    if (!connected) return false;
    if (!entry.etcd) {
        // What a new region would not hold was set on purpose, and overwrites nothing: follow() proposes it.
        const auto base = rules_.new_values_are_no_change ? entry.new_value : std::nullopt;
        agree(entry, rules_.values_are_proposed ? base : value_of(entry), entry.revision);
        // The key was deleted: no other machine's value is in the way of the open proposal.
        if (entry.open) entry.open->base = entry.base;
        return true;
    }
    const auto value = value_of(entry);
    if (value == entry.etcd) {
        agree(entry, value, entry.revision);
        return true;
    }
    if (value && value != entry.new_value && entry.replaced < entry.revision) {
        ++counts_.replaced;
        entry.replaced = entry.revision;
    }
    entry.apply = true;
    return false;
}

void AgreedWords::resolve(Time now, const std::string& key, Entry& entry) {
    if (rules_.same_base && entry.revision > entry.open->base) {
        lose(now, key, entry);
    } else if (!entry.open->request && now >= entry.open->retry_at) {
        if (!rules_.same_base) entry.open->base = entry.revision;
        send(now, key, entry);
    }
}

void AgreedWords::follow(Time now, const std::string& key, Entry& entry, bool connected) {
    const auto value = value_of(entry);
    const bool is_behind = entry.etcd && entry.revision > entry.base;
    if (value == entry.etcd && is_behind) {
        agree(entry, value, entry.revision);
    } else if (value == entry.agreed) {
        entry.apply = is_behind && connected;
    } else if (value) {
        ++counts_.proposed;
        entry.open = Proposal{*value, entry.base, ++last_number_};
        if (is_behind) {
            lose(now, key, entry);
            entry.apply = connected && !entry.is_contested;
        } else {
            send(now, key, entry);
        }
    }
}

void AgreedWords::send(Time, const std::string& key, Entry& entry) {
    if (!run_.is_running()) return;
    Proposal& proposal = *entry.open;
    Transaction transaction;
    run_.add_fence(transaction);
    transaction.compares.push_back({keys_.agreed(key), proposal.base});
    transaction.puts = {
        {keys_.agreed(key), to_json(ProposalValue{proposal.value, settings_.process, proposal.number})}};
    transaction.reads.push_back(keys_.agreed(key));
    proposal.request = outbox_.send(transaction);
}

void AgreedWords::lose(Time now, const std::string& key, Entry& entry) {
    ++counts_.lost;
    outbox_.notice("another machine's value of " + key + " came first");
    // As if etcd's value had come before the change, and before what was set since.
    entry.agreed = value_of(entry);
    if (entry.agreed && entry.agreed != entry.open->value) {
        ++counts_.proposed;
        ++counts_.lost;
    }
    entry.open.reset();
    while (!entry.losses.empty() && now - entry.losses.front() >= contest_period) entry.losses.pop_front();
    entry.losses.push_back(now);
    if (entry.losses.size() > losses_of_contest && rules_.contest_ends_proposals) {
        entry.is_contested = true;
        outbox_.notice(key + " is contested: it is neither proposed nor set here until it equals etcd's value");
    }
}

void AgreedWords::accept(Entry& entry, int64_t revision) {
    ++counts_.accepted;
    agree(entry, entry.open->value, revision);
    entry.open.reset();
}

void AgreedWords::agree(Entry& entry, const std::optional<AgreedValue>& value, int64_t base) {
    entry.agreed = value;
    entry.base = base;
    entry.is_taken = true;
}

void AgreedWords::renew(Entry& entry) {
    if (!rules_.new_region_takes) return;
    if (entry.open) {
        entry.stale = *entry.open;
        ++counts_.lost;
    }
    entry.open.reset();
    entry.is_taken = entry.is_contested = false;
}

std::vector<Call> AgreedWords::calls() {
    std::vector<Call> calls;
    for (auto& [key, entry] : entries_) {
        if (!entry.apply || !entry.etcd) continue;
        calls.push_back(entry.word);
        calls.back().value = *entry.etcd;
        calls.back().expected = entry.raw;
        entry.applied = entry.revision;
    }
    return calls;
}

void AgreedWords::made(const Call& call) {
    const auto entry =
        entries_.find(call.setter == Call::Setter::header_word ? header_words[call.word] : call.resource);
    if (entry == entries_.end()) return;
    entry->second.raw = call.value;
    agree(entry->second, call.value, entry->second.applied);
}

bool AgreedWords::answer(Time now, const Answer& answer) {
    for (auto& [key, entry] : entries_) {
        if (entry.open && entry.open->request == answer.request) {
            entry.open->request = 0;
            if (answer.outcome == Outcome::done) accept(entry, answer.revision);
            const bool is_unanswered = answer.outcome == Outcome::failed || answer.outcome == Outcome::timed_out;
            if (is_unanswered) entry.open->retry_at = now + settings_.retry;
            return true;
        }
        if (!rules_.old_answers_are_dropped && entry.stale.request == answer.request &&
            answer.outcome == Outcome::done) {
            agree(entry, entry.stale.value, answer.revision);
            return true;
        }
    }
    return false;
}

size_t AgreedWords::open_proposals() const {
    return static_cast<size_t>(
        std::count_if(entries_.begin(), entries_.end(), [](const auto& each) { return each.second.open.has_value(); }));
}

std::vector<std::string> AgreedWords::contested() const {
    std::vector<std::string> keys;
    for (const auto& [key, entry] : entries_) {
        if (entry.is_contested) keys.push_back(key);
    }
    return keys;
}

}  // namespace bridge
