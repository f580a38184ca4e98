// Conditions on the words of the picture: "servers/alpha/nodestat=1 and all hb/*/*/svstat/* != 9".
//
//     condition  = term { "or" term }
//     term       = factor { "and" factor }
//     factor     = "not" factor | "(" condition ")" | "exists" PATTERN | [ "all" | "any" ] PATTERN OPERATOR VALUE
//     OPERATOR   = "=" | "==" | "!=" | "<" | "<=" | ">" | ">="
//
// pattern.h says what a PATTERN is.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "picture/keys.h"

namespace picture {

class Condition {
  public:
    /// @throws Error  the text is not a condition; the message shows the position of the mistake
    explicit Condition(std::string_view text);

    /// @throws Error  a pattern has a word that no key can have
    void expect_words() const;

    /// @throws Error  it compares words with values that they cannot have, so it can never hold
    void expect_possible() const;

    /// A comparison with a key that does not exist does not hold, and neither does "all" if no key matches.
    bool holds(const std::vector<Word>& words) const;

    /// The parts because of which it does not hold, each with the reason: "servers/alpha/nodestat=1 (it is 2)".
    /// Printable. Empty if it holds.
    std::string unmet(const std::vector<Word>& words) const;

    /// The keys and patterns that it compares or looks for.
    std::vector<std::string> patterns() const;

    /// A part of the condition. If it has parts, in their written order, its result depends on them.
    struct Part {
        enum class Kind { all_of, one_of, none_of, exists, comparison };
        using Compare = bool (*)(const Value&, const Value&);

        Kind kind = Kind::comparison;
        std::string text;         ///< as it was written
        std::vector<Part> parts;  ///< of all_of, one_of and none_of (which has exactly one)
        std::string pattern;      ///< of exists and comparison
        bool of_all = false;      ///< of a comparison: each key of the pattern is compared, not some key
        Compare compare = nullptr;
        Value value;
    };

  private:
    Part whole_;
};

}  // namespace picture
