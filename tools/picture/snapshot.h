// A copy of the region's bytes, taken from the live region or from a dump. Reads of it never leave the copy, whatever
// it says of itself.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "note.h"
#include "picture/bridge.h"
#include "picture/layout.h"
#include "picture/platform.h"

namespace picture {

/// Which bytes a copy of the live region holds.
enum class Bytes {
    in_use,  ///< those that a picture is decoded from; the others are zero
    all
};

/// How the live region was copied.
enum class CopyWay {
    without_lock,  ///< nobody owned the lock meanwhile
    with_lock,
    as_owner,  ///< by a thread that had the lock already
    by_reader  ///< by a user who may not take the lock: it equals the copy before it
};

struct Snapshot {
    std::vector<uint8_t> bytes;        ///< as many as the region has, or the dump
    Counts counts;                     ///< those that the region was laid out by, as far as can be known
    std::optional<Counts> configured;  ///< this machine's configuration, for the live region
    uint64_t mapped = 0;               ///< bytes of the mapping, in whole pages, or of the file
    bool live = false;
    uint64_t object = 0;               ///< another region has another number; 0 where that is not known
    Bytes wanted = Bytes::all;         ///< which the copy was to hold
    CopyWay way = CopyWay::with_lock;  ///< how the live region was copied
    unsigned tries = 0;                ///< copies that were begun without the lock, the one that was kept among them
    uint64_t lock_wait_us = 0;         ///< for how long the copy waited for the lock; microseconds
    uint64_t lock_held_us = 0;         ///< for how long it held the lock, if it took it
    /// The live region's lock at the moment of the copy, where the system tells. The owner is never this copy itself,
    /// though its take is counted.
    std::optional<platform::LockHolder> lock;
    /// How many steps ended before this copy: takes of the lock that did more than look. Nothing where they are not
    /// counted.
    std::optional<uint64_t> steps;
    std::optional<shmnm::Note> note;  ///< of the live region's lock, where there is one
    /// The bridge between machines, as it was just before the copy; nothing in a dump, or from a server that does not
    /// tell.
    std::optional<Bridge> bridge;

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

/// All bytes of a file.
/// @throws Error  it cannot be read, or is larger than 2^32 bytes
std::vector<uint8_t> read_file(const std::string& file);

/// Reads a dump.
/// @throws Error  it cannot be read, or is smaller than a header or larger than 2^32 bytes
Snapshot read_dump(const std::string& file);
/// The same for a name that has to be UTF-8 on Windows, where read_dump() also takes one in the process's code page.
Snapshot read_dump_of_utf8_name(const std::string& file);
/// The same from the bytes of a file.
Snapshot dump_of(std::vector<uint8_t> bytes, const std::string& file);

}  // namespace picture
