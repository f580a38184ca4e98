#include "picture/escape.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdint>
#include <iterator>

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

/// The code points from first to last.
struct Span {
    uint32_t first, last;
};
/// Beyond ASCII: controls, spaces, what is invisible or changes the direction of text, half characters, what has no
/// meaning or only a private one.
constexpr Span not_shown[] = {{0x80, 0xA0},       {0xAD, 0xAD},       {0x61C, 0x61C},     {0x115F, 0x1160},
                              {0x180B, 0x180F},   {0x2000, 0x200F},   {0x2028, 0x202F},   {0x205F, 0x206F},
                              {0x3000, 0x3000},   {0x3164, 0x3164},   {0xD800, 0xF8FF},   {0xFDD0, 0xFDEF},
                              {0xFE00, 0xFE0F},   {0xFEFF, 0xFEFF},   {0xFFA0, 0xFFA0},   {0xFFF0, 0xFFFF},
                              {0x1D173, 0x1D17A}, {0x1FFFE, 0x1FFFF}, {0x2FFFE, 0x10FFFF}};

/// The bytes of the character beyond ASCII that a text begins with; 0 if there is none that is to be shown.
size_t visible_character(std::string_view text) {
    const auto byte = [&](size_t at) { return at < text.size() ? static_cast<unsigned char>(text[at]) : 0u; };
    const size_t size = (byte(0) & 0xE0) == 0xC0 ? 2 : (byte(0) & 0xF0) == 0xE0 ? 3 : (byte(0) & 0xF8) == 0xF0 ? 4 : 0;
    if (size == 0) return 0;
    uint32_t code = byte(0) & (0xFFu >> (size + 1));
    for (size_t i = 1; i < size; ++i) {
        if ((byte(i) & 0xC0) != 0x80) return 0;
        code = code << 6 | (byte(i) & 0x3F);
    }
    constexpr uint32_t least[] = {0, 0, 0x80, 0x800, 0x10000};
    if (code < least[size] || code > 0x10FFFF) return 0;
    const bool is_shown = std::none_of(std::begin(not_shown), std::end(not_shown),
                                       [&](const Span& span) { return code >= span.first && code <= span.last; });
    return is_shown ? size : 0;
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

std::string shown_file(std::string_view name) {
    std::string text;
    while (!name.empty()) {
        const bool is_ascii = name[0] >= ' ' && name[0] <= '~';
        const size_t shown = is_ascii ? 1 : visible_character(name);
        const std::string_view part = name.substr(0, std::max<size_t>(shown, 1));
        text += shown > 0 ? std::string(part) : as_typed(part);
        name.remove_prefix(part.size());
    }
    return text;
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
