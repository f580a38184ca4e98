// What a call is expected to leave: its lines in the log, and a region in which only the intended bytes changed.
#pragma once

#include <algorithm>
#include <string>
#include <vector>

#include "region_fixture.h"

namespace test {

using Lines = std::vector<fakes::LogLine>;

/// The lines of a call that succeeds, that fails with a line of error, that fails without one.
inline testing::Matcher<const Lines&> Succeeds(const char* tag) {
    return testing::ElementsAre(fakes::Enter(tag), fakes::Exit(tag, SHMNM_OK));
}
inline testing::Matcher<const Lines&> Fails(const char* tag, const std::string& error, uint32_t result) {
    return testing::ElementsAre(fakes::Enter(tag), fakes::Error(tag, error), fakes::Exit(tag, result));
}
inline testing::Matcher<const Lines&> FailsSilently(const char* tag, uint32_t result) {
    return testing::ElementsAre(fakes::Enter(tag), fakes::Exit(tag, result));
}

inline void put(Bytes& bytes, size_t offset, const Bytes& these) {
    std::copy(these.begin(), these.end(), bytes.begin() + static_cast<std::ptrdiff_t>(offset));
}
inline void put_words(Bytes& bytes, size_t offset, const std::vector<uint32_t>& words) {
    for (const uint32_t word : words) {
        for (size_t i = 0; i < 4; ++i) bytes[offset++] = static_cast<uint8_t>(word >> 8 * i);
    }
}
inline void put_word(Bytes& bytes, size_t offset, uint32_t word) {
    put_words(bytes, offset, {word});
}
/// Puts a text into a field of `width` bytes and fills the rest of the field with zeros.
inline void put_text(Bytes& bytes, size_t offset, size_t width, const std::string& text) {
    Bytes field(text.begin(), text.end());
    field.resize(width);
    put(bytes, offset, field);
}

/// Bytes that differ from their neighbours, from zero, and from those of another seed.
inline Bytes pattern(size_t size, size_t seed) {
    Bytes bytes(size);
    for (size_t i = 0; i < size; ++i) bytes[i] = static_cast<uint8_t>(1 + (i * 7 + seed * 31) % 255);
    return bytes;
}
inline Bytes part(const Bytes& bytes, size_t offset, size_t size) {
    const auto first = bytes.begin() + static_cast<std::ptrdiff_t>(offset);
    return {first, first + static_cast<std::ptrdiff_t>(size)};
}

}  // namespace test
