// The C library answers as shmnmctl does: of random regions, live and as dumps, whole, cut and with changed maxima,
// each answer is compared with what the program prints.
#include <fmt/format.h>
#include <gmock/gmock.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <vector>

#include "opened.h"
#include "picture/library_region.h"
#include "shmnm.h"
#include "support/dynamic_library.h"
#include "support/program.h"

namespace {

using Json = nlohmann::ordered_json;
using test::Answer;
using test::LibraryRegion;
using test::Opened;
using test::Random;

test::ProgramResult shmnmctl(const std::string& arguments) {
    return test::run_program(test::own_folder() + SHMNMCTL, arguments);
}

constexpr const char* null_device = std::filesystem::path::preferred_separator == '/' ? "/dev/null" : "NUL";

/// The exit status of shmnmctl that a result stands for.
int status_of(int32_t result) {
    return result / 100;
}

/// What is asked of a region beside the whole. Nothing in it needs quotes inside quotes on either system.
const std::vector<std::string>& conditions() {
    static const std::vector<std::string> all = {"all servers/*/nodestat=2",
                                                 "any servers/*/pingstat!=2",
                                                 "cluster/clstat=0 or cluster/waitstat=7",
                                                 "not exists hb/lan/*/stat",
                                                 "any np/*/*/svstat/*=2 and not servers/alpha/pri=1",
                                                 "servers/omega/nodestat=1",
                                                 "fst/stat=2",
                                                 "servers/alpha/nodestatt=1",
                                                 "cluster/clstat=",
                                                 "( cluster/clstat=0"};
    return all;
}

/// Compares everything about one source. `file` names it to shmnmctl, and `force` is "" or "--force".
void expect_same_answers(const Opened& picture, const std::string& file, const std::string& force, Random& random) {
    const auto tool = [&](const std::string& command) {
        return shmnmctl(fmt::format("{} --format json {} {} 2>{}", command, file, force, null_device));
    };
    const test::ProgramResult status = tool("status");
    const Answer json = picture.json();
    ASSERT_EQ(status_of(json.result), status.status) << json.text;
    if (json.result == SHMNMPICTURE_OK) {
        ASSERT_EQ(json.text, status.output);
    }
    const test::ProgramResult verify = shmnmctl("verify --format json " + file);
    const Answer findings = picture.findings();
    ASSERT_EQ(findings.result, SHMNMPICTURE_OK);
    ASSERT_EQ(findings.text, verify.output);

    for (int i = 0; i < 3; ++i) {
        const std::string& condition = conditions()[test::below(random, static_cast<uint32_t>(conditions().size()))];
        const test::ProgramResult query = tool("query \"" + condition + "\"");
        const Answer unmet = picture.unmet(condition);
        const int status_of_answer =
            unmet.result == SHMNMPICTURE_OK && !unmet.text.empty() ? 1 : status_of(unmet.result);
        ASSERT_EQ(status_of_answer, query.status) << condition << ": " << unmet.text;
    }
    const test::ProgramResult list = tool("list");
    if (list.status != 0) return;
    const Json words = Json::parse(list.output)["words"];
    for (const auto& [key, value] : words.items()) {
        ASSERT_EQ(picture.value(key), (Answer{SHMNMPICTURE_OK, value.dump()})) << key;
    }
    const auto any = std::next(words.begin(), test::below(random, static_cast<uint32_t>(words.size())));
    std::string key = any.key();
    if (test::below(random, 2) == 0) key += "x";
    // A command interpreter would take what stands between two percent signs for a variable.
    if (key.find('%') != std::string::npos) key = "servers/omega/pri";
    const test::ProgramResult get = tool("get \"" + key + "\"");
    const Answer value = picture.value(key);
    ASSERT_EQ(status_of(value.result), get.status) << key;
    if (value.result == SHMNMPICTURE_OK) {
        ASSERT_EQ(Json::parse(get.output)["value"].dump(), value.text);
    }
}

void write(const std::string& file, const std::vector<uint8_t>& bytes, size_t size) {
    std::ofstream(file, std::ios::binary)
        .write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(size));
}

TEST(PictureAnswers, AreThoseOfShmnmctlForAnyRegion) {
    Random random(test::seed());
    const test::TemporaryFolder folder;
    const std::string file = folder.string() + "/dump", option = "--file \"" + file + "\"";
    for (unsigned round = 0; round < test::share_of(30); ++round) {
        const auto count = [&](uint32_t most) { return static_cast<int32_t>(1 + test::below(random, most)); };
        LibraryRegion region({count(9), count(6), count(6), static_cast<int32_t>(test::below(random, 3))});
        region.call(random, test::below(random, 200));
        ASSERT_NO_FATAL_FAILURE(expect_same_answers(Opened::live(SHMNMPICTURE_ALL_BYTES), "", "", random));
        const std::vector<uint8_t> bytes = region.dump().bytes;
        const bool is_cut = test::below(random, 3) == 0;
        write(file, bytes,
              is_cut ? 1'084 + test::below(random, static_cast<uint32_t>(bytes.size() - 1'084)) : bytes.size());
        ASSERT_NO_FATAL_FAILURE(expect_same_answers(Opened::file(file), option, "", random));
        ASSERT_NO_FATAL_FAILURE(expect_same_answers(Opened::file(file, SHMNMPICTURE_FORCE), option, "--force", random));
    }
}

TEST(PictureAnswers, WarnOfChangedMaximaAsShmnmctlDoes) {
    Random random(test::seed());
    LibraryRegion region({4, 3, 2, 1});
    region.call(random, 50);
    ASSERT_EQ(shmnm_setmaxvalue_ex(4, 2, 2), SHMNM_OK);
    const Opened live = Opened::live(SHMNMPICTURE_ALL_BYTES);
    EXPECT_THAT(live.warning().text, testing::StartsWith("the maxima in the header were changed: "));
    expect_same_answers(live, "", "", random);
    const test::TemporaryFolder folder;
    const std::string file = folder.string() + "/dump";
    const std::vector<uint8_t> bytes = region.dump().bytes;
    write(file, bytes, bytes.size());
    const Opened dump = Opened::file(file);
    EXPECT_THAT(dump.warning().text, testing::StartsWith("the maxima in the header were changed: "));
    expect_same_answers(dump, "--file \"" + file + "\"", "", random);
    write(file, bytes, bytes.size() - 100);
    EXPECT_THAT(Opened::file(file, SHMNMPICTURE_FORCE).warning().text, testing::HasSubstr(" was cut or is not a dump"));
}

TEST(PictureAnswers, HaveTheErrorTextsOfShmnmctl) {
    const LibraryRegion region({4, 3, 2, 1});
    ASSERT_EQ(shmnm_addnode("alpha", 0), SHMNM_OK);
    const Opened picture = Opened::live();
    EXPECT_EQ(picture.value("servers/alpa/pri"),
              (Answer{SHMNMPICTURE_ERR_NO_SUCH_KEY,
                      "there is no key servers/alpa/pri; did you mean \"servers/alpha/pri\"?"}));
    EXPECT_EQ(picture.value("servers/alpha/prii"),
              (Answer{SHMNMPICTURE_ERR_NO_SUCH_WORD, "no such word \"prii\"; did you mean \"pri\"?"}));
    EXPECT_EQ(picture.unmet("cluster/clstat=").result, SHMNMPICTURE_ERR_INVALID_CONDITION);
    EXPECT_THAT(picture.error(), testing::StartsWith("invalid condition at character 16, its end"));
}

}  // namespace
