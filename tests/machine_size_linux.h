// How much the whole-machine test does on this platform.
#pragma once

#include <cstdint>

namespace machine {

inline constexpr int survivors = 5;       ///< processes that work to their end, besides the victims, one at a time
inline constexpr uint32_t rounds = 3000;  ///< of each survivor
inline constexpr int kills = 20;
inline constexpr int builders = 4;

}  // namespace machine
