// What is told of the library's results.
#include "picture/library.h"

#include <gtest/gtest.h>

#include <string>

#include "picture/error.h"

namespace picture {
namespace {

TEST(Results, HaveAMeaningOrAreUnknown) {
    EXPECT_STREQ(meaning(3), "no server or resource matches");
    EXPECT_STREQ(meaning(4711), "an unknown result");
}

TEST(Results, OtherThanSuccessAreErrorsOfTheirFunction) {
    EXPECT_NO_THROW(expect_ok("shmnm_addnode", 0));
    try {
        expect_ok("shmnm_addnode", 13);
        FAIL() << "no error";
    } catch (const Error& error) {
        EXPECT_EQ(error.kind, ErrorKind::failed);
        EXPECT_STREQ(error.what(), "shmnm_addnode failed with code 13 (a server or resource of that name exists)");
    }
}

}  // namespace
}  // namespace picture
