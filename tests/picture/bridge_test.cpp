// The bridge as a reader finds it: what is said of one that runs, stands still or has ended, and what is made of its
// marks.
#include "picture/bridge.h"

#include <gmock/gmock.h>

#include <atomic>
#include <functional>
#include <string>
#include <vector>

#include "bridge_marks/page_of_a_bridge.h"
#include "picture/platform.h"

namespace picture {
namespace {

using bridge::Freshness;
using bridge::Marks;
using bridge::MarksPage;
using test::PageOfABridge;
using testing::ElementsAre;

constexpr uint64_t two_seconds_us = 2'000'000;

Marks some_marks() {
    Marks marks;
    marks.is_connected = marks.is_running = marks.is_fed = true;
    marks.server = "alpha";
    marks.limit = 100'000;
    marks.servers = {{.server = "beta", .freshness = Freshness::fresh, .age = 5}};
    return marks;
}
void write_ago(const PageOfABridge& page, uint64_t ago_us, const Marks& marks = some_marks()) {
    write_marks(*page.get(), marks, platform::steady_clock_us() - ago_us);
}

TEST(BridgeReader, FindsNoBridgeWithoutMarks) {
    BridgeReader reader;
    EXPECT_FALSE(reader.read().is_there());
    {
        const PageOfABridge page(sizeof(MarksPage));
        EXPECT_FALSE(reader.read().is_there()) << "none were written";
        write_ago(page, 0);
        EXPECT_TRUE(reader.read().is_there());
        ++page.get()->header.version;
        EXPECT_FALSE(BridgeReader().read().is_there()) << "another version";
    }
    EXPECT_FALSE(reader.read().is_there()) << "the bridge has ended";
    {
        const PageOfABridge next(sizeof(MarksPage));
        EXPECT_FALSE(reader.read().is_there()) << "the next bridge has written none yet";
    }
    const PageOfABridge page(4096);
    EXPECT_FALSE(reader.read().is_there()) << "too small";
}

TEST(BridgeReader, SaysWhatABridgeSaysThatRuns) {
    const PageOfABridge page(sizeof(MarksPage));
    Marks marks = some_marks();
    for (int i = 0; i < 259; ++i) marks.contested.push_back("cluster/clstat");
    write_ago(page, 10'000, marks);
    const Bridge found = BridgeReader().read();
    EXPECT_TRUE(found.is_up);
    EXPECT_EQ(found.stopped_us, 0u);
    EXPECT_TRUE(found.marks.is_connected && found.marks.is_running && found.marks.is_fed);
    EXPECT_EQ(found.marks.servers.at(0).freshness, Freshness::fresh);
    EXPECT_GE(found.marks.servers.at(0).age, 15) << "they grow older";
    EXPECT_EQ(found.left_out, 3u);
    EXPECT_EQ(found.lost_servers, 0u);
}

TEST(BridgeReader, SaysHowManyServersHaveNoMark) {
    const PageOfABridge page(sizeof(MarksPage));
    Marks marks = some_marks();
    marks.servers.resize(258, marks.servers[0]);
    write_ago(page, 0, marks);
    EXPECT_EQ(BridgeReader().read().lost_servers, 2u);
}

TEST(BridgeReader, VouchesForNothingOnceTheBridgeHasStoodStillForTwoSeconds) {
    const PageOfABridge page(sizeof(MarksPage));
    write_ago(page, two_seconds_us);
    const Bridge found = BridgeReader().read();
    EXPECT_FALSE(found.is_up);
    EXPECT_TRUE(found.is_there());
    EXPECT_GE(found.stopped_us, two_seconds_us);
    EXPECT_FALSE(found.marks.is_connected || found.marks.is_running || found.marks.is_fed);
    EXPECT_EQ(found.marks.server, "alpha");
    EXPECT_EQ(found.marks.servers.at(0).freshness, Freshness::unknown);
    EXPECT_GE(found.marks.servers.at(0).age, 2'005);
}

TEST(BridgeReader, KeepsTheLastMarksOfABridgeThatStopsWithinAWrite) {
    const PageOfABridge page(sizeof(MarksPage));
    write_ago(page, 0);
    BridgeReader reader;
    reader.read();
    std::atomic_ref<uint64_t>(page.get()->header.sequence).fetch_add(1);
    EXPECT_EQ(reader.read().marks.server, "alpha");
    // A reader that has none waits for the end of the write.
    const uint64_t before = platform::steady_clock_us();
    EXPECT_FALSE(BridgeReader().read().is_there());
    EXPECT_GE(platform::steady_clock_us() - before, two_seconds_us);
}

TEST(BridgeReader, MakesTextsPrintableThatOtherMachinesWrote) {
    const PageOfABridge page(sizeof(MarksPage));
    Marks marks = some_marks();
    marks.cluster = "\x1b[31m";
    write_ago(page, 0, marks);
    EXPECT_EQ(BridgeReader().read().marks.cluster, "%1B[31m");
}

TEST(SafeMarks, ArePrintableAndHaveOnlyEscapedNames) {
    Marks marks;
    for (const char* const name : {"a%20b", "", "a b", "a%2", "a%2f", "c"}) {
        marks.servers.push_back({.server = name, .address = "\x1b:1"});
    }
    marks.server = marks.cluster = marks.member = "\n";
    marks.contested = {"x", "\xff"};
    marks.unmatched = {"\x7f", "50%"};
    make_safe(marks);
    ASSERT_EQ(marks.servers.size(), 2u);
    EXPECT_EQ(marks.servers[0].server, "a%20b");
    EXPECT_EQ(marks.servers[0].address, "%1B:1");
    EXPECT_EQ(marks.servers[1].server, "c");
    EXPECT_THAT((std::vector{marks.server, marks.cluster, marks.member}), ElementsAre("%0A", "%0A", "%0A"));
    EXPECT_THAT(marks.contested, ElementsAre("x", "%FF"));
    EXPECT_THAT(marks.unmatched, ElementsAre("%7F", "50%"));
}

TEST(TwoReadings, SayTheSameWhateverMovesAllTheTime) {
    Bridge one{.is_up = true, .stopped_us = 0, .marks = some_marks(), .left_out = 1, .lost_servers = 2};
    EXPECT_TRUE(say_the_same(one, one));
    Bridge other = one;
    other.marks.servers[0].age = 9;
    other.marks.servers[0].sequence = 8;
    other.marks.longest_hold_us = 7;
    EXPECT_TRUE(say_the_same(one, other));
    other.marks.servers[0].age = 0;
    EXPECT_TRUE(say_the_same(one, other)) << "words that have just come";
    one.stopped_us = 3;
    EXPECT_TRUE(say_the_same(one, other)) << "for how long it stands still";
    for (const std::function<void(Bridge&)>& edit : std::vector<std::function<void(Bridge&)>>{
             [](Bridge& bridge) { bridge.is_up = false; },
             [](Bridge& bridge) { bridge.left_out = 2; },
             [](Bridge& bridge) { bridge.lost_servers = 1; },
             [](Bridge& bridge) { bridge.marks.is_fed = false; },
             [](Bridge& bridge) { bridge.marks.servers[0].age = -1; },
             [](Bridge& bridge) { bridge.marks.servers[0].freshness = Freshness::silent; },
             [](Bridge& bridge) { bridge.marks.servers.clear(); },
         }) {
        Bridge edited = other;
        edit(edited);
        EXPECT_FALSE(say_the_same(one, edited));
        EXPECT_FALSE(say_the_same(edited, one));
    }
    Bridge stopped = one, gone = one;
    stopped.is_up = gone.is_up = false;
    gone.stopped_us = 0;
    EXPECT_FALSE(say_the_same(stopped, gone));
}

TEST(FindMark, TakesTheMarkOfTheServer) {
    Bridge bridge;
    bridge.marks.servers = {{.server = "alpha"}, {.server = "beta"}};
    EXPECT_EQ(find_mark(bridge, "beta"), &bridge.marks.servers[1]);
    EXPECT_EQ(find_mark(bridge, "bet"), nullptr);
}

TEST(FreshnessName, IsOneOfThree) {
    EXPECT_STREQ(name_of(Freshness::unknown), "unknown");
    EXPECT_STREQ(name_of(Freshness::fresh), "fresh");
    EXPECT_STREQ(name_of(Freshness::silent), "silent");
}

}  // namespace
}  // namespace picture
