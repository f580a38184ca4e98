#include "escape.h"

#include <charconv>

namespace shmnmctl {
namespace {

bool is_plain(char byte) {
    return (byte >= 'a' && byte <= 'z') || (byte >= 'A' && byte <= 'Z') || (byte >= '0' && byte <= '9') ||
           std::string_view("-_.:@+,").find(byte) != std::string_view::npos;
}

bool is_printable(char byte) {
    return byte >= ' ' && byte <= '~' && byte != '%';
}

std::string escaped_unless(bool (*stays)(char), std::string_view bytes) {
    constexpr char digits[] = "0123456789ABCDEF";
    std::string text;
    for (const char byte : bytes) {
        if (stays(byte)) {
            text += byte;
        } else {
            const auto number = static_cast<unsigned char>(byte);
            text += {'%', digits[number >> 4], digits[number & 15]};
        }
    }
    return text;
}

}  // namespace

std::string escaped(std::string_view bytes) {
    return escaped_unless(is_plain, bytes);
}

std::string printable(std::string_view bytes) {
    return escaped_unless(is_printable, bytes);
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

}  // namespace shmnmctl
