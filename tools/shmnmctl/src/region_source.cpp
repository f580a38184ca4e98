#include "region_source.h"

#include <algorithm>

namespace shmnmctl {
namespace {

/// How often a wait for the server looks for other reasons to end.
constexpr uint32_t slice_ms = 50;
/// Without a change, the server is asked again after this time.
constexpr uint32_t longest_silence_ms = 1'000;

}  // namespace

const char* const read_without_lock =
    "read without the lock: this user may not take it, and a change can have been half done";

RegionSource::RegionSource(const Context& context, bool may_warn) : may_warn_(may_warn), json_(context.json()) {
    if (context.from.empty()) {
        live_.emplace(context.access);
    } else {
        remote_.emplace(context.from, context.credentials, context.server_timeout_ms);
    }
}

void RegionSource::warn_of(const Snapshot& snapshot) {
    if (!may_warn_ || snapshot.way != CopyWay::by_reader) return;
    write_error(warning(read_without_lock, json_));
    may_warn_ = false;
}

void RegionSource::expect() {
    if (live_) return live_->expect();
    static_cast<void>(remote_->copy(Bytes::in_use));
}

Snapshot RegionSource::copy(Bytes wanted) {
    if (!live_) return remote_->copy(wanted).snapshot;
    Snapshot snapshot = live_->copy(wanted);
    warn_of(snapshot);
    return snapshot;
}

std::optional<Snapshot> RegionSource::try_copy(Bytes wanted, uint32_t lock_timeout_ms) {
    if (live_) {
        auto snapshot = live_->try_copy(wanted, lock_timeout_ms);
        if (snapshot) warn_of(*snapshot);
        return snapshot;
    }
    auto arrival = remote_->try_copy(wanted);
    if (!arrival) return std::nullopt;
    return std::move(arrival->snapshot);
}

session::Wake RegionSource::wait(uint32_t interval_ms, session::WakeFor also, uint32_t most_ms) {
    if (live_) return session::wait(std::min(interval_ms, most_ms), also);
    for (uint32_t left_ms = std::min(longest_silence_ms, most_ms);;) {
        if (const session::Wake wake = session::wait(0, also); wake != session::Wake::timeout) return wake;
        const uint32_t now_ms = std::min(left_ms, slice_ms);
        if (now_ms == 0) return session::Wake::timeout;
        switch (remote_->wait_for_change(now_ms)) {
            case picture_http::Bell::rang:
                return session::Wake::timeout;
            case picture_http::Bell::silent:
                break;
            case picture_http::Bell::missing:
                return session::wait(left_ms, also);
        }
        left_ms -= now_ms;
    }
}

}  // namespace shmnmctl
