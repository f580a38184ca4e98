// The region as this process has mapped it: where its areas start, and access to its records and words that never
// leaves the mapped view, whatever the counts in the region say. Knows the records, not what they mean.
#pragma once

#include <atomic>
#include <cstdint>
#include <cstring>

#include "shmnm.h"

namespace shmnm {

/// The four counts of the configuration.
struct Counts {
    int32_t servers = 128, hb = 16, np = 16, fst = 1;
};

/// Where the areas start: distances in bytes from the region's start, in 64-bit arithmetic. A negative distance wraps
/// to a very large one.
struct Layout {
    explicit constexpr Layout(const Counts& counts) noexcept;
    constexpr Layout() noexcept = default;

    uint64_t servers = 0, hb = 0, np = 0, fst = 0, fst_pids = 0, network = 0;
    uint32_t size = 0;  ///< of the whole region, in bytes; wraps at 32 bits, in every process alike
};

/// Only these two functions load and store words of the region: other processes write at the same time.
template <typename Word>
Word load(const Word& word) noexcept {
    static_assert(sizeof(Word) == 4);
    return std::atomic_ref<Word>(const_cast<Word&>(word)).load(std::memory_order_relaxed);
}
template <typename Word>
void store(Word& word, Word value) noexcept {
    static_assert(sizeof(Word) == 4);
    std::atomic_ref<Word>(word).store(value, std::memory_order_relaxed);
}

/// Keeps earlier writes before later writes, for other threads that read meanwhile and for the processes that find the
/// region if this one is killed in between.
inline void keep_order() noexcept {
    std::atomic_thread_fence(std::memory_order_acq_rel);
}

/// Stores two words of the region in one instruction, so that a killed process has stored both or neither.
struct Pair {
    uint32_t first, second;
};
[[gnu::no_sanitize_thread]] inline void store_pair(void* place, Pair pair) noexcept {
    using Both [[gnu::aligned(4), gnu::may_alias]] = uint64_t;
    *static_cast<volatile Both*>(place) = uint64_t{pair.second} << 32 | pair.first;
}

/// Block operations on words of the region, one word at a time in ascending order.
template <typename Word>
void copy_words(Word* to, const Word* from, size_t count) noexcept {
    for (size_t i = 0; i < count; ++i) store(to[i], load(from[i]));
}
inline void zero_words(void* first, size_t bytes) noexcept {
    auto* const words = static_cast<uint32_t*>(first);
    for (size_t i = 0; i < bytes / sizeof *words; ++i) store(words[i], uint32_t{0});
}
/// Overwrites the first `size` bytes of a field, one word at a time. The rest of the field stays.
inline void put_bytes(void* field, const void* bytes, size_t size) noexcept {
    auto* const words = static_cast<uint32_t*>(field);
    const auto* const from = static_cast<const uint8_t*>(bytes);
    for (size_t at = 0; at < size; at += sizeof *words) {
        uint32_t& place = words[at / sizeof *words];
        const size_t left = size - at;
        uint32_t word = left < sizeof word ? load(place) : 0;
        std::memcpy(&word, from + at, left < sizeof word ? left : sizeof word);
        store(place, word);
    }
}

/// The value that the library gives a state when it opens it.
inline constexpr uint32_t opened_state = 2;

/// The mapped region of this process.
struct Region {
    uint8_t* base = nullptr;
    size_t view_size = 0;  ///< bytes mapped: whole pages, so the header always fits
    Counts counts;         ///< by which it was mapped
    Layout layout;         ///< follows from the counts
    uint64_t object = 0;   ///< differs from region to region; 0 if the system has no such number

    shmnm_header& header() const noexcept { return *reinterpret_cast<shmnm_header*>(base); }
    const uint8_t* end() const noexcept { return base + view_size; }
    /// Whether `size` bytes at `offset` lie in the view.
    bool holds(uint64_t offset, uint64_t size) const noexcept {
        return offset <= view_size && size <= view_size - offset;
    }
    /// How many of `size` bytes at `offset` lie in the view.
    uint64_t clipped(uint64_t offset, uint64_t size) const noexcept {
        if (offset >= view_size) return 0;
        return size < view_size - offset ? size : view_size - offset;
    }
    /// The word at `offset`, which must lie in the view.
    uint32_t* word(uint64_t offset) const noexcept { return reinterpret_cast<uint32_t*>(base + offset); }
};

/// Records or rows at equal distances. The arithmetic wraps at 64 bits, as addresses do. Callers check the result
/// against the view unless they have checked the position and the step.
struct Strip {
    uint64_t start;
    int64_t step;

    uint64_t at(int64_t position) const noexcept {
        return start + static_cast<uint64_t>(position) * static_cast<uint64_t>(step);
    }
};

/// Zeroes those of the `step` bytes at a position that lie in the view.
void zero_place(const Region& region, const Strip& strip, int32_t position) noexcept;
/// Moves those of the `step` bytes at the next position that lie in the view to this position, and zeroes their old
/// place.
/// @return whether there were any
bool take_next(const Region& region, const Strip& strip, int32_t position) noexcept;

/// A record and its position, or neither.
template <typename Record>
struct Found {
    Record* record = nullptr;
    int32_t position = -1;

    explicit operator bool() const noexcept { return record != nullptr; }
    Record* operator->() const noexcept { return record; }
};

/// The records of a table that lie in the view. How many a scan may visit is settled before the scan begins.
template <typename Record>
class Table {
  public:
    Table(const Region& region, const Strip& strip, int32_t count) noexcept
        : first_(region.base), step_(strip.step), count_(visible(region.view_size, strip, count)) {
        if (count_ > 0) first_ += strip.start;
    }

    int32_t count() const noexcept { return count_; }
    /// Whether each record ends before the next one begins.
    bool apart() const noexcept { return step_ >= static_cast<int64_t>(sizeof(Record)); }
    Record& operator[](int32_t position) const noexcept { return at(first_ + position * step_); }

    /// The first record, in order of position, that `matches`.
    template <typename Matches>
    Found<Record> first(const Matches& matches) const noexcept {
        return from(first_, 0, matches);
    }
    /// The first record that `may_match` and then `matches`. Few records may match.
    template <typename MayMatch, typename Matches>
    [[gnu::always_inline]] Found<Record> first(const MayMatch& may_match, const Matches& matches) const noexcept {
        uint8_t* place = first_;
        for (int32_t position = 0;;) {
            const Found<Record> found = from(place, position, may_match);
            if (!found || matches(*found.record)) return found;
            place = reinterpret_cast<uint8_t*>(found.record) + step_;
            position = found.position + 1;
        }
    }

    /// The same, but if the first record that may match does not match, `later` searches from the next position on.
    template <typename MayMatch, typename Matches, typename Later>
    [[gnu::always_inline]] Found<Record> first(const MayMatch& may_match, const Matches& matches,
                                               const Later& later) const noexcept {
        const Found<Record> found = from(first_, 0, may_match);
        return !found || matches(*found.record) ? found : later(found.position + 1);
    }

  private:
    /// The first record at or after this place and position that `matches`.
    template <typename Matches>
    [[gnu::always_inline]] Found<Record> from(uint8_t* place, int32_t position, const Matches& matches) const noexcept {
        constexpr int32_t stride = 4;
        for (; count_ - position >= stride; position += stride, place += stride * step_) {
#pragma GCC unroll 4
            for (int32_t i = 0; i < stride; ++i) {
                if (matches(at(place + i * step_))) return {&at(place + i * step_), position + i};
            }
        }
        for (; position < count_; ++position, place += step_) {
            if (matches(at(place))) return {&at(place), position};
        }
        return {};
    }

    static Record& at(uint8_t* place) noexcept {
        return *reinterpret_cast<Record*>(place);
    }

    /// How many of `count` records lie wholly in the view. With a step of 0 or less, records have no places of their
    /// own, and there are none.
    static int32_t visible(uint64_t view_size, const Strip& strip, int32_t count) noexcept {
        static_assert(sizeof(Record) <= 4096);  // a view is a page at least
        const uint64_t last_start = view_size - sizeof(Record);
        if (count <= 0 || strip.step <= 0 || strip.start > last_start) return 0;
        const uint64_t room = last_start - strip.start, step = static_cast<uint64_t>(strip.step);
        const uint64_t last = static_cast<uint64_t>(count) - 1;
        // A view is below 2^33 bytes and a count below 2^31, so only a step beyond the view could overflow the product.
        if (step <= room && last * step <= room) return count;
        return static_cast<int32_t>(room / step) + 1;
    }

    uint8_t* first_;
    int64_t step_;
    int32_t count_;
};

/// The place after `count` records, or null if it does not lie wholly in the view. The count is below its limit.
template <typename Record>
Record* free_place(const Region& region, const Strip& strip, int32_t count) noexcept {
    if (count < 0) return nullptr;
    const Table<Record> grown(region, strip, count + 1);
    return grown.count() > count ? &grown[count] : nullptr;
}

/// The region, or null while it is not mapped in this process.
const Region* mapped_region() noexcept;
/// Publishes a mapped view to the exports of this process, or withdraws it. The caller holds the library lock.
void publish_region(const Region& region) noexcept;
void withdraw_region() noexcept;

constexpr Layout::Layout(const Counts& counts) noexcept {
    // Address arithmetic: signed counts, widened, wrapping at 64 bits.
    const auto wide = [](int32_t count) { return static_cast<uint64_t>(static_cast<int64_t>(count)); };
    const uint64_t s = wide(counts.servers), h = wide(counts.hb), n = wide(counts.np), f = wide(counts.fst);
    servers = sizeof(shmnm_header);
    hb = servers + sizeof(shmnm_server) * s;
    np = hb + sizeof(shmnm_resource) * h * s;
    fst = np + sizeof(shmnm_resource) * n * s;
    fst_pids = fst + sizeof(shmnm_resource) * f;
    network = fst_pids + sizeof(shmnm_fst_pid) * f * s;
    // Deliberately more than the rows of the hb resources need.
    size = static_cast<uint32_t>(network + sizeof(uint32_t) * (2 * h + n) * s);
}

}  // namespace shmnm
