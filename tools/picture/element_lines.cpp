#include "picture/element_lines.h"

#include <algorithm>

namespace picture {
namespace {

uint32_t newlines(std::string_view text) {
    return static_cast<uint32_t>(std::count(text.begin(), text.end(), '\n'));
}

/// Takes the text up to the next start tag and its '<'; the lines that end in it count.
void take_to_start_tag(std::string_view& rest, uint32_t& line) {
    const std::string_view before = rest;
    const auto skip_to = [&](std::string_view end) { rest.remove_prefix(std::min(rest.find(end), rest.size())); };
    for (;;) {
        skip_to("<");
        if (rest.starts_with("<!--")) {
            rest.remove_prefix(4);
            skip_to("-->");
        } else if (rest.starts_with("<![CDATA[")) {
            skip_to("]]>");
        } else if (rest.starts_with("<?")) {
            skip_to("?>");
        } else if (rest.starts_with("</")) {
            skip_to(">");
        } else {
            break;
        }
    }
    line += newlines(before.substr(0, before.size() - rest.size()));
    rest.remove_prefix(std::min<size_t>(rest.size(), 1));
}

}  // namespace

uint32_t line_at(std::string_view text, size_t place) {
    return 1 + newlines(text.substr(0, place));
}

ElementLines::ElementLines(std::string_view text, const kzmxml::Element& document) {
    uint32_t line = 1;
    number(text, line, document);
}

/// The parser keeps elements in the order of their start tags. A '<' cannot stand in an attribute.
void ElementLines::number(std::string_view& rest, uint32_t& line, const kzmxml::Element& element) {
    for (const auto& [name, child] : element) {
        if (name.starts_with('<')) continue;  // the parser's own, such as attributes
        take_to_start_tag(rest, line);
        lines_[&child] = line;
        number(rest, line, child);
    }
}

}  // namespace picture
