// Where the areas of a region lie, which follows from four counts.
#pragma once

#include <cstdint>
#include <string>

namespace picture {

/// The four counts from which the places of the areas follow.
struct Counts {
    int32_t servers = 0, hb = 0, np = 0, fst = 0;

    bool operator==(const Counts&) const = default;
};

/// "servers 16, hb 16, np 8, fst 1"
std::string to_text(const Counts& counts);

/// A size in bytes, rounded up to whole pages of memory.
uint64_t in_pages(uint64_t size);

/// Distances from the region's start, in bytes. An area that a negative or enormous count would misplace is at
/// `nowhere`.
struct Layout {
    static constexpr uint64_t nowhere = UINT64_MAX / 4;

    explicit Layout(const Counts& counts);

    uint64_t servers, hb, np, fst, fst_pids, network;
    uint64_t size;  ///< of the whole region
};

}  // namespace picture
