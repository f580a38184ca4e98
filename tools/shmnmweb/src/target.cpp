#include "target.h"

#include <algorithm>

#include "picture/escape.h"

namespace shmnmweb {
namespace {

/// A parameter's text, in which a + stands for a blank.
std::optional<std::string> parameter_text(std::string_view text) {
    std::string blanks(text);
    std::replace(blanks.begin(), blanks.end(), '+', ' ');
    return picture::unescaped(blanks);
}

/// Takes the text up to a mark, and the mark, off the front.
std::string_view take(std::string_view& text, char mark) {
    const size_t end = std::min(text.find(mark), text.size());
    const std::string_view part = text.substr(0, end);
    text.remove_prefix(std::min(end + 1, text.size()));
    return part;
}

}  // namespace

std::optional<std::string> Target::parameter(std::string_view name) const {
    for (const auto& [known, value] : parameters) {
        if (known == name) return value;
    }
    return std::nullopt;
}

std::optional<Target> parse_target(std::string_view text) {
    if (text.empty() || text[0] != '/') return std::nullopt;
    Target target;
    std::string_view query = text;
    std::string_view path = take(query, '?');
    path.remove_prefix(1);
    for (;;) {
        const bool is_last = path.find('/') == std::string_view::npos;
        auto part = picture::unescaped(take(path, '/'));
        if (!part) return std::nullopt;
        target.path.push_back(std::move(*part));
        if (is_last) break;
    }
    while (!query.empty()) {
        std::string_view value = take(query, '&');
        if (value.empty()) continue;
        auto name = parameter_text(take(value, '='));
        auto decoded = parameter_text(value);
        if (!name || !decoded) return std::nullopt;
        target.parameters.emplace_back(std::move(*name), std::move(*decoded));
    }
    return target;
}

}  // namespace shmnmweb
