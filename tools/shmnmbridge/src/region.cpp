#include "region.h"

#include <fmt/format.h>

#include <algorithm>
#include <atomic>
#include <utility>

#include "core_steps.h"
#include "kzmutil.h"
#include "picture/error.h"
#include "picture/platform.h"

namespace bridge {
namespace {

namespace platform = picture::platform;

constexpr uint32_t longest_look_ms = 100, longest_wait_ms = 200;

/// The region through a view for reading. While this lives, the region lives, and no other takes its name.
class View {
  public:
    View()
        : mapping_(KzmutilOpenNamedFileMapping(to_read, 0, picture::mapping_name)),
          header_(mapping_ ? static_cast<const shmnm_header*>(platform::map_for_reading(mapping_)) : nullptr) {}
    ~View() {
        if (header_) platform::unmap(header_);
        if (mapping_) platform::close(mapping_);
    }
    View(const View&) = delete;
    View& operator=(const View&) = delete;

    bool is_open() const { return header_; }
    uint64_t object() const { return platform::object_number(mapping_); }
    picture::Counts counts() const {
        return {load(header_->max_servers), load(header_->max_hb), load(header_->max_np), load(header_->fst_count)};
    }

  private:
    static constexpr uint32_t to_read = 4;
    static int32_t load(const int32_t& number) {
        return std::atomic_ref<int32_t>(const_cast<int32_t&>(number)).load(std::memory_order_relaxed);
    }

    void* mapping_;
    const shmnm_header* header_;
};

struct Prepared {
    picture::Step set;
    Reading read;
    std::optional<AgreedValue> expected;
};

std::vector<Prepared> prepared(const Batch& batch) {
    std::vector<Prepared> calls;
    calls.reserve(batch.calls.size());
    for (const Call& call : batch.calls) calls.push_back({to_step(call), to_reading(call), call.expected});
    return calls;
}

/// Attached to the region as long as this lives.
class Attached {
  public:
    Attached() : result_(picture::library().shmnm_attach()) {}
    ~Attached() {
        if (result_ == SHMNM_OK) picture::library().shmnm_detach();
    }
    Attached(const Attached&) = delete;
    Attached& operator=(const Attached&) = delete;
    uint32_t result() const { return result_; }

  private:
    uint32_t result_;
};

bool is_same_content(const picture::Snapshot& left, const picture::Snapshot& right) {
    return left.object == right.object && left.counts == right.counts && left.configured == right.configured &&
           left.bytes == right.bytes;
}

}  // namespace

Region::Region() : region_({.lock_timeout_ms = longest_look_ms}) {}

Region::Seen Region::look() {
    try {
        auto copy = region_.try_copy(picture::Bytes::in_use);
        if (!copy) {
            last_.reset();
            look_.reset();
            return {
                .look = nullptr,
                .problem = fmt::format("no process holds the region {}; start the cluster, or run \"shmnmctl serve\"",
                                       picture::full_name(picture::mapping_name))};
        }
        longest_hold_us_ = std::max(longest_hold_us_, copy->lock_held_us);
        if (!last_ || !is_same_content(*last_, *copy)) {
            look_ = std::make_shared<const Look>(reduced(*copy));
            last_ = std::move(*copy);
        }
        return {.look = look_};
    } catch (const picture::Error& error) {
        return {.look = nullptr, .failed = true, .problem = std::string("cannot copy the region: ") + error.what()};
    }
}

Region::Made Region::make(const Batch& batch) {
    Made made{.done = {.batch = batch.id, .made = false, .skipped = {}}};
    try {
        region_.mutex();
        const View view;
        const auto is_as_looked_at = [&] { return view.object() == batch.object && view.counts() == batch.counts; };
        // Otherwise attaching would write other counts into it. The next look sees what it is now.
        if (!view.is_open() || !is_as_looked_at() || picture::configured_counts() != batch.counts) return made;
        const std::vector<Prepared> calls = prepared(batch);
        made.done.skipped.reserve(calls.size());
        const picture::Library& library = picture::library();
        const Attached attached;
        if (attached.result() != SHMNM_OK) {
            made.problem = fmt::format("shmnm_attach failed with code {} ({})", attached.result(),
                                       picture::meaning(attached.result()));
            return made;
        }
        if (library.shmnm_rwlock(longest_wait_ms) != SHMNM_OK) {
            made.problem = fmt::format(
                "timed out after {} ms waiting for the region's lock; see \"shmnmctl lock --who\"", longest_wait_ms);
            return made;
        }
        const uint64_t taken_us = platform::steady_clock_us();
        const char* failed = nullptr;
        if (is_as_looked_at()) {
            made.done.made = true;
            for (size_t at = 0; at < calls.size(); ++at) {
                const Prepared& call = calls[at];
                AgreedValue value{};
                const bool is_expected = call.read(value) && (!call.expected || value == *call.expected);
                const bool is_set = is_expected && call.set.call() == SHMNM_OK;
                if (is_expected && !is_set) failed = call.set.function;
                if (!is_set) made.done.skipped.push_back(at);
            }
        }
        library.shmnm_rwunlock();
        longest_hold_us_ = std::max(longest_hold_us_, platform::steady_clock_us() - taken_us);
        if (failed) made.problem = fmt::format("{} failed; the trace log has its reason", failed);
    } catch (const picture::Error& error) {
        made.problem = error.what();
    }
    return made;
}

}  // namespace bridge
