// The writer of JSON: texts that need an escape.
#include "picture/json_text.h"

#include <gtest/gtest.h>

#include <string>

namespace picture {
namespace {

TEST(JsonText, EscapesQuotesBackslashesAndControlCharacters) {
    JsonText text;
    text.begin_object().name("\"a\\").string(std::string("\n\0\x1F \x7F\u00FC", 7)).end_object();
    EXPECT_EQ(text.take(), "{\"\\\"a\\\\\":\"\\u000a\\u0000\\u001f \x7F\u00FC\"}");
}

}  // namespace
}  // namespace picture
