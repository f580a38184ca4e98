// The cluster's configuration as a tree of elements, and the integers in it.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include <boost/property_tree/ptree.hpp>

#include "kzmxml.h"

namespace kzmxml {

using Element = boost::property_tree::ptree;

inline constexpr size_t size_limit = 16 << 20;  ///< bytes of a file

/// Parses a file's text. `document`, an element around the root, is as it was after a failure.
/// @return XMLLIB_OK or XMLLIB_ERR_FORMAT
int32_t parse_document(std::string text, Element& document);

/// Reads a file and parses it.
/// @return XMLLIB_OK, XMLLIB_ERR_FILE or XMLLIB_ERR_FORMAT
int32_t read_document(const std::string& file, Element& document);

/// The first element that `path`, names with a '/' before each, leads to; null when there is none.
const Element* find(const Element& document, std::string_view path);

/// The element's text as a decimal integer with an optional sign and white space around it; false when it is none.
bool read_integer(const Element& element, int32_t& value);

}  // namespace kzmxml
