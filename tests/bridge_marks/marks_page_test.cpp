#include "bridge_marks/page.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <thread>

#include "support/child.h"

namespace bridge {
namespace {

Marks some_marks() {
    Marks marks;
    marks.is_connected = marks.is_running = marks.is_fed = true;
    marks.limit = 4'000;
    marks.longest_hold_us = 412;
    marks.server = "alpha";
    marks.cluster = "production";
    marks.member = "http://127.0.0.1:2379";
    marks.servers = {{.server = "beta",
                      .freshness = Freshness::fresh,
                      .age = 250,
                      .sequence = 7,
                      .address = "beta:8080",
                      .is_claimed = true,
                      .has_other_names = true},
                     {.server = "gamma",
                      .freshness = Freshness::silent,
                      .is_unmatched = true,
                      .is_duplicate = true,
                      .has_other_times = true}};
    marks.agreed = {4, 3, 1, 2};
    marks.contested = {"clstat"};
    marks.unmatched = {"servers/gamma"};
    return marks;
}

TEST(BridgeMarks, AreReadBackAsTheyWereWritten) {
    const auto page = std::make_unique<MarksPage>();
    write_marks(*page, some_marks(), 5);
    const auto read = read_marks(*page);
    ASSERT_TRUE(read);
    const Marks& marks = read->marks;
    EXPECT_TRUE(marks.is_connected);
    EXPECT_TRUE(marks.is_running);
    EXPECT_FALSE(marks.is_refused);
    EXPECT_TRUE(marks.is_fed);
    EXPECT_EQ(marks.limit, 4'000);
    EXPECT_EQ(marks.longest_hold_us, 412U);
    EXPECT_EQ(read->written_us, 5U);
    EXPECT_EQ(marks.server, "alpha");
    EXPECT_EQ(marks.cluster, "production");
    EXPECT_EQ(marks.member, "http://127.0.0.1:2379");
    ASSERT_EQ(marks.servers.size(), 2U);
    EXPECT_EQ(marks.servers[0].server, "beta");
    EXPECT_EQ(marks.servers[0].freshness, Freshness::fresh);
    EXPECT_EQ(marks.servers[0].age, 250);
    EXPECT_EQ(marks.servers[0].sequence, 7U);
    EXPECT_EQ(marks.servers[0].address, "beta:8080");
    EXPECT_TRUE(marks.servers[0].is_claimed);
    EXPECT_TRUE(marks.servers[0].has_other_names);
    EXPECT_FALSE(marks.servers[0].is_unmatched);
    EXPECT_EQ(marks.servers[1].freshness, Freshness::silent);
    EXPECT_EQ(marks.servers[1].age, -1);
    EXPECT_TRUE(marks.servers[1].is_unmatched);
    EXPECT_TRUE(marks.servers[1].is_duplicate);
    EXPECT_TRUE(marks.servers[1].has_other_times);
    EXPECT_FALSE(marks.servers[0].has_other_times);
    EXPECT_EQ(read->lost_servers, 0U);
    EXPECT_EQ(marks.agreed.proposed, 4U);
    EXPECT_EQ(marks.agreed.accepted, 3U);
    EXPECT_EQ(marks.agreed.lost, 1U);
    EXPECT_EQ(marks.agreed.replaced, 2U);
    EXPECT_EQ(marks.contested, std::vector<std::string>{"clstat"});
    EXPECT_EQ(marks.unmatched, std::vector<std::string>{"servers/gamma"});
}

TEST(BridgeMarks, MoveTheSequenceWithEveryWrite) {
    const auto page = std::make_unique<MarksPage>();
    write_marks(*page, some_marks(), 5);
    const uint64_t first = read_marks(*page).value().sequence;
    write_marks(*page, some_marks(), 5);
    EXPECT_GT(read_marks(*page).value().sequence, first);
}

TEST(BridgeMarks, GrowOldUntilNoServerIsFreshWhileTheirBridgeStandsStill) {
    Marks marks = some_marks();
    make_older(marks, 3'749'000);
    EXPECT_EQ(marks.servers[0].age, 3'999);
    EXPECT_EQ(marks.servers[0].freshness, Freshness::fresh);
    make_older(marks, 1'000);
    EXPECT_EQ(marks.servers[0].age, 4'000);
    EXPECT_EQ(marks.servers[0].freshness, Freshness::unknown);
    EXPECT_EQ(marks.servers[1].age, -1) << "not known, and stays so";
    EXPECT_EQ(marks.servers[1].freshness, Freshness::silent);
}

TEST(BridgeMarks, GrowOldWithoutAnEndIfTheirBridgeSaysNoLimit) {
    Marks marks = some_marks();
    marks.limit = 0;
    make_older(marks, 60'000'000);
    EXPECT_EQ(marks.servers[0].age, 60'250);
    EXPECT_EQ(marks.servers[0].freshness, Freshness::fresh);
}

TEST(BridgeMarks, AreRefusedInAnotherFormatAndWhileTheyAreWritten) {
    const auto page = std::make_unique<MarksPage>();
    EXPECT_FALSE(read_marks(*page)) << "a new page";
    write_marks(*page, some_marks(), 5);
    ++page->header.version;
    EXPECT_FALSE(read_marks(*page)) << "another version";
    --page->header.version;
    ++page->header.sequence;
    EXPECT_FALSE(read_marks(*page)) << "a writer that was stopped within a write";
    write_marks(*page, some_marks(), 5);
    EXPECT_TRUE(read_marks(*page)) << "the writer after it";
}

TEST(BridgeMarks, AreReadAfterAWriterThatWasInterruptedHasGoneOn) {
    const auto page = std::make_unique<MarksPage>();
    write_marks(*page, {.is_connected = true}, 7);
    ++page->header.sequence;
    std::thread writer([&page] { write_marks(*page, {.is_connected = true, .is_fed = true}, 8); });
    const auto read = read_marks(*page);
    writer.join();
    ASSERT_TRUE(read);
    EXPECT_TRUE(read->marks.is_fed);
}

TEST(BridgeMarks, AreCutToTheRoomThereIsAndSayHowMuchIsMissing) {
    Marks marks;
    marks.servers.resize(marked_servers + 5);
    marks.contested.assign(marked_words - 1, "clstat");
    marks.unmatched.assign(3, std::string(300, 'u'));
    const auto page = std::make_unique<MarksPage>();
    write_marks(*page, marks, 5);
    const Marks read = read_marks(*page).value().marks;
    EXPECT_EQ(read_marks(*page).value().lost_words, 2U);
    EXPECT_EQ(read_marks(*page).value().lost_servers, 5U);
    EXPECT_EQ(read.servers.size(), marked_servers);
    EXPECT_EQ(read.contested.size(), marked_words - 1);
    EXPECT_EQ(read.unmatched, std::vector<std::string>{std::string(256, 'u')});
}

TEST(BridgeMarks, AreNeverReadHalfWritten) {
    const auto page = std::make_unique<MarksPage>();
    Marks marks = some_marks();
    marks.unmatched.resize(marked_words - marks.contested.size());
    write_marks(*page, marks, 5);
    std::atomic<bool> ends = false;
    std::thread writer([&] {
        for (uint32_t round = 1; !ends; ++round) {
            marks.agreed.proposed = marks.agreed.lost = round;
            marks.servers[0].sequence = marks.servers[1].sequence = round;
            marks.unmatched.back() = std::to_string(round);
            const auto begin = std::chrono::steady_clock::now();
            write_marks(*page, marks, 5);
            // A reader beside a writer that never pauses seldom finds a whole page.
            std::this_thread::sleep_for(std::chrono::steady_clock::now() - begin);
        }
    });
    unsigned whole = 0;
    for (unsigned reads = 0; reads < test::share_of(300) || whole < 20; ++reads) {
        const auto read = read_marks(*page);
        if (!read || read->marks.agreed.proposed == 4) continue;
        ++whole;
        EXPECT_EQ(read->marks.agreed.proposed, read->marks.agreed.lost);
        EXPECT_EQ(read->marks.servers[0].sequence, read->marks.agreed.lost);
        EXPECT_EQ(read->marks.servers[1].sequence, read->marks.agreed.lost);
        EXPECT_EQ(read->marks.unmatched.back(), std::to_string(read->marks.agreed.lost));
    }
    ends = true;
    writer.join();
}

}  // namespace
}  // namespace bridge
