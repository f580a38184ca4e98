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

/// A text to look for, or null for any text. A field's first 16 bytes decide nearly every comparison, without a call.
class TextKey {
  public:
    explicit TextKey(const char* text) noexcept : text_(text), size_(text ? std::strlen(text) + 1 : 0) {
        // All bits of the bytes that count: the first `size_` of them lie behind `masks + 16 - size_`.
        static constexpr uint8_t masks[32] = {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF,
                                              0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};
        const size_t size = size_ < 16 ? size_ : 16;
        mask_ = Head(word<uint64_t>(masks + 16 - size), word<uint64_t>(masks + 24 - size));
        head_ = read(text, size);
    }
    /// Whether a field holds exactly this text. At least 16 bytes from `field` and all up to `end` may be read.
    bool equals(const char* field, const uint8_t* end) const noexcept {
        // Records begin 4 bytes before a multiple of 8 (with an odd number of servers, every other one): this word
        // comes first because it lies in one cache line.
        return (word<uint64_t>(field + 4) & mask_.middle) == head_.middle && equals_rest(field, end);
    }

  private:
    template <typename Word>
    static Word word(const void* bytes) noexcept {
        Word value;
        std::memcpy(&value, bytes, sizeof value);
        return value;
    }

    /// Out of the loops over records: nearly every record that comes here is the one that is looked for.
    [[gnu::noinline]] bool equals_rest(const char* field, const uint8_t* end) const noexcept {
        const uint32_t first = word<uint32_t>(field) & mask_.first;
        const uint32_t last = word<uint32_t>(field + 12) & mask_.last;
        if ((first ^ head_.first) | (last ^ head_.last)) return false;
        return size_ <= 16 || holds_text(field, end, text_);
    }

    /// The bytes 0 to 3, 4 to 11 and 12 to 15 of a text.
    struct Head {
        Head() = default;
        Head(uint64_t low, uint64_t high) noexcept
            : middle(low >> 32 | high << 32),
              first(static_cast<uint32_t>(low)),
              last(static_cast<uint32_t>(high >> 32)) {}

        uint64_t middle = 0;
        uint32_t first = 0, last = 0;
    };

    /// The first `size` bytes of a text, up to 16, and zeros: in two loads, which overlap where it is shorter than
    /// both.
    static Head read(const char* text, size_t size) noexcept {
        if (size >= 8) {
            const uint64_t tail = word<uint64_t>(text + size - 8);
            return {word<uint64_t>(text), size == 8 ? 0 : tail >> 8 * (16 - size)};
        }
        if (size >= 4) {
            const uint64_t tail = word<uint32_t>(text + size - 4);
            return {word<uint32_t>(text) | tail << 8 * (size - 4), 0};
        }
        uint64_t low = 0;
        for (size_t i = 0; i < size; ++i) low |= uint64_t{static_cast<uint8_t>(text[i])} << 8 * i;
        return {low, 0};
    }

    const char* text_;
    size_t size_;  ///< with the NUL
    Head head_, mask_;
};

}  // namespace shmnm
