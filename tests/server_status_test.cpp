// The states of a server: six words set and read by its name, the state combined of them, and whether any server is
// alive.
#include <optional>

#include "guarded_buffer.h"
#include "region_expectations.h"

namespace {

using fakes::Enter;
using fakes::Exit;
using fakes::Information;
using test::Bytes;
using test::Fails;
using test::GuardedBuffer;
using test::Succeeds;
using testing::ElementsAre;
using testing::IsEmpty;

/// Four servers at most.
class ServerStatus : public test::RegionTest {
  protected:
    ServerStatus() { map_region({.servers = 4, .hb = 1, .np = 1}); }

    static constexpr size_t server(size_t position) { return 1084 + 320 * position; }

    void add_servers() {
        ASSERT_EQ(shmnm_addnode("alpha", 10), SHMNM_OK);
        ASSERT_EQ(shmnm_addnode("beta", 20), SHMNM_OK);
        ASSERT_EQ(shmnm_addnode("gamma", 30), SHMNM_OK);
        log_of_last_call();
    }
};

// ---- the six words ----

struct Word {
    uint32_t (*set)(const char*, uint32_t);
    uint32_t (*get)(const char*, uint32_t*);
    const char* set_tag;
    const char* get_tag;
    size_t offset;   ///< in the record
    uint32_t first;  ///< in a new record
    const char* field;
};

class ServerWords : public ServerStatus, public testing::WithParamInterface<Word> {
  protected:
    const Word& word() const { return GetParam(); }
};

INSTANTIATE_TEST_SUITE_P(
    Of, ServerWords,
    testing::Values(Word{shmnm_setnodestat, shmnm_getnodestat, "_setnodestat", "_getnodestat", 260, 2, "nodestat"},
                    Word{shmnm_setnodestat_nw, shmnm_getnodestat_nw, "_setnodestat_nw", "_getnodestat_nw", 264, 2,
                         "nodestat_nw"},
                    Word{shmnm_setdownnotifystat, shmnm_getdownnotifystat, "shmnm_setdownnotifystat",
                         "shmnm_getdownnotifystat", 268, 0, "downnotifystat"},
                    Word{shmnm_setisolateflag, shmnm_getisolateflag, "shmnm_setisolateflag", "shmnm_getisolateflag",
                         276, 0, "isolateflag"},
                    Word{shmnm_setpingstat, shmnm_getpingstat, "_setpingstat", "_getpingstat", 280, 0, "pingstat"},
                    Word{shmnm_setholdstat, shmnm_getholdstat, "_setholdstat", "_getholdstat", 284, 0, "holdstat"}),
    [](const auto& instance) { return std::string(instance.param.field); });

TEST_P(ServerWords, HaveTheirInitialValuesInANewServer) {
    ASSERT_EQ(shmnm_addnode("alpha", 10), SHMNM_OK);
    uint32_t value = 91;
    EXPECT_EQ(word().get("alpha", &value), SHMNM_OK);
    EXPECT_EQ(value, word().first);
}

TEST_P(ServerWords, StoreAnyValueAndReturnIt) {
    add_servers();
    const char* const names[] = {"alpha", "beta", "gamma"};
    for (size_t position = 0; position < 3; ++position) {
        for (const uint32_t value : {0u, 1u, 2u, 3u, 0x7FFFFFFFu, 0x80000000u, 0xFFFFFFFFu, 0xA1B2C3D4u}) {
            Bytes expected = region_bytes();
            test::put_word(expected, server(position) + word().offset, value);
            log_of_last_call();
            EXPECT_EQ(word().set(names[position], value), SHMNM_OK);
            EXPECT_THAT(log_of_last_call(), Succeeds(word().set_tag));
            EXPECT_EQ(region_bytes(), expected);
            GuardedBuffer<uint32_t> read({~value}, 92);
            EXPECT_EQ(word().get(names[position], read.data()), SHMNM_OK);
            EXPECT_THAT(log_of_last_call(), Succeeds(word().get_tag));
            EXPECT_THAT(read.content(), ElementsAre(value));
            EXPECT_TRUE(read.guards_are_whole());
            EXPECT_EQ(region_bytes(), expected);
        }
    }
}

TEST_P(ServerWords, MoveWithTheirServer) {
    add_servers();
    ASSERT_EQ(word().set("gamma", 0x1234), SHMNM_OK);
    ASSERT_EQ(shmnm_rmnode("alpha"), SHMNM_OK);
    uint32_t value = 91;
    EXPECT_EQ(word().get("gamma", &value), SHMNM_OK);
    EXPECT_EQ(value, 0x1234u);
    EXPECT_EQ(word_at(server(1) + word().offset), 0x1234u);
}

TEST_P(ServerWords, AreThoseOfTheFirstServerOfThatName) {
    add_servers();
    poke(server(2), {'b', 'e', 't', 'a', 0});
    Bytes expected = region_bytes();
    test::put_word(expected, server(1) + word().offset, 7);
    EXPECT_EQ(word().set("beta", 7), SHMNM_OK);
    EXPECT_EQ(region_bytes(), expected);
    poke_word(server(2) + word().offset, 8);
    uint32_t value = 91;
    EXPECT_EQ(word().get("beta", &value), SHMNM_OK);
    EXPECT_EQ(value, 7u);
}

TEST_P(ServerWords, AreNotFoundWithoutAServerOfExactlyThatName) {
    const auto expect_not_found = [this](const std::string& name) {
        const Bytes before = region_bytes();
        const std::string line = "name:" + name + " not found";
        uint32_t value = 91;
        log_of_last_call();
        EXPECT_EQ(word().set(name.c_str(), 5), SHMNM_ERR_NOTFOUND);
        EXPECT_THAT(log_of_last_call(), Fails(word().set_tag, line, SHMNM_ERR_NOTFOUND));
        EXPECT_EQ(word().get(name.c_str(), &value), SHMNM_ERR_NOTFOUND);
        EXPECT_THAT(log_of_last_call(), Fails(word().get_tag, line, SHMNM_ERR_NOTFOUND));
        EXPECT_EQ(value, 91u);
        EXPECT_EQ(region_bytes(), before);
    };
    for (const char* const name : {"alpha", ""}) expect_not_found(name);
    add_servers();
    for (const char* const name : {"delta", "ALPHA", "Alpha", "alph", "alpha2", "", "%s%n"}) expect_not_found(name);
    expect_not_found(std::string(300, 'a'));
}

TEST_P(ServerWords, NeedANameAndAnOutput) {
    add_servers();
    const Bytes before = region_bytes();
    uint32_t value = 91;
    EXPECT_EQ(word().set(nullptr, 5), SHMNM_ERR_PARAM);
    EXPECT_THAT(log_of_last_call(), Fails(word().set_tag, "invalid param", SHMNM_ERR_PARAM));
    const std::pair<const char*, uint32_t*> refused[] = {
        {nullptr, &value}, {"alpha", nullptr}, {"delta", nullptr}, {nullptr, nullptr}};
    for (const auto& [name, place] : refused) {
        EXPECT_EQ(word().get(name, place), SHMNM_ERR_PARAM);
        EXPECT_THAT(log_of_last_call(), Fails(word().get_tag, "invalid param", SHMNM_ERR_PARAM));
    }
    EXPECT_EQ(value, 91u);
    EXPECT_EQ(region_bytes(), before);
}

TEST_P(ServerWords, ReportNotInitFirstAndLogNothing) {
    shmnm_delete();
    log_of_last_call();
    uint32_t value = 91;
    EXPECT_EQ(word().set(nullptr, 5), SHMNM_ERR_NOTINIT);
    EXPECT_EQ(word().set("alpha", 5), SHMNM_ERR_NOTINIT);
    EXPECT_EQ(word().get(nullptr, nullptr), SHMNM_ERR_NOTINIT);
    EXPECT_EQ(word().get("alpha", &value), SHMNM_ERR_NOTINIT);
    EXPECT_EQ(value, 91u);
    EXPECT_THAT(log_of_last_call(), IsEmpty());
}

// ---- the combined state ----

/// Any of these states, waits and flags give this value, or leave the caller's.
struct Combination {
    std::vector<uint32_t> nodestat, waitstat, isolateflag;
    std::optional<uint32_t> combined;
};

TEST_F(ServerStatus, CombinesTheStateTheWaitAndTheIsolation) {
    add_servers();
    const std::vector<uint32_t> any{0, 1, 2, 5, 0x80000000, 0xFFFFFFFF};
    const Combination combinations[] = {
        {{1}, {0, 1}, {0}, 1},
        {{1}, {0, 1}, {1}, 16},
        {{1}, {0, 1}, {2, 3, 5, 16, 0x80000000, 0xFFFFFFFF}, std::nullopt},
        {{1}, {2}, any, 65538},
        {{1}, {3, 4, 5, 0x7FFFFFFF, 0x80000000, 0xFFFFFFFF}, any, 9},
        {{2}, {0, 3}, any, 2},
        {{2}, {2}, any, 65538},
        {{2}, {1, 4, 5, 0x7FFFFFFF, 0x80000000, 0xFFFFFFFF}, any, 9},
        {{0, 3, 4, 9, 0x101, 0x80000001, 0xFFFFFFFF}, {0, 1, 2, 3, 4, 0xFFFFFFFF}, any, 9},
    };
    for (const auto& [nodestats, waitstats, isolateflags, combined] : combinations) {
        for (const uint32_t nodestat : nodestats) {
            ASSERT_EQ(shmnm_setnodestat("beta", nodestat), SHMNM_OK);
            for (const uint32_t waitstat : waitstats) {
                ASSERT_EQ(shmnm_setwaitstat(waitstat), SHMNM_OK);
                for (const uint32_t isolateflag : isolateflags) {
                    ASSERT_EQ(shmnm_setisolateflag("beta", isolateflag), SHMNM_OK);
                    GuardedBuffer<uint32_t> state({0xC0FFEE}, 92);
                    log_of_last_call();
                    EXPECT_EQ(shmnm_getnodecombstat("beta", state.data()), SHMNM_OK);
                    EXPECT_THAT(log_of_last_call(), Succeeds("_getnodecombstat"));
                    EXPECT_THAT(state.content(), ElementsAre(combined.value_or(0xC0FFEE)))
                        << "nodestat " << nodestat << ", waitstat " << waitstat << ", isolateflag " << isolateflag;
                    EXPECT_TRUE(state.guards_are_whole());
                }
            }
        }
    }
}

TEST_F(ServerStatus, IsCombinedWithoutChangingAnything) {
    add_servers();
    ASSERT_EQ(shmnm_setnodestat("alpha", 1), SHMNM_OK);
    const Bytes before = region_bytes();
    uint32_t alpha = 91, beta = 92;
    EXPECT_EQ(shmnm_getnodecombstat("alpha", &alpha), SHMNM_OK);
    EXPECT_EQ(shmnm_getnodecombstat("beta", &beta), SHMNM_OK);
    EXPECT_EQ(alpha, 1u);
    EXPECT_EQ(beta, 2u);
    EXPECT_EQ(region_bytes(), before);
}

TEST_F(ServerStatus, NeedsAServerAndAnOutput) {
    uint32_t state = 91;
    EXPECT_EQ(shmnm_getnodecombstat("alpha", &state), SHMNM_ERR_NOTFOUND);
    EXPECT_THAT(log_of_last_call(), Fails("_getnodecombstat", "name:alpha not found", SHMNM_ERR_NOTFOUND));
    add_servers();
    const Bytes before = region_bytes();
    EXPECT_EQ(shmnm_getnodecombstat("Alpha", &state), SHMNM_ERR_NOTFOUND);
    EXPECT_THAT(log_of_last_call(), Fails("_getnodecombstat", "name:Alpha not found", SHMNM_ERR_NOTFOUND));
    const std::pair<const char*, uint32_t*> refused[] = {
        {nullptr, &state}, {"alpha", nullptr}, {"delta", nullptr}, {nullptr, nullptr}};
    for (const auto& [name, place] : refused) {
        EXPECT_EQ(shmnm_getnodecombstat(name, place), SHMNM_ERR_PARAM);
        EXPECT_THAT(log_of_last_call(), Fails("_getnodecombstat", "invalid param", SHMNM_ERR_PARAM));
    }
    EXPECT_EQ(state, 91u);
    EXPECT_EQ(region_bytes(), before);
}

// ---- is anyone alive? ----

class Liveness : public ServerStatus {
  protected:
    static constexpr const char* tag = "shmnm_chkalivesv";

    /// The line shows the pointer that the caller passed, as a signed number of 32 bits, and not the flag behind it.
    static testing::Matcher<const test::Lines&> TellsThePointer(const char* name, const uint32_t* flag) {
        const std::string whom = name ? std::string("flag(") + name + "):" : "flag:";
        const auto shown = static_cast<int32_t>(reinterpret_cast<uintptr_t>(flag));
        return ElementsAre(Enter(tag), Information(tag, whom + std::to_string(shown)), Exit(tag, SHMNM_OK));
    }
    /// Whether a server other than `name` is alive.
    uint32_t alive_without(const char* name) {
        const Bytes before = region_bytes();
        GuardedBuffer<uint32_t> flag({91}, 92);
        log_of_last_call();
        EXPECT_EQ(shmnm_chkalivesv(name, flag.data()), SHMNM_OK);
        EXPECT_THAT(log_of_last_call(), TellsThePointer(name, flag.data()));
        EXPECT_TRUE(flag.guards_are_whole());
        EXPECT_EQ(region_bytes(), before);
        return *flag.data();
    }
};

TEST_F(Liveness, IsFalseInAnEmptyTable) {
    EXPECT_EQ(alive_without(nullptr), 0u);
    EXPECT_EQ(alive_without("alpha"), 0u);
    EXPECT_EQ(alive_without(""), 0u);
}

TEST_F(Liveness, IsThatOfTheOnlyServerUnlessItIsExcluded) {
    ASSERT_EQ(shmnm_addnode("alpha", 10), SHMNM_OK);
    EXPECT_EQ(alive_without(nullptr), 0u) << "a new server is not alive";
    ASSERT_EQ(shmnm_setnodestat("alpha", 1), SHMNM_OK);
    EXPECT_EQ(alive_without(nullptr), 1u);
    EXPECT_EQ(alive_without("alpha"), 0u);
    for (const char* const other : {"beta", "Alpha", "alph", "alpha1", ""})
        EXPECT_EQ(alive_without(other), 1u) << other;
}

TEST_F(Liveness, IsFoundAtAnyPosition) {
    add_servers();
    const char* const names[] = {"alpha", "beta", "gamma"};
    for (const char* const alive : names) {
        ASSERT_EQ(shmnm_setnodestat(alive, 1), SHMNM_OK);
        EXPECT_EQ(alive_without(nullptr), 1u);
        for (const char* const excluded : names) EXPECT_EQ(alive_without(excluded), excluded == alive ? 0u : 1u);
        ASSERT_EQ(shmnm_setnodestat(alive, 2), SHMNM_OK);
    }
    ASSERT_EQ(shmnm_setnodestat("alpha", 1), SHMNM_OK);
    ASSERT_EQ(shmnm_setnodestat("gamma", 1), SHMNM_OK);
    for (const char* const excluded : names) EXPECT_EQ(alive_without(excluded), 1u);
}

TEST_F(Liveness, NeedsAStateOfExactlyOne) {
    add_servers();
    for (const uint32_t state : {0u, 2u, 3u, 0x101u, 0x10001u, 0x80000001u, 0xFFFFFFFFu}) {
        ASSERT_EQ(shmnm_setnodestat("beta", state), SHMNM_OK);
        EXPECT_EQ(alive_without(nullptr), 0u) << state;
    }
    ASSERT_EQ(shmnm_setnodestat("beta", 2), SHMNM_OK);
    ASSERT_EQ(shmnm_setnodestat_nw("beta", 1), SHMNM_OK);
    ASSERT_EQ(shmnm_setisolateflag("beta", 1), SHMNM_OK);
    ASSERT_EQ(shmnm_setpingstat("beta", 1), SHMNM_OK);
    EXPECT_EQ(alive_without(nullptr), 0u);
}

TEST_F(Liveness, IgnoresEveryServerOfTheExcludedName) {
    add_servers();
    poke(server(2), {'b', 'e', 't', 'a', 0});
    poke_word(server(1) + 260, 1);
    poke_word(server(2) + 260, 1);
    EXPECT_EQ(alive_without("beta"), 0u);
    EXPECT_EQ(alive_without(nullptr), 1u);
}

TEST_F(Liveness, IgnoresUnusedRecords) {
    add_servers();
    poke_word(server(3) + 260, 1);
    EXPECT_EQ(alive_without(nullptr), 0u);
}

TEST_F(Liveness, LogsTheExcludedNameUnchanged) {
    ASSERT_EQ(shmnm_addnode("100%d%s%n", 10), SHMNM_OK);
    ASSERT_EQ(shmnm_setnodestat("100%d%s%n", 1), SHMNM_OK);
    EXPECT_EQ(alive_without("100%d%s%n"), 0u);
}

TEST_F(Liveness, NeedsAnOutputForTheFlag) {
    add_servers();
    const Bytes before = region_bytes();
    for (const char* const name : {"alpha", "delta", static_cast<const char*>(nullptr)}) {
        EXPECT_EQ(shmnm_chkalivesv(name, nullptr), SHMNM_ERR_PARAM);
        EXPECT_THAT(log_of_last_call(), Fails(tag, "invalid param", SHMNM_ERR_PARAM));
    }
    EXPECT_EQ(region_bytes(), before);
}

// ---- not mapped ----

TEST_F(ServerStatus, ReportsNotInitFirstAndLogsNothing) {
    shmnm_delete();
    log_of_last_call();
    uint32_t value = 91;
    EXPECT_EQ(shmnm_getnodecombstat(nullptr, nullptr), SHMNM_ERR_NOTINIT);
    EXPECT_EQ(shmnm_getnodecombstat("alpha", &value), SHMNM_ERR_NOTINIT);
    EXPECT_EQ(shmnm_chkalivesv(nullptr, nullptr), SHMNM_ERR_NOTINIT);
    EXPECT_EQ(shmnm_chkalivesv("alpha", &value), SHMNM_ERR_NOTINIT);
    EXPECT_EQ(value, 91u);
    EXPECT_THAT(log_of_last_call(), IsEmpty());
}

}  // namespace
