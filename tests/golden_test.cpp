// The region's format, whole: a region filled by a fixed sequence of calls against a dump that was put together by hand
// (golden/generate_region.py, which shares no code with the library). Equal on every platform.
#include "region_fixture.h"
#include "support/temporary_folder.h"

namespace {

using test::Bytes;

class GoldenRegion : public test::RegionTest {
  protected:
    GoldenRegion() { map_region({.servers = 3, .hb = 2, .np = 2, .fst = 1}); }

    /// Every kind of record is added, changed, moved and removed.
    static void fill() {
        EXPECT_EQ(shmnm_sethbinfo_ex(0x01020304, 0x05060708), SHMNM_OK);
        EXPECT_EQ(shmnm_setwaitstat(0x11111111), SHMNM_OK);
        EXPECT_EQ(shmnm_setbwflag(0x22222222), SHMNM_OK);
        EXPECT_EQ(shmnm_setbwflagdisk(0x33333333), SHMNM_OK);
        EXPECT_EQ(shmnm_setclstat(0x44444444), SHMNM_OK);

        EXPECT_EQ(shmnm_addnode("delta", 9), SHMNM_OK);
        EXPECT_EQ(shmnm_addnode("alpha", 0), SHMNM_OK);
        EXPECT_EQ(shmnm_addnode("beta", 1), SHMNM_OK);
        EXPECT_EQ(shmnm_addhbrsc("disk", "diskhb1", 70), SHMNM_OK);
        EXPECT_EQ(shmnm_addhbrsc("lan", "lanhb1", 71), SHMNM_OK);
        EXPECT_EQ(shmnm_addnprsc("ping", "pingnp1", 80), SHMNM_OK);
        EXPECT_EQ(shmnm_addnprsc("majority", "majoritynp1-cut-at-31-bytes-of-its-name", 0x80000051), SHMNM_OK);
        const char* const majority = "majoritynp1-cut-at-31-bytes-of-";

        const int32_t delta_alpha_beta[] = {9, 0, 1};
        for (uint32_t i = 0; i < 3; ++i) {
            const int32_t svid = delta_alpha_beta[i];
            EXPECT_EQ(shmnm_sethbrscsvstat("disk", "diskhb1", svid, 0xD1 + i), SHMNM_OK);
            EXPECT_EQ(shmnm_sethbrscsvstat("lan", "lanhb1", svid, 0xA1 + i), SHMNM_OK);
            EXPECT_EQ(shmnm_setnprscsvstat("ping", "pingnp1", svid, 0xC1 + i), SHMNM_OK);
            EXPECT_EQ(shmnm_setnprscsvstat("majority", majority, svid, 0xE1 + i), SHMNM_OK);
            EXPECT_EQ(shmnm_setrscsvstat_nw("disk", "diskhb1", svid, 0x1D1 + i), SHMNM_OK);
            EXPECT_EQ(shmnm_setrscsvstat_nw("lan", "lanhb1", svid, 0x1A1 + i), SHMNM_OK);
        }
        EXPECT_EQ(shmnm_sethbrscstat("disk", "diskhb1", 0xBF), SHMNM_OK);
        EXPECT_EQ(shmnm_sethbrscstat("lan", "lanhb1", 0xB0), SHMNM_OK);
        EXPECT_EQ(shmnm_setnprscstat("ping", "pingnp1", 0xB1), SHMNM_OK);
        EXPECT_EQ(shmnm_sethbdescript("disk", "diskhb1", "goes with its record", 20), SHMNM_OK);
        EXPECT_EQ(shmnm_setnpdescript("ping", "pingnp1", std::string(300, 'p').data(), 300), SHMNM_OK);

        EXPECT_EQ(shmnm_rmnode("delta"), SHMNM_OK);
        EXPECT_EQ(shmnm_rmhbrsc("disk", "diskhb1"), SHMNM_OK);
        EXPECT_EQ(shmnm_addhbrsc("disk", "diskhb2", 72), SHMNM_OK);
        EXPECT_EQ(shmnm_addhbrsc("disk", "diskhb3", 74), SHMNM_ERR_RSCOVER);
        EXPECT_EQ(shmnm_rmhbrsc("disk", "diskhb2"), SHMNM_OK);
        EXPECT_EQ(shmnm_modifyhbrsc("lan", "lanhb1", 73), SHMNM_OK);
        EXPECT_EQ(shmnm_sethbdescript("lan", "lanhb1",
                                      "\0\xFF"
                                      "bytes",
                                      8),
                  SHMNM_OK);
        EXPECT_EQ(shmnm_settypenpstat("majority", 0x77), SHMNM_OK);

        EXPECT_EQ(shmnm_modifynode("beta", 5), SHMNM_OK);
        EXPECT_EQ(shmnm_setnodestat("alpha", 1), SHMNM_OK);
        EXPECT_EQ(shmnm_setnodestat_nw("alpha", 0x80000002), SHMNM_OK);
        EXPECT_EQ(shmnm_setdownnotifystat("alpha", 3), SHMNM_OK);
        EXPECT_EQ(shmnm_setisolateflag("alpha", 4), SHMNM_OK);
        EXPECT_EQ(shmnm_setpingstat("alpha", 5), SHMNM_OK);
        EXPECT_EQ(shmnm_setholdstat("alpha", 0xFFFFFFFF), SHMNM_OK);
        EXPECT_EQ(shmnm_setpingstat("beta", 0x50), SHMNM_OK);
        const uint32_t nodefail[] = {1, 1, 1, 1, 1};
        EXPECT_EQ(shmnm_setnpsimu(1, nodefail, 5), SHMNM_OK);

        EXPECT_EQ(shmnm_setfstrscstat(0x99), SHMNM_OK);
        EXPECT_EQ(shmnm_setfstdescript("headtail", 8), SHMNM_OK);
        EXPECT_EQ(shmnm_setfstdescript("fst", 4), SHMNM_OK);
        EXPECT_EQ(shmnm_setfstrscpid("lan", 0, 1001, 0x0123456789ABCDEF), SHMNM_OK);
        EXPECT_EQ(shmnm_setfstrscpid("ping", 2, 0xFFFFFFFF, 2), SHMNM_OK);
        EXPECT_EQ(shmnm_setfstrscpid("lan", 1, 1002, 0xFFFFFFFFFFFFFFFF), SHMNM_OK);
    }
    static Bytes golden() {
        const std::string contents = test::contents_of(SHMNM_GOLDEN_REGION);
        return Bytes(contents.begin(), contents.end());
    }
};

TEST_F(GoldenRegion, IsWhatTheLibraryWritesByteForByte) {
    fill();
    Bytes expected = golden();
    ASSERT_EQ(expected.size(), 10680u);
    Bytes dumped(expected.size());
    int32_t size = static_cast<int32_t>(dumped.size());
    ASSERT_EQ(shmnm_dump(dumped.data(), &size), SHMNM_OK);
    EXPECT_EQ(dumped, expected);
    expected.resize(view_size());
    EXPECT_EQ(region_bytes(), expected) << "and nothing behind the region";
}

TEST_F(GoldenRegion, IsReadCorrectlyByTheGetters) {
    Bytes bytes = golden();
    ASSERT_EQ(bytes.size(), 10680u);
    poke(0, bytes);
    char text[256] = {}, description[9] = {};
    uint32_t word = 0, words[3] = {}, size = sizeof words;
    uint64_t data = 0;
    const int32_t length = 8;
    EXPECT_EQ(shmnm_getnodename(text, 5), SHMNM_OK);
    EXPECT_STREQ(text, "beta");
    EXPECT_EQ(shmnm_getholdstat("alpha", &word), SHMNM_OK);
    EXPECT_EQ(word, 0xFFFFFFFFu);
    EXPECT_EQ(shmnm_gethbrscpri("lan", "lanhb1", &word), SHMNM_OK);
    EXPECT_EQ(word, 73u);
    EXPECT_EQ(shmnm_getnprscsvstat("ping", "pingnp1", 5, &word), SHMNM_OK);
    EXPECT_EQ(word, 0xC3u);
    EXPECT_EQ(shmnm_enumrscsvstat_nw("lan", "lanhb1", words, &size), SHMNM_OK);
    EXPECT_EQ(size, 8u);
    EXPECT_THAT(words, testing::ElementsAre(0x1A2u, 0x1A3u, 0u));
    EXPECT_EQ(shmnm_getfstdescript(description, &length), SHMNM_OK);
    EXPECT_EQ(std::string(description, 8), std::string("fst\0tail", 8));
    EXPECT_EQ(shmnm_getfstrscpid("ping", 2, &word, &data), SHMNM_OK);
    EXPECT_EQ(word, 0xFFFFFFFFu);
    EXPECT_EQ(data, 2u);
    EXPECT_EQ(shmnm_getnpsimuflag(&word), SHMNM_OK);
    EXPECT_EQ(word, 1u);
}

}  // namespace
