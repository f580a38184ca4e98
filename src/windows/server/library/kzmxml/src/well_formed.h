// Whether a text may be given to the XML parser. The parser recurses once a level, takes any end tag for any start tag,
// stops at a NUL and lets a second root pass; what reaches it has none of that.
#pragma once

#include <cstddef>
#include <string_view>

namespace kzmxml {

inline constexpr size_t depth_limit = 256;     ///< elements within each other, the root included
inline constexpr size_t node_limit = 100'000;  ///< elements and attributes of a document

/// Whether `text` is one well-formed XML document within the limits and without a document type, so that there are no
/// entities beside the five predefined ones. Bytes above 127 may stand wherever a letter may; their coding is not
/// checked.
bool is_well_formed(std::string_view text);

}  // namespace kzmxml
