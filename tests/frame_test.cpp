// What holds for every exported function: result codes, the lines "not init" gives while a log is open, what a closed
// log costs, and messages of every length.
#include "region_fixture.h"

#include "frame.h"

namespace {

using fakes::Enter;
using fakes::Error;
using fakes::Exit;
using testing::ElementsAre;
using testing::IsEmpty;

TEST(ResultCodes, HaveTheNumbersThatCallersKnow) {
    EXPECT_EQ(SHMNM_OK, 0);
    EXPECT_EQ(SHMNM_ERR_NOTINIT, 1);
    EXPECT_EQ(SHMNM_ERR_PARAM, 2);
    EXPECT_EQ(SHMNM_ERR_NOTFOUND, 3);
    EXPECT_EQ(SHMNM_ERR_BUFFER, 4);
    EXPECT_EQ(SHMNM_ERR_XMLINIT, 5);
    EXPECT_EQ(SHMNM_ERR_CREATEMAP, 6);
    EXPECT_EQ(SHMNM_ERR_MAPVIEW, 7);
    EXPECT_EQ(SHMNM_ERR_OPENMAP, 8);
    EXPECT_EQ(SHMNM_ERR_COUNTOVER, 9);
    EXPECT_EQ(SHMNM_ERR_RSCOVER, 10);
    EXPECT_EQ(SHMNM_ERR_LOADINFO, 11);
    EXPECT_EQ(SHMNM_ERR_LOADCONFIG, 12);
    EXPECT_EQ(SHMNM_ERR_EXIST, 13);
    EXPECT_EQ(SHMNM_ERR_ADDSVSTAT, 14);
    EXPECT_EQ(SHMNM_ERR_RMSVSTAT, 15);
    EXPECT_EQ(SHMNM_ERR_INDEX, 16);
    EXPECT_EQ(SHMNM_ERR_LOCK, 17);
    EXPECT_EQ(SHMNM_ERR_INSTALLPATH, 19);
}

TEST(ExitLines, ShowTheCodeInEightHexadecimalDigits) {
    for (uint32_t code = 0; code <= SHMNM_ERR_INSTALLPATH; ++code) {
        char expected[64];
        std::snprintf(expected, sizeof expected, "<<< EXIT >>> : 0x%08x", code);
        EXPECT_STREQ(shmnm::exit_lines[code].data(), expected);
    }
}

class Frame : public test::RegionTest {};

TEST_F(Frame, WritesNothingBeforeTheLogIsOpen) {
    uint32_t value = 0;
    EXPECT_EQ(shmnm_getwaitstat(&value), SHMNM_ERR_NOTINIT);
    EXPECT_EQ(shmnm_getwaitstat(nullptr), SHMNM_ERR_NOTINIT) << "not init comes before a bad argument";
    EXPECT_EQ(shmnm_dump(nullptr, nullptr), SHMNM_ERR_NOTINIT);
    EXPECT_THAT(log_of_last_call(), IsEmpty());
    EXPECT_THAT(companion_calls(), IsEmpty());
}

TEST_F(Frame, LogsNotInitBetweenEntryAndExitWhileTheLogIsOpen) {
    // While a create loads its counts, the log is open and nothing is mapped yet.
    uint32_t result = SHMNM_OK;
    std::vector<fakes::LogLine> lines;
    fake.on_call = [&](const std::string& call) {
        if (call != "xmllib_load_policy(all)") return;
        log_of_last_call();
        result = shmnm_getwaitstat(nullptr);
        lines = log_of_last_call();
    };
    ASSERT_EQ(shmnm_create(), SHMNM_OK);
    EXPECT_EQ(result, SHMNM_ERR_NOTINIT);
    EXPECT_THAT(lines, ElementsAre(Enter("_getwaitstat"), Error("_getwaitstat", "not init"),
                                   Exit("_getwaitstat", SHMNM_ERR_NOTINIT)));
}

TEST_F(Frame, LogsNotInitInClearAndDumpToo) {
    std::vector<fakes::LogLine> clear_lines, dump_lines;
    fake.on_call = [&](const std::string& call) {
        if (call != "xmllib_load_policy(all)") return;
        log_of_last_call();
        EXPECT_EQ(shmnm_clear(), SHMNM_ERR_NOTINIT);
        clear_lines = log_of_last_call();
        EXPECT_EQ(shmnm_dump(nullptr, nullptr), SHMNM_ERR_NOTINIT);
        dump_lines = log_of_last_call();
    };
    ASSERT_EQ(shmnm_create(), SHMNM_OK);
    EXPECT_THAT(clear_lines, ElementsAre(Error("shmnm_clear", "not init"), Exit("shmnm_clear", SHMNM_ERR_NOTINIT)));
    EXPECT_THAT(dump_lines, ElementsAre(Enter("_dump"), Error("_dump", "not init"), Exit("_dump", SHMNM_ERR_NOTINIT)));
}

TEST_F(Frame, LogsNotInitInDetachAndDeleteAndClosesTheLogOnlyInDelete) {
    std::vector<fakes::LogLine> detach_lines, delete_lines;
    fake.on_call = [&](const std::string& call) {
        if (call != "xmllib_load_policy(all)") return;
        log_of_last_call();
        companion_calls();
        EXPECT_EQ(shmnm_detach(), SHMNM_ERR_NOTINIT);
        detach_lines = log_of_last_call();
        EXPECT_THAT(companion_calls(), IsEmpty());
        EXPECT_EQ(shmnm_delete(), SHMNM_ERR_NOTINIT);
        delete_lines = log_of_last_call();
        EXPECT_THAT(companion_calls(), ElementsAre("kzmlog_close(log)"));
    };
    ASSERT_EQ(shmnm_create(), SHMNM_OK);
    EXPECT_THAT(detach_lines,
                ElementsAre(Enter("_detach"), Error("_detach", "not init"), Exit("_detach", SHMNM_ERR_NOTINIT)));
    EXPECT_THAT(delete_lines,
                ElementsAre(Enter("_delete"), Error("_delete", "not init"), Exit("_delete", SHMNM_ERR_NOTINIT)));
    EXPECT_THAT(log_of_last_call(), IsEmpty()) << "the log was closed in the middle of the create";
}

TEST_F(Frame, LogsTheSourceLineOfAMessage) {
    map_region({.servers = 1, .hb = 1, .np = 1});
    EXPECT_EQ(shmnm_getwaitstat(nullptr), SHMNM_ERR_PARAM);
    EXPECT_EQ(shmnm_getclstat(nullptr), SHMNM_ERR_PARAM);
    const std::vector<fakes::LogLine> lines = log_of_last_call();
    ASSERT_EQ(lines.size(), 6u);
    EXPECT_EQ(lines[0].line, lines[2].line) << "entry and exit name the same place";
    EXPECT_NE(lines[0].line, lines[1].line);
    EXPECT_NE(lines[0].line, lines[3].line) << "another export, another place";
}

TEST_F(Frame, WritesMessagesShorterThan4096BytesWhole) {
    map_region({.servers = 1, .hb = 1, .np = 1});
    const std::string around = "name: not found";
    for (const size_t length : {size_t{0}, size_t{1}, size_t{300}, 4095 - around.size()}) {
        const std::string name(length, 'x');
        int32_t pri = 0;
        log_of_last_call();
        EXPECT_EQ(shmnm_getnodepri(name.c_str(), &pri), SHMNM_ERR_NOTFOUND);
        EXPECT_THAT(log_of_last_call(),
                    ElementsAre(Enter("_getnodepri"), Error("_getnodepri", "name:" + name + " not found"),
                                Exit("_getnodepri", SHMNM_ERR_NOTFOUND)));
    }
}

TEST_F(Frame, CutsALongerMessageInsteadOfWritingBeyondItsBuffer) {
    map_region({.servers = 1, .hb = 1, .np = 1});
    const std::string name(100'000, 'x');
    int32_t pri = 0;
    EXPECT_EQ(shmnm_getnodepri(name.c_str(), &pri), SHMNM_ERR_NOTFOUND);
    EXPECT_THAT(log_of_last_call(),
                ElementsAre(Enter("_getnodepri"), Error("_getnodepri", "name:" + std::string(4095 - 5, 'x')),
                            Exit("_getnodepri", SHMNM_ERR_NOTFOUND)));
}

}  // namespace
