// "set": what is to be written under which key, checked as a whole before anything is written.
#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "picture/keys.h"
#include "picture/picture.h"

namespace picture {

struct Assignment {
    std::string key;
    Value value;
};

/// @throws Error  the value is not a number (invalid)
Assignment parse_assignment(const std::string& key, const std::string& value);

/// Lines of a key, blanks and a value. Empty lines and those that begin with # are skipped.
/// @throws Error  a line is neither (invalid); the message names its number
std::vector<Assignment> parse_assignments(std::string_view text);

/// A call of the library that is sure to be accepted.
struct Step {
    const char* function;
    std::function<uint32_t()> call;
};

/// The calls that carry the assignments out, in their order. Nothing is called yet. A value that is there already needs
/// no call.
/// @param[in] picture  the region as it is; must outlive the steps
/// @param[in] force    also change the maxima
/// @throws Error  a key does not exist, a value does not fit, or a word cannot be set
std::vector<Step> plan(const Picture& picture, const std::vector<Assignment>& assignments, bool force);

}  // namespace picture
