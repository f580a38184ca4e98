// A word's final value is found by following it backwards, from the last row to the first: if a row shifts the place
// where the value is now, the value was one place further on before. Rows and places move by constant distances, so
// many rows are passed in one step. Few events end such a step: the place enters a grid's rows, leaves them, or reaches
// the word that they open.
//
// Shifting rows up is the mirror image of shifting them down; there, places count downwards.
#include "overlapping_rows.h"

#include <algorithm>
#include <limits>

#include "region.h"

namespace shmnm {
namespace {

/// Divides 32-bit numbers, if possible, in a fraction of the time that 64-bit numbers take. Views of up to 16 GB need
/// no others.
int64_t quotient(int64_t dividend, int64_t divisor) noexcept {
    if ((dividend | divisor) >> 32 == 0) return static_cast<uint32_t>(dividend) / static_cast<uint32_t>(divisor);
    return dividend / divisor;
}

/// For how many rows, this row included, a difference that grows by `drift` with each row stays in its class: 1 or
/// more, 0, -1, or -2 and less.
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
        // A value never comes from a lower place, so in ascending order no value is overwritten that is still needed.
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
    /// How many words the second grid's row lies after the first grid's row.
    int64_t lead(int64_t row) const noexcept { return begin(1, row) - begin(0, row); }

    /// How far a row has moved the value that is now at this place. The words of the two grids are shifted in turn. If
    /// one grid's row lies before the other's, its words come from places that the other row has already left. If the
    /// two rows are the same or one word apart, no word is moved by both.
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
