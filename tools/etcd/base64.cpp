#include "etcd/base64.h"

#include <array>
#include <cstddef>
#include <cstdint>

namespace etcd {
namespace {

constexpr std::string_view letters = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr uint8_t none = 255;
constexpr unsigned letter_bits = 6, byte_bits = 8;

constexpr auto values = [] {
    std::array<uint8_t, 256> made{};
    made.fill(none);
    for (size_t i = 0; i < letters.size(); ++i) made[static_cast<uint8_t>(letters[i])] = static_cast<uint8_t>(i);
    return made;
}();

}  // namespace

std::string to_base64(std::string_view bytes) {
    std::string text;
    text.reserve((bytes.size() + 2) / 3 * 4);
    uint32_t waiting = 0;
    unsigned bits = 0;
    for (const char byte : bytes) {
        waiting = waiting << byte_bits | static_cast<uint8_t>(byte);
        for (bits += byte_bits; bits >= letter_bits;) text += letters[waiting >> (bits -= letter_bits) & 63];
    }
    if (bits > 0) text += letters[waiting << (letter_bits - bits) & 63];
    text.resize((text.size() + 3) / 4 * 4, '=');
    return text;
}

std::optional<std::string> from_base64(std::string_view text) {
    if (text.size() % 4 != 0) return std::nullopt;
    for (int padding = 0; padding < 2 && text.ends_with('='); ++padding) text.remove_suffix(1);
    std::string bytes;
    bytes.reserve(text.size() / 4 * 3 + 2);
    uint32_t waiting = 0;
    unsigned bits = 0;
    for (const char letter : text) {
        const uint8_t value = values[static_cast<uint8_t>(letter)];
        if (value == none) return std::nullopt;
        waiting = waiting << letter_bits | value;
        bits += letter_bits;
        if (bits >= byte_bits) bytes += static_cast<char>(waiting >> (bits -= byte_bits) & 255);
    }
    // What is left of the last letter is zero.
    if ((waiting & ((1U << bits) - 1)) != 0) return std::nullopt;
    return bytes;
}

}  // namespace etcd
