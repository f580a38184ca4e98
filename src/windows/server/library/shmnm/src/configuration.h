// What the library reads from the loaded cluster configuration: the four counts from which the layout follows, and how
// the trace log is to be opened.
#pragma once

#include <cstdint>

#include "frame.h"
#include "region.h"

namespace shmnm {

/// Reads how to open the log; each setting that cannot be read keeps its fallback.
LogSettings read_log_settings();

/// Reads the four counts under their policy; each that cannot be read keeps its fallback.
/// @return SHMNM_OK or SHMNM_ERR_INSTALLPATH
uint32_t load_counts(Counts& counts);

}  // namespace shmnm
