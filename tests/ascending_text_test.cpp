// The comparison of one text with field after field, also while words after the fields are set: against the comparison
// byte by byte.
#include "ascending_text.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>
#include <vector>

#include "support/child.h"

namespace {

/// A view of a few thousand bytes with fields of 's' that end here and there.
class View {
  public:
    explicit View(std::mt19937_64& random) : random_(random), words_(1500, 0x73737373) {
        region.base = reinterpret_cast<uint8_t*>(words_.data());
        region.view_size = words_.size() * sizeof(uint32_t);
        for (size_t ends = below(12); ends > 0; --ends) {
            const size_t step = 4 * (1 + below(100));
            size_t end = below(region.view_size);
            for (size_t more = 1 + below(6); more > 0 && end < region.view_size; --more, end += step) {
                region.base[end] = below(8) == 0 ? 't' : 0;
            }
        }
    }
    /// Puts the text into a field, and an end for a field after that one.
    void plant(const std::string& text, size_t step) {
        const size_t offset = step * below(region.view_size / step), end = offset + text.size();
        if (end + 1 > region.view_size) return;
        std::copy(text.begin(), text.end(), region.base + offset);
        region.base[end] = 0;
        const size_t next_end = end + step * (1 + below(3));
        if (next_end < region.view_size) region.base[next_end] = 0;
    }
    const char* field(size_t offset) const { return reinterpret_cast<const char*>(region.base + offset); }
    size_t below(size_t limit) { return static_cast<size_t>(random_() % limit); }

    shmnm::Region region;

  private:
    std::mt19937_64& random_;
    std::vector<uint32_t> words_;
};

std::string random_text(View& view) {
    static const size_t lengths[] = {0,   1,   4,   32,  255, 288, 291, 292,  293,
                                     296, 328, 332, 340, 400, 584, 600, 1000, 2000};
    std::string text(lengths[view.below(std::size(lengths))], 's');
    if (!text.empty() && view.below(4) == 0) text[view.below(text.size())] = 't';
    return text;
}

TEST(AscendingText, IsFoundInEveryFieldThatHoldsIt) {
    std::mt19937_64 random(1);
    size_t found = 0;
    for (unsigned round = 0; round < 1'000; ++round) {
        View view(random);
        const std::string text = random_text(view);
        shmnm::AscendingText ascending(view.region, text.c_str());
        const size_t step = 1 + view.below(20);
        for (int times = 0; times < 3; ++times) view.plant(text, step);
        for (size_t offset = 0; offset < view.region.view_size; offset += step) {
            const bool holds = shmnm::holds_text(view.field(offset), view.region.end(), text.c_str());
            ASSERT_EQ(ascending.equals(view.field(offset)), holds) << "round " << round << ", offset " << offset;
            found += holds ? 1 : 0;
        }
    }
    EXPECT_GT(found, 500u);
}

TEST(AscendingText, IsFoundInFieldsSetDuringTheSearch) {
    static const uint32_t values[] = {0x73737373, 0x73737373, 0x73007373, 0x00737373, 0x74737373, 2, 0};
    std::mt19937_64 random(1);
    size_t found = 0;
    for (unsigned round = 0; round < test::share_of(5'000); ++round) {
        View view(random);
        const std::string text = random_text(view);
        const uint32_t value = values[view.below(std::size(values))];
        const size_t step = 4 * (1 + view.below(view.below(2) == 0 ? 3 : 100)),
                     distance = view.below(2) == 0 ? 292 : 328;
        for (size_t times = view.below(3); times > 0; --times) view.plant(text, step);
        // Often just so many that the text's end is overwritten.
        const size_t past_end = text.size() + 4 > distance ? (text.size() + 4 - distance) / 4 + view.below(3) : 1;
        const size_t count = view.below(2) == 0 ? past_end : 1 + view.below(400);
        shmnm::AscendingText ascending(view.region, text.c_str());
        size_t set = 0;
        for (size_t offset = 0; offset + distance < view.region.view_size; offset += step) {
            const bool holds = shmnm::holds_text(view.field(offset), view.region.end(), text.c_str());
            ASSERT_EQ(ascending.equals(view.field(offset)), holds) << "round " << round << ", offset " << offset;
            if (!holds) continue;
            ++found;
            const size_t begin = std::max(set, offset + distance);
            const size_t end = std::min(offset + distance + 4 * count, view.region.view_size);
            if (begin >= end) continue;
            for (set = begin; set < end; set += 4) shmnm::store(*view.region.word(set), value);
            ascending.were_set(view.region.word(begin), view.region.word(end), value);
        }
    }
    EXPECT_GT(found, test::share_of(5'000));
}

}  // namespace
