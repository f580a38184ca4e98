// Whatever a caller or a file gives to the C library, each function returns one of its results. SHMNM_HOSTILE_INPUTS
// says how many random inputs are tried.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "opened.h"
#include "picture/library_region.h"
#include "shmnm.h"

namespace {

using test::Answer;
using test::below;
using test::LibraryRegion;
using test::Opened;
using test::Random;

unsigned inputs() {
    const char* const wanted = std::getenv("SHMNM_HOSTILE_INPUTS");
    return wanted ? static_cast<unsigned>(std::strtoul(wanted, nullptr, 10)) : test::share_of(1'000);
}

bool is_printable(const std::string& text) {
    return std::all_of(text.begin(), text.end(), [](char byte) { return byte >= ' ' && byte <= '~'; });
}

/// A documented result, and a text that may be written to a terminal.
void expect_sound(const Answer& answer) {
    static const std::array results{
#define RESULT(name, value, meaning) int32_t{name},
        SHMNMPICTURE_RESULTS(RESULT)
#undef RESULT
    };
    ASSERT_NE(std::find(results.begin(), results.end(), answer.result), results.end()) << answer.result;
    std::string text = answer.text;
    // A document ends with a newline.
    if (answer.result == SHMNMPICTURE_OK && text.ends_with('\n')) text.pop_back();
    ASSERT_TRUE(is_printable(text)) << text;
    if (answer.result != SHMNMPICTURE_OK) {
        ASSERT_NE(text, "");
    }
}

/// Words and marks of keys and conditions, with what nobody should write between them.
std::string hostile_text(Random& random) {
    static const std::array<std::string, 36> pieces{
        "servers", "cluster", "hb",    "np",    "fst",  "alpha", "nodestat", "clstat", "svstat",
        "/",       "/",       "/",     "*",     "=",    "!=",    "<",        ">=",     "(",
        ")",       " and ",   " or ",  " not ", "all ", "any ",  "exists ",  "%",      "%2F",
        "%GG",     "\xff",    "\x1b[", "\n",    "0x",   "-1",    "1",        "none",   "99999999999999999999"};
    static const std::array<std::string, 4> sound{"", "servers/alpha/nodestat",
                                                  "any hb/*/*/svstat/*=2 or cluster/clstat=0",
                                                  "not (exists fst/stat and all servers/*/pri>=1)"};
    std::string text = sound[below(random, sound.size())];
    for (uint32_t count = below(random, 12); count > 0; --count) {
        text.insert(random() % (text.size() + 1), pieces[below(random, pieces.size())]);
    }
    return text;
}

/// Other values in the header and anywhere, and another size.
void damage(std::vector<uint8_t>& bytes, Random& random) {
    static const std::array<int32_t, 12> odd{INT32_MAX, INT32_MIN, -1, -146, 0, 1, 2, 5, 100, 1'000, 100'000, 1 << 30};
    const auto put = [&](size_t at, int32_t value) {
        if (at + sizeof value <= bytes.size()) std::memcpy(bytes.data() + at, &value, sizeof value);
    };
    for (uint32_t words = below(random, 4); words > 0; --words) {
        put(offsetof(shmnm_header, max_servers) + sizeof(int32_t) * below(random, 9), odd[below(random, odd.size())]);
    }
    for (uint32_t words = below(random, 40); words > 0; --words) {
        put(random() % bytes.size(), static_cast<int32_t>(random()));
    }
    if (below(random, 3) == 0) bytes.resize(random() % (bytes.size() + 1'000));
}

TEST(HostileInput, OfAFileGivesAResult) {
    Random random(test::seed());
    const test::TemporaryFolder folder;
    const std::string file = folder.string() + "/dump";
    LibraryRegion region({5, 4, 3, 1});
    region.call(random, 300);
    const std::vector<uint8_t> sound = region.dump().bytes;
    unsigned shown = 0;
    for (unsigned i = 0; i < inputs(); ++i) {
        std::vector<uint8_t> bytes = sound;
        damage(bytes, random);
        test::write_text(file, {reinterpret_cast<const char*>(bytes.data()), bytes.size()});
        Opened picture = Opened::file(file, below(random, 2) == 0 ? 0u : uint32_t{SHMNMPICTURE_FORCE});
        ASSERT_NO_FATAL_FAILURE(expect_sound({picture.result(), picture.error()}));
        const Answer json = picture.json();
        shown += json.result == SHMNMPICTURE_OK ? 1 : 0;
        for (const Answer& answer : {json, picture.findings(), picture.warning(), picture.value("servers/alpha/pri"),
                                     picture.unmet("all servers/*/nodestat=1")}) {
            ASSERT_NO_FATAL_FAILURE(expect_sound(answer)) << "input " << i;
        }
        picture.update();
        ASSERT_NO_FATAL_FAILURE(expect_sound({picture.result(), picture.error()}));
    }
    EXPECT_GT(shown, inputs() / 4) << "most of what is tried reaches the decoder";
}

TEST(HostileInput, OfKeysAndConditionsGivesAResult) {
    Random random(test::seed());
    LibraryRegion region({5, 4, 3, 1});
    region.call(random, 300);
    const Opened picture = Opened::live();
    ASSERT_EQ(picture.result(), SHMNMPICTURE_OK);
    unsigned conditions = 0;
    for (unsigned i = 0; i < 10 * inputs(); ++i) {
        const std::string text = hostile_text(random);
        ASSERT_NO_FATAL_FAILURE(expect_sound(picture.value(text))) << text;
        const Answer unmet = picture.unmet(text);
        ASSERT_NO_FATAL_FAILURE(expect_sound(unmet)) << text;
        conditions += unmet.result == SHMNMPICTURE_OK ? 1 : 0;
        ASSERT_NO_FATAL_FAILURE(expect_sound({Opened::address(text).result(), "x"})) << text;
    }
    EXPECT_GT(conditions, 0u);
}

TEST(HostileInput, OfAMegabyteGivesAResultSoon) {
    LibraryRegion region({5, 4, 3, 1});
    region.fill();
    const Opened picture = Opened::live();
    constexpr size_t megabyte = size_t{1} << 20;
    const std::string letters(megabyte, 'a'), slashes(megabyte, '/');
    for (const std::string& name : {letters, "servers/" + letters + "/pri", "servers/server1/" + letters, slashes}) {
        ASSERT_NO_FATAL_FAILURE(expect_sound(picture.value(name)));
        ASSERT_NO_FATAL_FAILURE(expect_sound(picture.unmet("exists " + name)));
        EXPECT_EQ(Opened::file(name).result(), SHMNMPICTURE_ERR_NOT_A_DUMP);
        EXPECT_EQ(Opened::address(name).result(), SHMNMPICTURE_ERR_INVALID);
    }
    for (const char* const piece : {"(", "not ", "all ", "cluster/clstat=0 and "}) {
        std::string text;
        while (text.size() < megabyte) text += piece;
        EXPECT_EQ(picture.unmet(text).result, SHMNMPICTURE_ERR_INVALID_CONDITION) << piece;
    }
}

}  // namespace
