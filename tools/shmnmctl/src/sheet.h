// The picture as cells in rows, before anybody knows how wide the page or the screen is.
#pragma once

#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "picture/picture.h"
#include "picture/selection.h"

namespace shmnmctl {

enum class Tone { plain, heading, good, bad };

struct Cell {
    std::string text{};
    std::string key{};  ///< of the word that it shows; empty: none
    Tone tone = Tone::plain;
    bool is_word = true;      ///< has the key's value for its text
    bool is_changed = false;  ///< it differs from the picture before
};

/// A heading, and cells with their names.
struct Items {
    std::string heading;
    std::vector<std::pair<std::string, Cell>> all{};
};

struct TableRow {
    std::string name{};  ///< of the record, also in rows that do not show it
    std::vector<Cell> cells{};
};

/// Rows of equal length; the first holds the headings.
struct Table {
    std::vector<TableRow> rows{};
    size_t leading = 0;  ///< columns that stay beside the others, where those do not fit
};

using Section = std::variant<Items, Table>;

struct Sheet {
    std::vector<std::vector<Section>> groups;  ///< with a blank line after each but the last
    bool has_marks = false;                    ///< changed cells are marked
};

/// @param[in] before  cells that differ from this picture are marked; null: none is
Sheet to_sheet(const picture::Picture& picture, const picture::Selection& selection, const picture::Picture* before);

/// Cuts a text visibly, at its end.
std::string cut(const std::string& text, size_t size);

}  // namespace shmnmctl
