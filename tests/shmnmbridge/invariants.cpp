#include "shmnmbridge/invariants.h"

#include <algorithm>
#include <sstream>

namespace bridge::test {
namespace {

constexpr Time window = 3'000;
/// After so long without trouble a machine must be fresh elsewhere.
constexpr Time recovery = 8'000;

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

/// Visits all words of a server's column and record.
template <typename Visit>
void visit(const ServerState& state, Visit visit) {
    for (size_t word = 0; word < server_words.size(); ++word) visit(server_words[word], state.words[word]);
    for (const auto& [key, cell] : state.cells) {
        visit(key + "/svstat", cell.svstat);
        visit(key + "/network", cell.network);
    }
}

}  // namespace

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
    if (call.setter == Call::Setter::server_word) return std::string(server_words[call.word]) + '/' + call.server;
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
        for (const Put& put : transaction->puts) mix(trace, put.value);
    }
    if (output.batch) {
        for (const Call& call : output.batch->calls) mix(trace, call.value[0]);
    }
    for (const std::string& notice : output.notices) {
        mix(trace, notice);
        const size_t begin = notice.find("value of "), end = notice.find(" came first");
        if (begin == std::string::npos || end == std::string::npos) continue;
        auto& losses = machine.losses[notice.substr(begin, end - begin)];
        while (!losses.empty() && now - losses.front() >= 10'000) losses.pop_front();
        losses.push_back(now);
        if (losses.size() > 4) fail(now, &machine, 9, "more than 4 losses of one word in 10 s");
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
            const KeyValue* const claim = etcd_.find(keys_.claim(server));
            const std::string run =
                kind == "state" ? state_from(put.value).value().run : beat_from(put.value).value().run;
            if (!claim || claim_from(*claim->value).value().run != run) {
                fail(now, nullptr, 5, "a write of run ", run, " outside its claim's life");
            }
            if (kind == "state") check_state(now, server, put.value);
        }
    }
}

void Checker::check_state(Time now, const std::string& server, const std::string& json) {
    visit(state_from(json).value().state, [&](const std::string& word, uint32_t value) {
        const Values::Origin* const origin = values_.find(value);
        if (!origin || origin->is_foreign) return;
        uint32_t& highest = highest_[server + ' ' + word];
        const Values::Origin* const before = values_.find(highest);
        if (before && before->machine == origin->machine && value < highest) {
            fail(now, nullptr, 2, word, " of ", server, " falls from ", highest, " to ", value);
        }
        highest = value;
    });
}

void Checker::check_proposal(Time now, const std::string& key, const std::string& json, int64_t revision) {
    const ProposalValue proposal = proposal_from(json).value();
    if (proposal.value[0] < Values::first) {
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
    highest_.clear();
    landed_.clear();
    last_process_.clear();
}

void Checker::check_asked(Time now, const Machine& machine) {
    if (machine.looked && machine.looked->counts != machine.looked->configured) {
        fail(now, &machine, 8, "a region of other counts than configured is to be fed");
    }
}

void Checker::begin_batch(const Machine& machine) {
    own_before_ = machine.region->state_of_server(machine.server);
}

void Checker::check_call(Time now, Machine& machine, const Call& call) {
    const auto here = machine.region->value_at(call);
    const std::string word = describe(call);
    if (here && machine.looked) {
        ModelRegion seen = *machine.region;
        seen.words() = *machine.looked;
        if (seen.value_at(call) && seen.value_at(call) != here) {
            fail(now, &machine, 9, word, " is set although a local process has set it since the look");
        }
    }
    if (machine.overwritten.contains(word)) fail(now, &machine, 6, "contested ", word, " is set");
    if (is_agreed(call)) {
        const auto landed = landed_.find(word_key(call) + ' ' + std::to_string(call.value[0]));
        if (landed == landed_.end()) return;
        int64_t& shown = machine.agreed_revision[word_key(call)];
        if (landed->second < shown) fail(now, &machine, 2, word, " goes back to an older revision");
        shown = landed->second;
        return;
    }
    machine.fed.insert(call.server);
    const Values::Origin* const before = here ? values_.find((*here)[0]) : nullptr;
    const Values::Origin* const after = values_.find(call.value[0]);
    if (before && after && !before->is_foreign && before->machine == after->machine && call.value[0] < (*here)[0]) {
        fail(now, &machine, 2, word, " falls from ", (*here)[0], " to ", call.value[0]);
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

void Checker::check_marks(Time now, Machine& machine, const Machines& machines) {
    if (!machine.core || machine.is_intruder) return;
    if (!machine.was_intruded && machine.impaired_since >= 0 && now - machine.impaired_since > window + 1'000 &&
        machine.core->is_connected_at(now)) {
        fail(now, &machine, 3, "it says that it is connected, but has not read or written since ",
             machine.impaired_since);
    }
    for (const auto& other : machines) {
        if (other->number == machine.number || other->is_intruder) continue;
        check_peer(now, machine, *other, other->was_intruded || machine.was_intruded);
    }
}

void Checker::check_peer(Time now, Machine& machine, const Machine& other, bool is_intruded) {
    const Freshness freshness = machine.core->freshness_of(other.server, now);
    const bool is_healthy_here = now - machine.unhealthy_at > recovery,
               is_healthy_there = now - other.unhealthy_at > recovery;
    if (freshness == Freshness::fresh) {
        check_values(now, machine, other.server);
        const auto too_long = [now](Time since) { return since >= 0 && now - since > window + 1'000; };
        if (!is_intruded && too_long(other.impaired_since)) {
            fail(now, &machine, 3, other.server, " is fresh, but has not read or written since ", other.impaired_since);
        }
        if (!is_intruded && too_long(machine.impaired_since)) {
            fail(now, &machine, 3, other.server, " is fresh here, where nothing was read or written since ",
                 machine.impaired_since);
        }
        if (!is_intruded && other.ended_at >= 0 && now - other.ended_at > 1'000 && now - machine.unhealthy_at > 3'000) {
            fail(now, &machine, 3, other.server, " is fresh, but ended cleanly at ", other.ended_at);
        }
    }
    if (freshness == Freshness::silent && !is_intruded && now - other.unhealthy_at > 5'000) {
        fail(now, &machine, 4, other.server, " is silent, but beats");
    }
    const auto position = machine.region ? machine.region->look().find_server(other.server) : std::nullopt;
    const bool is_fed = position && machine.has_own_server() && machine.region->look().has_own_priority(*position) &&
                        machine.region->look().counts == machine.configured && machine.overwritten.empty();
    if (freshness != Freshness::fresh && !is_intruded && is_fed && is_healthy_here && is_healthy_there) {
        fail(now, &machine, 4, other.server, " is not fresh, without a fault");
    }
    if (is_fed && now >= machine.until.busy_lock && now >= machine.until.hold_lock) {
        check_silence(now, machine, other.server, freshness);
    } else {
        machine.silent_since.erase(other.server);
    }
}

void Checker::check_values(Time now, const Machine& machine, const std::string& server) {
    const auto position = machine.region ? machine.region->look().find_server(server) : std::nullopt;
    if (!position) return;
    const auto check = [&](uint32_t value, const std::string& word) {
        const Values::Origin* const origin = values_.find(value);
        if (!origin || origin->is_foreign || origin->ended < 0 || now - origin->ended <= window + 1'000) return;
        fail(now, &machine, 3, word, " of ", server, " is fresh with ", value, ", which ended at ", origin->ended);
    };
    for (const uint32_t value : machine.region->look().servers[*position].words) check(value, "a state");
    for (const LookedResource& resource : machine.region->look().resources) {
        check(resource.cells[*position].svstat, resource.key);
        check(resource.cells[*position].network, resource.key);
    }
}

void Checker::check_silence(Time now, Machine& machine, const std::string& server, Freshness freshness) {
    if (freshness != Freshness::silent) {
        machine.silent_since.erase(server);
        return;
    }
    const Time since = machine.silent_since.emplace(server, now).first->second;
    if (now - since < 1'000) return;
    const ServerState state = machine.region->state_of_server(server);
    bool is_unknown = state.words[0] == unknown_state && state.words[1] == unknown_state;
    for (const auto& [key, cell] : state.cells) is_unknown = is_unknown && cell == Cell{};
    if (!is_unknown) fail(now, &machine, 3, server, " is silent, but its states are not 2");
}

void Checker::check_end(Time now, const Machines& machines) {
    for (const auto& machine : machines) {
        if (machine->is_intruder) continue;
        if (!machine->core || !machine->has_own_server()) {
            fail(now, machine.get(), 1, "it does not run at the end");
            continue;
        }
        const Marks marks = machine->core->marks(now);
        if (!marks.is_running || !marks.is_connected) fail(now, machine.get(), 1, "its bridge does not run at the end");
        for (const auto& other : machines) {
            if (other->number != machine->number && !other->is_intruder && other->has_own_server()) {
                check_end_of_peer(now, *machine, *other, marks);
            }
        }
        check_end_of_agreed(now, *machine, marks);
    }
}

void Checker::check_end_of_peer(Time now, const Machine& machine, const Machine& other, const Marks& marks) {
    if (machine.core->freshness_of(other.server, now) != Freshness::fresh) {
        fail(now, &machine, 1, other.server, " is not fresh at the end");
    }
    const ServerState here = machine.region->state_of_server(other.server);
    const ServerState there = other.region->state_of_server(other.server);
    const auto is_listed = [&](const std::string& key) {
        return std::find(marks.contested.begin(), marks.contested.end(), key) != marks.contested.end();
    };
    for (size_t word = 0; word < server_words.size(); ++word) {
        if (here.words[word] == there.words[word]) continue;
        if (is_listed("servers/" + other.server + '/' + server_words[word])) continue;
        fail(now, &machine, 1, server_words[word], " of ", other.server, " is ", here.words[word], ", not ",
             there.words[word]);
    }
    for (const auto& [key, cell] : there.cells) {
        const auto found = here.cells.find(key);
        if (found == here.cells.end()) continue;
        const bool svstat = found->second.svstat == cell.svstat || is_listed(key + "/svstat/" + other.server);
        const bool network = found->second.network == cell.network || is_listed(key + "/network/" + other.server);
        if (!svstat || !network) fail(now, &machine, 1, "states of ", key, " on ", other.server, " differ at the end");
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
    if (counts.accepted + overwritten < landed && machine.generation == 1) {
        fail(now, &machine, 9, landed, " proposals in etcd, ", overwritten, " overwritten, but ", counts.accepted,
             " accepted");
    }
    const auto is_contested = [&](const std::string& key) {
        return std::find(marks.contested.begin(), marks.contested.end(), key) != marks.contested.end();
    };
    const auto check = [&](const std::string& key, const AgreedValue& here) {
        const KeyValue* const found = etcd_.find(keys_.agreed(key));
        if (!found || is_contested(key)) return;
        const ProposalValue value = proposal_from(*found->value).value();
        if (value.value != here) fail(now, &machine, 1, key, " is ", here[0], ", not ", value.value[0], " as in etcd");
    };
    const Look& look = machine.region->look();
    for (size_t word = 0; word < header_words.size(); ++word) check(header_words[word], look.header[word]);
    for (const LookedResource& resource : look.resources) check(resource.key, {resource.stat, 0});
}

}  // namespace bridge::test
