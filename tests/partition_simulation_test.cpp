// The network-partition simulation: the cluster's word at 60, each server's word at 288 of its record, and the caller's
// arrays, which priorities index.
#include <climits>

#include "guarded_buffer.h"
#include "region_fixture.h"

namespace {

using fakes::Enter;
using fakes::Error;
using fakes::Exit;
using fakes::Information;
using fakes::Warning;
using test::Bytes;
using test::GuardedBuffer;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr const char* set_tag = "shmnm_setnpsimu";
constexpr const char* get_tag = "shmnm_getnpsimu";
constexpr const char* flag_tag = "shmnm_getnpsimuflag";

constexpr size_t cluster_word = 60;
/// Of the servers at positions 0, 1, 2.
constexpr size_t node_words[] = {1372, 1692, 2012};

class PartitionSimulation : public test::RegionTest {
  protected:
    PartitionSimulation() { map_region({.servers = 3, .hb = 2, .np = 2}); }

    /// Adds a server of each priority: "alpha", "beta", "gamma".
    void add_servers(const std::vector<int32_t>& priorities) {
        const char* const names[] = {"alpha", "beta", "gamma"};
        for (size_t i = 0; i < priorities.size(); ++i) ASSERT_EQ(shmnm_addnode(names[i], priorities[i]), SHMNM_OK);
        log_of_last_call();
    }
    /// The region as it is now, but with these words of the simulation.
    Bytes region_with(uint32_t cluster, const std::vector<uint32_t>& nodes) {
        Bytes bytes = region_bytes();
        const auto put = [&bytes](size_t offset, uint32_t value) {
            for (size_t i = 0; i < 4; ++i) bytes[offset + i] = static_cast<uint8_t>(value >> 8 * i);
        };
        put(cluster_word, cluster);
        for (size_t i = 0; i < nodes.size(); ++i) put(node_words[i], nodes[i]);
        return bytes;
    }
    /// Puts the words into the region behind the library's back.
    void poke_words(uint32_t cluster, const std::vector<uint32_t>& nodes) { poke(0, region_with(cluster, nodes)); }
};

TEST_F(PartitionSimulation, IsOffInANewRegion) {
    add_servers({0, 1, 2});
    uint32_t flag = 91;
    EXPECT_EQ(shmnm_getnpsimuflag(&flag), SHMNM_OK);
    EXPECT_THAT(log_of_last_call(), ElementsAre(Enter(flag_tag), Exit(flag_tag, SHMNM_OK)));
    EXPECT_EQ(flag, 0u);
    for (const size_t word : node_words) EXPECT_EQ(word_at(word), 0u);
}

TEST_F(PartitionSimulation, SetsEveryServerFromTheArrayByItsPriorityAndThenTheCluster) {
    add_servers({0, 1, 2});
    const Bytes expected = region_with(1, {1, 0, 0});
    const GuardedBuffer<uint32_t> before({1, 7}, 1);
    GuardedBuffer<uint32_t> nodefail = before;
    EXPECT_EQ(shmnm_setnpsimu(1, nodefail.data(), 2), SHMNM_OK);
    EXPECT_THAT(log_of_last_call(),
                ElementsAre(Enter(set_tag), Information(set_tag, "set node dfailstatus(1). (pri: 0)"),
                            Warning(set_tag, "invalid node dfailstatus(7), set 0. (pri: 1)"),
                            Information(set_tag, "set node dfailstatus(0). (pri: 2)"),
                            Information(set_tag, "set cluster dfailstatus(1)."), Exit(set_tag, SHMNM_OK)));
    EXPECT_EQ(region_bytes(), expected);
    EXPECT_EQ(nodefail.content(), before.content()) << "the caller's array is only read";
    EXPECT_TRUE(nodefail.guards_are_whole());
}

TEST_F(PartitionSimulation, UsesPrioritiesAsIndexesOfTheArray) {
    add_servers({2, 0, 1});
    const Bytes expected = region_with(1, {1, 0, 1});
    const uint32_t nodefail[] = {0, 1, 1};
    EXPECT_EQ(shmnm_setnpsimu(1, nodefail, 3), SHMNM_OK);
    EXPECT_THAT(log_of_last_call(),
                ElementsAre(Enter(set_tag), Information(set_tag, "set node dfailstatus(1). (pri: 2)"),
                            Information(set_tag, "set node dfailstatus(0). (pri: 0)"),
                            Information(set_tag, "set node dfailstatus(1). (pri: 1)"),
                            Information(set_tag, "set cluster dfailstatus(1)."), Exit(set_tag, SHMNM_OK)));
    EXPECT_EQ(region_bytes(), expected);
}

TEST_F(PartitionSimulation, SetsServersWithOnePriorityToTheSameState) {
    add_servers({1, 1, 0});
    const uint32_t nodefail[] = {0, 1};
    EXPECT_EQ(shmnm_setnpsimu(1, nodefail, 2), SHMNM_OK);
    EXPECT_EQ(word_at(node_words[0]), 1u);
    EXPECT_EQ(word_at(node_words[1]), 1u);
    EXPECT_EQ(word_at(node_words[2]), 0u);
}

TEST_F(PartitionSimulation, ReplacesEveryStateOtherThanZeroAndOneByZeroAndLogsItAsASignedNumber) {
    add_servers({0, 1, 2});
    poke_words(1, {1, 1, 1});
    const Bytes expected = region_with(1, {0, 0, 0});
    const uint32_t nodefail[] = {2, 0x80000000, 0xFFFFFFFF};
    EXPECT_EQ(shmnm_setnpsimu(1, nodefail, 3), SHMNM_OK);
    EXPECT_THAT(log_of_last_call(),
                ElementsAre(Enter(set_tag), Warning(set_tag, "invalid node dfailstatus(2), set 0. (pri: 0)"),
                            Warning(set_tag, "invalid node dfailstatus(-2147483648), set 0. (pri: 1)"),
                            Warning(set_tag, "invalid node dfailstatus(-1), set 0. (pri: 2)"),
                            Information(set_tag, "set cluster dfailstatus(1)."), Exit(set_tag, SHMNM_OK)));
    EXPECT_EQ(region_bytes(), expected);
}

TEST_F(PartitionSimulation, ClearsEveryServerWhenItIsSwitchedOnWithoutAnArray) {
    add_servers({0, -1, INT32_MAX});
    poke_words(0, {1, 1, 1});
    const Bytes expected = region_with(1, {0, 0, 0});
    EXPECT_EQ(shmnm_setnpsimu(1, nullptr, 1000), SHMNM_OK);
    EXPECT_THAT(log_of_last_call(),
                ElementsAre(Enter(set_tag), Information(set_tag, "set node dfailstatus(0). (pri: 0)"),
                            Information(set_tag, "set node dfailstatus(0). (pri: -1)"),
                            Information(set_tag, "set node dfailstatus(0). (pri: 2147483647)"),
                            Information(set_tag, "set cluster dfailstatus(1)."), Exit(set_tag, SHMNM_OK)));
    EXPECT_EQ(region_bytes(), expected);
}

TEST_F(PartitionSimulation, ReadsNothingFromAnEmptyArray) {
    add_servers({0, 1, 2});
    for (const int32_t count : {0, -1, INT_MIN}) {
        poke_words(0, {1, 1, 1});
        const Bytes expected = region_with(1, {0, 0, 0});
        GuardedBuffer<uint32_t> nodefail({1, 1, 1}, 1);
        log_of_last_call();
        EXPECT_EQ(shmnm_setnpsimu(1, nodefail.data(), count), SHMNM_OK);
        EXPECT_THAT(log_of_last_call(),
                    ElementsAre(Enter(set_tag), Information(set_tag, "set node dfailstatus(0). (pri: 0)"),
                                Information(set_tag, "set node dfailstatus(0). (pri: 1)"),
                                Information(set_tag, "set node dfailstatus(0). (pri: 2)"),
                                Information(set_tag, "set cluster dfailstatus(1)."), Exit(set_tag, SHMNM_OK)));
        EXPECT_EQ(region_bytes(), expected);
    }
}

TEST_F(PartitionSimulation, ReadsNothingBeforeTheArrayForANegativePriority) {
    add_servers({-1, 1, INT32_MIN});
    poke_words(0, {1, 0, 1});
    const Bytes expected = region_with(1, {0, 1, 0});
    // Each guard is a 1, which a server of negative priority would take over.
    GuardedBuffer<uint32_t> nodefail({0, 1}, 1);
    EXPECT_EQ(shmnm_setnpsimu(1, nodefail.data(), 2), SHMNM_OK);
    EXPECT_THAT(log_of_last_call(),
                ElementsAre(Enter(set_tag), Information(set_tag, "set node dfailstatus(0). (pri: -1)"),
                            Information(set_tag, "set node dfailstatus(1). (pri: 1)"),
                            Information(set_tag, "set node dfailstatus(0). (pri: -2147483648)"),
                            Information(set_tag, "set cluster dfailstatus(1)."), Exit(set_tag, SHMNM_OK)));
    EXPECT_EQ(region_bytes(), expected);
    EXPECT_EQ(nodefail.content(), (std::vector<uint32_t>{0, 1}));
    EXPECT_TRUE(nodefail.guards_are_whole());
}

TEST_F(PartitionSimulation, IsSwitchedOffByZeroWithoutReadingTheArray) {
    add_servers({0, 1, 2});
    poke_words(1, {1, 0, 1});
    const Bytes expected = region_with(0, {0, 0, 0});
    const uint32_t nodefail[] = {1, 1, 1};
    EXPECT_EQ(shmnm_setnpsimu(0, nodefail, 3), SHMNM_OK);
    EXPECT_THAT(log_of_last_call(),
                ElementsAre(Enter(set_tag), Information(set_tag, "set node dfailstatus(0). (pri: 0)"),
                            Information(set_tag, "set node dfailstatus(0). (pri: 1)"),
                            Information(set_tag, "set node dfailstatus(0). (pri: 2)"),
                            Information(set_tag, "set cluster dfailstatus(0)."), Exit(set_tag, SHMNM_OK)));
    EXPECT_EQ(region_bytes(), expected);
    // An address that nobody may read.
    EXPECT_EQ(shmnm_setnpsimu(0, reinterpret_cast<const uint32_t*>(uintptr_t{16}), 3), SHMNM_OK);
    EXPECT_EQ(shmnm_setnpsimu(0, nullptr, -5), SHMNM_OK);
}

TEST_F(PartitionSimulation, IsSwitchedOffWithAWarningByAnyOtherFlag) {
    add_servers({0, 1, 2});
    const std::pair<uint32_t, const char*> flags[] = {{2, "invalid cluster dfailstatus(2), set 0."},
                                                      {0x7FFFFFFF, "invalid cluster dfailstatus(2147483647), set 0."},
                                                      {0xFFFFFFFF, "invalid cluster dfailstatus(-1), set 0."}};
    for (const auto& [flag, line] : flags) {
        poke_words(1, {1, 0, 1});
        const Bytes expected = region_with(0, {0, 0, 0});
        const uint32_t nodefail[] = {1, 1, 1};
        log_of_last_call();
        EXPECT_EQ(shmnm_setnpsimu(flag, nodefail, 3), SHMNM_OK);
        EXPECT_THAT(log_of_last_call(),
                    ElementsAre(Enter(set_tag), Information(set_tag, "set node dfailstatus(0). (pri: 0)"),
                                Information(set_tag, "set node dfailstatus(0). (pri: 1)"),
                                Information(set_tag, "set node dfailstatus(0). (pri: 2)"), Warning(set_tag, line),
                                Exit(set_tag, SHMNM_OK)));
        EXPECT_EQ(region_bytes(), expected);
    }
}

TEST_F(PartitionSimulation, SetsOnlyTheClusterWhenThereIsNoServer) {
    const Bytes on = region_with(1, {}), off = region_bytes();
    const uint32_t nodefail[] = {1, 1};
    EXPECT_EQ(shmnm_setnpsimu(1, nodefail, 2), SHMNM_OK);
    EXPECT_THAT(log_of_last_call(), ElementsAre(Enter(set_tag), Information(set_tag, "set cluster dfailstatus(1)."),
                                                Exit(set_tag, SHMNM_OK)));
    EXPECT_EQ(region_bytes(), on);
    EXPECT_EQ(shmnm_setnpsimu(0, nodefail, 2), SHMNM_OK);
    EXPECT_THAT(log_of_last_call(), ElementsAre(Enter(set_tag), Information(set_tag, "set cluster dfailstatus(0)."),
                                                Exit(set_tag, SHMNM_OK)));
    EXPECT_EQ(region_bytes(), off);
}

TEST_F(PartitionSimulation, WritesTheClusterLastAfterAllServers) {
    add_servers({0, 1, 2});
    const uint32_t nodefail[] = {1, 1, 1};
    for (const uint32_t flag : {1u, 0u}) {
        std::vector<std::vector<uint32_t>> words_at_line;
        fake.on_line = [&](const fakes::LogLine&) {
            words_at_line.push_back(
                {word_at(cluster_word), word_at(node_words[0]), word_at(node_words[1]), word_at(node_words[2])});
        };
        EXPECT_EQ(shmnm_setnpsimu(flag, nodefail, 3), SHMNM_OK);
        fake.on_line = nullptr;
        ASSERT_EQ(words_at_line.size(), 6u);
        for (size_t line = 0; line < 4; ++line) EXPECT_EQ(words_at_line[line][0], 1 - flag) << "line " << line;
        const std::vector<uint32_t>& at_cluster_line = words_at_line[4];
        for (size_t node = 1; node < 4; ++node) EXPECT_EQ(at_cluster_line[node], flag);
        EXPECT_THAT(words_at_line[5], ElementsAre(flag, flag, flag, flag));
    }
}

TEST_F(PartitionSimulation, LeavesUnusedServerRecordsAlone) {
    add_servers({0, 1});
    poke_words(0, {0, 0, 9});
    const Bytes expected = region_with(1, {1, 1, 9});
    const uint32_t nodefail[] = {1, 1, 1};
    EXPECT_EQ(shmnm_setnpsimu(1, nodefail, 3), SHMNM_OK);
    EXPECT_EQ(region_bytes(), expected);
}

TEST_F(PartitionSimulation, StartsAtZeroForANewServer) {
    add_servers({0});
    const uint32_t nodefail[] = {1, 1};
    ASSERT_EQ(shmnm_setnpsimu(1, nodefail, 2), SHMNM_OK);
    ASSERT_EQ(shmnm_addnode("beta", 1), SHMNM_OK);
    EXPECT_EQ(word_at(node_words[0]), 1u);
    EXPECT_EQ(word_at(node_words[1]), 0u);
    ASSERT_EQ(shmnm_rmnode("alpha"), SHMNM_OK);
    ASSERT_EQ(shmnm_addnode("alpha", 0), SHMNM_OK);
    GuardedBuffer<uint32_t> read(2, 91, 92);
    uint32_t flag = 91;
    EXPECT_EQ(shmnm_getnpsimu(&flag, read.data(), 2), SHMNM_OK);
    EXPECT_THAT(read.content(), ElementsAre(0u, 0u)) << "the place of the removed server was left zeroed";
}

TEST_F(PartitionSimulation, IsReadBackByPriority) {
    add_servers({2, 0, 1});
    const uint32_t nodefail[] = {0, 1, 1};
    ASSERT_EQ(shmnm_setnpsimu(1, nodefail, 3), SHMNM_OK);
    const Bytes before = region_bytes();
    log_of_last_call();
    GuardedBuffer<uint32_t> read(5, 91, 92);
    uint32_t flag = 93;
    EXPECT_EQ(shmnm_getnpsimu(&flag, read.data(), 5), SHMNM_OK);
    EXPECT_THAT(log_of_last_call(), ElementsAre(Enter(get_tag), Exit(get_tag, SHMNM_OK)));
    EXPECT_EQ(flag, 1u);
    EXPECT_THAT(read.content(), ElementsAre(0u, 1u, 1u, 0u, 0u)) << "places that no server has are 0";
    EXPECT_TRUE(read.guards_are_whole());
    EXPECT_EQ(region_bytes(), before);
}

TEST_F(PartitionSimulation, LeavesTheArrayAsItIsWhileItIsOff) {
    add_servers({0, 1, 2});
    for (const uint32_t cluster : {0u, 2u, 0xFFFFFFFFu}) {
        poke_words(cluster, {1, 1, 1});
        GuardedBuffer<uint32_t> read({91, 92, 93, 94}, 95);
        uint32_t flag = 96;
        log_of_last_call();
        EXPECT_EQ(shmnm_getnpsimu(&flag, read.data(), 4), SHMNM_OK);
        EXPECT_THAT(log_of_last_call(), ElementsAre(Enter(get_tag), Exit(get_tag, SHMNM_OK)));
        EXPECT_EQ(flag, cluster);
        EXPECT_THAT(read.content(), ElementsAre(91u, 92u, 93u, 94u));
        EXPECT_TRUE(read.guards_are_whole());
        flag = 96;
        EXPECT_EQ(shmnm_getnpsimuflag(&flag), SHMNM_OK);
        EXPECT_EQ(flag, cluster);
    }
}

TEST_F(PartitionSimulation, SkipsAServerWhosePriorityIsBeyondTheArray) {
    add_servers({0, 3, 1});
    poke_words(1, {1, 1, 0});
    GuardedBuffer<uint32_t> read(3, 91, 92);
    uint32_t flag = 93;
    EXPECT_EQ(shmnm_getnpsimu(&flag, read.data(), 3), SHMNM_OK);
    EXPECT_THAT(log_of_last_call(),
                ElementsAre(Enter(get_tag), Warning(get_tag, "invalid node priority(3), ignore. (stat: 1)"),
                            Exit(get_tag, SHMNM_OK)));
    EXPECT_EQ(flag, 1u);
    EXPECT_THAT(read.content(), ElementsAre(1u, 0u, 0u));
    EXPECT_TRUE(read.guards_are_whole());
}

TEST_F(PartitionSimulation, WritesNothingOutsideTheArrayForANegativeOrLargePriority) {
    add_servers({-1, INT32_MAX, INT32_MIN});
    poke_words(1, {1, 0xFFFFFFFF, 7});
    GuardedBuffer<uint32_t> read(3, 91, 92);
    uint32_t flag = 93;
    EXPECT_EQ(shmnm_getnpsimu(&flag, read.data(), 3), SHMNM_OK);
    EXPECT_THAT(log_of_last_call(),
                ElementsAre(Enter(get_tag), Warning(get_tag, "invalid node priority(-1), ignore. (stat: 1)"),
                            Warning(get_tag, "invalid node priority(2147483647), ignore. (stat: -1)"),
                            Warning(get_tag, "invalid node priority(-2147483648), ignore. (stat: 7)"),
                            Exit(get_tag, SHMNM_OK)));
    EXPECT_EQ(flag, 1u);
    EXPECT_THAT(read.content(), ElementsAre(0u, 0u, 0u));
    EXPECT_TRUE(read.guards_are_whole());
}

TEST_F(PartitionSimulation, ReturnsTheLaterOfTwoServersWithOnePriority) {
    add_servers({0, 1, 1});
    poke_words(1, {0, 1, 0});
    uint32_t read[] = {91, 92, 93}, flag = 94;
    EXPECT_EQ(shmnm_getnpsimu(&flag, read, 3), SHMNM_OK);
    EXPECT_THAT(read, ElementsAre(0u, 0u, 0u));
    poke_words(1, {0, 0, 1});
    EXPECT_EQ(shmnm_getnpsimu(&flag, read, 3), SHMNM_OK);
    EXPECT_THAT(read, ElementsAre(0u, 1u, 0u));
}

TEST_F(PartitionSimulation, ReturnsAnyValueThatTheServersWordHolds) {
    add_servers({0});
    poke_words(1, {0xCAFEBABE});
    uint32_t read[] = {91}, flag = 92;
    EXPECT_EQ(shmnm_getnpsimu(&flag, read, 1), SHMNM_OK);
    EXPECT_THAT(read, ElementsAre(0xCAFEBABEu));
}

TEST_F(PartitionSimulation, CannotBeReadIntoAMissingOrShortArray) {
    add_servers({0, 1, 2});
    poke_words(1, {1, 1, 1});
    const Bytes before = region_bytes();
    GuardedBuffer<uint32_t> read(4, 91, 92);
    uint32_t flag = 93;
    const std::pair<uint32_t*, int32_t> refused[] = {{nullptr, 4},          {nullptr, 0},     {nullptr, -1},
                                                     {read.data(), 2},      {read.data(), 0}, {read.data(), -1},
                                                     {read.data(), INT_MIN}};
    for (const auto& [nodefail, count] : refused) {
        log_of_last_call();
        EXPECT_EQ(shmnm_getnpsimu(&flag, nodefail, count), SHMNM_ERR_PARAM) << count;
        EXPECT_THAT(log_of_last_call(),
                    ElementsAre(Enter(get_tag), Error(get_tag, "invalid param"), Exit(get_tag, SHMNM_ERR_PARAM)));
    }
    poke_words(0, {1, 1, 1});
    EXPECT_EQ(shmnm_getnpsimu(&flag, read.data(), 2), SHMNM_ERR_PARAM) << "also while it is off";
    EXPECT_EQ(shmnm_getnpsimu(&flag, nullptr, 4), SHMNM_ERR_PARAM);
    poke_words(1, {1, 1, 1});
    EXPECT_EQ(flag, 93u);
    EXPECT_THAT(read.content(), ElementsAre(91u, 91u, 91u, 91u));
    EXPECT_TRUE(read.guards_are_whole());
    EXPECT_EQ(region_bytes(), before);
}

TEST_F(PartitionSimulation, AcceptsAnEmptyArrayWhenThereIsNoServer) {
    GuardedBuffer<uint32_t> read(1, 91, 92);
    for (const uint32_t cluster : {0u, 1u}) {
        poke_words(cluster, {});
        uint32_t flag = 93;
        log_of_last_call();
        EXPECT_EQ(shmnm_getnpsimu(&flag, read.data(), 0), SHMNM_OK);
        EXPECT_THAT(log_of_last_call(), ElementsAre(Enter(get_tag), Exit(get_tag, SHMNM_OK)));
        EXPECT_EQ(flag, cluster);
        EXPECT_THAT(read.content(), ElementsAre(91u));
        EXPECT_EQ(shmnm_getnpsimu(&flag, read.data(), -1), SHMNM_ERR_PARAM);
    }
    uint32_t flag = 93;
    EXPECT_EQ(shmnm_getnpsimu(&flag, read.data(), 1), SHMNM_OK);
    EXPECT_THAT(read.content(), ElementsAre(0u)) << "filled with 0 while it is on, though there is no server";
    EXPECT_TRUE(read.guards_are_whole());
}

TEST_F(PartitionSimulation, CanBeReadWithoutTheFlag) {
    add_servers({0, 1});
    poke_words(1, {1, 1});
    uint32_t read[] = {91, 92, 93};
    EXPECT_EQ(shmnm_getnpsimu(nullptr, read, 3), SHMNM_OK);
    EXPECT_THAT(log_of_last_call(), ElementsAre(Enter(get_tag), Exit(get_tag, SHMNM_OK)));
    EXPECT_THAT(read, ElementsAre(1u, 1u, 0u));
    EXPECT_EQ(shmnm_getnpsimuflag(nullptr), SHMNM_OK);
    EXPECT_THAT(log_of_last_call(), ElementsAre(Enter(flag_tag), Exit(flag_tag, SHMNM_OK)));
    EXPECT_EQ(shmnm_getnpsimu(nullptr, nullptr, 3), SHMNM_ERR_PARAM);
}

TEST_F(PartitionSimulation, IsOffAgainAfterAClear) {
    add_servers({0, 1});
    const uint32_t nodefail[] = {1, 1};
    ASSERT_EQ(shmnm_setnpsimu(1, nodefail, 2), SHMNM_OK);
    ASSERT_EQ(shmnm_clear(), SHMNM_OK);
    uint32_t flag = 91;
    EXPECT_EQ(shmnm_getnpsimuflag(&flag), SHMNM_OK);
    EXPECT_EQ(flag, 0u);
    EXPECT_EQ(word_at(node_words[0]), 0u);
    EXPECT_EQ(word_at(node_words[1]), 0u);
}

TEST_F(PartitionSimulation, ReportsNotInitBeforeItChecksItsArguments) {
    shmnm_delete();
    log_of_last_call();
    uint32_t flag = 91, read[] = {92, 93};
    EXPECT_EQ(shmnm_setnpsimu(1, read, 2), SHMNM_ERR_NOTINIT);
    EXPECT_EQ(shmnm_getnpsimu(&flag, read, 2), SHMNM_ERR_NOTINIT);
    EXPECT_EQ(shmnm_getnpsimu(nullptr, nullptr, -1), SHMNM_ERR_NOTINIT);
    EXPECT_EQ(shmnm_getnpsimuflag(&flag), SHMNM_ERR_NOTINIT);
    EXPECT_EQ(shmnm_getnpsimuflag(nullptr), SHMNM_ERR_NOTINIT);
    EXPECT_EQ(flag, 91u);
    EXPECT_THAT(read, ElementsAre(92u, 93u));
    EXPECT_THAT(log_of_last_call(), IsEmpty()) << "the log is closed with the region";
}

// ---- a damaged region: the counts say more, or less, than there is ----

class DamagedPartitionSimulation : public PartitionSimulation {
  protected:
    static constexpr size_t visible_servers = 35;  // 1084 + 35 * 320 is 12284, and the view is 12288 bytes

    /// All that follows the header is 0xFF: priorities of -1, states of 0xFFFFFFFF.
    DamagedPartitionSimulation() {
        EXPECT_EQ(view_size(), 12288u);
        poke(1084, Bytes(12288 - 1084, 0xFF));
        poke_word(28, 1000);
    }
    static std::vector<testing::Matcher<const fakes::LogLine&>> lines(
        const char* tag, const testing::Matcher<const fakes::LogLine&>& each) {
        std::vector<testing::Matcher<const fakes::LogLine&>> expected{Enter(tag)};
        expected.insert(expected.end(), visible_servers, each);
        return expected;
    }
};

TEST_F(DamagedPartitionSimulation, IsSetOnlyForServersInTheView) {
    Bytes expected = region_bytes();
    expected[60] = 1;
    for (size_t i = 0; i < visible_servers; ++i) {
        for (size_t byte = 0; byte < 4; ++byte) expected[1084 + 320 * i + 288 + byte] = 0;
    }
    auto log = lines(set_tag, Information(set_tag, "set node dfailstatus(0). (pri: -1)"));
    log.push_back(Information(set_tag, "set cluster dfailstatus(1)."));
    log.push_back(Exit(set_tag, SHMNM_OK));
    GuardedBuffer<uint32_t> nodefail({1}, 1);
    EXPECT_EQ(shmnm_setnpsimu(1, nodefail.data(), 1), SHMNM_OK);
    EXPECT_THAT(log_of_last_call(), ElementsAreArray(log));
    EXPECT_EQ(region_bytes(), expected);
}

TEST_F(DamagedPartitionSimulation, IsReadOnlyFromServersInTheView) {
    poke_word(60, 1);
    for (size_t i = 0; i < visible_servers; ++i) poke_word(1084 + 320 * i + 256, static_cast<uint32_t>(i + 1));
    const Bytes before = region_bytes();
    GuardedBuffer<uint32_t> read(1000, 91, 92);
    uint32_t flag = 93;
    EXPECT_EQ(shmnm_getnpsimu(&flag, read.data(), 999), SHMNM_ERR_PARAM) << "the count in the header decides";
    log_of_last_call();
    EXPECT_EQ(shmnm_getnpsimu(&flag, read.data(), 1000), SHMNM_OK);
    EXPECT_THAT(log_of_last_call(), ElementsAre(Enter(get_tag), Exit(get_tag, SHMNM_OK)));
    std::vector<uint32_t> expected(1000, 0);
    std::fill_n(expected.begin() + 1, visible_servers, 0xFFFFFFFFu);
    EXPECT_EQ(read.content(), expected);
    EXPECT_TRUE(read.guards_are_whole());
    EXPECT_EQ(region_bytes(), before);
}

TEST_F(DamagedPartitionSimulation, HasNoServersWhenTheirCountIsNegative) {
    poke_word(28, 0x80000000);
    Bytes expected = region_bytes();
    expected[60] = 1;
    const uint32_t nodefail[] = {1};
    EXPECT_EQ(shmnm_setnpsimu(1, nodefail, 1), SHMNM_OK);
    EXPECT_THAT(log_of_last_call(), ElementsAre(Enter(set_tag), Information(set_tag, "set cluster dfailstatus(1)."),
                                                Exit(set_tag, SHMNM_OK)));
    EXPECT_EQ(region_bytes(), expected);
    GuardedBuffer<uint32_t> read(1, 91, 92);
    uint32_t flag = 93;
    EXPECT_EQ(shmnm_getnpsimu(&flag, read.data(), -1), SHMNM_OK) << "-1 is not below the count";
    EXPECT_EQ(flag, 1u);
    EXPECT_THAT(read.content(), ElementsAre(91u));
    EXPECT_TRUE(read.guards_are_whole());
}

}  // namespace
