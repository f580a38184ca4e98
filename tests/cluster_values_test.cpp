// The header's values: each setter and getter, its range tests, its place in the region.
#include "region_fixture.h"

namespace {

using fakes::Enter;
using fakes::Error;
using fakes::Exit;
using test::Bytes;
using testing::ElementsAre;

class ClusterValues : public test::RegionTest {
  protected:
    ClusterValues() { map_region({.servers = 2, .hb = 1, .np = 1}); }
};

TEST_F(ClusterValues, ChangeTheMaximaOfServersHbAndNpAndMoveNoRecord) {
    Bytes expected = region_bytes();
    expected[8] = 200;
    expected[12] = 30;
    expected[16] = 40;
    EXPECT_EQ(shmnm_setmaxvalue_ex(200, 30, 40), SHMNM_OK);
    EXPECT_THAT(log_of_last_call(), ElementsAre(Enter("_setmaxvalue_ex"), Exit("_setmaxvalue_ex", SHMNM_OK)));
    EXPECT_EQ(region_bytes(), expected);
    uint32_t servers = 0, hb = 0, np = 0;
    EXPECT_EQ(shmnm_getmaxvalue_ex(&servers, &hb, &np), SHMNM_OK);
    EXPECT_THAT(log_of_last_call(), ElementsAre(Enter("_getmaxvalue_ex"), Exit("_getmaxvalue_ex", SHMNM_OK)));
    EXPECT_EQ(servers, 200u);
    EXPECT_EQ(hb, 30u);
    EXPECT_EQ(np, 40u);
    int32_t size = 0;
    ASSERT_EQ(shmnm_dump(nullptr, &size), SHMNM_OK);
    EXPECT_EQ(size, 1084 + 2 * 320 + 2 * 592 + 2 * 588 + 2 * 324 + 584) << "the size stays the mapped one";
}

TEST_F(ClusterValues, AcceptMaximumValuesOfOneAndAboveWithoutAnUpperBound) {
    EXPECT_EQ(shmnm_setmaxvalue_ex(1, 1, 1), SHMNM_OK);
    EXPECT_EQ(shmnm_setmaxvalue_ex(INT32_MAX, INT32_MAX, INT32_MAX), SHMNM_OK);
    EXPECT_EQ(word_at(8), 0x7FFFFFFFu);
}

TEST_F(ClusterValues, RefuseMaximumValuesBelowOneAndChangeNothing) {
    const Bytes before = region_bytes();
    const int32_t refused[][3] = {{0, 5, 5}, {5, 0, 5}, {5, 5, 0}, {-1, 5, 5}, {5, INT32_MIN, 5}, {0, 0, 0}};
    for (const auto& [servers, hb, np] : refused) {
        log_of_last_call();
        EXPECT_EQ(shmnm_setmaxvalue_ex(servers, hb, np), SHMNM_ERR_PARAM);
        EXPECT_THAT(log_of_last_call(), ElementsAre(Enter("_setmaxvalue_ex"), Error("_setmaxvalue_ex", "invalid param"),
                                                    Exit("_setmaxvalue_ex", SHMNM_ERR_PARAM)));
    }
    EXPECT_EQ(region_bytes(), before);
}

TEST_F(ClusterValues, NeedAllThreePointersForTheMaximumValues) {
    uint32_t a = 91, b = 92, c = 93;
    uint32_t* const pointers[][3] = {
        {nullptr, &b, &c}, {&a, nullptr, &c}, {&a, &b, nullptr}, {nullptr, nullptr, nullptr}};
    for (const auto& [servers, hb, np] : pointers) {
        log_of_last_call();
        EXPECT_EQ(shmnm_getmaxvalue_ex(servers, hb, np), SHMNM_ERR_PARAM);
        EXPECT_THAT(log_of_last_call(), ElementsAre(Enter("_getmaxvalue_ex"), Error("_getmaxvalue_ex", "invalid param"),
                                                    Exit("_getmaxvalue_ex", SHMNM_ERR_PARAM)));
    }
    EXPECT_THAT((std::vector{a, b, c}), ElementsAre(91u, 92u, 93u));
}

TEST_F(ClusterValues, StoreTheHbInfoPairInReverseOrder) {
    Bytes expected = region_bytes();
    expected[0] = 7;
    expected[4] = 3;
    EXPECT_EQ(shmnm_sethbinfo_ex(3, 7), SHMNM_OK);
    EXPECT_THAT(log_of_last_call(), ElementsAre(Enter("_sethbinfo_ex"), Exit("_sethbinfo_ex", SHMNM_OK)));
    EXPECT_EQ(region_bytes(), expected);
    uint32_t a = 0, b = 0;
    EXPECT_EQ(shmnm_gethbinfo_ex(&a, &b), SHMNM_OK);
    EXPECT_THAT(log_of_last_call(), ElementsAre(Enter("_gethbinfo_ex"), Exit("_gethbinfo_ex", SHMNM_OK)));
    EXPECT_EQ(a, 3u);
    EXPECT_EQ(b, 7u);
}

TEST_F(ClusterValues, RefuseAnHbInfoBelowOneAndChangeNothing) {
    const Bytes before = region_bytes();
    const int32_t refused[][2] = {{0, 1}, {1, 0}, {-1, 1}, {1, INT32_MIN}};
    for (const auto& [a, b] : refused) {
        log_of_last_call();
        EXPECT_EQ(shmnm_sethbinfo_ex(a, b), SHMNM_ERR_PARAM);
        EXPECT_THAT(log_of_last_call(), ElementsAre(Enter("_sethbinfo_ex"), Error("_sethbinfo_ex", "invalid param"),
                                                    Exit("_sethbinfo_ex", SHMNM_ERR_PARAM)));
    }
    EXPECT_EQ(region_bytes(), before);
}

TEST_F(ClusterValues, NeedBothPointersForTheHbInfo) {
    uint32_t value = 91;
    EXPECT_EQ(shmnm_gethbinfo_ex(nullptr, &value), SHMNM_ERR_PARAM);
    EXPECT_THAT(log_of_last_call(), ElementsAre(Enter("_gethbinfo_ex"), Error("_gethbinfo_ex", "invalid param"),
                                                Exit("_gethbinfo_ex", SHMNM_ERR_PARAM)));
    EXPECT_EQ(shmnm_gethbinfo_ex(&value, nullptr), SHMNM_ERR_PARAM);
    EXPECT_EQ(value, 91u);
}

TEST_F(ClusterValues, ReadZeroAfterAClear) {
    ASSERT_EQ(shmnm_sethbinfo_ex(3, 7), SHMNM_OK);
    ASSERT_EQ(shmnm_clear(), SHMNM_OK);
    uint32_t a = 1, b = 1, c = 1;
    EXPECT_EQ(shmnm_gethbinfo_ex(&a, &b), SHMNM_OK);
    EXPECT_EQ(a, 0u);
    EXPECT_EQ(b, 0u);
    a = b = 1;
    EXPECT_EQ(shmnm_getmaxvalue_ex(&a, &b, &c), SHMNM_OK);
    EXPECT_THAT((std::vector{a, b, c}), ElementsAre(0u, 0u, 0u));
}

TEST_F(ClusterValues, ReportNotInitBeforeTheyCheckTheirArguments) {
    shmnm_delete();
    EXPECT_EQ(shmnm_setmaxvalue_ex(0, 0, 0), SHMNM_ERR_NOTINIT);
    EXPECT_EQ(shmnm_getmaxvalue_ex(nullptr, nullptr, nullptr), SHMNM_ERR_NOTINIT);
    EXPECT_EQ(shmnm_sethbinfo_ex(0, 0), SHMNM_ERR_NOTINIT);
    EXPECT_EQ(shmnm_gethbinfo_ex(nullptr, nullptr), SHMNM_ERR_NOTINIT);
}

/// One of the four state words.
struct StateWord {
    uint32_t (*set)(uint32_t);
    uint32_t (*get)(uint32_t*);
    const char* set_tag;
    const char* get_tag;
    size_t offset;
};

class StateWords : public test::RegionTest, public testing::WithParamInterface<StateWord> {
  protected:
    StateWords() { map_region({.servers = 2, .hb = 1, .np = 1}); }
    const StateWord& word() const { return GetParam(); }
};

INSTANTIATE_TEST_SUITE_P(
    Header, StateWords,
    testing::Values(StateWord{shmnm_setwaitstat, shmnm_getwaitstat, "_setwaitstat", "_getwaitstat", 44},
                    StateWord{shmnm_setbwflag, shmnm_getbwflag, "_setbwflag", "_getbwflag", 48},
                    StateWord{shmnm_setbwflagdisk, shmnm_getbwflagdisk, "_setbwflagdisk", "_getbwflagdisk", 52},
                    StateWord{shmnm_setclstat, shmnm_getclstat, "shmnm_setclstat", "shmnm_getclstat", 56}),
    [](const auto& instance) { return "at" + std::to_string(instance.param.offset); });

TEST_P(StateWords, StoreAnyValueAndReturnIt) {
    for (const uint32_t value : {0u, 1u, 2u, 0x80000000u, 0xFFFFFFFFu, 0u}) {
        Bytes expected = region_bytes();
        for (size_t i = 0; i < 4; ++i) expected[word().offset + i] = static_cast<uint8_t>(value >> 8 * i);
        log_of_last_call();
        EXPECT_EQ(word().set(value), SHMNM_OK);
        EXPECT_THAT(log_of_last_call(), ElementsAre(Enter(word().set_tag), Exit(word().set_tag, SHMNM_OK)));
        EXPECT_EQ(region_bytes(), expected);
        uint32_t got = ~value;
        EXPECT_EQ(word().get(&got), SHMNM_OK);
        EXPECT_THAT(log_of_last_call(), ElementsAre(Enter(word().get_tag), Exit(word().get_tag, SHMNM_OK)));
        EXPECT_EQ(got, value);
    }
}

TEST_P(StateWords, CannotBeReadWithoutAPointer) {
    EXPECT_EQ(word().get(nullptr), SHMNM_ERR_PARAM);
    EXPECT_THAT(log_of_last_call(), ElementsAre(Enter(word().get_tag), Error(word().get_tag, "invalid param"),
                                                Exit(word().get_tag, SHMNM_ERR_PARAM)));
}

TEST_P(StateWords, ReportNotInitFirst) {
    shmnm_delete();
    EXPECT_EQ(word().get(nullptr), SHMNM_ERR_NOTINIT);
    EXPECT_EQ(word().set(1), SHMNM_ERR_NOTINIT);
    uint32_t untouched = 91;
    EXPECT_EQ(word().get(&untouched), SHMNM_ERR_NOTINIT);
    EXPECT_EQ(untouched, 91u);
}

TEST_P(StateWords, AreZeroAfterAClear) {
    ASSERT_EQ(word().set(5), SHMNM_OK);
    ASSERT_EQ(shmnm_clear(), SHMNM_OK);
    uint32_t value = 5;
    EXPECT_EQ(word().get(&value), SHMNM_OK);
    EXPECT_EQ(value, 0u);
}

}  // namespace
