// What is different between two pictures, word by word.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "picture/keys.h"

namespace picture {

struct WordChange {
    std::string key;
    std::optional<Value> before, after;  ///< nothing: there was no such key, or there is none any more

    bool operator==(const WordChange&) const = default;
};

/// The words at or below a prefix that changed, in the order of the new picture; then those that are gone, in the order
/// of the old one.
std::vector<WordChange> changes(const std::vector<Word>& before, const std::vector<Word>& after,
                                std::string_view prefix);

}  // namespace picture
