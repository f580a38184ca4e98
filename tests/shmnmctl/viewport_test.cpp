// The screen of "status --watch" without a terminal: what it shows at each size, and what keys do to it.
#include "viewport.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <iterator>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "shmnmctl/full_picture.h"

namespace shmnmctl {
namespace {

using testing::AllOf;
using testing::Contains;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

constexpr Size smallest{20, 5}, usual{80, 24}, largest{300, 100};
constexpr Size sizes[] = {smallest, {30, 7}, {39, 10}, {40, 10}, {64, 20}, usual, {132, 43}, {200, 50}, largest};

std::string text(const ScreenLine& line) {
    std::string all;
    for (const Span& span : line) all += span.text;
    while (all.ends_with(' ')) all.pop_back();
    return all;
}

/// A viewport with a picture, of which every cell might have changed.
class TheViewport : public testing::Test {
  protected:
    void show(const picture::Picture& picture) {
        viewport_.show({.titles = {"2026-03-01T12:34:56.789+01:00  every 2 s", "12:34:56"},
                        .notes = {},
                        .sheet = to_sheet(picture, {}, &picture)});
    }
    /// The lines on the screen.
    std::vector<std::string> lines(Size size) {
        std::vector<std::string> all;
        for (const ScreenLine& line : viewport_.lines(size)) all.push_back(text(line));
        return all;
    }
    /// Those between the title and the last line.
    std::vector<std::string> body(Size size) {
        const std::vector<std::string> all = lines(size);
        return {all.begin() + 1, all.end() - 1};
    }
    std::string last_line(Size size) { return lines(size).back(); }

    bool press(Key key) { return viewport_.press({key}); }
    bool type(const std::string& letters) {
        for (const char letter : letters) {
            if (!viewport_.press({Key::letter, letter})) return false;
        }
        return true;
    }
    /// How many lines the last line says are below.
    static size_t lines_below(const std::string& last_line) {
        std::smatch found;
        return std::regex_search(last_line, found, std::regex("^(\\d+) more line")) ? std::stoul(found[1]) : 0;
    }

    Viewport viewport_;
};

TEST_F(TheViewport, FillsTheScreenAndNoLineIsTooLong) {
    show(test::full_picture(128, 16));
    for (const size_t columns : std::initializer_list<size_t>{1, 2, 5, 19, 20, 21, 40, 79, 80, 81, 132, 300}) {
        for (const size_t rows : std::initializer_list<size_t>{1, 2, 3, 5, 24, 100}) {
            for (const Key key : {Key::home, Key::page_down, Key::right, Key::end, Key::right, Key::left}) {
                press(key);
                const auto drawn = viewport_.lines({columns, rows});
                ASSERT_EQ(drawn.size(), rows);
                for (const ScreenLine& line : drawn) {
                    size_t length = 0;
                    for (const Span& span : line) length += span.text.size();
                    ASSERT_LE(length, columns) << text(line);
                }
            }
        }
    }
    EXPECT_TRUE(viewport_.lines({0, 0}).empty());
}

/// Every state and number of a picture.
std::set<std::string> values(const picture::Picture& picture) {
    std::set<std::string> all;
    const Sheet sheet = to_sheet(picture, {}, nullptr);
    for (const auto& group : sheet.groups) {
        for (const Section& section : group) {
            const auto* const table = std::get_if<Table>(&section);
            if (!table) continue;
            for (auto row = table->rows.begin() + 1; row != table->rows.end(); ++row) {
                for (auto cell = row->cells.begin() + 1; cell != row->cells.end(); ++cell) all.insert(cell->text);
            }
        }
    }
    all.erase("");
    return all;
}

TEST_F(TheViewport, ReachesEveryValueByKeysAtEachSize) {
    for (const Size size : sizes) {
        const bool is_whole = size == usual;
        const picture::Picture picture = test::full_picture(is_whole ? 128 : 24, is_whole ? 16 : 3);
        viewport_ = {};
        show(picture);
        std::set<std::string> missing = values(picture);
        ASSERT_GT(missing.size(), 300u);
        // The 64-bit values have more digits than there is room for.
        for (const uint64_t data : picture.fst_pids[0].piddata) {
            if (size.columns < 26) missing.erase(std::to_string(data));
        }
        // From the first line to the last, then on to other columns until there are no others.
        for (std::string before, now; before.empty() || now != before; type(">")) {
            before = std::exchange(now, "");
            for (press(Key::home);; press(Key::page_down)) {
                for (const std::string& line : body(size)) now += line + "\n";
                if (lines_below(last_line(size)) == 0) break;
            }
            std::istringstream words(std::regex_replace(now, std::regex("[<>]"), " "));
            for (std::string word; words >> word;) missing.erase(word);
        }
        EXPECT_TRUE(missing.empty()) << size.columns << " x " << size.rows << ": " << missing.size() << ", such as "
                                     << *missing.begin();
    }
}

TEST_F(TheViewport, SaysHowManyLinesAreBelow) {
    for (const Size size : sizes) {
        show(test::full_picture(size.rows < 50 ? 24 : 110, 3));
        press(Key::home);
        size_t below = lines_below(last_line(size));
        ASSERT_GT(below, 0u);
        while (below > 0) {
            const std::vector<std::string> before = body(size);
            press(Key::down);
            const std::vector<std::string> now = body(size);
            // What was second is first, unless headings stay there.
            EXPECT_EQ(std::vector(now.begin() + 1, now.end() - 1), std::vector(before.begin() + 2, before.end()));
            const size_t next = lines_below(last_line(size));
            ASSERT_EQ(next, below - 1) << last_line(size);
            below = next;
        }
        EXPECT_THAT(last_line(size), StartsWith("last line"));
        const std::vector<std::string> last = lines(size);
        press(Key::down);
        EXPECT_EQ(lines(size), last);
    }
    viewport_ = {};
    show(test::full_picture(2, 1));
    EXPECT_THAT(last_line({80, 40}), Not(HasSubstr("line")));
}

TEST_F(TheViewport, MarksEveryLineThatHasMoreColumns) {
    show(test::full_picture(128, 1));
    press(Key::end);
    const auto rows = [&] {
        std::vector<std::string> found;
        for (const std::string& line : body(usual)) {
            if (line.starts_with("hb ") || line.starts_with("lan/") || line.starts_with("  network"))
                found.push_back(line);
        }
        EXPECT_EQ(found.size(), 3u);
        return found;
    };
    for (const std::string& row : rows()) EXPECT_THAT(row, AllOf(EndsWith(">"), Not(HasSubstr("<"))));
    press(Key::right);
    for (const std::string& row : rows()) EXPECT_THAT(row, AllOf(EndsWith(">"), HasSubstr("<")));
    EXPECT_THAT(last_line(usual), HasSubstr("more columns >"));
    for (int i = 0; i < 128; ++i) press(Key::right);
    for (const std::string& row : rows()) EXPECT_THAT(row, AllOf(Not(EndsWith(">")), HasSubstr("<")));
    EXPECT_THAT(rows()[0], AllOf(StartsWith("hb"), EndsWith("server127")));
    EXPECT_THAT(last_line(usual), HasSubstr("last columns"));
    type("<");
    EXPECT_THAT(rows()[0], EndsWith(">"));
    for (int i = 0; i < 128; ++i) press(Key::left);
    EXPECT_THAT(rows()[0], HasSubstr("server000"));
}

TEST_F(TheViewport, KeepsNamesAndHeadingsInSight) {
    show(test::full_picture(128, 16));
    for (int i = 0; i < 50; ++i) press(Key::down);
    EXPECT_THAT(body(usual)[0], StartsWith("server "));
    EXPECT_THAT(body(usual)[1], StartsWith("server0"));
    press(Key::end);
    press(Key::up);
    for (int i = 0; i < 60; ++i) press(Key::right);
    EXPECT_THAT(body(usual), Contains(AllOf(StartsWith("ping/ping15 "), HasSubstr("<"), HasSubstr(">"))));
}

TEST_F(TheViewport, CutsNamesVisiblyAndNoValue) {
    picture::Picture picture = test::full_picture(2, 1);
    picture.servers[0].name = std::string(80, 'a') + "1";
    picture.servers[1].name = std::string(80, 'a') + "2";
    show(picture);
    for (const Size size : {Size{20, 40}, Size{80, 40}}) {
        // Their ends tell them apart.
        EXPECT_THAT(body(size), Contains(testing::ContainsRegex("^a+~a*1 ")));
        EXPECT_THAT(body(size), Contains(testing::ContainsRegex("^a+~a*2 ")));
    }
    EXPECT_THAT(body({80, 40}), Contains(HasSubstr("18446744073709551615")));
    EXPECT_THAT(body({300, 40}), Contains(HasSubstr(picture.servers[1].name)));
}

TEST_F(TheViewport, BreaksTextsThatAreLongerThanALine) {
    show(test::full_picture(1, 0));
    for (const Size size : {Size{20, 90}, Size{80, 60}}) {
        size_t letters = 0;
        for (const std::string& line : body(size)) {
            const size_t first = line.find_first_not_of(' ');
            if (first != std::string::npos && line.find_first_not_of('d', first) == std::string::npos)
                letters += line.size() - first;
        }
        EXPECT_EQ(letters, 200u) << size.columns;
    }
    viewport_.show({.titles = {}, .notes = {"! process 4711 was killed while it removed server gamma"}, .sheet = {}});
    EXPECT_THAT(body(smallest), testing::ElementsAre("! process 4711 was", "killed while it", "removed server gamma"));
}

TEST_F(TheViewport, TakesTheLongestTitleThatFits) {
    show(test::full_picture(1, 1));
    EXPECT_EQ(lines(usual)[0], "2026-03-01T12:34:56.789+01:00  every 2 s");
    EXPECT_EQ(lines(smallest)[0], "12:34:56");
}

TEST_F(TheViewport, FiltersRowsByTheirText) {
    show(test::full_picture(128, 16));
    type("/SERVER017");
    press(Key::enter);
    EXPECT_THAT(last_line(usual), HasSubstr("/SERVER017"));
    EXPECT_THAT(body(usual)[0], StartsWith("server "));
    EXPECT_THAT(body(usual)[1], StartsWith("server017 "));
    EXPECT_EQ(body(usual)[2], "");
    viewport_ = {};
    show(test::full_picture(128, 16));
    type("/lan/lan3");
    press(Key::enter);
    // Both rows of the resource, with all columns.
    EXPECT_THAT(body(usual)[0], AllOf(StartsWith("hb "), HasSubstr("server000"), EndsWith(">")));
    EXPECT_THAT(body(usual)[1], StartsWith("lan/lan3 "));
    EXPECT_THAT(body(usual)[2], StartsWith("  network "));
    EXPECT_EQ(body(usual)[3], "");
}

TEST_F(TheViewport, FiltersColumnsWhereNoRowHasTheText) {
    show(test::full_picture(128, 16));
    type("/server017");
    press(Key::enter);
    EXPECT_THAT(body(usual), Contains(testing::ContainsRegex("^hb +server017$")));
    EXPECT_THAT(body(usual), Contains(testing::ContainsRegex("^lan/lan0 +1......$")));
}

TEST_F(TheViewport, SaysThatNothingHasTheTextOfTheFilter) {
    show(test::full_picture(3, 1));
    type("/xyz");
    press(Key::enter);
    EXPECT_EQ(body(usual)[0], "nothing has \"xyz\"");
    EXPECT_THAT(last_line(usual), HasSubstr("/xyz"));
    EXPECT_THAT(last_line(smallest), StartsWith("/xyz"));
}

TEST_F(TheViewport, ShowsWhatIsTypedAndTakesItBack) {
    show(test::full_picture(3, 1));
    const std::vector<std::string> all = lines(usual);
    type("/server001");
    EXPECT_EQ(last_line(usual), "/server001_");
    EXPECT_THAT(body(usual)[1], StartsWith("server001"));
    press(Key::backspace);
    EXPECT_EQ(last_line(usual), "/server00_");
    // As it was before.
    press(Key::escape);
    EXPECT_EQ(lines(usual), all);
    type("/server002");
    press(Key::enter);
    type("/server003");
    press(Key::escape);
    EXPECT_THAT(last_line(usual), StartsWith("/server002"));
    press(Key::escape);
    EXPECT_EQ(lines(usual), all);
    // The end of a long text stays in sight.
    type("/0123456789012345678901234");
    EXPECT_EQ(last_line(smallest), "~789012345678901234_");
}

TEST_F(TheViewport, EndsAtQButNotWhileAFilterIsTyped) {
    show(test::full_picture(3, 1));
    EXPECT_TRUE(type("/q"));
    EXPECT_TRUE(press(Key::enter));
    EXPECT_TRUE(press(Key::escape));
    EXPECT_FALSE(type("q"));
}

TEST_F(TheViewport, ExplainsItsKeysOnRequest) {
    show(test::full_picture(128, 16));
    for (int i = 0; i < 40; ++i) press(Key::down);
    const std::vector<std::string> before = lines(usual);
    EXPECT_THAT(before.back(), AllOf(HasSubstr("? help"), HasSubstr("q end")));
    type("?");
    EXPECT_THAT(body(usual), Contains("q: end"));
    // It scrolls, and the picture is where it was.
    std::string help;
    for (size_t below = 1; below > 0; press(Key::down)) {
        help += body(smallest)[0] + "\n";
        below = lines_below(last_line(smallest));
    }
    EXPECT_THAT(help, AllOf(HasSubstr("Up, Down: a line"), HasSubstr("/: filter")));
    EXPECT_FALSE(type("q"));
    type("?");
    EXPECT_EQ(lines(usual), before);
}

TEST_F(TheViewport, ShowsTheSameAfterAnyChangeOfSize) {
    const picture::Picture picture = test::full_picture(128, 16);
    show(picture);
    for (const Size before : sizes) {
        for (const Size after : sizes) {
            lines(before);
            const std::vector<std::string> resized = lines(after);
            Viewport fresh;
            std::swap(fresh, viewport_);
            show(picture);
            EXPECT_EQ(resized, lines(after));
        }
    }
}

TEST_F(TheViewport, KeepsItsPlaceWhenThePictureChanges) {
    const picture::Picture picture = test::full_picture(128, 16);
    show(picture);
    for (int i = 0; i < 30; ++i) press(Key::down);
    press(Key::right);
    const std::vector<std::string> before = lines(usual);
    show(picture);
    EXPECT_EQ(lines(usual), before);
    // Of a smaller picture the last lines are shown.
    show(test::full_picture(3, 1));
    EXPECT_THAT(body(usual), Contains(StartsWith("server002")));
}

TEST_F(TheViewport, MarksChangedValues) {
    picture::Picture picture = test::full_picture(3, 1);
    const picture::Picture before = picture;
    picture.servers[1].record.pingstat = 7;
    viewport_.show({.titles = {}, .notes = {}, .sheet = to_sheet(picture, {}, &before)});
    std::vector<std::string> reverse;
    const auto drawn = viewport_.lines(usual);
    for (auto line = drawn.begin(); line + 1 != drawn.end(); ++line) {
        for (const Span& span : *line) {
            if (span.is_reverse) reverse.push_back(span.text);
        }
    }
    EXPECT_THAT(reverse, testing::ElementsAre("7"));
    EXPECT_THAT(body(usual), Contains(HasSubstr("7*")));
}

}  // namespace
}  // namespace shmnmctl
