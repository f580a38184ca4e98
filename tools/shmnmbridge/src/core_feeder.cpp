#include "core_feeder.h"

#include <algorithm>

namespace bridge {
namespace {

/// A region that is made and filled between two looks goes unnoticed only if they are close together.
constexpr Time longest_gap = 200;

/// The word of a look that a call sets; null if it is not there.
template <typename AnyLook>
auto word_of(AnyLook& look, const Call& call) -> decltype(&look.servers.front().words[0]) {
    const auto position = look.find_server(call.server);
    if (!position) return nullptr;
    if (call.setter == Call::Setter::server_word) return &look.servers[*position].words[call.word];
    for (auto& resource : look.resources) {
        if (resource.key != call.resource || *position >= resource.cells.size()) continue;
        auto& cell = resource.cells[*position];
        return call.setter == Call::Setter::svstat ? &cell.svstat : &cell.network;
    }
    return nullptr;
}

std::string key_of(const Call& call) {
    if (call.setter == Call::Setter::server_word) return "servers/" + call.server + '/' + server_words[call.word];
    return call.resource + (call.setter == Call::Setter::svstat ? "/svstat/" : "/network/") + call.server;
}

uint32_t new_value_of(const Call& call) {
    return call.setter == Call::Setter::server_word ? new_server_words[call.word] : unknown_state;
}

}  // namespace

template <typename Visit>
void Feeder::visit_words(const Look& look, size_t position, const ServerState* state, Visit visit) const {
    static constexpr Cell unknown_cell;
    const LookedServer& server = look.servers[position];
    Call call{.server = server.name, .pri = server.pri};
    for (call.word = 0; call.word < server_words.size(); ++call.word) {
        visit(call, server.words[call.word], state ? &state->words[call.word] : nullptr, call.word < words_of_silence);
    }
    call.word = 0;
    for (const LookedResource& resource : look.resources) {
        if (position >= resource.cells.size()) continue;
        const Cell* theirs = nullptr;
        if (state) {
            const auto found = state->cells.find(resource.key);
            if (found != state->cells.end()) theirs = &found->second;
            if (!theirs && rules_.missing_is_unknown) theirs = &unknown_cell;
        }
        call.resource = resource.key;
        call.setter = Call::Setter::svstat;
        visit(call, resource.cells[position].svstat, theirs ? &theirs->svstat : nullptr, true);
        if (!resource.is_hb()) continue;
        call.setter = Call::Setter::network;
        visit(call, resource.cells[position].network, theirs ? &theirs->network : nullptr, true);
    }
}

AgreedWords::Continuity Feeder::continuity(Time now, const Look& look, bool is_changed) const {
    AgreedWords::Continuity continuity;
    continuity.is_changed = is_changed;
    const auto own = look.find_server(settings_.server);
    if (!shown_ || !own) {
        continuity.is_new = !was_absent_ || rules_.absence_tells;
        return continuity;
    }
    if (!is_changed) return continuity;
    const auto own_before = shown_->find_server(settings_.server);
    const bool own_fell = own_before && is_as_new(look, *own) && !is_as_new(*shown_, *own_before);
    const bool pair_fell = is_pair(shown_->header[hbinfo]) && !is_pair(look.header[hbinfo]);
    continuity.is_new = (rules_.absence_tells && was_absent_) ||
                        (rules_.object_tells && look.object != shown_->object) ||
                        (rules_.fallen_words_tell && own_fell) || (rules_.fallen_pair_tells && pair_fell) ||
                        (rules_.fallen_others_tell && others_fell(look));
    const bool has_number = look.object != 0 || !rules_.witness;
    const bool is_gapless = now - looked_at_ <= longest_gap || !rules_.gap_needs_witness;
    continuity.is_proven = (has_number && is_gapless) || has_witness(look);
    continuity.has_lost_witnesses = !is_gapless && !has_witness(look) && has_witness(*shown_);
    for (const LookedResource& resource : look.resources) {
        if (rules_.fallen_row_tells && (is_new_row(look, resource, *own) || may_be_new(look, resource))) {
            continuity.new_records.push_back(resource.key);
        }
    }
    return continuity;
}

bool Feeder::is_made(const Call& call, uint32_t value) const {
    return std::any_of(made_.begin(), made_.end(),
                       [&](const Call& made) { return made.value[0] == value && key_of(made) == key_of(call); });
}

std::optional<size_t> Feeder::position_before(const Look& look, size_t position) const {
    const std::string& server = look.servers[position].name;
    const bool is_same = position < shown_->servers.size() && shown_->servers[position].name == server;
    return is_same ? std::optional(position) : shown_->find_server(server);
}

bool Feeder::is_new_row(const Look& look, const LookedResource& resource, size_t own) const {
    const LookedResource* const before = shown_->find_resource(resource.key);
    if (!before) return false;
    // The own column and the resource's own state may have been set since. If all are unknown, the states of the type
    // were set in one call: a new resource's own state is another. Such a call does not set network-wide states.
    const bool is_type_set = rules_.set_type_contests && resource.stat == unknown_state &&
                             own < resource.cells.size() && resource.cells[own].svstat == unknown_state;
    if (is_type_set && !rules_.changed_rows_are_fed) return false;
    bool any_fell = false;
    for (size_t position = 0; position < resource.cells.size(); ++position) {
        Call call{.server = look.servers[position].name, .resource = resource.key};
        const std::optional<size_t> old_position = position_before(look, position);
        if (!old_position || *old_position >= before->cells.size()) continue;
        const Cell &cell = resource.cells[position], &was = before->cells[*old_position];
        const auto proves_old = [&](Call::Setter setter, uint32_t state, uint32_t state_before) {
            call.setter = setter;
            return state != unknown_state && (state == state_before || !rules_.changed_rows_are_fed) &&
                   !is_made(call, state);
        };
        if (position != own && (proves_old(Call::Setter::svstat, cell.svstat, was.svstat) ||
                                proves_old(Call::Setter::network, cell.network, was.network))) {
            return false;
        }
        const bool state_fell = cell.svstat == unknown_state && was.svstat != unknown_state;
        const bool network_fell = cell.network == unknown_state && was.network != unknown_state;
        any_fell = any_fell || (state_fell && !is_type_set) || (network_fell && !(is_type_set && position == own));
    }
    return any_fell;
}

bool Feeder::may_be_new(const Look& look, const LookedResource& resource) const {
    const LookedResource* const before = shown_->find_resource(resource.key);
    if (!before || resource.stat != new_stat || before->stat == new_stat) return false;
    for (size_t position = 0; position < resource.cells.size(); ++position) {
        const Cell& cell = resource.cells[position];
        const std::optional<size_t> old_position = position_before(look, position);
        if (!old_position || *old_position >= before->cells.size() || cell != before->cells[*old_position]) continue;
        Call call{.server = look.servers[position].name, .resource = resource.key};
        const auto stands = [&](Call::Setter setter, uint32_t state) {
            call.setter = setter;
            return state != unknown_state && !is_made(call, state);
        };
        if (stands(Call::Setter::svstat, cell.svstat) || stands(Call::Setter::network, cell.network)) return false;
    }
    return true;
}

bool Feeder::others_fell(const Look& look) const {
    bool any_fell = false;
    for (const std::string& server : fed_) {
        const auto before = shown_->find_server(server), now = look.find_server(server);
        if (!before || !now) continue;
        if (!is_as_new(look, *now)) return false;
        any_fell = any_fell || !is_as_new(*shown_, *before);
    }
    return any_fell;
}

bool Feeder::has_witness(const Look& look) const {
    bool found = false;
    for (const std::string& server : fed_) {
        const auto position = look.find_server(server);
        if (!position) continue;
        visit_words(look, *position, nullptr, [&](const Call& call, uint32_t here, const uint32_t*, bool) {
            if (found || here == new_value_of(call) || contested_.contains(key_of(call)) || is_made(call, here)) return;
            const uint32_t* const before = word_of(*shown_, call);
            found = before && *before == here;
        });
    }
    return found;
}

void Feeder::see_nothing(Peers& peers) {
    was_absent_ = true;
    settled_.clear();
    if (rules_.absence_is_not_fresh) {
        for (auto& [server, peer] : peers) peer.set_not_shown();
    }
    if (rules_.absence_tells) shown_.reset();
}

void Feeder::look(Time now, const Look& look, const AgreedWords::Continuity& continuity, Peers& peers) {
    looked_at_ = now;
    // What a new region holds is nobody's word, and must not be taken for a contest.
    const bool is_new = continuity.is_new || continuity.has_lost_witnesses;
    if (continuity.is_changed || is_new || !contested_.empty()) settled_.clear();
    if (is_new) {
        for (auto& [server, peer] : peers) peer.set_not_shown();
        fed_.clear();
        contested_.clear();
    }
    if (shown_ && !is_new && continuity.is_changed) {
        const std::set<std::string, std::less<>> new_rows = find_new_rows(look);
        for (const std::string& server : fed_) {
            const auto position = look.find_server(server);
            const auto peer = peers.find(server);
            if (!position || peer == peers.end()) continue;
            if (new_rows.empty() && shows_same(look, *position)) continue;
            follow_contests(look, *position, peer->second, new_rows);
        }
    }
    if (!contested_.empty()) {
        for (const auto& [server, peer] : peers) {
            const auto position = look.find_server(server);
            if (!position || !peer.state()) continue;
            visit_words(look, *position, &peer.state()->state,
                        [&](const Call& call, uint32_t here, const uint32_t* theirs, bool) {
                            if (theirs && *theirs == here && rules_.contest_ends) contested_.erase(key_of(call));
                        });
        }
    }
    if (continuity.is_changed) shown_ = look;
    made_.clear();
    was_absent_ = false;
}

bool Feeder::shows_same(const Look& look, size_t position) const {
    if (position >= shown_->servers.size() || look.servers[position] != shown_->servers[position]) return false;
    return std::equal(look.resources.begin(), look.resources.end(), shown_->resources.begin(), shown_->resources.end(),
                      [position](const LookedResource& here, const LookedResource& before) {
                          return here.key == before.key && position < here.cells.size() &&
                                 position < before.cells.size() && here.cells[position] == before.cells[position];
                      });
}

bool Feeder::may_be_added_again(const Look& look, size_t position) const {
    bool any_stands = false;
    visit_words(look, position, nullptr, [&](const Call& call, uint32_t here, const uint32_t*, bool) {
        const uint32_t* const before = word_of(*shown_, call);
        any_stands = any_stands || (before && *before == here && here != new_value_of(call) && !is_made(call, here));
    });
    return !any_stands;
}

std::set<std::string, std::less<>> Feeder::find_new_rows(const Look& look) const {
    std::set<std::string, std::less<>> rows;
    const auto own = look.find_server(settings_.server);
    for (const LookedResource& resource : look.resources) {
        if (own && is_new_row(look, resource, *own)) rows.insert(resource.key);
    }
    return rows;
}

void Feeder::follow_contests(const Look& look, size_t position, Peer& peer,
                             const std::set<std::string, std::less<>>& new_rows) {
    const std::string& server = look.servers[position].name;
    const auto before = shown_->find_server(server);
    bool is_shown = before.has_value();
    const bool may_be_new = rules_.added_again_is_fed && (!before || may_be_added_again(look, position));
    visit_words(look, position, peer.state() ? &peer.state()->state : nullptr,
                [&](const Call& call, uint32_t here, const uint32_t* theirs, bool) {
                    const uint32_t* const shown = word_of(*shown_, call);
                    is_shown = is_shown && shown && *shown == here;
                    const bool is_new_row = !call.resource.empty() &&
                                            (new_rows.contains(call.resource) || !shown_->find_resource(call.resource));
                    // What a process has set in the new record since is its own doing.
                    const bool holds_new = here == new_value_of(call) || is_made(call, here);
                    const bool is_new_word = may_be_new && (!before || holds_new);
                    const bool is_in_new_row = is_new_row && (holds_new || !shown) && rules_.added_again_is_fed;
                    if (is_new_word || is_in_new_row) {
                        contested_.erase(key_of(call));
                    } else if (shown && *shown != here && !(theirs && *theirs == here) && rules_.step_back) {
                        if (contested_.insert(key_of(call)).second) {
                            outbox_.notice("a local process has set " + key_of(call) + ", which is another machine's");
                        }
                    }
                });
    if (!is_shown && rules_.changes_are_not_fresh) peer.set_not_shown();
}

void Feeder::add_calls(std::vector<Call>& calls, const std::string& server, Peer& peer, Freshness freshness,
                       bool is_heard) {
    const bool all = (is_heard || !rules_.heard_before_fed) && peer.state().has_value();
    const bool silence = !all && freshness == Freshness::silent && rules_.silence_writes_unknown;
    // In a large cluster nearly all servers are as they were.
    const Settled wanted = all ? Settled{peer.state()->run, peer.state()->sequence} : Settled{};
    const auto settled = settled_.find(server);
    if ((all || silence) && settled != settled_.end() && settled->second == wanted) {
        if (!all) return peer.set_not_shown();
        peer.set_applied();
        return peer.applied(true);
    }
    const auto position = shown_->find_server(server);
    if (!position || !may_feed() || (rules_.refuse_duplicates && is_duplicate(server))) return peer.set_not_shown();
    if (server == settings_.server && rules_.own_is_never_fed) return;
    if (!all && !silence) return;
    const size_t before = calls.size();
    visit_words(*shown_, *position, all ? &peer.state()->state : nullptr,
                [&](const Call& call, uint32_t here, const uint32_t* theirs, bool of_silence) {
                    const auto value = theirs ? std::optional(*theirs)
                                       : silence && (of_silence || !rules_.silence_keeps_words)
                                           ? std::optional(unknown_state)
                                           : std::nullopt;
                    if (!value || here == *value || contested_.contains(key_of(call))) return;
                    calls.push_back(call);
                    calls.back().value = {*value, 0};
                    calls.back().expected = AgreedValue{here, 0};
                });
    fed_.insert(server);
    if (calls.size() == before) {
        settled_.insert_or_assign(server, wanted);
    } else {
        settled_.erase(server);
    }
    if (!all) {
        peer.set_not_shown();
    } else {
        peer.set_applied();
        if (calls.size() == before) peer.applied(true);
    }
}

void Feeder::made(const Call& call) {
    if (!shown_) return;
    if (!call.server.empty()) made_.push_back(call);
    if (call.setter == Call::Setter::header_word) {
        shown_->header[call.word] = call.value;
    } else if (call.setter == Call::Setter::stat) {
        for (LookedResource& resource : shown_->resources) {
            if (resource.key == call.resource) resource.stat = call.value[0];
        }
    } else if (uint32_t* const word = word_of(*shown_, call)) {
        *word = call.value[0];
    }
}

bool Feeder::may_feed() const {
    return shown_ && (shown_->counts == shown_->configured || !rules_.counts_are_compared);
}

bool Feeder::is_duplicate(const std::string& server) const {
    const auto position = shown_ ? shown_->find_server(server) : std::nullopt;
    return position && !shown_->has_own_priority(*position);
}

std::vector<std::string> Feeder::unmatched(const std::string& server, const Peer& peer) const {
    std::vector<std::string> keys;
    if (!shown_) return keys;
    if (!shown_->find_server(server)) keys.push_back("servers/" + server);
    if (!peer.state()) return keys;
    for (const auto& [key, cell] : peer.state()->state.cells) {
        if (!shown_->find_resource(key)) keys.emplace_back(key).append("/").append(server);
    }
    return keys;
}

}  // namespace bridge
