// Assignments of values to keys, for "set". All of them are checked before the first is made.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "picture/keys.h"
#include "picture/picture.h"
#include "picture/step.h"

namespace picture {

struct Assignment {
    std::string key;
    Value value;
};

/// @throws Error  the value is not a number (invalid)
Assignment parse_assignment(const std::string& key, const std::string& value);

/// Reads lines of a key, blanks and a value. Empty lines and lines that begin with # are skipped.
/// @throws Error  a line is invalid; the message names its number
std::vector<Assignment> parse_assignments(std::string_view text);

/// The calls that make the assignments, in their order. None of them is called yet. A word that already has its value
/// needs no call.
/// @param[in] picture  the region as it is; must outlive the steps
/// @param[in] force    also change the maxima
/// @throws Error  a key does not exist, a value does not fit, or a word cannot be set
std::vector<Step> plan(const Picture& picture, const std::vector<Assignment>& assignments, bool force);

}  // namespace picture
