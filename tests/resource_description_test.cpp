// The descriptions of hb and np resources: 256 bytes that are looked for at a step of their own, which reaches only the
// first record of a table at its place.
#include <climits>

#include "guarded_buffer.h"
#include "resource_twins.h"

namespace {

using test::Bytes;
using test::GuardedBuffer;
using testing::IsEmpty;

struct Twin : test::ResourceTableTwin {
    uint32_t (*set)(const char*, const char*, const void*, int32_t);
    uint32_t (*get)(const char*, const char*, void*, const int32_t*);
    const char *set_tag, *get_tag;
};

const Twin hb{{test::hb_table}, shmnm_sethbdescript, shmnm_gethbdescript, "_sethbdescript", "_gethbdescript"};
const Twin np{{test::np_table}, shmnm_setnpdescript, shmnm_getnpdescript, "_setnpdescript", "_getnpdescript"};

class ResourceDescription : public test::ResourceTwins<Twin> {
  protected:
    size_t description(size_t position) const { return record(position) + 288; }

    /// Has this description set and written at this place.
    void expect_set(const char* type, const char* name, const Bytes& data, size_t place) {
        Bytes expected = region_bytes();
        test::put(expected, place, data);
        expect_success([&] { return twin().set(type, name, data.data(), static_cast<int32_t>(data.size())); },
                       twin().set_tag, expected);
    }
    /// Has these 256 bytes read, and nothing more.
    void expect_read(const char* type, const char* name, const Bytes& data) {
        GuardedBuffer<uint8_t> read(256, '#', '+');
        const int32_t size = 256;
        expect_success([&] { return twin().get(type, name, read.data(), &size); }, twin().get_tag, region_bytes());
        EXPECT_EQ(read.content(), data);
        EXPECT_TRUE(read.guards_are_whole());
    }
    /// Has both calls find no such pair.
    void expect_missing(const char* type, const char* name) {
        const std::string line = std::string("type:") + type + ",name:" + name + " not found";
        const Bytes data = test::pattern(16, 9);
        expect_failure([&] { return twin().set(type, name, data.data(), 16); }, twin().set_tag, line,
                       SHMNM_ERR_NOTFOUND);
        GuardedBuffer<uint8_t> read(256, '#', '+');
        const int32_t size = 256;
        expect_failure([&] { return twin().get(type, name, read.data(), &size); }, twin().get_tag, line,
                       SHMNM_ERR_NOTFOUND);
        EXPECT_EQ(read.content(), Bytes(256, '#'));
        EXPECT_TRUE(read.guards_are_whole());
    }
};

INSTANTIATE_TEST_SUITE_P(Of, ResourceDescription, testing::Values(hb, np), test::kind_of_instance);

// ---- the first record ----

TEST_P(ResourceDescription, IsStoredUpTo256Bytes) {
    add("lan", "lan1");
    for (const int32_t length : {1, 10, 255, 256, 257, 300, INT32_MAX}) {
        SCOPED_TRACE(length);
        // No more is there to be read than what is written.
        const Bytes data =
            test::pattern(static_cast<size_t>(std::min(length, 256)), static_cast<size_t>(length % 1000));
        Bytes expected = region_bytes();
        test::put(expected, description(0), data);
        expect_success([&] { return twin().set("lan", "lan1", data.data(), length); }, twin().set_tag, expected);
    }
}

TEST_P(ResourceDescription, KeepsTheRestOfALongerEarlierDescription) {
    add("lan", "lan1");
    const Bytes older = test::pattern(20, 1), newer = test::pattern(10, 2);
    expect_set("lan", "lan1", older, description(0));
    expect_set("lan", "lan1", newer, description(0));
    Bytes expected(256);
    test::put(expected, 0, older);
    test::put(expected, 0, newer);
    expect_read("lan", "lan1", expected);
    EXPECT_EQ(expected[10], older[10]);
}

TEST_P(ResourceDescription, CanHoldAnyBytes) {
    add("lan", "lan1");
    Bytes data(256);
    for (size_t i = 0; i < 256; ++i) data[i] = static_cast<uint8_t>(i);
    expect_set("lan", "lan1", data, description(0));
    expect_read("lan", "lan1", data);
    expect_set("lan", "lan1", Bytes(256), description(0));
    expect_read("lan", "lan1", Bytes(256));
}

TEST_P(ResourceDescription, IsReadUpToTheRequestedSizeAnd256Bytes) {
    add("lan", "lan1");
    const Bytes data = test::pattern(256, 3);
    expect_set("lan", "lan1", data, description(0));
    for (const int32_t asked : {1, 5, 255, 256, 257, 1000, INT32_MAX}) {
        SCOPED_TRACE(asked);
        Bytes expected(256, '#');
        test::put(expected, 0, test::part(data, 0, static_cast<size_t>(std::min(asked, 256))));
        GuardedBuffer<uint8_t> read(256, '#', '+');
        const int32_t size = asked;
        expect_success([&] { return twin().get("lan", "lan1", read.data(), &size); }, twin().get_tag, region_bytes());
        EXPECT_EQ(read.content(), expected) << "without a NUL behind it";
        EXPECT_TRUE(read.guards_are_whole());
        EXPECT_EQ(size, asked);
    }
}

TEST_P(ResourceDescription, IsZeroInANewResource) {
    add("lan", "lan1");
    expect_read("lan", "lan1", Bytes(256));
    expect_set("lan", "lan1", test::pattern(256, 1), description(0));
    ASSERT_EQ(twin().remove("lan", "lan1"), SHMNM_OK);
    add("lan", "lan1");
    expect_read("lan", "lan1", Bytes(256));
}

TEST_P(ResourceDescription, BelongsToOneTableOnly) {
    add("lan", "lan1");
    const Twin& other = twin().has_network_rows ? np : hb;
    ASSERT_EQ(other.add("lan", "lan1", 1), SHMNM_OK);
    ASSERT_EQ(other.add("ping", "ping1", 1), SHMNM_OK);
    expect_set("lan", "lan1", test::pattern(256, 1), description(0));
    expect_missing("ping", "ping1");
    uint8_t byte = 91;
    const int32_t size = 1;
    EXPECT_EQ(other.get("lan", "lan1", &byte, &size), SHMNM_OK);
    EXPECT_EQ(byte, 0);
}

// ---- the step ----

TEST_P(ResourceDescription, IsNotFoundForTheSecondResource) {
    add_servers();
    add("lan", "lan1");
    add("disk", "disk1");
    add("ping", "ping1");
    expect_missing("disk", "disk1");
    expect_missing("ping", "ping1");
    expect_set("lan", "lan1", test::pattern(256, 1), description(0));
}

TEST_P(ResourceDescription, IsFoundOnceItsResourceBecomesTheFirst) {
    add("lan", "lan1");
    add("disk", "disk1");
    const Bytes data = test::pattern(256, 1);
    poke(description(1), data);
    expect_missing("disk", "disk1");
    ASSERT_EQ(twin().remove("lan", "lan1"), SHMNM_OK);
    expect_read("disk", "disk1", data);
    expect_set("disk", "disk1", test::pattern(256, 2), description(0));
}

TEST_P(ResourceDescription, IsSearchedForAmongTheStatesOfTheFirstResource) {
    add_servers();
    add("lan", "lan1");
    add("disk", "disk1");
    // 584 bytes behind the table's start: the name is the first record's states, the type lies in the second record's
    // name at byte 232, the description begins with the last 24 bytes of its type.
    poke(record(0) + 584, {'p', 'i', 'n', 'g', '1', 0});
    poke(record(1) + 232, {'p', 'i', 'n', 'g', 0});
    expect_missing("disk", "disk1");
    const Bytes data = test::pattern(256, 1);
    expect_set("ping", "ping1", data, record(1) + 264);
    expect_read("ping", "ping1", data);
    // One resource less, and it is not looked for any more.
    poke_word(twin().count_at, 1);
    expect_missing("ping", "ping1");
}

TEST_P(ResourceDescription, IsFoundAtShiftedOffsetsForEmptyTexts) {
    ASSERT_EQ(shmnm_addnode("alpha", 10), SHMNM_OK);
    add("lan", "lan1");
    add("disk", "disk1");
    // With an opened state the second place has the type "" and the name "\2".
    expect_missing("", "");
    expect_set("", "\x02", test::pattern(10, 1), record(1) + 264);
    // The third place has neither name nor type.
    add("ping", "ping1");
    expect_set("", "", test::pattern(256, 2), record(2) + 240);
    EXPECT_EQ(twin().remove("ping", "ping1"), SHMNM_ERR_NOTFOUND) << "its type is overwritten";
    // Without a server the second place matches first.
    ASSERT_EQ(shmnm_rmnode("alpha"), SHMNM_OK);
    poke_word(server_state(0, 0), 0);
    expect_set("", "", test::pattern(256, 3), record(1) + 264);
}

TEST_P(ResourceDescription, IsThatOfTheFirstMatch) {
    add("lan", "lan1");
    add("disk", "disk1");
    poke(record(0) + 584, {'l', 'a', 'n', '1', 0});
    poke(record(1) + 232, {'l', 'a', 'n', 0});
    expect_set("lan", "lan1", test::pattern(256, 1), description(0));
}

TEST_P(ResourceDescription, IsFoundOnlyIfBothTypeAndNameMatch) {
    add("lan", "lan1");
    add("disk", "disk1");
    poke(record(0) + 584, {'p', 'i', 'n', 'g', '1', 0});
    poke(record(1) + 232, {'p', 'i', 'n', 'g', 0});
    expect_missing("lan", "ping1");
    expect_missing("ping", "lan1");
}

TEST_P(ResourceDescription, IsSearchedWithOneStrideWhateverTheMaximumOfServers) {
    add("lan", "lan1");
    add("disk", "disk1");
    ASSERT_EQ(shmnm_setmaxvalue_ex(9, 3, 3), SHMNM_OK);
    expect_set("lan", "lan1", test::pattern(256, 1), description(0));
    expect_missing("disk", "disk1");
}

TEST_P(ResourceDescription, IsFoundForEveryResourceOnlyIfRecordsHaveNoStates) {
    poke_word(8, 0);
    add("lan", "lan1");
    add("disk", "disk1");
    add("ping", "ping1");
    expect_set("lan", "lan1", test::pattern(256, 1), twin().table + 288);
    expect_set("disk", "disk1", test::pattern(256, 2), twin().table + 584 + 288);
    expect_set("ping", "ping1", test::pattern(256, 3), twin().table + 1168 + 288);
    expect_read("disk", "disk1", test::pattern(256, 2));
}

// ---- refusals ----

TEST_P(ResourceDescription, IsNotFoundUnderASimilarTypeOrName) {
    expect_missing("lan", "lan1");
    expect_missing("", "");
    add("lan", "lan1");
    const std::pair<const char*, const char*> missing[] = {
        {"lan", "lan2"},  {"disk", "lan1"}, {"LAN", "lan1"}, {"lan", "LAN1"}, {"la", "lan1"}, {"lan", "lan"},
        {"lan", "lan11"}, {"", "lan1"},     {"lan", ""},     {"", ""},        {"-", "lan1"},  {"%s", "%n%d"}};
    for (const auto& [type, name] : missing) expect_missing(type, name);
}

TEST_P(ResourceDescription, IsNotFoundUnderTruncatedTexts) {
    const std::string text(32, 'x'), cut(31, 'x');
    add(text.c_str(), text.c_str());
    expect_missing(text.c_str(), text.c_str());
    expect_missing(cut.c_str(), text.c_str());
    expect_set(cut.c_str(), cut.c_str(), test::pattern(256, 1), description(0));
}

TEST_P(ResourceDescription, NeedsATypeANameDataAndALengthToBeSet) {
    add("lan", "lan1");
    const Bytes data = test::pattern(16, 1);
    const struct {
        const char *type, *name;
        const void* data;
        int32_t length;
    } refused[] = {{nullptr, "lan1", data.data(), 16}, {"lan", nullptr, data.data(), 16},
                   {"lan", "lan1", nullptr, 16},       {"lan", "lan1", data.data(), 0},
                   {"lan", "lan1", data.data(), -1},   {"lan", "lan1", data.data(), INT32_MIN},
                   {nullptr, nullptr, nullptr, 0},     {"lan", "lan2", data.data(), 0}};
    for (const auto& given : refused) {
        expect_failure([&] { return twin().set(given.type, given.name, given.data, given.length); }, twin().set_tag,
                       "invalid param", SHMNM_ERR_PARAM);
    }
}

TEST_P(ResourceDescription, NeedsATypeANameABufferAndASizeToBeRead) {
    add("lan", "lan1");
    GuardedBuffer<uint8_t> read(16, '#', '+');
    const int32_t enough = 16, none = 0, negative = -1, most_negative = INT32_MIN;
    const struct {
        const char *type, *name;
        void* buffer;
        const int32_t* size;
    } refused[] = {{nullptr, "lan1", read.data(), &enough}, {"lan", nullptr, read.data(), &enough},
                   {"lan", "lan1", nullptr, &enough},       {"lan", "lan1", read.data(), &none},
                   {"lan", "lan1", read.data(), &negative}, {"lan", "lan1", read.data(), &most_negative},
                   {"lan", "lan1", read.data(), nullptr},   {nullptr, nullptr, nullptr, nullptr},
                   {"lan", "lan2", read.data(), &none}};
    for (const auto& given : refused) {
        expect_failure([&] { return twin().get(given.type, given.name, given.buffer, given.size); }, twin().get_tag,
                       "invalid param", SHMNM_ERR_PARAM);
    }
    EXPECT_EQ(read.content(), Bytes(16, '#'));
    EXPECT_TRUE(read.guards_are_whole());
}

TEST_P(ResourceDescription, ReportsNotInitFirstAndLogsNothing) {
    shmnm_delete();
    log_of_last_call();
    uint8_t byte = 91;
    const int32_t size = 1;
    EXPECT_EQ(twin().set(nullptr, nullptr, nullptr, 0), SHMNM_ERR_NOTINIT);
    EXPECT_EQ(twin().set("lan", "lan1", &byte, 1), SHMNM_ERR_NOTINIT);
    EXPECT_EQ(twin().get(nullptr, nullptr, nullptr, nullptr), SHMNM_ERR_NOTINIT);
    EXPECT_EQ(twin().get("lan", "lan1", &byte, &size), SHMNM_ERR_NOTINIT);
    EXPECT_EQ(byte, 91);
    EXPECT_THAT(log_of_last_call(), IsEmpty()) << "the log is closed";
}

}  // namespace
