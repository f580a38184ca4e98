#include "region_source.h"

#include <algorithm>

namespace shmnmctl {
namespace {

/// How often a wait for the server looks for other reasons to end.
constexpr uint32_t slice_ms = 50;
/// Without a change, the server is asked again after this time.
constexpr uint32_t longest_silence_ms = 1'000;

}  // namespace

RegionSource::RegionSource(const Context& context) {
    if (context.from.empty()) {
        live_.emplace(context.access);
    } else {
        remote_.emplace(context.from, context.credentials, context.server_timeout_ms);
    }
}

void RegionSource::expect() {
    if (live_) return live_->expect();
    static_cast<void>(remote_->copy(Bytes::in_use));
}

Snapshot RegionSource::copy(Bytes wanted) {
    return live_ ? live_->copy(wanted) : remote_->copy(wanted).snapshot;
}

std::optional<Snapshot> RegionSource::try_copy(Bytes wanted, uint32_t lock_timeout_ms) {
    if (live_) return live_->try_copy(wanted, lock_timeout_ms);
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
