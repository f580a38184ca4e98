// What the C library promises beside its answers: results, error texts, options, changes, locks, threads.
#include <gmock/gmock.h>

#include <array>
#include <thread>

#include "opened.h"
#include "picture/live_region.h"
#include "shmnm.h"

namespace {

using test::Answer;
using test::Child;
using test::Opened;
using test::report;
using testing::HasSubstr;
using testing::StartsWith;

class PictureLibrary : public test::LiveCopy {};

TEST_F(PictureLibrary, TellsItsVersion) {
    EXPECT_STREQ(shmnmpicture_version(), SHMNM_VERSION);
}

TEST_F(PictureLibrary, CopiesTheLiveRegionWithoutAttaching) {
    const Opened picture = Opened::live();
    EXPECT_EQ(picture.result(), SHMNMPICTURE_OK);
    EXPECT_EQ(picture.error(), "");
    EXPECT_THAT(picture.json().text, HasSubstr(R"("servers":[{"name":"alpha","pri":0,)"));
    EXPECT_EQ(picture.value("servers/alpha/nodestat"), (Answer{SHMNMPICTURE_OK, "2"}));
    EXPECT_EQ(picture.unmet("servers/alpha/nodestat=2"), (Answer{SHMNMPICTURE_OK, ""}));
    EXPECT_EQ(picture.unmet("servers/alpha/nodestat=1"),
              (Answer{SHMNMPICTURE_OK, "servers/alpha/nodestat=1 (it is 2)"}));
    EXPECT_EQ(picture.warning(), (Answer{SHMNMPICTURE_OK, ""}));
}

CHILD(copy_without_a_mapping_left) {
    const Opened picture = Opened::live();
    report(static_cast<uint64_t>(picture.result()));
    uint32_t value = 0;
    report(shmnm_getclstat(&value));
}

TEST_F(PictureLibrary, LeavesTheProcessDetached) {
    Child child = start(copy_without_a_mapping_left);
    EXPECT_EQ(child.reported(), 0u);
    EXPECT_EQ(child.reported(), SHMNM_ERR_NOTINIT);
    EXPECT_EQ(child.wait(), 0);
}

TEST_F(PictureLibrary, KeepsItsCopyUntilItIsUpdated) {
    Opened picture = Opened::live();
    ASSERT_EQ(shmnm_setclstat(7), SHMNM_OK);
    EXPECT_EQ(picture.value("cluster/clstat").text, "0");
    EXPECT_EQ(picture.update(), 1);
    EXPECT_EQ(picture.value("cluster/clstat").text, "7");
    EXPECT_EQ(picture.update(), 0);
    EXPECT_EQ(picture.value("cluster/clstat").text, "7");
}

TEST_F(PictureLibrary, AnswersWithTheNewCopyAfterEachUpdate) {
    Opened picture = Opened::live();
    for (uint32_t value = 1; value < 50; ++value) {
        ASSERT_EQ(shmnm_setclstat(value), SHMNM_OK);
        ASSERT_EQ(picture.update(), 1);
        ASSERT_EQ(picture.value("cluster/clstat").text, std::to_string(value));
        ASSERT_EQ(picture.unmet("cluster/clstat=" + std::to_string(value)).text, "");
        ASSERT_THAT(picture.json().text, HasSubstr("\"clstat\":" + std::to_string(value) + ","));
    }
}

CHILD(set_when_told) {
    report(shmnm_attach());
    test::told();
    report(shmnm_setclstat(9));
}

TEST_F(PictureLibrary, WaitsForAChange) {
    Child writer = start(set_when_told);
    ASSERT_EQ(writer.reported(), SHMNM_OK);
    Opened picture = Opened::live();
    EXPECT_EQ(picture.update(1), 0) << "the time passes";
    writer.tell(0);
    EXPECT_EQ(picture.update(UINT32_MAX), 1);
    EXPECT_EQ(picture.value("cluster/clstat").text, "9");
    EXPECT_EQ(writer.reported(), SHMNM_OK);
    EXPECT_EQ(writer.wait(), 0);
}

CHILD(create_when_told) {
    test::told();
    report(shmnm_create());
    test::told();
    shmnm_delete();
}

TEST_F(PictureLibrary, TellsThatTheRegionHasEndedAndWaitsForTheNext) {
    Child creator = start(create_when_told);
    Opened picture = Opened::live();
    ASSERT_EQ(shmnm_setclstat(5), SHMNM_OK);
    ASSERT_EQ(picture.update(), 1);
    ASSERT_EQ(shmnm_delete(), SHMNM_OK);

    EXPECT_EQ(picture.update(UINT32_MAX), -1) << "its end is news";
    EXPECT_EQ(picture.result(), SHMNMPICTURE_ERR_NO_REGION);
    EXPECT_THAT(picture.error(), StartsWith("no process holds the region "));
    EXPECT_EQ(picture.value("cluster/clstat").text, "5") << "the last copy stays";
    EXPECT_EQ(picture.update(1), -1) << "the time passes";
    EXPECT_EQ(picture.result(), SHMNMPICTURE_ERR_NO_REGION);

    creator.tell(0);
    EXPECT_EQ(picture.update(UINT32_MAX), 1);
    EXPECT_EQ(picture.result(), SHMNMPICTURE_OK);
    EXPECT_EQ(picture.value("cluster/clstat").text, "0");
    EXPECT_EQ(creator.reported(), SHMNM_OK);
    creator.tell(0);
    EXPECT_EQ(creator.wait(), 0);
    ASSERT_EQ(shmnm_create(), SHMNM_OK);
}

TEST(PictureOfNothing, GivesAPictureThatSaysWhyAndCanTryAgain) {
    const test::ScopedEnvironment other("KZMUTIL_NAMESPACE", "picture-of-nothing-");
    Opened picture = Opened::live();
    EXPECT_EQ(picture.result(), SHMNMPICTURE_ERR_NO_REGION);
    ASSERT_NE(picture.get(), nullptr);
    const std::string why = picture.error();
    EXPECT_THAT(why, HasSubstr("no process holds the region picture-of-nothing-"));
    const Answer none{SHMNMPICTURE_ERR_NO_REGION, why};
    EXPECT_EQ(picture.json(), none);
    EXPECT_EQ(picture.value("cluster/clstat"), none);
    EXPECT_EQ(picture.unmet("cluster/clstat=1"), none);
    EXPECT_EQ(picture.findings(), none);
    EXPECT_EQ(picture.warning(), none);
    EXPECT_EQ(picture.update(), -1);
    EXPECT_EQ(picture.result(), SHMNMPICTURE_ERR_NO_REGION);
}

CHILD(hold_the_lock_for_long) {
    report(shmnm_attach());
    report(shmnm_rwlock(0));
    test::told();
    report(shmnm_rwunlock());
}

TEST_F(PictureLibrary, TimesOutWhileAnotherProcessHoldsTheLock) {
    Child owner = start(hold_the_lock_for_long);
    ASSERT_EQ(owner.reported(), SHMNM_OK);
    ASSERT_EQ(owner.reported(), SHMNM_OK);
    Opened picture = Opened::live(0, 1);
    EXPECT_EQ(picture.result(), SHMNMPICTURE_ERR_LOCK_TIMEOUT);
    EXPECT_THAT(picture.error(), StartsWith("timed out after 1 ms waiting for the lock"));
    owner.tell(0);
    EXPECT_EQ(owner.reported(), SHMNM_OK);
    EXPECT_EQ(owner.wait(), 0);
    EXPECT_EQ(picture.update(), 1);
    EXPECT_EQ(picture.value("servers/alpha/pri").text, "0");
}

CHILD(try_the_lock) {
    report(shmnm_attach());
    report(shmnm_rwlock(0));
}

TEST_F(PictureLibrary, CopiesForAThreadThatHoldsTheLockAndLeavesItTheLock) {
    ASSERT_EQ(shmnm_rwlock(0), SHMNM_OK);
    const Opened picture = Opened::live(SHMNMPICTURE_ALL_BYTES, 1);
    EXPECT_EQ(picture.result(), SHMNMPICTURE_OK);
    Child other = start(try_the_lock);
    EXPECT_EQ(other.reported(), SHMNM_OK);
    EXPECT_EQ(other.reported(), SHMNM_ERR_LOCK);
    EXPECT_EQ(other.wait(), 0);
    EXPECT_EQ(shmnm_rwunlock(), SHMNM_OK);
    EXPECT_EQ(shmnm_rwlock(0), SHMNM_OK) << "released once, it is free";
    EXPECT_EQ(shmnm_rwunlock(), SHMNM_OK);
}

TEST_F(PictureLibrary, LooksForFindingsOnlyInAllBytes) {
    EXPECT_EQ(Opened::live(SHMNMPICTURE_ALL_BYTES).findings(),
              (Answer{SHMNMPICTURE_OK, "{\"version\":1,\"kind\":\"verify\",\"findings\":[]}\n"}));
    const Opened picture = Opened::live();
    EXPECT_EQ(picture.findings(), (Answer{SHMNMPICTURE_ERR_ARGUMENT,
                                          "findings need all bytes; open the picture with SHMNMPICTURE_ALL_BYTES"}));
}

TEST_F(PictureLibrary, KeepsATextUntilTheNextCallWithTheSamePicture) {
    const Opened one = Opened::live(), other = Opened::live();
    const char* text = nullptr;
    ASSERT_EQ(shmnmpicture_value(one.get(), "cluster/clstat", &text, nullptr), SHMNMPICTURE_OK);
    for (const char* const key : {"servers/alpha/nodestat", "cluster/max_servers"}) other.value(key);
    other.json();
    EXPECT_STREQ(text, "0");
}

TEST_F(PictureLibrary, MayBeUsedByManyThreadsWithAPictureEach) {
    std::array<std::thread, 4> threads;
    for (std::thread& thread : threads) {
        thread = std::thread([] {
            Opened picture = Opened::live();
            for (unsigned round = 0; round < test::share_of(200); ++round) {
                picture.update();
                // The writer sets both words under the lock.
                ASSERT_EQ(picture.unmet("(cluster/clstat=1 and cluster/waitstat=1) or cluster/clstat=0").text, "");
                EXPECT_EQ(Opened::live().value("servers/alpha/pri").text, "0");
                EXPECT_EQ(Opened::live().value("servers/omega/pri").result, SHMNMPICTURE_ERR_NO_SUCH_KEY);
            }
        });
    }
    for (unsigned round = 0; round < test::share_of(200); ++round) {
        ASSERT_EQ(shmnm_rwlock(10'000), SHMNM_OK);
        EXPECT_EQ(shmnm_setclstat(round % 2), SHMNM_OK);
        EXPECT_EQ(shmnm_setwaitstat(round % 2), SHMNM_OK);
        ASSERT_EQ(shmnm_rwunlock(), SHMNM_OK);
    }
    for (std::thread& thread : threads) thread.join();
}

TEST_F(PictureLibrary, RefusesOptionsThatItDoesNotKnow) {
    struct Later {
        shmnmpicture_options known;
        uint64_t unknown;
    };
    const auto opened_with = [](const void* options) {
        shmnmpicture* picture = nullptr;
        const int32_t result = shmnmpicture_open_live(static_cast<const shmnmpicture_options*>(options), &picture);
        Answer answer{result, shmnmpicture_error(picture)};
        shmnmpicture_free(picture);
        return answer;
    };
    Later options{};
    options.known.size = sizeof options;
    EXPECT_EQ(opened_with(&options), (Answer{SHMNMPICTURE_OK, ""})) << "zeros ask for nothing";
    options.unknown = 1;
    EXPECT_THAT(opened_with(&options).text, HasSubstr("members that this library does not know"));
    for (const uint32_t size : {uint32_t{0}, uint32_t{4}, uint32_t{sizeof(shmnmpicture_options) - 1}, UINT32_MAX}) {
        options = {};
        options.known.size = size;
        EXPECT_THAT(opened_with(&options).text, StartsWith("invalid size of the options")) << size;
    }
    options = {};
    options.known.size = sizeof options.known;
    options.known.flags = 4;
    const Answer unknown_flag = opened_with(&options);
    EXPECT_EQ(unknown_flag.result, SHMNMPICTURE_ERR_ARGUMENT);
    EXPECT_THAT(unknown_flag.text, HasSubstr("flags that this library does not know"));
    EXPECT_EQ(opened_with(nullptr).result, SHMNMPICTURE_OK);
}

TEST_F(PictureLibrary, RefusesNullPointers) {
    EXPECT_EQ(shmnmpicture_open_live(nullptr, nullptr), SHMNMPICTURE_ERR_ARGUMENT);
    EXPECT_EQ(shmnmpicture_open_file("x", nullptr, nullptr), SHMNMPICTURE_ERR_ARGUMENT);
    EXPECT_EQ(shmnmpicture_open_address("x", nullptr, nullptr), SHMNMPICTURE_ERR_ARGUMENT);
    for (auto* const open : {shmnmpicture_open_file, shmnmpicture_open_address}) {
        shmnmpicture* picture = nullptr;
        EXPECT_EQ(open(nullptr, nullptr, &picture), SHMNMPICTURE_ERR_ARGUMENT);
        EXPECT_THAT(shmnmpicture_error(picture), HasSubstr("is a null pointer"));
        const char* text = "unchanged";
        EXPECT_EQ(shmnmpicture_json(picture, &text, nullptr), SHMNMPICTURE_ERR_ARGUMENT);
        EXPECT_EQ(shmnmpicture_update(picture, 0, nullptr), SHMNMPICTURE_ERR_ARGUMENT);
        EXPECT_STREQ(text, "unchanged");
        shmnmpicture_free(picture);
    }
    const char* text = "unchanged";
    size_t size = 7;
    int32_t number = 7;
    EXPECT_EQ(shmnmpicture_update(nullptr, 0, &number), SHMNMPICTURE_ERR_ARGUMENT);
    EXPECT_EQ(shmnmpicture_json(nullptr, &text, &size), SHMNMPICTURE_ERR_ARGUMENT);
    EXPECT_EQ(shmnmpicture_value(nullptr, "cluster/clstat", &text, &size), SHMNMPICTURE_ERR_ARGUMENT);
    EXPECT_EQ(shmnmpicture_holds(nullptr, "cluster/clstat=1", &number, &text), SHMNMPICTURE_ERR_ARGUMENT);
    EXPECT_EQ(shmnmpicture_findings(nullptr, &text, &size), SHMNMPICTURE_ERR_ARGUMENT);
    EXPECT_EQ(shmnmpicture_warning(nullptr, &text), SHMNMPICTURE_ERR_ARGUMENT);
    EXPECT_THAT(shmnmpicture_error(nullptr), HasSubstr("there is no picture"));
    shmnmpicture_free(nullptr);

    const Opened picture = Opened::live(SHMNMPICTURE_ALL_BYTES);
    shmnmpicture* const valid = picture.get();
    EXPECT_EQ(shmnmpicture_json(valid, nullptr, &size), SHMNMPICTURE_ERR_ARGUMENT);
    EXPECT_EQ(shmnmpicture_value(valid, nullptr, &text, &size), SHMNMPICTURE_ERR_ARGUMENT);
    EXPECT_EQ(shmnmpicture_value(valid, "cluster/clstat", nullptr, &size), SHMNMPICTURE_ERR_ARGUMENT);
    EXPECT_EQ(shmnmpicture_holds(valid, nullptr, &number, &text), SHMNMPICTURE_ERR_ARGUMENT);
    EXPECT_EQ(shmnmpicture_holds(valid, "cluster/clstat=1", nullptr, &text), SHMNMPICTURE_ERR_ARGUMENT);
    EXPECT_EQ(shmnmpicture_findings(valid, nullptr, &size), SHMNMPICTURE_ERR_ARGUMENT);
    EXPECT_EQ(shmnmpicture_warning(valid, nullptr), SHMNMPICTURE_ERR_ARGUMENT);
    EXPECT_STREQ(text, "unchanged");
    EXPECT_EQ(size, 7u);
    EXPECT_EQ(number, 7);
    // What may be null.
    EXPECT_EQ(shmnmpicture_update(valid, 0, nullptr), SHMNMPICTURE_OK);
    EXPECT_EQ(shmnmpicture_json(valid, &text, nullptr), SHMNMPICTURE_OK);
    EXPECT_EQ(shmnmpicture_holds(valid, "cluster/clstat=0", &number, nullptr), SHMNMPICTURE_OK);
    EXPECT_EQ(number, 1);
}

TEST(PictureOfAFile, IsFoundByItsUnicodeName) {
    const test::TemporaryFolder folder;
    const std::u8string name = u8"ein Abzug \u00E4\u4E2D.bin";
    const std::string bytes(2'000, '\0');
    test::write_text(folder.path() / name, bytes);
    const std::u8string path = (folder.path() / name).u8string();
    const Opened picture = Opened::file({path.begin(), path.end()});
    EXPECT_EQ(picture.result(), SHMNMPICTURE_OK) << picture.error();
}

TEST(PictureOfAFile, IsNamedInAsciiByItsError) {
    const Opened picture = Opened::file("100%\u00E4.bin");
    EXPECT_EQ(picture.result(), SHMNMPICTURE_ERR_NOT_A_DUMP);
    EXPECT_THAT(picture.error(), StartsWith("cannot read 100%%C3%A4.bin: "));
}

TEST(PictureOfAFile, IsRefusedUnlessTheFileCanBeADump) {
    const test::TemporaryFolder folder;
    folder.write("short", std::string(1'000, '\1'));
    folder.write("other", std::string(20'000, '\1'));
    const std::string place = folder.string() + "/";
    for (const char* const name : {"missing", "short", ".", "\xFF\xFE"}) {
        const Opened picture = Opened::file(place + name);
        EXPECT_EQ(picture.result(), SHMNMPICTURE_ERR_NOT_A_DUMP) << name;
        EXPECT_THAT(picture.error(), StartsWith("cannot read "));
        EXPECT_EQ(picture.json().result, SHMNMPICTURE_ERR_NOT_A_DUMP);
    }
    const Opened other = Opened::file(place + "other");
    EXPECT_EQ(other.result(), SHMNMPICTURE_OK);
    EXPECT_EQ(other.json().result, SHMNMPICTURE_ERR_NOT_A_DUMP);
    EXPECT_THAT(other.error(), HasSubstr("is not a dump"));
    EXPECT_EQ(other.findings().result, SHMNMPICTURE_OK);
    EXPECT_EQ(Opened::file(place + "other", SHMNMPICTURE_FORCE).json().result, SHMNMPICTURE_OK);
}

TEST(PictureOfAnAddress, IsRefusedUnlessItIsAnAddress) {
    for (const char* const text : {"", "nonsense", "http://", "http://a:0", "ftp://a", "unix:"}) {
        const Opened picture = Opened::address(text);
        EXPECT_EQ(picture.result(), SHMNMPICTURE_ERR_INVALID) << text;
        EXPECT_THAT(picture.error(), StartsWith("invalid address"));
    }
}

}  // namespace
