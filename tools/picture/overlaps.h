// Tables that reach into each other. With one server or none, the hb and np tables are longer than the areas reserved
// for them, so writes to another table may have changed bytes in them.
#pragma once

#include <cstdint>
#include <vector>

#include "picture/layout.h"
#include "shmnm.h"

namespace picture {

struct ResourceKind;

inline constexpr uint64_t word_size = sizeof(uint32_t), record_size = sizeof(shmnm_resource);

struct Range {
    uint64_t begin, end;
};
/// Sorted by `begin`; they may overlap.
using Ranges = std::vector<Range>;

Ranges intersections(const Range& range, const Ranges& others);
bool touches(const Ranges& ranges, uint64_t begin, uint64_t end);

/// Bytes from one record of the hb or np table to the next.
uint64_t resource_step(const Counts& counts);

/// Where the tables write, if they may reach into another table.
struct Owners {
    explicit Owners(const Counts& counts);

    /// All that may reach into the table of a kind.
    Ranges beside(const ResourceKind& kind) const;

    Ranges resources;  ///< the tables of the resource kinds, in their order

  private:
    Ranges others_;  ///< what other tables write
};

/// The slots of the hb or np table, and what writes to other tables may have changed in them.
class Slots {
  public:
    /// @param[in] others  what other tables write to
    Slots(uint64_t start, uint64_t step, uint64_t count, const Ranges& others);

    uint64_t at(int32_t position) const { return start_ + step_ * static_cast<uint64_t>(position); }
    const Ranges& shared() const { return shared_; }

    /// The bytes of the record at a position that another table may have written: at that position, or at a later
    /// position from which removals moved the record down.
    Ranges doubtful(int32_t position) const;

  private:
    struct SharedField {
        Range bytes;   ///< of a record
        int64_t last;  ///< the last position where they are shared
    };

    uint64_t start_, step_;
    Ranges shared_;
    std::vector<SharedField> shared_fields_;
};

}  // namespace picture
