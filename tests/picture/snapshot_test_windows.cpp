// Names of dumps on Windows.
#include <gtest/gtest.h>

#include "picture/error.h"
#include "picture/snapshot.h"

namespace picture {
namespace {

TEST(DumpOfUtf8Name, IsRefusedIfItsNameIsNotUtf8) {
    try {
        read_dump_of_utf8_name("\xFF.dump");
        FAIL() << "not refused";
    } catch (const Error& error) {
        EXPECT_EQ(error.kind, ErrorKind::not_a_dump);
        EXPECT_STREQ(error.what(), "cannot read %FF.dump: its name is not UTF-8");
    }
}

}  // namespace
}  // namespace picture
