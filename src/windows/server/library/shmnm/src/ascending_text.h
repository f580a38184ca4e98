// A text that fields of the region are compared with, one field after the other upwards, in a time that the view and
// the text limit: however many fields there are, how far they lie over one another and how much of the text they hold.
// Healthy tables are searched by a TextKey, which costs less as long as each text ends within its record.
#pragma once

#include "region.h"
#include "text_key.h"

namespace shmnm {

/// The first NUL from here on, or `end`.
inline const char* end_of_text(const char* text, const char* end) noexcept {
    const void* const nul = std::memchr(text, 0, static_cast<size_t>(end - text));
    return nul ? static_cast<const char*>(nul) : end;
}

class AscendingText {
  public:
    AscendingText(const Region& region, const char* text) noexcept
        : text_(text), size_(std::strlen(text)), end_(reinterpret_cast<const char*>(region.end())) {}

    /// Whether a field holds exactly this text. No field may lie before the one that was asked for last.
    bool equals(const char* field) noexcept;

    /// Notes that the words from `first` to before `last` were set, always to the same value. They must begin after the
    /// field that was asked for last and within a record's size of it, and not before words that were set earlier.
    void were_set(const uint32_t* first, const uint32_t* last, uint32_t value) noexcept;

  private:
    bool holds(const char* field, size_t from, size_t to) const noexcept;
    bool repeats_value(size_t from, size_t to) noexcept;

    const char* text_;
    size_t size_;  ///< without the NUL
    const char* end_;
    const char* nul_ = nullptr;  ///< the first NUL from the field on that was asked for last

    const char *set_ = nullptr, *set_end_ = nullptr;  ///< the last words that were set, without a gap
    char value_[sizeof(uint32_t)] = {};
    size_t alike_end_ = sizeof(shmnm_resource);  ///< from the size of a record to here the text repeats the value
};

/// Whether comparing each of the records with a text may read the same bytes over and over.
template <typename Record>
bool may_read_on(const Table<Record>& records, const TextKey& key) noexcept {
    return !records.apart() || !key.fits(sizeof(Record));
}

/// The first record of a name that may be so long that comparisons read on.
template <typename Record>
Found<Record> find_ascending(const Region& region, const Table<Record>& records, const char* name) noexcept {
    AscendingText text(region, name);
    return records.first([&](const Record& record) { return text.equals(record.name); });
}

}  // namespace shmnm
