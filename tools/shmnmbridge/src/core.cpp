#include "core.h"

#include <algorithm>

namespace bridge {
namespace {

/// All machines together write about 125 states a second, at most, which each of them receives.
constexpr Time gather_of_claim = 8;

}  // namespace

Core::Core(Settings settings, const Rules& rules)
    : settings_(std::move(settings)),
      least_gather_(settings_.gather),
      rules_(rules),
      keys_(settings_.cluster),
      beats_(settings_),
      run_(settings_, rules_, keys_, outbox_, beats_),
      agreed_(settings_, rules_, keys_, outbox_, run_),
      feeder_(settings_, rules_, outbox_),
      mirror_(
          settings_, rules_, keys_.prefix(), outbox_,
          [this](const KeyValue& change, bool by_watch) { changed(change, by_watch); }, [this] { forgotten(); }) {}

Output Core::look(Time now, const Look* look) {
    if (run_.is_ended()) return {};
    step(now);
    if (!not_cut_off_until_) not_cut_off_until_ = now + settings_.limit();
    const auto own = look ? look->find_server(settings_.server) : std::nullopt;
    if (!look || !own) {
        feeder_.see_nothing(peers_);
        run_.step(now, nullptr, mirror_.is_synced(), mirror_.seen());
        return finish();
    }
    const bool is_changed = !own_ || !feeder_.shown() || *feeder_.shown() != *look;
    if (is_changed) own_ = Run::Own{state_of(*look, *own), digest_of(*look)};
    run_.step(now, &*own_, mirror_.is_synced(), mirror_.seen());
    const AgreedWords::Continuity continuity = feeder_.continuity(now, *look, is_changed);
    feeder_.look(now, *look, continuity, peers_);
    if (is_changed) enter_peers();
    agreed_.look(now, *look, continuity, is_connected_at(now));
    feed(now);
    return finish();
}

Output Core::look_failed(Time now) {
    if (run_.is_ended()) return {};
    step(now);
    run_.step(now, nullptr, mirror_.is_synced(), mirror_.seen());
    return finish();
}

void Core::feed(Time now) {
    const bool connected = is_connected_at(now);
    const bool resets = settings_.reset_when_cut_off || !rules_.cut_off_keeps_words;
    const bool is_start = now < *not_cut_off_until_ && rules_.start_is_not_cut_off;
    if (!connected && (!resets || is_start)) return;
    std::vector<Call> calls;
    for (auto& [server, peer] : peers_) {
        const bool is_heard = connected && peer.is_heard(now, settings_.limit(), rules_);
        const Freshness freshness =
            connected ? peer.freshness(now, settings_, beats_, true, rules_) : Freshness::silent;
        feeder_.add_calls(calls, server, peer, freshness, is_heard);
    }
    if (connected && feeder_.may_feed()) {
        for (Call& call : agreed_.calls()) calls.push_back(std::move(call));
    }
    if (calls.empty()) return;
    if (!rules_.calls_compare) {
        for (Call& call : calls) call.expected.reset();
    }
    batch_ = Batch{0, feeder_.shown()->object, feeder_.shown()->counts, std::move(calls)};
    batch_->id = outbox_.make(*batch_);
}

Output Core::batch_done(Time now, const BatchDone& done) {
    now_ = now;
    if (!batch_ || done.batch != batch_->id) return {};
    const Batch batch = std::move(*batch_);
    batch_.reset();
    for (size_t at = 0; done.made && at < batch.calls.size(); ++at) {
        const Call& call = batch.calls[at];
        if (std::find(done.skipped.begin(), done.skipped.end(), at) != done.skipped.end()) {
            if (const auto peer = peers_.find(call.server); peer != peers_.end()) peer->second.applied(false);
            continue;
        }
        feeder_.made(call);
        if (call.setter == Call::Setter::header_word || call.setter == Call::Setter::stat) agreed_.made(call);
    }
    for (auto& [server, peer] : peers_) peer.applied(done.made);
    return finish();
}

Output Core::answer(Time now, const Answer& answer) {
    if (run_.is_ended()) return {};
    now_ = now;
    if (!run_.answer(now, answer)) agreed_.answer(now, answer);
    if (mirror_.answer(now, answer)) drop_unused();
    step(now);
    return finish();
}

Output Core::events(Time now, const Events& events) {
    if (run_.is_ended()) return {};
    now_ = now;
    mirror_.events(events);
    step(now);
    return finish();
}

Output Core::watch_ended(Time now, const WatchEnded& ended) {
    if (run_.is_ended()) return {};
    now_ = now;
    mirror_.watch_ended(ended);
    step(now);
    return finish();
}

Output Core::end(Time now) {
    now_ = now;
    run_.end();
    return finish();
}

void Core::step(Time now) {
    now_ = now;
    mirror_.step(now, beats_.echo_arrived());
}

bool Core::is_connected_at(Time now) const {
    return mirror_.is_synced() && (rules_.own_echo ? beats_.has_echo(now) : mirror_.has_watch());
}

Output Core::finish() {
    // Requests of this step leave before its batch; later ones wait until it is made.
    return outbox_.take(batch_.has_value() && rules_.requests_wait && !outbox_.has_batch());
}

void Core::changed(const KeyValue& change, bool by_watch) {
    const auto [kind, name] = keys_.parts_of(change.key);
    if (kind == "agreed") return agreed_.changed(name, change);
    const std::string server(name);
    const bool is_own = server == settings_.server;
    if (kind == "claim" && is_own) run_.claim_changed(change);
    if (kind == "beat") {
        const auto beat = change.value ? beat_from(*change.value) : std::nullopt;
        if (beat) beat_came(server, *beat, change.revision, by_watch);
    } else if ((kind == "claim" || kind == "state") && (!is_own || !rules_.own_is_never_fed)) {
        Peer& peer = peers_[server];
        if (kind == "state") return peer.state_changed(change);
        peer.claim_changed(change);
        follow_claims();
        if (has_other_times(peer)) tell_of_times(server, *peer.claim()->times);
    }
}

bool Core::has_other_times(const Peer& peer) const {
    return peer.claim() && peer.claim()->times && *peer.claim()->times != run_.times();
}

void Core::tell_of_times(const std::string& server, const Times& theirs) {
    const auto text = [](const Times& times) {
        return "window_ms " + std::to_string(times.window) + " and gather_ms " + std::to_string(times.gather);
    };
    outbox_.notice("the bridge of " + server + " has " + text(theirs) + ", this one has " + text(run_.times()) +
                   ": make them the same on all machines");
}

void Core::beat_came(const std::string& server, const BeatValue& beat, int64_t revision, bool by_watch) {
    const bool is_own = server == settings_.server;
    if (is_own && beat.run.starts_with(settings_.process + '.')) {
        beats_.landed(beat.number, revision, by_watch, now_);
    }
    if (is_own && rules_.own_is_never_fed) return;
    std::optional<Time> date;
    if (by_watch ? !rules_.beats_are_dated : !rules_.read_beats_are_dated) {
        date = now_;
    } else if (rules_.beats_are_dated) {
        date = beats_.date_of(beat.seen);
    }
    if (date) peers_[server].beat_came(beat, *date, settings_.limit(), now_);
}

void Core::forgotten() {
    peers_.clear();
    enter_peers();
    follow_claims();
    beats_.forget();
    run_.forget();
    agreed_.forget();
    not_cut_off_until_ = now_ + settings_.limit();
}

void Core::enter_peers() {
    if (!feeder_.shown() || !rules_.unheard_are_silent) return;
    for (const LookedServer& server : feeder_.shown()->servers) {
        if (!server.name.empty() && server.name != settings_.server) peers_.try_emplace(server.name);
    }
}

void Core::drop_unused() {
    std::erase_if(peers_, [this](const auto& each) {
        const auto& [server, peer] = each;
        return !peer.claim() && !peer.state() && !(feeder_.shown() && feeder_.shown()->find_server(server));
    });
    agreed_.drop_unused();
}

void Core::follow_claims() {
    const auto claims =
        std::count_if(peers_.begin(), peers_.end(), [](const auto& each) { return each.second.claim().has_value(); });
    settings_.gather = std::max(least_gather_, gather_of_claim * (claims + 1));
}

Freshness Core::freshness_of(std::string_view server, Time now) const {
    const auto peer = peers_.find(server);
    if (peer == peers_.end()) return Freshness::unknown;
    return peer->second.freshness(now, settings_, beats_, is_connected_at(now), rules_);
}

Marks Core::marks(Time now) const {
    Marks marks;
    marks.is_connected = is_connected_at(now);
    marks.is_running = run_.is_running();
    marks.is_refused = run_.is_refused();
    marks.is_fed = feeder_.may_feed();
    marks.limit = settings_.limit();
    marks.server = settings_.server;
    marks.cluster = settings_.cluster;
    marks.agreed = agreed_.counts();
    marks.contested = agreed_.contested();
    marks.contested.insert(marks.contested.end(), feeder_.contested().begin(), feeder_.contested().end());
    for (const auto& [server, peer] : peers_) {
        const bool is_here = feeder_.shown() && feeder_.shown()->find_server(server);
        // Removed here, and etcd knows nothing of it.
        if (!is_here && !peer.claim() && !peer.state()) continue;
        Mark mark;
        mark.server = server;
        mark.freshness = freshness_of(server, now);
        if (const auto since = peer.shown_since(rules_)) mark.age = now - *since;
        mark.sequence = peer.state() ? static_cast<uint64_t>(peer.state_revision()) : 0;
        mark.is_claimed = peer.claim().has_value();
        if (peer.claim()) {
            mark.address = peer.claim()->address;
        }
        mark.has_other_times = has_other_times(peer);
        mark.has_other_names = own_ && peer.state() && peer.state()->digest != own_->digest;
        for (std::string& key : feeder_.unmatched(server, peer)) marks.unmatched.push_back(std::move(key));
        mark.is_unmatched = feeder_.shown() && !is_here;
        mark.is_duplicate = feeder_.is_duplicate(server);
        marks.servers.push_back(std::move(mark));
    }
    return marks;
}

}  // namespace bridge
