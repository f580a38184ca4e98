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

/// Where the areas start, as distances from the region's start in 64-bit arithmetic. A negative distance is a very
/// large one.
struct Layout {
    explicit constexpr Layout(const Counts& counts) noexcept;
    constexpr Layout() noexcept = default;

    uint64_t servers = 0, hb = 0, np = 0, fst = 0, fst_pids = 0, network = 0;
    uint32_t size = 0;  ///< of the whole region, in bytes; wraps, as do the sizes of all processes
};

/// Every word of the region is loaded and stored by these two: other processes write at the same time.
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

/// What was written before this stays before what is written after it: for threads that look on, and for whoever finds
/// the region when this process is killed in between.
inline void keep_order() noexcept {
    std::atomic_thread_fence(std::memory_order_acq_rel);
}

/// Stores two words of the region in one instruction, so that a process that is killed has stored both or none.
struct Pair {
    uint32_t first, second;
};
[[gnu::no_sanitize_thread]] inline void store_pair(void* place, Pair pair) noexcept {
    using Both [[gnu::aligned(4), gnu::may_alias]] = uint64_t;
    *static_cast<volatile Both*>(place) = uint64_t{pair.second} << 32 | pair.first;
}

/// Block operations on words of the region, a word at a time, upwards.
template <typename Word>
void copy_words(Word* to, const Word* from, size_t count) noexcept {
    for (size_t i = 0; i < count; ++i) store(to[i], load(from[i]));
}
inline void zero_words(void* first, size_t bytes) noexcept {
    auto* const words = static_cast<uint32_t*>(first);
    for (size_t i = 0; i < bytes / sizeof *words; ++i) store(words[i], uint32_t{0});
}

/// What the library writes into every state that it opens.
inline constexpr uint32_t opened_state = 2;

/// The length of a text that ends at its NUL or, without one, after `limit` bytes.
inline size_t text_length(const char* text, size_t limit) noexcept {
    const void* const nul = std::memchr(text, 0, limit);
    return nul ? static_cast<size_t>(static_cast<const char*>(nul) - text) : limit;
}
/// Writes bytes over the first ones of a field, a word at a time. The bytes after them stay.
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
/// Writes the first `length` bytes of a text into a field, a word at a time, zero-padded.
inline void put_padded(char* field, size_t size, const char* text, size_t length) noexcept {
    auto* const words = reinterpret_cast<uint32_t*>(field);
    size_t at = 0;
    for (; at < length; at += sizeof *words) {
        uint32_t word = 0;
        const size_t left = length - at;
        std::memcpy(&word, text + at, left < sizeof word ? left : sizeof word);
        store(words[at / sizeof word], word);
    }
    if (at < size) zero_words(field + at, size - at);
}
/// Writes a text into a field of `size` bytes, zero-padded. A text that fills the field is cut and has no NUL there.
inline void put_text(char* field, size_t size, const char* text) noexcept {
    put_padded(field, size, text, text_length(text, size));
}
/// The same, but the field's last byte is always NUL.
inline void put_terminated(char* field, size_t size, const char* text) noexcept {
    put_padded(field, size, text, text_length(text, size - 1));
}
/// Copies a field of `size` bytes out, up to and with its NUL, if it has one.
inline void get_text(char* text, const char* field, size_t size) noexcept {
    const size_t length = text_length(field, size);
    std::memcpy(text, field, length);
    if (length < size) text[length] = 0;
}

/// The mapped region of this process.
struct Region {
    uint8_t* base = nullptr;
    size_t view_size = 0;  ///< bytes mapped: whole pages, so the header always fits
    Counts counts;         ///< those that it was mapped by
    Layout layout;         ///< which follows from them
    uint64_t object = 0;   ///< another region has another number; 0 where the system has none

    shmnm_header& header() const noexcept { return *reinterpret_cast<shmnm_header*>(base); }
    const uint8_t* end() const noexcept { return base + view_size; }
    /// Whether that many bytes at this distance from the start lie in the view.
    bool holds(uint64_t offset, uint64_t size) const noexcept {
        return offset <= view_size && size <= view_size - offset;
    }
    /// That many bytes at this distance, or as many of them as lie before the end of the view.
    uint64_t clipped(uint64_t offset, uint64_t size) const noexcept {
        if (offset >= view_size) return 0;
        return size < view_size - offset ? size : view_size - offset;
    }
    /// The word at this distance, which must lie in the view.
    uint32_t* word(uint64_t offset) const noexcept { return reinterpret_cast<uint32_t*>(base + offset); }
};

/// Things that lie at equal distances. The arithmetic wraps at 64 bits, as addresses do: what comes out is tested
/// against the view wherever a position or a step has not been.
struct Strip {
    uint64_t start;
    int64_t step;

    uint64_t at(int64_t position) const noexcept {
        return start + static_cast<uint64_t>(position) * static_cast<uint64_t>(step);
    }
};

/// Zeroes the `step` bytes at a position, as far as they lie in the view.
void zero_place(const Region& region, const Strip& strip, int32_t position) noexcept;
/// Copies the `step` bytes at the next position down to this one and zeroes them there, as far as they lie in the view.
/// @return whether any do
bool take_next(const Region& region, const Strip& strip, int32_t position) noexcept;

/// A record and its position, or neither.
template <typename Record>
struct Found {
    Record* record = nullptr;
    int32_t position = -1;

    explicit operator bool() const noexcept { return record != nullptr; }
    Record* operator->() const noexcept { return record; }
};

/// A table of records in the view: the number of those that a scan may visit is settled before the scan begins.
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
    /// The first one that `may_match`, as few do, and `matches`.
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

    /// The same, but if the first one that may match does not, `later` returns the first one from the next position on.
    template <typename MayMatch, typename Matches, typename Later>
    [[gnu::always_inline]] Found<Record> first(const MayMatch& may_match, const Matches& matches,
                                               const Later& later) const noexcept {
        const Found<Record> found = from(first_, 0, may_match);
        return !found || matches(*found.record) ? found : later(found.position + 1);
    }

  private:
    /// The first one that `matches` of the records from this place and position on.
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

    /// How many of `count` records lie wholly in the view. Records that do not follow one another (a step that is not
    /// above 0) have no places of their own: there are none.
    static int32_t visible(uint64_t view_size, const Strip& strip, int32_t count) noexcept {
        static_assert(sizeof(Record) <= 4096);  // a view is a page at least
        const uint64_t last_start = view_size - sizeof(Record);
        if (count <= 0 || strip.step <= 0 || strip.start > last_start) return 0;
        const uint64_t room = last_start - strip.start, step = static_cast<uint64_t>(strip.step);
        const uint64_t last = static_cast<uint64_t>(count) - 1;
        // A view is below 2^33 bytes and a count below 2^31, so only a step beyond the view could overflow the product.
        if (step <= room && last * step <= room) return count;
        return static_cast<int32_t>(last < room / step ? last : room / step) + 1;
    }

    uint8_t* first_;
    int64_t step_;
    int32_t count_;
};

/// The place behind `count` records, or null if that is not in the view.
template <typename Record>
Record* free_place(const Region& region, const Strip& strip, int32_t count) noexcept {
    if (count < 0 || count == INT32_MAX) return nullptr;
    const Table<Record> grown(region, strip, count + 1);
    return grown.count() > count ? &grown[count] : nullptr;
}

/// The region, or null while it is not mapped in this process.
const Region* mapped_region() noexcept;
/// Publishes a mapped view to the exports of this process, or takes it back. The caller holds the library lock.
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
