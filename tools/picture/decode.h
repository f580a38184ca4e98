// Decodes the picture of the cluster from a copy of the region. Every output is made from it. It shows what the
// library's functions would answer from the same bytes; if the bytes contradict each other, it shows only what they
// hold.
#pragma once

#include <cstdint>
#include <optional>

#include "picture/picture.h"
#include "picture/snapshot.h"

namespace picture {

/// Of a table whose count contradicts the copy, decodes at most a few hundred records, so that it ends soon.
Picture decode(const Snapshot& snapshot);

/// The combined state, by the table of shmnm_getnodecombstat().
std::optional<uint32_t> combined_state(uint32_t nodestat, uint32_t waitstat, uint32_t isolateflag);

}  // namespace picture
