#include "picture/escape.h"

#include <array>
#include <charconv>

namespace picture {
namespace {

/// For each byte, whether escaping leaves it as it is.
using Stays = std::array<bool, 256>;

constexpr Stays every(bool (*stays)(char)) {
    Stays all{};
    for (size_t byte = 0; byte < all.size(); ++byte) all[byte] = stays(static_cast<char>(byte));
    return all;
}

constexpr Stays plain = every([](char byte) {
    return (byte >= 'a' && byte <= 'z') || (byte >= 'A' && byte <= 'Z') || (byte >= '0' && byte <= '9') ||
           std::string_view("-_.:@+,").find(byte) != std::string_view::npos;
});
constexpr Stays in_ascii = every([](char byte) { return byte >= ' ' && byte <= '~'; });
constexpr Stays in_print = every([](char byte) { return byte >= ' ' && byte <= '~' && byte != '%'; });

std::string escaped_unless(const Stays& stays, std::string_view bytes) {
    constexpr char digits[] = "0123456789ABCDEF";
    std::string text(3 * bytes.size(), '\0');
    char* end = text.data();
    for (const char byte : bytes) {
        const auto number = static_cast<unsigned char>(byte);
        if (stays[number]) {
            *end++ = byte;
        } else {
            *end++ = '%';
            *end++ = digits[number >> 4];
            *end++ = digits[number & 15];
        }
    }
    text.resize(static_cast<size_t>(end - text.data()));
    return text;
}

}  // namespace

std::string escaped(std::string_view bytes) {
    return escaped_unless(plain, bytes);
}

std::string printable(std::string_view bytes) {
    return escaped_unless(in_print, bytes);
}

std::string as_typed(std::string_view bytes) {
    return escaped_unless(in_ascii, bytes);
}

std::optional<std::string> unescaped(std::string_view text) {
    std::string bytes;
    for (size_t at = 0; at < text.size(); ++at) {
        if (text[at] != '%') {
            bytes += text[at];
            continue;
        }
        const std::string_view digits = text.substr(at + 1, 2);
        unsigned number = 0;
        const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), number, 16);
        if (digits.size() != 2 || error != std::errc{} || end != digits.data() + 2) return std::nullopt;
        bytes += static_cast<char>(number);
        at += 2;
    }
    return bytes;
}

}  // namespace picture
