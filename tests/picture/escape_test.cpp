// How names and what users typed stand in messages.
#include "picture/escape.h"

#include <gtest/gtest.h>

#include <string>

namespace picture {
namespace {

TEST(ShownFile, KeepsTheLettersAndSignsOfEveryScript) {
    for (const std::string text :
         {"C:\\Users\\50%.bin", "\u00FCber \u00A9", "\u041A\u043B\u0430\u0441\u0442\u0435\u0440", "\u96C6\u7FA4",
          "\u05D0\u0628", "\u20AC", "\u0800", "\u07FF", "\U00010000", "\U0001F5A5", "\U00020000"}) {
        EXPECT_EQ(shown_file(text), text);
    }
}

TEST(ShownFile, EscapesWhatControlsATerminalOrIsInvisible) {
    EXPECT_EQ(shown_file("a\x1B[31m\n\x7F"), "a%1B[31m%0A%7F");
    EXPECT_EQ(shown_file("\u0085\u00A0"), "%C2%85%C2%A0");
    // NOLINTNEXTLINE(misc-misleading-bidirectional): that is what is tested
    EXPECT_EQ(shown_file("x\u202Ey"), "x%E2%80%AEy");
    EXPECT_EQ(shown_file("x\u00ADy"), "x%C2%ADy");
    // NOLINTNEXTLINE(misc-misleading-bidirectional): that is what is tested
    EXPECT_EQ(shown_file("\u200B\u2028\u2066\uFEFF"), "%E2%80%8B%E2%80%A8%E2%81%A6%EF%BB%BF");
    EXPECT_EQ(shown_file("\uE000\U000E0041"), "%EE%80%80%F3%A0%81%81");
}

TEST(ShownFile, EscapesWhatIsNotUtf8) {
    EXPECT_EQ(shown_file("\xFF\xFC"), "%FF%FC");
    EXPECT_EQ(shown_file("\xD0"), "%D0");
    EXPECT_EQ(shown_file("\xE2\x82"
                         "a"),
              "%E2%82a");
    EXPECT_EQ(shown_file("\xC0\xAF\xE0\x80\xAF"), "%C0%AF%E0%80%AF") << "longer than necessary";
    EXPECT_EQ(shown_file("\xED\xA0\x80"), "%ED%A0%80") << "half of a character";
    EXPECT_EQ(shown_file("\xF5\x80\x80\x80"), "%F5%80%80%80") << "beyond the last character";
    EXPECT_EQ(shown_file("\xF4\x90\x80\x80"), "%F4%90%80%80") << "just beyond the last character";
    EXPECT_EQ(shown_file(std::string_view("\u00FC").substr(0, 1)), "%C3") << "its end is cut off";
}

TEST(AsTyped, EscapesEveryByteBeyondAscii) {
    EXPECT_EQ(as_typed("50% \u00FC\n"), "50% %C3%BC%0A");
}

TEST(Printable, EscapesEveryByteBeyondAsciiAndThePercentSign) {
    EXPECT_EQ(printable("50% \u00FC"), "50%25 %C3%BC");
}

TEST(Unescaped, NeedsTwoHexadecimalDigitsAfterEachPercentSign) {
    EXPECT_EQ(unescaped("a%2Fb%c3"), "a/b\xC3");
    for (const char* const text : {"%", "%2", "%%2", "%G2", "%2G", "a% 2"}) EXPECT_FALSE(unescaped(text)) << text;
}

}  // namespace
}  // namespace picture
