// The operator's names for values: a file that turns numbers into words, each of a level. Without one there are only
// numbers.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace shmnmweb {

struct StateName {
    std::string value;  ///< as the picture shows it: "2", or "none"
    std::string name, level;
};

struct WordNames {
    std::string pattern;  ///< of keys, as in conditions: "servers/*/nodestat"
    std::vector<StateName> states;
};

class Names {
  public:
    Names() = default;
    /// @throws picture::Error  it cannot be read, or is not a file of names
    explicit Names(const std::string& file);

    /// The file as it was read; "" without one.
    const std::string& text() const { return text_; }
    /// The names of a word's values; null if it has none.
    const WordNames* find(std::string_view key) const;

  private:
    std::string text_;
    std::vector<WordNames> words_;
};

}  // namespace shmnmweb
