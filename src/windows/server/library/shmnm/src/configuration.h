// What the library reads from the loaded cluster configuration: the four counts from which the layout follows, and the
// settings of the trace log.
#pragma once

#include <cstdint>

#include "frame.h"
#include "region.h"

namespace shmnm {

/// Reads the settings of the log. A setting that cannot be read keeps its fallback.
LogSettings read_log_settings();

/// Reads the four counts. A count that cannot be read keeps its fallback.
/// @return SHMNM_OK or SHMNM_ERR_INSTALLPATH
uint32_t load_counts(Counts& counts);

}  // namespace shmnm
