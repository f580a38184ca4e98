// The part of the picture that is shown: the words at or below some keys and, of the tables, the rows for which a
// condition holds.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "picture/conditions.h"
#include "picture/picture.h"

namespace picture {

/// Whether the first part of a text is one with which keys begin.
bool names_area(std::string_view text);
/// Whether it is like such a word.
bool is_like_area(std::string_view text);

/// Which records of each table are shown.
struct ShownRows {
    std::vector<bool> servers, hb, np, fst_pids;

    bool any() const;
};

/// The words that a condition on rows may name; with a slash after those that a row has for each server or kind.
std::vector<std::string> words_of_rows();

class Selection {
  public:
    /// Everything.
    Selection() = default;

    /// @param[in] prefixes  keys; none: all words
    /// @param[in] only      a condition on the words of a row, which it names without the row's key ("nodestat!=1");
    ///                      nothing: all rows. Only tables whose rows have all its words are shown, and nothing but
    ///                      tables
    /// @throws Error  it is not a condition, or no table has all its words
    Selection(std::vector<std::string> prefixes, const std::optional<std::string>& only);

    bool is_everything() const { return prefixes_.empty() && !only_; }
    bool has_prefixes() const { return !prefixes_.empty(); }
    bool has_condition() const { return only_.has_value(); }
    bool shows(std::string_view key) const;
    ShownRows rows(const Picture& picture) const;

    /// @throws Error  no word of the picture lies at or below one of the prefixes
    void expect_words(const Picture& picture) const;

  private:
    struct Tables {
        bool servers = true, hb = true, np = true, fst_pids = true;
    };

    std::vector<std::string> prefixes_;
    std::optional<Condition> only_;
    Tables tables_;  ///< whose rows have all words of the condition
};

}  // namespace picture
