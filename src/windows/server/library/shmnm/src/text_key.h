// What texts of the region are looked for by.
#pragma once

#include <cstdint>
#include <cstring>

namespace shmnm {

/// Whether a field holds exactly this text. All up to `end`, and no more, may be read.
inline bool holds_text(const char* field, const uint8_t* end, const char* text) noexcept {
    const auto limit = static_cast<size_t>(end - reinterpret_cast<const uint8_t*>(field));
    for (size_t i = 0; i < limit; ++i) {
        if (field[i] != text[i]) return false;
        if (text[i] == 0) return true;
    }
    return false;
}

/// A text to look for, or null for any text. Eight bytes of a field decide nearly every comparison.
class TextKey {
  public:
    explicit TextKey(const char* text) noexcept : text_(text), size_(text ? std::strlen(text) + 1 : 0) {
        // Bytes 4 to 11 of the text, as far as it has them; shorter ones leave all to the second step. The loads end
        // where these bytes or the text do, so none goes beyond it.
        if (size_ >= 8) {
            const size_t end = size_ < 12 ? size_ : 12, bits_before = 8 * (12 - end);
            mask_ = ~uint64_t{0} >> bits_before;
            middle_ = word<uint64_t>(text + end - 8) >> bits_before;
        } else if (size_ > 4) {
            mask_ = ~uint64_t{0} >> 8 * (12 - size_);
            middle_ = word<uint32_t>(text + size_ - 4) >> 8 * (8 - size_);
        }
    }
    /// Whether the text with its NUL has at most that many bytes.
    bool fits(size_t size) const noexcept { return size_ <= size; }
    /// Whether a field holds exactly this text. At least 12 bytes from `field` and all up to `end` may be read.
    bool equals(const char* field, const uint8_t* end) const noexcept {
        return may_equal(field) && equals_around(field, end);
    }

    /// The two steps of equals(), for a loop that makes the second one only where the first says yes.
    bool may_equal(const char* field) const noexcept {
        // Most names differ here rather than in their first bytes. And records begin 4 bytes before a multiple of 8
        // (with an odd number of servers, every other one), so bytes 4 to 11 lie in one cache line.
        return (word<uint64_t>(field + 4) & mask_) == middle_;
    }
    /// The bytes before those, and behind.
    bool equals_around(const char* field, const uint8_t* end) const noexcept {
        if (size_ < 4) return size_ == 0 || holds_text(field, end, text_);
        return word<uint32_t>(field) == word<uint32_t>(text_) &&
               (size_ <= 12 || holds_text(field + 12, end, text_ + 12));
    }

  private:
    template <typename Word>
    static Word word(const void* bytes) noexcept {
        Word value;
        std::memcpy(&value, bytes, sizeof value);
        return value;
    }

    const char* text_;
    size_t size_;  ///< with the NUL
    uint64_t middle_ = 0, mask_ = 0;
};

}  // namespace shmnm
