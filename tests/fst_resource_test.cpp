// The fst resource: the state and the description of the first fst record, and the process ids kept under a name.
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

constexpr const char* set_tag = "_setfstrscpid";
constexpr const char* get_tag = "_getfstrscpid";

void put(Bytes& bytes, size_t offset, const std::string& text) {
    std::copy(text.begin(), text.end(), bytes.begin() + static_cast<std::ptrdiff_t>(offset));
}
void put(Bytes& bytes, size_t offset, uint64_t value, size_t size) {
    for (size_t i = 0; i < size; ++i) bytes[offset + i] = static_cast<uint8_t>(value >> 8 * i);
}

/// Three servers, two hb and two np resources, one fst resource: its record lies at 9052, the three records of process
/// ids follow at 9636.
class FstResource : public test::RegionTest {
  protected:
    static constexpr size_t state_word = 9052 + 548, description = 9052 + 288;

    FstResource() { map_region({.servers = 3, .hb = 2, .np = 2, .fst = 1}); }

    static constexpr size_t pid_record(size_t position) { return 9636 + 324 * position; }
};

// ---- the state ----

TEST_F(FstResource, StoresAnyStateAndReturnsIt) {
    for (const uint32_t value : {1u, 2u, 0x80000000u, 0xFFFFFFFFu, 0u}) {
        Bytes expected = region_bytes();
        put(expected, state_word, value, 4);
        log_of_last_call();
        EXPECT_EQ(shmnm_setfstrscstat(value), SHMNM_OK);
        EXPECT_THAT(log_of_last_call(), ElementsAre(Enter("_setfstrscstat"), Exit("_setfstrscstat", SHMNM_OK)));
        EXPECT_EQ(region_bytes(), expected);
        uint32_t read = ~value;
        EXPECT_EQ(shmnm_getfstrscstat(&read), SHMNM_OK);
        EXPECT_THAT(log_of_last_call(), ElementsAre(Enter("_getfstrscstat"), Exit("_getfstrscstat", SHMNM_OK)));
        EXPECT_EQ(read, value);
        EXPECT_EQ(region_bytes(), expected);
    }
}

TEST_F(FstResource, NeedsAnOutputForItsState) {
    EXPECT_EQ(shmnm_getfstrscstat(nullptr), SHMNM_ERR_PARAM);
    EXPECT_THAT(log_of_last_call(), ElementsAre(Enter("_getfstrscstat"), Error("_getfstrscstat", "invalid param"),
                                                Exit("_getfstrscstat", SHMNM_ERR_PARAM)));
}

// ---- the description ----

TEST_F(FstResource, KeepsTheBytesAfterAShorterDescription) {
    Bytes expected = region_bytes();
    put(expected, description, "abcdef");
    EXPECT_EQ(shmnm_setfstdescript("abcdef", 6), SHMNM_OK);
    EXPECT_THAT(log_of_last_call(), ElementsAre(Enter("_setfstdescript"), Exit("_setfstdescript", SHMNM_OK)));
    EXPECT_EQ(region_bytes(), expected);
    put(expected, description, "XYcdef");
    EXPECT_EQ(shmnm_setfstdescript("XY", 2), SHMNM_OK);
    EXPECT_EQ(region_bytes(), expected);
    GuardedBuffer<char> read(8, '?', '#');
    const int32_t length = 6;
    log_of_last_call();
    EXPECT_EQ(shmnm_getfstdescript(read.data(), &length), SHMNM_OK);
    EXPECT_THAT(log_of_last_call(), ElementsAre(Enter("_getfstdescript"), Exit("_getfstdescript", SHMNM_OK)));
    EXPECT_THAT(read.content(), ElementsAre('X', 'Y', 'c', 'd', 'e', 'f', '?', '?'));
    EXPECT_TRUE(read.guards_are_whole());
    EXPECT_EQ(region_bytes(), expected);
}

TEST_F(FstResource, StoresADescriptionAsBytesWithoutATerminator) {
    const uint8_t bytes[] = {0, 0xFF, 0, 1};
    Bytes expected = region_bytes();
    std::copy(std::begin(bytes), std::end(bytes), expected.begin() + description);
    EXPECT_EQ(shmnm_setfstdescript(bytes, 4), SHMNM_OK);
    EXPECT_EQ(region_bytes(), expected);
    GuardedBuffer<uint8_t> read(5, 9, 8);
    const int32_t length = 5;
    EXPECT_EQ(shmnm_getfstdescript(read.data(), &length), SHMNM_OK);
    EXPECT_THAT(read.content(), ElementsAre(0, 0xFF, 0, 1, 0));
    EXPECT_TRUE(read.guards_are_whole());
}

TEST_F(FstResource, CutsADescriptionAt256Bytes) {
    Bytes long_text(1000);
    for (size_t i = 0; i < long_text.size(); ++i) long_text[i] = static_cast<uint8_t>(i % 251 + 1);
    for (const int32_t length : {255, 256, 257, 1000}) {
        poke(description, Bytes(256, 0));
        Bytes expected = region_bytes();
        std::copy_n(long_text.begin(), std::min(length, 256), expected.begin() + description);
        EXPECT_EQ(shmnm_setfstdescript(long_text.data(), length), SHMNM_OK);
        EXPECT_EQ(region_bytes(), expected) << length;
    }
    // A length beyond 256 says nothing about the bytes behind the 256th.
    Bytes exact(long_text.begin(), long_text.begin() + 256);
    exact.shrink_to_fit();
    EXPECT_EQ(shmnm_setfstdescript(exact.data(), INT32_MAX), SHMNM_OK);

    for (const int32_t length : {255, 256, 257, 1000, INT32_MAX}) {
        GuardedBuffer<uint8_t> read(1000, 0, 0xEE);
        int32_t count = length;
        EXPECT_EQ(shmnm_getfstdescript(read.data(), &count), SHMNM_OK);
        EXPECT_EQ(count, length) << "the count is not written back";
        std::vector<uint8_t> expected(1000, 0);
        std::copy_n(long_text.begin(), std::min(length, 256), expected.begin());
        EXPECT_EQ(read.content(), expected);
        EXPECT_TRUE(read.guards_are_whole());
    }
}

TEST_F(FstResource, RefusesAnEmptyDescription) {
    ASSERT_EQ(shmnm_setfstdescript("before", 6), SHMNM_OK);
    const Bytes before = region_bytes();
    const std::pair<const char*, int32_t> refused[] = {
        {nullptr, 6}, {"after", 0}, {"after", -1}, {"after", INT_MIN}, {nullptr, 0}};
    for (const auto& [text, length] : refused) {
        log_of_last_call();
        EXPECT_EQ(shmnm_setfstdescript(text, length), SHMNM_ERR_PARAM);
        EXPECT_THAT(log_of_last_call(), ElementsAre(Enter("_setfstdescript"), Error("_setfstdescript", "invalid param"),
                                                    Exit("_setfstdescript", SHMNM_ERR_PARAM)));
    }
    EXPECT_EQ(region_bytes(), before);

    GuardedBuffer<char> read(6, '?', '#');
    const int32_t six = 6, none = 0, negative = -1, lowest = INT_MIN;
    const std::pair<char*, const int32_t*> unreadable[] = {{nullptr, &six},          {read.data(), &none},
                                                           {read.data(), &negative}, {read.data(), &lowest},
                                                           {read.data(), nullptr},   {nullptr, nullptr}};
    for (const auto& [buffer, length] : unreadable) {
        log_of_last_call();
        EXPECT_EQ(shmnm_getfstdescript(buffer, length), SHMNM_ERR_PARAM);
        EXPECT_THAT(log_of_last_call(), ElementsAre(Enter("_getfstdescript"), Error("_getfstdescript", "invalid param"),
                                                    Exit("_getfstdescript", SHMNM_ERR_PARAM)));
    }
    EXPECT_THAT(read.content(), ElementsAre('?', '?', '?', '?', '?', '?'));
    EXPECT_TRUE(read.guards_are_whole());
}

// ---- how many fst resources there are ----

class FstResourceCount : public test::RegionTest {};

TEST_F(FstResourceCount, LeavesNoStateOrDescriptionIfItIsZero) {
    for (const int32_t count : {0, -1}) {
        map_region({.servers = 30, .hb = 2, .np = 2, .fst = count});
        poke_word(20, 5);  // what the header says later changes nothing
        const Bytes before = region_bytes();
        uint32_t state = 91;
        GuardedBuffer<char> read(6, '?', '#');
        const int32_t length = 6, none = 0;
        log_of_last_call();
        EXPECT_EQ(shmnm_setfstrscstat(7), SHMNM_ERR_NOTFOUND);
        EXPECT_THAT(log_of_last_call(),
                    ElementsAre(Enter("_setfstrscstat"), Exit("_setfstrscstat", SHMNM_ERR_NOTFOUND)));
        EXPECT_EQ(shmnm_getfstrscstat(&state), SHMNM_ERR_NOTFOUND);
        EXPECT_THAT(log_of_last_call(),
                    ElementsAre(Enter("_getfstrscstat"), Exit("_getfstrscstat", SHMNM_ERR_NOTFOUND)));
        EXPECT_EQ(shmnm_setfstdescript("abcdef", 6), SHMNM_ERR_NOTFOUND);
        EXPECT_THAT(log_of_last_call(),
                    ElementsAre(Enter("_setfstdescript"), Exit("_setfstdescript", SHMNM_ERR_NOTFOUND)));
        EXPECT_EQ(shmnm_getfstdescript(read.data(), &length), SHMNM_ERR_NOTFOUND);
        EXPECT_THAT(log_of_last_call(),
                    ElementsAre(Enter("_getfstdescript"), Exit("_getfstdescript", SHMNM_ERR_NOTFOUND)));
        EXPECT_EQ(shmnm_getfstrscstat(nullptr), SHMNM_ERR_PARAM) << "a bad argument comes first";
        EXPECT_EQ(shmnm_setfstdescript(nullptr, 6), SHMNM_ERR_PARAM);
        EXPECT_EQ(shmnm_getfstdescript(read.data(), &none), SHMNM_ERR_PARAM);
        EXPECT_EQ(state, 91u);
        EXPECT_THAT(read.content(), ElementsAre('?', '?', '?', '?', '?', '?'));
        EXPECT_TRUE(read.guards_are_whole());
        EXPECT_EQ(region_bytes(), before);
        shmnm_delete();
    }
}

TEST_F(FstResourceCount, LeavesNoRoomForProcessIdsIfItIsZero) {
    map_region({.servers = 3, .hb = 2, .np = 2, .fst = 0});
    const Bytes before = region_bytes();
    EXPECT_EQ(shmnm_setfstrscpid("ping", 0, 1, 2), SHMNM_ERR_COUNTOVER);
    EXPECT_THAT(log_of_last_call(), ElementsAre(Enter(set_tag), Error(set_tag, "pid count is over(0)"),
                                                Exit(set_tag, SHMNM_ERR_COUNTOVER)));
    EXPECT_EQ(region_bytes(), before);
}

TEST_F(FstResourceCount, DoublesTheProcessIdsAndLeavesTheSecondRecordUnusedIfItIsTwo) {
    map_region({.servers = 1, .hb = 0, .np = 0, .fst = 2});
    Bytes expected = region_bytes();
    put(expected, 1404 + 548, 7, 4);
    put(expected, 1404 + 288, "abc");
    put(expected, 40, 2, 4);
    put(expected, 1404 + 2 * 584, "one");
    put(expected, 1404 + 2 * 584 + 256, 0x11, 4);
    put(expected, 1404 + 2 * 584 + 324, "two");
    put(expected, 1404 + 2 * 584 + 324 + 256, 0x22, 4);
    EXPECT_EQ(shmnm_setfstrscstat(7), SHMNM_OK);
    EXPECT_EQ(shmnm_setfstdescript("abc", 3), SHMNM_OK);
    EXPECT_EQ(shmnm_setfstrscpid("one", 0, 0x11, 0), SHMNM_OK);
    EXPECT_EQ(shmnm_setfstrscpid("two", 0, 0x22, 0), SHMNM_OK);
    EXPECT_EQ(region_bytes(), expected);
}

TEST_F(FstResourceCount, ComesFromTheMappingAndNotFromTheHeader) {
    map_region({.servers = 3, .hb = 2, .np = 2, .fst = 1});
    poke_word(20, 0);
    EXPECT_EQ(shmnm_setfstrscstat(7), SHMNM_OK);
    uint32_t state = 91;
    EXPECT_EQ(shmnm_getfstrscstat(&state), SHMNM_OK);
    EXPECT_EQ(state, 7u);
}

TEST_F(FstResourceCount, GivesNoAccessToARecordBeyondTheView) {
    map_region({.servers = 219'984, .hb = 16, .np = 16, .fst = 1});  // 1988 bytes, since the size wraps
    const Bytes before = region_bytes();
    uint32_t state = 91;
    char read[] = "??????";
    const int32_t length = 6;
    EXPECT_EQ(shmnm_setfstrscstat(7), SHMNM_ERR_NOTFOUND);
    EXPECT_EQ(shmnm_getfstrscstat(&state), SHMNM_ERR_NOTFOUND);
    EXPECT_EQ(shmnm_setfstdescript("abcdef", 6), SHMNM_ERR_NOTFOUND);
    EXPECT_EQ(shmnm_getfstdescript(read, &length), SHMNM_ERR_NOTFOUND);
    EXPECT_EQ(state, 91u);
    EXPECT_STREQ(read, "??????");
    log_of_last_call();
    EXPECT_EQ(shmnm_setfstrscpid("ping", 0, 1, 2), SHMNM_ERR_COUNTOVER);
    EXPECT_THAT(log_of_last_call(), ElementsAre(Enter(set_tag), Error(set_tag, "pid count is over(0)"),
                                                Exit(set_tag, SHMNM_ERR_COUNTOVER)));
    EXPECT_EQ(region_bytes(), before);
}

// ---- process ids ----

struct Kind {
    int32_t number;
    size_t pid, piddata;
};

class FstPidKind : public FstResource, public testing::WithParamInterface<Kind> {};

INSTANTIATE_TEST_SUITE_P(Kinds, FstPidKind, testing::Values(Kind{0, 256, 268}, Kind{1, 260, 276}, Kind{2, 264, 284}),
                         [](const auto& instance) { return "kind" + std::to_string(instance.param.number); });

TEST_P(FstPidKind, IsStoredInItsOwnFieldOfANewRecord) {
    const auto& [kind, pid, piddata] = GetParam();
    Bytes expected = region_bytes();
    put(expected, 40, 1, 4);
    put(expected, pid_record(0), "ping");
    put(expected, pid_record(0) + pid, 0xFEDCBA98, 4);
    put(expected, pid_record(0) + piddata, 0x8899AABBCCDDEEFF, 8);
    EXPECT_EQ(shmnm_setfstrscpid("ping", kind, 0xFEDCBA98, 0x8899AABBCCDDEEFF), SHMNM_OK);
    EXPECT_THAT(log_of_last_call(), ElementsAre(Enter(set_tag), Exit(set_tag, SHMNM_OK)));
    EXPECT_EQ(region_bytes(), expected);

    uint32_t read_pid = 91;
    uint64_t read_data = 92;
    EXPECT_EQ(shmnm_getfstrscpid("ping", kind, &read_pid, &read_data), SHMNM_OK);
    EXPECT_THAT(log_of_last_call(), ElementsAre(Enter(get_tag), Exit(get_tag, SHMNM_OK)));
    EXPECT_EQ(read_pid, 0xFEDCBA98u);
    EXPECT_EQ(read_data, 0x8899AABBCCDDEEFFu);
    EXPECT_EQ(region_bytes(), expected);
}

TEST_P(FstPidKind, IsUpdatedWithoutTouchingOtherKinds) {
    const auto& [kind, pid, piddata] = GetParam();
    for (const int32_t other : {0, 1, 2}) {
        ASSERT_EQ(shmnm_setfstrscpid("ping", other, 0x01010101, 0x0202020202020202), SHMNM_OK);
        ASSERT_EQ(shmnm_setfstrscpid("pong", other, 0x03030303, 0x0404040404040404), SHMNM_OK);
    }
    Bytes expected = region_bytes();
    put(expected, pid_record(1) + pid, 0, 4);
    put(expected, pid_record(1) + piddata, 0xFFFFFFFFFFFFFFFF, 8);
    EXPECT_EQ(shmnm_setfstrscpid("pong", kind, 0, 0xFFFFFFFFFFFFFFFF), SHMNM_OK);
    EXPECT_EQ(region_bytes(), expected);
}

TEST_P(FstPidKind, IsReadFromItsOwnField) {
    const auto& [kind, pid, piddata] = GetParam();
    ASSERT_EQ(shmnm_setfstrscpid("ping", kind, 1, 1), SHMNM_OK);
    for (size_t i = 0; i < 9; ++i) poke_word(pid_record(0) + 256 + 4 * i, 0x10 + static_cast<uint32_t>(i));
    uint32_t read_pid = 91;
    uint64_t read_data = 92;
    EXPECT_EQ(shmnm_getfstrscpid("ping", kind, &read_pid, &read_data), SHMNM_OK);
    EXPECT_EQ(read_pid, 0x10 + (pid - 256) / 4);
    const uint64_t word = 0x10 + (piddata - 256) / 4;
    EXPECT_EQ(read_data, (word + 1) << 32 | word);
}

TEST_P(FstPidKind, IsReadIntoTheOutputsThatTheCallerPasses) {
    const int32_t kind = GetParam().number;
    ASSERT_EQ(shmnm_setfstrscpid("ping", kind, 5, 6), SHMNM_OK);
    uint32_t pid = 91;
    uint64_t data = 92;
    log_of_last_call();
    EXPECT_EQ(shmnm_getfstrscpid("ping", kind, &pid, nullptr), SHMNM_OK);
    EXPECT_THAT(log_of_last_call(), ElementsAre(Enter(get_tag), Exit(get_tag, SHMNM_OK)));
    EXPECT_EQ(pid, 5u);
    EXPECT_EQ(shmnm_getfstrscpid("ping", kind, nullptr, &data), SHMNM_OK);
    EXPECT_EQ(data, 6u);
    EXPECT_EQ(shmnm_getfstrscpid("ping", kind, nullptr, nullptr), SHMNM_OK);
    EXPECT_EQ(shmnm_getfstrscpid("pong", kind, nullptr, nullptr), SHMNM_OK);
}

class FstPids : public FstResource {
  protected:
    /// Reads a name's process id of kind 0, and expects success.
    static uint32_t pid_of(const char* name) {
        uint32_t pid = 91;
        uint64_t data = 92;
        EXPECT_EQ(shmnm_getfstrscpid(name, 0, &pid, &data), SHMNM_OK);
        return pid;
    }
};

TEST_F(FstPids, AreStoredByNameInTheOrderOfArrival) {
    Bytes expected = region_bytes();
    put(expected, 40, 2, 4);
    put(expected, pid_record(0), "beta");
    put(expected, pid_record(0) + 256, 21, 4);
    put(expected, pid_record(0) + 264, 22, 4);
    put(expected, pid_record(0) + 268, 31, 8);
    put(expected, pid_record(0) + 284, 32, 8);
    put(expected, pid_record(1), "alpha");
    put(expected, pid_record(1) + 260, 11, 4);
    put(expected, pid_record(1) + 276, 12, 8);
    EXPECT_EQ(shmnm_setfstrscpid("beta", 0, 21, 31), SHMNM_OK);
    EXPECT_EQ(shmnm_setfstrscpid("alpha", 1, 11, 12), SHMNM_OK);
    EXPECT_EQ(shmnm_setfstrscpid("beta", 2, 22, 32), SHMNM_OK);
    EXPECT_EQ(region_bytes(), expected);
}

TEST_F(FstPids, KeepTheRestOfTheRecordOfANewName) {
    poke(pid_record(0), Bytes(324, 0xFF));
    Bytes expected = region_bytes();
    put(expected, 40, 1, 4);
    std::fill_n(expected.begin() + pid_record(0), 256, 0);
    put(expected, pid_record(0), "ping");
    put(expected, pid_record(0) + 260, 5, 4);
    put(expected, pid_record(0) + 276, 6, 8);
    EXPECT_EQ(shmnm_setfstrscpid("ping", 1, 5, 6), SHMNM_OK);
    EXPECT_EQ(region_bytes(), expected) << "the whole field of the name is filled with zeros, nothing else";
}

TEST_F(FstPids, DistinguishNamesByEveryByte) {
    ASSERT_EQ(shmnm_setfstrscpid("ping", 0, 1, 0), SHMNM_OK);
    ASSERT_EQ(shmnm_setfstrscpid("Ping", 0, 2, 0), SHMNM_OK);
    EXPECT_EQ(pid_of("ping"), 1u);
    EXPECT_EQ(pid_of("Ping"), 2u);
    for (const char* const name : {"pin", "ping1", "PING", ""}) EXPECT_EQ(pid_of(name), 91u) << name;
}

TEST_F(FstPids, AreNoneAndNoErrorForAnUnknownName) {
    for (const bool empty : {true, false}) {
        if (!empty) {
            ASSERT_EQ(shmnm_setfstrscpid("ping", 0, 1, 2), SHMNM_OK);
        }
        const Bytes before = region_bytes();
        for (const int32_t kind : {0, 1, 2, 3, -1, INT_MAX, INT_MIN}) {
            uint32_t pid = 91;
            uint64_t data = 92;
            log_of_last_call();
            EXPECT_EQ(shmnm_getfstrscpid("pong", kind, &pid, &data), SHMNM_OK) << "the kind is not looked at";
            EXPECT_THAT(log_of_last_call(), ElementsAre(Enter(get_tag), Exit(get_tag, SHMNM_OK)));
            EXPECT_EQ(pid, 91u);
            EXPECT_EQ(data, 92u);
        }
        EXPECT_EQ(region_bytes(), before);
    }
}

TEST_F(FstPids, ReturnOneAndTraceTwoForABadKind) {
    ASSERT_EQ(shmnm_setfstrscpid("ping", 0, 1, 2), SHMNM_OK);
    const Bytes before = region_bytes();
    for (const int32_t kind : {3, -1, INT_MAX, INT_MIN}) {
        uint32_t pid = 91;
        uint64_t data = 92;
        log_of_last_call();
        EXPECT_EQ(shmnm_getfstrscpid("ping", kind, &pid, &data), 1u);
        EXPECT_THAT(log_of_last_call(), ElementsAre(Enter(get_tag), Error(get_tag, "invalid param"), Exit(get_tag, 2)));
        EXPECT_EQ(pid, 91u);
        EXPECT_EQ(data, 92u);
        EXPECT_EQ(shmnm_setfstrscpid("ping", kind, 7, 8), 1u);
        EXPECT_THAT(log_of_last_call(), ElementsAre(Enter(set_tag), Error(set_tag, "invalid param"), Exit(set_tag, 2)));
    }
    EXPECT_EQ(region_bytes(), before);
}

TEST_F(FstPids, UseARecordForANewNameEvenIfTheKindIsBad) {
    Bytes expected = region_bytes();
    put(expected, 40, 1, 4);
    put(expected, pid_record(0), "ping");
    EXPECT_EQ(shmnm_setfstrscpid("ping", 3, 7, 8), 1u);
    EXPECT_THAT(log_of_last_call(), ElementsAre(Enter(set_tag), Error(set_tag, "invalid param"), Exit(set_tag, 2)));
    EXPECT_EQ(region_bytes(), expected);
    uint32_t pid = 91;
    uint64_t data = 92;
    EXPECT_EQ(shmnm_getfstrscpid("ping", 0, &pid, &data), SHMNM_OK);
    EXPECT_EQ(pid, 0u);
    EXPECT_EQ(data, 0u);
}

TEST_F(FstPids, AreRefusedOnceAllRecordsAreInUseEvenForAKnownName) {
    shmnm_delete();
    map_region({.servers = 2, .hb = 1, .np = 1, .fst = 1});
    EXPECT_EQ(shmnm_setfstrscpid("alpha", 0, 1, 2), SHMNM_OK);
    EXPECT_EQ(shmnm_setfstrscpid("beta", 0, 3, 4), SHMNM_OK);
    const Bytes before = region_bytes();
    for (const char* const name : {"gamma", "alpha"}) {
        for (const int32_t kind : {0, 3}) {
            log_of_last_call();
            EXPECT_EQ(shmnm_setfstrscpid(name, kind, 5, 6), SHMNM_ERR_COUNTOVER);
            EXPECT_THAT(log_of_last_call(), ElementsAre(Enter(set_tag), Error(set_tag, "pid count is over(2)"),
                                                        Exit(set_tag, SHMNM_ERR_COUNTOVER)));
        }
    }
    EXPECT_EQ(region_bytes(), before);
    EXPECT_EQ(pid_of("alpha"), 1u);
    EXPECT_EQ(pid_of("beta"), 3u);
    EXPECT_EQ(pid_of("gamma"), 91u);
}

TEST_F(FstPids, HaveNoRoomAfterAClearUntilTheRegionIsMappedAgain) {
    ASSERT_EQ(shmnm_setfstrscpid("ping", 0, 1, 2), SHMNM_OK);
    ASSERT_EQ(shmnm_clear(), SHMNM_OK);
    EXPECT_EQ(pid_of("ping"), 91u);
    const Bytes cleared = region_bytes();
    log_of_last_call();
    EXPECT_EQ(shmnm_setfstrscpid("ping", 0, 3, 4), SHMNM_ERR_COUNTOVER);
    EXPECT_THAT(log_of_last_call(), ElementsAre(Enter(set_tag), Error(set_tag, "pid count is over(0)"),
                                                Exit(set_tag, SHMNM_ERR_COUNTOVER)));
    EXPECT_EQ(region_bytes(), cleared);
    // The handle of the create keeps the region alive, so the attach finds the cleared one.
    ASSERT_EQ(shmnm_detach(), SHMNM_OK);
    ASSERT_EQ(shmnm_attach(), SHMNM_OK);
    EXPECT_EQ(word_at(24), 3u);
    EXPECT_EQ(shmnm_setfstrscpid("ping", 0, 5, 6), SHMNM_OK);
    EXPECT_EQ(pid_of("ping"), 5u);
}

TEST_F(FstPids, AreLimitedByTheCapacityInTheHeader) {
    poke_word(24, 1);
    EXPECT_EQ(shmnm_setfstrscpid("one", 0, 1, 0), SHMNM_OK);
    EXPECT_EQ(shmnm_setfstrscpid("two", 0, 2, 0), SHMNM_ERR_COUNTOVER);
    poke_word(24, 2);
    EXPECT_EQ(shmnm_setfstrscpid("two", 0, 2, 0), SHMNM_OK);
    poke_word(24, 0xFFFFFFFF);
    log_of_last_call();
    EXPECT_EQ(shmnm_setfstrscpid("one", 0, 3, 0), SHMNM_ERR_COUNTOVER);
    EXPECT_THAT(log_of_last_call(), ElementsAre(Enter(set_tag), Error(set_tag, "pid count is over(2)"),
                                                Exit(set_tag, SHMNM_ERR_COUNTOVER)));
}

TEST_F(FstPids, TreatANullNameAsTheEmptyName) {
    Bytes expected = region_bytes();
    put(expected, 40, 1, 4);
    put(expected, pid_record(0) + 256, 5, 4);
    put(expected, pid_record(0) + 268, 6, 8);
    EXPECT_EQ(pid_of(nullptr), 91u);
    EXPECT_EQ(shmnm_setfstrscpid(nullptr, 0, 5, 6), SHMNM_OK);
    EXPECT_EQ(region_bytes(), expected);
    EXPECT_EQ(pid_of(nullptr), 5u);
    EXPECT_EQ(pid_of(""), 5u);
    EXPECT_EQ(shmnm_setfstrscpid("", 0, 7, 8), SHMNM_OK);
    EXPECT_EQ(pid_of(nullptr), 7u);
    EXPECT_EQ(word_at(40), 1u);
}

// ---- names that fill their field ----

TEST_F(FstPids, AreFoundByANameOf255Bytes) {
    const std::string name(255, 'n');
    Bytes expected = region_bytes();
    put(expected, 40, 1, 4);
    put(expected, pid_record(0), name);
    put(expected, pid_record(0) + 256, 6, 4);
    EXPECT_EQ(shmnm_setfstrscpid(name.c_str(), 0, 5, 0), SHMNM_OK);
    EXPECT_EQ(shmnm_setfstrscpid(name.c_str(), 0, 6, 0), SHMNM_OK);
    EXPECT_EQ(region_bytes(), expected);
    EXPECT_EQ(pid_of(name.c_str()), 6u);
    EXPECT_EQ(pid_of(std::string(254, 'n').c_str()), 91u);
}

TEST_F(FstPids, AreFoundByANameOf256BytesWhileAZeroByteFollowsIt) {
    const std::string name(256, 'n');
    Bytes expected = region_bytes();
    put(expected, 40, 1, 4);
    put(expected, pid_record(0), name);
    put(expected, pid_record(0) + 260, 5, 4);
    EXPECT_EQ(shmnm_setfstrscpid(name.c_str(), 1, 5, 0), SHMNM_OK);
    EXPECT_EQ(region_bytes(), expected);
    // The process id of kind 0 is still 0, and ends the name.
    EXPECT_EQ(pid_of(name.c_str()), 0u);
    put(expected, pid_record(0) + 256, 0x100, 4);
    EXPECT_EQ(shmnm_setfstrscpid(name.c_str(), 0, 0x100, 0), SHMNM_OK);
    EXPECT_EQ(region_bytes(), expected);
    EXPECT_EQ(pid_of(name.c_str()), 0x100u) << "its lowest byte ends the name";
    EXPECT_EQ(pid_of(std::string(255, 'n').c_str()), 91u);
    EXPECT_EQ(pid_of(std::string(257, 'n').c_str()), 91u);
}

TEST_F(FstPids, AreLostUnderANameOf256BytesOnceTheProcessIdReadsAsPartOfIt) {
    const std::string name(256, 'n');
    Bytes expected = region_bytes();
    put(expected, 40, 2, 4);
    for (const size_t position : {size_t{0}, size_t{1}}) put(expected, pid_record(position), name);
    put(expected, pid_record(0) + 256, 'x', 4);
    put(expected, pid_record(1) + 260, 5, 4);
    EXPECT_EQ(shmnm_setfstrscpid(name.c_str(), 0, 'x', 0), SHMNM_OK);
    EXPECT_EQ(pid_of(name.c_str()), 91u);
    EXPECT_EQ(pid_of((name + "x").c_str()), uint32_t{'x'}) << "which makes another name of it";
    EXPECT_EQ(shmnm_setfstrscpid(name.c_str(), 1, 5, 0), SHMNM_OK);
    EXPECT_EQ(region_bytes(), expected) << "so the name gets a second record";
}

TEST_F(FstPids, AreStoredUnderALongNameCutTo256BytesAndNotFoundByIt) {
    for (const size_t length : {size_t{257}, size_t{300}}) {
        shmnm_delete();
        map_region({.servers = 3, .hb = 2, .np = 2, .fst = 1});
        const std::string name(length, 'n'), cut(256, 'n');
        Bytes expected = region_bytes();
        put(expected, 40, 2, 4);
        put(expected, pid_record(0), cut);
        put(expected, pid_record(0) + 260, 5, 4);
        put(expected, pid_record(1), cut);
        put(expected, pid_record(1) + 260, 6, 4);
        EXPECT_EQ(shmnm_setfstrscpid(name.c_str(), 1, 5, 0), SHMNM_OK);
        EXPECT_THAT(log_of_last_call().size(), 2u);
        EXPECT_EQ(shmnm_setfstrscpid(name.c_str(), 1, 6, 0), SHMNM_OK);
        EXPECT_EQ(region_bytes(), expected);
        EXPECT_EQ(pid_of(name.c_str()), 91u);
        uint32_t pid = 91;
        uint64_t data = 92;
        EXPECT_EQ(shmnm_getfstrscpid(cut.c_str(), 1, &pid, &data), SHMNM_OK);
        EXPECT_EQ(pid, 5u) << "the first record with the cut name";
    }
}

TEST_F(FstPids, ReportNotInitBeforeTheyCheckTheirArguments) {
    shmnm_delete();
    log_of_last_call();
    uint32_t word = 91;
    uint64_t data = 92;
    int32_t length = 6;
    char text[] = "before";
    EXPECT_EQ(shmnm_setfstrscstat(7), SHMNM_ERR_NOTINIT);
    EXPECT_EQ(shmnm_getfstrscstat(&word), SHMNM_ERR_NOTINIT);
    EXPECT_EQ(shmnm_getfstrscstat(nullptr), SHMNM_ERR_NOTINIT);
    EXPECT_EQ(shmnm_setfstdescript("abc", 3), SHMNM_ERR_NOTINIT);
    EXPECT_EQ(shmnm_setfstdescript(nullptr, 0), SHMNM_ERR_NOTINIT);
    EXPECT_EQ(shmnm_getfstdescript(text, &length), SHMNM_ERR_NOTINIT);
    EXPECT_EQ(shmnm_getfstdescript(nullptr, nullptr), SHMNM_ERR_NOTINIT);
    EXPECT_EQ(shmnm_setfstrscpid("ping", 0, 1, 2), SHMNM_ERR_NOTINIT);
    EXPECT_EQ(shmnm_setfstrscpid(nullptr, 3, 1, 2), SHMNM_ERR_NOTINIT);
    EXPECT_EQ(shmnm_getfstrscpid("ping", 0, &word, &data), SHMNM_ERR_NOTINIT);
    EXPECT_EQ(shmnm_getfstrscpid(nullptr, 3, nullptr, nullptr), SHMNM_ERR_NOTINIT);
    EXPECT_EQ(word, 91u);
    EXPECT_EQ(data, 92u);
    EXPECT_EQ(length, 6);
    EXPECT_STREQ(text, "before");
    EXPECT_THAT(log_of_last_call(), IsEmpty()) << "the log is closed with the region";
}

// ---- a damaged region: counts that say more than the view of 12288 bytes holds ----

class DamagedFstPids : public FstPids {
  protected:
    DamagedFstPids() {
        EXPECT_EQ(view_size(), 12288u);
        EXPECT_EQ(shmnm_setfstrscpid("ping", 0, 1, 2), SHMNM_OK);
        log_of_last_call();
        poke_word(24, 1000);
    }
};

TEST_F(DamagedFstPids, HaveNoRoomForANewNameBeyondTheView) {
    for (const uint32_t count : {8u, 100u, 0xFFFFFFFFu, 0x80000000u}) {  // 9636 + 8 * 324 is 12228: 60 bytes are left
        poke_word(40, count);
        const Bytes before = region_bytes();
        log_of_last_call();
        EXPECT_EQ(shmnm_setfstrscpid("pong", 0, 3, 4), SHMNM_ERR_COUNTOVER);
        const std::string line = "pid count is over(" + std::to_string(static_cast<int32_t>(count)) + ")";
        EXPECT_THAT(log_of_last_call(),
                    ElementsAre(Enter(set_tag), Error(set_tag, line), Exit(set_tag, SHMNM_ERR_COUNTOVER)));
        EXPECT_EQ(region_bytes(), before);
    }
}

TEST_F(DamagedFstPids, UseTheLastRecordInTheView) {
    poke_word(40, 7);
    EXPECT_EQ(shmnm_setfstrscpid("pong", 2, 3, 4), SHMNM_OK);
    EXPECT_EQ(word_at(40), 8u);
    EXPECT_EQ(word_at(pid_record(7) + 264), 3u);
    uint32_t pid = 91;
    uint64_t data = 92;
    EXPECT_EQ(shmnm_getfstrscpid("pong", 2, &pid, &data), SHMNM_OK);
    EXPECT_EQ(pid, 3u);
    EXPECT_EQ(data, 4u);
}

TEST_F(DamagedFstPids, NeedNoRoomForAnotherRecordIfTheNameIsKnown) {
    for (const uint32_t count : {8u, 999u}) {
        poke_word(40, count);
        Bytes expected = region_bytes();
        put(expected, pid_record(0) + 256, count, 4);
        put(expected, pid_record(0) + 268, 4, 8);
        log_of_last_call();
        EXPECT_EQ(shmnm_setfstrscpid("ping", 0, count, 4), SHMNM_OK);
        EXPECT_THAT(log_of_last_call(), ElementsAre(Enter(set_tag), Exit(set_tag, SHMNM_OK)));
        EXPECT_EQ(region_bytes(), expected);
        EXPECT_EQ(pid_of("ping"), count);
        EXPECT_EQ(pid_of("pong"), 91u);
    }
}

TEST_F(DamagedFstPids, CheckTheCountBeforeTheNames) {
    poke_word(40, 1000);
    const Bytes before = region_bytes();
    EXPECT_EQ(shmnm_setfstrscpid("ping", 0, 3, 4), SHMNM_ERR_COUNTOVER);
    EXPECT_THAT(log_of_last_call(), ElementsAre(Enter(set_tag), Error(set_tag, "pid count is over(1000)"),
                                                Exit(set_tag, SHMNM_ERR_COUNTOVER)));
    EXPECT_EQ(region_bytes(), before);
}

TEST_F(DamagedFstPids, KeepAKnownNameForABadKindWhereNoOtherRecordFits) {
    poke_word(40, 999);
    const Bytes before = region_bytes();
    EXPECT_EQ(shmnm_setfstrscpid("ping", 3, 3, 4), SHMNM_ERR_NOTINIT);
    EXPECT_THAT(log_of_last_call(),
                ElementsAre(Enter(set_tag), Error(set_tag, "invalid param"), Exit(set_tag, SHMNM_ERR_PARAM)));
    EXPECT_EQ(region_bytes(), before);
}

TEST_F(DamagedFstPids, AreNoneWhenTheirCountIsNegative) {
    poke_word(40, 0xFFFFFFFF);
    EXPECT_EQ(pid_of("ping"), 91u);
}

TEST_F(DamagedFstPids, DoNotReadANameBeyondTheView) {
    // The record's name, its ids and all that follows up to the end of the view are one text without an end.
    poke(pid_record(7), Bytes(12288 - pid_record(7), 'n'));
    poke_word(40, 8);
    EXPECT_EQ(pid_of(std::string(12288 - pid_record(7), 'n').c_str()), 91u);
    EXPECT_EQ(pid_of(std::string(5000, 'n').c_str()), 91u);
    poke(12287, {0});
    EXPECT_EQ(pid_of(std::string(12287 - pid_record(7), 'n').c_str()), 0x6E6E6E6Eu);
}

}  // namespace
