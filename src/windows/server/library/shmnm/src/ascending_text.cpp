// A field holds the text if the first NUL at or after the field is as far from it as the text's own NUL, and the bytes
// before it are equal. The place of the NUL is kept from one field to the next, so the view is searched for it only
// once. Only one field is that far from a given NUL, so no byte is compared twice unless words are set meanwhile, and
// words that were set need not be compared byte by byte.
#include "ascending_text.h"

#include <algorithm>

namespace shmnm {

bool AscendingText::equals(const char* field) noexcept {
    if (!nul_ || nul_ < field) nul_ = end_of_text(field, end_);
    if (nul_ == end_ || static_cast<size_t>(nul_ - field) != size_) return false;
    if (set_end_ <= field || set_ >= nul_) return holds(field, 0, size_);
    const size_t from = set_ > field ? static_cast<size_t>(set_ - field) : 0;
    const size_t to = static_cast<size_t>(std::min(set_end_, nul_) - field);
    return holds(field, 0, from) && repeats_value(from, to) && holds(field, to, size_);
}

void AscendingText::were_set(const uint32_t* first, const uint32_t* last, uint32_t value) noexcept {
    const auto* const begin = reinterpret_cast<const char*>(first);
    const auto* const end = reinterpret_cast<const char*>(last);
    if (begin != set_end_) set_ = begin;
    set_end_ = end;
    std::memcpy(value_, &value, sizeof value_);

    if (nul_ < begin) return;
    if (const void* const zero = std::memchr(value_, 0, sizeof value_)) {
        nul_ = begin + (static_cast<const char*>(zero) - value_);
    } else if (nul_ < end) {
        nul_ = end_of_text(end, end_);
    }
}

bool AscendingText::holds(const char* field, size_t from, size_t to) const noexcept {
    return std::memcmp(field + from, text_ + from, to - from) == 0;
}

bool AscendingText::repeats_value(size_t from, size_t to) noexcept {
    const auto repeats = [&](size_t i) { return text_[i] == value_[i % sizeof value_]; };
    // The words that were set begin near the field, so few bytes are compared again each time.
    for (size_t i = from; i < std::min(to, sizeof(shmnm_resource)); ++i) {
        if (!repeats(i)) return false;
    }
    while (alike_end_ < to && repeats(alike_end_)) ++alike_end_;
    return alike_end_ >= to;
}

}  // namespace shmnm
