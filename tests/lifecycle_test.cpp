// Create, attach, detach, delete, clear and dump: every step, message, order and asymmetry, with each companion call
// failing in turn.
#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <thread>

#include "kernel.h"
#include "kernel_objects.h"
#include "region_fixture.h"

namespace {

using fakes::Enter;
using fakes::Error;
using fakes::Exit;
using fakes::Information;
using fakes::LogLine;
using fakes::Warning;
using test::Bytes;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr const char* server_read = "xmllib_get_value(/root/all/num/server,1,4)";
constexpr const char* hb_read = "xmllib_get_value(/root/all/num/hbr,1,4)";
constexpr const char* np_read = "xmllib_get_value(/root/all/num/npr,1,4)";
constexpr const char* fst_read = "xmllib_get_value(/root/all/num/fstr,1,4)";
constexpr const char* level_read = "xmllib_get_value(/root/shmnm/log/level,1,4)";
constexpr const char* size_read = "xmllib_get_value(/root/shmnm/log/size,1,4)";
constexpr const char* open_log_of_test = "kzmlog_open(shmnm,null,16,1000000,0,oru_kzmshmnm_log)";
constexpr const char* create_default = "KzmutilCreateNamedFileMapping(no file,4,0,2500740,oru_kzmshmnm_map)";
constexpr const char* open_mapping_call = "KzmutilOpenNamedFileMapping(0xF001F,1,oru_kzmshmnm_map)";

/// What create and attach have in common: one of them, with its names.
struct Mapper {
    uint32_t (*call)();
    const char* tag;
    const char* asks_for_mapping;
    const char* view_failed;
};

const Mapper create{shmnm_create, "_create", create_default, "MapViewOfFile failed(errno:6)"};
const Mapper attach{shmnm_attach, "_attach", open_mapping_call, "MapViewOfFile() failed(errno:6)"};

/// Keeps a region in being for attaches, as another process would.
class OtherHolder {
  public:
    explicit OtherHolder(uint64_t size)
        : handle_(test::create_mapping(size,
                                       (std::getenv("KZMUTIL_NAMESPACE") + std::string("oru_kzmshmnm_map")).c_str())) {}
    ~OtherHolder() { shmnm::kernel::close(handle_); }
    OtherHolder(const OtherHolder&) = delete;
    OtherHolder& operator=(const OtherHolder&) = delete;

  private:
    void* handle_;
};

/// What create and attach do alike.
class CreateAndAttach : public test::RegionTest, public testing::WithParamInterface<Mapper> {
  protected:
    uint32_t map() { return GetParam().call(); }
    const char* tag() const { return GetParam().tag; }
    bool creates() const { return GetParam().tag == std::string("_create"); }
    /// Creates say "(new)" or "(use)"; here another process holds the region.
    std::vector<testing::Matcher<const LogLine&>> lines_from_counts_on(const std::vector<std::string>& errors,
                                                                       int size) {
        std::vector<testing::Matcher<const LogLine&>> lines{Enter(tag()), Enter("_loadinfo")};
        for (const std::string& error : errors) lines.push_back(Error("_loadinfo", error));
        lines.push_back(Exit("_loadinfo", SHMNM_OK));
        if (creates()) lines.push_back(Information(tag(), "KzmutilCreateNamedFileMapping(use)"));
        lines.push_back(Information(tag(), "SIZE:" + std::to_string(size)));
        lines.push_back(Exit(tag(), SHMNM_OK));
        return lines;
    }

    OtherHolder other_process{2'500'740};
};

INSTANTIATE_TEST_SUITE_P(Both, CreateAndAttach, testing::Values(create, attach),
                         [](const auto& instance) { return std::string(instance.param.tag + 1); });

TEST_P(CreateAndAttach, CallTheCompanionsInOrder) {
    EXPECT_EQ(map(), SHMNM_OK);
    EXPECT_THAT(companion_calls(),
                ElementsAre("xmllib_init(shmnm)", "xmllib_load_config(0)", "xmllib_load_policy(shmnm)", level_read,
                            size_read, "xmllib_unload_policy(shmnm)", open_log_of_test, "KzmutilGetInstallPath(1024)",
                            "xmllib_load_policy(all)", server_read, hb_read, np_read, fst_read,
                            "xmllib_unload_policy(all)", "xmllib_load_policy(shmnm)", "xmllib_unload_policy(shmnm)",
                            "xmllib_unload_config()", "xmllib_term()", GetParam().asks_for_mapping));
}

TEST_P(CreateAndAttach, LogTheirLinesInOrder) {
    EXPECT_EQ(map(), SHMNM_OK);
    EXPECT_THAT(log_of_last_call(), testing::ElementsAreArray(lines_from_counts_on({}, 2'500'740)));
}

TEST_P(CreateAndAttach, WriteTheConfiguredCountsIntoTheHeaderAndKeepTheRest) {
    poke(0, Bytes(1084, 0xEE));
    configure({.servers = 3, .hb = 4, .np = 5, .fst = 6});
    EXPECT_EQ(map(), SHMNM_OK);
    Bytes expected(view_size());
    std::fill_n(expected.begin(), 1084, uint8_t{0xEE});
    const uint32_t counts[] = {3, 4, 5, 6, 18};
    std::memcpy(expected.data() + 8, counts, sizeof counts);
    EXPECT_EQ(region_bytes(), expected);
}

TEST_P(CreateAndAttach, FailAndLeaveNothingWhenTheConfigurationLibraryDoesNotStart) {
    fake.results["xmllib_init(shmnm)"] = 3;
    EXPECT_EQ(map(), SHMNM_ERR_XMLINIT);
    EXPECT_THAT(companion_calls(), ElementsAre("xmllib_init(shmnm)"));
    EXPECT_THAT(log_of_last_call(), IsEmpty());
    EXPECT_EQ(shmnm_setwaitstat(1), SHMNM_ERR_NOTINIT);
}

TEST_P(CreateAndAttach, FailAndLeaveNothingWhenTheConfigurationCannotBeLoaded) {
    fake.results["xmllib_load_config(0)"] = 3;
    EXPECT_EQ(map(), SHMNM_ERR_LOADCONFIG);
    EXPECT_THAT(companion_calls(), ElementsAre("xmllib_init(shmnm)", "xmllib_load_config(0)", "xmllib_term()"));
    EXPECT_THAT(log_of_last_call(), IsEmpty());
}

TEST_P(CreateAndAttach, FailWhenTheInstallationPathIsNotKnown) {
    fake.results["KzmutilGetInstallPath(1024)"] = 1;
    EXPECT_EQ(map(), SHMNM_ERR_LOADINFO);
    EXPECT_THAT(companion_calls(),
                ElementsAre("xmllib_init(shmnm)", "xmllib_load_config(0)", "xmllib_load_policy(shmnm)", level_read,
                            size_read, "xmllib_unload_policy(shmnm)", open_log_of_test, "KzmutilGetInstallPath(1024)",
                            "xmllib_unload_config()", "xmllib_term()", "kzmlog_close(log)"));
    EXPECT_THAT(log_of_last_call(),
                ElementsAre(Enter(tag()), Enter("_loadinfo"), Error("_loadinfo", "KzmutilGetInstallPath() failed."),
                            Exit("_loadinfo", SHMNM_ERR_INSTALLPATH), Error(tag(), "shmnm_loadinfo() failed(ret:19)"),
                            Exit(tag(), SHMNM_ERR_LOADINFO)));
    EXPECT_EQ(shmnm_setwaitstat(1), SHMNM_ERR_NOTINIT);
}

TEST_P(CreateAndAttach, UseTheFallbackCountsWithoutThePolicyNamedAll) {
    fake.results["xmllib_load_policy(all)"] = 7;
    EXPECT_EQ(map(), SHMNM_OK);
    EXPECT_THAT(log_of_last_call(),
                testing::ElementsAreArray(lines_from_counts_on({"xmllib_load_policy(all) failed(ret:7)"}, 2'500'740)));
    // After the policy nothing more is asked of the configuration; F has its own fallback.
    EXPECT_THAT(companion_calls(), testing::Not(testing::Contains(server_read)));
    EXPECT_EQ(word_at(8), 128u);
    EXPECT_EQ(word_at(12), 16u);
    EXPECT_EQ(word_at(16), 16u);
    EXPECT_EQ(word_at(20), 1u);
    EXPECT_EQ(word_at(24), 128u);
}

TEST_P(CreateAndAttach, UnloadTheConfigurationEvenWithoutThePolicyNamedAll) {
    fake.results["xmllib_load_policy(all)"] = 7;
    EXPECT_EQ(map(), SHMNM_OK);
    EXPECT_THAT(
        companion_calls(),
        ElementsAre("xmllib_init(shmnm)", "xmllib_load_config(0)", "xmllib_load_policy(shmnm)", level_read, size_read,
                    "xmllib_unload_policy(shmnm)", open_log_of_test, "KzmutilGetInstallPath(1024)",
                    "xmllib_load_policy(all)", "xmllib_unload_config()", "xmllib_term()", GetParam().asks_for_mapping));
}

struct CountRead {
    const char* call;
    const char* key;
    size_t offset;
    uint32_t fallback;
};

TEST_P(CreateAndAttach, UseTheFallbackOfEachCountThatCannotBeRead) {
    const CountRead reads[] = {{server_read, "/root/all/num/server", 8, 128},
                               {hb_read, "/root/all/num/hbr", 12, 16},
                               {np_read, "/root/all/num/npr", 16, 16},
                               {fst_read, "/root/all/num/fstr", 20, 1}};
    for (const CountRead& missing : reads) {
        SCOPED_TRACE(missing.key);
        fake.reset();
        configure({.servers = 2, .hb = 3, .np = 4, .fst = 5});
        fake.results[missing.call] = 9;
        EXPECT_EQ(map(), SHMNM_OK);
        EXPECT_THAT(log_of_last_call(), testing::Contains(Error("_loadinfo", std::string("xmllib_get_value(") +
                                                                                 missing.key + ") failed(ret:9)"))
                                            .Times(1));
        EXPECT_EQ(word_at(8), missing.offset == 8 ? 128u : 2u);
        EXPECT_EQ(word_at(12), missing.offset == 12 ? 16u : 3u);
        EXPECT_EQ(word_at(16), missing.offset == 16 ? 16u : 4u);
        EXPECT_EQ(word_at(20), missing.offset == 20 ? 1u : 5u);
        EXPECT_EQ(word_at(24), word_at(8) * word_at(20));
        shmnm_delete();
    }
}

TEST_P(CreateAndAttach, UseTheConfiguredNumbersUnchecked) {
    configure({.servers = 0, .hb = -1, .np = 7, .fst = -2});
    EXPECT_EQ(map(), SHMNM_OK);
    EXPECT_EQ(word_at(8), 0u);
    EXPECT_EQ(word_at(12), 0xFFFFFFFFu);
    EXPECT_EQ(word_at(20), 0xFFFFFFFEu);
}

TEST_P(CreateAndAttach, OnlyLogWhatFailsAfterTheCounts) {
    fake.results["xmllib_unload_policy(all)"] = 1;
    fake.results["xmllib_load_policy(shmnm)"] = 2;
    fake.results["xmllib_unload_policy(shmnm)"] = 3;
    fake.results["xmllib_unload_config()"] = 4;
    fake.results["xmllib_term()"] = 5;
    EXPECT_EQ(map(), SHMNM_OK);
    const std::vector<LogLine> lines = log_of_last_call();
    ASSERT_EQ(lines.size(), creates() ? 11u : 10u);
    EXPECT_THAT(
        std::vector(lines.begin(), lines.begin() + 8),
        ElementsAre(Enter(tag()), Enter("_loadinfo"), Error("_loadinfo", "xmllib_unload_policy(all) failed(ret:1)"),
                    Error("_loadinfo", "xmllib_load_policy(shmnm) failed(ret:2)"),
                    Error("_loadinfo", "xmllib_unload_policy(shmnm) failed(ret:3)"), Exit("_loadinfo", SHMNM_OK),
                    Error(tag(), "xmllib_unload_config() failed(ret:4)"), Error(tag(), "xmllib_term() failed(ret:5)")));
    EXPECT_THAT(lines.back(), Exit(tag(), SHMNM_OK));
}

TEST_P(CreateAndAttach, UnloadThePolicyNamedShmnmEvenIfItsLoadFailed) {
    fake.results["xmllib_load_policy(shmnm)"] = 2;
    EXPECT_EQ(map(), SHMNM_OK);
    // The log's own policy is not unloaded after its load failed, the empty pair behind the counts is.
    EXPECT_THAT(companion_calls(), testing::Contains("xmllib_unload_policy(shmnm)").Times(1));
}

TEST_P(CreateAndAttach, CloseEverythingWhenTheViewCannotBeMapped) {
    fake.hand_out_unmappable = true;
    test::set_last_error(0);
    EXPECT_EQ(map(), SHMNM_ERR_MAPVIEW);
    EXPECT_THAT(companion_calls().back(), "kzmlog_close(log)");
    const std::vector<LogLine> lines = log_of_last_call();
    ASSERT_GE(lines.size(), 2u);
    EXPECT_THAT(lines[lines.size() - 2], Error(tag(), GetParam().view_failed));
    EXPECT_THAT(lines.back(), Exit(tag(), SHMNM_ERR_MAPVIEW));
    ASSERT_EQ(fake.mappings.size(), 1u);
    EXPECT_FALSE(shmnm::kernel::close(fake.mappings[0])) << "the handle is closed already";
    EXPECT_EQ(shmnm_setwaitstat(1), SHMNM_ERR_NOTINIT);
}

TEST_P(CreateAndAttach, CanBeTriedAgainAfterAFailure) {
    fake.hand_out_unmappable = true;
    ASSERT_EQ(map(), SHMNM_ERR_MAPVIEW);
    fake.reset();
    EXPECT_EQ(map(), SHMNM_OK);
    EXPECT_EQ(shmnm_setwaitstat(1), SHMNM_OK);
}

// ---- the opening of the log ----

TEST_P(CreateAndAttach, OpenTheLogWithDefaultsWithoutItsPolicy) {
    fake.results["xmllib_load_policy(shmnm)"] = 2;
    EXPECT_EQ(map(), SHMNM_OK);
    EXPECT_THAT(companion_calls(), testing::Contains("kzmlog_open(shmnm,null,4,1000000,0,oru_kzmshmnm_log)"));
}

TEST_P(CreateAndAttach, OpenTheLogWithTheDefaultOfEachValueThatCannotBeRead) {
    fake.values["/root/shmnm/log/level"] = 2;
    fake.values["/root/shmnm/log/size"] = 5000;
    fake.results[level_read] = 1;
    EXPECT_EQ(map(), SHMNM_OK);
    EXPECT_THAT(companion_calls(), testing::Contains("kzmlog_open(shmnm,null,4,5000,0,oru_kzmshmnm_log)"));
    shmnm_delete();
    fake.results = {{size_read, 1}};
    fake.calls.clear();
    EXPECT_EQ(map(), SHMNM_OK);
    EXPECT_THAT(companion_calls(), testing::Contains("kzmlog_open(shmnm,null,2,1000000,0,oru_kzmshmnm_log)"));
}

TEST_P(CreateAndAttach, WorkWithoutALogThatCannotBeOpened) {
    fake.log_opens = false;
    fake.log_open_result = 5;
    EXPECT_EQ(map(), SHMNM_OK);
    EXPECT_EQ(shmnm_setwaitstat(7), SHMNM_OK);
    EXPECT_EQ(shmnm_getwaitstat(nullptr), SHMNM_ERR_PARAM);
    EXPECT_THAT(log_of_last_call(), IsEmpty());
}

TEST_P(CreateAndAttach, TreatAnyHandleAsAnOpenLogWhateverTheResult) {
    fake.log_open_result = 5;
    EXPECT_EQ(map(), SHMNM_OK);
    EXPECT_THAT(log_of_last_call(), testing::ElementsAreArray(lines_from_counts_on({}, 2'500'740)));
}

TEST_P(CreateAndAttach, DoNotOpenALogThatIsOpen) {
    ASSERT_EQ(map(), SHMNM_OK);
    companion_calls();
    EXPECT_EQ(map(), SHMNM_OK);
    EXPECT_THAT(companion_calls(), IsEmpty());
}

// ---- create alone ----

class Create : public test::RegionTest {};

TEST_F(Create, LogsThatTheRegionIsNewAndFillsItWithZeros) {
    EXPECT_EQ(shmnm_create(), SHMNM_OK);
    EXPECT_THAT(log_of_last_call(), ElementsAre(Enter("_create"), Enter("_loadinfo"), Exit("_loadinfo", SHMNM_OK),
                                                Information("_create", "KzmutilCreateNamedFileMapping(new)"),
                                                Information("_create", "SIZE:2500740"), Exit("_create", SHMNM_OK)));
    Bytes bytes = region_bytes();
    std::fill_n(bytes.begin() + 8, 20, uint8_t{0});
    EXPECT_THAT(bytes, Each(0));
}

TEST_F(Create, FillsANewRegionWithZerosEvenIfItsMemoryWasInUse) {
    const OtherHolder other_process(2'500'740);
    map_region();
    poke(0, Bytes(view_size(), 0xA5));
    ASSERT_EQ(shmnm_delete(), SHMNM_OK);
    fakes::companions().create_says_new = true;
    log_of_last_call();
    EXPECT_EQ(shmnm_create(), SHMNM_OK);
    EXPECT_THAT(log_of_last_call(), testing::Contains(Information("_create", "KzmutilCreateNamedFileMapping(new)")));
    Bytes bytes = region_bytes();
    std::fill_n(bytes.begin() + 8, 20, uint8_t{0});
    bytes.resize(2'500'740);
    EXPECT_EQ(bytes, Bytes(2'500'740));
}

TEST_F(Create, DoesNothingWhenTheRegionIsMapped) {
    map_region({.servers = 4, .hb = 2, .np = 2});
    configure({.servers = 9, .hb = 9, .np = 9});
    const Bytes before = region_bytes();
    EXPECT_EQ(shmnm_create(), SHMNM_OK);
    EXPECT_THAT(log_of_last_call(),
                ElementsAre(Enter("_create"), Warning("_create", "already init"), Exit("_create", SHMNM_OK)));
    EXPECT_EQ(shmnm_create(), SHMNM_OK);
    EXPECT_THAT(log_of_last_call(), testing::Contains(Warning("_create", "already init")));
    EXPECT_THAT(companion_calls(), IsEmpty());
    EXPECT_EQ(region_bytes(), before);
}

TEST_F(Create, DoesNotCountAsAnAttach) {
    map_region();
    EXPECT_EQ(shmnm_create(), SHMNM_OK);
    EXPECT_EQ(shmnm_detach(), SHMNM_OK);
    EXPECT_EQ(shmnm_setwaitstat(1), SHMNM_ERR_NOTINIT);
}

TEST_F(Create, KeepsTheContentsOfAnExistingRegionAndRewritesTheCounts) {
    const OtherHolder other_process(2'500'740);
    map_region({.servers = 4, .hb = 2, .np = 2});
    ASSERT_EQ(shmnm_setclstat(77), SHMNM_OK);
    ASSERT_EQ(shmnm_delete(), SHMNM_OK);
    configure({.servers = 5, .hb = 6, .np = 7, .fst = 2});
    log_of_last_call();
    EXPECT_EQ(shmnm_create(), SHMNM_OK);
    EXPECT_THAT(log_of_last_call(), testing::Contains(Information("_create", "KzmutilCreateNamedFileMapping(use)")));
    EXPECT_EQ(word_at(56), 77u);
    EXPECT_EQ(word_at(8), 5u);
    EXPECT_EQ(word_at(24), 10u);
}

TEST_F(Create, RecognisesANewRegionWhateverTheLastErrorWas) {
    test::set_last_error(183);
    EXPECT_EQ(shmnm_create(), SHMNM_OK);
    EXPECT_THAT(log_of_last_call(), testing::Contains(Information("_create", "KzmutilCreateNamedFileMapping(new)")));
}

TEST_F(Create, RecognisesANewRegionEvenIfItsCreationLeavesTheLastErrorAsItWas) {
    fake.create_keeps_last_error = true;
    test::set_last_error(183);
    EXPECT_EQ(shmnm_create(), SHMNM_OK);
    EXPECT_THAT(log_of_last_call(), testing::Contains(Information("_create", "KzmutilCreateNamedFileMapping(new)")));
}

TEST_F(Create, TriesAgainASecondAfterAFailedAttempt) {
    fake.create_errors = {8, 1455};
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(shmnm_create(), SHMNM_OK);
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(1'900));
    EXPECT_THAT(log_of_last_call(), ElementsAre(Enter("_create"), Enter("_loadinfo"), Exit("_loadinfo", SHMNM_OK),
                                                Error("_create", "KzmutilCreateNamedFileMapping failed(errno:8)"),
                                                Error("_create", "KzmutilCreateNamedFileMapping failed(errno:1455)"),
                                                Information("_create", "KzmutilCreateNamedFileMapping(new)"),
                                                Information("_create", "SIZE:2500740"), Exit("_create", SHMNM_OK)));
    EXPECT_THAT(companion_calls(), testing::Contains(create_default).Times(3));
}

TEST_F(Create, GivesUpAfterFiveAttempts) {
    fake.create_errors = {11, 12, 13, 14, 15};
    EXPECT_EQ(shmnm_create(), SHMNM_ERR_CREATEMAP);
    EXPECT_THAT(log_of_last_call(), ElementsAre(Enter("_create"), Enter("_loadinfo"), Exit("_loadinfo", SHMNM_OK),
                                                Error("_create", "KzmutilCreateNamedFileMapping failed(errno:11)"),
                                                Error("_create", "KzmutilCreateNamedFileMapping failed(errno:12)"),
                                                Error("_create", "KzmutilCreateNamedFileMapping failed(errno:13)"),
                                                Error("_create", "KzmutilCreateNamedFileMapping failed(errno:14)"),
                                                Error("_create", "KzmutilCreateNamedFileMapping failed(errno:15)"),
                                                Error("_create", "KzmutilCreateNamedFileMapping failed(errno:15)"),
                                                Exit("_create", SHMNM_ERR_CREATEMAP)));
    const std::vector<std::string> calls = companion_calls();
    EXPECT_THAT(calls, testing::Contains(create_default).Times(5));
    EXPECT_EQ(calls.back(), "kzmlog_close(log)");
    EXPECT_EQ(shmnm_setwaitstat(1), SHMNM_ERR_NOTINIT);
}

// ---- attach alone ----

class Attach : public test::RegionTest {};

TEST_F(Attach, FailsWithoutARegionAndDoesNotTryAgain) {
    EXPECT_EQ(shmnm_attach(), SHMNM_ERR_OPENMAP);
    EXPECT_THAT(log_of_last_call(), ElementsAre(Enter("_attach"), Enter("_loadinfo"), Exit("_loadinfo", SHMNM_OK),
                                                Error("_attach", "KzmutilOpenNamedFileMapping() failed(errno:2)"),
                                                Exit("_attach", SHMNM_ERR_OPENMAP)));
    const std::vector<std::string> calls = companion_calls();
    EXPECT_THAT(calls, testing::Contains(open_mapping_call).Times(1));
    EXPECT_EQ(calls.back(), "kzmlog_close(log)");
    EXPECT_EQ(shmnm_setwaitstat(1), SHMNM_ERR_NOTINIT);
}

TEST_F(Attach, NamesTheErrorOfTheOpen) {
    fake.open_errors = {5};
    EXPECT_EQ(shmnm_attach(), SHMNM_ERR_OPENMAP);
    EXPECT_THAT(log_of_last_call(),
                testing::Contains(Error("_attach", "KzmutilOpenNamedFileMapping() failed(errno:5)")));
}

TEST_F(Attach, WarnsOfARepeatedAttachOncePerMapping) {
    const OtherHolder other_process(2'500'740);
    for (int mapping = 0; mapping < 2; ++mapping) {
        ASSERT_EQ(shmnm_attach(), SHMNM_OK);
        log_of_last_call();
        EXPECT_EQ(shmnm_attach(), SHMNM_OK);
        EXPECT_THAT(log_of_last_call(),
                    ElementsAre(Enter("_attach"), Warning("_attach", "already init"), Exit("_attach", SHMNM_OK)));
        EXPECT_EQ(shmnm_attach(), SHMNM_OK);
        EXPECT_THAT(log_of_last_call(), ElementsAre(Enter("_attach"), Exit("_attach", SHMNM_OK)));
        for (int attached = 0; attached < 3; ++attached) ASSERT_EQ(shmnm_detach(), SHMNM_OK);
    }
}

TEST_F(Attach, TakesItsSizeFromItsOwnConfigurationAndNotFromTheRegion) {
    const OtherHolder other_process(2'500'740);
    configure({.servers = 2, .hb = 1, .np = 1, .fst = 0});
    ASSERT_EQ(shmnm_attach(), SHMNM_OK);
    int32_t size = 0;
    ASSERT_EQ(shmnm_dump(nullptr, &size), SHMNM_OK);
    EXPECT_EQ(size, 1084 + 2 * 320 + 2 * 592 + 2 * 588);
}

TEST_F(Attach, OverwritesMaximumValuesThatWereSetBefore) {
    const OtherHolder other_process(2'500'740);
    ASSERT_EQ(shmnm_attach(), SHMNM_OK);
    ASSERT_EQ(shmnm_setmaxvalue_ex(1, 2, 3), SHMNM_OK);
    ASSERT_EQ(shmnm_detach(), SHMNM_OK);
    ASSERT_EQ(shmnm_attach(), SHMNM_OK);
    EXPECT_EQ(word_at(8), 128u);
    EXPECT_EQ(word_at(12), 16u);
    EXPECT_EQ(word_at(16), 16u);
}

// ---- detach and delete ----

class DetachAndDelete : public test::RegionTest {
  protected:
    bool mapped() { return shmnm_setwaitstat(0) == SHMNM_OK; }
    /// Whether a handle that the library got is still open; closes it if so.
    bool still_open(size_t mapping) { return shmnm::kernel::close(fake.mappings[mapping]); }
};

TEST_F(DetachAndDelete, DetachOnceForEachAttach) {
    const OtherHolder other_process(2'500'740);
    ASSERT_EQ(shmnm_attach(), SHMNM_OK);
    ASSERT_EQ(shmnm_attach(), SHMNM_OK);
    log_of_last_call();
    companion_calls();
    EXPECT_EQ(shmnm_detach(), SHMNM_OK);
    EXPECT_THAT(log_of_last_call(), ElementsAre(Enter("_detach"), Exit("_detach", SHMNM_OK)));
    EXPECT_THAT(companion_calls(), IsEmpty());
    EXPECT_TRUE(mapped());
    log_of_last_call();
    EXPECT_EQ(shmnm_detach(), SHMNM_OK);
    EXPECT_THAT(log_of_last_call(), ElementsAre(Enter("_detach"), Exit("_detach", SHMNM_OK)));
    EXPECT_THAT(companion_calls(), ElementsAre("kzmlog_close(log)"));
    EXPECT_FALSE(mapped());
    EXPECT_FALSE(still_open(0));
}

TEST_F(DetachAndDelete, ReportNotInitWhileNothingIsMapped) {
    EXPECT_EQ(shmnm_detach(), SHMNM_ERR_NOTINIT);
    EXPECT_EQ(shmnm_delete(), SHMNM_ERR_NOTINIT);
    EXPECT_THAT(log_of_last_call(), IsEmpty()) << "the log is not open";
    EXPECT_THAT(companion_calls(), IsEmpty());
}

TEST_F(DetachAndDelete, DetachUnmapsACreatedRegionAtOnceAndKeepsItsHandleOpen) {
    ASSERT_EQ(shmnm_create(), SHMNM_OK);
    EXPECT_EQ(shmnm_detach(), SHMNM_OK);
    EXPECT_FALSE(mapped());
    EXPECT_EQ(shmnm_delete(), SHMNM_ERR_NOTINIT);
    // The region lives on in that handle: what is created next is in use, not new.
    log_of_last_call();
    ASSERT_EQ(shmnm_create(), SHMNM_OK);
    EXPECT_THAT(log_of_last_call(), testing::Contains(Information("_create", "KzmutilCreateNamedFileMapping(use)")));
}

TEST_F(DetachAndDelete, LeaveAReplacedHandleOpen) {
    ASSERT_EQ(shmnm_create(), SHMNM_OK);
    ASSERT_EQ(shmnm_setclstat(5), SHMNM_OK);
    ASSERT_EQ(shmnm_detach(), SHMNM_OK);
    ASSERT_EQ(shmnm_create(), SHMNM_OK);
    ASSERT_EQ(shmnm_delete(), SHMNM_OK);
    EXPECT_FALSE(still_open(1)) << "delete closes the handle of the last create";
    log_of_last_call();
    EXPECT_EQ(shmnm_create(), SHMNM_OK);
    EXPECT_THAT(log_of_last_call(), testing::Contains(Information("_create", "KzmutilCreateNamedFileMapping(use)")))
        << "the first handle holds the region";
    EXPECT_EQ(word_at(56), 5u);
}

TEST_F(DetachAndDelete, LeaveTheEarlierHandleOpenAfterAFailedCreate) {
    ASSERT_EQ(shmnm_create(), SHMNM_OK);
    ASSERT_EQ(shmnm_detach(), SHMNM_OK);
    fake.hand_out_unmappable = true;
    ASSERT_EQ(shmnm_create(), SHMNM_ERR_MAPVIEW);
    EXPECT_FALSE(still_open(1)) << "what the failed call got is closed";
    fake.hand_out_unmappable = false;
    ASSERT_EQ(shmnm_attach(), SHMNM_OK) << "the region is still held";
}

TEST_F(DetachAndDelete, DetachAfterCreateResetsTheCountOfAttaches) {
    ASSERT_EQ(shmnm_create(), SHMNM_OK);
    ASSERT_EQ(shmnm_detach(), SHMNM_OK);
    ASSERT_EQ(shmnm_attach(), SHMNM_OK);
    ASSERT_EQ(shmnm_attach(), SHMNM_OK);
    EXPECT_EQ(shmnm_detach(), SHMNM_OK);
    EXPECT_TRUE(mapped());
    EXPECT_EQ(shmnm_detach(), SHMNM_OK);
    EXPECT_FALSE(mapped());
}

TEST_F(DetachAndDelete, DeleteUnmapsAndClosesTheHandleOfCreate) {
    ASSERT_EQ(shmnm_create(), SHMNM_OK);
    log_of_last_call();
    companion_calls();
    EXPECT_EQ(shmnm_delete(), SHMNM_OK);
    EXPECT_THAT(log_of_last_call(), ElementsAre(Enter("_delete"), Exit("_delete", SHMNM_OK)));
    EXPECT_THAT(companion_calls(), ElementsAre("kzmlog_close(log)"));
    EXPECT_FALSE(mapped());
    EXPECT_FALSE(still_open(0));
}

TEST_F(DetachAndDelete, DeleteAfterAttachLeavesTheHandleOfAttachOpen) {
    const OtherHolder other_process(2'500'740);
    ASSERT_EQ(shmnm_attach(), SHMNM_OK);
    EXPECT_EQ(shmnm_delete(), SHMNM_OK);
    EXPECT_FALSE(mapped());
    EXPECT_TRUE(still_open(0));
}

TEST_F(DetachAndDelete, DeleteKeepsTheCountOfAttaches) {
    const OtherHolder other_process(2'500'740);
    ASSERT_EQ(shmnm_attach(), SHMNM_OK);
    ASSERT_EQ(shmnm_attach(), SHMNM_OK);
    ASSERT_EQ(shmnm_delete(), SHMNM_OK);
    ASSERT_EQ(shmnm_attach(), SHMNM_OK);
    EXPECT_EQ(shmnm_detach(), SHMNM_OK);
    EXPECT_TRUE(mapped()) << "three attaches are counted";
    EXPECT_EQ(shmnm_detach(), SHMNM_OK);
    EXPECT_EQ(shmnm_detach(), SHMNM_OK);
    EXPECT_FALSE(mapped());
}

TEST_F(DetachAndDelete, DeleteDoesNotRenewTheWarningOfARepeatedAttach) {
    const OtherHolder other_process(2'500'740);
    ASSERT_EQ(shmnm_attach(), SHMNM_OK);
    ASSERT_EQ(shmnm_attach(), SHMNM_OK);
    ASSERT_EQ(shmnm_delete(), SHMNM_OK);
    ASSERT_EQ(shmnm_attach(), SHMNM_OK);
    log_of_last_call();
    EXPECT_EQ(shmnm_attach(), SHMNM_OK);
    EXPECT_THAT(log_of_last_call(), ElementsAre(Enter("_attach"), Exit("_attach", SHMNM_OK)));
}

TEST_F(DetachAndDelete, NeverCloseAStaleHandleAgain) {
    ASSERT_EQ(shmnm_create(), SHMNM_OK);
    ASSERT_EQ(shmnm_delete(), SHMNM_OK);
    // Numbers of closed handles may name other objects by now.
    const OtherHolder reused[] = {OtherHolder(2'500'740), OtherHolder(2'500'740), OtherHolder(2'500'740)};
    ASSERT_EQ(shmnm_attach(), SHMNM_OK);
    test::set_last_error(0);
    ASSERT_EQ(shmnm_delete(), SHMNM_OK);
    EXPECT_NE(test::last_error(), 6u) << "an invalid handle was closed";
    ASSERT_EQ(shmnm_attach(), SHMNM_OK) << "the region is still held";
}

TEST_F(DetachAndDelete, WriteNothingToTheLogOnceItIsClosed) {
    ASSERT_EQ(shmnm_create(), SHMNM_OK);
    ASSERT_EQ(shmnm_delete(), SHMNM_OK);
    log_of_last_call();
    EXPECT_EQ(shmnm_setwaitstat(1), SHMNM_ERR_NOTINIT);
    EXPECT_EQ(shmnm_clear(), SHMNM_ERR_NOTINIT);
    EXPECT_THAT(log_of_last_call(), IsEmpty());
}

TEST_F(DetachAndDelete, ThreadsThatAttachAndDetachAtOnceNeverUnmapOneAnother) {
    const OtherHolder other_process(2'500'740);
    std::vector<std::thread> threads;
    threads.reserve(8);
    for (int i = 0; i < 8; ++i) {
        threads.emplace_back([] {
            for (int round = 0; round < 50; ++round) {
                EXPECT_EQ(shmnm_attach(), SHMNM_OK);
                EXPECT_EQ(shmnm_setwaitstat(1), SHMNM_OK) << "mapped while this thread is attached";
                EXPECT_EQ(shmnm_detach(), SHMNM_OK);
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_FALSE(mapped());
    EXPECT_EQ(shmnm_detach(), SHMNM_ERR_NOTINIT);
}

TEST_F(DetachAndDelete, ThreadsThatCreateAndDeleteAtOnceMapOneRegion) {
    const OtherHolder other_process(2'500'740);
    std::vector<std::thread> threads;
    threads.reserve(4);
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([] {
            for (int round = 0; round < 50; ++round) {
                EXPECT_EQ(shmnm_create(), SHMNM_OK);
                const uint32_t result = shmnm_delete();
                EXPECT_TRUE(result == SHMNM_OK || result == SHMNM_ERR_NOTINIT) << result;
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_FALSE(mapped());
}

// ---- clear ----

class Clear : public test::RegionTest {};

TEST_F(Clear, FillsTheWholeRegionWithZerosAndLogsNoEntryLine) {
    map_region({.servers = 3, .hb = 2, .np = 2, .fst = 1});
    int32_t size = 0;
    ASSERT_EQ(shmnm_dump(nullptr, &size), SHMNM_OK);
    poke(0, Bytes(view_size(), 0xA5));
    log_of_last_call();
    EXPECT_EQ(shmnm_clear(), SHMNM_OK);
    EXPECT_THAT(log_of_last_call(),
                ElementsAre(Information("shmnm_clear", "shmnm clear."), Exit("shmnm_clear", SHMNM_OK)));
    Bytes expected(view_size(), 0xA5);
    std::fill_n(expected.begin(), size, uint8_t{0});
    EXPECT_EQ(region_bytes(), expected) << "the pages' rest behind the region is not touched";
}

TEST_F(Clear, LeavesMaximumValuesOfZero) {
    map_region();
    ASSERT_EQ(shmnm_clear(), SHMNM_OK);
    uint32_t servers = 1, hb = 1, np = 1;
    EXPECT_EQ(shmnm_getmaxvalue_ex(&servers, &hb, &np), SHMNM_OK);
    EXPECT_EQ(servers, 0u);
    EXPECT_EQ(hb, 0u);
    EXPECT_EQ(np, 0u);
}

TEST_F(Clear, ReportsNotInitWhileNothingIsMapped) {
    EXPECT_EQ(shmnm_clear(), SHMNM_ERR_NOTINIT);
}

TEST_F(Clear, StopsAtTheEndOfAMappingSmallerThanConfigured) {
    const OtherHolder other_process(8192);
    ASSERT_EQ(shmnm_attach(), SHMNM_OK);
    poke(0, Bytes(8192, 0xA5));
    EXPECT_EQ(shmnm_clear(), SHMNM_OK);
    EXPECT_THAT(region_bytes(), Each(0));
}

// ---- dump ----

class Dump : public test::RegionTest {};

TEST_F(Dump, ReportsTheSize) {
    map_region();
    int32_t size = -5;
    EXPECT_EQ(shmnm_dump(nullptr, &size), SHMNM_OK);
    EXPECT_EQ(size, 2'500'740);
    EXPECT_THAT(log_of_last_call(), ElementsAre(Enter("_dump"), Exit("_dump", SHMNM_OK)));
}

TEST_F(Dump, CopiesTheRegionAndNoByteMore) {
    map_region({.servers = 3, .hb = 2, .np = 2, .fst = 1});
    ASSERT_EQ(shmnm_setclstat(0x12345678), SHMNM_OK);
    int32_t size = 0;
    ASSERT_EQ(shmnm_dump(nullptr, &size), SHMNM_OK);
    const auto bytes = static_cast<size_t>(size);
    Bytes copy(bytes + 64, 0xC3);
    log_of_last_call();
    EXPECT_EQ(shmnm_dump(copy.data(), &size), SHMNM_OK);
    EXPECT_THAT(log_of_last_call(), ElementsAre(Enter("_dump"), Exit("_dump", SHMNM_OK)));
    Bytes expected = region_bytes();
    expected.resize(bytes);
    expected.resize(bytes + 64, 0xC3);
    EXPECT_EQ(copy, expected);
}

TEST_F(Dump, KeepsTheSizeOfALargerBuffer) {
    map_region({.servers = 1, .hb = 1, .np = 1, .fst = 1});
    int32_t size = 1'000'000;
    Bytes copy(static_cast<size_t>(size));
    EXPECT_EQ(shmnm_dump(copy.data(), &size), SHMNM_OK);
    EXPECT_EQ(size, 1'000'000);
}

TEST_F(Dump, RefusesABufferOneByteShort) {
    map_region({.servers = 3, .hb = 2, .np = 2, .fst = 1});
    int32_t size = 0;
    ASSERT_EQ(shmnm_dump(nullptr, &size), SHMNM_OK);
    Bytes copy(static_cast<size_t>(size), 0xC3);
    const int32_t short_sizes[] = {size - 1, 0, -1, INT32_MIN};
    for (int32_t short_size : short_sizes) {
        const int32_t given = short_size;
        log_of_last_call();
        EXPECT_EQ(shmnm_dump(copy.data(), &short_size), SHMNM_ERR_BUFFER);
        EXPECT_THAT(log_of_last_call(),
                    ElementsAre(Enter("_dump"), Error("_dump", "not enough buffer"), Exit("_dump", SHMNM_ERR_BUFFER)));
        EXPECT_EQ(short_size, given);
        EXPECT_THAT(copy, Each(0xC3));
    }
}

TEST_F(Dump, RefusesANullSize) {
    map_region();
    uint8_t byte = 0xC3;
    EXPECT_EQ(shmnm_dump(&byte, nullptr), SHMNM_ERR_PARAM);
    EXPECT_THAT(log_of_last_call(),
                ElementsAre(Enter("_dump"), Error("_dump", "invalid param"), Exit("_dump", SHMNM_ERR_PARAM)));
    EXPECT_EQ(shmnm_dump(nullptr, nullptr), SHMNM_ERR_PARAM);
    EXPECT_EQ(byte, 0xC3);
}

TEST_F(Dump, ReportsNotInitBeforeItChecksItsArguments) {
    EXPECT_EQ(shmnm_dump(nullptr, nullptr), SHMNM_ERR_NOTINIT);
}

TEST_F(Dump, PadsAMappingSmallerThanConfiguredWithZeros) {
    const OtherHolder other_process(8192);
    ASSERT_EQ(shmnm_attach(), SHMNM_OK);
    poke(8188, {1, 2, 3, 4});
    int32_t size = 2'500'740;
    Bytes copy(static_cast<size_t>(size), 0xC3);
    EXPECT_EQ(shmnm_dump(copy.data(), &size), SHMNM_OK);
    Bytes expected = region_bytes();
    ASSERT_EQ(expected.size(), 8192u);
    expected.resize(copy.size());
    EXPECT_EQ(copy, expected);
}

}  // namespace
