// The target of a request: the parts of its path and its parameters, decoded.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace shmnmweb {

struct Target {
    std::vector<std::string> path;  ///< "/servers/a%20b/alive" has three parts; "/" has one, which is empty
    std::vector<std::pair<std::string, std::string>> parameters;

    /// The value of the first parameter with this name; nothing if there is none.
    std::optional<std::string> parameter(std::string_view name) const;
    bool has(std::string_view name) const { return parameter(name).has_value(); }
    /// Whether the path is one part, and this.
    bool is(std::string_view part) const { return path.size() == 1 && path[0] == part; }
};

/// @return nothing if it is not a path that begins with a slash, or not encoded as it should be
std::optional<Target> parse_target(std::string_view text);

}  // namespace shmnmweb
