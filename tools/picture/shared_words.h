// Which words the bridge between machines shares, unless an installation keeps them local.
#pragma once

#include <string_view>

namespace picture {

/// Whether machines with bridges should agree on the word of a key: words of the servers, and those that all agree on.
bool is_shared(std::string_view key);

}  // namespace picture
