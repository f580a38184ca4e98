#include "shmnmbridge/invariants.h"

#include <algorithm>
#include <sstream>

namespace bridge::test {
namespace {

std::string word_key(const Call& call) {
    return call.setter == Call::Setter::header_word ? header_words[call.word] : call.resource;
}

bool is_agreed(const Call& call) {
    return call.setter == Call::Setter::header_word || call.setter == Call::Setter::stat;
}

void mix(uint64_t& trace, uint64_t number) {
    trace = (trace ^ number) * 0x9e3779b97f4a7c15;
    trace ^= trace >> 29;
}
void mix(uint64_t& trace, const std::string& text) {
    mix(trace, std::hash<std::string>()(text));
}

/// Whether the word becomes unknown when its server is silent.
bool is_of_silence(const Call& call) {
    return call.setter != Call::Setter::server_word || call.word < words_of_silence;
}

/// Visits all words of a server's column and record.
template <typename Visit>
void visit(const std::string& server, const ServerState& state, Visit visit) {
    for (size_t word = 0; word < server_words.size(); ++word) {
        visit("servers/" + server + '/' + server_words[word], state.words[word]);
    }
    for (const auto& [key, cell] : state.cells) {
        visit(std::string(key).append("/svstat/").append(server), cell.svstat);
        visit(std::string(key).append("/network/").append(server), cell.network);
    }
}

}  // namespace

Checker::Checker(const Keys& keys, const ModelEtcd& etcd, Values& values, Result& result, const Schedule& schedule,
                 const Machines& machines)
    : keys_(keys),
      etcd_(etcd),
      values_(values),
      result_(result),
      schedule_(schedule),
      machines_(machines),
      limit_(schedule.limit()),
      recovery_(limit_ + 4'000) {}

template <typename... Parts>
void Checker::fail(Time now, const Machine* machine, int invariant, const Parts&... parts) {
    if (result_.violations.size() >= 5) return;
    std::ostringstream text;
    text << "at " << now << " ms";
    if (machine) text << ", machine " << machine->number << (machine->is_intruder ? " (intruder)" : "");
    text << ": invariant " << invariant << ": ";
    (text << ... << parts);
    result_.violations.push_back(text.str());
}

std::string Checker::describe(const Call& call) {
    if (is_agreed(call)) return word_key(call);
    if (call.setter == Call::Setter::server_word) return "servers/" + call.server + '/' + server_words[call.word];
    return call.resource + (call.setter == Call::Setter::svstat ? "/svstat/" : "/network/") + call.server;
}

void Checker::take_output(Time now, Machine& machine, const Output& output, bool is_in_batch) {
    uint64_t& trace = result_.trace;
    mix(trace, static_cast<uint64_t>(now) * 16 + machine.number);
    for (const Send& send : output.sends) {
        mix(trace, send.index());
        const auto* const request = std::get_if<Request>(&send);
        if (!request) continue;
        mix(trace, request->id);
        if (is_in_batch) fail(now, &machine, 7, "a request leaves while a batch is made");
        const auto* const transaction = std::get_if<Transaction>(&request->body);
        if (!transaction) continue;
        for (const Put& put : transaction->puts) {
            mix(trace, put.value);
            const auto [kind, name] = keys_.parts_of(put.key);
            if (kind == "agreed" && machine.local.contains(std::string(name))) {
                fail(now, &machine, 6, "local ", name, " is proposed");
            }
        }
    }
    if (output.batch) {
        for (const Call& call : output.batch->calls) mix(trace, call.value[0]);
    }
    for (const std::string& notice : output.notices) {
        mix(trace, notice);
        if (const size_t end = notice.find(" is contested: "); end != std::string::npos) {
            machine.losses.erase(notice.substr(0, end));
        }
        const size_t begin = notice.find("value of "), end = notice.find(" came first");
        if (begin == std::string::npos || end == std::string::npos) continue;
        const std::string word = notice.substr(begin + 9, end - begin - 9);
        auto& losses = machine.losses[word];
        while (!losses.empty() && now - losses.front() >= 10'000) losses.pop_front();
        losses.push_back(now);
        ++machine.lost[word];
        if (losses.size() > 4) fail(now, &machine, 9, "more than 4 losses of one word in 10 s, and no contest");
    }
}

void Checker::before_request(const Request& request) {
    const auto* const transaction = std::get_if<Transaction>(&request.body);
    if (!transaction) return;
    claim_hosts_.clear();
    for (const Put& put : transaction->puts) {
        if (keys_.parts_of(put.key).kind != "claim") continue;
        const KeyValue* const claim = etcd_.find(put.key);
        if (claim) claim_hosts_[put.key] = claim_from(*claim->value).value().host;
    }
}

void Checker::check_written(Time now, const Transaction& transaction, int64_t revision) {
    for (const Put& put : transaction.puts) {
        const auto [kind, name] = keys_.parts_of(put.key);
        const std::string server(name);
        if (kind == "claim") {
            const auto before = claim_hosts_.find(put.key);
            if (before != claim_hosts_.end() && before->second != claim_from(put.value).value().host) {
                fail(now, nullptr, 5, "the claim of another host is replaced");
            }
        } else if (kind == "agreed") {
            check_proposal(now, std::string(name), put.value, revision);
        } else {
            if (kind == "state") {
                Decoded<StateValue>& state = states_[server];
                state = {revision, state_from(put.value).value()};
                check_run(now, server, state.value.run);
                check_state(now, server, state.value);
            } else {
                const BeatValue beat = beat_from(put.value).value();
                check_run(now, server, beat.run);
                check_beat(now, server, beat);
            }
        }
    }
}

void Checker::check_run(Time now, const std::string& server, const std::string& run) {
    const KeyValue* const found = etcd_.find(keys_.claim(server));
    Decoded<ClaimValue>& claim = claims_[server];
    if (found && claim.revision != found->revision) claim = {found->revision, claim_from(*found->value).value()};
    if (!found || claim.value.run != run) fail(now, nullptr, 5, "a write of run ", run, " outside its claim's life");
}

void Checker::check_state(Time now, const std::string& server, const StateValue& state) {
    visit(server, state.state, [&](const std::string& word, uint32_t value) {
        check_fall(now, nullptr, server, word, newest_[word], value);
    });
}

const Machine& Checker::owner_of(const std::string& server) const {
    return **std::find_if(machines_.begin(), machines_.end(),
                          [&server](const auto& each) { return each->server == server && !each->is_intruder; });
}

void Checker::check_fall(Time now, const Machine* machine, const std::string& server, const std::string& word,
                         uint32_t& newest, uint32_t value) {
    const Values::Origin *const before = values_.find(newest), *const after = values_.find(value);
    if (after && after->is_foreign) return;
    if (after) {
        if (before && before->machine == after->machine && value < newest) {
            fail(now, machine, 2, word, " falls from ", newest, " to ", value);
        }
        newest = value;
        return;
    }
    // A new record's value: its owner must have had one after the newest.
    const Machine& owner = owner_of(server);
    const auto since = owner.own_since.find(word);
    if (!before || owner.was_intruded || since == owner.own_since.end() || since->second > before->begun) return;
    fail(now, machine, 2, word, " falls from ", newest, " to ", value, ", which its owner has not had since");
}

void Checker::check_beat(Time now, const std::string& server, const BeatValue& beat) {
    const KeyValue* const found = etcd_.find(keys_.state(server));
    const Decoded<StateValue>& state = states_[server];
    const bool is_there = found && found->revision == state.revision;
    if (!is_there || state.value.run != beat.run || state.value.sequence < beat.sequence) {
        fail(now, nullptr, 5, "a beat names state ", beat.sequence, " of run ", beat.run, ", which is not in etcd");
    }
}

void Checker::check_proposal(Time now, const std::string& key, const std::string& json, int64_t revision) {
    const ProposalValue proposal = proposal_from(json).value();
    // A resource's state may also be set to unknown.
    if (proposal.value[0] < Values::first && proposal.value[0] != unknown_state) {
        fail(now, nullptr, 1, key, " of a new region is proposed: ", proposal.value[0]);
    }
    if (!proposals_.insert(proposal.process + ' ' + std::to_string(proposal.number)).second) {
        fail(now, nullptr, 9, "proposal ", proposal.number, " of ", proposal.process, " lands twice");
    }
    ++landed_of_[proposal.process];
    std::string& last = last_process_[key];
    if (!last.empty() && last != proposal.process) ++overwritten_of_[last];
    last = proposal.process;
    landed_[key + ' ' + std::to_string(proposal.value[0])] = revision;
}

void Checker::forget_history() {
    newest_.clear();
    landed_.clear();
    claims_.clear();
    states_.clear();
    // The last proposals may have landed unheard.
    for (const auto& [key, process] : last_process_) {
        if (!process.empty()) ++overwritten_of_[process];
    }
    last_process_.clear();
}

void Checker::check_asked(Time now, Machine& machine, const Batch& batch) {
    const bool is_connected = machine.core->is_connected_at(now);
    machine.silenced.clear();
    for (const Call& call : batch.calls) {
        const bool is_silent = !is_connected || machine.core->freshness_of(call.server, now) == Freshness::silent;
        if (is_agreed(call) || !is_silent) continue;
        machine.silenced.insert(call.server);
        if (call.value[0] == unknown_state && is_of_silence(call)) continue;
        fail(now, &machine, 3, describe(call), " of a silent server is set to ", call.value[0]);
    }
    if (machine.cut_off_since >= 0 && !is_connected) {
        for (const Call& call : batch.calls) {
            const bool is_reset = !is_agreed(call) && call.value[0] == unknown_state && schedule_.reset_when_cut_off;
            if (!is_reset) fail(now, &machine, 3, describe(call), " is set by a machine that is cut off");
            if (now - machine.started_at < limit_) fail(now, &machine, 3, describe(call), " is reset at the start");
        }
    }
    for (const Call& call : batch.calls) {
        const auto position = machine.looked ? machine.looked->find_server(call.server) : std::nullopt;
        if (position && !machine.looked->has_own_priority(*position)) {
            fail(now, &machine, 8, describe(call), " is to be set, but its server shares a priority");
        }
    }
    if (machine.looked && machine.looked->counts != machine.looked->configured) {
        fail(now, &machine, 8, "a region of other counts than configured is to be fed");
    }
}

void Checker::begin_batch(const Machine& machine) {
    own_before_ = machine.region->state_of_server(machine.server);
    seen_.reset();
    if (!machine.looked) return;
    seen_.emplace(*machine.region);
    seen_->words() = *machine.looked;
}

void Checker::check_call(Time now, Machine& machine, const Call& call) {
    const auto here = machine.region->value_at(call);
    const std::string word = describe(call);
    if (here && seen_) {
        const auto seen = seen_->value_at(call);
        if (seen && seen != here) {
            fail(now, &machine, 9, word, " is set although a local process has set it since the look");
        }
    }
    if (machine.overwritten.contains(word)) fail(now, &machine, 6, "contested ", word, " is set");
    if (machine.local.contains(word)) fail(now, &machine, 6, "local ", word, " is set");
    if (is_agreed(call)) {
        const auto landed = landed_.find(word_key(call) + ' ' + std::to_string(call.value[0]));
        if (landed == landed_.end()) return;
        int64_t& shown = machine.agreed_revision[word_key(call)];
        if (landed->second < shown) fail(now, &machine, 2, word, " goes back to an older revision");
        shown = landed->second;
        return;
    }
    machine.fed.insert(call.server);
    if (!machine.silenced.contains(call.server)) {
        check_fall(now, &machine, call.server, word, machine.newest[word], call.value[0]);
    }
}

void Checker::check_accepted(Time now, const Machine& machine, const Call& call, bool is_accepted) {
    if (!is_accepted) fail(now, &machine, 8, "the library refuses to set ", describe(call));
}

void Checker::end_batch(Time now, const Machine& machine) {
    if (machine.region->state_of_server(machine.server) != own_before_) {
        fail(now, &machine, 6, "the bridge changes the own server's words");
    }
}

void Checker::follow_witnesses(Time now, Machine& machine) {
    constexpr Time longest_gap = 200;
    const bool is_gap = machine.region && machine.looked && now - machine.looked_at > longest_gap;
    // Without a witness the bridge cannot tell a contested word from one of a new region.
    if (is_gap && has_witness(machine, *machine.looked, true) && !has_witness(machine, machine.region->look(), false)) {
        machine.overwritten.clear();
    }
    machine.overwritten_before = machine.overwritten;
    machine.made.clear();
}

bool Checker::has_witness(const Machine& machine, const Look& look, bool is_of_fed) {
    bool found = false;
    for (const LookedServer& server : look.servers) {
        const bool counts = is_of_fed ? machine.fed.contains(server.name) : server.name != machine.server;
        const auto before = machine.looked->find_server(server.name), now = look.find_server(server.name);
        if (!counts || !before) continue;
        const ServerState then = state_of(*machine.looked, *before);
        ServerState as_new;
        for (const auto& [key, cell] : then.cells) as_new.cells[key];
        std::map<std::string, uint32_t> values, new_values;
        visit(server.name, then, [&values](const std::string& word, uint32_t value) { values[word] = value; });
        visit(server.name, as_new, [&](const std::string& word, uint32_t value) { new_values[word] = value; });
        visit(server.name, state_of(look, *now), [&](const std::string& word, uint32_t value) {
            const auto same = values.find(word);
            found = found || (same != values.end() && same->second == value && value != new_values[word] &&
                              !machine.overwritten_before.contains(word) && !machine.made.contains(word));
        });
    }
    return found;
}

void Checker::check_marks(Time now, Machine& machine) {
    if (!machine.core || machine.is_intruder) return;
    check_cut_off(now, machine);
    if (machine.core->is_connected_at(now) && now - machine.echoed_at > limit_) {
        fail(now, &machine, 3, "it says that it is connected, but no beat came back that is newer than ",
             machine.echoed_at);
    }
    for (const auto& other : machines_) {
        if (other->number == machine.number || other->is_intruder) continue;
        check_peer(now, machine, *other, other->was_intruded || machine.was_intruded);
    }
}

void Checker::check_cut_off(Time now, Machine& machine) {
    if (machine.core->is_connected_at(now)) {
        machine.cut_off_since = -1;
        return;
    }
    // A stopped machine resets nothing.
    const bool has_run = now - machine.checked_at <= 200;
    machine.checked_at = now;
    if (machine.cut_off_since < 0 || !has_run) machine.cut_off_since = now;
    const bool is_locked = now < std::max(machine.until.busy_lock, machine.until.hold_lock);
    const bool may_feed = machine.has_own_server() && machine.region->look().counts == machine.configured;
    if (is_locked || !may_feed) machine.cut_off_since = now;
    const bool is_due = now - machine.cut_off_since > limit_ + 1'000 && schedule_.reset_when_cut_off;
    for (const auto& other : machines_) {
        if (other->number == machine.number || other->is_intruder) continue;
        Time& unfed_at = machine.unfed_at[other->server];
        if (!is_fed(machine, *other)) unfed_at = now;
        if (is_due && now - unfed_at > 1'000 && !is_unknown(machine, other->server)) {
            fail(now, &machine, 3, other->server, " is not reset although this machine is cut off");
        }
    }
}

bool Checker::is_fed(const Machine& machine, const Machine& other) {
    const auto position = machine.region ? machine.region->look().find_server(other.server) : std::nullopt;
    return position && machine.has_own_server() && machine.region->look().has_own_priority(*position) &&
           machine.region->look().counts == machine.configured && machine.overwritten.empty();
}

bool Checker::is_unknown(const Machine& machine, const std::string& server) {
    const auto& contested = machine.core->feeder().contested();
    bool is_unknown = true;
    visit(server, machine.region->state_of_server(server), [&](const std::string& word, uint32_t value) {
        const bool is_left_alone = contested.contains(word) && machine.ever_overwritten.contains(word);
        const bool stays =
            word.starts_with("servers/") && !word.ends_with("/nodestat") && !word.ends_with("/nodestat_nw");
        is_unknown = is_unknown && (value == unknown_state || is_left_alone || stays);
    });
    return is_unknown;
}

void Checker::check_peer(Time now, Machine& machine, const Machine& other, bool is_intruded) {
    const Freshness freshness = machine.core->freshness_of(other.server, now);
    const bool is_healthy_here = now - machine.unhealthy_at > recovery_,
               is_healthy_there = now - other.unhealthy_at > recovery_;
    if (freshness == Freshness::fresh) {
        check_values(now, machine, other);
        if (!machine.has_own_server() && now >= machine.until.hold_lock) {
            fail(now, &machine, 3, other.server, " is fresh without a region that shows its words");
        }
        if (!is_intruded && now - other.told_at > limit_) {
            fail(now, &machine, 3, other.server, " is fresh, but its newest beat proves only ", other.told_at);
        }
        if (now - machine.echoed_at > limit_) {
            fail(now, &machine, 3, other.server, " is fresh here, where no beat came back that is newer than ",
                 machine.echoed_at);
        }
        if (!is_intruded && other.ended_at >= 0 && now - other.ended_at > 1'000 &&
            now - machine.unhealthy_at > limit_) {
            fail(now, &machine, 3, other.server, " is fresh, but ended cleanly at ", other.ended_at);
        }
    }
    // Until it counts as cut off itself, a machine cannot know of a beat that landed after etcd last told it anything.
    const bool may_know = other.proved_at <= other.unhealthy_at || machine.read_at >= other.proved_at;
    if (freshness == Freshness::silent && !is_intruded && may_know && now - other.unhealthy_at > recovery_ - 3'000) {
        fail(now, &machine, 4, other.server, " is silent, but beats");
    }
    const bool is_fed = Checker::is_fed(machine, other);
    if (freshness != Freshness::fresh && !is_intruded && is_fed && is_healthy_here && is_healthy_there) {
        fail(now, &machine, 4, other.server, " is not fresh, without a fault");
    }
    const bool is_dead = now - other.told_at > recovery_;
    if (freshness != Freshness::silent && !is_intruded && is_fed && is_healthy_here && is_dead) {
        fail(now, &machine, 4, other.server, " is not silent, but its newest beat proves only ", other.told_at);
    }
    if (is_fed && now >= machine.until.busy_lock && now >= machine.until.hold_lock) {
        check_silence(now, machine, other.server, freshness);
    } else {
        machine.silent_since.erase(other.server);
    }
}

void Checker::check_values(Time now, const Machine& machine, const Machine& other) {
    const auto here = machine.region ? machine.region->look().find_server(other.server) : std::nullopt;
    if (!here) return;
    // Without a region the owner has no other words.
    const Look& their_look = other.has_own_server() ? other.region->look() : machine.region->look();
    const size_t there = their_look.find_server(other.server).value_or(*here);
    const LookedServer& words = machine.region->look().servers[*here];
    const LookedServer& owned = their_look.servers[there];
    Call call{.server = other.server};
    for (call.word = 0; call.word < server_words.size(); ++call.word) {
        check_value(now, machine, other, call, words.words[call.word], owned.words[call.word]);
    }
    const auto& all = their_look.resources;
    const auto& resources = machine.region->look().resources;
    for (size_t at = 0; at < resources.size(); ++at) {
        const Cell& cell = resources[at].cells[*here];
        const LookedResource* const same = at < all.size() && all[at].key == resources[at].key
                                               ? &all[at]
                                               : their_look.find_resource(resources[at].key);
        const Cell& theirs = same ? same->cells[there] : cell;
        call.resource = resources[at].key;
        call.setter = Call::Setter::svstat;
        check_value(now, machine, other, call, cell.svstat, theirs.svstat);
        call.setter = Call::Setter::network;
        check_value(now, machine, other, call, cell.network, theirs.network);
    }
}

void Checker::check_value(Time now, const Machine& machine, const Machine& other, const Call& call, uint32_t here,
                          uint32_t there) {
    const Values::Origin* const origin = values_.find(here);
    if (origin && !origin->is_foreign && origin->ended >= 0 && now - origin->ended > limit_) {
        fail(now, &machine, 3, describe(call), " is fresh with ", here, ", which ended at ", origin->ended);
    }
    // A new record's value, where the owner has set another long ago. A held lock hides what was changed, and an
    // intruder's words are not those of the owner's region.
    const Values::Origin* const current = here < Values::first ? values_.find(there) : nullptr;
    if (!current || now - current->begun <= limit_ || now < machine.until.hold_lock || other.was_intruded) return;
    if (machine.ever_overwritten.contains(describe(call))) return;
    fail(now, &machine, 3, describe(call), " is fresh with ", here, ", but is ", there, " since ", current->begun);
}

void Checker::check_silence(Time now, Machine& machine, const std::string& server, Freshness freshness) {
    if (freshness != Freshness::silent) {
        machine.silent_since.erase(server);
        return;
    }
    const Time since = machine.silent_since.emplace(server, now).first->second;
    if (now - since < 1'000) return;
    if (!is_unknown(machine, server)) fail(now, &machine, 3, server, " is silent, but its states are not 2");
}

void Checker::check_end(Time now) {
    for (const auto& machine : machines_) {
        if (machine->is_intruder) continue;
        if (!machine->core || !machine->has_own_server()) {
            fail(now, machine.get(), 1, "it does not run at the end");
            continue;
        }
        const Marks marks = machine->core->marks(now);
        if (!marks.is_running || !marks.is_connected) fail(now, machine.get(), 1, "its bridge does not run at the end");
        for (const auto& other : machines_) {
            if (other->number != machine->number && !other->is_intruder && other->has_own_server()) {
                check_end_of_peer(now, *machine, *other, marks);
            }
        }
        check_end_of_agreed(now, *machine, marks);
        check_end_of_lists(now, *machine, marks);
    }
}

void Checker::check_end_of_lists(Time now, const Machine& machine, const Marks& marks) {
    std::set<std::string> unmatched;
    const Look& look = machine.region->look();
    for (const auto& other : machines_) {
        if (other->number == machine.number || other->is_intruder || !other->has_own_server()) continue;
        if (!look.find_server(other->server)) unmatched.insert("servers/" + other->server);
        for (const LookedResource& resource : other->region->look().resources) {
            if (!look.find_resource(resource.key)) unmatched.insert(resource.key + '/' + other->server);
        }
    }
    if (std::set(marks.unmatched.begin(), marks.unmatched.end()) != unmatched) {
        fail(now, &machine, 1, marks.unmatched.size(), " words are listed as unmatched instead of ", unmatched.size());
    }
    for (const std::string& word : marks.contested) {
        const auto lost = machine.lost.find(word);
        if (machine.ever_overwritten.contains(word) || (lost != machine.lost.end() && lost->second > 3)) continue;
        fail(now, &machine, 1, word, " is listed as contested, but nobody has contested it");
    }
    for (const Mark& mark : marks.servers) {
        const bool differ = digest_of(owner_of(mark.server).region->look()) != digest_of(look);
        if (differ != mark.has_other_names) fail(now, &machine, 1, mark.server, " has other names: ", differ);
    }
}

void Checker::check_end_of_peer(Time now, const Machine& machine, const Machine& other, const Marks& marks) {
    if (!machine.region->look().find_server(other.server)) return;
    if (machine.core->freshness_of(other.server, now) != Freshness::fresh) {
        fail(now, &machine, 1, other.server, " is not fresh at the end");
    }
    const ServerState here = machine.region->state_of_server(other.server);
    const ServerState there = other.region->state_of_server(other.server);
    const auto check = [&](const std::string& key, uint32_t value, uint32_t theirs) {
        const bool is_listed = std::find(marks.contested.begin(), marks.contested.end(), key) != marks.contested.end();
        if (value != theirs && !is_listed) fail(now, &machine, 1, key, " is ", value, ", not ", theirs);
        if (value == theirs && is_listed) fail(now, &machine, 1, key, " is listed as contested, but is as its owner's");
    };
    for (size_t word = 0; word < server_words.size(); ++word) {
        check("servers/" + other.server + '/' + server_words[word], here.words[word], there.words[word]);
    }
    for (const auto& [key, cell] : here.cells) {
        const auto found = there.cells.find(key);
        const Cell theirs = found == there.cells.end() ? Cell{} : found->second;
        check(key + "/svstat/" + other.server, cell.svstat, theirs.svstat);
        check(key + "/network/" + other.server, cell.network, theirs.network);
    }
}

void Checker::check_end_of_agreed(Time now, const Machine& machine, const Marks& marks) {
    const AgreedWords& agreed = machine.core->agreed();
    const ProposalCounts& counts = agreed.counts();
    if (counts.proposed != counts.accepted + counts.lost + agreed.open_proposals()) {
        fail(now, &machine, 9, counts.proposed, " proposals, ", counts.accepted, " accepted, ", counts.lost, " lost");
    }
    result_.proposals += counts.proposed;
    const uint64_t landed = landed_of_[machine.process], overwritten = overwritten_of_[machine.process];
    if (counts.accepted > landed) fail(now, &machine, 9, counts.accepted, " accepted, but ", landed, " in etcd");
    // A new region's bridge drops what is open, as lost. On Windows a region may only look new.
    const bool may_drop = machine.generation > 1 || machine.has_lost_records || machine.is_windows;
    if (counts.accepted + overwritten + (may_drop ? counts.lost : 0) < landed) {
        fail(now, &machine, 9, landed, " proposals in etcd, ", overwritten, " overwritten, but ", counts.accepted,
             " accepted");
    }
    const auto is_contested = [&](const std::string& key) {
        return std::find(marks.contested.begin(), marks.contested.end(), key) != marks.contested.end();
    };
    const auto check = [&](const std::string& key, const AgreedValue& here) {
        if (machine.local.contains(key)) return;
        const KeyValue* const found = etcd_.find(keys_.agreed(key));
        if (!found) {
            // Otherwise it would have been proposed.
            if (here != AgreedValue{}) fail(now, &machine, 1, key, " is ", here[0], ", but etcd has no value of it");
            if (is_contested(key)) fail(now, &machine, 1, key, " is listed as contested, but etcd has no value of it");
            return;
        }
        const ProposalValue value = proposal_from(*found->value).value();
        if (is_contested(key)) {
            if (value.value == here) fail(now, &machine, 1, key, " is listed as contested, but is as in etcd");
        } else if (value.value != here)
            fail(now, &machine, 1, key, " is ", here[0], ", not ", value.value[0], " as in etcd");
    };
    const Look& look = machine.region->look();
    for (size_t word = 0; word < header_words.size(); ++word) check(header_words[word], look.header[word]);
    for (const LookedResource& resource : look.resources) check(resource.key, {resource.stat, 0});
}

}  // namespace bridge::test
