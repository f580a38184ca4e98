// Misspelt words: which word was meant, and keys that no region can have. Both follow from the tables of words.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "picture/keys.h"
#include "picture/value.h"

namespace picture {

/// The candidate that is most like a word, by the letters to be typed otherwise; "" when none is like it.
std::string nearest(std::string_view word, const std::vector<std::string>& candidates);

/// "; did you mean "X"?"; "" for "".
std::string question(const std::string& meant);

/// "; did you mean "X"?" with the nearest candidate, else "; " and the advice.
std::string did_you_mean(std::string_view word, const std::vector<std::string>& candidates, const std::string& advice);

/// The key among these words each of whose parts is equal to a key's or like it; "" if there is none.
std::string nearest_key(std::string_view key, const std::vector<Word>& words);

/// @throws Error  no region has such a key, whatever its names are: a word is misspelt, or the key is not whole
void expect_key(std::string_view key);
/// The same for the beginning of a key.
void expect_prefix(std::string_view prefix);
/// The same for a key in whose parts a * stands for any run of bytes.
void expect_pattern(std::string_view pattern);

/// What each key that a pattern can match may be.
/// @throws Error  as expect_pattern()
std::vector<Values> values_of(std::string_view pattern);

/// The numbers that a word takes, such as "0 to 4294967295"; "" for a word that cannot be set.
std::string range_of(std::string_view key);

/// What may follow the part of a key before its last slash, without looking at a region: words with a slash after those
/// that are not the last of their keys. Nothing where a name is expected.
std::vector<std::string> words_below(std::string_view start);

}  // namespace picture
