// The shifts of rows that lie over one another, against what they come to when each is made in its turn.
#include "overlapping_rows.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <vector>

#include "support/child.h"

namespace {

using shmnm::WordGrids;
using shmnm::WordRows;
using Words = std::vector<uint32_t>;

struct Shift {
    WordGrids grids{};
    int64_t rows = 1, width = 0;
};

void shift_each_row_down(Words& words, const Shift& shift) {
    for (int64_t row = 0; row < shift.rows; ++row) {
        for (int64_t i = 0; i < shift.width; ++i) {
            for (size_t grid = 0; grid < shift.grids.count; ++grid) {
                const auto at =
                    static_cast<size_t>(shift.grids.rows[grid].first + row * shift.grids.rows[grid].distance + i);
                words.at(at) = words.at(at + 1);
            }
        }
    }
}

void shift_each_row_up(Words& words, const Shift& shift) {
    const auto first = [&](size_t grid, int64_t row) {
        return shift.grids.rows[grid].first + row * shift.grids.rows[grid].distance;
    };
    for (int64_t row = 0; row < shift.rows; ++row) {
        for (int64_t i = shift.width - 1; i >= 0; --i) {
            for (size_t grid = 0; grid < shift.grids.count; ++grid) {
                const auto at = static_cast<size_t>(first(grid, row) + i);
                words.at(at + 1) = words.at(at);
            }
        }
        for (size_t grid = 0; grid < shift.grids.count; ++grid) words.at(static_cast<size_t>(first(grid, row))) = 2;
    }
}

/// Rows of any distance within so many words; those of two grids often cross or lie within a word of one another.
Shift random_shift(std::mt19937_64& random, int64_t words) {
    const auto between = [&](int64_t least, int64_t most) {
        return least + static_cast<int64_t>(random() % static_cast<uint64_t>(most - least + 1));
    };
    for (;;) {
        const int64_t longest = between(0, 3) == 0 ? 40 : 12, farthest = between(0, 2) == 0 ? 30 : 3;
        Shift shift{.rows = between(1, longest), .width = between(0, longest)};
        shift.grids.count = static_cast<size_t>(between(1, 2));
        for (WordRows& rows : shift.grids.rows) rows = {between(0, words), between(-farthest, farthest)};
        if (between(0, 1) == 0) shift.grids.rows[1].first = shift.grids.rows[0].first + between(-3, 3);
        const auto fits = [&](const WordRows& rows) {
            const int64_t last = rows.first + (shift.rows - 1) * rows.distance;
            return std::min(rows.first, last) >= 0 && std::max(rows.first, last) + shift.width < words;
        };
        if (std::all_of(shift.grids.rows, shift.grids.rows + shift.grids.count, fits)) return shift;
    }
}

template <typename All, typename Each>
void expect_same(const All& all, const Each& each) {
    std::mt19937_64 random(1);
    for (unsigned round = 0; round < test::share_of(20'000); ++round) {
        Words words(20 + random() % 200);
        for (size_t i = 0; i < words.size(); ++i) words[i] = static_cast<uint32_t>(1000 + i);
        const Shift shift = random_shift(random, static_cast<int64_t>(words.size()));
        Words expected = words;
        each(expected, shift);
        all(words.data(), shift.grids, shift.rows, shift.width);
        ASSERT_EQ(words, expected) << "round " << round << ": " << shift.grids.count << " grids of " << shift.rows
                                   << " rows, width " << shift.width;
    }
}

TEST(OverlappingRows, AreShiftedDownAsIfOneAfterAnother) {
    expect_same(shmnm::shift_rows_down, shift_each_row_down);
}

TEST(OverlappingRows, AreShiftedUpAsIfOneAfterAnother) {
    expect_same(shmnm::shift_rows_up, shift_each_row_up);
}

TEST(OverlappingRows, MayLieFartherApartThan32BitsCount) {
    // With the word by which a row moves, the last one is 2^32: a divisor that 32 bits would make 0.
    for (const int64_t distance : {int64_t{1} << 33, int64_t{1} << 32, (int64_t{1} << 32) - 1}) {
        const WordGrids grids{.count = 1, .rows = {{.first = 1, .distance = distance}}};
        Words words = {1, 2, 3, 4, 5};
        shmnm::shift_rows_down(words.data(), grids, 1, 3);
        EXPECT_EQ(words, (Words{1, 3, 4, 5, 5}));
    }
}

}  // namespace
