#include "picture/spelling.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <limits>
#include <numeric>
#include <optional>

#include "picture/error.h"
#include "picture/escape.h"
#include "picture/keys.h"
#include "picture/pattern.h"

namespace picture {
namespace {

/// Letters to be inserted, removed, replaced or exchanged with their neighbour to make one word of the other.
size_t letters_between(std::string_view left, std::string_view right) {
    std::vector<size_t> before_last(right.size() + 1), last(right.size() + 1), row(right.size() + 1);
    std::iota(row.begin(), row.end(), size_t{0});
    for (size_t i = 1; i <= left.size(); ++i) {
        before_last.swap(last);
        last.swap(row);
        row[0] = i;
        for (size_t j = 1; j <= right.size(); ++j) {
            const bool differ = left[i - 1] != right[j - 1];
            row[j] = std::min({last[j] + 1, row[j - 1] + 1, last[j - 1] + (differ ? 1 : 0)});
            const bool exchanged = i > 1 && j > 1 && left[i - 1] == right[j - 2] && left[i - 2] == right[j - 1];
            if (exchanged) row[j] = std::min(row[j], before_last[j - 2] + 1);
        }
    }
    return row.back();
}

/// The parts of a key that there can be.
struct Shape {
    const KeyHelp* help;
    std::vector<std::string_view> parts;
};

bool is_kind(std::string_view part) {
    return part == "KIND";
}
/// Whether any name may stand there: only such parts are in capitals.
bool is_free(std::string_view part) {
    return part[0] <= 'Z' && !is_kind(part);
}
std::vector<std::string> words_of(std::string_view part) {
    if (is_kind(part)) return {"0", "1", "2"};
    return {std::string(part)};
}

const std::vector<Shape>& shapes() {
    static const std::vector<KeyHelp> keys = key_help();
    static const std::vector<Shape> all = [] {
        std::vector<Shape> made;
        made.reserve(keys.size());
        for (const KeyHelp& key : keys) made.push_back({&key, parts_of(key.pattern)});
        return made;
    }();
    return all;
}

[[noreturn]] void refuse(const std::string& line) {
    throw Error(ErrorKind::no_such_word, line);
}

void expect_name(std::string_view part, bool is_pattern) {
    std::string rest(part);
    if (is_pattern) std::erase(rest, '*');
    const auto name = unescaped(rest);
    if (name && escaped(*name) == rest) return;
    const std::string advice =
        name ? fmt::format("write it \"{}\"", escaped(*name)) : "use two hexadecimal digits after each %";
    refuse(fmt::format("invalid name \"{}\" in a key: {}", as_typed(part), advice));
}

/// Narrows the shapes down to those whose part at a position is the one that was typed.
std::vector<Shape> matching(const std::vector<Shape>& from, size_t position, std::string_view typed) {
    std::vector<Shape> found;
    for (const Shape& shape : from) {
        if (shape.parts.size() <= position) continue;
        const std::string_view part = shape.parts[position];
        const auto is_typed = [&](const std::string& word) { return matches(typed, word); };
        const std::vector<std::string> words = words_of(part);
        if (is_free(part) || std::any_of(words.begin(), words.end(), is_typed)) found.push_back(shape);
    }
    return found;
}

std::vector<std::string> words_at(const std::vector<Shape>& among, size_t position) {
    std::vector<std::string> words;
    for (const Shape& shape : among) {
        if (shape.parts.size() <= position || is_free(shape.parts[position])) continue;
        for (const std::string& word : words_of(shape.parts[position])) {
            if (std::find(words.begin(), words.end(), word) == words.end()) words.push_back(word);
        }
    }
    return words;
}

[[noreturn]] void refuse_word(const std::vector<Shape>& before, size_t position, std::string_view typed) {
    if (typed.empty()) refuse("a part of a key cannot be empty: leave out one \"/\"");
    const std::string word = as_typed(typed);
    // The last word of a key without those before it.
    for (const Shape& shape : before) {
        if (position == 0 && shape.parts.back() == typed) {
            refuse(fmt::format("no such word \"{}\" at the beginning of a key; did you mean \"{}\"?", word,
                               shape.help->pattern));
        }
    }
    refuse(fmt::format("no such word \"{}\"{}", word,
                       did_you_mean(typed, words_at(before, position), "\"shmnmctl list --help\" shows all keys")));
}

enum class Extent { whole, beginning };

std::string list_command(std::string_view prefix) {
    return fmt::format("\"shmnmctl list{}{}\"", prefix.empty() ? "" : " ", as_typed(prefix));
}

/// Says what takes a key with *, which only conditions do.
[[noreturn]] void refuse_pattern(std::string_view key, Extent extent) {
    const size_t slash = key.substr(0, key.find('*')).rfind('/');
    const std::string_view prefix = slash == std::string_view::npos ? std::string_view() : key.substr(0, slash);
    const std::string below = prefix.empty() ? "all keys" : fmt::format("the keys below \"{}\"", as_typed(prefix));
    const std::string query =
        extent == Extent::beginning
            ? ""
            : fmt::format(", \"shmnmctl query 'any {}=0'\" tests the words that match", as_typed(key));
    refuse(fmt::format("\"{}\" is not one key: {} shows {}{} (a * in a name is written %2A)", as_typed(key),
                       list_command(prefix), below, query));
}

/// A whole key ends there, but what was typed goes on.
[[noreturn]] void refuse_below(std::string_view key, size_t end) {
    refuse(fmt::format("there is no key below \"{}\": leave out \"{}\"", as_typed(key.substr(0, end)),
                       as_typed(key.substr(end))));
}

std::string_view without_slashes_at_end(std::string_view key) {
    while (key.ends_with('/')) key.remove_suffix(1);
    return key;
}

/// The shapes that fit.
std::vector<Shape> expect(std::string_view key, Extent extent, bool is_pattern) {
    if (!is_pattern && key.find('*') != std::string_view::npos) {
        expect(key, extent, true);
        refuse_pattern(key, extent);
    }
    std::vector<Shape> fitting = shapes();
    const std::string_view named = without_slashes_at_end(key);
    const std::vector<std::string_view> typed = named.empty() ? std::vector<std::string_view>() : parts_of(named);
    for (size_t i = 0; i < typed.size(); ++i) {
        std::vector<Shape> next = matching(fitting, i, typed[i]);
        const bool may_go_on =
            std::any_of(fitting.begin(), fitting.end(), [&](const Shape& shape) { return shape.parts.size() > i; });
        if (!may_go_on) {
            refuse_below(key, static_cast<size_t>(typed[i].data() - key.data()) - 1);
        }
        if (next.empty()) refuse_word(fitting, i, typed[i]);
        fitting = std::move(next);
        if (is_free(fitting[0].parts[i])) expect_name(typed[i], is_pattern);
    }
    if (extent == Extent::beginning) return fitting;
    const auto ends_here = [&](const Shape& shape) { return shape.parts.size() == typed.size(); };
    if (std::none_of(fitting.begin(), fitting.end(), ends_here)) {
        std::string whole = as_typed(named);
        for (size_t i = typed.size(); i < fitting[0].parts.size(); ++i) {
            whole += (whole.empty() ? "" : "/") + std::string(fitting[0].parts[i]);
        }
        refuse(fmt::format("\"{}\" is not a whole key: {} shows the keys below it, such as \"{}\"", as_typed(key),
                           list_command(named), whole));
    }
    if (named.size() < key.size()) refuse_below(key, named.size());
    std::erase_if(fitting, [&](const Shape& shape) { return !ends_here(shape); });
    return fitting;
}

}  // namespace

std::string nearest(std::string_view word, const std::vector<std::string>& candidates) {
    // Of a word of one or two letters another one is always near. Two may be a beginning.
    if (word.size() < 2) return "";
    const size_t most = std::max<size_t>(1, word.size() / 3);
    size_t least = most + 1;
    std::string found;
    for (const std::string& candidate : candidates) {
        const bool is_beginning = candidate.starts_with(word);
        if (word.size() == 2 && !is_beginning) continue;
        // A long key of a stranger costs no more than a short one.
        const size_t at_least = std::max(word.size(), candidate.size()) - std::min(word.size(), candidate.size());
        if (!is_beginning && at_least >= least) continue;
        const size_t letters = is_beginning ? 1 : letters_between(word, candidate);
        if (letters >= least) continue;
        least = letters;
        found = candidate;
    }
    return found;
}

std::string question(const std::string& meant) {
    return meant.empty() ? "" : fmt::format("; did you mean \"{}\"?", meant);
}

std::string did_you_mean(std::string_view word, const std::vector<std::string>& candidates, const std::string& advice) {
    const std::string found = nearest(word, candidates);
    return found.empty() ? "; " + advice : question(found);
}

std::string nearest_key(std::string_view key, const std::vector<Word>& words) {
    const std::vector<std::string_view> typed = parts_of(key);
    std::string found;
    size_t least = std::numeric_limits<size_t>::max();
    for (const Word& word : words) {
        const std::vector<std::string_view> parts = parts_of(word.key);
        if (parts.size() != typed.size()) continue;
        size_t letters = 0;
        bool are_near = true;
        for (size_t i = 0; i < parts.size() && are_near; ++i) {
            if (parts[i] == typed[i]) continue;
            are_near = !nearest(typed[i], {std::string(parts[i])}).empty();
            // Only for near words: it would take long for a key of a megabyte.
            if (are_near) letters += letters_between(typed[i], parts[i]);
        }
        if (!are_near || letters >= least) continue;
        least = letters;
        found = word.key;
    }
    return found;
}

void expect_key(std::string_view key) {
    expect(key, Extent::whole, false);
}
void expect_prefix(std::string_view prefix) {
    expect(prefix, Extent::beginning, false);
}
void expect_pattern(std::string_view pattern) {
    expect(pattern, Extent::whole, true);
}

std::vector<Values> values_of(std::string_view pattern) {
    std::vector<Values> all;
    for (const Shape& shape : expect(pattern, Extent::whole, true)) all.push_back(shape.help->values);
    return all;
}

std::string range_of(std::string_view key) {
    return expect(key, Extent::whole, false)[0].help->range;
}

std::vector<std::string> words_below(std::string_view start) {
    std::vector<Shape> fitting = shapes();
    const std::vector<std::string_view> typed = parts_of(start);
    const size_t last = typed.size() - 1;
    for (size_t i = 0; i < last; ++i) fitting = matching(fitting, i, typed[i]);
    std::vector<std::string> words = words_at(fitting, last);
    for (std::string& word : words) {
        const bool goes_on = std::any_of(fitting.begin(), fitting.end(), [&](const Shape& shape) {
            return shape.parts.size() > last + 1 && shape.parts[last] == word;
        });
        if (goes_on) word += '/';
    }
    return words;
}

}  // namespace picture
