// Tables that reach into one another. With one server or none the hb and np tables are longer than the area that is
// reserved for them, so bytes in them may have been written by another table.
#pragma once

#include <cstdint>
#include <vector>

#include "picture/layout.h"
#include "shmnm.h"

namespace picture {

inline constexpr uint64_t word_size = sizeof(uint32_t), record_size = sizeof(shmnm_resource);

struct Range {
    uint64_t begin, end;
};
/// Sorted by their begin; they may overlap.
using Ranges = std::vector<Range>;

Ranges intersections(const Range& range, const Ranges& others);
bool touches(const Ranges& ranges, uint64_t begin, uint64_t end);

/// Bytes from one record of the hb or np table to the next.
uint64_t resource_step(const Counts& counts);

/// Where tables write that may reach into another table.
struct Owners {
    explicit Owners(const Counts& counts);

    Ranges resources;             ///< the hb and np tables
    Ranges beside_hb, beside_np;  ///< all that may reach into that table
};

/// The slots of the hb or np table, and who else may have written to them.
class Slots {
  public:
    /// @param[in] others  what other tables write to
    Slots(uint64_t start, uint64_t step, uint64_t count, const Ranges& others);

    uint64_t at(int32_t position) const { return start_ + step_ * static_cast<uint64_t>(position); }
    const Ranges& shared() const { return shared_; }

    /// What another table may have written to the record in use at a position: there, or at a later position, from
    /// where removals have moved it down.
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
