// The differences between two pictures, word by word.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "picture/keys.h"

namespace picture {

struct WordChange {
    std::string key;
    std::optional<Value> before, after;  ///< nothing if there was no such key before, or there is none now

    bool operator==(const WordChange&) const = default;
};

/// The words at or below a prefix that changed, in the order of the new picture; then the removed words, in the order
/// of the old picture. A word that moves all the time is among them only if the prefix is its key.
std::vector<WordChange> changes(const std::vector<Word>& before, const std::vector<Word>& after,
                                std::string_view prefix);

}  // namespace picture
