#include "sampler.h"

#include <chrono>
#include <exception>
#include <optional>
#include <utility>

#include "picture/escape.h"
#include "picture/findings.h"
#include "picture/platform.h"

namespace shmnmweb {
namespace {

using picture::ErrorKind;
namespace platform = picture::platform;

constexpr std::chrono::milliseconds interval{50};
/// Every ten seconds all bytes are searched for damage.
constexpr uint64_t looks_per_search = 200;

Problem problem_of(const picture::Error& error) {
    switch (error.kind) {
        case ErrorKind::no_region:
            return {error.kind, std::string(error.what()) + R"(; start the cluster, or run "shmnmctl serve")"};
        case ErrorKind::lock_timeout:
            return {error.kind, std::string(error.what()) + R"(; see "shmnmctl lock --who")"};
        default:
            return {error.kind, error.what()};
    }
}

/// The problem of a look that found no region.
Problem no_region() {
    return problem_of(
        {ErrorKind::no_region, "no process holds the region " + picture::full_name(picture::mapping_name)});
}

/// Makes a copy part of a look.
void take(picture::Snapshot snapshot, picture::Bytes wanted, Look& look) {
    const auto bridge = std::exchange(snapshot.bridge, std::nullopt);
    const bool is_known = bridge.has_value() && look.bridge.has_value();
    if (is_known ? !picture::say_the_same(*bridge, *look.bridge) : bridge.has_value() != look.bridge.has_value()) {
        ++look.bridge_version;
    }
    look.bridge = bridge;
    if (wanted == picture::Bytes::all) {
        look.findings = picture::findings(snapshot).size();
        look.all = std::make_shared<const picture::Snapshot>(std::move(snapshot));
        return;
    }
    look.copied_us = platform::wall_clock_us();
    look.copied_steady_us = platform::steady_clock_us();
    if (look.content && look.content->equals(snapshot)) return;
    ++look.version;
    look.content = std::make_shared<const Content>(std::move(snapshot));
}

}  // namespace

Look look_at(Source& source, const Look& last, picture::Bytes wanted) {
    Look now = last;
    now.problem.reset();
    now.all.reset();
    try {
        if (auto snapshot = source.copy(wanted)) {
            now.lock = snapshot->lock;
            now.lock_wait_us = snapshot->lock_wait_us;
            now.lock_held_us = snapshot->lock_held_us;
            take(std::move(*snapshot), wanted, now);
        } else {
            now.content.reset();
            now.bridge.reset();
            now.problem = no_region();
            now.lock = source.lock();
        }
    } catch (const picture::Error& error) {
        if (error.kind == ErrorKind::no_region) now.content.reset();
        now.problem = problem_of(error);
        if (error.kind == ErrorKind::lock_timeout) now.lock = source.lock();
    } catch (const std::exception& error) {
        now.problem = Problem{ErrorKind::failed, "failed to look at the region: " + picture::printable(error.what()) +
                                                     "; see whether this machine is out of memory"};
    }
    now.is_lock_held = now.lock && source.is_held(*now.lock);
    now.time_us = platform::wall_clock_us();
    return now;
}

Sampler::Sampler(std::unique_ptr<Source> source, Look last, Tell tell)
    : source_(std::move(source)), tell_(std::move(tell)), last_(std::move(last)), thread_([this] { run(); }) {}

Sampler::~Sampler() {
    {
        const std::scoped_lock hold(mutex_);
        stopping_ = true;
    }
    stop_asked_.notify_one();
    thread_.join();
}

void Sampler::run() {
    for (;;) {
        const auto begin = std::chrono::steady_clock::now();
        const bool is_due = ++looks_ % looks_per_search == 0;
        const bool all = all_asked_.exchange(false) || is_due;
        last_ = look_at(*source_, last_, all ? picture::Bytes::all : picture::Bytes::in_use);
        tell_(std::make_shared<const Look>(last_));
        std::unique_lock hold(mutex_);
        if (stop_asked_.wait_until(hold, begin + interval, [this] { return stopping_; })) return;
    }
}

}  // namespace shmnmweb
