// The lines of a configuration's elements, for messages: the parser does not keep them.
#pragma once

#include <cstdint>
#include <map>
#include <string_view>

#include "document.h"

namespace picture {

/// The line of a place in a text, from 1.
uint32_t line_at(std::string_view text, size_t place);

/// The line on which the start tag of each element begins.
class ElementLines {
  public:
    /// @param[in] text      well-formed
    /// @param[in] document  what was parsed from it; must outlive this
    ElementLines(std::string_view text, const kzmxml::Element& document);

    uint32_t line_of(const kzmxml::Element& element) const { return lines_.at(&element); }

  private:
    void number(std::string_view& rest, uint32_t& line, const kzmxml::Element& element);

    std::map<const kzmxml::Element*, uint32_t> lines_;
};

}  // namespace picture
