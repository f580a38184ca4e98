// By which counts a region was laid out, although its header names others.
#include "picture/laid_out.h"

#include <gmock/gmock.h>

#include <cstring>
#include <functional>
#include <string>

#include "picture/error.h"
#include "shmnm.h"

namespace picture {
namespace {

constexpr const char* cleared = "the header was cleared, and no process has attached since";

/// A region that was laid out by some counts and has no records.
class LaidOut {
  public:
    explicit LaidOut(const Counts& counts) {
        header_.max_servers = counts.servers;
        header_.max_hb = counts.hb;
        header_.max_np = counts.np;
        header_.fst_count = counts.fst;
        header_.fst_pid_limit = counts.servers * counts.fst;
        size_ = Layout(counts).size;
    }
    LaidOut& with(const std::function<void(shmnm_header&)>& edit) {
        edit(header_);
        return *this;
    }
    LaidOut& with_maxima(int32_t servers, int32_t hb, int32_t np) {
        return with([&](shmnm_header& header) {
            header.max_servers = servers;
            header.max_hb = hb;
            header.max_np = np;
        });
    }
    LaidOut& with_bytes(uint64_t size) {
        size_ = size;
        return *this;
    }
    Snapshot dump() const {
        Snapshot dump;
        dump.bytes.resize(size_);
        std::memcpy(dump.bytes.data(), &header_, sizeof header_);
        dump.mapped = size_;
        dump.counts = dump.header_counts();
        return dump;
    }
    /// What is said of a dump of it, and the counts that are then taken for it.
    std::string settled() const {
        Snapshot dump = this->dump();
        try {
            const std::string doubt = settle_dump(dump, "x.dump");
            return doubt + (doubt.empty() ? "" : "; ") + to_text(dump.counts);
        } catch (const Error& error) {
            EXPECT_TRUE(error.kind == ErrorKind::not_a_dump || error.kind == ErrorKind::not_whole);
            return error.what();
        }
    }

  private:
    shmnm_header header_{};
    uint64_t size_ = 0;
};

std::string changed(const std::string& header, const std::string& laid_out) {
    return "the maxima in the header were changed: it has " + header + ", and the region was laid out for " + laid_out;
}

TEST(Dump, OfAWholeRegionHasItsHeadersCounts) {
    EXPECT_EQ(LaidOut({4, 3, 2, 1}).settled(), "servers 4, hb 3, np 2, fst 1");
    EXPECT_EQ(LaidOut({1, 0, 0, 0}).settled(), "servers 1, hb 0, np 0, fst 0");
}

TEST(Dump, HasTheCountsFromBeforeAChangeOfItsMaxima) {
    for (const std::string laid_out : {"servers 4, hb 3, np 2, fst 1", "servers 4, hb 3, np 2, fst 2"}) {
        const int32_t fst = laid_out.back() - '0';
        const std::string header = "servers 9, hb 1, np 8, fst " + std::to_string(fst);
        EXPECT_EQ(LaidOut({4, 3, 2, fst}).with_maxima(9, 1, 8).settled(), changed(header, laid_out) + "; " + laid_out);
    }
    // Without an fst resource nothing but the header's maximum tells the servers.
    EXPECT_EQ(
        LaidOut({4, 3, 2, 0}).with_maxima(4, 9, 9).settled(),
        changed("servers 4, hb 9, np 9, fst 0", "servers 4, hb 3, np 2, fst 0") + "; servers 4, hb 3, np 2, fst 0");
    EXPECT_EQ(
        LaidOut({1, 0, 0, 1}).with_maxima(1, 1, 0).settled(),
        changed("servers 1, hb 1, np 0, fst 1", "servers 1, hb 0, np 0, fst 1") + "; servers 1, hb 0, np 0, fst 1");
    EXPECT_EQ(
        LaidOut({1, 1, 0, 1}).with_maxima(1, 0, 0).settled(),
        changed("servers 1, hb 0, np 0, fst 1", "servers 1, hb 1, np 0, fst 1") + "; servers 1, hb 1, np 0, fst 1");
}

TEST(Dump, HasTheCountsThatAreNearestToTheHeadersIfSeveralFit) {
    // 147 hb resources take as many bytes as 148 np resources.
    ASSERT_EQ(LaidOut({2, 147, 0, 1}).dump().bytes.size(), LaidOut({2, 0, 148, 1}).dump().bytes.size());
    for (const auto& [hb, np] : {std::pair(140, 1), std::pair(148, 0), std::pair(74, 73)}) {
        EXPECT_THAT(LaidOut({2, 147, 0, 1}).with_maxima(2, hb, np).settled(),
                    testing::EndsWith("; servers 2, hb 147, np 0, fst 1"));
    }
    for (const auto& [hb, np] : {std::pair(1, 140), std::pair(0, 149), std::pair(73, 76)}) {
        EXPECT_THAT(LaidOut({2, 147, 0, 1}).with_maxima(2, hb, np).settled(),
                    testing::EndsWith("; servers 2, hb 0, np 148, fst 1"));
    }
}

TEST(Dump, HasRoomForItsRecords) {
    const auto with_counts = [](int32_t servers, int32_t hb, int32_t np) {
        return LaidOut({2, 147, 0, 1})
            .with_maxima(2, 1, 1)
            .with([&](shmnm_header& header) {
                header.server_count = servers;
                header.hb_count = hb;
                header.np_count = np;
            })
            .settled();
    };
    EXPECT_THAT(with_counts(2, 147, 0), testing::EndsWith("; servers 2, hb 147, np 0, fst 1"));
    EXPECT_THAT(with_counts(2, 0, 148), testing::EndsWith("; servers 2, hb 0, np 148, fst 1"));
    for (const std::string& refusal : {with_counts(3, 0, 0), with_counts(0, 148, 0), with_counts(0, 0, 149)}) {
        EXPECT_THAT(refusal, testing::StartsWith("x.dump was cut or is not a dump"));
    }
}

TEST(Dump, HasNoNegativeCountsWhateverItsHeaderCounts) {
    const auto with_count = [](LaidOut laid_out, int32_t shmnm_header::*count) {
        return laid_out.with([&](shmnm_header& header) { header.*count = -200; }).settled();
    };
    EXPECT_THAT(with_count(LaidOut({2, 0, 147, 1}).with_maxima(2, 147, 0), &shmnm_header::np_count),
                testing::EndsWith("; servers 2, hb 0, np 147, fst 1"));
    EXPECT_THAT(with_count(LaidOut({2, 147, 0, 1}).with_maxima(2, -147, 296), &shmnm_header::hb_count),
                testing::EndsWith("; servers 2, hb 0, np 148, fst 1"));
}

TEST(Dump, ThatWasCutSaysWhatItLacks) {
    const Counts counts{4, 3, 2, 1};
    const uint64_t size = Layout(counts).size;
    EXPECT_EQ(LaidOut(counts).with_bytes(size - 4).settled(),
              "x.dump was cut or is not a dump: it has " + std::to_string(size - 4) +
                  " bytes, and its header asks for " + std::to_string(size) + " bytes");
    EXPECT_EQ(LaidOut(counts).with_bytes(1084).settled(),
              "x.dump was cut or is not a dump: it has 1084 bytes, and its header asks for " + std::to_string(size) +
                  " bytes");
}

TEST(Dump, IsNoneIfItsHeaderMakesNoRegion) {
    const LaidOut whole({4, 3, 2, 2});
    const auto edited = [&](const std::function<void(shmnm_header&)>& edit) {
        return LaidOut(whole).with_maxima(4, 9, 9).with(edit).settled();
    };
    constexpr const char* not_whole = "x.dump was cut or is not a dump: it has ";
    EXPECT_THAT(edited([](shmnm_header&) {}), testing::EndsWith("; servers 4, hb 3, np 2, fst 2"));
    for (const int32_t limit : {0, -8, 7, 9}) {
        EXPECT_THAT(edited([&](shmnm_header& header) { header.fst_pid_limit = limit; }), testing::StartsWith(not_whole))
            << limit;
    }
    EXPECT_EQ(edited([](shmnm_header& header) { header.fst_count = -2; }), "x.dump is not a dump");
    EXPECT_EQ(edited([](shmnm_header& header) { header.fst_pid_limit = header.max_hb = INT32_MAX - 1; }),
              "x.dump is not a dump");
    // Exactly 2^32 bytes are a region's.
    EXPECT_THAT(LaidOut({4730139, 0, 1, 0}).with_bytes(1084).settled(), testing::EndsWith("asks for 4294967296 bytes"));
    EXPECT_EQ(LaidOut({13'421'770, 0, 0, 0}).with_bytes(1084).settled(), "x.dump is not a dump");
}

TEST(Dump, OfAClearedRegionIsToldFromOneWhoseMaximaWereChanged) {
    const LaidOut whole({4, 3, 2, 1});
    const auto emptied = [](shmnm_header& header) { header = {}; };
    EXPECT_EQ(LaidOut(whole).with(emptied).settled(), std::string(cleared) + "; servers 0, hb 0, np 0, fst 0");
    for (int32_t shmnm_header::*const number :
         {&shmnm_header::fst_pid_limit, &shmnm_header::server_count, &shmnm_header::hb_count, &shmnm_header::np_count,
          &shmnm_header::fst_pid_count, &shmnm_header::max_np}) {
        LaidOut used = LaidOut(whole).with(emptied).with([&](shmnm_header& header) { header.*number = 1; });
        EXPECT_THAT(used.settled(), testing::StartsWith("x.dump was cut or is not a dump"));
    }
}

TEST(LiveRegionsCounts, AreDoubtedIfTheHeaderNamesOthers) {
    const Counts counts{4, 3, 2, 1};
    Snapshot live = LaidOut(counts).dump();
    EXPECT_EQ(doubt_about(live), "");
    live = LaidOut(counts).with_maxima(5, 3, 2).dump();
    live.counts = counts;
    EXPECT_EQ(doubt_about(live), changed("servers 5, hb 3, np 2, fst 1", "servers 4, hb 3, np 2, fst 1"));
    live.counts = {8, 3, 2, 1};
    live.mapped = 20'480;
    EXPECT_EQ(doubt_about(live),
              "the maxima in the header were changed: servers 5, hb 3, np 2, fst 1 do not fit the "
              "region's 20480 bytes");
    live = LaidOut(counts).dump();
    live.bytes.resize(live.bytes.size() + 4);
    EXPECT_THAT(doubt_about(live), testing::HasSubstr("do not fit the region's"));
    live = LaidOut(counts).with([](shmnm_header& header) { header = {}; }).dump();
    live.counts = counts;
    EXPECT_EQ(doubt_about(live), cleared);
}

TEST(Size, InPagesIsRoundedUp) {
    EXPECT_EQ(in_pages(0), 0u);
    EXPECT_EQ(in_pages(1), 4096u);
    EXPECT_EQ(in_pages(4096), 4096u);
    EXPECT_EQ(in_pages(4097), 8192u);
}

TEST(Layout, IsExactAsLongAsItCanCount) {
    // Records of 584 bytes; one server more, and their bytes are too many.
    const int32_t servers = 1 << 26, hb = 117'670'336;
    EXPECT_EQ(Layout({.servers = servers, .hb = hb}).np, 4'611'686'005'542'487'100u);
    EXPECT_EQ(Layout({.servers = servers + 1, .hb = hb}).np, Layout::nowhere);
}

}  // namespace
}  // namespace picture
