// Conditions on the words of the picture: "servers/alpha/nodestat=1 and all hb/*/*/svstat/* != 9".
//
//     condition  = term { "or" term }
//     term       = factor { "and" factor }
//     factor     = "not" factor | "(" condition ")" | "exists" PATTERN | [ "all" | "any" ] PATTERN OPERATOR VALUE
//     OPERATOR   = "=" | "==" | "!=" | "<" | "<=" | ">" | ">="
//
// A pattern is a key in whose parts a * stands for any run of bytes. (A * in a name is written %2A.)
#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "words.h"

namespace shmnmctl {

class Condition {
  public:
    /// @throws Failure  it is no condition (usage); the message shows the place
    explicit Condition(std::string_view text);

    /// A comparison of a key that does not exist does not hold, nor does "all" of none.
    bool holds(const std::vector<Word>& words) const { return test_(words); }
    const std::string& text() const { return text_; }

  private:
    std::string text_;
    std::function<bool(const std::vector<Word>&)> test_;
};

/// Whether a key is one of those that a pattern stands for.
bool matches(std::string_view pattern, std::string_view key);

}  // namespace shmnmctl
