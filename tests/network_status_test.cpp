// The network-wide states: one word for each pair of hb resource and server, in rows behind all other areas.
#include <climits>

#include "guarded_buffer.h"
#include "region_fixture.h"

namespace {

using fakes::Enter;
using fakes::Error;
using fakes::Exit;
using test::Bytes;
using test::GuardedBuffer;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr const char* set_tag = "_setrscsvstat_nw";
constexpr const char* get_tag = "_getrscsvstat_nw";
constexpr const char* row_tag = "_enumrscsvstat_nw";
constexpr const char* column_tag = "_enumsvrscstat_nw";

/// Three servers, two hb and two np resources, one fst resource: the rows start at 10608 and each has three words.
class NetworkStatus : public test::RegionTest {
  protected:
    static constexpr size_t rows = 10608;

    NetworkStatus() { map_region({.servers = 3, .hb = 2, .np = 2}); }

    /// "alpha" of priority 10, "beta" of 20 and "gamma" of 30.
    void add_servers() {
        ASSERT_EQ(shmnm_addnode("alpha", 10), SHMNM_OK);
        ASSERT_EQ(shmnm_addnode("beta", 20), SHMNM_OK);
        ASSERT_EQ(shmnm_addnode("gamma", 30), SHMNM_OK);
        log_of_last_call();
    }
    void add_resources() {
        ASSERT_EQ(shmnm_addhbrsc("lan", "lan1", 1), SHMNM_OK);
        ASSERT_EQ(shmnm_addhbrsc("disk", "disk1", 2), SHMNM_OK);
        log_of_last_call();
    }
    /// Rows 11, 12, 13 and 21, 22, 23.
    void fill_rows() {
        const uint32_t values[] = {11, 12, 13, 21, 22, 23};
        for (size_t i = 0; i < std::size(values); ++i) poke_word(rows + 4 * i, values[i]);
    }
    Bytes region_with(size_t offset, uint32_t value) {
        Bytes bytes = region_bytes();
        for (size_t i = 0; i < 4; ++i) bytes[offset + i] = static_cast<uint8_t>(value >> 8 * i);
        return bytes;
    }
};

// ---- one word ----

TEST_F(NetworkStatus, IsSetAndReadForEachPairOfResourceAndServer) {
    add_servers();
    add_resources();
    const char* const resources[][2] = {{"lan", "lan1"}, {"disk", "disk1"}};
    const int32_t priorities[] = {10, 20, 30};
    uint32_t value = 0xF0000000;
    for (size_t row = 0; row < 2; ++row) {
        for (size_t column = 0; column < 3; ++column) {
            const auto& [type, name] = resources[row];
            const Bytes expected = region_with(rows + 12 * row + 4 * column, ++value);
            log_of_last_call();
            EXPECT_EQ(shmnm_setrscsvstat_nw(type, name, priorities[column], value), SHMNM_OK);
            EXPECT_THAT(log_of_last_call(), ElementsAre(Enter(set_tag), Exit(set_tag, SHMNM_OK)));
            EXPECT_EQ(region_bytes(), expected);
            uint32_t read = 91;
            EXPECT_EQ(shmnm_getrscsvstat_nw(type, name, priorities[column], &read), SHMNM_OK);
            EXPECT_THAT(log_of_last_call(), ElementsAre(Enter(get_tag), Exit(get_tag, SHMNM_OK)));
            EXPECT_EQ(read, value);
            EXPECT_EQ(region_bytes(), expected);
        }
    }
}

TEST_F(NetworkStatus, CanBeAnyValue) {
    add_servers();
    add_resources();
    for (const uint32_t value : {0u, 1u, 2u, 0x7FFFFFFFu, 0x80000000u, 0xFFFFFFFFu}) {
        EXPECT_EQ(shmnm_setrscsvstat_nw("lan", "lan1", 20, value), SHMNM_OK);
        EXPECT_EQ(word_at(rows + 4), value);
        uint32_t read = ~value;
        EXPECT_EQ(shmnm_getrscsvstat_nw("lan", "lan1", 20, &read), SHMNM_OK);
        EXPECT_EQ(read, value);
    }
}

TEST_F(NetworkStatus, IsTwoOnEveryServerForANewResource) {
    add_servers();
    poke_word(rows, 77);
    add_resources();
    for (const int32_t priority : {10, 20, 30}) {
        uint32_t read = 91;
        EXPECT_EQ(shmnm_getrscsvstat_nw("lan", "lan1", priority, &read), SHMNM_OK);
        EXPECT_EQ(read, 2u);
    }
}

TEST_F(NetworkStatus, IsTwoForEveryResourceOnANewServer) {
    add_resources();
    ASSERT_EQ(shmnm_addnode("alpha", 10), SHMNM_OK);
    fill_rows();
    ASSERT_EQ(shmnm_addnode("beta", 20), SHMNM_OK);
    uint32_t lan = 91, disk = 92;
    EXPECT_EQ(shmnm_getrscsvstat_nw("lan", "lan1", 20, &lan), SHMNM_OK);
    EXPECT_EQ(shmnm_getrscsvstat_nw("disk", "disk1", 20, &disk), SHMNM_OK);
    EXPECT_EQ(lan, 2u);
    EXPECT_EQ(disk, 2u);
    EXPECT_EQ(shmnm_getrscsvstat_nw("disk", "disk1", 10, &disk), SHMNM_OK);
    EXPECT_EQ(disk, 21u) << "the other server's state stays";
}

TEST_F(NetworkStatus, MovesWithItsServerWhenAnEarlierOneIsRemoved) {
    add_servers();
    add_resources();
    ASSERT_EQ(shmnm_setrscsvstat_nw("lan", "lan1", 30, 0x1234), SHMNM_OK);
    ASSERT_EQ(shmnm_setrscsvstat_nw("disk", "disk1", 30, 0x5678), SHMNM_OK);
    ASSERT_EQ(shmnm_rmnode("beta"), SHMNM_OK);
    uint32_t lan = 91, disk = 92;
    EXPECT_EQ(shmnm_getrscsvstat_nw("lan", "lan1", 30, &lan), SHMNM_OK);
    EXPECT_EQ(shmnm_getrscsvstat_nw("disk", "disk1", 30, &disk), SHMNM_OK);
    EXPECT_EQ(lan, 0x1234u);
    EXPECT_EQ(disk, 0x5678u);
    EXPECT_EQ(word_at(rows + 4), 0x1234u);
    EXPECT_EQ(word_at(rows + 16), 0x5678u);
}

TEST_F(NetworkStatus, MovesWithItsResourceWhenAnEarlierOneIsRemoved) {
    add_servers();
    add_resources();
    fill_rows();
    ASSERT_EQ(shmnm_rmhbrsc("lan", "lan1"), SHMNM_OK);
    uint32_t read = 91;
    EXPECT_EQ(shmnm_getrscsvstat_nw("disk", "disk1", 20, &read), SHMNM_OK);
    EXPECT_EQ(read, 22u);
    EXPECT_EQ(word_at(rows + 4), 22u);
}

TEST_F(NetworkStatus, IsThatOnTheFirstOfTwoServersWithOnePriority) {
    ASSERT_EQ(shmnm_addnode("alpha", 5), SHMNM_OK);
    ASSERT_EQ(shmnm_addnode("beta", 20), SHMNM_OK);
    ASSERT_EQ(shmnm_addnode("gamma", 20), SHMNM_OK);
    add_resources();
    fill_rows();
    const Bytes expected = region_with(rows + 12 + 4, 99);
    EXPECT_EQ(shmnm_setrscsvstat_nw("disk", "disk1", 20, 99), SHMNM_OK);
    EXPECT_EQ(region_bytes(), expected);
    uint32_t read = 91;
    EXPECT_EQ(shmnm_getrscsvstat_nw("disk", "disk1", 20, &read), SHMNM_OK);
    EXPECT_EQ(read, 99u);
}

TEST_F(NetworkStatus, AcceptsAnyNumberAsAPriority) {
    const int32_t priorities[] = {INT32_MIN, -1, INT32_MAX};
    ASSERT_EQ(shmnm_addnode("alpha", priorities[0]), SHMNM_OK);
    ASSERT_EQ(shmnm_addnode("beta", priorities[1]), SHMNM_OK);
    ASSERT_EQ(shmnm_addnode("gamma", priorities[2]), SHMNM_OK);
    add_resources();
    fill_rows();
    for (uint32_t column = 0; column < 3; ++column) {
        uint32_t read = 91;
        EXPECT_EQ(shmnm_getrscsvstat_nw("lan", "lan1", priorities[column], &read), SHMNM_OK);
        EXPECT_EQ(read, 11 + column);
    }
}

TEST_F(NetworkStatus, IsThatOfTheFirstResourceOfThatNameWhenTheTypeIsNull) {
    add_servers();
    ASSERT_EQ(shmnm_addhbrsc("lan", "one", 1), SHMNM_OK);
    ASSERT_EQ(shmnm_addhbrsc("disk", "one", 2), SHMNM_OK);
    fill_rows();
    uint32_t any = 91, lan = 92, disk = 93;
    EXPECT_EQ(shmnm_getrscsvstat_nw(nullptr, "one", 30, &any), SHMNM_OK);
    EXPECT_EQ(shmnm_getrscsvstat_nw("lan", "one", 30, &lan), SHMNM_OK);
    EXPECT_EQ(shmnm_getrscsvstat_nw("disk", "one", 30, &disk), SHMNM_OK);
    EXPECT_EQ(any, 13u);
    EXPECT_EQ(lan, 13u);
    EXPECT_EQ(disk, 23u);
    const Bytes expected = region_with(rows + 8, 99);
    EXPECT_EQ(shmnm_setrscsvstat_nw(nullptr, "one", 30, 99), SHMNM_OK);
    EXPECT_EQ(region_bytes(), expected);
    uint32_t words[3] = {};
    uint32_t size = sizeof words;
    EXPECT_EQ(shmnm_enumrscsvstat_nw(nullptr, "one", words, &size), SHMNM_OK);
    EXPECT_THAT(words, ElementsAre(11u, 12u, 99u));
    EXPECT_EQ(shmnm_enumrscsvstat_nw("disk", "one", words, &size), SHMNM_OK);
    EXPECT_THAT(words, ElementsAre(21u, 22u, 23u));
}

TEST_F(NetworkStatus, IsStoredAfterTheWholeAreaOfTheOtherTables) {
    shmnm_delete();
    map_region();
    ASSERT_EQ(shmnm_addnode("alpha", 10), SHMNM_OK);
    ASSERT_EQ(shmnm_addnode("beta", 20), SHMNM_OK);
    ASSERT_EQ(shmnm_addhbrsc("lan", "lan1", 1), SHMNM_OK);
    ASSERT_EQ(shmnm_addhbrsc("lan", "lan2", 1), SHMNM_OK);
    const Bytes expected = region_with(2'476'164 + 4 * (128 + 1), 0xABCDEF01);
    EXPECT_EQ(shmnm_setrscsvstat_nw("lan", "lan2", 20, 0xABCDEF01), SHMNM_OK);
    EXPECT_EQ(region_bytes(), expected);
}

TEST_F(NetworkStatus, IsNotFoundForAnUnknownServer) {
    add_servers();
    add_resources();
    const Bytes before = region_bytes();
    EXPECT_EQ(shmnm_setrscsvstat_nw("lan", "lan1", 40, 99), SHMNM_ERR_NOTFOUND);
    EXPECT_THAT(log_of_last_call(), ElementsAre(Enter(set_tag), Error(set_tag, "type:lan,name:lan1,svid:40 not found"),
                                                Exit(set_tag, SHMNM_ERR_NOTFOUND)));
    uint32_t read = 91;
    EXPECT_EQ(shmnm_getrscsvstat_nw("lan", "lan1", -40, &read), SHMNM_ERR_NOTFOUND);
    EXPECT_THAT(log_of_last_call(), ElementsAre(Enter(get_tag), Error(get_tag, "type:lan,name:lan1,svid:-40 not found"),
                                                Exit(get_tag, SHMNM_ERR_NOTFOUND)));
    EXPECT_EQ(read, 91u);
    EXPECT_EQ(region_bytes(), before);
}

TEST_F(NetworkStatus, IsNotFoundForAnUnknownResource) {
    add_servers();
    add_resources();
    ASSERT_EQ(shmnm_addnprsc("ping", "ping1", 1), SHMNM_OK);
    const Bytes before = region_bytes();
    const char* const unknown[][3] = {{"lan", "lan2", "type:lan,name:lan2,svid:20 not found"},
                                      {"disk", "lan1", "type:disk,name:lan1,svid:20 not found"},
                                      {"LAN", "lan1", "type:LAN,name:lan1,svid:20 not found"},
                                      {"lan", "Lan1", "type:lan,name:Lan1,svid:20 not found"},
                                      {"lan", "lan", "type:lan,name:lan,svid:20 not found"},
                                      {"lan", "lan11", "type:lan,name:lan11,svid:20 not found"},
                                      {"", "lan1", "type:,name:lan1,svid:20 not found"},
                                      {"lan", "", "type:lan,name:,svid:20 not found"},
                                      {"ping", "ping1", "type:ping,name:ping1,svid:20 not found"},
                                      {nullptr, "ping1", "type:-,name:ping1,svid:20 not found"}};
    for (const auto& [type, name, line] : unknown) {
        log_of_last_call();
        EXPECT_EQ(shmnm_setrscsvstat_nw(type, name, 20, 99), SHMNM_ERR_NOTFOUND);
        EXPECT_THAT(log_of_last_call(),
                    ElementsAre(Enter(set_tag), Error(set_tag, line), Exit(set_tag, SHMNM_ERR_NOTFOUND)));
        uint32_t read = 91;
        EXPECT_EQ(shmnm_getrscsvstat_nw(type, name, 20, &read), SHMNM_ERR_NOTFOUND);
        EXPECT_THAT(log_of_last_call(),
                    ElementsAre(Enter(get_tag), Error(get_tag, line), Exit(get_tag, SHMNM_ERR_NOTFOUND)));
        EXPECT_EQ(read, 91u);
    }
    EXPECT_EQ(region_bytes(), before);
}

TEST_F(NetworkStatus, IsNotFoundForAPriorityWithoutAServer) {
    add_resources();
    const Bytes before = region_bytes();
    for (const int32_t priority : {0, 10, -1}) {
        const std::string line = "type:-,name:lan1,svid:" + std::to_string(priority) + " not found";
        uint32_t read = 91;
        EXPECT_EQ(shmnm_getrscsvstat_nw(nullptr, "lan1", priority, &read), SHMNM_ERR_NOTFOUND);
        EXPECT_THAT(log_of_last_call(),
                    ElementsAre(Enter(get_tag), Error(get_tag, line), Exit(get_tag, SHMNM_ERR_NOTFOUND)));
        EXPECT_EQ(read, 91u);
        EXPECT_EQ(shmnm_setrscsvstat_nw(nullptr, "lan1", priority, 99), SHMNM_ERR_NOTFOUND);
        EXPECT_THAT(log_of_last_call(),
                    ElementsAre(Enter(set_tag), Error(set_tag, line), Exit(set_tag, SHMNM_ERR_NOTFOUND)));
    }
    EXPECT_EQ(region_bytes(), before);
}

TEST_F(NetworkStatus, FailsOnceWhenServerAndResourceAreBothUnknown) {
    EXPECT_EQ(shmnm_setrscsvstat_nw(nullptr, "nothing", 7, 99), SHMNM_ERR_NOTFOUND);
    EXPECT_THAT(log_of_last_call(), ElementsAre(Enter(set_tag), Error(set_tag, "type:-,name:nothing,svid:7 not found"),
                                                Exit(set_tag, SHMNM_ERR_NOTFOUND)));
}

TEST_F(NetworkStatus, NeedsANameButNeitherATypeNorAnOutput) {
    add_servers();
    add_resources();
    const Bytes before = region_bytes();
    uint32_t read = 91;
    EXPECT_EQ(shmnm_setrscsvstat_nw("lan", nullptr, 10, 99), SHMNM_ERR_PARAM);
    EXPECT_THAT(log_of_last_call(),
                ElementsAre(Enter(set_tag), Error(set_tag, "invalid param"), Exit(set_tag, SHMNM_ERR_PARAM)));
    EXPECT_EQ(shmnm_setrscsvstat_nw(nullptr, nullptr, 40, 99), SHMNM_ERR_PARAM);
    EXPECT_EQ(shmnm_getrscsvstat_nw(nullptr, nullptr, 40, nullptr), SHMNM_ERR_PARAM);
    log_of_last_call();
    EXPECT_EQ(shmnm_getrscsvstat_nw("lan", nullptr, 10, &read), SHMNM_ERR_PARAM);
    EXPECT_THAT(log_of_last_call(),
                ElementsAre(Enter(get_tag), Error(get_tag, "invalid param"), Exit(get_tag, SHMNM_ERR_PARAM)));
    EXPECT_EQ(read, 91u);
    EXPECT_EQ(shmnm_getrscsvstat_nw("lan", "lan1", 10, nullptr), SHMNM_OK);
    EXPECT_THAT(log_of_last_call(), ElementsAre(Enter(get_tag), Exit(get_tag, SHMNM_OK)));
    EXPECT_EQ(shmnm_getrscsvstat_nw("lan", "lan9", 10, nullptr), SHMNM_ERR_NOTFOUND);
    EXPECT_EQ(region_bytes(), before);
}

TEST_F(NetworkStatus, IsStoredElsewhereAfterTheMaximumOfServersChanges) {
    add_servers();
    ASSERT_EQ(shmnm_addhbrsc("lan", "lan1", 1), SHMNM_OK);
    fill_rows();
    // The first record stays where it is, the second one and its row move by two words.
    ASSERT_EQ(shmnm_setmaxvalue_ex(5, 2, 2), SHMNM_OK);
    ASSERT_EQ(shmnm_addhbrsc("disk", "disk1", 1), SHMNM_OK);
    uint32_t read = 91;
    EXPECT_EQ(shmnm_getrscsvstat_nw("lan", "lan1", 30, &read), SHMNM_OK);
    EXPECT_EQ(read, 13u);
    const Bytes expected = region_with(rows + 20 + 4, 99);
    EXPECT_EQ(shmnm_setrscsvstat_nw("disk", "disk1", 20, 99), SHMNM_OK);
    EXPECT_EQ(region_bytes(), expected);
}

// ---- the row of a resource ----

TEST_F(NetworkStatus, IsListedForAResourceInTheOrderOfTheServers) {
    add_servers();
    add_resources();
    fill_rows();
    const Bytes before = region_bytes();
    GuardedBuffer<uint32_t> row(4, 91, 92);
    uint32_t size = 4 * 3;
    EXPECT_EQ(shmnm_enumrscsvstat_nw("disk", "disk1", row.data(), &size), SHMNM_OK);
    EXPECT_THAT(log_of_last_call(), ElementsAre(Enter(row_tag), Exit(row_tag, SHMNM_OK)));
    EXPECT_THAT(row.content(), ElementsAre(21u, 22u, 23u, 91u));
    EXPECT_EQ(size, 12u);
    EXPECT_EQ(shmnm_enumrscsvstat_nw("lan", "lan1", row.data(), &size), SHMNM_OK);
    EXPECT_THAT(row.content(), ElementsAre(11u, 12u, 13u, 91u));
    EXPECT_TRUE(row.guards_are_whole());
    EXPECT_EQ(region_bytes(), before);
}

TEST_F(NetworkStatus, ReportsTheBytesThatARowUsesOfALargerBuffer) {
    add_servers();
    add_resources();
    fill_rows();
    for (const uint32_t given : {13u, 16u, 0x80000000u, 0xFFFFFFFFu}) {
        GuardedBuffer<uint32_t> row(4, 91, 92);
        uint32_t size = given;
        EXPECT_EQ(shmnm_enumrscsvstat_nw(nullptr, "disk1", row.data(), &size), SHMNM_OK) << given;
        EXPECT_THAT(row.content(), ElementsAre(21u, 22u, 23u, 91u));
        EXPECT_TRUE(row.guards_are_whole());
        EXPECT_EQ(size, 12u);
    }
}

TEST_F(NetworkStatus, HasOneWordPerRegisteredServerInARow) {
    ASSERT_EQ(shmnm_addnode("alpha", 10), SHMNM_OK);
    ASSERT_EQ(shmnm_addnode("beta", 20), SHMNM_OK);
    add_resources();
    fill_rows();
    GuardedBuffer<uint32_t> row(3, 91, 92);
    uint32_t size = 12;
    EXPECT_EQ(shmnm_enumrscsvstat_nw("lan", "lan1", row.data(), &size), SHMNM_OK);
    EXPECT_THAT(row.content(), ElementsAre(11u, 12u, 91u));
    EXPECT_EQ(size, 8u);
}

TEST_F(NetworkStatus, IsMeasuredForARowWithoutLookingUpTheName) {
    add_servers();
    const std::pair<const char*, const char*> any[] = {{"lan", "lan1"}, {nullptr, "no such resource"}, {"", ""}};
    for (const auto& [type, name] : any) {
        uint32_t size = 91;
        log_of_last_call();
        EXPECT_EQ(shmnm_enumrscsvstat_nw(type, name, nullptr, &size), SHMNM_OK);
        EXPECT_THAT(log_of_last_call(), ElementsAre(Enter(row_tag), Exit(row_tag, SHMNM_OK)));
        EXPECT_EQ(size, 12u);
    }
}

TEST_F(NetworkStatus, RefusesAShortBufferForARowBeforeLookingUpTheName) {
    add_servers();
    add_resources();
    for (const char* const name : {"lan1", "no such resource"}) {
        for (const uint32_t given : {0u, 4u, 11u}) {
            GuardedBuffer<uint32_t> row(3, 91, 92);
            uint32_t size = given;
            log_of_last_call();
            EXPECT_EQ(shmnm_enumrscsvstat_nw("lan", name, row.data(), &size), SHMNM_ERR_BUFFER);
            EXPECT_THAT(log_of_last_call(), ElementsAre(Enter(row_tag), Exit(row_tag, SHMNM_ERR_BUFFER)));
            EXPECT_EQ(size, given);
            EXPECT_THAT(row.content(), ElementsAre(91u, 91u, 91u));
            EXPECT_TRUE(row.guards_are_whole());
        }
    }
}

TEST_F(NetworkStatus, HasNoRowForAnUnknownResource) {
    add_servers();
    add_resources();
    const std::pair<const char*, const char*> unknown[] = {{"lan", "type:lan,name:disk1 not found"},
                                                           {"", "type:,name:disk1 not found"}};
    GuardedBuffer<uint32_t> row(3, 91, 92);
    uint32_t size = 12;
    for (const auto& [type, line] : unknown) {
        log_of_last_call();
        EXPECT_EQ(shmnm_enumrscsvstat_nw(type, "disk1", row.data(), &size), SHMNM_ERR_NOTFOUND);
        EXPECT_THAT(log_of_last_call(),
                    ElementsAre(Enter(row_tag), Error(row_tag, line), Exit(row_tag, SHMNM_ERR_NOTFOUND)));
    }
    EXPECT_EQ(shmnm_enumrscsvstat_nw(nullptr, "disk2", row.data(), &size), SHMNM_ERR_NOTFOUND);
    EXPECT_THAT(log_of_last_call(), ElementsAre(Enter(row_tag), Error(row_tag, "type:-,name:disk2 not found"),
                                                Exit(row_tag, SHMNM_ERR_NOTFOUND)));
    EXPECT_EQ(size, 12u);
    EXPECT_THAT(row.content(), ElementsAre(91u, 91u, 91u));
    EXPECT_TRUE(row.guards_are_whole());
}

TEST_F(NetworkStatus, HasAnEmptyRowWithoutAServer) {
    add_resources();
    fill_rows();
    uint32_t size = 91;
    EXPECT_EQ(shmnm_enumrscsvstat_nw("lan", "lan1", nullptr, &size), SHMNM_OK);
    EXPECT_EQ(size, 0u);
    GuardedBuffer<uint32_t> row(1, 91, 92);
    for (const uint32_t given : {0u, 4u}) {
        size = given;
        log_of_last_call();
        EXPECT_EQ(shmnm_enumrscsvstat_nw("lan", "lan1", row.data(), &size), SHMNM_OK);
        EXPECT_THAT(log_of_last_call(), ElementsAre(Enter(row_tag), Exit(row_tag, SHMNM_OK)));
        EXPECT_EQ(size, 0u);
    }
    EXPECT_THAT(row.content(), ElementsAre(91u));
    size = 4;
    EXPECT_EQ(shmnm_enumrscsvstat_nw("lan", "lan9", row.data(), &size), SHMNM_ERR_NOTFOUND);
    EXPECT_EQ(size, 4u);
    EXPECT_TRUE(row.guards_are_whole());
}

TEST_F(NetworkStatus, NeedsANameAndASizeToListARow) {
    add_servers();
    add_resources();
    GuardedBuffer<uint32_t> row(3, 91, 92);
    uint32_t size = 12;
    const std::pair<const char*, uint32_t*> refused[] = {{nullptr, &size}, {"lan1", nullptr}, {nullptr, nullptr}};
    for (const auto& [name, size_pointer] : refused) {
        for (uint32_t* const buffer : {row.data(), static_cast<uint32_t*>(nullptr)}) {
            log_of_last_call();
            EXPECT_EQ(shmnm_enumrscsvstat_nw("lan", name, buffer, size_pointer), SHMNM_ERR_PARAM);
            EXPECT_THAT(log_of_last_call(),
                        ElementsAre(Enter(row_tag), Error(row_tag, "invalid param"), Exit(row_tag, SHMNM_ERR_PARAM)));
        }
    }
    EXPECT_EQ(size, 12u);
    EXPECT_THAT(row.content(), ElementsAre(91u, 91u, 91u));
    EXPECT_TRUE(row.guards_are_whole());
}

// ---- the column of a server ----

TEST_F(NetworkStatus, IsListedForAServerInTheOrderOfTheResources) {
    add_servers();
    add_resources();
    fill_rows();
    const Bytes before = region_bytes();
    GuardedBuffer<uint32_t> column(3, 91, 92);
    uint32_t size = 8;
    EXPECT_EQ(shmnm_enumsvrscstat_nw("gamma", column.data(), &size), SHMNM_OK);
    EXPECT_THAT(log_of_last_call(), ElementsAre(Enter(column_tag), Exit(column_tag, SHMNM_OK)));
    EXPECT_THAT(column.content(), ElementsAre(13u, 23u, 91u));
    EXPECT_EQ(shmnm_enumsvrscstat_nw("alpha", column.data(), &size), SHMNM_OK);
    EXPECT_THAT(column.content(), ElementsAre(11u, 21u, 91u));
    EXPECT_TRUE(column.guards_are_whole());
    EXPECT_EQ(size, 8u);
    EXPECT_EQ(region_bytes(), before);
}

TEST_F(NetworkStatus, LeavesTheSizeUnchangedWhenItListsAColumn) {
    add_servers();
    add_resources();
    fill_rows();
    for (const uint32_t given : {8u, 9u, 100u, 0x80000000u, 0xFFFFFFFFu}) {
        GuardedBuffer<uint32_t> column(3, 91, 92);
        uint32_t size = given;
        EXPECT_EQ(shmnm_enumsvrscstat_nw("beta", column.data(), &size), SHMNM_OK) << given;
        EXPECT_THAT(column.content(), ElementsAre(12u, 22u, 91u));
        EXPECT_TRUE(column.guards_are_whole());
        EXPECT_EQ(size, given);
    }
}

TEST_F(NetworkStatus, IsMeasuredForAColumnWithoutLookingUpTheName) {
    add_resources();
    for (const char* const server : {"alpha", ""}) {
        uint32_t size = 91;
        log_of_last_call();
        EXPECT_EQ(shmnm_enumsvrscstat_nw(server, nullptr, &size), SHMNM_OK);
        EXPECT_THAT(log_of_last_call(), ElementsAre(Enter(column_tag), Exit(column_tag, SHMNM_OK)));
        EXPECT_EQ(size, 8u);
    }
}

TEST_F(NetworkStatus, RefusesAShortBufferForAColumnBeforeLookingUpTheName) {
    add_servers();
    add_resources();
    for (const char* const server : {"alpha", "no such server"}) {
        for (const uint32_t given : {0u, 4u, 7u}) {
            GuardedBuffer<uint32_t> column(2, 91, 92);
            uint32_t size = given;
            log_of_last_call();
            EXPECT_EQ(shmnm_enumsvrscstat_nw(server, column.data(), &size), SHMNM_ERR_BUFFER);
            EXPECT_THAT(log_of_last_call(), ElementsAre(Enter(column_tag), Exit(column_tag, SHMNM_ERR_BUFFER)));
            EXPECT_EQ(size, given);
            EXPECT_THAT(column.content(), ElementsAre(91u, 91u));
            EXPECT_TRUE(column.guards_are_whole());
        }
    }
}

TEST_F(NetworkStatus, HasNoColumnForAnUnknownServer) {
    add_servers();
    add_resources();
    GuardedBuffer<uint32_t> column(2, 91, 92);
    uint32_t size = 8;
    for (const char* const server : {"delta", "Alpha", "alph", "alpha1", ""}) {
        log_of_last_call();
        EXPECT_EQ(shmnm_enumsvrscstat_nw(server, column.data(), &size), SHMNM_ERR_NOTFOUND);
        EXPECT_THAT(log_of_last_call(),
                    ElementsAre(Enter(column_tag), Error(column_tag, "name:" + std::string(server) + " not found"),
                                Exit(column_tag, SHMNM_ERR_NOTFOUND)));
    }
    EXPECT_EQ(size, 8u);
    EXPECT_THAT(column.content(), ElementsAre(91u, 91u));
    EXPECT_TRUE(column.guards_are_whole());
}

TEST_F(NetworkStatus, HasAnEmptyColumnWithoutAResource) {
    add_servers();
    fill_rows();
    uint32_t size = 91;
    EXPECT_EQ(shmnm_enumsvrscstat_nw("alpha", nullptr, &size), SHMNM_OK);
    EXPECT_EQ(size, 0u);
    GuardedBuffer<uint32_t> column(1, 91, 92);
    for (const uint32_t given : {0u, 3u, 4u}) {
        size = given;
        EXPECT_EQ(shmnm_enumsvrscstat_nw("alpha", column.data(), &size), SHMNM_OK);
        EXPECT_EQ(size, given);
        log_of_last_call();
        EXPECT_EQ(shmnm_enumsvrscstat_nw("delta", column.data(), &size), SHMNM_ERR_NOTFOUND);
        EXPECT_THAT(log_of_last_call(), ElementsAre(Enter(column_tag), Error(column_tag, "name:delta not found"),
                                                    Exit(column_tag, SHMNM_ERR_NOTFOUND)));
    }
    EXPECT_THAT(column.content(), ElementsAre(91u));
    EXPECT_TRUE(column.guards_are_whole());
}

TEST_F(NetworkStatus, NeedsAServerAndASizeToListAColumn) {
    add_servers();
    add_resources();
    GuardedBuffer<uint32_t> column(2, 91, 92);
    uint32_t size = 8;
    const std::pair<const char*, uint32_t*> refused[] = {{nullptr, &size}, {"alpha", nullptr}, {nullptr, nullptr}};
    for (const auto& [server, size_pointer] : refused) {
        for (uint32_t* const buffer : {column.data(), static_cast<uint32_t*>(nullptr)}) {
            log_of_last_call();
            EXPECT_EQ(shmnm_enumsvrscstat_nw(server, buffer, size_pointer), SHMNM_ERR_PARAM);
            EXPECT_THAT(log_of_last_call(), ElementsAre(Enter(column_tag), Error(column_tag, "invalid param"),
                                                        Exit(column_tag, SHMNM_ERR_PARAM)));
        }
    }
    EXPECT_EQ(size, 8u);
    EXPECT_THAT(column.content(), ElementsAre(91u, 91u));
    EXPECT_TRUE(column.guards_are_whole());
}

TEST_F(NetworkStatus, ReportsNotInitBeforeItChecksItsArguments) {
    shmnm_delete();
    log_of_last_call();
    uint32_t value = 91, size = 4;
    EXPECT_EQ(shmnm_setrscsvstat_nw("lan", "lan1", 10, 99), SHMNM_ERR_NOTINIT);
    EXPECT_EQ(shmnm_setrscsvstat_nw(nullptr, nullptr, 0, 0), SHMNM_ERR_NOTINIT);
    EXPECT_EQ(shmnm_getrscsvstat_nw("lan", "lan1", 10, &value), SHMNM_ERR_NOTINIT);
    EXPECT_EQ(shmnm_getrscsvstat_nw(nullptr, nullptr, 0, nullptr), SHMNM_ERR_NOTINIT);
    EXPECT_EQ(shmnm_enumrscsvstat_nw("lan", "lan1", &value, &size), SHMNM_ERR_NOTINIT);
    EXPECT_EQ(shmnm_enumrscsvstat_nw("lan", "lan1", nullptr, &size), SHMNM_ERR_NOTINIT);
    EXPECT_EQ(shmnm_enumrscsvstat_nw(nullptr, nullptr, nullptr, nullptr), SHMNM_ERR_NOTINIT);
    EXPECT_EQ(shmnm_enumsvrscstat_nw("alpha", &value, &size), SHMNM_ERR_NOTINIT);
    EXPECT_EQ(shmnm_enumsvrscstat_nw("alpha", nullptr, &size), SHMNM_ERR_NOTINIT);
    EXPECT_EQ(shmnm_enumsvrscstat_nw(nullptr, nullptr, nullptr), SHMNM_ERR_NOTINIT);
    EXPECT_EQ(value, 91u);
    EXPECT_EQ(size, 4u);
    EXPECT_THAT(log_of_last_call(), IsEmpty()) << "the log is closed with the region";
}

// ---- a damaged region: counts that lead beyond the mapped view of 12288 bytes ----

class DamagedNetworkStatus : public NetworkStatus {
  protected:
    DamagedNetworkStatus() {
        add_servers();
        add_resources();
        fill_rows();
        EXPECT_EQ(view_size(), 12288u);
    }
    /// With 2000 words a row, the second record moves to 2044 + 584 + 8000 and its row to 18608, beyond the view.
    void move_the_second_row_away() {
        poke_word(8, 2000);
        poke(10628, {'d', 'i', 's', 'k', '1', 0});
        poke(10628 + 256, {'d', 'i', 's', 'k', 0});
    }
};

TEST_F(DamagedNetworkStatus, IsNotFoundBeyondTheView) {
    move_the_second_row_away();
    const Bytes before = region_bytes();
    EXPECT_EQ(shmnm_setrscsvstat_nw("disk", "disk1", 10, 99), SHMNM_ERR_NOTFOUND);
    EXPECT_THAT(log_of_last_call(),
                ElementsAre(Enter(set_tag), Error(set_tag, "type:disk,name:disk1,svid:10 not found"),
                            Exit(set_tag, SHMNM_ERR_NOTFOUND)));
    uint32_t read = 91;
    EXPECT_EQ(shmnm_getrscsvstat_nw(nullptr, "disk1", 10, &read), SHMNM_ERR_NOTFOUND);
    EXPECT_THAT(log_of_last_call(), ElementsAre(Enter(get_tag), Error(get_tag, "type:-,name:disk1,svid:10 not found"),
                                                Exit(get_tag, SHMNM_ERR_NOTFOUND)));
    EXPECT_EQ(read, 91u);
    EXPECT_EQ(region_bytes(), before);
}

TEST_F(DamagedNetworkStatus, HasAnEmptyRowBeyondTheView) {
    move_the_second_row_away();
    GuardedBuffer<uint32_t> row(3, 91, 92);
    uint32_t size = 12;
    EXPECT_EQ(shmnm_enumrscsvstat_nw("disk", "disk1", row.data(), &size), SHMNM_OK);
    EXPECT_EQ(size, 0u);
    EXPECT_THAT(row.content(), ElementsAre(91u, 91u, 91u));
    EXPECT_TRUE(row.guards_are_whole());
}

TEST_F(DamagedNetworkStatus, EndsAColumnWhereTheViewEnds) {
    move_the_second_row_away();
    GuardedBuffer<uint32_t> column(2, 91, 92);
    uint32_t size = 8;
    EXPECT_EQ(shmnm_enumsvrscstat_nw("beta", column.data(), &size), SHMNM_OK);
    EXPECT_EQ(size, 8u);
    EXPECT_THAT(column.content(), ElementsAre(12u, 91u));
    EXPECT_TRUE(column.guards_are_whole());
}

TEST_F(DamagedNetworkStatus, EndsARowWhereTheViewEnds) {
    poke_word(28, 1000);
    GuardedBuffer<uint32_t> row(1000, 91, 92);
    uint32_t size = 91;
    EXPECT_EQ(shmnm_enumrscsvstat_nw("lan", "lan1", nullptr, &size), SHMNM_OK);
    EXPECT_EQ(size, 4000u) << "measured by the header's count alone";
    size = 3999;
    EXPECT_EQ(shmnm_enumrscsvstat_nw("lan", "lan1", row.data(), &size), SHMNM_ERR_BUFFER);
    EXPECT_EQ(size, 3999u);
    size = 4000;
    EXPECT_EQ(shmnm_enumrscsvstat_nw("lan", "lan1", row.data(), &size), SHMNM_OK);
    EXPECT_EQ(size, 1680u);  // 12288 - 10608
    std::vector<uint32_t> expected(1000, 91);
    std::fill_n(expected.begin(), 420, 0u);
    std::copy_n(std::begin({11u, 12u, 13u, 21u, 22u, 23u}), 6, expected.begin());
    EXPECT_EQ(row.content(), expected);
    EXPECT_TRUE(row.guards_are_whole());
}

TEST_F(DamagedNetworkStatus, StaysWithinTheBufferWhenACountWrapsAround) {
    poke_word(28, 0x40000001);
    GuardedBuffer<uint32_t> row(1, 91, 92);
    uint32_t size = 91;
    EXPECT_EQ(shmnm_enumrscsvstat_nw("lan", "lan1", nullptr, &size), SHMNM_OK);
    EXPECT_EQ(size, 4u);
    EXPECT_EQ(shmnm_enumrscsvstat_nw("lan", "lan1", row.data(), &size), SHMNM_OK);
    EXPECT_EQ(size, 4u);
    EXPECT_THAT(row.content(), ElementsAre(11u));
    EXPECT_TRUE(row.guards_are_whole());

    poke_word(28, 3);
    poke_word(32, 0x40000001);
    EXPECT_EQ(shmnm_enumsvrscstat_nw("beta", nullptr, &size), SHMNM_OK);
    EXPECT_EQ(size, 4u);
    EXPECT_EQ(shmnm_enumsvrscstat_nw("beta", row.data(), &size), SHMNM_OK);
    EXPECT_EQ(size, 4u);
    EXPECT_THAT(row.content(), ElementsAre(12u));
    EXPECT_TRUE(row.guards_are_whole());
}

TEST_F(DamagedNetworkStatus, HasNoCellsWhenACountIsNegative) {
    GuardedBuffer<uint32_t> cells(2, 91, 92);
    poke_word(28, 0xFFFFFFFF);
    uint32_t size = 91;
    EXPECT_EQ(shmnm_enumrscsvstat_nw("lan", "lan1", nullptr, &size), SHMNM_OK);
    EXPECT_EQ(size, 0xFFFFFFFCu);
    EXPECT_EQ(shmnm_enumrscsvstat_nw("lan", "lan1", cells.data(), &size), SHMNM_OK);
    EXPECT_EQ(size, 0u);
    size = 8;
    EXPECT_EQ(shmnm_enumrscsvstat_nw("lan", "lan1", cells.data(), &size), SHMNM_ERR_BUFFER);
    log_of_last_call();
    EXPECT_EQ(shmnm_setrscsvstat_nw("lan", "lan1", 10, 99), SHMNM_ERR_NOTFOUND);
    EXPECT_THAT(log_of_last_call(), ElementsAre(Enter(set_tag), Error(set_tag, "type:lan,name:lan1,svid:10 not found"),
                                                Exit(set_tag, SHMNM_ERR_NOTFOUND)));
    poke_word(28, 3);
    poke_word(32, 0xFFFFFFFF);
    EXPECT_EQ(shmnm_enumsvrscstat_nw("beta", nullptr, &size), SHMNM_OK);
    EXPECT_EQ(size, 0xFFFFFFFCu);
    EXPECT_EQ(shmnm_enumsvrscstat_nw("beta", cells.data(), &size), SHMNM_OK);
    EXPECT_EQ(size, 0xFFFFFFFCu);
    EXPECT_EQ(shmnm_setrscsvstat_nw("lan", "lan1", 10, 99), SHMNM_ERR_NOTFOUND);
    EXPECT_THAT(cells.content(), ElementsAre(91u, 91u));
    EXPECT_TRUE(cells.guards_are_whole());
}

TEST_F(DamagedNetworkStatus, IsNotFoundWhenRecordsHaveNoBytes) {
    poke_word(8, 0xFFFFFF6E);  // -146: records of no bytes
    const Bytes before = region_bytes();
    uint32_t read = 91;
    EXPECT_EQ(shmnm_getrscsvstat_nw("lan", "lan1", 10, &read), SHMNM_ERR_NOTFOUND);
    EXPECT_EQ(shmnm_setrscsvstat_nw("lan", "lan1", 10, 99), SHMNM_ERR_NOTFOUND);
    EXPECT_EQ(read, 91u);
    EXPECT_EQ(region_bytes(), before);
}

}  // namespace
