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

/// Parses a file's text into `document`, an element around the root. A failure leaves `document` as it was.
/// @return XMLLIB_OK or XMLLIB_ERR_FORMAT
int32_t parse_document(std::string text, Element& document);

/// Reads a file and parses it.
/// @return XMLLIB_OK, XMLLIB_ERR_FILE or XMLLIB_ERR_FORMAT
int32_t read_document(const std::string& file, Element& document);

/// The first element with this path, which has a '/' before each name; null if there is none.
const Element* find(const Element& document, std::string_view path);

/// Reads the element's text as a decimal integer with an optional sign and white space around it; false if it is not
/// such an integer.
bool read_integer(const Element& element, int32_t& value);

}  // namespace kzmxml
