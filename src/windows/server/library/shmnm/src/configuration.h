// What the library reads from the cluster configuration: single numbers, and the four counts that the layout follows
// from.
#pragma once

#include <cstdint>

#include "region.h"

namespace shmnm {

/// Reads a 32-bit number of a loaded policy. A failed read leaves `value` as it was. @return 0 on success
int32_t read_count(const char* path, int32_t& value);

/// Reads the four counts under their policy; each that cannot be read keeps its fallback. The configuration must be
/// loaded.
/// @return SHMNM_OK or SHMNM_ERR_INSTALLPATH
uint32_t load_counts(Counts& counts);

}  // namespace shmnm
