// What verify finds: in whatever the library leaves behind, nothing; and of a healthy region each single byte that is
// wrong.
#include "picture/findings.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <string>

#include "picture/answers.h"
#include "picture/library_region.h"
#include "shmnm.h"

namespace picture {

void PrintTo(const Finding& finding, std::ostream* stream) {
    *stream << finding.offset << " " << finding.key << ": expected " << finding.expected << "; found " << finding.found;
}

namespace {

using test::LibraryRegion;
using test::Random;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;

class HealthyRegion : public testing::TestWithParam<Counts> {};

TEST_P(HealthyRegion, HasNoFindingWhateverWasCalled) {
    Random random(test::seed());
    LibraryRegion region(GetParam());
    for (unsigned round = 0; round < test::share_of(60); ++round) {
        region.call(random, test::below(random, 400));
        ASSERT_THAT(findings(region.dump()), IsEmpty()) << "round " << round;
    }
}

TEST_P(HealthyRegion, HasNoFindingWhenFullOrEmptiedAgain) {
    Random random(test::seed());
    LibraryRegion region(GetParam());
    region.fill();
    ASSERT_THAT(findings(region.dump()), IsEmpty());
    region.call(random, 3000);
    ASSERT_THAT(findings(region.dump()), IsEmpty());
    region.clear();
    ASSERT_THAT(findings(region.dump()), IsEmpty());
    region.call(random, 1000);
    ASSERT_THAT(findings(region.dump()), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(, HealthyRegion,
                         testing::Values(Counts{4, 3, 2, 1}, Counts{2, 1, 1, 0}, Counts{3, 5, 1, 4},
                                         Counts{128, 16, 16, 1},
                                         // One server: records reach into the next tables, here a little, into the
                                         // description and the process ids of the fst resource, past whole tables.
                                         Counts{1, 3, 2, 1}, Counts{1, 16, 200, 1}, Counts{1, 200, 1, 0},
                                         Counts{1, 160, 160, 2}, Counts{1, 2, 300, 0}, Counts{1, 400, 3, 1}),
                         [](const auto& instance) {
                             const Counts& counts = instance.param;
                             return "S" + std::to_string(counts.servers) + "H" + std::to_string(counts.hb) + "N" +
                                    std::to_string(counts.np) + "F" + std::to_string(counts.fst);
                         });

/// What a change of one byte is to show.
enum class Shown { nothing, at_the_byte, at_the_place };
struct Expectation {
    Shown shown;
    uint64_t place = 0;
};

constexpr Expectation opaque{Shown::nothing}, stays_zero{Shown::at_the_byte};

/// A byte at a distance from the start of a text field that takes `room` bytes, of which one is for the NUL if it must.
Expectation in_text(const Snapshot& changed, uint64_t field, uint64_t at, uint64_t room, bool needs_nul) {
    const uint64_t length = changed.text(field, room).size();
    if (length == 0 || (length == room && needs_nul)) return {Shown::at_the_place, field};
    // The text became longer or other.
    if (at < field + length) return opaque;
    if (at > field + length) return stays_zero;
    // It ends earlier, and what was behind is no text any more.
    const bool left = at + 1 < field + room && changed.bytes[at + 1] != 0;
    return left ? Expectation{Shown::at_the_place, at + 1} : opaque;
}

/// For 4 servers of which 3 are in use, 3 hb resources of which 2, 2 np resources of which 1, 2 fst records, and 8
/// records of process ids of which 3 are in use.
Expectation expected(const Snapshot& changed, uint64_t at) {
    constexpr uint64_t hb = 2364, np = 9372, fst = 14044, pids = 15212, network = 17804, step = 600;
    const auto in_resource = [&](uint64_t table, uint64_t used) -> Expectation {
        const uint64_t position = (at - table) / step, field = (at - table) % step, record = at - field;
        if (position >= used) return stays_zero;
        if (field < 32) return in_text(changed, record, at, 32, true);
        if (field < 256) return stays_zero;
        if (field < 288) return in_text(changed, record + 256, at, 32, true);
        return field < 552 || field >= 584 ? opaque : stays_zero;
    };
    if (at < 8) return opaque;
    if (at < 24) return {Shown::at_the_place, 8};
    if (at < 44) return {Shown::at_the_place, at / 4 * 4};
    if (at < 64) return opaque;
    if (at < 1084) return stays_zero;
    if (at < hb) {
        const uint64_t position = (at - 1084) / 320, field = (at - 1084) % 320, record = at - field;
        if (position >= 3) return stays_zero;
        if (field < 256) return in_text(changed, record, at, 256, true);
        return field < 272 || (field >= 276 && field < 292) ? opaque : stays_zero;
    }
    if (at < np) return in_resource(hb, 2);
    if (at < fst) return in_resource(np, 1);
    if (at < pids) {
        const uint64_t field = at - fst;
        return (field >= 288 && field < 544) || (field >= 548 && field < 552) ? opaque : stays_zero;
    }
    if (at < network) {
        const uint64_t position = (at - pids) / 324, field = (at - pids) % 324, record = at - field;
        if (position >= 3) return stays_zero;
        if (field < 256) return in_text(changed, record, at, 256, false);
        return field < 292 ? opaque : stays_zero;
    }
    return at < network + 48 ? opaque : stays_zero;
}

TEST(InterruptedChange, IsAFindingThatRepairCompletesUnlessTheTablesWereChangedSince) {
    LibraryRegion region({4, 3, 2, 1});
    Snapshot snapshot = region.dump();
    snapshot.note.emplace();
    *snapshot.note = {};
    snapshot.note->state = shmnm::Note::open;
    snapshot.note->call = shmnm::NotedCall::clear;
    snapshot.note->process = 4711;
    snapshot.note->superseded.state = shmnm::Note::open;
    snapshot.note->superseded.call = shmnm::NotedCall::clear;
    snapshot.note->superseded.process = 4712;
    snapshot.note->superseded.superseded_by = 4711;
    const std::vector<Finding> found = with_repair(findings(snapshot));
    ASSERT_EQ(found.size(), 2u);
    EXPECT_EQ(found[0].offset, 0u);
    EXPECT_EQ(found[0].key, "region/changes");
    EXPECT_EQ(found[0].expected, "whole changes");
    EXPECT_EQ(found[0].found,
              "process 4712 was killed while it cleared the region, and process 4711 has changed the "
              "region since");
    EXPECT_EQ(found[1].expected, "whole changes (\"shmnmctl repair\" completes this one)");
    EXPECT_EQ(found[1].found, "process 4711 was killed while it cleared the region");
}

TEST(DamagedRegion, ReportsOneFindingForEachWrongByte) {
    LibraryRegion region({4, 3, 2, 2});
    for (const std::string& server : {std::string("alpha"), std::string(255, 'b'), std::string("c")}) {
        ASSERT_EQ(shmnm_addnode(server.c_str(), 0), SHMNM_OK);
        ASSERT_EQ(shmnm_setfstrscpid((server + server).c_str(), 2, 3, 4), SHMNM_OK);
    }
    ASSERT_EQ(shmnm_addhbrsc("lan", "lanhb1", 1), SHMNM_OK);
    ASSERT_EQ(shmnm_addhbrsc(std::string(31, 't').c_str(), "x", 1), SHMNM_OK);
    ASSERT_EQ(shmnm_addnprsc("ping", std::string(31, 'n').c_str(), 1), SHMNM_OK);
    const Snapshot healthy = region.dump();
    ASSERT_EQ(healthy.bytes.size(), 17932u);
    ASSERT_THAT(findings(healthy), IsEmpty());

    for (uint64_t at = 0; at < healthy.bytes.size(); ++at) {
        for (const uint8_t byte : {uint8_t{0}, static_cast<uint8_t>(healthy.bytes[at] ^ 0xA5)}) {
            if (byte == healthy.bytes[at]) continue;
            Snapshot changed = healthy;
            changed.bytes[at] = byte;
            changed.counts = changed.header_counts();
            const std::vector<Finding> found = findings(changed);
            // A count that became 0 is in its range, and leaves records in slots that are free now.
            if (at >= 28 && at < 44 && byte == 0) {
                ASSERT_THAT(found, Not(IsEmpty())) << "offset " << at;
                continue;
            }
            const Expectation expectation = expected(changed, at);
            if (expectation.shown == Shown::nothing) {
                ASSERT_THAT(found, IsEmpty()) << "offset " << at;
            } else {
                ASSERT_EQ(found.size(), 1u) << "offset " << at << testing::PrintToString(found);
                ASSERT_EQ(found[0].offset, expectation.shown == Shown::at_the_byte ? at : expectation.place)
                    << "offset " << at << testing::PrintToString(found);
            }
        }
    }
}

/// A healthy region with two records in each table.
class TwoOfEach : public testing::Test {
  protected:
    TwoOfEach() {
        for (const char* const name : {"aa", "bb"}) {
            shmnm_addnode(name, 0);
            shmnm_addhbrsc("lan", name, 0);
            shmnm_addnprsc("ping", name, 0);
            shmnm_setfstrscpid(name, 0, 1, 2);
        }
        dump_ = region_.dump();
    }

    void write(uint64_t at, const std::string& text) {
        std::copy(text.begin(), text.end(), dump_.bytes.begin() + static_cast<std::ptrdiff_t>(at));
    }
    void write_number(uint64_t at, int32_t number) { std::memcpy(dump_.bytes.data() + at, &number, sizeof number); }
    std::vector<std::string> found() const {
        std::vector<std::string> all;
        for (const Finding& one : findings(dump_)) all.push_back(testing::PrintToString(one));
        return all;
    }

    LibraryRegion region_{{4, 3, 2, 2}};
    Snapshot dump_;
};

TEST_F(TwoOfEach, HaveNamesOfTheirOwn) {
    write(1084 + 320, "aa");
    write(2364 + 600, "aa");
    write(9372 + 600, "aa");
    write(15212 + 324, "aa");
    EXPECT_THAT(found(),
                ElementsAre("1404 servers[1]/name: expected a name of its own; found the name of servers[0]",
                            "2964 hb[1]/name: expected a type and a name of its own; found those of hb[0]",
                            "9972 np[1]/name: expected a type and a name of its own; found those of np[0]",
                            "15536 fst/pids[1]/name: expected a name of its own; found the name of fst/pids[0]"));
    write(2364 + 600 + 256, "LAN");
    write(9372 + 600 + 256, "PING");
    EXPECT_EQ(found().size(), 2u) << "of two types";
}

TEST_F(TwoOfEach, HaveAThirdBesideThemWhoseLettersAreTheSame) {
    shmnm_addhbrsc("la", "naa", 0);
    dump_ = region_.dump();
    EXPECT_THAT(found(), IsEmpty());
}

TEST_F(TwoOfEach, AreNamedInTheKeysOfTheirFields) {
    const std::string end = ": expected zeros, as in every reserved field; found 0x01";
    write(1084 + 272, "\x01");
    write(2364 + 600 + 552, "\x01");
    write(9372 + 552, "\x01");
    write(15212 + 324 + 292, "\x01");
    EXPECT_THAT(found(), ElementsAre("1356 servers/aa/reserved_272" + end, "3516 hb/lan/bb/reserved_552" + end,
                                     "9924 np/ping/aa/reserved_552" + end, "15828 fst/pids/bb/reserved_292" + end));
}

TEST_F(TwoOfEach, AreFoundInTheOrderOfTheirPlaces) {
    dump_.configured = Counts{5, 3, 2, 2};
    write_number(8, 5);
    EXPECT_THAT(found(),
                ElementsAre(testing::StartsWith("0 region/size: "), testing::StartsWith("8 header/max_servers: ")));
}

TEST_F(TwoOfEach, LieWhereTheMaximaSay) {
    const std::string servers = "8 header/max_servers: expected 4, as the region is laid out; found 5",
                      fst = "20 header/fst_count: expected 2, as the region is laid out; found 3";
    write_number(8, 5);
    write_number(20, 3);
    EXPECT_THAT(found(), ElementsAre(servers, fst));
    // It agrees with the maxima, which are wrong.
    write_number(24, 15);
    EXPECT_THAT(found(), ElementsAre(servers, fst));
    write_number(24, 9);
    EXPECT_THAT(found(), ElementsAre(servers, fst,
                                     "24 header/fst_pid_limit: expected 8, the servers times the fst "
                                     "resources; found 9"));
}

TEST_F(TwoOfEach, AreNotFewerThanNone) {
    write_number(28, -1);
    EXPECT_THAT(found(), ElementsAre("28 header/server_count: expected 0 to 4; found -1"));
    // Of a file that was cut nobody knows how many there may be.
    dump_.bytes.resize(dump_.bytes.size() - 4);
    EXPECT_THAT(found(), ElementsAre(testing::HasSubstr("header/maxima"),
                                     "28 header/server_count: expected 0 or more; found -1"));
}

TEST_F(TwoOfEach, FillARegionAsItIsConfigured) {
    dump_.configured = dump_.counts;
    EXPECT_THAT(found(), IsEmpty());
    dump_.configured->hb = 4;
    EXPECT_THAT(found(),
                ElementsAre("0 region/size: expected 20300 bytes (servers 4, hb 4, np 2, fst 2), as configured; "
                            "found 17932 bytes mapped"));
}

TEST_F(TwoOfEach, AreAllInTheBytes) {
    dump_.bytes.resize(dump_.bytes.size() - 4);
    EXPECT_THAT(found(),
                ElementsAre("8 header/maxima: expected those of a file of 17932 bytes; found servers 4, hb 3, np "
                            "2, fst 2: 17932 bytes"));
    dump_.live = true;
    write_number(8, -1);
    EXPECT_THAT(found(),
                ElementsAre("8 header/maxima: expected those of a mapping of 17932 bytes; found servers -1, hb "
                            "3, np 2, fst 2: beyond all memory"));
}

TEST(FullRegion, IsLookedAtToTheLastRecordOfEachTable) {
    LibraryRegion region({2, 2, 2, 1});
    region.fill();
    Snapshot full = region.dump();
    // The reserved bytes of the second server, hb resource, np resource, the fst resource, the second process ids'
    // name.
    for (const size_t at :
         {size_t{1404 + 272}, size_t{2316 + 552}, size_t{4652 + 552}, size_t{6396 + 552}, size_t{7304 + 292}}) {
        full.bytes[at] = 1;
    }
    std::vector<std::string> keys;
    for (const Finding& one : findings(full)) keys.push_back(one.key);
    EXPECT_THAT(
        keys, ElementsAre("servers/server1/reserved_272", "hb/lan/lanhb1/reserved_552", "np/ping/pingnp1/reserved_552",
                          "fst[0]/reserved_552", "fst/pids/agent1/reserved_292"));
}

/// A copy of no more than a header and the bytes after it, which are zero.
Snapshot header_of(const Counts& counts, int32_t hb) {
    shmnm_header header{};
    header.max_servers = counts.servers;
    header.max_hb = counts.hb;
    header.max_np = counts.np;
    header.fst_count = counts.fst;
    header.hb_count = hb;
    Snapshot snapshot;
    snapshot.bytes.resize(Layout(counts).size);
    std::memcpy(snapshot.bytes.data(), &header, sizeof header);
    snapshot.mapped = snapshot.bytes.size();
    snapshot.counts = counts;
    return snapshot;
}

std::vector<std::string> keys_of(const std::vector<Finding>& found) {
    std::vector<std::string> all;
    all.reserve(found.size());
    for (const Finding& one : found) all.push_back(one.key);
    return all;
}

TEST(RegionWithoutServers, IsLookedAtNoFurtherThanItsEnd) {
    EXPECT_THAT(findings(header_of({.servers = 0, .hb = 2, .np = 0, .fst = 0}, 1)), IsEmpty());
    // The record of the fst resource lies where the first hb resource would be.
    EXPECT_THAT(keys_of(findings(header_of({.servers = 0, .hb = 2, .np = 0, .fst = 1}, 2))),
                ElementsAre("hb[0]/name", "hb[0]/type"));
}

}  // namespace
}  // namespace picture
