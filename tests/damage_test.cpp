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

/// Records that lie over one another, with texts and rows of states that reach over many of them: strides of 4 to 592
/// bytes, more of everything than the region was laid out for, and long texts of one letter that end here and there.
std::vector<Damage> overlap(std::mt19937_64& random, size_t view_size) {
    const auto below = [&](size_t limit) { return static_cast<uint32_t>(random() % limit); };
    const size_t header = 1084, words = view_size / 4;
    std::vector<Damage> all;
    std::vector<uint8_t> bytes(view_size - header, 's');
    if (below(4) == 0) {
        for (uint8_t& byte : bytes) byte = static_cast<uint8_t>(random());
    }
    const uint32_t stride = below(3) == 0 ? 4 + 4 * below(5) : 4 + 4 * below(148);
    for (size_t ends = below(20); ends > 0; --ends) {
        // Some follow one another as the records do.
        size_t end = below(bytes.size());
        for (size_t more = below(4) == 0 ? below(20) : 1; more > 0 && end < bytes.size(); --more) {
            bytes[end] = 0;
            end += stride;
        }
    }
    all.push_back({header, bytes});
    all.push_back({8, word(stride / 4 - 146)});
    for (const size_t limit : {size_t{12}, size_t{16}, size_t{24}}) all.push_back({limit, word(INT32_MAX)});
    // Often as many rows of states as lie wholly in the view, else far more.
    const size_t network_stride = stride < 584 ? 584 - stride : 4;
    const size_t fitting = view_size / std::max<size_t>(stride, network_stride);
    const auto many = [&](size_t usual, size_t most) {
        if (below(2) == 0) return below(usual);
        return below(4) == 0 ? uint32_t{INT32_MAX} - below(2) : below(most);
    };
    all.push_back({28, word(many(160, words))});
    all.push_back({32, word(many(1 + fitting, 4 * words / stride))});
    all.push_back({36, word(many(1 + view_size / stride, 4 * words / stride))});
    all.push_back({40, word(many(20, 20))});
    return all;
}

/// Makes a call on a damaged region, and compares it with the model's.
template <typename Function, typename Choose>
void make_calls(Harness& harness, const std::vector<Damage>& damage, const Function& function, int repeats,
                const Choose& choose) {
    for (int repeat = 0; repeat < repeats; ++repeat) {
        // Afresh for most calls: a clear, say, would have mended it.
        if (repeat % 2 == 0) {
            for (const Damage& part : damage) harness.poke(part.offset, part.bytes.data(), part.bytes.size());
        }
        const auto difference = harness.step(model::call_of(function, choose()));
        ASSERT_EQ(difference.value_or(""), "");
    }
}

template <typename Choose>
void make_all_calls(Harness& harness, const std::vector<Damage>& damage, int repeats, const Choose& choose) {
    for (size_t function = 0; function < model::function_count(); ++function) {
        make_calls(harness, damage, function, repeats, choose);
        if (testing::Test::HasFatalFailure()) return;
    }
}

Call any_choices(std::mt19937_64& random) {
    Call call;
    for (uint8_t& choice : call.choices) choice = static_cast<uint8_t>(random());
    return call;
}

/// Any choices, but often a long text of the letter that overlap() writes, and that letter as the value.
Call long_choices(std::mt19937_64& random) {
    static const uint8_t long_texts[] = {169, 170, 171, 172, 176, 177, 178, 179};
    Call call = any_choices(random);
    for (const size_t text : {size_t{2}, size_t{3}}) {
        if (random() % 4 > 0) call.choices.at(text) = long_texts[random() % std::size(long_texts)];
    }
    if (random() % 2 > 0) call.choices[5] = 9;
    return call;
}

TEST(DamagedRegion, CausesNoFaultAndNoWriteBeyondTheView) {
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
        make_all_calls(harness, damage, 2, [&] { return any_choices(random); });
        if (HasFatalFailure()) return;
    }
}

TEST(DamagedRegion, GivesTheModelsAnswersWhereRecordsOverlap) {
    const uint64_t seed = model::seed_wanted();
    std::printf("seed %llu\n", static_cast<unsigned long long>(seed));
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937_64 random(seed);
    const auto byte = [&] { return static_cast<uint8_t>(random()); };
    for (unsigned round = 0; round < test::share_of(40); ++round) {
        SCOPED_TRACE("round " + std::to_string(round));
        Harness harness(model::counts_of(byte(), byte(), byte(), byte()), true);
        for (int picture = 0; picture < 4; ++picture) {
            const std::vector<Damage> damage = overlap(random, harness.view_size());
            const auto choose = [&] { return long_choices(random); };
            make_all_calls(harness, damage, 1, choose);
            for (const char* const function :
                 {"settypehbstat", "settypenpstat", "addhbrscsvstat", "rmhbrscsvstat", "addnprscsvstat",
                  "rmnprscsvstat", "enumhbrsc", "gethbrscpri", "gethbrscinfo", "getfstrscpid"}) {
                make_calls(harness, damage, function, 8, choose);
            }
            if (HasFatalFailure()) return;
        }
    }
}

}  // namespace
