// Simulates a network partition. The library identifies the servers that fail by their priority.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "picture/picture.h"

namespace picture {

/// The array for shmnm_setnpsimu() that makes exactly these servers fail: 1 or 0 for each priority.
/// @throws Error  there is no such server, or the library would make another server fail too
std::vector<uint32_t> failures_by_priority(const Picture& picture, const std::vector<std::string>& servers);

}  // namespace picture
