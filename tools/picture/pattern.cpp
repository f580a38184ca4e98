#include "picture/pattern.h"

#include <optional>

namespace picture {
namespace {

/// Whether one part of a key matches: each * first matches as few bytes as possible, and more if the rest does not
/// match.
bool part_matches(std::string_view pattern, std::string_view part) {
    size_t p = 0, t = 0;
    std::optional<size_t> star;
    size_t tried = 0;
    while (t < part.size()) {
        if (p < pattern.size() && pattern[p] == '*') {
            star = p++;
            tried = t;
        } else if (p < pattern.size() && pattern[p] == part[t]) {
            ++p;
            ++t;
        } else if (star) {
            p = *star + 1;
            t = ++tried;
        } else {
            return false;
        }
    }
    return pattern.find_first_not_of('*', p) == std::string_view::npos;
}

}  // namespace

bool matches(std::string_view pattern, std::string_view key) {
    if (pattern.find('*') == std::string_view::npos) return pattern == key;
    for (;;) {
        const size_t pattern_end = pattern.find('/'), key_end = key.find('/');
        if (!part_matches(pattern.substr(0, pattern_end), key.substr(0, key_end))) return false;
        if (pattern_end == std::string_view::npos || key_end == std::string_view::npos) return pattern_end == key_end;
        pattern.remove_prefix(pattern_end + 1);
        key.remove_prefix(key_end + 1);
    }
}

}  // namespace picture
