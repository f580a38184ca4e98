// The differences of two pictures.
#include "picture/changes.h"

#include <gmock/gmock.h>

namespace picture {

void PrintTo(const WordChange& change, std::ostream* stream) {
    const auto shown = [](const std::optional<Value>& value) { return value ? value->to_text() : "-"; };
    *stream << change.key << " " << shown(change.before) << " -> " << shown(change.after);
}

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

WordChange change(const char* key, std::optional<Value> before, std::optional<Value> after) {
    return {key, before, after};
}

TEST(Changes, AreListedInTheOrderOfTheNewPicture) {
    const std::vector<Word> before{{"a", 1u}, {"b", 2u}, {"c", 3u}};
    const std::vector<Word> after{{"c", 4u}, {"b", 2u}, {"a", 5u}};
    EXPECT_THAT(changes(before, after, ""), ElementsAre(change("c", 3u, 4u), change("a", 1u, 5u)));
}

TEST(Changes, ListAddedKeysAndRemovedKeysInTheirOldOrder) {
    const std::vector<Word> before{{"a", 1u}, {"z", 2u}, {"b", 3u}, {"y", 4u}};
    const std::vector<Word> after{{"n", 9u}, {"b", 3u}, {"m", 8u}};
    EXPECT_THAT(changes(before, after, ""),
                ElementsAre(change("n", std::nullopt, 9u), change("m", std::nullopt, 8u), change("a", 1u, std::nullopt),
                            change("z", 2u, std::nullopt), change("y", 4u, std::nullopt)));
}

TEST(Changes, DistinguishAKeyWithoutAValueFromAMissingKey) {
    const Value none;
    EXPECT_THAT(changes({{"a", none}, {"b", 1u}}, {{"b", none}, {"c", none}}, ""),
                ElementsAre(change("b", 1u, none), change("c", std::nullopt, none), change("a", none, std::nullopt)));
}

TEST(Changes, AreNoneBetweenEqualPicturesWhateverTheOffsets) {
    EXPECT_THAT(changes({}, {}, ""), IsEmpty());
    EXPECT_THAT(changes({{"a", -1, 100}, {"b", 2u, 104}}, {{"b", 2u, 4}, {"a", -1, 8}}, ""), IsEmpty());
}

TEST(Changes, AreLimitedToThePrefix) {
    const std::vector<Word> before{{"servers/alpha/pri", 1u}, {"servers/alphabet/pri", 1u}, {"servers/beta/pri", 1u}};
    const std::vector<Word> after{{"servers/alpha/pri", 2u}, {"servers/alphabet/pri", 2u}, {"servers/alpha/x", 1u}};
    EXPECT_THAT(changes(before, after, "servers/alpha"),
                ElementsAre(change("servers/alpha/pri", 1u, 2u), change("servers/alpha/x", std::nullopt, 1u)));
    EXPECT_THAT(changes(before, after, "servers/alpha/pri"), ElementsAre(change("servers/alpha/pri", 1u, 2u)));
    EXPECT_THAT(changes(before, after, "servers/beta/"), ElementsAre(change("servers/beta/pri", 1u, std::nullopt)));
    EXPECT_THAT(changes(before, after, "server"), IsEmpty());
}

}  // namespace
}  // namespace picture
