// What is different between two documents, a line each: words, descriptions, the order of records, and counts.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "picture/picture_document.h"

namespace picture {

/// What stands under a key, for people and in JSON.
struct Shown {
    std::string text;
    Json json;

    bool operator==(const Shown&) const = default;
};

struct Difference {
    std::string key;
    std::optional<Shown> before, after;  ///< nothing: there is no such key

    bool operator==(const Difference&) const = default;
};

/// Nothing is left out but what follows from other words. The second of two records that share a name is under
/// NAME%002: no name has a NUL.
std::vector<Difference> differences(const Document& before, const Document& after);

/// "servers/alpha/pri 1 -> 2", with "-" where there is no such key.
std::string to_text(const Difference& difference);
Json to_json(const std::vector<Difference>& differences);

}  // namespace picture
