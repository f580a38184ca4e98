// The C example does what docs/picture-library.md says that it does.
#include <gmock/gmock.h>

#include "opened.h"
#include "picture/live_region.h"
#include "shmnm.h"
#include "support/dynamic_library.h"
#include "support/program.h"

namespace {

class PictureExample : public test::LiveCopy {
  protected:
    static test::ProgramResult example(const std::string& arguments) {
        return test::run_program(test::own_folder() + PICTURE_EXAMPLE, arguments);
    }
};

TEST_F(PictureExample, PrintsThePictureOnceTheConditionHolds) {
    const test::ProgramResult result = example("servers/alpha/nodestat=2");
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.output, test::Opened::live().json().text);
}

CHILD(set_alive) {
    test::report(shmnm_attach());
    test::told();
    test::report(shmnm_setnodestat("alpha", 1));
}

TEST_F(PictureExample, WaitsForTheCondition) {
    test::Child writer = start(set_alive);
    ASSERT_EQ(writer.reported(), SHMNM_OK);
    writer.tell(0);
    const test::ProgramResult result = example("servers/alpha/nodestat=1");
    EXPECT_EQ(result.status, 0);
    EXPECT_THAT(result.output, testing::EndsWith(test::Opened::live().json().text));
    EXPECT_EQ(writer.reported(), SHMNM_OK);
    EXPECT_EQ(writer.wait(), 0);
}

TEST_F(PictureExample, DoesNotWaitForADump) {
    const test::TemporaryFolder folder;
    const std::string file = folder.string() + "/dump";
    test::write_text(file, std::string(1'084, '\0'));
    const test::ProgramResult result = example("servers/alpha/nodestat=1 \"" + file + "\"");
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.output, "not yet: servers/alpha/nodestat=1 (no such key)\n");
}

TEST_F(PictureExample, EndsAsShmnmctlDoes) {
    EXPECT_EQ(example("").status, 2);
    EXPECT_EQ(example("nonsense").status, 2);
    EXPECT_EQ(example("cluster/clstat=0 http://").status, 2);
    EXPECT_EQ(example("cluster/clstat=0 missing.bin").status, 5);
    const test::ScopedEnvironment other("KZMUTIL_NAMESPACE", "picture-example-of-nothing-");
    EXPECT_EQ(example("cluster/clstat=0").status, 3);
}

}  // namespace
