// How much the whole-machine test does on this platform, where a process starts in a fraction of a second.
#pragma once

#include <cstdint>

namespace machine {

inline constexpr int survivors = 3;      ///< processes that work to their end, besides the victims, one at a time
inline constexpr uint32_t rounds = 150;  ///< of each survivor
inline constexpr int kills = 4;
inline constexpr int builders = 3;

}  // namespace machine
