// Shifts rows of words that overlap, as a damaged header or a changed maximum may make them. The effect is that of
// shifting one row after the other, but the time is limited by the extent of the rows, not by their number times their
// width.
#pragma once

#include <cstddef>
#include <cstdint>

namespace shmnm {

/// Rows at equal distances, counted in words.
struct WordRows {
    int64_t first;     ///< the first word of row 0 that takes part
    int64_t distance;  ///< from each row to the next; may be 0 or negative
};

/// The rows of one grid, or of two whose words are shifted in turn.
struct WordGrids {
    size_t count;
    WordRows rows[2] = {};
};

/// In each of `rows` rows, in turn, lets `width` words take the values of the words after them: for each word upwards,
/// in each of the grids.
void shift_rows_down(uint32_t* words, const WordGrids& grids, int64_t rows, int64_t width) noexcept;

/// In each of `rows` rows, in turn, lets the `width` words after the first one take the values of the words before
/// them: for each word downwards, in each of the grids. Then opens the row's first word in each grid.
void shift_rows_up(uint32_t* words, const WordGrids& grids, int64_t rows, int64_t width) noexcept;

}  // namespace shmnm
