// The columns of servers in the resource tables: opened for a new server, closed for a removed one, in every record
// and, for hb resources, in every network-wide row.
#include <array>
#include <climits>

#include "resource_twins.h"

namespace {

using test::Bytes;
using testing::IsEmpty;

struct Twin : test::ResourceTableTwin {
    uint32_t (*open)(int32_t);
    uint32_t (*close)(int32_t);
    const char *open_tag, *close_tag;
};

const Twin hb{{test::hb_table}, shmnm_addhbrscsvstat, shmnm_rmhbrscsvstat, "_addhbrscsvstat", "_rmhbrscsvstat"};
const Twin np{{test::np_table}, shmnm_addnprscsvstat, shmnm_rmnprscsvstat, "_addnprscsvstat", "_rmnprscsvstat"};

/// Six servers and three resources of each kind at most, all there; every state differs from all others.
class ServerColumns : public test::ResourceTwins<Twin> {
  protected:
    ServerColumns() {
        for (const auto& [type, name] : {std::pair{"lan", "lan1"}, {"disk", "disk1"}, {"ping", "ping1"}}) {
            EXPECT_EQ(shmnm_addhbrsc(type, name, 1), SHMNM_OK);
            EXPECT_EQ(shmnm_addnprsc(type, name, 1), SHMNM_OK);
        }
        for (size_t position = 0; position < 3; ++position) {
            for (size_t server = 0; server < 6; ++server) {
                poke_word(3004 + 608 * position + 584 + 4 * server, state_of(position, server));
                poke_word(13516 + 608 * position + 584 + 4 * server, state_of(position, server));
                poke_word(network_row(position) + 4 * server, network_state_of(position, server));
            }
        }
        log_of_last_call();
    }
    static uint32_t state_of(size_t position, size_t server) {
        return static_cast<uint32_t>(10 * (position + 1) + server);
    }
    static uint32_t network_state_of(size_t position, size_t server) { return 100 * state_of(position, server); }

    void set_server_count(int32_t count) { poke_word(server_count, static_cast<uint32_t>(count)); }
    auto opening(int32_t index) {
        return [=, this] { return twin().open(index); };
    }
    auto closing(int32_t index) {
        return [=, this] { return twin().close(index); };
    }

    static constexpr int opened = -1;
    /// The region once each row consists of the states that its places had before, or of opened ones.
    Bytes region_with_rows(const std::array<int, 6>& sources) {
        Bytes bytes = region_bytes();
        for (size_t position = 0; position < 3; ++position) {
            for (size_t server = 0; server < 6; ++server) {
                const bool is_opened = sources[server] == opened;
                const auto source = static_cast<size_t>(is_opened ? 0 : sources[server]);
                test::put_word(bytes, server_state(position, server), is_opened ? 2 : state_of(position, source));
                if (!twin().has_network_rows) continue;
                test::put_word(bytes, network_row(position) + 4 * server,
                               is_opened ? 2 : network_state_of(position, source));
            }
        }
        return bytes;
    }
};

INSTANTIATE_TEST_SUITE_P(Of, ServerColumns, testing::Values(hb, np), test::kind_of_instance);

struct Move {
    int32_t servers, index;
    std::array<int, 6> sources;
};

// ---- opening ----

TEST_P(ServerColumns, AreOpenedForTheServerAddedLast) {
    const Move moves[] = {{1, 0, {opened, 1, 2, 3, 4, 5}},
                          {2, 1, {0, opened, 2, 3, 4, 5}},
                          {5, 4, {0, 1, 2, 3, opened, 5}},
                          {6, 5, {0, 1, 2, 3, 4, opened}}};
    const Bytes first = region_bytes();
    for (const auto& [servers, index, sources] : moves) {
        SCOPED_TRACE(index);
        poke(0, first);
        set_server_count(servers);
        expect_success(opening(index), twin().open_tag, region_with_rows(sources));
    }
}

TEST_P(ServerColumns, AreMovedUpForAServerInBetweenButNotIntoTheLastColumn) {
    const Move moves[] = {
        {2, 0, {opened, 1, 2, 3, 4, 5}}, {3, 0, {opened, 0, 2, 3, 4, 5}}, {3, 1, {0, opened, 2, 3, 4, 5}},
        {5, 0, {opened, 0, 1, 2, 4, 5}}, {5, 1, {0, opened, 1, 2, 4, 5}}, {5, 2, {0, 1, opened, 2, 4, 5}},
        {5, 3, {0, 1, 2, opened, 4, 5}}, {6, 0, {opened, 0, 1, 2, 3, 5}}, {6, 3, {0, 1, 2, opened, 3, 5}}};
    const Bytes first = region_bytes();
    for (const auto& [servers, index, sources] : moves) {
        SCOPED_TRACE(testing::Message() << index << " of " << servers);
        poke(0, first);
        set_server_count(servers);
        expect_success(opening(index), twin().open_tag, region_with_rows(sources));
    }
}

TEST_P(ServerColumns, AreNotOpenedAtOrAfterTheServerCount) {
    for (const int32_t servers : {0, 3, 6}) {
        set_server_count(servers);
        for (const int32_t index : {servers, servers + 1, INT32_MAX}) {
            expect_failure(opening(index), twin().open_tag, "invalid index(" + std::to_string(index) + ")",
                           SHMNM_ERR_INDEX);
        }
    }
    set_server_count(-5);
    expect_failure(opening(-5), twin().open_tag, "invalid index(-5)", SHMNM_ERR_INDEX);
    expect_failure(opening(0), twin().open_tag, "invalid index(0)", SHMNM_ERR_INDEX);
}

// ---- closing ----

TEST_P(ServerColumns, AreMovedDownOverTheColumnOfARemovedServer) {
    const Move moves[] = {{5, 0, {1, 2, 3, 4, 5, 5}}, {5, 1, {0, 2, 3, 4, 5, 5}}, {5, 4, {0, 1, 2, 3, 5, 5}},
                          {3, 1, {0, 2, 3, 3, 4, 5}}, {2, 0, {1, 2, 2, 3, 4, 5}}, {1, 0, {1, 1, 2, 3, 4, 5}}};
    const Bytes first = region_bytes();
    for (const auto& [servers, index, sources] : moves) {
        SCOPED_TRACE(testing::Message() << index << " of " << servers);
        poke(0, first);
        set_server_count(servers);
        expect_success(closing(index), twin().close_tag, region_with_rows(sources));
    }
}

TEST_P(ServerColumns, StayUnchangedWhenTheLastServerIsRemoved) {
    for (const int32_t servers : {0, 1, 3, 5, 6}) {
        set_server_count(servers);
        expect_success(closing(servers), twin().close_tag, region_bytes());
    }
}

TEST_P(ServerColumns, AreNotClosedAfterTheServerCount) {
    for (const int32_t servers : {0, 3, 6}) {
        set_server_count(servers);
        for (const int32_t index : {servers + 1, servers + 2, INT32_MAX}) {
            expect_failure(closing(index), twin().close_tag, "invalid index(" + std::to_string(index) + ")",
                           SHMNM_ERR_INDEX);
        }
    }
    set_server_count(-5);
    expect_failure(closing(-4), twin().close_tag, "invalid index(-4)", SHMNM_ERR_INDEX);
}

TEST_P(ServerColumns, TakeTheWordAfterTheirRowWhenNoServerIsRemoved) {
    set_server_count(6);
    poke(record(3), {'n', 'e', 'x', 't'});
    poke_word(network_row(3), 0x7478656F);
    Bytes expected = region_bytes();
    for (size_t position = 0; position < 3; ++position) {
        test::put(expected, server_state(position, 5), test::part(expected, record(position + 1), 4));
        if (!twin().has_network_rows) continue;
        test::put(expected, network_row(position) + 20, test::part(expected, network_row(position + 1), 4));
    }
    expect_success(closing(5), twin().close_tag, expected);
}

// ---- both ----

TEST_P(ServerColumns, MoveWithTheirServersThroughAddsAndARemoval) {
    add_servers();
    for (size_t position = 0; position < 3; ++position) {
        for (size_t server = 0; server < 3; ++server) {
            EXPECT_EQ(word_at(server_state(position, server)), 2u);
            poke_word(server_state(position, server), state_of(position, server));
            poke_word(network_row(position) + 4 * server, network_state_of(position, server));
        }
    }
    ASSERT_EQ(shmnm_rmnode("beta"), SHMNM_OK);
    for (size_t position = 0; position < 3; ++position) {
        EXPECT_EQ(word_at(server_state(position, 0)), state_of(position, 0));
        EXPECT_EQ(word_at(server_state(position, 1)), state_of(position, 2));
        EXPECT_EQ(word_at(server_state(position, 2)), state_of(position, 2)) << "its old place keeps it too";
        EXPECT_EQ(word_at(network_row(position) + 4), network_state_of(position, 2));
        EXPECT_EQ(word_at(network_row(position) + 8), network_state_of(position, 2));
    }
}

TEST_P(ServerColumns, DoNotExistInATableWithoutResources) {
    poke_word(twin().count_at, 0);
    set_server_count(3);
    for (const int32_t index : {INT32_MIN, -1, 0, 1, 2}) {
        expect_success(opening(index), twin().open_tag, region_bytes());
        expect_success(closing(index), twin().close_tag, region_bytes());
    }
    expect_success(closing(3), twin().close_tag, region_bytes());
    expect_failure(opening(3), twin().open_tag, "invalid index(3)", SHMNM_ERR_INDEX);
    expect_failure(closing(4), twin().close_tag, "invalid index(4)", SHMNM_ERR_INDEX);
    poke_word(twin().count_at, 0xFFFFFFFF);
    expect_success(opening(0), twin().open_tag, region_bytes());
    expect_success(closing(0), twin().close_tag, region_bytes());
}

TEST_P(ServerColumns, ExistOnlyForResourcesInUse) {
    poke_word(twin().count_at, 1);
    set_server_count(3);
    Bytes expected = region_bytes();
    test::put_word(expected, server_state(0, 2), 2);
    if (twin().has_network_rows) test::put_word(expected, network_row(0) + 8, 2);
    expect_success(opening(2), twin().open_tag, expected);
    test::put_word(expected, server_state(0, 2), state_of(0, 3));
    if (twin().has_network_rows) test::put_word(expected, network_row(0) + 8, network_state_of(0, 3));
    expect_success(closing(2), twin().close_tag, expected);
}

TEST_P(ServerColumns, AreStoredElsewhereAfterTheMaximumOfServersChanges) {
    ASSERT_EQ(shmnm_setmaxvalue_ex(4, 3, 3), SHMNM_OK);
    set_server_count(3);
    const Bytes before = region_bytes();
    // Now a record has 600 bytes and a row 16; one place moves up, then all move down again.
    Bytes opened_bytes = before;
    for (size_t position = 0; position < 3; ++position) {
        const size_t states = twin().table + 600 * position + 584, row = 26556 + 16 * position;
        test::put(opened_bytes, states + 4, test::part(before, states, 4));
        test::put_word(opened_bytes, states, 2);
        if (!twin().has_network_rows) continue;
        test::put(opened_bytes, row + 4, test::part(before, row, 4));
        test::put_word(opened_bytes, row, 2);
    }
    expect_success(opening(0), twin().open_tag, opened_bytes);
    Bytes closed_bytes = opened_bytes;
    for (size_t position = 0; position < 3; ++position) {
        const size_t states = twin().table + 600 * position + 584, row = 26556 + 16 * position;
        test::put(closed_bytes, states, test::part(opened_bytes, states + 4, 12));
        if (twin().has_network_rows) test::put(closed_bytes, row, test::part(opened_bytes, row + 4, 12));
    }
    expect_success(closing(0), twin().close_tag, closed_bytes);
}

// ---- indexes below 0 ----

TEST_P(ServerColumns, AreOpenedOneWordBeforeTheirRow) {
    set_server_count(5);
    for (size_t position = 0; position < 3; ++position) poke_word(record(position) + 580, 7);
    poke_word(network_row(0) - 4, 8);
    Bytes expected = region_with_rows({0, 0, 1, 2, 4, 5});
    for (size_t position = 0; position < 3; ++position) {
        test::put_words(expected, record(position) + 580, {2, 7});
        if (!twin().has_network_rows) continue;
        // The word in front of a row is the last one of the row before.
        test::put_words(expected, network_row(position) - 4,
                        {2, position == 0 ? 8 : network_state_of(position - 1, 5)});
    }
    expect_success(opening(-1), twin().open_tag, expected);
}

TEST_P(ServerColumns, AreClosedOneWordBeforeTheirRow) {
    set_server_count(5);
    Bytes expected = region_with_rows({1, 2, 3, 4, 5, 5});
    for (size_t position = 0; position < 3; ++position) {
        test::put_word(expected, record(position) + 580, state_of(position, 0));
        if (!twin().has_network_rows) continue;
        test::put_word(expected, network_row(position) - 4, network_state_of(position, 0));
    }
    expect_success(closing(-1), twin().close_tag, expected);
}

TEST_P(ServerColumns, RefuseAnIndexOutsideTheRegion) {
    set_server_count(5);
    for (const int32_t index : {-100'000, INT32_MIN + 1, INT32_MIN}) {
        const std::string line = "invalid index(" + std::to_string(index) + ")";
        expect_failure(opening(index), twin().open_tag, line, SHMNM_ERR_INDEX);
        expect_failure(closing(index), twin().close_tag, line, SHMNM_ERR_INDEX);
    }
}

// ---- not mapped ----

TEST_P(ServerColumns, ReportNotInitFirstAndLogNothing) {
    shmnm_delete();
    log_of_last_call();
    for (const int32_t index : {INT32_MIN, -1, 0, INT32_MAX}) {
        EXPECT_EQ(twin().open(index), SHMNM_ERR_NOTINIT);
        EXPECT_EQ(twin().close(index), SHMNM_ERR_NOTINIT);
    }
    EXPECT_THAT(log_of_last_call(), IsEmpty()) << "the log is closed";
}

class RowsAtTheEndOfTheView : public test::RegionTest {};

TEST_F(RowsAtTheEndOfTheView, AreOpenedOnlyIfTheViewHoldsAllWordsThatMove) {
    map_region({.servers = 6, .hb = 3, .np = 3});
    poke_word(28, 4);
    poke_word(36, 2);
    // The second of two np records ends the view with three words of its row, then with two.
    const auto maximum = static_cast<uint32_t>((view_size() - 13516 - 584 - 584) / 4);
    poke_word(8, maximum - 3);
    EXPECT_EQ(shmnm_addnprscsvstat(0), SHMNM_OK);
    poke_word(8, maximum - 2);
    EXPECT_EQ(shmnm_addnprscsvstat(0), SHMNM_ERR_INDEX);
}

}  // namespace
