// What a screen of some size shows of a sheet, and what keys do to it: lines that scroll, tables that scroll sideways
// beside their first columns, and a filter. Knows no terminal: it takes keys and gives lines.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "sheet.h"

namespace shmnmctl {

struct Size {
    size_t columns = 0, rows = 0;

    bool operator==(const Size&) const = default;
};

enum class Key { up, down, left, right, page_up, page_down, home, end, enter, escape, backspace, letter };
struct Press {
    Key key;
    char letter = 0;  ///< printable ASCII
};

/// A piece of a line.
struct Span {
    std::string text;
    Tone tone = Tone::plain;
    bool is_reverse = false;
};
using ScreenLine = std::vector<Span>;

/// What there is to be seen.
struct Content {
    std::vector<std::string> titles;  ///< for the first line; the first that fits is taken
    std::vector<std::string> notes;   ///< before the sheet
    Sheet sheet;
};

class Viewport {
  public:
    void show(Content content) { content_ = std::move(content); }
    /// As many lines as the screen has rows, none longer than its columns. Moves the view to where there is something.
    std::vector<ScreenLine> lines(Size size);
    /// @return false: the key asks to end
    bool press(Press press);

  private:
    bool edit(Press press);
    void move(Press press);

    Content content_;
    size_t top_ = 0, help_top_ = 0;  ///< the first line of the body
    size_t column_ = 0;              ///< the first column of tables beside those that are held
    std::string filter_;
    std::optional<std::string> filter_before_;  ///< while the filter is typed
    bool has_help_ = false;
    size_t page_rows_ = 1, page_columns_ = 1;  ///< of the last drawing
};

}  // namespace shmnmctl
