// Compares a text with fields of the region in ascending order. The time is limited by the sizes of the view and the
// text, however many fields there are, however they overlap and however much of the text they hold. Healthy tables are
// searched with a TextKey, which costs less as long as each text ends within its record.
#pragma once

#include "region.h"
#include "text.h"

namespace shmnm {

class AscendingText {
  public:
    AscendingText(const Region& region, const char* text) noexcept
        : text_(text), size_(std::strlen(text)), end_(reinterpret_cast<const char*>(region.end())) {}

    /// Whether a field holds exactly this text. The field must not lie before the field of the previous call.
    bool equals(const char* field) noexcept;

    /// Notes that the words from `first` up to `last` (exclusive) were set to `value`, which is the same in every call.
    /// They must begin after the field that was compared last, within a record's size of it, and not before words that
    /// were set earlier.
    void were_set(const uint32_t* first, const uint32_t* last, uint32_t value) noexcept;

  private:
    bool holds(const char* field, size_t from, size_t to) const noexcept;
    bool repeats_value(size_t from, size_t to) noexcept;

    const char* text_;
    size_t size_;  ///< without the NUL
    const char* end_;
    const char* nul_ = nullptr;  ///< the first NUL at or after the field that was compared last

    const char *set_ = nullptr, *set_end_ = nullptr;  ///< the latest unbroken run of words that were set
    char value_[sizeof(uint32_t)] = {};
    size_t alike_end_ = sizeof(shmnm_resource);  ///< the text repeats the value from the size of a record up to here
};

/// Whether comparing each of the records with a text may read the same bytes again and again.
template <typename Record>
bool may_read_on(const Table<Record>& records, const TextKey& key) noexcept {
    return !records.apart() || !key.fits(sizeof(Record));
}

/// The first record of a name that may be longer than a record.
template <typename Record>
Found<Record> find_ascending(const Region& region, const Table<Record>& records, const char* name) noexcept {
    AscendingText text(region, name);
    return records.first([&](const Record& record) { return text.equals(record.name); });
}

}  // namespace shmnm
