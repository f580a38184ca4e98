// Patterns of keys: a pattern is a key in which a * stands for any bytes within one part. (A * in a name is written
// %2A.)
#pragma once

#include <string_view>

namespace picture {

/// Whether a key matches a pattern.
bool matches(std::string_view pattern, std::string_view key);

}  // namespace picture
