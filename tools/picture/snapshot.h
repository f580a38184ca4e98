// A copy of the region's bytes, taken from the live region or from a dump. Reads of it never leave the copy, whatever
// it says of itself.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "note.h"
#include "picture/layout.h"

namespace picture {

struct Snapshot {
    std::vector<uint8_t> bytes;
    Counts counts;                     ///< those that the region was laid out by, as far as can be known
    std::optional<Counts> configured;  ///< this machine's configuration, for the live region
    uint64_t mapped = 0;               ///< bytes of the mapping, in whole pages, or of the file
    bool live = false;
    /// How many steps ended before this copy: takes of the lock that did more than look. Nothing where they are not
    /// counted.
    std::optional<uint64_t> steps;
    uint64_t lock_held_us = 0;        ///< for how long the copy held the lock; microseconds
    uint64_t object = 0;              ///< another region has another number; 0 where that is not known
    std::optional<shmnm::Note> note;  ///< of the live region's lock, where there is one

    bool holds(uint64_t offset, uint64_t size) const { return offset <= bytes.size() && size <= bytes.size() - offset; }
    /// The word at a place that the copy holds.
    uint32_t word(uint64_t offset) const;
    int32_t number(uint64_t offset) const { return static_cast<int32_t>(word(offset)); }
    uint64_t long_word(uint64_t offset) const;
    /// The bytes of a field up to its first NUL, its end or the end of the copy.
    std::string text(uint64_t offset, uint64_t size) const;
    /// The counts that the header names.
    Counts header_counts() const;
};

/// Reads a dump.
/// @throws Error  it cannot be read, or is smaller than a header or larger than 2^32 bytes
Snapshot read_dump(const std::string& file);

}  // namespace picture
