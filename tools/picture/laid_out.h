// Whether a copy is a whole region, and by which counts it was laid out when its header does not say so: calls of the
// library can change the maxima in the header and clear it, and a dump may be cut or be no dump at all.
#pragma once

#include <string>

#include "picture/snapshot.h"

namespace picture {

/// Finds the counts by which a dump was laid out.
/// @return what those who look at it should know, in one line; "" when its header and its size agree
/// @throws Error  it was cut (not_whole), or no region has such maxima (not_a_dump)
std::string settle_dump(Snapshot& dump, const std::string& file);

/// The same for a copy of the live region, whose layout is settled already.
std::string doubt_about(const Snapshot& live);

}  // namespace picture
