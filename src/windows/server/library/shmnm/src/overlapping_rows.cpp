// A word's final value is found by following it backwards, from the last row to the first: a row that shifts the place
// where the value is now had it one place further on before. Both rows and places move evenly, so the rows between two
// changes are passed at once, and there are only a few changes: the place comes into a grid's rows, leaves them or
// reaches the word that they open.
//
// Rows that are shifted up are the mirror image of rows that are shifted down; places count downwards there.
#include "overlapping_rows.h"

#include <algorithm>
#include <limits>

#include "region.h"

namespace shmnm {
namespace {

/// A division of 32 bits takes a fraction of the time of one of 64; views of 16 GB do with it.
int64_t quotient(int64_t dividend, int64_t divisor) noexcept {
    if ((dividend | divisor) >> 32 == 0) return static_cast<uint32_t>(dividend) / static_cast<uint32_t>(divisor);
    return dividend / divisor;
}

/// How many rows on, this one included, a difference that grows by `drift` with each row stays what it is: 1 or more,
/// 0, -1, or -2 and less.
int64_t unchanged(int64_t difference, int64_t drift) noexcept {
    constexpr int64_t forever = std::numeric_limits<int64_t>::max();
    if (drift == 0) return forever;
    if (difference > 0) return drift > 0 ? forever : quotient(difference - 1, -drift) + 1;
    if (difference < -1) return drift < 0 ? forever : quotient(-2 - difference, drift) + 1;
    return 1;
}

class Shifts {
  public:
    /// @param direction  1, or -1 for the mirror image
    /// @param opens      whether each row's end is opened
    Shifts(uint32_t* words, const WordGrids& grids, int64_t rows, int64_t width, int64_t direction, bool opens) noexcept
        : words_(words), grids_(grids.count), rows_(rows), width_(width), direction_(direction), opens_(opens) {
        for (size_t i = 0; i < grids_; ++i) {
            const int64_t first = direction > 0 ? grids.rows[i].first : -(grids.rows[i].first + width);
            grid_[i] = {first, direction * grids.rows[i].distance};
        }
    }

    void apply() const noexcept {
        Extent extents[2];
        for (size_t i = 0; i < grids_; ++i) {
            const int64_t first = begin(i, 0), last = begin(i, rows_ - 1);
            extents[i] = {std::min(first, last), std::max(first, last) + width_ + 1};
        }
        if (grids_ == 2 && extents[1].begin < extents[0].begin) std::swap(extents[0], extents[1]);
        // A value comes from a place that is not lower, so upwards nothing is overwritten that is still needed.
        for (size_t i = 0; i < grids_; ++i) {
            const int64_t done = i > 0 ? extents[0].end : extents[0].begin;
            for (int64_t place = std::max(extents[i].begin, done); place < extents[i].end; ++place) settle(place);
        }
    }

  private:
    struct Extent {
        int64_t begin, end;
    };

    int64_t begin(size_t grid, int64_t row) const noexcept { return grid_[grid].first + row * grid_[grid].distance; }
    uint32_t& word(int64_t place) const noexcept { return words_[direction_ * place]; }
    bool shifts(size_t grid, int64_t row, int64_t place) const noexcept {
        return static_cast<uint64_t>(place - begin(grid, row)) < static_cast<uint64_t>(width_);
    }
    /// How many words the second grid's row lies after the first one's.
    int64_t lead(int64_t row) const noexcept { return begin(1, row) - begin(0, row); }

    /// How far a row has moved the value that is now at this place. The two grids' words take turns. Where one grid's
    /// row lies before the other's, its words come from places that the other has left already; where the two are the
    /// same or one word apart, no word is reached by both.
    int64_t moved(int64_t row, int64_t place) const noexcept {
        if (grids_ == 1) return shifts(0, row, place);
        const int64_t second_leads_by = lead(row);
        if (second_leads_by == 0 || second_leads_by == 1) return shifts(0, row, place) || shifts(1, row, place);
        const size_t last = second_leads_by > 1 ? 0 : 1;
        const int64_t by_last = shifts(last, row, place);
        return by_last + shifts(1 - last, row, place + by_last);
    }

    bool opened(int64_t row, int64_t place) const noexcept {
        return opens_ && (place == begin(0, row) + width_ || (grids_ == 2 && place == begin(1, row) + width_));
    }

    void settle(int64_t place) const noexcept {
        int64_t from = place;
        for (int64_t row = rows_ - 1; row >= 0;) {
            if (opened(row, from)) return store(word(place), opened_state);
            const int64_t step = moved(row, from);
            int64_t alike = grids_ == 1 ? row + 1 : unchanged(lead(row) - 1, grid_[0].distance - grid_[1].distance);
            for (size_t i = 0; i < grids_; ++i) {
                const int64_t past = from - begin(i, row), drift = step + grid_[i].distance;
                alike = std::min({alike, unchanged(past, drift), unchanged(past - width_, drift)});
            }
            alike = std::min(alike, row + 1);
            from += alike * step;
            row -= alike;
        }
        if (from != place) store(word(place), load(word(from)));
    }

    uint32_t* words_;
    size_t grids_;
    WordRows grid_[2] = {};
    int64_t rows_, width_, direction_;
    bool opens_;
};

}  // namespace

void shift_rows_down(uint32_t* words, const WordGrids& grids, int64_t rows, int64_t width) noexcept {
    Shifts(words, grids, rows, width, 1, false).apply();
}

void shift_rows_up(uint32_t* words, const WordGrids& grids, int64_t rows, int64_t width) noexcept {
    Shifts(words, grids, rows, width, -1, true).apply();
}

}  // namespace shmnm
