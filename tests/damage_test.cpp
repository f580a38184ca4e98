// Damaged regions: whatever bytes the region holds, no call faults, none writes beyond the view, and each answers as
// the model does, which looks at every access. Pages that nobody may touch lie around the view.
#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "plain_model/driver.h"
#include "support/child.h"

namespace {

using model::Call;
using model::Harness;

/// A few servers and resources, so that there is something to be damaged.
void fill(Harness& harness, std::mt19937_64& random) {
    ASSERT_EQ(model::crowd(harness, static_cast<uint8_t>(random())).value_or(""), "");
    for (int i = 0; i < 60; ++i) {
        Call call;
        for (uint8_t& choice : call.choices) choice = static_cast<uint8_t>(random());
        const auto difference = harness.step(call);
        ASSERT_EQ(difference.value_or(""), "");
    }
}

struct Damage {
    size_t offset;
    std::vector<uint8_t> bytes;
};

std::vector<uint8_t> word(uint32_t value) {
    return {static_cast<uint8_t>(value), static_cast<uint8_t>(value >> 8), static_cast<uint8_t>(value >> 16),
            static_cast<uint8_t>(value >> 24)};
}

/// Counts, limits and strides that no healthy region holds: -146 and below make the stride of a resource 0 and
/// negative.
uint32_t bad_count(std::mt19937_64& random) {
    static const int64_t values[] = {
        INT32_MAX, INT32_MAX - 1, INT32_MIN, -1,      -2,         -100,       -144,       -145,      -146,
        -147,      -1000,         0,         1,       2,          3,          4,          5,         8,
        20,        100,           1000,      1000000, 0x3FFFFFFF, 0x40000000, 0x40000001, 0x20000000};
    return static_cast<uint32_t>(values[random() % std::size(values)]);
}

std::vector<Damage> random_damage(std::mt19937_64& random, size_t view_size) {
    std::vector<Damage> all;
    const auto below = [&](size_t limit) { return static_cast<size_t>(random() % limit); };
    for (size_t words = below(5); words > 0; --words) all.push_back({8 + 4 * below(9), word(bad_count(random))});
    switch (below(4)) {
        case 0: {  // a text that does not end before the view does
            const size_t from = below(view_size);
            all.push_back({from, std::vector<uint8_t>(view_size - from, 'n')});
            break;
        }
        case 1: {  // a field without its NUL
            const size_t from = below(view_size - 300);
            all.push_back({from, std::vector<uint8_t>(1 + below(300), 's')});
            break;
        }
        case 2: {  // rubbish
            std::vector<uint8_t> bytes(1 + below(2000));
            for (uint8_t& byte : bytes) byte = static_cast<uint8_t>(random());
            all.push_back({below(view_size - bytes.size()), bytes});
            break;
        }
        default:
            break;
    }
    return all;
}

TEST(DamagedRegion, MakesNoCallFaultAndNoneWriteBeyondTheView) {
    const uint64_t seed = model::seed_wanted();
    std::printf("seed %llu\n", static_cast<unsigned long long>(seed));
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937_64 random(seed);
    const auto byte = [&] { return static_cast<uint8_t>(random()); };
    for (unsigned round = 0; round < test::share_of(100); ++round) {
        SCOPED_TRACE("round " + std::to_string(round));
        Harness harness(model::counts_of(byte(), byte(), byte(), byte()), true);
        fill(harness, random);
        if (HasFatalFailure()) return;
        const std::vector<Damage> damage = random_damage(random, harness.view_size());
        for (size_t function = 0; function < model::function_count(); ++function) {
            // Afresh before each call: a clear, say, would have mended it.
            for (const Damage& part : damage) harness.poke(part.offset, part.bytes.data(), part.bytes.size());
            for (int repeat = 0; repeat < 2; ++repeat) {
                Call choices;
                for (uint8_t& choice : choices.choices) choice = byte();
                const auto difference = harness.step(model::call_of(function, choices));
                ASSERT_EQ(difference.value_or(""), "");
            }
        }
    }
}

}  // namespace
