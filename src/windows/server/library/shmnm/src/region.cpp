#include "region.h"

namespace shmnm {
namespace {

constinit Region mapping_of_process;
constinit std::atomic<const Region*> published{nullptr};

/// How many bytes of the strip at a position lie in the view: none if the step is 0 or less.
uint64_t visible_bytes(const Region& mapping, const Strip& strip, int32_t position) noexcept {
    return strip.step > 0 ? mapping.clipped(strip.at(position), static_cast<uint64_t>(strip.step)) : 0;
}

}  // namespace

void zero_place(const Region& mapping, const Strip& strip, int32_t position) noexcept {
    // branch: callers have found a record there
    if (const uint64_t size = visible_bytes(mapping, strip, position); size > 0) {
        zero_words(mapping.word(strip.at(position)), size);
    }
}

bool take_next(const Region& mapping, const Strip& strip, int32_t position) noexcept {
    const uint64_t to = strip.at(position), from = strip.at(int64_t{position} + 1);
    const uint64_t size = visible_bytes(mapping, strip, position + 1);
    // branch: what comes before a visible record is visible too
    if (size == 0 || !mapping.holds(to, size)) return false;
    copy_words(mapping.word(to), mapping.word(from), size / sizeof(uint32_t));
    zero_words(mapping.word(from), size);
    return true;
}

const Region* mapped_region() noexcept {
    return published.load(std::memory_order_acquire);
}

void publish_region(const Region& region) noexcept {
    mapping_of_process = region;
    published.store(&mapping_of_process, std::memory_order_release);
}

void withdraw_region() noexcept {
    published.store(nullptr, std::memory_order_release);
}

}  // namespace shmnm
