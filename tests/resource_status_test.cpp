// The states of hb and np resources: one of the resource itself, one for each server, and all of one type at once.
#include <climits>
#include <numeric>

#include "guarded_buffer.h"
#include "resource_twins.h"

namespace {

using test::Bytes;
using test::FailsSilently;
using test::GuardedBuffer;
using test::Succeeds;
using testing::ElementsAre;
using testing::IsEmpty;

struct Twin : test::ResourceTableTwin {
    uint32_t (*set)(const char*, const char*, uint32_t);
    uint32_t (*get)(const char*, const char*, uint32_t*);
    uint32_t (*set_on_server)(const char*, const char*, int32_t, uint32_t);
    uint32_t (*get_on_server)(const char*, const char*, int32_t, uint32_t*);
    uint32_t (*list_servers)(const char*, const char*, uint32_t*, uint32_t*);
    uint32_t (*list_resources)(const char*, uint32_t*, uint32_t*);
    uint32_t (*set_type)(const char*, uint32_t);
    const char *set_tag, *get_tag, *set_on_server_tag, *get_on_server_tag, *list_servers_tag, *list_resources_tag,
        *set_type_tag;
};

const Twin hb{{test::hb_table},     shmnm_sethbrscstat,    shmnm_gethbrscstat,    shmnm_sethbrscsvstat,
              shmnm_gethbrscsvstat, shmnm_enumhbrscsvstat, shmnm_enumsvhbrscstat, shmnm_settypehbstat,
              "_sethbrscstat",      "_gethbrscstat",       "_sethbrscsvstat",     "_gethbrscsvstat",
              "_enumhbrscsvstat",   "_enumsvhbrscstat",    "_settypehbstat"};
const Twin np{{test::np_table},     shmnm_setnprscstat,    shmnm_getnprscstat,    shmnm_setnprscsvstat,
              shmnm_getnprscsvstat, shmnm_enumnprscsvstat, shmnm_enumsvnprscstat, shmnm_settypenpstat,
              "_setnprscstat",      "_getnprscstat",       "_setnprscsvstat",     "_getnprscsvstat",
              "_enumnprscsvstat",   "_enumsvnprscstat",    "_settypenpstat"};

constexpr uint32_t values[] = {0, 1, 2, 3, 0x7FFFFFFF, 0x80000000, 0xFFFFFFFF, 0xA1B2C3D4};

/// A pair of texts that no resource of ("lan", "one"), ("disk", "one"), ("disk", "disk1") has.
struct Missing {
    const char *type, *name;
    std::string printed;  ///< in a line
};
const Missing missing[] = {
    {"lan", "disk1", "type:lan,name:disk1"}, {"LAN", "one", "type:LAN,name:one"}, {"lan", "One", "type:lan,name:One"},
    {"la", "one", "type:la,name:one"},       {"lan", "on", "type:lan,name:on"},   {"lan", "one1", "type:lan,name:one1"},
    {"", "one", "type:,name:one"},           {"lan", "", "type:lan,name:"},       {nullptr, "lan", "type:-,name:lan"},
    {nullptr, "", "type:-,name:"},           {"-", "one", "type:-,name:one"},     {"%s", "%n%d", "type:%s,name:%n%d"}};

class ResourceStatus : public test::ResourceTwins<Twin> {
  protected:
    void add_resources() {
        add("lan", "one");
        add("disk", "one");
        add("disk", "disk1");
    }
    /// States 10, 11, ... of the first resource, 20, 21, ... of the second, 30, 31, ... of the third.
    void fill_states() {
        for (size_t position = 0; position < 3; ++position) {
            for (size_t server = 0; server < 6; ++server) {
                poke_word(server_state(position, server), static_cast<uint32_t>(10 * (position + 1) + server));
            }
        }
    }
    /// Has a call succeed and change one word.
    template <typename Call>
    void expect_one_word(const Call& call, const char* tag, size_t offset, uint32_t value) {
        Bytes expected = region_bytes();
        test::put_word(expected, offset, value);
        expect_success(call, tag, expected);
    }
    /// Has a getter succeed, write this value alone and change nothing.
    template <typename Get>
    void expect_value(const Get& get, const char* tag, uint32_t value) {
        const Bytes before = region_bytes();
        GuardedBuffer<uint32_t> read({~value}, 92);
        log_of_last_call();
        EXPECT_EQ(get(read.data()), SHMNM_OK);
        EXPECT_THAT(log_of_last_call(), Succeeds(tag));
        EXPECT_THAT(read.content(), ElementsAre(value));
        EXPECT_TRUE(read.guards_are_whole());
        EXPECT_EQ(region_bytes(), before);
    }
};

INSTANTIATE_TEST_SUITE_P(Of, ResourceStatus, testing::Values(hb, np), test::kind_of_instance);

// ---- the state of a resource ----

TEST_P(ResourceStatus, CanBeAnyValueForAResource) {
    add_resources();
    const std::pair<const char*, const char*> pairs[] = {{"lan", "one"}, {"disk", "one"}, {"disk", "disk1"}};
    for (size_t position = 0; position < 3; ++position) {
        const char *const type = pairs[position].first, *const name = pairs[position].second;
        for (const uint32_t value : values) {
            expect_one_word([&] { return twin().set(type, name, value); }, twin().set_tag, state(position), value);
            expect_value([&](uint32_t* read) { return twin().get(type, name, read); }, twin().get_tag, value);
        }
    }
}

TEST_P(ResourceStatus, IsZeroInAnUnusedRecord) {
    add("lan", "one");
    expect_value([&](uint32_t* read) { return twin().get("lan", "one", read); }, twin().get_tag, 0);
}

TEST_P(ResourceStatus, IsThatOfTheFirstResourceOfThatNameWhenTheTypeIsNull) {
    add_resources();
    expect_one_word([&] { return twin().set(nullptr, "one", 5); }, twin().set_tag, state(0), 5);
    expect_one_word([&] { return twin().set(nullptr, "disk1", 6); }, twin().set_tag, state(2), 6);
    expect_value([&](uint32_t* read) { return twin().get(nullptr, "one", read); }, twin().get_tag, 5);
    expect_value([&](uint32_t* read) { return twin().get(nullptr, "disk1", read); }, twin().get_tag, 6);
    expect_value([&](uint32_t* read) { return twin().get("disk", "one", read); }, twin().get_tag, 0);
}

TEST_P(ResourceStatus, IsNotFoundWithoutTheResource) {
    uint32_t read = 91;
    const auto expect_missing = [&] {
        for (const auto& [t, n, printed] : missing) {
            const char *const type = t, *const name = n;
            expect_failure([&] { return twin().set(type, name, 5); }, twin().set_tag, printed + " not found",
                           SHMNM_ERR_NOTFOUND);
            expect_failure([&] { return twin().get(type, name, &read); }, twin().get_tag, printed + " not found",
                           SHMNM_ERR_NOTFOUND);
        }
    };
    expect_missing();
    const Twin& other = twin().has_network_rows ? np : hb;
    ASSERT_EQ(other.add("lan", "disk1", 1), SHMNM_OK);
    add_resources();
    expect_missing();
    EXPECT_EQ(read, 91u);
}

TEST_P(ResourceStatus, IsNotFoundUnderTruncatedTexts) {
    const std::string text(32, 'x'), cut(31, 'x');
    add(text.c_str(), text.c_str());
    expect_failure([&] { return twin().set(text.c_str(), text.c_str(), 5); }, twin().set_tag,
                   "type:" + text + ",name:" + text + " not found", SHMNM_ERR_NOTFOUND);
    expect_failure([&] { return twin().set(nullptr, text.c_str(), 5); }, twin().set_tag,
                   "type:-,name:" + text + " not found", SHMNM_ERR_NOTFOUND);
    expect_one_word([&] { return twin().set(cut.c_str(), cut.c_str(), 5); }, twin().set_tag, state(0), 5);
}

TEST_P(ResourceStatus, NeedsANameAndAnOutput) {
    add_resources();
    uint32_t read = 91;
    for (const char* const type : {"lan", static_cast<const char*>(nullptr)}) {
        expect_failure([&] { return twin().set(type, nullptr, 5); }, twin().set_tag, "invalid param", SHMNM_ERR_PARAM);
        expect_failure([&] { return twin().get(type, nullptr, &read); }, twin().get_tag, "invalid param",
                       SHMNM_ERR_PARAM);
        expect_failure([&] { return twin().get(type, "one", nullptr); }, twin().get_tag, "invalid param",
                       SHMNM_ERR_PARAM);
        expect_failure([&] { return twin().get(type, "two", nullptr); }, twin().get_tag, "invalid param",
                       SHMNM_ERR_PARAM);
    }
    EXPECT_EQ(read, 91u);
}

// ---- its state on a server ----

TEST_P(ResourceStatus, CanBeAnyValueForAResourceOnAServer) {
    add_servers();
    add_resources();
    const std::pair<const char*, const char*> pairs[] = {{"lan", "one"}, {"disk", "one"}, {"disk", "disk1"}};
    const int32_t priorities[] = {10, 20, 30};
    for (size_t position = 0; position < 3; ++position) {
        const char *const type = pairs[position].first, *const name = pairs[position].second;
        for (size_t server = 0; server < 3; ++server) {
            const int32_t svid = priorities[server];
            for (const uint32_t value : values) {
                expect_one_word([&] { return twin().set_on_server(type, name, svid, value); }, twin().set_on_server_tag,
                                server_state(position, server), value);
                expect_value([&](uint32_t* read) { return twin().get_on_server(type, name, svid, read); },
                             twin().get_on_server_tag, value);
            }
        }
    }
}

TEST_P(ResourceStatus, IsInitiallyTwoOnEachServer) {
    ASSERT_EQ(shmnm_addnode("alpha", 10), SHMNM_OK);
    add("lan", "one");
    ASSERT_EQ(shmnm_addnode("beta", 20), SHMNM_OK);
    for (const int32_t svid : {10, 20}) {
        expect_value([&](uint32_t* read) { return twin().get_on_server("lan", "one", svid, read); },
                     twin().get_on_server_tag, 2);
    }
}

TEST_P(ResourceStatus, IsThatOnTheFirstServerOfThePriority) {
    ASSERT_EQ(shmnm_addnode("alpha", 5), SHMNM_OK);
    ASSERT_EQ(shmnm_addnode("beta", 20), SHMNM_OK);
    ASSERT_EQ(shmnm_addnode("gamma", 20), SHMNM_OK);
    add_resources();
    expect_one_word([&] { return twin().set_on_server("disk", "one", 20, 9); }, twin().set_on_server_tag,
                    server_state(1, 1), 9);
    poke_word(server_state(1, 2), 8);
    expect_value([&](uint32_t* read) { return twin().get_on_server("disk", "one", 20, read); },
                 twin().get_on_server_tag, 9);
}

TEST_P(ResourceStatus, AcceptsAnyNumberAsAPriority) {
    const int32_t priorities[] = {INT32_MIN, -1, INT32_MAX};
    for (size_t server = 0; server < 3; ++server) {
        ASSERT_EQ(shmnm_addnode(std::to_string(server).c_str(), priorities[server]), SHMNM_OK);
    }
    add("lan", "one");
    for (size_t server = 0; server < 3; ++server) {
        expect_one_word([&] { return twin().set_on_server("lan", "one", priorities[server], 9); },
                        twin().set_on_server_tag, server_state(0, server), 9);
    }
}

TEST_P(ResourceStatus, IsThatOfTheFirstResourceOnAServerWhenTheTypeIsNull) {
    add_servers();
    add_resources();
    expect_one_word([&] { return twin().set_on_server(nullptr, "one", 30, 5); }, twin().set_on_server_tag,
                    server_state(0, 2), 5);
    expect_value([&](uint32_t* read) { return twin().get_on_server(nullptr, "one", 30, read); },
                 twin().get_on_server_tag, 5);
    expect_value([&](uint32_t* read) { return twin().get_on_server("disk", "one", 30, read); },
                 twin().get_on_server_tag, 2);
}

TEST_P(ResourceStatus, NeedsTheServerEvenIfTheResourceExists) {
    add_servers();
    add_resources();
    const std::pair<int32_t, const char*> unknown[] = {{0, "svid:0"},
                                                       {40, "svid:40"},
                                                       {-10, "svid:-10"},
                                                       {INT32_MIN, "svid:-2147483648"},
                                                       {INT32_MAX, "svid:2147483647"}};
    uint32_t read = 91;
    for (const auto& [number, printed] : unknown) {
        const int32_t svid = number;
        const std::string lan = std::string("type:lan,name:one,") + printed + " not found";
        const std::string any = std::string("type:-,name:one,") + printed + " not found";
        expect_failure([&] { return twin().set_on_server("lan", "one", svid, 5); }, twin().set_on_server_tag, lan,
                       SHMNM_ERR_NOTFOUND);
        expect_failure([&] { return twin().set_on_server(nullptr, "one", svid, 5); }, twin().set_on_server_tag, any,
                       SHMNM_ERR_NOTFOUND);
        expect_failure([&] { return twin().get_on_server("lan", "one", svid, &read); }, twin().get_on_server_tag, lan,
                       SHMNM_ERR_NOTFOUND);
        expect_failure([&] { return twin().get_on_server(nullptr, "one", svid, &read); }, twin().get_on_server_tag, any,
                       SHMNM_ERR_NOTFOUND);
    }
    EXPECT_EQ(read, 91u);
}

TEST_P(ResourceStatus, NeedsTheResourceEvenIfTheServerExists) {
    add_servers();
    uint32_t read = 91;
    const auto expect_missing = [&](int32_t svid) {
        for (const auto& [t, n, printed] : missing) {
            const char *const type = t, *const name = n;
            const std::string line = printed + ",svid:" + std::to_string(svid) + " not found";
            expect_failure([&] { return twin().set_on_server(type, name, svid, 5); }, twin().set_on_server_tag, line,
                           SHMNM_ERR_NOTFOUND);
            expect_failure([&] { return twin().get_on_server(type, name, svid, &read); }, twin().get_on_server_tag,
                           line, SHMNM_ERR_NOTFOUND);
        }
    };
    expect_missing(20);
    add_resources();
    expect_missing(20);
    expect_missing(40);
    EXPECT_EQ(read, 91u);
}

TEST_P(ResourceStatus, NeedsANameButNoOutputOnAServer) {
    add_servers();
    add_resources();
    uint32_t read = 91;
    for (const char* const type : {"lan", static_cast<const char*>(nullptr)}) {
        for (const int32_t svid : {10, 40}) {
            expect_failure([&] { return twin().set_on_server(type, nullptr, svid, 5); }, twin().set_on_server_tag,
                           "invalid param", SHMNM_ERR_PARAM);
            expect_failure([&] { return twin().get_on_server(type, nullptr, svid, &read); }, twin().get_on_server_tag,
                           "invalid param", SHMNM_ERR_PARAM);
        }
    }
    EXPECT_EQ(read, 91u);
    const Bytes before = region_bytes();
    log_of_last_call();
    EXPECT_EQ(twin().get_on_server("lan", "one", 10, nullptr), SHMNM_OK);
    EXPECT_THAT(log_of_last_call(), Succeeds(twin().get_on_server_tag));
    EXPECT_EQ(region_bytes(), before);
    expect_failure([&] { return twin().get_on_server("lan", "two", 10, nullptr); }, twin().get_on_server_tag,
                   "type:lan,name:two,svid:10 not found", SHMNM_ERR_NOTFOUND);
    expect_failure([&] { return twin().get_on_server("lan", "one", 40, nullptr); }, twin().get_on_server_tag,
                   "type:lan,name:one,svid:40 not found", SHMNM_ERR_NOTFOUND);
}

TEST_P(ResourceStatus, IsStoredElsewhereAfterTheMaximumOfServersChanges) {
    add_servers();
    add("lan", "lan1");
    ASSERT_EQ(shmnm_setmaxvalue_ex(9, 3, 3), SHMNM_OK);
    add("disk", "disk1");
    expect_one_word([&] { return twin().set_on_server("lan", "lan1", 20, 5); }, twin().set_on_server_tag,
                    twin().table + 584 + 4, 5);
    expect_one_word([&] { return twin().set_on_server("disk", "disk1", 20, 6); }, twin().set_on_server_tag,
                    twin().table + (584 + 4 * 9) + 584 + 4, 6);
    expect_value([&](uint32_t* read) { return twin().get_on_server("disk", "disk1", 20, read); },
                 twin().get_on_server_tag, 6);
}

// ---- the states of a resource on all servers ----

TEST_P(ResourceStatus, IsListedForAResourceInTheOrderOfTheServers) {
    add_servers();
    add_resources();
    fill_states();
    const Bytes before = region_bytes();
    for (const uint32_t given : {12u, 13u, 16u, 0x7FFFFFFFu, 0x80000000u, 0xFFFFFFFFu}) {
        GuardedBuffer<uint32_t> states(4, 91, 92);
        uint32_t size = given;
        log_of_last_call();
        EXPECT_EQ(twin().list_servers("disk", "one", states.data(), &size), SHMNM_OK);
        EXPECT_THAT(log_of_last_call(), Succeeds(twin().list_servers_tag));
        EXPECT_THAT(states.content(), ElementsAre(20u, 21u, 22u, 91u));
        EXPECT_TRUE(states.guards_are_whole());
        EXPECT_EQ(size, 12u) << "the bytes used";
    }
    EXPECT_EQ(region_bytes(), before);
}

TEST_P(ResourceStatus, IsListedForTheFirstResourceOfThatNameWhenTheTypeIsNull) {
    add_servers();
    add_resources();
    fill_states();
    uint32_t states[3] = {}, size = 12;
    EXPECT_EQ(twin().list_servers(nullptr, "one", states, &size), SHMNM_OK);
    EXPECT_THAT(states, ElementsAre(10u, 11u, 12u));
    EXPECT_EQ(twin().list_servers(nullptr, "disk1", states, &size), SHMNM_OK);
    EXPECT_THAT(states, ElementsAre(30u, 31u, 32u));
}

TEST_P(ResourceStatus, IsMeasuredForAResourceWhetherItExistsOrNot) {
    uint32_t size = 91;
    EXPECT_EQ(twin().list_servers("lan", "one", nullptr, &size), SHMNM_OK);
    EXPECT_EQ(size, 0u) << "no server";
    add_servers();
    add("lan", "one");
    const Bytes before = region_bytes();
    for (const char* const name : {"one", "two", ""}) {
        size = 91;
        log_of_last_call();
        EXPECT_EQ(twin().list_servers("lan", name, nullptr, &size), SHMNM_OK);
        EXPECT_THAT(log_of_last_call(), Succeeds(twin().list_servers_tag));
        EXPECT_EQ(size, 12u);
    }
    EXPECT_EQ(region_bytes(), before);
}

TEST_P(ResourceStatus, IsNotListedForAResourceInAShortBufferWhetherItExistsOrNot) {
    add_servers();
    add_resources();
    fill_states();
    for (const char* const name : {"one", "two"}) {
        for (const uint32_t given : {0u, 4u, 8u, 11u}) {
            GuardedBuffer<uint32_t> states(3, 91, 92);
            uint32_t size = given;
            log_of_last_call();
            EXPECT_EQ(twin().list_servers("lan", name, states.data(), &size), SHMNM_ERR_BUFFER);
            EXPECT_THAT(log_of_last_call(), FailsSilently(twin().list_servers_tag, SHMNM_ERR_BUFFER));
            EXPECT_THAT(states.content(), ElementsAre(91u, 91u, 91u));
            EXPECT_TRUE(states.guards_are_whole());
            EXPECT_EQ(size, given);
        }
    }
}

TEST_P(ResourceStatus, IsNotListedWithoutTheResource) {
    add_servers();
    GuardedBuffer<uint32_t> states(3, 91, 92);
    uint32_t size = 12;
    const auto expect_missing = [&] {
        for (const auto& [t, n, printed] : missing) {
            const char *const type = t, *const name = n;
            expect_failure([&] { return twin().list_servers(type, name, states.data(), &size); },
                           twin().list_servers_tag, printed + " not found", SHMNM_ERR_NOTFOUND);
        }
    };
    expect_missing();
    add_resources();
    expect_missing();
    EXPECT_THAT(states.content(), ElementsAre(91u, 91u, 91u));
    EXPECT_TRUE(states.guards_are_whole());
    EXPECT_EQ(size, 12u);
}

TEST_P(ResourceStatus, IsAnEmptyListForAResourceWithoutAServer) {
    add_resources();
    fill_states();
    for (const uint32_t given : {0u, 4u}) {
        GuardedBuffer<uint32_t> states(1, 91, 92);
        uint32_t size = given;
        EXPECT_EQ(twin().list_servers("lan", "one", states.data(), &size), SHMNM_OK);
        EXPECT_THAT(states.content(), ElementsAre(91u));
        EXPECT_TRUE(states.guards_are_whole());
        EXPECT_EQ(size, 0u);
    }
}

TEST_P(ResourceStatus, NeedsANameAndASizeToBeListedForAResource) {
    add_servers();
    add_resources();
    GuardedBuffer<uint32_t> states(3, 91, 92);
    uint32_t size = 12;
    for (uint32_t* const buffer : {states.data(), static_cast<uint32_t*>(nullptr)}) {
        expect_failure([&] { return twin().list_servers("lan", nullptr, buffer, &size); }, twin().list_servers_tag,
                       "invalid param", SHMNM_ERR_PARAM);
        expect_failure([&] { return twin().list_servers("lan", "one", buffer, nullptr); }, twin().list_servers_tag,
                       "invalid param", SHMNM_ERR_PARAM);
        expect_failure([&] { return twin().list_servers(nullptr, nullptr, buffer, nullptr); }, twin().list_servers_tag,
                       "invalid param", SHMNM_ERR_PARAM);
    }
    EXPECT_THAT(states.content(), ElementsAre(91u, 91u, 91u));
    EXPECT_EQ(size, 12u);
}

/// An odd number of servers, so that the rows of four resources begin at all distances from a multiple of 16 that a
/// row can have.
class LongRow : public test::RegionTest, public testing::WithParamInterface<Twin> {
  protected:
    static constexpr uint32_t servers = 39, resources = 4;
    static constexpr size_t server_count = 28, hb_records = 13564, np_records = 104668, record_size = 740;

    LongRow() { map_region({.servers = servers, .hb = resources, .np = resources}); }
    /// Where the word of a resource on a server lies.
    size_t word(size_t resource, size_t server) const {
        return (GetParam().has_network_rows ? hb_records : np_records) + record_size * resource + 584 + 4 * server;
    }
};
INSTANTIATE_TEST_SUITE_P(Of, LongRow, testing::Values(hb, np), test::kind_of_instance);

TEST_P(LongRow, HasOneWordPerServerForAnyNumberOfServers) {
    for (uint32_t resource = 0; resource < resources; ++resource) {
        ASSERT_EQ(GetParam().add("lan", std::to_string(resource).c_str(), 1), SHMNM_OK);
        for (uint32_t server = 0; server < servers; ++server) {
            poke_word(word(resource, server), 1000 * resource + server);
        }
    }
    for (uint32_t count = 0; count <= servers; ++count) {
        poke_word(server_count, count);
        for (uint32_t resource = 0; resource < resources; ++resource) {
            GuardedBuffer<uint32_t> states(count, 91, 92);
            std::vector<uint32_t> expected(count);
            std::iota(expected.begin(), expected.end(), 1000 * resource);
            uint32_t size = 4 * count;
            EXPECT_EQ(GetParam().list_servers("lan", std::to_string(resource).c_str(), states.data(), &size), SHMNM_OK);
            EXPECT_EQ(size, 4 * count);
            EXPECT_EQ(states.content(), expected) << "resource " << resource;
            EXPECT_TRUE(states.guards_are_whole()) << count << " servers, resource " << resource;
        }
    }
}

TEST_P(LongRow, IsSetAndReadOneWordAtATime) {
    for (uint32_t server = 0; server < servers; ++server) {
        ASSERT_EQ(shmnm_addnode(("server" + std::to_string(server)).c_str(), static_cast<int32_t>(server)), SHMNM_OK);
    }
    for (uint32_t resource = 0; resource < resources; ++resource) {
        ASSERT_EQ(GetParam().add("lan", std::to_string(resource).c_str(), 1), SHMNM_OK);
    }
    Bytes expected = region_bytes();
    for (uint32_t resource = 0; resource < resources; ++resource) {
        const std::string name = std::to_string(resource);
        for (uint32_t server = 0; server < servers; ++server) {
            const auto pri = static_cast<int32_t>(server);
            const uint32_t value = 1000 * resource + server;
            EXPECT_EQ(GetParam().set_on_server("lan", name.c_str(), pri, value), SHMNM_OK);
            test::put_word(expected, word(resource, server), value);
            uint32_t read = ~value;
            EXPECT_EQ(GetParam().get_on_server("lan", name.c_str(), pri, &read), SHMNM_OK);
            EXPECT_EQ(read, value);
        }
    }
    EXPECT_EQ(region_bytes(), expected);
    for (uint32_t server = 0; server < servers; ++server) {
        uint32_t states[resources] = {}, size = sizeof states;
        EXPECT_EQ(GetParam().list_resources(("server" + std::to_string(server)).c_str(), states, &size), SHMNM_OK);
        EXPECT_THAT(states, ElementsAre(server, 1000 + server, 2000 + server, 3000 + server));
    }
}

// ---- the states of all resources on a server ----

TEST_P(ResourceStatus, IsListedForAServerInTheOrderOfTheResources) {
    add_servers();
    add_resources();
    fill_states();
    const Bytes before = region_bytes();
    for (const uint32_t given : {12u, 13u, 16u, 0x7FFFFFFFu, 0x80000000u, 0xFFFFFFFFu}) {
        GuardedBuffer<uint32_t> states(4, 91, 92);
        uint32_t size = given;
        log_of_last_call();
        EXPECT_EQ(twin().list_resources("beta", states.data(), &size), SHMNM_OK);
        EXPECT_THAT(log_of_last_call(), Succeeds(twin().list_resources_tag));
        EXPECT_THAT(states.content(), ElementsAre(11u, 21u, 31u, 91u));
        EXPECT_TRUE(states.guards_are_whole());
        EXPECT_EQ(size, given) << "the size is not written back";
    }
    uint32_t states[3] = {}, size = 12;
    EXPECT_EQ(twin().list_resources("alpha", states, &size), SHMNM_OK);
    EXPECT_THAT(states, ElementsAre(10u, 20u, 30u));
    EXPECT_EQ(twin().list_resources("gamma", states, &size), SHMNM_OK);
    EXPECT_THAT(states, ElementsAre(12u, 22u, 32u));
    EXPECT_EQ(region_bytes(), before);
}

TEST_P(ResourceStatus, IsMeasuredForAServerWhetherItExistsOrNot) {
    uint32_t size = 91;
    EXPECT_EQ(twin().list_resources("alpha", nullptr, &size), SHMNM_OK);
    EXPECT_EQ(size, 0u) << "no resource";
    // A resource of the other table does not count.
    const Twin& other = twin().has_network_rows ? np : hb;
    ASSERT_EQ(other.add("lan", "one", 1), SHMNM_OK);
    add("lan", "one");
    add("lan", "two");
    add_servers();
    const Bytes before = region_bytes();
    for (const char* const name : {"alpha", "delta", ""}) {
        size = 91;
        log_of_last_call();
        EXPECT_EQ(twin().list_resources(name, nullptr, &size), SHMNM_OK);
        EXPECT_THAT(log_of_last_call(), Succeeds(twin().list_resources_tag));
        EXPECT_EQ(size, 8u);
    }
    EXPECT_EQ(region_bytes(), before);
}

TEST_P(ResourceStatus, IsNotListedForAServerInAShortBufferWhetherItExistsOrNot) {
    add_servers();
    add_resources();
    for (const char* const name : {"alpha", "delta"}) {
        for (const uint32_t given : {0u, 4u, 8u, 11u}) {
            GuardedBuffer<uint32_t> states(3, 91, 92);
            uint32_t size = given;
            log_of_last_call();
            EXPECT_EQ(twin().list_resources(name, states.data(), &size), SHMNM_ERR_BUFFER);
            EXPECT_THAT(log_of_last_call(), FailsSilently(twin().list_resources_tag, SHMNM_ERR_BUFFER));
            EXPECT_THAT(states.content(), ElementsAre(91u, 91u, 91u));
            EXPECT_TRUE(states.guards_are_whole());
            EXPECT_EQ(size, given);
        }
    }
}

TEST_P(ResourceStatus, IsNotListedForAnUnknownServer) {
    GuardedBuffer<uint32_t> states(3, 91, 92);
    uint32_t size = 12;
    const auto expect_missing = [&](const std::string& name) {
        expect_failure([&] { return twin().list_resources(name.c_str(), states.data(), &size); },
                       twin().list_resources_tag, "name:" + name + " not found", SHMNM_ERR_NOTFOUND);
    };
    expect_missing("alpha");
    add_servers();
    add_resources();
    for (const char* const name : {"delta", "Alpha", "alph", "alpha1", "", "%s%n", "one"}) expect_missing(name);
    EXPECT_THAT(states.content(), ElementsAre(91u, 91u, 91u));
    EXPECT_TRUE(states.guards_are_whole());
    EXPECT_EQ(size, 12u);
}

TEST_P(ResourceStatus, IsAnEmptyListForAServerWithoutAResource) {
    add_servers();
    for (const uint32_t given : {0u, 4u}) {
        GuardedBuffer<uint32_t> states(1, 91, 92);
        uint32_t size = given;
        EXPECT_EQ(twin().list_resources("alpha", states.data(), &size), SHMNM_OK);
        EXPECT_THAT(states.content(), ElementsAre(91u));
        EXPECT_TRUE(states.guards_are_whole());
        EXPECT_EQ(size, given);
    }
    uint32_t state = 91, size = 0;
    expect_failure([&] { return twin().list_resources("delta", &state, &size); }, twin().list_resources_tag,
                   "name:delta not found", SHMNM_ERR_NOTFOUND);
}

TEST_P(ResourceStatus, NeedsANameAndASizeToBeListedForAServer) {
    add_servers();
    add_resources();
    GuardedBuffer<uint32_t> states(3, 91, 92);
    uint32_t size = 12;
    for (uint32_t* const buffer : {states.data(), static_cast<uint32_t*>(nullptr)}) {
        expect_failure([&] { return twin().list_resources(nullptr, buffer, &size); }, twin().list_resources_tag,
                       "invalid param", SHMNM_ERR_PARAM);
        expect_failure([&] { return twin().list_resources("alpha", buffer, nullptr); }, twin().list_resources_tag,
                       "invalid param", SHMNM_ERR_PARAM);
        expect_failure([&] { return twin().list_resources(nullptr, buffer, nullptr); }, twin().list_resources_tag,
                       "invalid param", SHMNM_ERR_PARAM);
    }
    EXPECT_THAT(states.content(), ElementsAre(91u, 91u, 91u));
    EXPECT_EQ(size, 12u);
}

// ---- all of one type ----

TEST_P(ResourceStatus, IsSetForEveryResourceOfATypeAndEveryServer) {
    add_servers();
    add_resources();
    fill_states();
    Bytes expected = region_bytes();
    for (const size_t position : {size_t{1}, size_t{2}}) {
        test::put_word(expected, state(position), 0xABCDEF01);
        test::put_words(expected, server_state(position, 0), {0xABCDEF01, 0xABCDEF01, 0xABCDEF01});
    }
    log_of_last_call();
    EXPECT_EQ(twin().set_type("disk", 0xABCDEF01), SHMNM_OK);
    EXPECT_THAT(log_of_last_call(), Succeeds(twin().set_type_tag));
    EXPECT_EQ(region_bytes(), expected) << "neither other servers' states nor network rows nor the other table";
}

TEST_P(ResourceStatus, IsSetForNothingWhenNoResourceHasTheType) {
    const auto expect_no_change = [this](const std::string& type) {
        const Bytes before = region_bytes();
        log_of_last_call();
        EXPECT_EQ(twin().set_type(type.c_str(), 5), SHMNM_OK);
        EXPECT_THAT(log_of_last_call(), Succeeds(twin().set_type_tag));
        EXPECT_EQ(region_bytes(), before);
    };
    expect_no_change("lan");
    expect_no_change("");
    add_servers();
    add_resources();
    for (const char* const type : {"ping", "LAN", "la", "lan1", "", "one"}) expect_no_change(type);
    ASSERT_EQ(twin().remove("disk", "disk1"), SHMNM_OK);
    add(std::string(32, 'x').c_str(), "x");
    expect_no_change(std::string(32, 'x'));
}

TEST_P(ResourceStatus, IsSetForRegisteredServersOnly) {
    add_resources();
    const Bytes unset = region_bytes();
    for (uint32_t servers = 0; servers <= 6; ++servers) {
        poke(0, unset);
        poke_word(server_count, servers);
        Bytes expected = region_bytes();
        test::put_word(expected, state(0), 5);
        test::put_words(expected, server_state(0, 0), std::vector<uint32_t>(servers, 5));
        expect_success([&] { return twin().set_type("lan", 5); }, twin().set_type_tag, expected);
    }
}

TEST_P(ResourceStatus, NeedsATypeToBeSetForAllItsResources) {
    add_servers();
    add_resources();
    expect_failure([&] { return twin().set_type(nullptr, 5); }, twin().set_type_tag, "invalid param", SHMNM_ERR_PARAM);
}

TEST_P(ResourceStatus, IsSetForAllResourcesOfATypeBeforeAnyOfTheirServers) {
    add("lan", "lan1");
    add("lan", "lan2");
    add("disk", "disk1");
    // So many servers that the last state of the first record is the first word of the second one's type.
    const size_t count = 6 + 256 / 4 + 1;
    poke_word(server_count, count);
    Bytes expected = region_bytes();
    test::put_word(expected, state(0), 5);
    test::put_word(expected, state(1), 5);
    test::put_words(expected, server_state(0, 0), std::vector<uint32_t>(count, 5));
    EXPECT_EQ(twin().set_type("lan", 5), SHMNM_OK);
    EXPECT_EQ(region_bytes(), expected) << "the second resource has its state, and then no longer the type";
}

// ---- counts that are not true ----

TEST_P(ResourceStatus, IsMeasuredByTheStoredCounts) {
    add("lan", "one");
    poke_word(server_count, 0xFFFFFFFF);
    poke_word(twin().count_at, 0x40000001);
    uint32_t row = 91, column = 92;
    EXPECT_EQ(twin().list_servers("lan", "one", nullptr, &row), SHMNM_OK);
    EXPECT_EQ(row, 0xFFFFFFFCu);
    EXPECT_EQ(twin().list_resources("alpha", nullptr, &column), SHMNM_OK);
    EXPECT_EQ(column, 4u);
}

// ---- not mapped ----

TEST_P(ResourceStatus, ReportsNotInitFirstAndLogsNothing) {
    shmnm_delete();
    log_of_last_call();
    uint32_t word = 91, size = 92;
    EXPECT_EQ(twin().set(nullptr, nullptr, 5), SHMNM_ERR_NOTINIT);
    EXPECT_EQ(twin().set("lan", "one", 5), SHMNM_ERR_NOTINIT);
    EXPECT_EQ(twin().get(nullptr, nullptr, nullptr), SHMNM_ERR_NOTINIT);
    EXPECT_EQ(twin().get("lan", "one", &word), SHMNM_ERR_NOTINIT);
    EXPECT_EQ(twin().set_on_server(nullptr, nullptr, 10, 5), SHMNM_ERR_NOTINIT);
    EXPECT_EQ(twin().set_on_server("lan", "one", 10, 5), SHMNM_ERR_NOTINIT);
    EXPECT_EQ(twin().get_on_server(nullptr, nullptr, 10, nullptr), SHMNM_ERR_NOTINIT);
    EXPECT_EQ(twin().get_on_server("lan", "one", 10, &word), SHMNM_ERR_NOTINIT);
    EXPECT_EQ(twin().list_servers(nullptr, nullptr, nullptr, nullptr), SHMNM_ERR_NOTINIT);
    EXPECT_EQ(twin().list_servers("lan", "one", &word, &size), SHMNM_ERR_NOTINIT);
    EXPECT_EQ(twin().list_resources(nullptr, nullptr, nullptr), SHMNM_ERR_NOTINIT);
    EXPECT_EQ(twin().list_resources("alpha", &word, &size), SHMNM_ERR_NOTINIT);
    EXPECT_EQ(twin().set_type(nullptr, 5), SHMNM_ERR_NOTINIT);
    EXPECT_EQ(twin().set_type("lan", 5), SHMNM_ERR_NOTINIT);
    EXPECT_THAT(log_of_last_call(), IsEmpty()) << "the log is closed";
    EXPECT_EQ(word, 91u);
    EXPECT_EQ(size, 92u);
}

class OverlappingResources : public test::RegionTest {};

TEST_F(OverlappingResources, AreComparedWithTheTypeAsTheStatesBeforeThemHaveMadeIt) {
    map_region({.servers = 6, .hb = 3, .np = 3});
    // Records lie 4 bytes apart. Record 0 has a type of 332 letters; the states after it, 328 bytes behind the type's
    // begin, overwrite the NUL, so that record 1, whose type begins 4 bytes later, then has such a type too.
    constexpr size_t type = 3004 + 256;
    const std::string letters(332, 's');
    poke_word(8, static_cast<uint32_t>(-145));
    poke_word(28, 2);
    poke_word(32, 2);
    poke(type, Bytes(336, 's'));
    poke(type + 332, Bytes(1));
    poke_word(type + 336, 0);
    EXPECT_EQ(shmnm_settypehbstat(letters.c_str(), 0x73737373), SHMNM_OK);
    EXPECT_EQ(word_at(type + 328), 0x73737373u);
    EXPECT_EQ(word_at(type + 332), 0x73737373u);
    EXPECT_EQ(word_at(type + 336), 0x73737373u) << "the second state of record 1";
}

}  // namespace
