// Decides whether a text may be given to the XML parser. The parser recurses once per level, accepts any end tag for
// any start tag, stops at a NUL and accepts a second root. This check keeps such texts away from it.
#pragma once

#include <cstddef>
#include <string_view>

namespace kzmxml {

inline constexpr size_t depth_limit = 256;     ///< levels of nested elements, including the root
inline constexpr size_t node_limit = 100'000;  ///< elements and attributes of a document

/// Whether `text` is one well-formed XML document within the limits and without a document type. It can therefore use
/// only the five predefined entities. Bytes above 127 are accepted wherever a letter is; their encoding is not checked.
bool is_well_formed(std::string_view text);

/// Where a text that is not well-formed ceases to be, in bytes from its start.
size_t fault_in(std::string_view text);

}  // namespace kzmxml
