// The server table: a packed list of servers, found by name or by priority, and the columns that follow its positions.
#include <climits>
#include <cstring>
#include <ctime>

#include "guarded_buffer.h"
#include "name_listing.h"
#include "near_misses.h"
#include "region_expectations.h"

namespace {

using fakes::Enter;
using fakes::Error;
using fakes::Exit;
using test::Bytes;
using test::Fails;
using test::GuardedBuffer;
using test::Succeeds;
using testing::ElementsAre;
using testing::IsEmpty;

/// Three servers, hb and np resources at most, one fst resource.
class ServerTable : public test::RegionTest {
  protected:
    static constexpr size_t servers = 1084, hb = 2044, np = 7300, network = 14112;
    static constexpr size_t server_count = 28, hb_count = 32, np_count = 36;

    ServerTable() { map_region({.servers = 3, .hb = 3, .np = 3}); }

    static constexpr size_t server(size_t position) { return servers + 320 * position; }

    /// "alpha" of priority 10, "beta" of 20 and "gamma" of 30.
    void add_servers() {
        ASSERT_EQ(shmnm_addnode("alpha", 10), SHMNM_OK);
        ASSERT_EQ(shmnm_addnode("beta", 20), SHMNM_OK);
        ASSERT_EQ(shmnm_addnode("gamma", 30), SHMNM_OK);
        log_of_last_call();
    }
    /// Puts a record as a new server has it in a place that was all zero.
    static void put_new_server(Bytes& bytes, size_t position, const std::string& name, int32_t pri) {
        test::put_text(bytes, server(position), 256, name);
        test::put_words(bytes, server(position) + 256, {static_cast<uint32_t>(pri), 2, 2, 0});
    }
    static testing::Matcher<const test::Lines&> AddsWithBothColumns() {
        return ElementsAre(Enter("_addnode"), Enter("_addhbrscsvstat"), Exit("_addhbrscsvstat", SHMNM_OK),
                           Enter("_addnprscsvstat"), Exit("_addnprscsvstat", SHMNM_OK), Exit("_addnode", SHMNM_OK));
    }
    static testing::Matcher<const test::Lines&> RemovesWithBothColumns() {
        return ElementsAre(Enter("_rmnode"), Enter("_rmhbrscsvstat"), Exit("_rmhbrscsvstat", SHMNM_OK),
                           Enter("_rmnprscsvstat"), Exit("_rmnprscsvstat", SHMNM_OK), Exit("_rmnode", SHMNM_OK));
    }
    std::string listed() {
        char names[2048];
        uint32_t size = sizeof names;
        EXPECT_EQ(shmnm_enumnode(names, &size), SHMNM_OK);
        return {names, size};
    }
};

// ---- adding ----

TEST_F(ServerTable, AddsEachServerAfterTheLastOne) {
    const std::pair<const char*, int32_t> added[] = {{"alpha", 10}, {"beta", -1}, {"gamma", INT32_MIN}};
    Bytes expected = region_bytes();
    for (size_t position = 0; position < 3; ++position) {
        const auto& [name, pri] = added[position];
        log_of_last_call();
        EXPECT_EQ(shmnm_addnode(name, pri), SHMNM_OK);
        EXPECT_THAT(log_of_last_call(), AddsWithBothColumns());
        put_new_server(expected, position, name, pri);
        test::put_word(expected, server_count, static_cast<uint32_t>(position) + 1);
        EXPECT_EQ(region_bytes(), expected);
    }
}

TEST_F(ServerTable, WritesOnlyTheFieldsOfANewServer) {
    poke(server(0), test::pattern(320, 1));
    Bytes expected = region_bytes();
    put_new_server(expected, 0, "alpha", 10);
    test::put_word(expected, server_count, 1);
    EXPECT_EQ(shmnm_addnode("alpha", 10), SHMNM_OK);
    EXPECT_EQ(region_bytes(), expected) << "from byte 272 on the record is what its place held";
}

TEST_F(ServerTable, OpensAColumnInEveryResourceForANewServer) {
    ASSERT_EQ(shmnm_addhbrsc("lan", "lan1", 1), SHMNM_OK);
    ASSERT_EQ(shmnm_addhbrsc("disk", "disk1", 2), SHMNM_OK);
    ASSERT_EQ(shmnm_addnprsc("ping", "ping1", 3), SHMNM_OK);
    ASSERT_EQ(shmnm_addnode("alpha", 10), SHMNM_OK);
    poke_word(hb + 584, 71);
    poke_word(hb + 596 + 584, 72);
    poke_word(np + 584, 73);
    poke_word(network, 74);
    poke_word(network + 12, 75);
    Bytes expected = region_bytes();
    put_new_server(expected, 1, "beta", 20);
    test::put_word(expected, server_count, 2);
    test::put_word(expected, hb + 588, 2);
    test::put_word(expected, hb + 596 + 588, 2);
    test::put_word(expected, np + 588, 2);
    test::put_word(expected, network + 4, 2);
    test::put_word(expected, network + 16, 2);
    log_of_last_call();
    EXPECT_EQ(shmnm_addnode("beta", 20), SHMNM_OK);
    EXPECT_THAT(log_of_last_call(), AddsWithBothColumns());
    EXPECT_EQ(region_bytes(), expected);
}

TEST_F(ServerTable, NeedsANameToAddAServer) {
    const Bytes before = region_bytes();
    EXPECT_EQ(shmnm_addnode(nullptr, 10), SHMNM_ERR_PARAM);
    EXPECT_THAT(log_of_last_call(), Fails("_addnode", "invalid param", SHMNM_ERR_PARAM));
    EXPECT_EQ(region_bytes(), before);
}

TEST_F(ServerTable, RefusesOneMoreThanTheMaximum) {
    add_servers();
    const Bytes before = region_bytes();
    EXPECT_EQ(shmnm_addnode("delta", 40), SHMNM_ERR_COUNTOVER);
    EXPECT_THAT(log_of_last_call(), Fails("_addnode", "node count is over(3)", SHMNM_ERR_COUNTOVER));
    EXPECT_EQ(region_bytes(), before);
}

TEST_F(ServerTable, ChecksTheCountBeforeTheNames) {
    add_servers();
    const Bytes before = region_bytes();
    EXPECT_EQ(shmnm_addnode("beta", 20), SHMNM_ERR_COUNTOVER);
    EXPECT_THAT(log_of_last_call(), Fails("_addnode", "node count is over(3)", SHMNM_ERR_COUNTOVER));
    EXPECT_EQ(region_bytes(), before);
}

TEST_F(ServerTable, AddsANewServerLastAfterARemovalFromAFullTable) {
    add_servers();
    ASSERT_EQ(shmnm_rmnode("alpha"), SHMNM_OK);
    Bytes expected = region_bytes();
    put_new_server(expected, 2, "delta", 40);
    test::put_word(expected, server_count, 3);
    log_of_last_call();
    EXPECT_EQ(shmnm_addnode("delta", 40), SHMNM_OK);
    EXPECT_THAT(log_of_last_call(), AddsWithBothColumns());
    EXPECT_EQ(region_bytes(), expected);
    EXPECT_EQ(listed(), test::closed_list({"beta", "gamma", "delta"}));
}

TEST_F(ServerTable, IsFullAtOnceWhenTheMaximumIsLowered) {
    ASSERT_EQ(shmnm_addnode("alpha", 10), SHMNM_OK);
    ASSERT_EQ(shmnm_addnode("beta", 20), SHMNM_OK);
    for (const int32_t maximum : {2, 1}) {
        ASSERT_EQ(shmnm_setmaxvalue_ex(maximum, 3, 3), SHMNM_OK);
        const Bytes before = region_bytes();
        log_of_last_call();
        EXPECT_EQ(shmnm_addnode("gamma", 30), SHMNM_ERR_COUNTOVER);
        EXPECT_THAT(log_of_last_call(), Fails("_addnode", "node count is over(2)", SHMNM_ERR_COUNTOVER));
        EXPECT_EQ(region_bytes(), before);
    }
}

TEST_F(ServerTable, TreatsTheMaximumAsASignedNumber) {
    for (const uint32_t maximum : {0u, 0xFFFFFFFFu, 0x80000000u}) {
        poke_word(8, maximum);
        log_of_last_call();
        EXPECT_EQ(shmnm_addnode("alpha", 10), SHMNM_ERR_COUNTOVER);
        EXPECT_THAT(log_of_last_call(), Fails("_addnode", "node count is over(0)", SHMNM_ERR_COUNTOVER));
    }
    EXPECT_EQ(word_at(server_count), 0u);
}

TEST_F(ServerTable, GrowsIntoTheNextAreaWhenTheMaximumIsRaised) {
    add_servers();
    ASSERT_EQ(shmnm_setmaxvalue_ex(4, 3, 3), SHMNM_OK);
    Bytes expected = region_bytes();
    put_new_server(expected, 3, "delta", 40);
    test::put_word(expected, server_count, 4);
    EXPECT_EQ(shmnm_addnode("delta", 40), SHMNM_OK);
    EXPECT_EQ(region_bytes(), expected);
    EXPECT_EQ(std::memcmp(region_bytes().data() + hb, "delta", 6), 0) << "where the hb table starts";
}

TEST_F(ServerTable, RefusesANameThatExists) {
    ASSERT_EQ(shmnm_addnode("alpha", 10), SHMNM_OK);
    ASSERT_EQ(shmnm_addnode("beta", 20), SHMNM_OK);
    const Bytes before = region_bytes();
    const std::pair<const char*, const char*> there[] = {{"alpha", "server(alpha) already exist"},
                                                         {"beta", "server(beta) already exist"}};
    for (const auto& [name, line] : there) {
        log_of_last_call();
        EXPECT_EQ(shmnm_addnode(name, 99), SHMNM_ERR_EXIST);
        EXPECT_THAT(log_of_last_call(), Fails("_addnode", line, SHMNM_ERR_EXIST));
    }
    EXPECT_EQ(region_bytes(), before);
}

TEST_F(ServerTable, DistinguishesNamesByEveryByteAndTheirLength) {
    ASSERT_EQ(shmnm_setmaxvalue_ex(40, 3, 3), SHMNM_OK);
    const char* const names[] = {"alpha",
                                 "Alpha",
                                 "ALPHA",
                                 "alph",
                                 "alpha1",
                                 "",
                                 " ",
                                 "fifteen bytes 1",
                                 "sixteen bytes 12",
                                 "sixteen bytes 13",
                                 "sixteen bytes 123",
                                 "seventeen bytes 1x",
                                 "seventeen bytes 1y",
                                 "\x01\x7F\x80\xFF",
                                 "100%d%s%n"};
    int32_t pri = 100;
    for (const char* const name : names) EXPECT_EQ(shmnm_addnode(name, ++pri), SHMNM_OK) << name;
    pri = 100;
    for (const char* const name : names) {
        int32_t found = 0;
        EXPECT_EQ(shmnm_getnodepri(name, &found), SHMNM_OK) << name;
        EXPECT_EQ(found, ++pri) << name;
        EXPECT_EQ(shmnm_addnode(name, 1), SHMNM_ERR_EXIST) << name;
    }
}

TEST_F(ServerTable, FindsANameOfAnyLengthAndNoneThatDiffersInOneByte) {
    for (size_t length = 0; length <= 40; ++length) {
        const std::string name = test::text_of_length(length);
        ASSERT_EQ(shmnm_addnode(test::ExactText(name).get(), 7), SHMNM_OK) << name;
        int32_t pri = 0;
        EXPECT_EQ(shmnm_getnodepri(test::ExactText(name).get(), &pri), SHMNM_OK) << name;
        EXPECT_EQ(pri, 7) << name;
        for (const std::string& miss : test::near_misses(name)) {
            EXPECT_EQ(shmnm_getnodepri(test::ExactText(miss).get(), &pri), SHMNM_ERR_NOTFOUND) << name << ", " << miss;
        }
        ASSERT_EQ(shmnm_rmnode(name.c_str()), SHMNM_OK) << name;
    }
}

TEST_F(ServerTable, FindsEachOfAnyNumberOfServers) {
    ASSERT_EQ(shmnm_setmaxvalue_ex(13, 3, 3), SHMNM_OK);
    const auto name_of = [](int32_t position) { return "server0" + std::to_string(position); };
    for (int32_t count = 0; count < 13; ++count) {
        int32_t pri = 0;
        EXPECT_EQ(shmnm_getnodepri(name_of(count).c_str(), &pri), SHMNM_ERR_NOTFOUND) << count;
        char name[256] = "";
        EXPECT_EQ(shmnm_getnodename(name, count), SHMNM_ERR_NOTFOUND) << count;
        ASSERT_EQ(shmnm_addnode(name_of(count).c_str(), count), SHMNM_OK);
        for (int32_t position = 0; position <= count; ++position) {
            EXPECT_EQ(shmnm_getnodepri(name_of(position).c_str(), &pri), SHMNM_OK) << position << " of " << count + 1;
            EXPECT_EQ(pri, position);
            EXPECT_EQ(shmnm_getnodename(name, position), SHMNM_OK) << position << " of " << count + 1;
            EXPECT_EQ(name, name_of(position));
        }
    }
}

TEST_F(ServerTable, LogsNamesUnchanged) {
    ASSERT_EQ(shmnm_addnode("100%d%s%n", 1), SHMNM_OK);
    log_of_last_call();
    EXPECT_EQ(shmnm_addnode("100%d%s%n", 1), SHMNM_ERR_EXIST);
    EXPECT_THAT(log_of_last_call(), Fails("_addnode", "server(100%d%s%n) already exist", SHMNM_ERR_EXIST));
    EXPECT_EQ(shmnm_rmnode("%s%n"), SHMNM_ERR_NOTFOUND);
    EXPECT_THAT(log_of_last_call(), Fails("_rmnode", "name:%s%n not found", SHMNM_ERR_NOTFOUND));
}

TEST_F(ServerTable, KeepsANameOf255BytesWhole) {
    for (const size_t length : {254u, 255u}) {
        const std::string name = std::string(length - 1, 'a') + 'b';
        Bytes expected = region_bytes();
        put_new_server(expected, 0, name, 10);
        test::put_word(expected, server_count, 1);
        EXPECT_EQ(shmnm_addnode(name.c_str(), 10), SHMNM_OK);
        EXPECT_EQ(region_bytes(), expected);
        int32_t pri = 0;
        EXPECT_EQ(shmnm_getnodepri(name.c_str(), &pri), SHMNM_OK);
        EXPECT_EQ(pri, 10);
        EXPECT_EQ(shmnm_addnode(name.c_str(), 10), SHMNM_ERR_EXIST);
        EXPECT_EQ(shmnm_rmnode(name.c_str()), SHMNM_OK);
    }
}

TEST_F(ServerTable, CutsALongerNameTo255BytesAndFindsOnlyTheCutName) {
    for (const size_t length : {256u, 257u, 300u}) {
        const std::string name = std::string(254, 'a') + std::string(length - 254, 'b');
        const std::string cut = std::string(254, 'a') + 'b';
        const std::string line = "name:" + name + " not found";
        Bytes expected = region_bytes();
        put_new_server(expected, 0, cut, 10);
        put_new_server(expected, 1, cut, 20);
        test::put_word(expected, server_count, 2);
        EXPECT_EQ(shmnm_addnode(name.c_str(), 10), SHMNM_OK);
        log_of_last_call();
        EXPECT_EQ(shmnm_addnode(name.c_str(), 20), SHMNM_OK) << "the stored name does not equal it any more";
        EXPECT_THAT(log_of_last_call(), AddsWithBothColumns());
        EXPECT_EQ(region_bytes(), expected);

        int32_t pri = 91;
        EXPECT_EQ(shmnm_getnodepri(name.c_str(), &pri), SHMNM_ERR_NOTFOUND);
        EXPECT_THAT(log_of_last_call(), Fails("_getnodepri", line, SHMNM_ERR_NOTFOUND));
        EXPECT_EQ(pri, 91);
        EXPECT_EQ(shmnm_modifynode(name.c_str(), 30), SHMNM_ERR_NOTFOUND);
        EXPECT_THAT(log_of_last_call(), Fails("_modifynode", line, SHMNM_ERR_NOTFOUND));
        EXPECT_EQ(shmnm_rmnode(name.c_str()), SHMNM_ERR_NOTFOUND);
        EXPECT_THAT(log_of_last_call(), Fails("_rmnode", line, SHMNM_ERR_NOTFOUND));
        EXPECT_EQ(region_bytes(), expected);

        EXPECT_EQ(shmnm_getnodepri(cut.c_str(), &pri), SHMNM_OK);
        EXPECT_EQ(pri, 10) << "the first of the two";
        EXPECT_EQ(shmnm_addnode(cut.c_str(), 10), SHMNM_ERR_EXIST);
        EXPECT_EQ(shmnm_rmnode(cut.c_str()), SHMNM_OK);
        EXPECT_EQ(shmnm_rmnode(cut.c_str()), SHMNM_OK);
    }
}

TEST_F(ServerTable, MovesNoMoreServersThanTheViewHoldsWhateverTheCountSays) {
    ASSERT_EQ(shmnm_addnode("alpha", 1), SHMNM_OK);
    poke_word(server_count, INT32_MAX);
    const std::clock_t begin = std::clock();
    EXPECT_EQ(shmnm_rmnode("alpha"), SHMNM_OK);
    EXPECT_LT(std::clock() - begin, CLOCKS_PER_SEC) << "a step for each counted server";
    EXPECT_EQ(word_at(server_count), uint32_t{INT32_MAX} - 1);
}

/// A maximum of this many servers puts the fixed part of the second record of a table that starts there just before the
/// end of the mapped view, and its first state just behind it.
int32_t maximum_that_ends_the_view_at(size_t view_size, size_t table) {
    return static_cast<int32_t>((view_size - table - 584 - 584) / 4);
}

TEST_F(ServerTable, KeepsTheServerEvenIfItsHbColumnCannotBeOpened) {
    ASSERT_EQ(shmnm_setmaxvalue_ex(maximum_that_ends_the_view_at(view_size(), hb), 3, 3), SHMNM_OK);
    poke_word(hb_count, 2);
    poke_word(np_count, 1);
    Bytes expected = region_bytes();
    put_new_server(expected, 0, "alpha", 10);
    test::put_word(expected, server_count, 1);
    log_of_last_call();
    EXPECT_EQ(shmnm_addnode("alpha", 10), SHMNM_ERR_ADDSVSTAT);
    EXPECT_THAT(
        log_of_last_call(),
        ElementsAre(Enter("_addnode"), Enter("_addhbrscsvstat"), Error("_addhbrscsvstat", "invalid index(0)"),
                    Exit("_addhbrscsvstat", SHMNM_ERR_INDEX),
                    Error("_addnode", "shmnm_addhbrscsvstat() failed(ret:16)"), Exit("_addnode", SHMNM_ERR_ADDSVSTAT)));
    EXPECT_EQ(region_bytes(), expected) << "the np side is not touched";
}

TEST_F(ServerTable, KeepsTheServerEvenIfItsNpColumnCannotBeOpened) {
    ASSERT_EQ(shmnm_setmaxvalue_ex(maximum_that_ends_the_view_at(view_size(), np), 3, 3), SHMNM_OK);
    poke_word(hb_count, 1);
    poke_word(np_count, 2);
    Bytes expected = region_bytes();
    put_new_server(expected, 0, "alpha", 10);
    test::put_word(expected, server_count, 1);
    test::put_word(expected, hb + 584, 2);
    test::put_word(expected, network, 2);
    log_of_last_call();
    EXPECT_EQ(shmnm_addnode("alpha", 10), SHMNM_ERR_ADDSVSTAT);
    EXPECT_THAT(
        log_of_last_call(),
        ElementsAre(Enter("_addnode"), Enter("_addhbrscsvstat"), Exit("_addhbrscsvstat", SHMNM_OK),
                    Enter("_addnprscsvstat"), Error("_addnprscsvstat", "invalid index(0)"),
                    Exit("_addnprscsvstat", SHMNM_ERR_INDEX),
                    Error("_addnode", "shmnm_addnprscsvstat() failed(ret:16)"), Exit("_addnode", SHMNM_ERR_ADDSVSTAT)));
    EXPECT_EQ(region_bytes(), expected) << "the hb side stays open";
}

// ---- removing ----

TEST_F(ServerTable, ClosesTheGapOfARemovedServer) {
    const char* const names[] = {"alpha", "beta", "gamma"};
    for (size_t removed = 0; removed < 3; ++removed) {
        SCOPED_TRACE(names[removed]);
        ASSERT_EQ(shmnm_clear(), SHMNM_OK);
        ASSERT_EQ(shmnm_setmaxvalue_ex(3, 3, 3), SHMNM_OK);
        add_servers();
        // Every byte behind the names, the reserved ones too.
        for (size_t position = 0; position < 3; ++position) {
            poke(server(position) + 200, test::pattern(120, position));
        }
        Bytes expected = region_bytes();
        const Bytes old = expected;
        for (size_t position = removed; position < 2; ++position) {
            test::put(expected, server(position), test::part(old, server(position + 1), 320));
        }
        test::put(expected, server(2), Bytes(320));
        test::put_word(expected, server_count, 2);
        log_of_last_call();
        EXPECT_EQ(shmnm_rmnode(names[removed]), SHMNM_OK);
        EXPECT_THAT(log_of_last_call(), RemovesWithBothColumns());
        EXPECT_EQ(region_bytes(), expected);
    }
}

TEST_F(ServerTable, IsAsBeforeAfterItsOnlyServerIsRemoved) {
    const Bytes before = region_bytes();
    ASSERT_EQ(shmnm_addnode("alpha", 10), SHMNM_OK);
    log_of_last_call();
    EXPECT_EQ(shmnm_rmnode("alpha"), SHMNM_OK);
    EXPECT_THAT(log_of_last_call(), RemovesWithBothColumns());
    EXPECT_EQ(region_bytes(), before);
}

TEST_F(ServerTable, MovesTheStatesOfLaterServersWithThem) {
    add_servers();
    ASSERT_EQ(shmnm_addhbrsc("lan", "lan1", 1), SHMNM_OK);
    ASSERT_EQ(shmnm_addhbrsc("disk", "disk1", 2), SHMNM_OK);
    ASSERT_EQ(shmnm_addnprsc("ping", "ping1", 3), SHMNM_OK);
    const size_t rows[] = {hb + 584, hb + 596 + 584, np + 584, network, network + 12};
    for (size_t row = 0; row < 5; ++row) {
        for (size_t column = 0; column < 3; ++column) {
            poke_word(rows[row] + 4 * column, static_cast<uint32_t>(10 * row + column));
        }
    }
    Bytes expected = region_bytes();
    test::put(expected, server(0), test::part(expected, server(1), 640));
    test::put(expected, server(2), Bytes(320));
    test::put_word(expected, server_count, 2);
    for (uint32_t row = 0; row < 5; ++row) {
        test::put_words(expected, rows[row], {10 * row + 1, 10 * row + 2, 10 * row + 2});
    }
    log_of_last_call();
    EXPECT_EQ(shmnm_rmnode("alpha"), SHMNM_OK);
    EXPECT_THAT(log_of_last_call(), RemovesWithBothColumns());
    EXPECT_EQ(region_bytes(), expected) << "the last column keeps its values";
}

TEST_F(ServerTable, NeedsANameToRemoveAServer) {
    add_servers();
    const Bytes before = region_bytes();
    EXPECT_EQ(shmnm_rmnode(nullptr), SHMNM_ERR_PARAM);
    EXPECT_THAT(log_of_last_call(), Fails("_rmnode", "invalid param", SHMNM_ERR_PARAM));
    EXPECT_EQ(region_bytes(), before);
}

TEST_F(ServerTable, RemovesNoUnknownServer) {
    const Bytes empty = region_bytes();
    EXPECT_EQ(shmnm_rmnode("alpha"), SHMNM_ERR_NOTFOUND);
    EXPECT_THAT(log_of_last_call(), Fails("_rmnode", "name:alpha not found", SHMNM_ERR_NOTFOUND));
    EXPECT_EQ(shmnm_rmnode(""), SHMNM_ERR_NOTFOUND);
    EXPECT_EQ(region_bytes(), empty);
    add_servers();
    const Bytes before = region_bytes();
    for (const std::string name : {"delta", "Alpha", "alph", "alpha1", ""}) {
        log_of_last_call();
        EXPECT_EQ(shmnm_rmnode(name.c_str()), SHMNM_ERR_NOTFOUND);
        EXPECT_THAT(log_of_last_call(), Fails("_rmnode", "name:" + name + " not found", SHMNM_ERR_NOTFOUND));
    }
    EXPECT_EQ(region_bytes(), before);
}

TEST_F(ServerTable, RemovesTheServerEvenIfItsHbColumnCannotBeClosed) {
    add_servers();
    ASSERT_EQ(shmnm_setmaxvalue_ex(maximum_that_ends_the_view_at(view_size(), hb), 3, 3), SHMNM_OK);
    poke_word(hb_count, 2);
    poke_word(np_count, 1);
    Bytes expected = region_bytes();
    test::put(expected, server(0), test::part(expected, server(1), 640));
    test::put(expected, server(2), Bytes(320));
    test::put_word(expected, server_count, 2);
    log_of_last_call();
    EXPECT_EQ(shmnm_rmnode("alpha"), SHMNM_ERR_RMSVSTAT);
    EXPECT_THAT(
        log_of_last_call(),
        ElementsAre(Enter("_rmnode"), Enter("_rmhbrscsvstat"), Error("_rmhbrscsvstat", "invalid index(0)"),
                    Exit("_rmhbrscsvstat", SHMNM_ERR_INDEX), Error("_rmnode", "shmnm_rmhbrscsvstat() failed(ret:16)"),
                    Exit("_rmnode", SHMNM_ERR_RMSVSTAT)));
    EXPECT_EQ(region_bytes(), expected) << "the np side is not touched";
}

TEST_F(ServerTable, RemovesTheServerEvenIfItsNpColumnCannotBeClosed) {
    add_servers();
    ASSERT_EQ(shmnm_setmaxvalue_ex(maximum_that_ends_the_view_at(view_size(), np), 3, 3), SHMNM_OK);
    poke_word(hb_count, 1);
    poke_word(np_count, 2);
    poke_word(hb + 588, 71);
    poke_word(network + 4, 72);
    Bytes expected = region_bytes();
    test::put(expected, server(0), test::part(expected, server(1), 640));
    test::put(expected, server(2), Bytes(320));
    test::put_word(expected, server_count, 2);
    test::put_words(expected, hb + 584, {71, 0});
    test::put_words(expected, network, {72, 0});
    log_of_last_call();
    EXPECT_EQ(shmnm_rmnode("alpha"), SHMNM_ERR_RMSVSTAT);
    EXPECT_THAT(
        log_of_last_call(),
        ElementsAre(Enter("_rmnode"), Enter("_rmhbrscsvstat"), Exit("_rmhbrscsvstat", SHMNM_OK),
                    Enter("_rmnprscsvstat"), Error("_rmnprscsvstat", "invalid index(0)"),
                    Exit("_rmnprscsvstat", SHMNM_ERR_INDEX), Error("_rmnode", "shmnm_rmnprscsvstat() failed(ret:16)"),
                    Exit("_rmnode", SHMNM_ERR_RMSVSTAT)));
    EXPECT_EQ(region_bytes(), expected) << "the hb side stays closed";
}

// ---- priorities ----

TEST_F(ServerTable, ChangesThePriorityOfAServerAndNothingElse) {
    add_servers();
    for (const int32_t pri : {21, 30, 0, -1, INT32_MIN, INT32_MAX}) {
        Bytes expected = region_bytes();
        test::put_word(expected, server(1) + 256, static_cast<uint32_t>(pri));
        log_of_last_call();
        EXPECT_EQ(shmnm_modifynode("beta", pri), SHMNM_OK);
        EXPECT_THAT(log_of_last_call(), Succeeds("_modifynode"));
        EXPECT_EQ(region_bytes(), expected);
        int32_t found = ~pri;
        EXPECT_EQ(shmnm_getnodepri("beta", &found), SHMNM_OK);
        EXPECT_THAT(log_of_last_call(), Succeeds("_getnodepri"));
        EXPECT_EQ(found, pri);
        EXPECT_EQ(region_bytes(), expected);
    }
}

TEST_F(ServerTable, ChangesNoPriorityOfAnUnknownServer) {
    const Bytes empty = region_bytes();
    EXPECT_EQ(shmnm_modifynode("alpha", 1), SHMNM_ERR_NOTFOUND);
    EXPECT_THAT(log_of_last_call(), Fails("_modifynode", "name:alpha not found", SHMNM_ERR_NOTFOUND));
    EXPECT_EQ(region_bytes(), empty);
    add_servers();
    const Bytes before = region_bytes();
    EXPECT_EQ(shmnm_modifynode("BETA", 1), SHMNM_ERR_NOTFOUND);
    EXPECT_THAT(log_of_last_call(), Fails("_modifynode", "name:BETA not found", SHMNM_ERR_NOTFOUND));
    EXPECT_EQ(shmnm_modifynode(nullptr, 1), SHMNM_ERR_PARAM);
    EXPECT_THAT(log_of_last_call(), Fails("_modifynode", "invalid param", SHMNM_ERR_PARAM));
    EXPECT_EQ(region_bytes(), before);
}

TEST_F(ServerTable, ReturnsThePriorityOfAServer) {
    add_servers();
    const Bytes before = region_bytes();
    const std::pair<const char*, int32_t> servers_there[] = {{"alpha", 10}, {"beta", 20}, {"gamma", 30}};
    for (const auto& [name, pri] : servers_there) {
        GuardedBuffer<int32_t> found({91}, 92);
        log_of_last_call();
        EXPECT_EQ(shmnm_getnodepri(name, found.data()), SHMNM_OK);
        EXPECT_THAT(log_of_last_call(), Succeeds("_getnodepri"));
        EXPECT_THAT(found.content(), ElementsAre(pri));
        EXPECT_TRUE(found.guards_are_whole());
    }
    EXPECT_EQ(region_bytes(), before);
}

TEST_F(ServerTable, ReturnsNoPriorityOfAnUnknownServer) {
    int32_t pri = 91;
    EXPECT_EQ(shmnm_getnodepri("alpha", &pri), SHMNM_ERR_NOTFOUND);
    EXPECT_THAT(log_of_last_call(), Fails("_getnodepri", "name:alpha not found", SHMNM_ERR_NOTFOUND));
    add_servers();
    const Bytes before = region_bytes();
    EXPECT_EQ(shmnm_getnodepri("delta", &pri), SHMNM_ERR_NOTFOUND);
    EXPECT_THAT(log_of_last_call(), Fails("_getnodepri", "name:delta not found", SHMNM_ERR_NOTFOUND));
    EXPECT_EQ(shmnm_getnodepri(nullptr, &pri), SHMNM_ERR_PARAM);
    EXPECT_THAT(log_of_last_call(), Fails("_getnodepri", "invalid param", SHMNM_ERR_PARAM));
    EXPECT_EQ(shmnm_getnodepri("alpha", nullptr), SHMNM_ERR_PARAM);
    EXPECT_THAT(log_of_last_call(), Fails("_getnodepri", "invalid param", SHMNM_ERR_PARAM));
    EXPECT_EQ(shmnm_getnodepri("delta", nullptr), SHMNM_ERR_PARAM);
    EXPECT_EQ(pri, 91);
    EXPECT_EQ(region_bytes(), before);
}

// ---- names by priority ----

TEST_F(ServerTable, ReturnsTheNameOfTheServerWithAPriority) {
    ASSERT_EQ(shmnm_addnode("alpha", INT32_MIN), SHMNM_OK);
    ASSERT_EQ(shmnm_addnode("beta", -1), SHMNM_OK);
    ASSERT_EQ(shmnm_addnode("gamma", INT32_MAX), SHMNM_OK);
    const Bytes before = region_bytes();
    const std::pair<int32_t, std::string> there[] = {{INT32_MIN, "alpha"}, {-1, "beta"}, {INT32_MAX, "gamma"}};
    for (const auto& [pri, name] : there) {
        GuardedBuffer<char> buffer(256, '#', '+');
        log_of_last_call();
        EXPECT_EQ(shmnm_getnodename(buffer.data(), pri), SHMNM_OK);
        EXPECT_THAT(log_of_last_call(), Succeeds("_getnodename"));
        EXPECT_EQ(std::string(buffer.data(), 256), name + '\0' + std::string(255 - name.size(), '#'));
        EXPECT_TRUE(buffer.guards_are_whole());
    }
    EXPECT_EQ(region_bytes(), before);
}

TEST_F(ServerTable, ReturnsTheFirstOfTwoServersWithOnePriority) {
    ASSERT_EQ(shmnm_addnode("alpha", 5), SHMNM_OK);
    ASSERT_EQ(shmnm_addnode("gamma", 20), SHMNM_OK);
    ASSERT_EQ(shmnm_addnode("beta", 20), SHMNM_OK);
    char name[256] = {};
    EXPECT_EQ(shmnm_getnodename(name, 20), SHMNM_OK);
    EXPECT_STREQ(name, "gamma");
    ASSERT_EQ(shmnm_rmnode("gamma"), SHMNM_OK);
    EXPECT_EQ(shmnm_getnodename(name, 20), SHMNM_OK);
    EXPECT_STREQ(name, "beta");
}

TEST_F(ServerTable, ReturnsAtMost256BytesOfAName) {
    const std::string longest(255, 'a');
    ASSERT_EQ(shmnm_addnode(longest.c_str(), 1), SHMNM_OK);
    GuardedBuffer<char> buffer(256, '#', '+');
    EXPECT_EQ(shmnm_getnodename(buffer.data(), 1), SHMNM_OK);
    EXPECT_EQ(std::string(buffer.data(), 256), longest + '\0');
    EXPECT_TRUE(buffer.guards_are_whole());
    // A field that something has filled to its last byte.
    poke(server(0) + 255, {'z', 1, 0, 0, 0});
    EXPECT_EQ(shmnm_getnodename(buffer.data(), 1), SHMNM_OK);
    EXPECT_EQ(std::string(buffer.data(), 256), longest + 'z');
    EXPECT_TRUE(buffer.guards_are_whole());
}

TEST_F(ServerTable, ReturnsNoNameForAPriorityWithoutAServer) {
    GuardedBuffer<char> buffer(256, '#', '+');
    EXPECT_EQ(shmnm_getnodename(buffer.data(), 0), SHMNM_ERR_NOTFOUND) << "free places do not count";
    EXPECT_THAT(log_of_last_call(), Fails("_getnodename", "pri:0 not found", SHMNM_ERR_NOTFOUND));
    add_servers();
    const Bytes before = region_bytes();
    const std::pair<int32_t, const char*> missing[] = {{40, "pri:40 not found"},
                                                       {-10, "pri:-10 not found"},
                                                       {INT32_MIN, "pri:-2147483648 not found"},
                                                       {INT32_MAX, "pri:2147483647 not found"}};
    for (const auto& [pri, line] : missing) {
        log_of_last_call();
        EXPECT_EQ(shmnm_getnodename(buffer.data(), pri), SHMNM_ERR_NOTFOUND);
        EXPECT_THAT(log_of_last_call(), Fails("_getnodename", line, SHMNM_ERR_NOTFOUND));
    }
    EXPECT_EQ(shmnm_getnodename(nullptr, 10), SHMNM_ERR_PARAM);
    EXPECT_THAT(log_of_last_call(), Fails("_getnodename", "invalid param", SHMNM_ERR_PARAM));
    EXPECT_EQ(shmnm_getnodename(nullptr, 40), SHMNM_ERR_PARAM);
    EXPECT_EQ(std::string(buffer.data(), 256), std::string(256, '#'));
    EXPECT_TRUE(buffer.guards_are_whole());
    EXPECT_EQ(region_bytes(), before);
}

// ---- listing ----

TEST_F(ServerTable, ListsItsNamesInTheOrderOfTheirPositions) {
    add_servers();
    const Bytes before = region_bytes();
    uint32_t size = 0;
    EXPECT_EQ(shmnm_enumnode(nullptr, &size), SHMNM_OK);
    EXPECT_EQ(size, 18u);
    char names[18];
    EXPECT_EQ(shmnm_enumnode(names, &size), SHMNM_OK);
    EXPECT_EQ(std::string(names, sizeof names), std::string("alpha\0beta\0gamma\0\0", 18));
    EXPECT_EQ(size, 18u);
    test::expect_listing(shmnm_enumnode, "_enumnode", {"alpha", "beta", "gamma"});
    EXPECT_EQ(region_bytes(), before);
    ASSERT_EQ(shmnm_rmnode("beta"), SHMNM_OK);
    test::expect_listing(shmnm_enumnode, "_enumnode", {"alpha", "gamma"});
}

TEST_F(ServerTable, ListsTwoNulsWhenItIsEmpty) {
    const Bytes before = region_bytes();
    uint32_t size = 91;
    EXPECT_EQ(shmnm_enumnode(nullptr, &size), SHMNM_OK);
    EXPECT_EQ(size, 2u);
    test::expect_listing(shmnm_enumnode, "_enumnode", {});
    EXPECT_EQ(region_bytes(), before);
}

TEST_F(ServerTable, ListsNamesOfAnyLength) {
    ASSERT_EQ(shmnm_addnode("", 1), SHMNM_OK);
    test::expect_listing(shmnm_enumnode, "_enumnode", {""});
    const std::string longest(255, 'a');
    ASSERT_EQ(shmnm_addnode(longest.c_str(), 1), SHMNM_OK);
    test::expect_listing(shmnm_enumnode, "_enumnode", {"", longest});
    ASSERT_EQ(shmnm_addnode("z", 1), SHMNM_OK);
    test::expect_listing(shmnm_enumnode, "_enumnode", {"", longest, "z"});
}

// ---- more servers than the view holds ----

TEST_F(ServerTable, ChecksForADuplicateBeforeRoomInTheView) {
    shmnm_delete();
    map_region({.servers = 1, .hb = 1, .np = 1});
    ASSERT_EQ(shmnm_setmaxvalue_ex(1000, 1000, 1000), SHMNM_OK);
    ASSERT_EQ(view_size(), 4096u);  // 1084 + 9 * 320 is 3964: 132 bytes are left
    for (int32_t i = 0; i < 9; ++i) ASSERT_EQ(shmnm_addnode(("server" + std::to_string(i)).c_str(), i), SHMNM_OK);
    const Bytes before = region_bytes();
    for (const char* const name : {"server0", "server8"}) {
        log_of_last_call();
        EXPECT_EQ(shmnm_addnode(name, 99), SHMNM_ERR_EXIST);
        EXPECT_THAT(log_of_last_call(),
                    Fails("_addnode", std::string("server(") + name + ") already exist", SHMNM_ERR_EXIST));
    }
    EXPECT_EQ(shmnm_addnode("server9", 99), SHMNM_ERR_COUNTOVER);
    EXPECT_THAT(log_of_last_call(), Fails("_addnode", "node count is over(9)", SHMNM_ERR_COUNTOVER));
    ASSERT_EQ(shmnm_setmaxvalue_ex(9, 1000, 1000), SHMNM_OK);
    log_of_last_call();
    EXPECT_EQ(shmnm_addnode("server0", 99), SHMNM_ERR_COUNTOVER) << "the maximum comes first of all";
    EXPECT_THAT(log_of_last_call(), Fails("_addnode", "node count is over(9)", SHMNM_ERR_COUNTOVER));
    ASSERT_EQ(shmnm_setmaxvalue_ex(1000, 1000, 1000), SHMNM_OK);
    EXPECT_EQ(region_bytes(), before);
}

// ---- the whole ----

TEST_F(ServerTable, FindsNothingWhenItsCountIsNegative) {
    add_servers();
    poke_word(server_count, 0xFFFFFFFF);
    const Bytes before = region_bytes();
    int32_t pri = 91;
    char name[256] = "untouched";
    EXPECT_EQ(shmnm_getnodepri("alpha", &pri), SHMNM_ERR_NOTFOUND);
    EXPECT_EQ(shmnm_getnodename(name, 10), SHMNM_ERR_NOTFOUND);
    EXPECT_EQ(shmnm_modifynode("alpha", 1), SHMNM_ERR_NOTFOUND);
    EXPECT_EQ(shmnm_rmnode("alpha"), SHMNM_ERR_NOTFOUND);
    EXPECT_EQ(pri, 91);
    EXPECT_STREQ(name, "untouched");
    EXPECT_EQ(listed(), test::closed_list({}));
    log_of_last_call();
    EXPECT_EQ(shmnm_addnode("delta", 40), SHMNM_ERR_COUNTOVER);
    EXPECT_THAT(log_of_last_call(), Fails("_addnode", "node count is over(-1)", SHMNM_ERR_COUNTOVER));
    EXPECT_EQ(region_bytes(), before);
}

TEST_F(ServerTable, IsEmptyAfterAClear) {
    add_servers();
    ASSERT_EQ(shmnm_clear(), SHMNM_OK);
    EXPECT_EQ(listed(), test::closed_list({}));
    EXPECT_EQ(shmnm_addnode("alpha", 10), SHMNM_ERR_COUNTOVER) << "the maximum is cleared too";
}

TEST_F(ServerTable, ReportsNotInitFirstAndLogsNothing) {
    shmnm_delete();
    log_of_last_call();
    char text[256] = "untouched";
    uint32_t size = 91;
    int32_t pri = 92;
    EXPECT_EQ(shmnm_addnode(nullptr, 0), SHMNM_ERR_NOTINIT);
    EXPECT_EQ(shmnm_addnode("alpha", 10), SHMNM_ERR_NOTINIT);
    EXPECT_EQ(shmnm_rmnode(nullptr), SHMNM_ERR_NOTINIT);
    EXPECT_EQ(shmnm_rmnode("alpha"), SHMNM_ERR_NOTINIT);
    EXPECT_EQ(shmnm_modifynode(nullptr, 0), SHMNM_ERR_NOTINIT);
    EXPECT_EQ(shmnm_modifynode("alpha", 10), SHMNM_ERR_NOTINIT);
    EXPECT_EQ(shmnm_enumnode(nullptr, nullptr), SHMNM_ERR_NOTINIT);
    EXPECT_EQ(shmnm_enumnode(text, &size), SHMNM_ERR_NOTINIT);
    EXPECT_EQ(shmnm_getnodepri(nullptr, nullptr), SHMNM_ERR_NOTINIT);
    EXPECT_EQ(shmnm_getnodepri("alpha", &pri), SHMNM_ERR_NOTINIT);
    EXPECT_EQ(shmnm_getnodename(nullptr, 0), SHMNM_ERR_NOTINIT);
    EXPECT_EQ(shmnm_getnodename(text, 10), SHMNM_ERR_NOTINIT);
    EXPECT_THAT(log_of_last_call(), IsEmpty()) << "the log is closed";
    EXPECT_STREQ(text, "untouched");
    EXPECT_EQ(size, 91u);
    EXPECT_EQ(pri, 92);
}

}  // namespace
