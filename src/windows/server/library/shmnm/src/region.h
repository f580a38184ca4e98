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

/// Block operations on words of the region, a word at a time, upwards.
template <typename Word>
void copy_words(Word* to, const Word* from, size_t count) noexcept {
    for (size_t i = 0; i < count; ++i) store(to[i], load(from[i]));
}
inline void zero_words(void* first, size_t bytes) noexcept {
    auto* const words = static_cast<uint32_t*>(first);
    for (size_t i = 0; i < bytes / sizeof *words; ++i) store(words[i], uint32_t{0});
}

/// A text to look for. A record's first 16 bytes decide nearly every comparison, without a call.
class TextKey {
  public:
    explicit TextKey(const char* text) noexcept : text_(text), size_(std::strlen(text) + 1) {
        const size_t length = size_ < sizeof prefix_ ? size_ : sizeof prefix_;
        std::memcpy(prefix_, text, length);
        std::memset(mask_, 0xFF, length);
    }
    /// Whether a field holds exactly this text. At least 16 bytes from `field` and all up to `end` may be read.
    bool equals(const char* field, const uint8_t* end) const noexcept {
        uint64_t head[2];
        std::memcpy(head, field, sizeof head);
        if (((head[0] & mask_[0]) ^ prefix_[0]) | ((head[1] & mask_[1]) ^ prefix_[1])) return false;
        return size_ <= sizeof prefix_ || equals_whole(field, end);
    }

  private:
    bool equals_whole(const char* field, const uint8_t* end) const noexcept {
        const auto* const bytes = reinterpret_cast<const uint8_t*>(field);
        return size_ <= static_cast<size_t>(end - bytes) && std::memcmp(field, text_, size_) == 0;
    }

    const char* text_;
    size_t size_;  ///< with the NUL
    uint64_t prefix_[2] = {}, mask_[2] = {};
};

/// A table of records in the view: the number of those that a scan may visit is settled before the scan begins.
template <typename Record>
class Table {
  public:
    Table(uint8_t* view, size_t view_size, uint64_t start, int64_t stride, int32_t count) noexcept
        : first_(view), stride_(stride), count_(visible(view_size, start, stride, count)) {
        if (count_ > 0) first_ += start;
    }

    int32_t count() const noexcept { return count_; }
    Record& operator[](int32_t position) const noexcept {
        return *reinterpret_cast<Record*>(first_ + position * stride_);
    }

  private:
    /// How many of `count` records lie wholly in the view. Records that do not follow one another (a stride that is not
    /// above 0) have no places of their own: there are none.
    static int32_t visible(uint64_t view_size, uint64_t start, int64_t stride, int32_t count) noexcept {
        if (count <= 0 || stride <= 0 || start > view_size || view_size - start < sizeof(Record)) return 0;
        const uint64_t room = view_size - start - sizeof(Record), step = static_cast<uint64_t>(stride);
        const uint64_t last = static_cast<uint64_t>(count) - 1;
        // A step is below 2^34 and a count below 2^31, so only a step beyond the view could overflow the product.
        if (step <= room && last * step <= room) return count;
        return static_cast<int32_t>(last < room / step ? last : room / step) + 1;
    }

    uint8_t* first_;
    int64_t stride_;
    int32_t count_;
};

/// The mapped region of this process.
struct Region {
    uint8_t* base = nullptr;
    size_t view_size = 0;  ///< bytes mapped: whole pages, so the header always fits
    Layout layout;

    shmnm_header& header() const noexcept { return *reinterpret_cast<shmnm_header*>(base); }
    const uint8_t* end() const noexcept { return base + view_size; }
    /// Whether that many bytes at this distance from the start lie in the view.
    bool holds(uint64_t offset, uint64_t size) const noexcept {
        return offset <= view_size && size <= view_size - offset;
    }
};

/// The region, or null while it is not mapped in this process.
const Region* mapped_region() noexcept;
/// Publishes a mapped view to the exports of this process, or takes it back. The caller holds the library lock.
void publish_region(uint8_t* view, size_t view_size, const Layout& layout) noexcept;
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

    const auto narrow = [](int32_t count) { return static_cast<uint32_t>(count); };
    size = 1084u + 4u * (narrow(counts.servers) *
                             (80u + 148u * narrow(counts.hb) + 147u * narrow(counts.np) + 81u * narrow(counts.fst)) +
                         146u * narrow(counts.fst));
}

}  // namespace shmnm
