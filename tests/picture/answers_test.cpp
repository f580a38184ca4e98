// What the reading commands answer.
#include "picture/answers.h"

#include <gmock/gmock.h>

#include <functional>
#include <string>

#include "picture/error.h"
#include "shmnmctl/full_picture.h"

namespace picture {
namespace {

std::string refusal(ErrorKind kind, const std::function<void()>& work) {
    try {
        work();
        return "";
    } catch (const Error& error) {
        EXPECT_EQ(error.kind, kind);
        return error.what();
    }
}

TEST(WordOf, IsTheWordOfItsKey) {
    const Picture picture = test::full_picture(2, 1);
    EXPECT_EQ(word_of(picture, "servers/server001/pri"), *find(picture, "servers/server001/pri"));
}

TEST(WordOf, SuggestsAKeyThatIsThere) {
    const Picture picture = test::full_picture(2, 1);
    EXPECT_EQ(refusal(ErrorKind::no_such_key, [&] { word_of(picture, "servers/servr001/pri"); }),
              "there is no key servers/servr001/pri; did you mean \"servers/server001/pri\"?");
    EXPECT_EQ(refusal(ErrorKind::no_such_key, [&] { word_of(picture, "servers/nobody/pri"); }),
              "there is no key servers/nobody/pri");
    EXPECT_EQ(refusal(ErrorKind::no_such_word, [&] { word_of(picture, "servers/server001/prii"); }),
              "no such word \"prii\"; did you mean \"pri\"?");
}

TEST(ConditionOnWords, HasOnlyWordsThatThereCanBe) {
    EXPECT_TRUE(condition_on_words("servers/server000/pri>0").holds(words(test::full_picture(1, 0))));
    EXPECT_EQ(refusal(ErrorKind::no_such_word, [] { condition_on_words("servers/a/prii=1"); }),
              "no such word \"prii\"; did you mean \"pri\"?");
}

TEST(VerifyLine, ListsEachFindingAndSaysWhichRepairCompletes) {
    EXPECT_EQ(verify_line({}), "{\"version\":1,\"kind\":\"verify\",\"findings\":[]}\n");
    const std::vector<Finding> found{
        {.offset = 28, .key = "header/max", .expected = "4", .found = "5"},
        {.offset = 0, .key = "a", .expected = "b", .found = "c", .can_be_completed = true}};
    EXPECT_EQ(verify_line(with_repair(found)),
              "{\"version\":1,\"kind\":\"verify\",\"findings\":["
              "{\"offset\":28,\"key\":\"header/max\",\"expected\":\"4\",\"found\":\"5\"},"
              "{\"offset\":0,\"key\":\"a\",\"expected\":\"b (\\\"shmnmctl repair\\\" completes this one)\","
              "\"found\":\"c\"}]}\n");
}

}  // namespace
}  // namespace picture
