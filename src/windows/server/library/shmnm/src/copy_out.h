// Copies words out of the region while other processes write them. Each word is copied whole, but not all at one
// moment.
#pragma once

#include <immintrin.h>

#include "region.h"

namespace shmnm {

inline constexpr size_t many_words = 32;

/// Copies 32 words, eight at a time. A processor may split such a load between cache lines or at multiples of 8 bytes,
/// but never within a word. The thread sanitizer does not know that, so it does not check these functions.
[[gnu::target("avx"), gnu::always_inline, gnu::no_sanitize_thread]] inline void copy_32_words_out(
    uint32_t* to, const uint32_t* from) noexcept {
    const auto* const source = reinterpret_cast<const __m256i_u*>(from);
    auto* const target = reinterpret_cast<__m256i_u*>(to);
#pragma GCC unroll 4
    for (int i = 0; i < 4; ++i) _mm256_storeu_si256(target + i, _mm256_loadu_si256(source + i));
}
/// Copies 32 words or more; some of the last words are copied twice.
[[gnu::target("avx"), gnu::no_sanitize_thread]] inline void copy_many_words_out(uint32_t* to, const uint32_t* from,
                                                                                size_t count) noexcept {
    const uint32_t* const last = from + count - many_words;
    uint32_t* const last_to = to + count - many_words;
    for (; from < last; from += many_words, to += many_words) copy_32_words_out(to, from);
    copy_32_words_out(last_to, last);
}

/// Copies any number of words: four at a time if there are few, or without AVX.
[[gnu::no_sanitize_thread]] inline void copy_words_out(uint32_t* to, const uint32_t* from, size_t count) noexcept {
    // branch: a processor without AVX
    if (count >= many_words && __builtin_cpu_supports("avx")) return copy_many_words_out(to, from, count);
    const uint32_t* const end = from + count;
    for (; end - from >= 4; from += 4, to += 4) {
        _mm_storeu_si128(reinterpret_cast<__m128i_u*>(to), _mm_loadu_si128(reinterpret_cast<const __m128i_u*>(from)));
    }
    for (; from < end; ++from, ++to) *to = load(*from);
}

}  // namespace shmnm
