// Which bytes of a message the log escapes. The log decides by ranges of bytes; here the decoded character's number
// decides.
#include <gmock/gmock.h>

#include <array>
#include <bit>
#include <cstdio>
#include <string>
#include <string_view>

#include "kzmlog.h"
#include "kzmlog_test_platform.h"

namespace test {
namespace {

bool is_printable(unsigned long character) {
    const bool is_control = character < 0x20 || (character >= 0x7F && character < 0xA0);
    const bool is_separator = character == 0x2028 || character == 0x2029;
    const bool is_surrogate = character >= 0xD800 && character < 0xE000;
    return !is_control && !is_separator && !is_surrogate && character != '\\' && character < 0x110000;
}

/// The number of bytes of the printable character that the text begins with; 0 if it begins with something else.
size_t printable_bytes(std::string_view text) {
    constexpr std::array<unsigned long, 5> least{0, 0, 0x80, 0x800, 0x10000};
    const auto byte = [text](size_t i) { return i < text.size() ? static_cast<unsigned char>(text[i]) : 0u; };
    const auto ones = static_cast<size_t>(std::countl_one(static_cast<unsigned char>(text[0])));
    if (ones == 1 || ones > 4) return 0;
    const size_t length = ones == 0 ? 1 : ones;
    unsigned long character = byte(0) & (0xFFu >> ones);
    for (size_t i = 1; i < length; ++i) {
        if (byte(i) >> 6 != 2) return 0;
        character = character << 6 | (byte(i) & 0x3F);
    }
    return character >= least[length] && is_printable(character) ? length : 0;
}

std::string escaped(char byte) {
    switch (byte) {
        case '\n':
            return "\\n";
        case '\r':
            return "\\r";
        case '\t':
            return "\\t";
        case '\\':
            return "\\\\";
        default:
            std::array<char, 8> text{};
            std::snprintf(text.data(), text.size(), "\\x%02x", static_cast<unsigned>(static_cast<unsigned char>(byte)));
            return text.data();
    }
}

std::string escaped(std::string_view text) {
    std::string result;
    while (!text.empty()) {
        const size_t bytes = printable_bytes(text);
        result += bytes > 0 ? std::string(text.substr(0, bytes)) : escaped(text[0]);
        text.remove_prefix(bytes > 0 ? bytes : 1);
    }
    return result;
}

TEST_F(KzmLog, KeepsExactlyThePrintableCharacters) {
    // The values where a byte's meaning changes, by its place.
    constexpr std::string_view seconds = "\x20\x7f\x80\x81\x8f\x90\x91\x9f\xa0\xa1\xbf\xc0";
    constexpr std::string_view thirds = "\x7f\x80\xa7\xa8\xa9\xaa\xbf\xc0";
    constexpr std::string_view fourths = "\x7f\x80\xbf\xc0";
    void* const log = open_log();
    for (unsigned first = 1; first < 256; ++first) {
        std::string given{static_cast<char>(first)};
        for (const char second : seconds) {
            for (const char third : thirds) {
                for (const char fourth : fourths) given += {'.', static_cast<char>(first), second, third, fourth};
            }
        }
        EXPECT_EQ(write(log, given), 0);
        const std::vector<std::string> written = messages(text());
        ASSERT_FALSE(written.empty());
        EXPECT_EQ(written.back(), escaped(given)) << "first byte " << first;
        std::filesystem::resize_file(file(), 0);
    }
    EXPECT_EQ(kzmlog_close(log), 0);
}

}  // namespace
}  // namespace test
