// What is computed from the words of the region, beside what the library computes.
#include "picture/decode.h"

#include <gtest/gtest.h>

#include <set>

#include "picture/library_region.h"
#include "shmnm.h"

namespace picture {
namespace {

/// All values that a rule could tell apart: the small ones, and those around each power of two.
std::set<uint32_t> values() {
    std::set<uint32_t> all;
    for (uint32_t value = 0; value <= 20; ++value) all.insert(value);
    for (int bit = 0; bit < 32; ++bit) {
        const uint32_t power = uint32_t{1} << bit;
        all.insert({power - 1, power, power + 1});
    }
    all.insert({0x10002, UINT32_MAX});
    return all;
}

TEST(CombinedState, MatchesTheLibraryForAllValues) {
    test::LibraryRegion region({.servers = 1, .hb = 1, .np = 1, .fst = 1});
    ASSERT_EQ(shmnm_addnode("alpha", 0), SHMNM_OK);
    const std::set<uint32_t> all = values();
    for (const uint32_t waitstat : all) {
        ASSERT_EQ(shmnm_setwaitstat(waitstat), SHMNM_OK);
        for (const uint32_t nodestat : all) {
            ASSERT_EQ(shmnm_setnodestat("alpha", nodestat), SHMNM_OK);
            for (const uint32_t isolateflag : all) {
                ASSERT_EQ(shmnm_setisolateflag("alpha", isolateflag), SHMNM_OK);
                // Where there is no combined state the library leaves the output as it is.
                constexpr uint32_t untouched = 0xDEADBEEF;
                uint32_t state = untouched;
                ASSERT_EQ(shmnm_getnodecombstat("alpha", &state), SHMNM_OK);
                ASSERT_EQ(combined_state(nodestat, waitstat, isolateflag).value_or(untouched), state)
                    << "nodestat " << nodestat << ", waitstat " << waitstat << ", isolateflag " << isolateflag;
            }
        }
    }
}

}  // namespace
}  // namespace picture
