// A copy on its way to another process: what arrives, and what is refused.
#include "picture/transfer.h"

#include <gmock/gmock.h>

#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "picture/error.h"
#include "picture/json.h"
#include "shmnm.h"

namespace picture {
namespace {

using testing::HasSubstr;

constexpr size_t piece = 256, size = 9 * piece;

/// With bytes in the second, third and seventh piece.
Snapshot copy() {
    Snapshot snapshot;
    snapshot.bytes.resize(size);
    for (const size_t at : {piece + 4, 3 * piece - 1, 6 * piece}) snapshot.bytes[at] = 0x5A;
    snapshot.wanted = Bytes::in_use;
    snapshot.mapped = 4096;
    snapshot.object = uint64_t{1} << 60;
    snapshot.counts = {4, 3, 2, 1};
    snapshot.lock_wait_us = 17;
    snapshot.lock_held_us = 18;
    return snapshot;
}

/// The same with all that a live copy can tell.
Snapshot live_copy() {
    Snapshot snapshot = copy();
    snapshot.live = true;
    snapshot.wanted = Bytes::all;
    snapshot.configured = {5, 6, 7, 8};
    snapshot.steps = UINT64_MAX;
    snapshot.lock = {
        .process = 4711, .thread = 4712, .since_ns = 1, .takeovers = 2, .last_takeover_ns = 3, .takes = 4, .looks = 5};
    snapshot.note.emplace();
    snapshot.note->process = 4713;
    return snapshot;
}

Bridge bridge_with_marks() {
    Bridge bridge;
    bridge.is_up = true;
    bridge.left_out = 1;
    bridge.lost_servers = 2;
    bridge::Marks& marks = bridge.marks;
    marks.is_connected = marks.is_running = marks.is_refused = marks.is_fed = true;
    marks.server = "alpha";
    marks.cluster = "north";
    marks.member = "http://127.0.0.1:2379";
    marks.agreed = {.proposed = 4, .accepted = 3, .lost = 2, .replaced = 1};
    marks.contested = {"hb/lan/lan1/pri"};
    marks.unmatched = {"servers/omega"};
    marks.servers = {{.server = "alpha",
                      .freshness = bridge::Freshness::fresh,
                      .age = 20,
                      .sequence = 30,
                      .address = "http://127.0.0.1:8080",
                      .is_claimed = true},
                     {.server = "beta", .freshness = bridge::Freshness::silent, .age = 40, .is_duplicate = true},
                     {.server = "gamma", .is_unmatched = true, .has_other_names = true, .has_other_times = true}};
    return bridge;
}

struct Document {
    Json head;
    std::string bytes;
};

Document sent(const Snapshot& snapshot, const Bridge* bridge, bool with_zeros = false) {
    const Transfer transfer = to_transfer(snapshot, bridge, false, with_zeros);
    Document document{Json::parse(transfer.head), ""};
    for (const std::string_view bytes : transfer.bytes) document.bytes += bytes;
    return document;
}

Arrival arrival(const Document& document) {
    return from_transfer(document.head.dump() + "\n" + document.bytes);
}

std::string why_refused(const std::string& text) {
    try {
        from_transfer(text);
        return "not refused";
    } catch (const Error& error) {
        EXPECT_EQ(error.kind, ErrorKind::failed);
        EXPECT_THAT(error.what(), HasSubstr("the answer is not a copy of a region: "));
        EXPECT_THAT(error.what(), HasSubstr("; see whether shmnmweb answers at this address, in the same version"));
        return error.what();
    }
}

void expect_same_lock(const platform::LockHolder& is, const platform::LockHolder& sent) {
    EXPECT_EQ(is.process, sent.process);
    EXPECT_EQ(is.thread, sent.thread);
    EXPECT_EQ(is.since_ns, sent.since_ns);
    EXPECT_EQ(is.takeovers, sent.takeovers);
    EXPECT_EQ(is.last_takeover_ns, sent.last_takeover_ns);
    EXPECT_EQ(is.takes, sent.takes);
    EXPECT_EQ(is.looks, sent.looks);
}

TEST(Transfer, BringsAllThatALiveCopyTells) {
    const Snapshot before = live_copy();
    const Bridge bridge = bridge_with_marks();
    const Transfer transfer = to_transfer(before, &bridge, true, false);
    std::string text = transfer.head;
    for (const std::string_view bytes : transfer.bytes) text += bytes;
    const Arrival arrived = from_transfer(text);
    const Snapshot& after = arrived.snapshot;
    EXPECT_TRUE(arrived.is_lock_held);
    EXPECT_TRUE(after.live);
    EXPECT_EQ(after.wanted, Bytes::all);
    EXPECT_EQ(after.bytes, before.bytes);
    EXPECT_EQ(after.mapped, before.mapped);
    EXPECT_EQ(after.object, before.object);
    EXPECT_EQ(after.counts, before.counts);
    EXPECT_EQ(after.configured, before.configured);
    EXPECT_EQ(after.steps, before.steps);
    EXPECT_EQ(after.lock_wait_us, before.lock_wait_us);
    EXPECT_EQ(after.lock_held_us, before.lock_held_us);
    ASSERT_TRUE(after.lock);
    expect_same_lock(*after.lock, *before.lock);
    ASSERT_TRUE(after.note);
    EXPECT_EQ(std::memcmp(&*after.note, &*before.note, sizeof *after.note), 0);
    ASSERT_TRUE(after.bridge);
    EXPECT_TRUE(say_the_same(*after.bridge, bridge));
    EXPECT_EQ(after.bridge->marks.servers, bridge.marks.servers);
}

TEST(Transfer, BringsACopyThatTellsOnlyItsBytes) {
    const Snapshot before = copy();
    const Arrival arrived = arrival(sent(before, nullptr));
    const Snapshot& after = arrived.snapshot;
    EXPECT_FALSE(arrived.is_lock_held);
    EXPECT_FALSE(after.live);
    EXPECT_EQ(after.wanted, Bytes::in_use);
    EXPECT_EQ(after.bytes, before.bytes);
    EXPECT_FALSE(after.configured || after.steps || after.lock || after.note || after.bridge);
}

TEST(Transfer, TellsForHowLongTheMarksOfAStoppedBridgeStandStill) {
    Bridge stopped;
    stopped.stopped_us = 5'000'000;
    const Arrival arrived = arrival(sent(copy(), &stopped));
    ASSERT_TRUE(arrived.snapshot.bridge);
    EXPECT_FALSE(arrived.snapshot.bridge->is_up);
    EXPECT_EQ(arrived.snapshot.bridge->stopped_us, 5'000'000u);
}

TEST(Transfer, TellsOfNoLongerStandstillThanMicrosecondsCanCount) {
    Bridge stopped;
    stopped.stopped_us = 1'000;
    Document document = sent(copy(), &stopped);
    document.head["marks"]["stopped_ms"] = UINT64_MAX;
    EXPECT_EQ(arrival(document).snapshot.bridge->stopped_us, 9'223'372'036'854'775'000u);
}

TEST(Transfer, OfAnOlderServerHasNoMarks) {
    Document document = sent(copy(), nullptr);
    document.head.erase("marks");
    EXPECT_FALSE(arrival(document).snapshot.bridge);
}

TEST(Transfer, LeavesOutPiecesOfZerosUnlessTheyAreWanted) {
    const Document without = sent(copy(), nullptr), with = sent(copy(), nullptr, true);
    EXPECT_EQ(without.head["ranges"].dump(), "[[256,512],[1536,256]]");
    EXPECT_EQ(without.bytes.size(), 3 * piece);
    EXPECT_EQ(with.head["ranges"].dump(), "[[0,2304]]");
    EXPECT_EQ(with.bytes.size(), size);
    EXPECT_EQ(arrival(with).snapshot.bytes, copy().bytes);
}

TEST(Transfer, LeavesOutAllOfACopyOfZeros) {
    Snapshot zeros;
    zeros.bytes.resize(size);
    const Document document = sent(zeros, nullptr);
    EXPECT_EQ(document.head["ranges"].dump(), "[]");
    EXPECT_EQ(arrival(document).snapshot.bytes, zeros.bytes);
}

TEST(Transfer, EndsWithTheCopyIfThatIsInTheMiddleOfAPiece) {
    Snapshot snapshot = copy();
    snapshot.bytes.push_back(0x5A);
    const Document document = sent(snapshot, nullptr);
    EXPECT_EQ(document.head["ranges"].dump(), "[[256,512],[1536,256],[2304,1]]");
    EXPECT_EQ(document.bytes.size(), 3 * piece + 1);
    EXPECT_EQ(arrival(document).snapshot.bytes, snapshot.bytes);
}

TEST(Transfer, BringsARegionThatIsNoMoreThanItsHeader) {
    Snapshot header;
    header.bytes.assign(sizeof(shmnm_header), 0x5A);
    EXPECT_EQ(arrival(sent(header, nullptr)).snapshot.bytes, header.bytes);
}

// Other machines wrote them.
TEST(Transfer, BringsMarksThatAreSafeToPrint) {
    const Bridge bridge = bridge_with_marks();
    Document document = sent(copy(), &bridge);
    document.head["marks"]["cluster"] = "north\n";
    document.head["marks"]["servers"][1]["name"] = "beta\n";
    const bridge::Marks marks = arrival(document).snapshot.bridge->marks;
    EXPECT_EQ(marks.cluster, "north%0A");
    ASSERT_EQ(marks.servers.size(), 2u);
    EXPECT_EQ(marks.servers[1].server, "gamma");
}

TEST(Transfer, TakesARangeOfNoBytes) {
    Document document = sent(copy(), nullptr);
    document.head["ranges"].push_back({size, 0});
    EXPECT_EQ(arrival(document).snapshot.bytes, copy().bytes);
}

TEST(Transfer, RefusesWhatHasNoLineOfJson) {
    EXPECT_THAT(why_refused(""), HasSubstr(": it has no line;"));
    EXPECT_THAT(why_refused("{}"), HasSubstr(": it has no line;"));
    EXPECT_THAT(why_refused("not JSON\n"), HasSubstr(": a member is not an object;"));
    EXPECT_THAT(why_refused("[]\n"), HasSubstr(": a member is not an object;"));
    EXPECT_THAT(why_refused("{}\n"), HasSubstr(": a member is missing;"));
}

TEST(Transfer, RefusesEachMemberThatCannotBe) {
    using Change = std::function<void(Json&)>;
    const auto puts = [](const char* member, const Json& value) -> Change {
        return [=](Json& head) { head[Json::json_pointer(member)] = value; };
    };
    const Json note = sent(live_copy(), nullptr).head["note"];
    const std::string hex = note.get<std::string>();
    const struct {
        Change change;
        const char* why;
    } refused[] = {
        {puts("/kind", "status"), "it is another document"},
        {puts("/version", 2), "it is of another version"},
        {puts("/live", 1), "a flag is missing"},
        {puts("/mapped", nullptr), "a number is missing"},
        {puts("/mapped", -1), "a number is out of range"},
        {puts("/object", "x"), "a text is not a number"},
        {puts("/object", "1x"), "a text is not a number"},
        {puts("/object", "18446744073709551616"), "a text is not a number"},
        {puts("/counts", 4), "a member is not an object"},
        {puts("/counts/servers", int64_t{INT32_MAX} + 1), "a number is out of range"},
        {puts("/counts/servers", int64_t{INT32_MIN} - 1), "a number is out of range"},
        // It is no -1 either.
        {puts("/counts/servers", UINT64_MAX), "a number is out of range"},
        {puts("/lock/process", uint64_t{1} << 32), "a number is out of range"},
        {puts("/note", 1), "the note is not a text"},
        {puts("/note", hex + "00"), "the note has another size"},
        {puts("/note", "g" + hex.substr(1)), "the note is not hexadecimal"},
        {puts("/note", "0g" + hex.substr(2)), "the note is not hexadecimal"},
        {puts("/marks/server", 1), "a text is missing"},
        {puts("/marks/contested", "hb"), "a list is missing"},
        {puts("/marks/servers", 1), "the marks are missing"},
        {puts("/size", sizeof(shmnm_header) - 1), "no region has that size"},
        {puts("/size", uint64_t{1} << 32), "no region has that size"},
        {puts("/ranges", 1), "the ranges are missing"},
        {puts("/ranges/0", 1), "a range is not two numbers"},
        {puts("/ranges/0", {256, 512, 1}), "a range is not two numbers"},
        {puts("/ranges/0", {"256", 512}), "a range is not two numbers"},
        {puts("/ranges/0", {256, -1}), "a range is not two numbers"},
        {puts("/ranges/0", {size, 1}), "a range lies outside the region"},
        {puts("/ranges/0", {size + 1, 0}), "a range lies outside the region"},
        {puts("/ranges/0", {0, 4 * piece}), "it was cut"},
        {puts("/ranges/0", {256, 511}), "there is more than the region"},
    };
    const Bridge bridge = bridge_with_marks();
    for (const auto& [change, why] : refused) {
        Document document = sent(live_copy(), &bridge);
        change(document.head);
        EXPECT_THAT(why_refused(document.head.dump() + "\n" + document.bytes), HasSubstr(std::string(": ") + why + ";"))
            << document.head;
    }
}

TEST(Transfer, RefusesACopyThatWasCutOrHasMoreThanItsBytes) {
    const Document document = sent(copy(), nullptr);
    const std::string text = document.head.dump() + "\n" + document.bytes;
    EXPECT_EQ(from_transfer(text).snapshot.bytes, copy().bytes);
    EXPECT_THAT(why_refused(text.substr(0, text.size() - 1)), HasSubstr(": it was cut;"));
    EXPECT_THAT(why_refused(text + "x"), HasSubstr(": there is more than the region;"));
}

}  // namespace
}  // namespace picture
