// The hb and np tables: adding, removing, changing, looking up and listing resources.
#include <climits>
#include <cstring>
#include <ctime>

#include "guarded_buffer.h"
#include "name_listing.h"
#include "near_misses.h"
#include "resource_twins.h"

namespace {

using test::Bytes;
using test::GuardedBuffer;
using test::Succeeds;
using testing::ElementsAre;
using testing::IsEmpty;

struct Twin : test::ResourceTableTwin {
    uint32_t (*modify)(const char*, const char*, uint32_t);
    uint32_t (*priority)(const char*, const char*, uint32_t*);
    uint32_t (*type_of)(char*, const char*);
    uint32_t (*list_types)(char*, uint32_t*);
    uint32_t (*list_names)(const char*, char*, uint32_t*);
    const char *add_tag, *remove_tag, *modify_tag, *priority_tag, *type_of_tag, *list_types_tag, *list_names_tag;
    const char* full;  ///< the line for a full table, before the count
};

const Twin hb{{test::hb_table},  shmnm_modifyhbrsc,
              shmnm_gethbrscpri, shmnm_gethbrscinfo,
              shmnm_enumhbtype,  shmnm_enumhbrsc,
              "_addhbrsc",       "_rmhbrsc",
              "_modifyhbrsc",    "_gethbrscpri",
              "_gethbrscinfo",   "_enumhbtype",
              "_enumhbrsc",      "hb resource count is over("};
const Twin np{{test::np_table},  shmnm_modifynprsc,
              shmnm_getnprscpri, shmnm_getnprscinfo,
              shmnm_enumnptype,  shmnm_enumnprsc,
              "_addnprsc",       "_rmnprsc",
              "_modifynprsc",    "_getnprscpri",
              "_getnprscinfo",   "_enumnptype",
              "_enumnprsc",      "np resource count is over("};

/// Three resources at most.
class ResourceTable : public test::ResourceTwins<Twin> {
  protected:
    /// Puts what an add writes in front of the states.
    void put_new_record(Bytes& bytes, size_t position, const std::string& type, const std::string& name, uint32_t pri) {
        test::put_text(bytes, record(position), 32, name);
        test::put_text(bytes, record(position) + 256, 32, type);
        test::put_word(bytes, record(position) + 544, pri);
        test::put_word(bytes, twin().count_at, static_cast<uint32_t>(position) + 1);
    }
    std::string full(int32_t count) const { return twin().full + std::to_string(count) + ")"; }
    auto add_of(const char* type, const char* name) {
        return [=, this] { return twin().add(type, name, 99); };
    }
    /// The names of one type, as a listing.
    auto names_of(const char* type) {
        return [=, this](char* buf, uint32_t* size) { return twin().list_names(type, buf, size); };
    }
    uint32_t priority_of(const char* type, const char* name) {
        uint32_t pri = 0xBAD;
        EXPECT_EQ(twin().priority(type, name, &pri), SHMNM_OK) << type << " " << name;
        return pri;
    }
};

INSTANTIATE_TEST_SUITE_P(Of, ResourceTable, testing::Values(hb, np), test::kind_of_instance);

// ---- adding ----

TEST_P(ResourceTable, AddsEachResourceAfterTheLastOne) {
    const struct {
        const char *type, *name;
        uint32_t pri;
    } added[] = {{"lan", "lan1", 1}, {"disk", "disk1", 0xFFFFFFFF}, {"lan", "lan2", 0}};
    Bytes expected = region_bytes();
    for (size_t position = 0; position < 3; ++position) {
        const auto& [type, name, pri] = added[position];
        put_new_record(expected, position, type, name, pri);
        log_of_last_call();
        EXPECT_EQ(twin().add(type, name, pri), SHMNM_OK);
        EXPECT_THAT(log_of_last_call(), Succeeds(twin().add_tag));
        EXPECT_EQ(region_bytes(), expected);
    }
}

TEST_P(ResourceTable, OpensTheStatesOfANewResourceForRegisteredServers) {
    add_servers();
    add("lan", "lan1");
    for (const size_t position : {size_t{1}, size_t{2}}) {
        Bytes expected = region_bytes();
        const std::string name = "lan" + std::to_string(position + 1);
        put_new_record(expected, position, "lan", name, 7);
        test::put_words(expected, server_state(position, 0), {2, 2, 2});
        if (twin().has_network_rows) test::put_words(expected, network_row(position), {2, 2, 2});
        EXPECT_EQ(twin().add("lan", name.c_str(), 7), SHMNM_OK);
        EXPECT_EQ(region_bytes(), expected);
    }
}

TEST_P(ResourceTable, WritesOnlyTheFieldsOfANewResource) {
    ASSERT_EQ(shmnm_addnode("alpha", 10), SHMNM_OK);
    poke(record(0), test::pattern(608, 1));
    poke(network_row(0), test::pattern(24, 2));
    Bytes expected = region_bytes();
    put_new_record(expected, 0, "lan", "lan1", 7);
    test::put_word(expected, server_state(0, 0), 2);
    if (twin().has_network_rows) test::put_word(expected, network_row(0), 2);
    EXPECT_EQ(twin().add("lan", "lan1", 7), SHMNM_OK);
    EXPECT_EQ(region_bytes(), expected) << "the name from byte 32 on, the description, the state, the reserved bytes "
                                           "and the other servers' states stay";
}

TEST_P(ResourceTable, NeedsATypeAndANameToAdd) {
    expect_failure(add_of(nullptr, "lan1"), twin().add_tag, "invalid param", SHMNM_ERR_PARAM);
    expect_failure(add_of("lan", nullptr), twin().add_tag, "invalid param", SHMNM_ERR_PARAM);
    expect_failure(add_of(nullptr, nullptr), twin().add_tag, "invalid param", SHMNM_ERR_PARAM);
}

TEST_P(ResourceTable, AcceptsEmptyTexts) {
    EXPECT_EQ(twin().add("", "", 1), SHMNM_OK);
    EXPECT_EQ(twin().add("lan", "", 2), SHMNM_OK);
    EXPECT_EQ(twin().add("", "lan1", 3), SHMNM_OK);
    EXPECT_EQ(priority_of("", ""), 1u);
    EXPECT_EQ(priority_of("lan", ""), 2u);
    EXPECT_EQ(priority_of("", "lan1"), 3u);
}

TEST_P(ResourceTable, RefusesOneMoreThanTheMaximum) {
    add("lan", "lan1");
    add("lan", "lan2");
    add("lan", "lan3");
    expect_failure(add_of("lan", "lan4"), twin().add_tag, full(3), SHMNM_ERR_RSCOVER);
}

TEST_P(ResourceTable, ChecksTheCountBeforeTheNames) {
    add("lan", "lan1");
    add("lan", "lan2");
    add("lan", "lan3");
    expect_failure(add_of("lan", "lan2"), twin().add_tag, full(3), SHMNM_ERR_RSCOVER);
}

TEST_P(ResourceTable, AddsANewResourceLastAfterARemovalFromAFullTable) {
    add("lan", "lan1");
    add("lan", "lan2");
    add("lan", "lan3");
    ASSERT_EQ(twin().remove("lan", "lan1"), SHMNM_OK);
    Bytes expected = region_bytes();
    put_new_record(expected, 2, "lan", "lan4", 4);
    EXPECT_EQ(twin().add("lan", "lan4", 4), SHMNM_OK);
    EXPECT_EQ(region_bytes(), expected);
}

TEST_P(ResourceTable, IsFullAtOnceWhenTheMaximumIsLowered) {
    add("lan", "lan1");
    add("lan", "lan2");
    for (const uint32_t maximum : {2u, 1u, 0u, 0xFFFFFFFFu, 0x80000000u}) {
        poke_word(twin().limit_at, maximum);
        expect_failure(add_of("lan", "lan3"), twin().add_tag, full(2), SHMNM_ERR_RSCOVER);
    }
}

TEST_P(ResourceTable, AcceptsMoreAtOnceWhenTheMaximumIsRaised) {
    add("lan", "lan1");
    add("lan", "lan2");
    add("lan", "lan3");
    ASSERT_EQ(shmnm_setmaxvalue_ex(6, 4, 4), SHMNM_OK);
    Bytes expected = region_bytes();
    put_new_record(expected, 3, "lan", "lan4", 4);
    EXPECT_EQ(twin().add("lan", "lan4", 4), SHMNM_OK);
    EXPECT_EQ(region_bytes(), expected);
    expect_failure(add_of("lan", "lan5"), twin().add_tag, full(4), SHMNM_ERR_RSCOVER);
}

TEST_P(ResourceTable, RefusesATypeAndNameThatExist) {
    add("lan", "lan1");
    add("disk", "disk1");
    expect_failure(add_of("lan", "lan1"), twin().add_tag, "resource(lan1) already exist", SHMNM_ERR_EXIST);
    expect_failure(add_of("disk", "disk1"), twin().add_tag, "resource(disk1) already exist", SHMNM_ERR_EXIST);
}

TEST_P(ResourceTable, AcceptsOneNameUnderSeveralTypes) {
    add("lan", "one", 1);
    add("disk", "one", 2);
    add("", "one", 3);
    EXPECT_EQ(priority_of("lan", "one"), 1u);
    EXPECT_EQ(priority_of("disk", "one"), 2u);
    EXPECT_EQ(priority_of("", "one"), 3u);
    poke_word(twin().limit_at, 4);
    expect_failure(add_of("disk", "one"), twin().add_tag, "resource(one) already exist", SHMNM_ERR_EXIST);
}

TEST_P(ResourceTable, DistinguishesTextsByEveryByteAndTheirLength) {
    const char* const texts[] = {"lan",
                                 "Lan",
                                 "la",
                                 "lan1",
                                 "",
                                 "fifteen bytes 1",
                                 "sixteen bytes 12",
                                 "sixteen bytes 13",
                                 "sixteen bytes 123",
                                 "sixteen bytes 124",
                                 "\x01\x7F\x80\xFF",
                                 "100%d%s%n"};
    for (const char* const text : texts) {
        for (const char* const other : texts) {
            add("type", text, 1);
            add(text, "name", 2);
            if (other == text) {
                EXPECT_EQ(twin().add("type", other, 3), SHMNM_ERR_EXIST) << text;
                EXPECT_EQ(twin().add(other, "name", 3), SHMNM_ERR_EXIST) << text;
            } else {
                EXPECT_EQ(twin().add("type", other, 3), SHMNM_OK) << text << " and " << other;
                EXPECT_EQ(twin().remove("type", other), SHMNM_OK) << text << " and " << other;
                EXPECT_EQ(twin().add(other, "name", 3), SHMNM_OK) << text << " and " << other;
                EXPECT_EQ(twin().remove(other, "name"), SHMNM_OK) << text << " and " << other;
            }
            EXPECT_EQ(priority_of("type", text), 1u);
            EXPECT_EQ(priority_of(text, "name"), 2u);
            ASSERT_EQ(twin().remove("type", text), SHMNM_OK);
            ASSERT_EQ(twin().remove(text, "name"), SHMNM_OK);
        }
    }
}

TEST_P(ResourceTable, FindsTextsOfAnyLengthAndNoneThatDifferInOneByte) {
    for (size_t length = 0; length <= 31; ++length) {
        const std::string text = test::text_of_length(length);
        const test::ExactText exact(text);
        add(exact.get(), exact.get(), 7);
        EXPECT_EQ(priority_of(exact.get(), exact.get()), 7u);
        for (const std::string& different : test::near_misses(text)) {
            const test::ExactText miss(different);
            uint32_t pri = 0;
            EXPECT_EQ(twin().priority(miss.get(), exact.get(), &pri), SHMNM_ERR_NOTFOUND) << text << ", " << different;
            EXPECT_EQ(twin().priority(exact.get(), miss.get(), &pri), SHMNM_ERR_NOTFOUND) << text << ", " << different;
        }
        ASSERT_EQ(twin().remove(exact.get(), exact.get()), SHMNM_OK);
    }
}

TEST_P(ResourceTable, LogsTextsUnchanged) {
    add("%d%s", "100%d%s%n");
    expect_failure(add_of("%d%s", "100%d%s%n"), twin().add_tag, "resource(100%d%s%n) already exist", SHMNM_ERR_EXIST);
    expect_failure([this] { return twin().remove("%n", "%s"); }, twin().remove_tag, "type:%n,name:%s not found",
                   SHMNM_ERR_NOTFOUND);
}

TEST_P(ResourceTable, KeepsTextsOf31BytesWhole) {
    for (const size_t length : {30u, 31u}) {
        const std::string type = std::string(length - 1, 't') + '1', name = std::string(length - 1, 'n') + '2';
        Bytes expected = region_bytes();
        put_new_record(expected, 0, type, name, 5);
        EXPECT_EQ(twin().add(type.c_str(), name.c_str(), 5), SHMNM_OK);
        EXPECT_EQ(region_bytes(), expected);
        EXPECT_EQ(priority_of(type.c_str(), name.c_str()), 5u);
        EXPECT_EQ(twin().add(type.c_str(), name.c_str(), 6), SHMNM_ERR_EXIST);
        EXPECT_EQ(twin().remove(type.c_str(), name.c_str()), SHMNM_OK);
    }
}

TEST_P(ResourceTable, CutsLongerTextsTo31BytesAndFindsOnlyTheCutTexts) {
    const std::string cut_type = std::string(30, 't') + 'T', cut_name = std::string(30, 'n') + 'N';
    for (const size_t length : {32u, 33u, 257u, 300u}) {
        const std::string long_type = cut_type + std::string(length - 31, 'T');
        const std::string long_name = cut_name + std::string(length - 31, 'N');
        const struct {
            std::string type, name, stored_type, stored_name;
        } pairs[] = {{long_type, long_name, cut_type, cut_name},
                     {"lan", long_name, "lan", cut_name},
                     {long_type, "lan1", cut_type, "lan1"}};
        for (const auto& [type, name, stored_type, stored_name] : pairs) {
            const char *const t = type.c_str(), *const n = name.c_str();
            const std::string missing = std::string("type:").append(type).append(",name:").append(name) + " not found";
            Bytes expected = region_bytes();
            put_new_record(expected, 0, stored_type, stored_name, 1);
            put_new_record(expected, 1, stored_type, stored_name, 2);
            EXPECT_EQ(twin().add(t, n, 1), SHMNM_OK);
            EXPECT_EQ(twin().add(t, n, 2), SHMNM_OK) << "the stored texts do not equal the long ones";
            EXPECT_EQ(region_bytes(), expected);
            uint32_t pri = 91;
            expect_failure([&] { return twin().priority(t, n, &pri); }, twin().priority_tag, missing,
                           SHMNM_ERR_NOTFOUND);
            EXPECT_EQ(pri, 91u);
            expect_failure([&] { return twin().modify(t, n, 3); }, twin().modify_tag, missing, SHMNM_ERR_NOTFOUND);
            expect_failure([&] { return twin().remove(t, n); }, twin().remove_tag, missing, SHMNM_ERR_NOTFOUND);
            EXPECT_EQ(priority_of(stored_type.c_str(), stored_name.c_str()), 1u) << "the first of the two";
            EXPECT_EQ(twin().add(stored_type.c_str(), stored_name.c_str(), 3), SHMNM_ERR_EXIST);
            EXPECT_EQ(twin().remove(stored_type.c_str(), stored_name.c_str()), SHMNM_OK);
            EXPECT_EQ(priority_of(stored_type.c_str(), stored_name.c_str()), 2u);
            EXPECT_EQ(twin().remove(stored_type.c_str(), stored_name.c_str()), SHMNM_OK);
        }
    }
}

// ---- removing ----

TEST_P(ResourceTable, ClosesTheGapOfARemovedResource) {
    const char* const names[] = {"lan1", "lan2", "lan3"};
    for (size_t removed = 0; removed < 2; ++removed) {
        SCOPED_TRACE(names[removed]);
        for (const char* const name : names) add("lan", name);
        for (size_t position = 0; position < 3; ++position) fill_record(position);
        Bytes expected = region_bytes();
        const Bytes old = expected;
        for (size_t position = removed; position < 2; ++position) {
            test::put(expected, record(position), test::part(old, record(position + 1), 608));
            if (!twin().has_network_rows) continue;
            test::put(expected, network_row(position), test::part(old, network_row(position + 1), 24));
        }
        test::put(expected, record(2), Bytes(608));
        if (twin().has_network_rows) test::put(expected, network_row(2), Bytes(24));
        test::put_word(expected, twin().count_at, 2);
        log_of_last_call();
        EXPECT_EQ(twin().remove("lan", names[removed]), SHMNM_OK);
        EXPECT_THAT(log_of_last_call(), Succeeds(twin().remove_tag));
        EXPECT_EQ(region_bytes(), expected);
        // The other two are found where they are now.
        for (const char* const name : names) {
            EXPECT_EQ(twin().remove("lan", name), name == names[removed] ? SHMNM_ERR_NOTFOUND : SHMNM_OK);
        }
    }
}

TEST_P(ResourceTable, LeavesTheNetworkRowOfTheLastResourceUnchanged) {
    add("lan", "lan1");
    add("lan", "lan2");
    for (const size_t position : {size_t{1}, size_t{0}}) {
        fill_record(position);
        Bytes expected = region_bytes();
        test::put(expected, record(position), Bytes(608));
        test::put_word(expected, twin().count_at, static_cast<uint32_t>(position));
        const std::string name = "lan" + std::to_string(position + 1);
        log_of_last_call();
        EXPECT_EQ(twin().remove("lan", name.c_str()), SHMNM_OK);
        EXPECT_THAT(log_of_last_call(), Succeeds(twin().remove_tag));
        EXPECT_EQ(region_bytes(), expected) << "the record is zero, its network row is not";
    }
}

TEST_P(ResourceTable, ReopensANetworkRowForRegisteredServersOnly) {
    ASSERT_EQ(shmnm_addnode("alpha", 10), SHMNM_OK);
    add("lan", "lan1");
    fill_record(0);
    ASSERT_EQ(twin().remove("lan", "lan1"), SHMNM_OK);
    Bytes expected = region_bytes();
    put_new_record(expected, 0, "disk", "disk1", 3);
    test::put_word(expected, server_state(0, 0), 2);
    if (twin().has_network_rows) test::put_word(expected, network_row(0), 2);
    EXPECT_EQ(twin().add("disk", "disk1", 3), SHMNM_OK);
    EXPECT_EQ(region_bytes(), expected);
}

TEST_P(ResourceTable, NeedsATypeAndANameToRemove) {
    add("lan", "lan1");
    for (const auto& [type, name] : {std::pair<const char*, const char*>{nullptr, "lan1"}, {"lan", nullptr}, {}}) {
        expect_failure([&, type = type, name = name] { return twin().remove(type, name); }, twin().remove_tag,
                       "invalid param", SHMNM_ERR_PARAM);
    }
}

/// Pairs that are not in a table of ("lan", "lan1") and ("disk", "disk1"), and the line that says so.
const struct {
    const char *type, *name, *line;
} missing_pairs[] = {
    {"lan", "lan2", "type:lan,name:lan2 not found"},   {"lan", "disk1", "type:lan,name:disk1 not found"},
    {"disk", "lan1", "type:disk,name:lan1 not found"}, {"LAN", "lan1", "type:LAN,name:lan1 not found"},
    {"lan", "LAN1", "type:lan,name:LAN1 not found"},   {"la", "lan1", "type:la,name:lan1 not found"},
    {"lan", "lan", "type:lan,name:lan not found"},     {"lan1", "lan1", "type:lan1,name:lan1 not found"},
    {"lan", "lan11", "type:lan,name:lan11 not found"}, {"", "lan1", "type:,name:lan1 not found"},
    {"lan", "", "type:lan,name: not found"},           {"", "", "type:,name: not found"}};

TEST_P(ResourceTable, FindsNothingInAnEmptyTable) {
    for (const auto& [type, name, line] : missing_pairs) {
        const char *const t = type, *const n = name;
        uint32_t pri = 91;
        expect_failure([&] { return twin().remove(t, n); }, twin().remove_tag, line, SHMNM_ERR_NOTFOUND);
        expect_failure([&] { return twin().modify(t, n, 1); }, twin().modify_tag, line, SHMNM_ERR_NOTFOUND);
        expect_failure([&] { return twin().priority(t, n, &pri); }, twin().priority_tag, line, SHMNM_ERR_NOTFOUND);
        EXPECT_EQ(pri, 91u);
    }
}

TEST_P(ResourceTable, FindsNoUnknownTypeAndName) {
    // The other table has what this one lacks.
    const Twin& other = twin().has_network_rows ? np : hb;
    ASSERT_EQ(other.add("lan", "lan2", 1), SHMNM_OK);
    add("lan", "lan1");
    add("disk", "disk1");
    for (const auto& [type, name, line] : missing_pairs) {
        const char *const t = type, *const n = name;
        uint32_t pri = 91;
        expect_failure([&] { return twin().remove(t, n); }, twin().remove_tag, line, SHMNM_ERR_NOTFOUND);
        expect_failure([&] { return twin().modify(t, n, 1); }, twin().modify_tag, line, SHMNM_ERR_NOTFOUND);
        expect_failure([&] { return twin().priority(t, n, &pri); }, twin().priority_tag, line, SHMNM_ERR_NOTFOUND);
        EXPECT_EQ(pri, 91u);
    }
}

// ---- priorities ----

TEST_P(ResourceTable, ChangesThePriorityOfAResourceAndNothingElse) {
    add("lan", "one", 1);
    add("disk", "one", 2);
    for (const uint32_t pri : {0u, 7u, 0x80000000u, 0xFFFFFFFFu}) {
        Bytes expected = region_bytes();
        test::put_word(expected, record(1) + 544, pri);
        log_of_last_call();
        EXPECT_EQ(twin().modify("disk", "one", pri), SHMNM_OK);
        EXPECT_THAT(log_of_last_call(), Succeeds(twin().modify_tag));
        EXPECT_EQ(region_bytes(), expected);
        GuardedBuffer<uint32_t> read({~pri}, 92);
        EXPECT_EQ(twin().priority("disk", "one", read.data()), SHMNM_OK);
        EXPECT_THAT(log_of_last_call(), Succeeds(twin().priority_tag));
        EXPECT_THAT(read.content(), ElementsAre(pri));
        EXPECT_TRUE(read.guards_are_whole());
        EXPECT_EQ(region_bytes(), expected);
    }
    EXPECT_EQ(priority_of("lan", "one"), 1u);
}

TEST_P(ResourceTable, NeedsEveryArgumentForAPriority) {
    add("lan", "lan1");
    uint32_t pri = 91;
    const auto modify = [this](const char* type, const char* name) {
        return [=, this] { return twin().modify(type, name, 9); };
    };
    expect_failure(modify(nullptr, "lan1"), twin().modify_tag, "invalid param", SHMNM_ERR_PARAM);
    expect_failure(modify("lan", nullptr), twin().modify_tag, "invalid param", SHMNM_ERR_PARAM);
    expect_failure(modify(nullptr, nullptr), twin().modify_tag, "invalid param", SHMNM_ERR_PARAM);
    const auto priority = [this](const char* type, const char* name, uint32_t* place) {
        return [=, this] { return twin().priority(type, name, place); };
    };
    expect_failure(priority(nullptr, "lan1", &pri), twin().priority_tag, "invalid param", SHMNM_ERR_PARAM);
    expect_failure(priority("lan", nullptr, &pri), twin().priority_tag, "invalid param", SHMNM_ERR_PARAM);
    expect_failure(priority("lan", "lan1", nullptr), twin().priority_tag, "invalid param", SHMNM_ERR_PARAM);
    expect_failure(priority("lan", "lan2", nullptr), twin().priority_tag, "invalid param", SHMNM_ERR_PARAM);
    EXPECT_EQ(pri, 91u);
}

// ---- the type of a name ----

TEST_P(ResourceTable, ReturnsTheTypeOfTheFirstResourceOfAName) {
    add("disk", "disk1");
    add("lan", "one");
    add("ping", "one");
    const Bytes before = region_bytes();
    const std::pair<const char*, std::string> there[] = {{"one", "lan"}, {"disk1", "disk"}};
    for (const auto& [name, type] : there) {
        GuardedBuffer<char> buffer(32, '#', '+');
        log_of_last_call();
        EXPECT_EQ(twin().type_of(buffer.data(), name), SHMNM_OK);
        EXPECT_THAT(log_of_last_call(), Succeeds(twin().type_of_tag));
        EXPECT_EQ(std::string(buffer.data(), 32), type + '\0' + std::string(31 - type.size(), '#'));
        EXPECT_TRUE(buffer.guards_are_whole());
    }
    EXPECT_EQ(region_bytes(), before);
}

TEST_P(ResourceTable, ReturnsAtMost32BytesOfAType) {
    const std::string longest(31, 't');
    add(longest.c_str(), "one");
    GuardedBuffer<char> buffer(32, '#', '+');
    EXPECT_EQ(twin().type_of(buffer.data(), "one"), SHMNM_OK);
    EXPECT_EQ(std::string(buffer.data(), 32), longest + '\0');
    // A field that something has filled to its last byte.
    poke(record(0) + 287, {'z', 'y', 0});
    EXPECT_EQ(twin().type_of(buffer.data(), "one"), SHMNM_OK);
    EXPECT_EQ(std::string(buffer.data(), 32), longest + 'z');
    EXPECT_TRUE(buffer.guards_are_whole());
}

TEST_P(ResourceTable, ReturnsNoTypeForAnUnknownName) {
    char type[32] = "untouched";
    const auto type_of = [&](const char* name) { return [&, name] { return twin().type_of(type, name); }; };
    expect_failure(type_of("lan1"), twin().type_of_tag, "name:lan1 not found", SHMNM_ERR_NOTFOUND);
    add("lan", "lan1");
    for (const std::string name : {"lan", "LAN1", "lan11", "lan2"}) {
        expect_failure(type_of(name.c_str()), twin().type_of_tag, "name:" + name + " not found", SHMNM_ERR_NOTFOUND);
    }
    const std::string cut_name(300, 'n');
    add("lan", cut_name.c_str());
    expect_failure(type_of(cut_name.c_str()), twin().type_of_tag, "name:" + cut_name + " not found",
                   SHMNM_ERR_NOTFOUND);
    EXPECT_STREQ(type, "untouched");
}

TEST_P(ResourceTable, NeedsANonEmptyNameToReturnAType) {
    add("lan", "");
    char type[32] = "untouched";
    expect_failure([&] { return twin().type_of(type, nullptr); }, twin().type_of_tag, "invalid param", SHMNM_ERR_PARAM);
    expect_failure([&] { return twin().type_of(type, ""); }, twin().type_of_tag, "invalid param", SHMNM_ERR_PARAM);
    expect_failure([&] { return twin().type_of(nullptr, ""); }, twin().type_of_tag, "invalid param", SHMNM_ERR_PARAM);
    EXPECT_STREQ(type, "untouched");
}

TEST_P(ResourceTable, LooksUpATypeEvenWithoutAnOutput) {
    add("lan", "lan1");
    const Bytes before = region_bytes();
    EXPECT_EQ(twin().type_of(nullptr, "lan1"), SHMNM_OK);
    EXPECT_THAT(log_of_last_call(), Succeeds(twin().type_of_tag));
    EXPECT_EQ(region_bytes(), before);
    expect_failure([this] { return twin().type_of(nullptr, "lan2"); }, twin().type_of_tag, "name:lan2 not found",
                   SHMNM_ERR_NOTFOUND);
}

// ---- listing ----

TEST_P(ResourceTable, ListsATypeForEveryResource) {
    add("lan", "lan1");
    add("disk", "disk1");
    add("lan", "lan2");
    const Bytes before = region_bytes();
    uint32_t size = 0;
    EXPECT_EQ(twin().list_types(nullptr, &size), SHMNM_OK);
    EXPECT_EQ(size, 14u);
    char types[14];
    EXPECT_EQ(twin().list_types(types, &size), SHMNM_OK);
    EXPECT_EQ(std::string(types, sizeof types), std::string("lan\0disk\0lan\0\0", 14));
    test::expect_listing(twin().list_types, twin().list_types_tag, {"lan", "disk", "lan"});
    EXPECT_EQ(region_bytes(), before);
}

TEST_P(ResourceTable, ListsItsNamesInTheOrderOfTheirPositions) {
    add("lan", "lan1");
    add("disk", "disk1");
    add("lan", "lan2");
    const Bytes before = region_bytes();
    uint32_t size = 0;
    EXPECT_EQ(twin().list_names(nullptr, nullptr, &size), SHMNM_OK);
    EXPECT_EQ(size, 17u);
    char names[17];
    EXPECT_EQ(twin().list_names(nullptr, names, &size), SHMNM_OK);
    EXPECT_EQ(std::string(names, sizeof names), std::string("lan1\0disk1\0lan2\0\0", 17));
    test::expect_listing(names_of(nullptr), twin().list_names_tag, {"lan1", "disk1", "lan2"});
    EXPECT_EQ(region_bytes(), before);
}

TEST_P(ResourceTable, ListsTheNamesOfOneTypeOnly) {
    add("lan", "lan1");
    add("disk", "disk1");
    add("lan", "lan2");
    const Bytes before = region_bytes();
    test::expect_listing(names_of("lan"), twin().list_names_tag, {"lan1", "lan2"});
    test::expect_listing(names_of("disk"), twin().list_names_tag, {"disk1"});
    for (const char* const type : {"ping", "LAN", "la", "lan1", ""}) {
        test::expect_listing(names_of(type), twin().list_names_tag, {});
    }
    EXPECT_EQ(region_bytes(), before);
}

TEST_P(ResourceTable, ListsTextsOfAnyLength) {
    const std::string longest_type(31, 't'), longest_name(31, 'n');
    add("", "");
    test::expect_listing(twin().list_types, twin().list_types_tag, {""});
    test::expect_listing(names_of(""), twin().list_names_tag, {""});
    add(longest_type.c_str(), longest_name.c_str());
    add("z", "y");
    test::expect_listing(twin().list_types, twin().list_types_tag, {"", longest_type, "z"});
    test::expect_listing(names_of(nullptr), twin().list_names_tag, {"", longest_name, "y"});
    test::expect_listing(names_of(longest_type.c_str()), twin().list_names_tag, {longest_name});
}

TEST_P(ResourceTable, ListsTwoNulsWhenItIsEmpty) {
    const Bytes before = region_bytes();
    uint32_t types = 91, names = 92;
    EXPECT_EQ(twin().list_types(nullptr, &types), SHMNM_OK);
    EXPECT_EQ(twin().list_names("lan", nullptr, &names), SHMNM_OK);
    EXPECT_EQ(types, 2u);
    EXPECT_EQ(names, 2u);
    test::expect_listing(twin().list_types, twin().list_types_tag, {});
    test::expect_listing(names_of(nullptr), twin().list_names_tag, {});
    test::expect_listing(names_of("lan"), twin().list_names_tag, {});
    EXPECT_EQ(region_bytes(), before);
}

TEST_P(ResourceTable, ListsWhatIsLeftAfterARemoval) {
    add("lan", "lan1");
    add("disk", "disk1");
    add("ping", "ping1");
    ASSERT_EQ(twin().remove("disk", "disk1"), SHMNM_OK);
    test::expect_listing(twin().list_types, twin().list_types_tag, {"lan", "ping"});
    test::expect_listing(names_of(nullptr), twin().list_names_tag, {"lan1", "ping1"});
}

// ---- a maximum of servers that is not the one of the layout ----

TEST_P(ResourceTable, ReadsItsRecordsElsewhereAfterTheMaximumOfServersChanges) {
    add("lan", "lan1", 11);
    add("1234lan", "5678lan2", 22);
    poke_word(state(1), 33);
    ASSERT_EQ(shmnm_setmaxvalue_ex(7, 3, 3), SHMNM_OK);
    // Each record is now 4 bytes longer, so the second one is read from its fifth byte on.
    EXPECT_EQ(priority_of("lan", "lan1"), 11u);
    EXPECT_EQ(priority_of("lan", "lan2"), 33u);
    expect_failure([this] { return twin().modify("1234lan", "5678lan2", 1); }, twin().modify_tag,
                   "type:1234lan,name:5678lan2 not found", SHMNM_ERR_NOTFOUND);
    test::expect_listing(names_of(nullptr), twin().list_names_tag, {"lan1", "lan2"});
    test::expect_listing(twin().list_types, twin().list_types_tag, {"lan", "lan"});
    Bytes expected = region_bytes();
    test::put(expected, twin().table, test::part(expected, twin().table + 612, 612));
    test::put(expected, twin().table + 612, Bytes(612));
    test::put_word(expected, twin().count_at, 1);
    if (twin().has_network_rows) {
        test::put(expected, network_row(0), test::part(expected, network_row(0) + 28, 28));
        test::put(expected, network_row(0) + 28, Bytes(28));
    }
    EXPECT_EQ(twin().remove("lan", "lan1"), SHMNM_OK);
    EXPECT_EQ(region_bytes(), expected);
    ASSERT_EQ(shmnm_setmaxvalue_ex(6, 3, 3), SHMNM_OK);
    EXPECT_EQ(priority_of("lan", "lan2"), 33u);
}

TEST_P(ResourceTable, LeavesNetworkRowsWhereTheyAreWhenTheMaximumOfServersIsZero) {
    poke_word(8, 0);
    add("lan", "lan1");
    add("lan", "lan2");
    poke(network_row(0), test::pattern(48, 1));
    Bytes expected = region_bytes();
    test::put(expected, twin().table, test::part(expected, twin().table + 584, 584));
    test::put(expected, twin().table + 584, Bytes(584));
    test::put_word(expected, twin().count_at, 1);
    EXPECT_EQ(twin().remove("lan", "lan1"), SHMNM_OK);
    EXPECT_EQ(region_bytes(), expected);
}

TEST_P(ResourceTable, ReturnsATypeEvenIfEachRecordBeginsInTheOneBefore) {
    poke_word(8, 0xFFFFFFFF);
    add("lan", "1111lan");
    add("disk", "2222lan");
    char type[32] = "untouched";
    EXPECT_EQ(twin().type_of(type, "2222lan"), SHMNM_OK);
    EXPECT_STREQ(type, "disk");
}

// ---- the whole ----

TEST_P(ResourceTable, ClosesAGapUpToTheEndOfTheViewWhenItsCountIsTooLarge) {
    for (const char* const name : {"lan1", "lan2", "lan3"}) add("lan", name);
    for (size_t position = 0; position < 3; ++position) fill_record(position);
    poke_word(twin().count_at, 1'000'000);
    Bytes expected = region_bytes();
    const auto take_next = [&](size_t start, size_t step, size_t position) {
        const size_t to = start + position * step, from = to + step;
        if (from >= expected.size()) return false;
        const Bytes next = test::part(expected, from, std::min(step, expected.size() - from));
        test::put(expected, to, next);
        test::put(expected, from, Bytes(next.size()));
        return true;
    };
    test::put(expected, record(0), Bytes(608));
    bool record_moved = true, row_moved = true;
    for (size_t position = 0; record_moved || row_moved; ++position) {
        record_moved = take_next(twin().table, 608, position);
        row_moved = twin().has_network_rows && take_next(network_row(0), 24, position);
    }
    test::put_word(expected, twin().count_at, 999'999);
    EXPECT_EQ(twin().remove("lan", "lan1"), SHMNM_OK);
    EXPECT_EQ(region_bytes(), expected);
}

TEST_P(ResourceTable, FindsNothingWhenItsCountIsNegative) {
    add("lan", "lan1");
    poke_word(twin().count_at, 0xFFFFFFFF);
    char type[32] = "untouched";
    expect_failure([this] { return twin().remove("lan", "lan1"); }, twin().remove_tag, "type:lan,name:lan1 not found",
                   SHMNM_ERR_NOTFOUND);
    expect_failure([&] { return twin().type_of(type, "lan1"); }, twin().type_of_tag, "name:lan1 not found",
                   SHMNM_ERR_NOTFOUND);
    test::expect_listing(names_of(nullptr), twin().list_names_tag, {});
    expect_failure(add_of("lan", "lan2"), twin().add_tag, full(-1), SHMNM_ERR_RSCOVER);
}

TEST_P(ResourceTable, ReportsNotInitFirstAndLogsNothing) {
    shmnm_delete();
    log_of_last_call();
    char text[32] = "untouched";
    uint32_t word = 91;
    EXPECT_EQ(twin().add(nullptr, nullptr, 0), SHMNM_ERR_NOTINIT);
    EXPECT_EQ(twin().add("lan", "lan1", 0), SHMNM_ERR_NOTINIT);
    EXPECT_EQ(twin().remove(nullptr, nullptr), SHMNM_ERR_NOTINIT);
    EXPECT_EQ(twin().remove("lan", "lan1"), SHMNM_ERR_NOTINIT);
    EXPECT_EQ(twin().modify(nullptr, nullptr, 0), SHMNM_ERR_NOTINIT);
    EXPECT_EQ(twin().modify("lan", "lan1", 0), SHMNM_ERR_NOTINIT);
    EXPECT_EQ(twin().priority(nullptr, nullptr, nullptr), SHMNM_ERR_NOTINIT);
    EXPECT_EQ(twin().priority("lan", "lan1", &word), SHMNM_ERR_NOTINIT);
    EXPECT_EQ(twin().type_of(nullptr, nullptr), SHMNM_ERR_NOTINIT);
    EXPECT_EQ(twin().type_of(text, "lan1"), SHMNM_ERR_NOTINIT);
    EXPECT_EQ(twin().list_types(nullptr, nullptr), SHMNM_ERR_NOTINIT);
    EXPECT_EQ(twin().list_types(text, &word), SHMNM_ERR_NOTINIT);
    EXPECT_EQ(twin().list_names(nullptr, nullptr, nullptr), SHMNM_ERR_NOTINIT);
    EXPECT_EQ(twin().list_names("lan", text, &word), SHMNM_ERR_NOTINIT);
    EXPECT_THAT(log_of_last_call(), IsEmpty()) << "the log is closed";
    EXPECT_STREQ(text, "untouched");
    EXPECT_EQ(word, 91u);
}

TEST_P(ResourceTable, ChecksForADuplicateBeforeRoomInTheView) {
    shmnm_delete();
    map_region({.servers = 1, .hb = 1, .np = 1});
    ASSERT_EQ(view_size(), 4096u);
    add("lan", "lan1");
    ASSERT_EQ(shmnm_setmaxvalue_ex(1000, 1000, 1000), SHMNM_OK);  // a second record would start beyond the view
    expect_failure(add_of("lan", "lan1"), twin().add_tag, "resource(lan1) already exist", SHMNM_ERR_EXIST);
    expect_failure(add_of("lan", "lan2"), twin().add_tag, full(1), SHMNM_ERR_RSCOVER);
    ASSERT_EQ(shmnm_setmaxvalue_ex(1000, 1, 1), SHMNM_OK);
    expect_failure(add_of("lan", "lan1"), twin().add_tag, full(1), SHMNM_ERR_RSCOVER);
}

TEST_P(ResourceTable, ChecksForADuplicateBeforeRoomForTheStates) {
    add("lan", "lan1");
    poke_word(server_count, 100'000);
    expect_failure(add_of("lan", "lan1"), twin().add_tag, "resource(lan1) already exist", SHMNM_ERR_EXIST);
    expect_failure(add_of("lan", "lan2"), twin().add_tag, full(1), SHMNM_ERR_RSCOVER);
}

// ---- the two tables side by side ----

class BothResourceTables : public test::RegionTest {};

TEST_F(BothResourceTables, AreIndependentEvenForEqualTypesAndNames) {
    map_region({.servers = 6, .hb = 3, .np = 3});
    ASSERT_EQ(shmnm_addhbrsc("lan", "one", 1), SHMNM_OK);
    ASSERT_EQ(shmnm_addnprsc("lan", "one", 2), SHMNM_OK);
    EXPECT_EQ(word_at(32), 1u);
    EXPECT_EQ(word_at(36), 1u);
    ASSERT_EQ(shmnm_rmhbrsc("lan", "one"), SHMNM_OK);
    uint32_t pri = 91;
    EXPECT_EQ(shmnm_gethbrscpri("lan", "one", &pri), SHMNM_ERR_NOTFOUND);
    EXPECT_EQ(shmnm_getnprscpri("lan", "one", &pri), SHMNM_OK);
    EXPECT_EQ(pri, 2u);
}

/// With one server a record is longer than what is kept free for it: two hb records of 588 bytes from 1404 on reach 8
/// bytes into the np table at 2572, two np records 8 bytes into the fst table at 3740.
class TablesOfOneServer : public test::RegionTest {
  protected:
    TablesOfOneServer() { map_region({.servers = 1, .hb = 2, .np = 2}); }
};

TEST_F(TablesOfOneServer, OverlapWhereTheLastHbResourceHasItsState) {
    ASSERT_EQ(shmnm_addnode("alpha", 10), SHMNM_OK);
    ASSERT_EQ(shmnm_addnprsc("ping", "gateway", 1), SHMNM_OK);
    ASSERT_EQ(shmnm_addhbrsc("lan", "lan1", 1), SHMNM_OK);
    Bytes expected = region_bytes();
    test::put_text(expected, 1992, 32, "lan2");
    test::put_text(expected, 1992 + 256, 32, "lan");
    test::put_word(expected, 1992 + 544, 7);
    test::put_word(expected, 2572 + 4, 2);
    test::put_word(expected, 32, 2);
    test::put_word(expected, 4648 + 4, 2);
    EXPECT_EQ(shmnm_addhbrsc("lan", "lan2", 7), SHMNM_OK);
    EXPECT_EQ(region_bytes(), expected) << "the new state is the second word of the np resource's name";
    uint32_t pri = 91;
    EXPECT_EQ(shmnm_getnprscpri("ping", "gateway", &pri), SHMNM_ERR_NOTFOUND);
    EXPECT_EQ(shmnm_getnprscpri("ping", "gate\x02", &pri), SHMNM_OK);
    // An np resource added later is that state.
    ASSERT_EQ(shmnm_rmnprsc("ping", "gate\x02"), SHMNM_OK);
    ASSERT_EQ(shmnm_addnprsc("ping", "gateway", 1), SHMNM_OK);
    uint32_t state = 0;
    EXPECT_EQ(shmnm_gethbrscsvstat("lan", "lan2", 10, &state), SHMNM_OK);
    EXPECT_EQ(state, 0x00796177u) << "the bytes \"way\"";
}

TEST_F(TablesOfOneServer, ZeroTheirOverlapWithTheLastRecord) {
    ASSERT_EQ(shmnm_addhbrsc("lan", "lan1", 1), SHMNM_OK);
    ASSERT_EQ(shmnm_addhbrsc("lan", "lan2", 1), SHMNM_OK);
    ASSERT_EQ(shmnm_addnprsc("ping", "gateway of the lan", 1), SHMNM_OK);
    Bytes expected = region_bytes();
    test::put(expected, 1992, Bytes(588));
    test::put_word(expected, 32, 1);
    EXPECT_EQ(shmnm_rmhbrsc("lan", "lan2"), SHMNM_OK);
    EXPECT_EQ(region_bytes(), expected) << "with the first 8 bytes of the np resource's name";
}

TEST_F(TablesOfOneServer, ReachIntoTheFstTableWithTheLastNpResource) {
    ASSERT_EQ(shmnm_addnode("alpha", 10), SHMNM_OK);
    ASSERT_EQ(shmnm_addnprsc("ping", "ping1", 1), SHMNM_OK);
    ASSERT_EQ(shmnm_addnprsc("ping", "ping2", 1), SHMNM_OK);
    EXPECT_EQ(word_at(3740 + 4), 2u);
    const uint32_t named = 0x0000706A;
    poke_word(3740 + 4, named);
    uint32_t state = 0;
    EXPECT_EQ(shmnm_getnprscsvstat("ping", "ping2", 10, &state), SHMNM_OK);
    EXPECT_EQ(state, named);
    Bytes expected = region_bytes();
    test::put(expected, 3160, Bytes(588));
    test::put_word(expected, 36, 1);
    EXPECT_EQ(shmnm_rmnprsc("ping", "ping2"), SHMNM_OK);
    EXPECT_EQ(region_bytes(), expected);
}

TEST_P(ResourceTable, FindsNoTypeThatRunsOnToTheEndOfTheView) {
    constexpr size_t record_size = 584, type_at = 256;
    // The maximum of servers puts the second record at the end of the view.
    const size_t last = view_size() - record_size;
    poke_word(8, static_cast<uint32_t>((last - twin().table - record_size) / 4));
    poke_word(twin().count_at, 2);
    poke(last, {'n', 0});
    poke(last + type_at, Bytes(record_size - type_at, 't'));
    uint32_t pri = 0;
    EXPECT_EQ(twin().priority(std::string(1'000, 't').c_str(), "n", &pri), SHMNM_ERR_NOTFOUND);
}

TEST_P(ResourceTable, FindsAResourceOfTheSameNameInARecordThatOverlapsTheOneBefore) {
    constexpr size_t type_at = 256, priority_at = 544, record_size = 584;
    // With one server less than none a record begins in the last word of the one before.
    poke_word(8, static_cast<uint32_t>(-1));
    poke_word(twin().count_at, 2);
    for (const uint32_t position : {0u, 1u}) {
        const size_t record = twin().table + position * (record_size - 4);
        poke(record, {'n', 0});
        poke(record + type_at, {static_cast<uint8_t>('a' + position), 0});
        poke_word(record + priority_at, 7 + position);
    }
    uint32_t pri = 0;
    EXPECT_EQ(twin().priority("a", "n", &pri), SHMNM_OK);
    EXPECT_EQ(pri, 7u);
    EXPECT_EQ(twin().priority("b", "n", &pri), SHMNM_OK);
    EXPECT_EQ(pri, 8u);
    EXPECT_EQ(twin().priority("c", "n", &pri), SHMNM_ERR_NOTFOUND);
}

class OverfullHbTable : public test::RegionTest {
  protected:
    OverfullHbTable() { map_region({.servers = 6, .hb = 3, .np = 3}); }
};

TEST_F(OverfullHbTable, MovesNetworkRowsOfResourcesThatDoNotLieInTheView) {
    ASSERT_EQ(shmnm_addhbrsc("lan", "lan1", 1), SHMNM_OK);
    // With rows of one word the view ends within record 43, in words 433 to 528 of the network-wide rows. They become
    // words 286 to 381 when record 43 is moved. The row of each further resource is moved by one word.
    poke_word(8, 1);
    poke_word(32, 400);
    const size_t network = 26556;
    for (uint32_t i = 0; i < 96; ++i) poke_word(network + size_t{4} * (433 + i), 1000 + i);
    EXPECT_EQ(shmnm_rmhbrsc("lan", "lan1"), SHMNM_OK);
    for (uint32_t i = 0; i < 95; ++i) EXPECT_EQ(word_at(network + size_t{4} * (286 + i)), 1001 + i) << i;
}

TEST_F(OverfullHbTable, MovesNoMoreRecordsThanTheViewHoldsWhateverTheCountSays) {
    // For no server a resource has no network-wide row.
    for (const int32_t max_servers : {6, 0, -1}) {
        poke_word(8, 6);
        poke_word(32, 0);
        ASSERT_EQ(shmnm_addhbrsc("lan", "lan1", 1), SHMNM_OK);
        poke_word(8, static_cast<uint32_t>(max_servers));
        poke_word(32, INT32_MAX);
        const std::clock_t begin = std::clock();
        EXPECT_EQ(shmnm_rmhbrsc("lan", "lan1"), SHMNM_OK);
        EXPECT_LT(std::clock() - begin, CLOCKS_PER_SEC) << "a step for each counted resource";
        EXPECT_EQ(word_at(32), uint32_t{INT32_MAX} - 1);
    }
}

}  // namespace
