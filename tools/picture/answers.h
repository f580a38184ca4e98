// What the reading commands of shmnmctl answer, for every program that gives the same answers.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "picture/conditions.h"
#include "picture/findings.h"
#include "picture/keys.h"
#include "picture/picture.h"

namespace picture {

/// The word of a key.
/// @throws Error  no region has such a key, or this one has not; the message may name a similar key
Word word_of(const Picture& picture, std::string_view key);

/// @throws Error  it is not a condition, or it has a word that no region has
Condition condition_on_words(std::string_view text);

/// Adds to each finding that "shmnmctl repair" completes that it does.
std::vector<Finding> with_repair(std::vector<Finding> findings);

/// Document "verify" in one line with a newline.
std::string verify_line(const std::vector<Finding>& findings);

}  // namespace picture
