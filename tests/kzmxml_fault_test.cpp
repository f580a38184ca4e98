// Where a document that is not well-formed has its fault, for the programs that show its line.
#include <gtest/gtest.h>

#include <string_view>

#include "well_formed.h"

namespace {

TEST(FaultInADocument, IsItsFirstControlCharacter) {
    EXPECT_EQ(kzmxml::fault_in("<root>\x01\x02</root>"), 6u);
    EXPECT_EQ(kzmxml::fault_in("\x1F<root/>"), 0u);
    EXPECT_EQ(kzmxml::fault_in("<root></toor>\t\x7F\r\n\x1F"), 17u) << "the end tag comes before it";
}

TEST(FaultInADocument, IsWhereTheDocumentCannotGoOn) {
    struct {
        std::string_view text;
        size_t fault;
    } const cases[] = {
        {"", 0},
        {"text", 0},
        {"<root", 5},
        {"<root>\n", 7},
        {"<root/>\ntext", 8},
        {"\xEF\xBB\xBF<root/>text", 10},
        {"<root></toor>", 12},
        {"<root a='<'/>", 9},
        {"<root>\n<a b=1/></root>", 12},
        {"<root>]]></root>", 6},
        {"<root/><!-- ", 11},
        {"<root>&#65</root>", 10},
    };
    for (const auto& [text, fault] : cases) EXPECT_EQ(kzmxml::fault_in(text), fault) << text;
}

}  // namespace
