// Copies of the live region: which bytes they hold, and who waits for whom.
#include "picture/live.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "kzmutil.h"
#include "kzmxml.h"
#include "picture/decode.h"
#include "picture/error.h"
#include "picture/held_region.h"
#include "picture/holders.h"
#include "picture/json.h"
#include "picture/keys.h"
#include "picture/library_region.h"
#include "picture/live_region.h"
#include "picture/platform.h"
#include "shmnm.h"

namespace picture {
namespace {

using test::Child;
using test::LibraryRegion;
using test::LiveCopy;
using test::report;
using LiveRegionTest = LiveCopy;
using LiveChange = LiveCopy;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::StartsWith;

std::vector<std::string> all_words(const Snapshot& snapshot) {
    std::vector<std::string> texts;
    Picture picture = decode(snapshot);
    picture.bridge.reset();  // which no dump has
    for (const Word& word : words(picture)) texts.push_back(word.key + " " + word.value.to_text());
    return texts;
}

class LiveCopyOf : public testing::TestWithParam<Counts> {};

TEST_P(LiveCopyOf, ShowsThePictureFromTheBytesInUse) {
    test::Random random(test::seed());
    LibraryRegion region(GetParam());
    LiveRegion live({});
    for (unsigned round = 0; round < test::share_of(20); ++round) {
        region.call(random, test::below(random, 300));
        const Snapshot copy = live.copy(Bytes::in_use), dump = region.dump();
        ASSERT_EQ(copy.bytes.size(), dump.bytes.size());
        ASSERT_EQ(copy.counts, GetParam());
        ASSERT_EQ(all_words(copy), all_words(dump)) << "round " << round;
    }
}

TEST_P(LiveCopyOf, HoldsEveryByteIfAllAreWanted) {
    test::Random random(test::seed());
    LibraryRegion region(GetParam());
    region.call(random, 1000);
    WritableRegion writable;
    // No count names the last word of a region that was not filled.
    const size_t last = region.dump().bytes.size() - 1;
    writable.base()[last] = 0x5A;
    const Snapshot copy = LiveRegion({}).copy(Bytes::all);
    EXPECT_EQ(copy.bytes, region.dump().bytes);
    EXPECT_EQ(copy.bytes[last], 0x5A);
    EXPECT_TRUE(copy.live);
    EXPECT_TRUE(copy.bridge) << "nothing is said of a bridge";
    EXPECT_EQ(LiveRegion({}).copy(Bytes::in_use).bytes[last], 0);
}

INSTANTIATE_TEST_SUITE_P(, LiveCopyOf,
                         testing::Values(Counts{128, 16, 16, 1}, Counts{4, 3, 2, 1}, Counts{1, 16, 200, 1},
                                         Counts{3, 5, 1, 0}),
                         [](const auto& instance) {
                             const Counts& counts = instance.param;
                             return "S" + std::to_string(counts.servers) + "H" + std::to_string(counts.hb) + "N" +
                                    std::to_string(counts.np) + "F" + std::to_string(counts.fst);
                         });

CHILD(hold_the_lock) {
    report(shmnm_attach());
    report(shmnm_rwlock(0));
    test::told();
    report(shmnm_rwunlock());
}

TEST_F(LiveCopy, TimesOutWhileAnotherProcessHoldsTheLock) {
    Child owner = start(hold_the_lock);
    ASSERT_EQ(owner.reported(), SHMNM_OK);
    ASSERT_EQ(owner.reported(), SHMNM_OK);
    try {
        LiveRegion({.lock_timeout_ms = 1}).copy(Bytes::in_use);
        FAIL() << "copied beside an owner";
    } catch (const Error& error) {
        EXPECT_EQ(error.kind, ErrorKind::lock_timeout);
        EXPECT_THAT(error.what(), HasSubstr("timed out after 1 ms waiting for the lock"));
    }
    owner.tell(0);
    EXPECT_EQ(owner.reported(), SHMNM_OK);
    EXPECT_EQ(owner.wait(), 0);
    EXPECT_EQ(decode(LiveRegion({}).copy(Bytes::in_use)).servers.at(0).name, "alpha");
}

TEST_F(LiveCopy, HoldsTheWholeMappingIfNoKnownCountsFitIt) {
    folder_.write("etc/cluster.xml", "<root><all><num><server>3</server></num></all></root>");
    WritableRegion region;
    reinterpret_cast<shmnm_header*>(region.base())->max_servers = 7;
    const Snapshot copy = LiveRegion({}).copy(Bytes::in_use);
    EXPECT_EQ(copy.counts.servers, 7);
    EXPECT_EQ(copy.bytes.size(), region.size());
    reinterpret_cast<shmnm_header*>(region.base())->max_servers = 128;
}

TEST_F(LiveCopy, HoldsNoWordAfterThoseInUse) {
    const WritableRegion region;
    // Where the second server would be.
    region.base()[1404] = 0x5A;
    EXPECT_EQ(LiveRegion({}).copy(Bytes::all).word(1404), 0x5Au);
    EXPECT_EQ(LiveRegion({}).copy(Bytes::in_use).word(1404), 0u);
    region.base()[1404] = 0;
}

TEST_F(LiveCopy, TakesTheLockIfToldTo) {
    std::string told;
    LiveRegion live({.may_skip_lock = false, .tell = [&](const std::string& line) { told = line; }});
    const Snapshot copy = live.copy(Bytes::in_use);
    EXPECT_EQ(copy.way, CopyWay::with_lock);
    EXPECT_EQ(decode(copy).servers.at(0).name, "alpha");
    EXPECT_THAT(told, MatchesRegex("copied the bytes in use with the lock: waited .* us for it, held it for .* us"));
}

TEST_F(LiveCopy, TellsWhatItOpensTheFirstTime) {
    std::vector<std::string> told;
    LiveRegion live({.tell = [&](const std::string& line) { told.push_back(line); }});
    live.copy(Bytes::in_use);
    EXPECT_THAT(told, ElementsAre("opens the region " + full_name(mapping_name),
                                  "opens the mutex " + full_name(mutex_name), StartsWith("copied the bytes in use")));
    told.clear();
    live.copy(Bytes::all);
    EXPECT_THAT(told, ElementsAre(StartsWith("copied all bytes")));
}

TEST_F(LiveRegionTest, TellsOfItsLockHoweverThatIsTaken) {
    const std::function<void(LiveRegion&)> takes[] = {[](LiveRegion& live) { live.lock(); },
                                                      [](LiveRegion& live) { EXPECT_TRUE(live.try_lock()); }};
    for (const auto& take : takes) {
        std::vector<std::string> told;
        LiveRegion live({.tell = [&](const std::string& line) { told.push_back(line); }});
        take(live);
        live.unlock();
        EXPECT_THAT(told, ElementsAre("opens the mutex " + full_name(mutex_name)));
    }
}

TEST_F(LiveCopy, OfACallerThatHoldsTheLockSaysSo) {
    LiveRegion live({});
    const Locked locked(live);
    EXPECT_EQ(live.copy_locked().way, CopyWay::as_owner);
}

TEST_F(LiveCopy, TellsForHowLongItHeldTheLock) {
    const uint64_t begun_us = platform::steady_clock_us();
    const Snapshot copy = LiveRegion({.may_skip_lock = false}).copy(Bytes::all);
    const uint64_t took_us = platform::steady_clock_us() - begun_us;
    EXPECT_GT(copy.lock_held_us, 0u);
    EXPECT_LE(copy.lock_wait_us + copy.lock_held_us, took_us);
}

TEST_F(LiveRegionTest, IsLeftToThoseWhoHoldIt) {
    const std::function<void()> looks[] = {[] { live_object(); },
                                           [] { LiveRegion({}).copy(Bytes::all); },
                                           [] { LiveRegion({}).copy_locked(); },
                                           [] { LiveRegion({}).expect(); },
                                           [] { LiveRegion({}).expect_own(); },
                                           [] { const WritableRegion region; },
                                           [] { static_cast<void>(HeldRegion::open()->size()); }};
    for (const auto& look : looks) {
        look();
        EXPECT_EQ(shmnm_delete(), SHMNM_OK);
        EXPECT_FALSE(LiveRegion({}).try_copy(Bytes::in_use)) << "it did not end with its last holder";
        ASSERT_EQ(shmnm_create(), SHMNM_OK);
    }
}

bool is_lock_free() {
    bool is_free = false;
    std::thread other([&] {
        LiveRegion region({});
        is_free = region.try_lock();
        if (is_free) region.unlock();
    });
    other.join();
    return is_free;
}

TEST_F(LiveChange, ThatIsRefusedReleasesTheLock) {
    folder_.write("etc/cluster.xml", "<root><all><num><server>3</server></num></all></root>");
    LiveRegion live({});
    EXPECT_THROW(const Change change(live, false), Error);
    EXPECT_TRUE(is_lock_free());
}

CHILD(change_until_told) {
    LiveRegion live({});
    uint32_t state = 0;
    {
        const Change change(live, false);
        report(shmnm_getnodestat("alpha", &state));
        test::told();
    }
    report(shmnm_getnodestat("alpha", &state));
    test::hang();
}

TEST_F(LiveChange, HoldsTheLockAndTheRegionUntilItsEnd) {
    Child child = start(change_until_told);
    EXPECT_EQ(child.reported(), SHMNM_OK);
    EXPECT_FALSE(is_lock_free());
    child.tell(0);
    EXPECT_EQ(child.reported(), SHMNM_ERR_NOTINIT);
    EXPECT_TRUE(is_lock_free());
}

TEST_F(LiveCopy, ThatAReaderMadeTellsHowOftenItWasRepeated) {
    Snapshot copy;
    copy.way = CopyWay::by_reader;
    copy.wanted = Bytes::in_use;
    copy.tries = 3;
    EXPECT_EQ(how_copied(copy),
              "copied the bytes in use without a right to the lock: two of 3 copies in a row were equal");
}

TEST_F(LiveCopy, IsRefusedWithAdviceToThoseWhoLackTheRight) {
    constexpr uint32_t map_read = 4;
    void* const only_to_read = KzmutilOpenNamedFileMapping(map_read, 0, mapping_name);
    ASSERT_TRUE(only_to_read);
    EXPECT_FALSE(platform::map_for_writing(only_to_read));
    EXPECT_EQ(kind_of_last_failure(), ErrorKind::region_refused);
    EXPECT_EQ(last_failure(), "(error 5); run this as the user who runs the cluster");
    platform::close(only_to_read);
}

TEST(ConfiguredCounts, AreTheUsualOnesWhereTheConfigurationNamesNone) {
    const test::TemporaryFolder folder;
    const test::ScopedEnvironment path("KZM_INSTALL_PATH", folder.string().c_str());
    EXPECT_FALSE(configured_counts()) << "there is no configuration";
    const auto configured = [&](const std::string& text) {
        folder.write("etc/cluster.xml", "<root>" + text + "</root>");
        return configured_counts();
    };
    EXPECT_EQ(configured(""), (Counts{128, 16, 16, 1}));
    EXPECT_EQ(configured("<all/>"), (Counts{128, 16, 16, 1}));
    EXPECT_EQ(configured("<all><num><server>3</server></num></all>"), (Counts{3, 16, 16, 1}));
    EXPECT_EQ(configured("<all><num><hbr>3</hbr></num></all>"), (Counts{128, 3, 16, 1}));
    EXPECT_EQ(configured("<all><num><npr>3</npr></num></all>"), (Counts{128, 16, 3, 1}));
    EXPECT_EQ(configured("<all><num><fstr>3</fstr></num></all>"), (Counts{128, 16, 16, 3}));
}

TEST(ConfiguredCounts, LeaveTheConfigurationAsItWasLoaded) {
    const test::TemporaryFolder folder;
    const test::ScopedEnvironment path("KZM_INSTALL_PATH", folder.string().c_str());
    folder.write("etc/cluster.xml", "<root><all/></root>");
    EXPECT_TRUE(configured_counts());
    EXPECT_EQ(xmllib_term(), XMLLIB_ERR_ORDER) << "it is still in use";
    ASSERT_EQ(xmllib_init("live_test"), XMLLIB_OK);
    ASSERT_EQ(xmllib_load_config(0), XMLLIB_OK);
    EXPECT_TRUE(configured_counts());
    EXPECT_EQ(xmllib_unload_policy("all"), XMLLIB_ERR_ORDER);
    EXPECT_EQ(xmllib_unload_config(), XMLLIB_OK);
    EXPECT_EQ(xmllib_unload_config(), XMLLIB_ERR_ORDER);
    EXPECT_EQ(xmllib_term(), XMLLIB_OK);
    EXPECT_EQ(xmllib_term(), XMLLIB_ERR_ORDER);
}

CHILD(hold_the_lock_alone) {
    LiveRegion live({});
    live.lock();
    report(1);
    test::hang();
}

TEST(NoRegion, IsToldToWhoeverAsksForIt) {
    const auto refusal = [](const auto& asks) {
        try {
            asks();
            return std::string("not refused");
        } catch (const Error& error) {
            EXPECT_EQ(error.kind, ErrorKind::no_region);
            return std::string(error.what());
        }
    };
    const std::string none = "no process holds the region " + full_name(mapping_name);
    EXPECT_EQ(live_object(), 0u);
    EXPECT_EQ(refusal([] { LiveRegion({}).copy(Bytes::all); }), none);
    EXPECT_EQ(refusal([] { LiveRegion({}).copy_locked(); }), none);
    EXPECT_EQ(refusal([] { LiveRegion({}).expect(); }), none);
    EXPECT_EQ(refusal([] { const WritableRegion region; }), none);
    EXPECT_EQ(refusal([] { holders(Access{}); }), none);
    Child owner = start(hold_the_lock_alone);
    ASSERT_EQ(owner.reported(), 1u);
    LiveRegion live({.lock_timeout_ms = 0});
    EXPECT_EQ(refusal([&] { const Change change(live, false); }), none) << "it asked for the lock first";
    EXPECT_NO_THROW(LiveRegion({}).expect_own()) << "no other user has one";
}

}  // namespace
}  // namespace picture
