// Texts in fields of the region: measures, writes, reads and compares them, and prepares a key to search for them. In a
// field without a NUL a comparison reads on, up to the end of the view.
#pragma once

#include <cstdint>
#include <cstring>

#include "region.h"

namespace shmnm {

/// The length of a text that ends at its NUL or, without one, after `limit` bytes.
inline size_t text_length(const char* text, size_t limit) noexcept {
    const void* const nul = std::memchr(text, 0, limit);
    return nul ? static_cast<size_t>(static_cast<const char*>(nul) - text) : limit;
}
/// The first NUL at or after `text`, or `end`.
inline const char* end_of_text(const char* text, const char* end) noexcept {
    const void* const nul = std::memchr(text, 0, static_cast<size_t>(end - text));
    return nul ? static_cast<const char*>(nul) : end;
}

/// Writes the first `length` bytes of a text into a field, one word at a time, zero-padded.
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

/// Whether a field holds exactly this text. Reads no byte from `end` on.
inline bool holds_text(const char* field, const uint8_t* end, const char* text) noexcept {
    const auto limit = static_cast<size_t>(end - reinterpret_cast<const uint8_t*>(field));
    for (size_t i = 0; i < limit; ++i) {
        if (field[i] != text[i]) return false;
        if (text[i] == 0) return true;
    }
    return false;
}

/// A prepared search key for text fields: a text, or null for any text. Eight bytes of a field decide nearly every
/// comparison.
class TextKey {
  public:
    explicit TextKey(const char* text) noexcept : text_(text), size_(text ? std::strlen(text) + 1 : 0) {
        // Bytes 4 to 11 of the text, or as many of them as it has; shorter texts are left to the second step. Each load
        // ends with these bytes or with the text, so none reads beyond the text.
        if (size_ >= 8) {
            const size_t end = size_ < 12 ? size_ : 12, bits_before = 8 * (12 - end);
            mask_ = ~uint64_t{0} >> bits_before;
            middle_ = word<uint64_t>(text + end - 8) >> bits_before;
        } else if (size_ > 4) {
            mask_ = ~uint64_t{0} >> 8 * (12 - size_);
            middle_ = word<uint32_t>(text + size_ - 4) >> 8 * (8 - size_);
        }
    }
    /// Whether the text and its NUL fit into `size` bytes.
    bool fits(size_t size) const noexcept { return size_ <= size; }
    /// Whether a field holds exactly this text. At least 12 bytes at `field`, and all bytes before `end`, must be
    /// readable.
    bool equals(const char* field, const uint8_t* end) const noexcept {
        return may_equal(field) && equals_around(field, end);
    }

    /// The two steps of equals(), for loops that take the second step only if the first returns true.
    bool may_equal(const char* field) const noexcept {
        // Most names differ here and not in their first bytes. Records start 4 bytes before a multiple of 8 (every
        // second record does if the number of servers is odd), so bytes 4 to 11 lie in one cache line.
        return (word<uint64_t>(field + 4) & mask_) == middle_;
    }
    /// The second step compares the bytes before and after those of the first.
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
