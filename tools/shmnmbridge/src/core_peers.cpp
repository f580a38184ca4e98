#include "core_peers.h"

#include <algorithm>

namespace bridge {

void Peer::claim_changed(const KeyValue& change) {
    claim_ = change.value ? claim_from(*change.value) : std::nullopt;
}

void Peer::state_changed(const KeyValue& change) {
    state_ = change.value ? state_from(*change.value) : std::nullopt;
    state_revision_ = change.revision;
}

void Peer::beat_came(const BeatValue& beat, Time date, Time limit, Time now) {
    while (!beats_.empty() && now - beats_.front().date >= limit) beats_.pop_front();
    if (!beats_.empty() && beats_.back().sequence == beat.sequence && beats_.back().run == beat.run) {
        beats_.back().date = std::max(beats_.back().date, date);
    } else {
        beats_.push_back({beat.run, beat.sequence, date});
    }
}

void Peer::set_applied() {
    if (!state_ || (shown_sequence_ == state_->sequence && shown_run_ == state_->run)) return;
    applied_run_ = state_->run;
    applied_sequence_ = state_->sequence;
}

void Peer::applied(bool made) {
    if (applied_run_ && made) {
        shown_run_ = std::move(*applied_run_);
        shown_sequence_ = applied_sequence_;
    }
    applied_run_.reset();
}

bool Peer::is_of_claim(const Beat& beat, const Rules& rules) const {
    return !rules.runs_are_compared || (claim_ && beat.run == claim_->run);
}

std::optional<Time> Peer::heard_at(const Rules& rules) const {
    std::optional<Time> newest;
    for (const Beat& beat : beats_) {
        if (is_of_claim(beat, rules)) newest = std::max(newest.value_or(beat.date), beat.date);
    }
    return newest;
}

bool Peer::is_heard(Time now, Time limit, const Rules& rules) const {
    const std::optional<Time> heard = heard_at(rules);
    return heard && now - *heard < limit;
}

std::optional<Time> Peer::shown_since(const Rules& rules) const {
    std::optional<Time> since;
    const std::string& run = rules.fresh_after_applying ? shown_run_ : state_ ? state_->run : shown_run_;
    const uint64_t sequence = rules.fresh_after_applying ? shown_sequence_ : UINT64_MAX;
    for (const Beat& beat : beats_) {
        if (!is_of_claim(beat, rules) || (rules.runs_are_compared && beat.run != run)) continue;
        if (beat.sequence <= sequence) since = std::max(since.value_or(beat.date), beat.date);
    }
    return since;
}

Freshness Peer::freshness(Time now, const Settings& settings, const OwnBeats& own, bool connected,
                          const Rules& rules) const {
    if (!connected) return Freshness::unknown;
    const std::optional<Time> shown = shown_since(rules);
    if (shown && now - *shown < settings.limit()) return Freshness::fresh;
    if (is_heard(now, settings.limit(), rules)) return Freshness::unknown;
    // Own beats came back that were sent long after the newest word of the server, so many that etcd gave it time to
    // answer them. What is only late because this machine's own beats did not land is not silent.
    std::optional<Time> since = heard_at(rules);
    if (beats_.empty() && rules.unheard_have_time) since = own.first();
    const Time unanswered = since && rules.silence_needs_echo ? *since + settings.window : 0;
    const int enough = rules.grace_after_reconnection ? 4 : 1;
    return own.came_back(unanswered, settings.beat() / 2) >= enough ? Freshness::silent : Freshness::unknown;
}

}  // namespace bridge
