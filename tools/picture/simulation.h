// A network partition, simulated: the library takes the servers that fail by priority.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "picture/picture.h"

namespace picture {

/// What shmnm_setnpsimu() takes to let these servers fail, and no others: by priority 1 or 0.
/// @throws Error  there is no such server, or the library would let another fail too
std::vector<uint32_t> failures_by_priority(const Picture& picture, const std::vector<std::string>& servers);

}  // namespace picture
