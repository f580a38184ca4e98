#include "document.h"

#include <algorithm>
#include <boost/property_tree/detail/xml_parser_read_rapidxml.hpp>
#include <charconv>
#include <utility>

#include "file.h"
#include "well_formed.h"

namespace kzmxml {
namespace {

/// The key under which the parser keeps an element's attributes. No element can have this name.
constexpr const char* attributes_key = "<xmlattr>";

const Element* child(const Element& element, std::string_view name) {
    const auto found =
        std::find_if(element.begin(), element.end(), [&](const auto& entry) { return entry.first == name; });
    return found == element.end() || name == attributes_key ? nullptr : &found->second;
}

std::string_view without_spaces_around(std::string_view text) {
    constexpr std::string_view spaces = " \t\r\n";
    const size_t first = text.find_first_not_of(spaces);
    if (first == std::string_view::npos) return {};
    return text.substr(first, text.find_last_not_of(spaces) + 1 - first);
}

}  // namespace

// Does the same as read_xml(), but needs no stream. Setting up a stream with its locale would take a process longer
// than everything else here.
int32_t parse_document(std::string text, Element& document) {
    namespace xml = boost::property_tree::xml_parser;
    namespace rapidxml = boost::property_tree::detail::rapidxml;
    if (!is_well_formed(text)) return XMLLIB_ERR_FORMAT;
    Element read;
    try {
        rapidxml::xml_document<char> nodes;
        nodes.parse<0>(text.data());
        for (auto* node = nodes.first_node(); node; node = node->next_sibling()) {
            xml::read_xml_node(node, read, xml::no_comments);
        }
    } catch (const rapidxml::parse_error&) {
        return XMLLIB_ERR_FORMAT;
    }
    document.swap(read);
    return XMLLIB_OK;
}

int32_t read_document(const std::string& file, Element& document) {
    std::string text;
    return read_file(file, size_limit, text) ? parse_document(std::move(text), document) : XMLLIB_ERR_FILE;
}

const Element* find(const Element& document, std::string_view path) {
    const Element* element = path.empty() ? nullptr : &document;
    while (element && !path.empty()) {
        if (path[0] != '/') return nullptr;
        path.remove_prefix(1);
        const std::string_view name = path.substr(0, path.find('/'));
        element = child(*element, name);
        path.remove_prefix(name.size());
    }
    return element;
}

bool read_integer(const Element& element, int32_t& value) {
    if (std::any_of(element.begin(), element.end(), [](const auto& entry) { return entry.first != attributes_key; })) {
        return false;
    }
    std::string_view text = without_spaces_around(element.data());
    if (text.starts_with('+') && !text.starts_with("+-")) text.remove_prefix(1);
    int32_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc() || end != text.data() + text.size()) return false;
    value = number;
    return true;
}

}  // namespace kzmxml
