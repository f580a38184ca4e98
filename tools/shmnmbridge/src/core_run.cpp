#include "core_run.h"

namespace bridge {

void Run::step(Time now, const Own* own, bool synced, int64_t seen) {
    if (phase_ == Phase::ended) return;
    keep_lease(now);
    if (sent_.request || now < retry_at_) return;
    if (phase_ == Phase::running) {
        write(now, own, seen);
    } else if (phase_ == Phase::claiming) {
        sent_.request = outbox_.send(attempt_);
    } else if (own && synced && may_claim()) {
        claim(now, *own, seen);
    }
}

void Run::keep_lease(Time now) {
    if (!lease_ || keep_alive_ || now < keep_alive_at_ || !rules_.lease_is_kept) return;
    keep_alive_ = outbox_.send(KeepAlive{lease_});
    keep_alive_at_ = now + settings_.lease / 3;
}

bool Run::may_claim() const {
    if (phase_ != Phase::unclaimed || (runs_ && !rules_.renew_lost_claim)) return false;
    return !refused_ || !rules_.refuse_other_host;
}

void Run::claim(Time now, const Own& own, int64_t seen) {
    if (!lease_) {
        if (!grant_) grant_ = outbox_.send(Grant{settings_.lease});
        return;
    }
    phase_ = Phase::claiming;
    run_ = settings_.process + '.' + std::to_string(++runs_);
    sent_.own = own;
    sent_.sequence = sequence_ = 1;
    last_state_ = now;
    const std::string& server = settings_.server;
    attempt_ = {};
    if (rules_.claim_on_base) attempt_.compares = {{keys_.claim(server), known_value_ ? known_claim_ : 0}};
    attempt_.puts = {{keys_.claim(server), to_json(ClaimValue{settings_.host, run_, settings_.address, times_}),
                      rules_.claim_has_lease ? lease_ : 0},
                     {keys_.state(server), to_json(StateValue{run_, sequence_, own.state, own.digest})},
                     beat_put(now, sequence_, seen)};
    attempt_.reads = {keys_.claim(server)};
    sent_.request = outbox_.send(attempt_);
}

void Run::add_fence(Transaction& transaction) const {
    if (rules_.fence) transaction.compares.push_back({keys_.claim(settings_.server), claim_revision_});
    transaction.reads.push_back(keys_.claim(settings_.server));
}

Put Run::beat_put(Time now, uint64_t sequence, int64_t seen) {
    beats_.sent(++beat_, now);
    last_beat_ = now;
    return {keys_.beat(settings_.server), to_json(BeatValue{run_, beat_, sequence, seen})};
}

void Run::write(Time now, const Own* own, int64_t seen) {
    const bool beat_is_due = now - last_beat_ >= settings_.beat();
    if (!own) {
        if (beat_is_due && !rules_.beats_after_looks && in_etcd_) write_beat(now, seen);
        return;
    }
    if (in_etcd_ == *own || (beat_is_due && !rules_.beats_after_changes)) {
        if (beat_is_due) write_beat(now, seen);
        return;
    }
    if (!beat_is_due && now - last_state_ < settings_.gather) return;
    // A beat that is due goes out together with the change: words that change at every look would leave no room for it.
    Transaction transaction;
    add_fence(transaction);
    const std::string key = keys_.state(settings_.server);
    if (rules_.state_on_base) transaction.compares.push_back({key, state_revision_});
    transaction.reads.push_back(key);
    transaction.puts.push_back({key, to_json(StateValue{run_, ++sequence_, own->state, own->digest})});
    if (beat_is_due && rules_.beats_with_changes) transaction.puts.push_back(beat_put(now, sequence_, seen));
    if (rules_.resend_unknown) in_etcd_.reset();
    last_state_ = now;
    sent_.own = *own;
    sent_.sequence = sequence_;
    sent_.request = outbox_.send(transaction);
}

void Run::write_beat(Time now, int64_t seen) {
    Transaction transaction;
    add_fence(transaction);
    transaction.puts = {beat_put(now, in_etcd_sequence_, seen)};
    sent_.own.reset();
    sent_.request = outbox_.send(transaction);
}

bool Run::answer(Time now, const Answer& answer) {
    const bool done = answer.outcome == Outcome::done;
    if (answer.request == grant_ && grant_) {
        grant_ = 0;
        if (done) {
            lease_ = answer.lease;
            keep_alive_at_ = now + settings_.lease / 3;
        } else {
            retry_at_ = now + settings_.retry;
        }
        return true;
    }
    if (answer.request == keep_alive_ && keep_alive_) {
        keep_alive_ = 0;
        if (done && !answer.lease_lives) lose();
        if (!done) keep_alive_at_ = now + settings_.retry;
        return true;
    }
    if (answer.request != sent_.request || !sent_.request) return false;
    sent_.request = 0;
    if (answer.outcome == Outcome::failed) retry_at_ = now + settings_.retry;
    if (answer.outcome == Outcome::no_lease) lose();
    if (answer.outcome == Outcome::compare_failed) write_failed(answer);
    if (!done) return true;
    if (phase_ == Phase::claiming) {
        won(answer.revision);
    } else if (phase_ == Phase::running && sent_.own) {
        in_etcd_ = std::move(sent_.own);
        in_etcd_sequence_ = sent_.sequence;
        state_revision_ = answer.revision;
        sent_.own.reset();
    }
    return true;
}

void Run::won(int64_t revision) {
    phase_ = Phase::running;
    refused_ = false;
    claim_revision_ = state_revision_ = revision;
    in_etcd_ = std::move(sent_.own);
    in_etcd_sequence_ = sent_.sequence;
    sent_ = {};
}

void Run::write_failed(const Answer& answer) {
    if (phase_ != Phase::running) return;  // what stands in the claim's place, claim_changed() is told
    const std::string claim_key = keys_.claim(settings_.server), state_key = keys_.state(settings_.server);
    int64_t claim = 0, state = 0;
    for (const KeyValue& each : answer.values) {
        if (each.key == claim_key && each.value) claim = each.revision;
        if (each.key == state_key && each.value) state = each.revision;
    }
    if (claim != claim_revision_) {
        lose();
    } else if (sent_.own) {
        // An earlier write of this run landed late.
        state_revision_ = state;
    }
}

void Run::claim_changed(const KeyValue& claim) {
    known_claim_ = claim.revision;
    known_value_ = claim.value ? claim_from(*claim.value) : std::nullopt;
    // A claim that cannot be read is another's.
    if (claim.value && !known_value_) known_value_ = ClaimValue{};
    const bool mine = known_value_ && known_value_->run == run_;
    const bool is_same_host = known_value_ && known_value_->host == settings_.host;
    const bool refused = known_value_ && !mine && !(is_same_host && rules_.replace_same_host);
    if (refused && !refused_) {
        outbox_.notice("another machine (host " + known_value_->host + ") has claimed the name " + settings_.server);
    }
    refused_ = refused;
    if (phase_ == Phase::claiming && mine) {
        won(claim.revision);
    } else if (phase_ == Phase::claiming) {
        // The attempt's base is gone, so that it cannot land any more.
        phase_ = Phase::unclaimed;
        sent_ = {};
    } else if (phase_ == Phase::running && claim.revision > claim_revision_ && !mine) {
        lose();
    }
}

void Run::lose() {
    if (phase_ == Phase::ended) return;
    outbox_.notice("the claim of " + settings_.server + " is lost");
    phase_ = Phase::unclaimed;
    lease_ = 0;
    grant_ = keep_alive_ = 0;
    in_etcd_.reset();
    sent_ = {};
}

void Run::forget() {
    known_claim_ = 0;
    known_value_.reset();
    refused_ = false;
    lose();
}

void Run::end() {
    if (phase_ == Phase::running && rules_.end_deletes_keys) {
        Transaction transaction;
        add_fence(transaction);
        transaction.deletions = {keys_.claim(settings_.server), keys_.state(settings_.server),
                                 keys_.beat(settings_.server)};
        outbox_.send(transaction);
    }
    phase_ = Phase::ended;
}

}  // namespace bridge
