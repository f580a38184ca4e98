#include "core_mirror.h"

#include <algorithm>
#include <set>

namespace bridge {

void Mirror::step(Time now, std::optional<Time> echo) {
    if (watch_ && rules_.quiet_watch_is_read &&
        now - std::max(watch_opened_, echo.value_or(watch_opened_)) > settings_.limit()) {
        drop_watch();
        wants_read_ = true;
    }
    if (synced_ && rules_.keys_are_read_again && now - last_read_ > settings_.read_again) wants_read_ = true;
    if (wants_read_ && !read_ && now >= retry_at_) {
        read_ = outbox_.send(Range{prefix_});
        seen_at_read_ = seen_;
    }
    if (!wants_read_ && !watch_ && synced_) {
        watch_ = outbox_.watch(prefix_, read_revision_ + 1);
        watch_opened_ = now;
    }
}

bool Mirror::answer(Time now, const Answer& answer) {
    const bool is_read = read_ && answer.request == read_;
    if (is_read) read_ = 0;
    if (answer.outcome == Outcome::failed || answer.outcome == Outcome::timed_out) {
        if (is_read) retry_at_ = now + settings_.retry;
        return false;
    }
    follow_cluster(answer.cluster);
    if (is_read) {
        read_done(now, answer);
    } else {
        for (const KeyValue& value : answer.values) accept(value, false);
    }
    return is_read;
}

void Mirror::read_done(Time now, const Answer& answer) {
    if (answer.revision < seen_at_read_ && rules_.revision_is_checked) forget();
    std::set<std::string_view> found;
    for (const KeyValue& value : answer.values) found.insert(value.key);
    std::vector<std::string> gone;
    for (const auto& [key, known] : keys_) {
        if (known.exists && !found.contains(key)) gone.push_back(key);
    }
    for (const std::string& key : gone) accept({key, std::nullopt, answer.revision}, false);
    for (const KeyValue& value : answer.values) accept(value, false);
    std::erase_if(
        keys_, [&answer](const auto& each) { return !each.second.exists && each.second.revision <= answer.revision; });
    read_revision_ = answer.revision;
    seen_ = std::max(seen_, answer.revision);
    synced_ = true;
    wants_read_ = false;
    last_read_ = now;
}

void Mirror::events(const Events& events) {
    if (!watch_ || events.watch != watch_) return;
    follow_cluster(events.cluster);
    for (const KeyValue& event : events.events) {
        seen_ = std::max(seen_, event.revision);
        accept(event, true);
    }
}

void Mirror::watch_ended(const WatchEnded& ended) {
    if (!watch_ || ended.watch != watch_) return;
    drop_watch();
    wants_read_ = rules_.ended_watch_is_read;
}

void Mirror::accept(const KeyValue& change, bool by_watch) {
    const auto known = keys_.find(change.key);
    const int64_t revision = known == keys_.end() ? read_revision_ : known->second.revision;
    if (rules_.revision_order && change.revision <= revision) return;
    keys_.insert_or_assign(change.key, Known{change.revision, change.value.has_value()});
    changed_(change, by_watch);
}

void Mirror::follow_cluster(uint64_t cluster) {
    if (cluster && cluster_ && cluster != cluster_ && rules_.cluster_is_checked) forget();
    if (cluster) cluster_ = cluster;
}

void Mirror::forget() {
    outbox_.notice("etcd holds another cluster's keys, or older ones: everything is read again");
    keys_.clear();
    seen_ = seen_at_read_ = read_revision_ = 0;
    synced_ = false;
    wants_read_ = true;
    drop_watch();
    forgotten_();
}

void Mirror::drop_watch() {
    if (watch_) outbox_.unwatch(watch_);
    // A read that is on its way may be older than what the watch did not bring any more.
    watch_ = read_ = 0;
}

}  // namespace bridge
